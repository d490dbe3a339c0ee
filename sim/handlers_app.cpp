// Application commands (NetFn 0x06): the controller's identity, self test and ACPI power state.
#include "controller.h"

namespace tvxsim {
namespace {

namespace app = tvx::cmd::app;

void getDeviceId(Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    auto data = ctx.profile.device.responseData();
    rsp.append(data);
}

void getSelfTestResults(Context &, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    rsp.u8(0x55); // no error
    rsp.u8(0x00);
}

// The ACPI power state is set by system software and kept by the controller.
void setAcpiPowerState(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t system = in.u8(), device = in.u8();
    if (!rsp.complete(in)) return;
    auto &acpi = ctx.state["acpi"];
    if ((system & 0x80) && (system & 0x7F) != 0x7F) {
        uint8_t s = system & 0x7F;
        // Defined system states: S0..S5 and their variants (0x00-0x0A), legacy on/off
        // (0x20, 0x21), unknown (0x2A).
        if (s > 0x0A && s != 0x20 && s != 0x21 && s != 0x2A) return rsp.fail(cc::kParameterOutOfRange);
        acpi["system"] = s;
    }
    if ((device & 0x80) && (device & 0x7F) != 0x7F) {
        uint8_t d = device & 0x7F;
        if (d > 0x03 && d != 0x2A) return rsp.fail(cc::kParameterOutOfRange);
        acpi["device"] = d;
    }
    ctx.changed();
}

void getAcpiPowerState(Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    const auto &acpi = ctx.state["acpi"];
    rsp.u8(acpi.value("system", uint8_t{0}));
    rsp.u8(acpi.value("device", uint8_t{0}));
}

void install(Controller &c)
{
    c.on(tvx::netfn::kApp, app::kGetDeviceId, getDeviceId);
    c.on(tvx::netfn::kApp, app::kGetSelfTestResults, getSelfTestResults);
    c.on(tvx::netfn::kApp, app::kSetAcpiPowerState, setAcpiPowerState);
    c.on(tvx::netfn::kApp, app::kGetAcpiPowerState, getAcpiPowerState);
}

void initState(const Profile &, nlohmann::json &state)
{
    state["acpi"] = {{"system", 0x00}, {"device", 0x00}}; // S0/G0 working, D0
}

} // namespace

const Subsystem kAppSubsystem = {"application", install, initState};

} // namespace tvxsim
