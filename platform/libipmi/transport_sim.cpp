// The virtual controller as a transport: requests are handled in-process by a model of the
// controller built from a machine profile.
#include <functional>
#include <mutex>

#include "controller.h"
#include "sdr.h"
#include "internal.h"
#include "libipmi_host.h"

namespace libipmi {
namespace {

class SimTarget;

class SimLink : public Link {
public:
    explicit SimLink(std::shared_ptr<tvxsim::Controller> c) : controller_(std::move(c)) {}

    Answer exchange(const RawCall &call, std::span<const uint8_t> request) override
    {
        tvxsim::Reply reply;
        try {
            reply = controller_->handle(static_cast<uint8_t>(call.netFnLun >> 2), static_cast<uint8_t>(call.netFnLun & 3),
                                        call.command, request);
        } catch (const tvxsim::ProfileError &e) {
            setLastError(e.what());
            return Answer{LIBIPMI_STATUS_CONFIG_ERROR, std::nullopt};
        }
        // A lost request is reported at once rather than after waiting out the time-out:
        // nothing will ever arrive from an in-process controller.
        if (!reply.answered) return Answer{LIBIPMI_STATUS_TIMEOUT, std::nullopt};
        return answerFromBytes(std::move(reply.bytes));
    }

private:
    std::shared_ptr<tvxsim::Controller> controller_;
};

class SimTarget : public Target {
public:
    explicit SimTarget(std::shared_ptr<tvxsim::Controller> c)
        : controller_(std::move(c)), link_(std::make_shared<SimLink>(controller_))
    {
    }

    // Sessions of an in-process controller have no state of their own: they share one link.
    uint16_t open(const OpenCall &, std::shared_ptr<Link> &link) override
    {
        link = link_;
        return LIBIPMI_STATUS_OK;
    }

    std::string describe() const override
    {
        std::string where = controller_->statePath().empty() ? "state in memory" : "state " + controller_->statePath();
        return "virtual controller " + controller_->profile().file + " (" + where + ")";
    }

    tvxsim::Controller &controller() { return *controller_; }

private:
    std::shared_ptr<tvxsim::Controller> controller_;
    std::shared_ptr<Link> link_;
};

SimTarget *currentSim() { return currentTargetAs<SimTarget>("a virtual controller"); }

} // namespace

std::shared_ptr<Target> makeMachineTarget(const std::string &profilePath, const std::string &stateDir, bool reset)
{
    try {
        tvxsim::Profile profile =
            profilePath.empty()
                ? tvxsim::parseProfile(std::string(reinterpret_cast<const char *>(kDefaultProfile), kDefaultProfileSize),
                                       "default.json")
                : tvxsim::loadProfile(profilePath);
        std::string dir = stateDir.empty() ? tvxsim::StateStore::defaultDir() : stateDir;
        // A machine about to be reset is not asked for its old state, which may be corrupt.
        auto controller = std::make_shared<tvxsim::Controller>(std::move(profile), dir,
                                                                 tvxsim::Controller::standardSubsystems(), !reset);
        if (reset) controller->reset();
        return std::make_shared<SimTarget>(std::move(controller));
    } catch (const tvxsim::ProfileError &e) {
        setLastError(e.what());
    } catch (const std::exception &e) {
        setLastError(std::string("cannot start the virtual controller: ") + e.what());
    }
    return nullptr;
}

} // namespace libipmi

using namespace libipmi;

extern "C" const char *ipmihost_state_file(void)
{
    return boundary<const char *>("", [&]() -> const char * {
        static thread_local std::string path;
        SimTarget *sim = currentSim();
        if (!sim) return nullptr;
        path = sim->controller().statePath();
        return path.c_str();
    });
}

extern "C" int ipmihost_reset_machine(void)
{
    return boundary<int>(-1, [&]() -> int {
        SimTarget *sim = currentSim();
        if (!sim) return -1;
        try {
            sim->controller().reset();
        } catch (const tvxsim::ProfileError &e) {
            setLastError(e.what());
            return -1;
        }
        return 0;
    });
}

extern "C" int ipmihost_inject_fault(const ipmihost_fault *fault)
{
    return boundary<int>(-1, [&]() -> int {
        if (!fault) {
            setLastError("no fault given");
            return -1;
        }
        if (fault->matchLen > sizeof fault->match || fault->kind < IPMIHOST_FAULT_COMPLETION_CODE ||
            fault->kind > IPMIHOST_FAULT_GARBLED || (fault->kind == IPMIHOST_FAULT_COMPLETION_CODE && fault->value == 0)) {
            setLastError("invalid fault (match length, kind, or a completion code of 0)");
            return -1;
        }
        SimTarget *sim = currentSim();
        if (!sim) return -1;
        tvxsim::Fault f;
        f.netFn = fault->netFn;
        f.command = fault->command;
        f.match.assign(fault->match, fault->match + fault->matchLen);
        f.kind = static_cast<tvxsim::Fault::Kind>(fault->kind);
        f.value = fault->value;
        f.count = fault->count;
        sim->controller().injectFault(f);
        return 0;
    });
}

extern "C" void ipmihost_clear_faults(void)
{
    boundaryVoid([&] {
        if (SimTarget *sim = currentSim()) sim->controller().clearFaults();
    });
}

namespace {

// Runs one host-side control of the selected virtual controller: "" from it is success.
int simControl(const std::function<std::string(tvxsim::Controller &)> &fn)
{
    SimTarget *sim = currentSim();
    if (!sim) return -1;
    try {
        std::string refused = fn(sim->controller());
        if (!refused.empty()) {
            setLastError(refused);
            return -1;
        }
    } catch (const tvxsim::ProfileError &e) {
        setLastError(e.what());
        return -1;
    }
    return 0;
}

} // namespace

extern "C" int ipmihost_set_sensor_reading(uint8_t sensorNumber, uint8_t raw)
{
    return boundary<int>(-1, [&]() -> int {
        return simControl([&](tvxsim::Controller &c) { return tvxsim::setSensorReading(c, sensorNumber, raw); });
    });
}

extern "C" int ipmihost_set_sensor_state(uint8_t sensorNumber, uint16_t stateBits)
{
    return boundary<int>(-1, [&]() -> int {
        return simControl([&](tvxsim::Controller &c) { return tvxsim::setSensorState(c, sensorNumber, stateBits); });
    });
}

extern "C" int ipmihost_set_sensor_flags(uint8_t sensorNumber, int scanning, int unavailable)
{
    return boundary<int>(-1, [&]() -> int {
        return simControl(
            [&](tvxsim::Controller &c) { return tvxsim::setSensorFlags(c, sensorNumber, scanning, unavailable); });
    });
}
