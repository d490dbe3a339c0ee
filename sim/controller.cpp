#include "controller.h"

#include <algorithm>

namespace tvxsim {
namespace {

constexpr uint8_t kNetFnOemGroup = tvx::netfn::kOem;

uint16_t key(uint8_t netFn, uint8_t command) { return static_cast<uint16_t>((netFn & 0x3E) << 8 | command); }

} // namespace

std::span<const Subsystem> Controller::standardSubsystems()
{
    static const Subsystem all[] = {kAppSubsystem,       kChassisSubsystem,       kConfigSpaceSubsystem,
                                    kLanSubsystem,       kSdrRepositorySubsystem, kSensorSubsystem,
                                    kComponentSubsystem, kSelSubsystem,           kFruSubsystem,
                                    kProcessorSubsystem, kMemorySubsystem,        kPlatformInfoSubsystem, kFanSubsystem,
                                    kInventorySubsystem,  kIelSubsystem,           kSignalSubsystem,
                                    kIpmbSubsystem,      kAlertSubsystem};
    return all;
}

Controller::Controller(Profile profile, const std::string &stateDir)
    : Controller(std::move(profile), stateDir, standardSubsystems())
{
}

Controller::Controller(Profile profile, const std::string &stateDir, std::span<const Subsystem> subsystems,
                       bool checkState)
    : profile_(std::move(profile)), faults_(profile_.faults)
{
    for (const Subsystem &s : subsystems) subsystems_.push_back(&s);
    // The initial state follows from the profile alone, which never changes: it is built once,
    // on first use, and every reset copies it instead of parsing the profile's logs again.
    auto initial = [this]() {
        if (!initialState_) {
            nlohmann::json state = nlohmann::json::object();
            for (const Subsystem *s : subsystems_)
                if (s->initState) s->initState(profile_, state);
            initialState_ = std::move(state);
        }
        return *initialState_;
    };
    for (const Subsystem *s : subsystems_)
        if (s->install) s->install(*this);
    store_ = std::make_unique<StateStore>(stateDir, profile_, initial, layout_);
    if (checkState) store_->open();
}

void Controller::on(uint8_t netFn, uint8_t command, Handler h) { handlers_[key(netFn, command)] = std::move(h); }

void Controller::onOem(uint8_t command, Handler h) { oemHandlers_[command] = std::move(h); }

void Controller::onOemSub(uint8_t command, uint8_t sub, Handler h) { oemSubHandlers_[command][sub] = std::move(h); }

// Runs fn on the state as one transaction. A value of the wrong type in the state or the
// profile (a hand-edited file) makes nlohmann-json throw deep inside a handler: it becomes a
// ProfileError that names the files and says how to recover.
void Controller::transactChecked(const std::function<bool(nlohmann::json &)> &fn)
{
    try {
        store_->transact(fn);
    } catch (const nlohmann::json::exception &e) {
        std::string state = statePath().empty() ? std::string("the machine's state") : statePath();
        throw ProfileError(state + " or " + profile_.file + ": a value has the wrong type or is missing (" +
                           e.what() + "); reset the machine if its state file was edited");
    }
}

void Controller::control(const std::function<void(Context &)> &fn)
{
    std::lock_guard<std::mutex> g(mutex_);
    transactChecked([&](nlohmann::json &state) {
        Context ctx{profile_, state};
        fn(ctx);
        return ctx.dirty;
    });
}

void Controller::injectFault(const Fault &f)
{
    std::lock_guard<std::mutex> g(mutex_);
    faults_.push_back(f);
}

void Controller::clearFaults()
{
    std::lock_guard<std::mutex> g(mutex_);
    faults_.clear();
}

void Controller::reset()
{
    std::lock_guard<std::mutex> g(mutex_);
    store_->reset();
}

std::optional<Fault> Controller::takeFault(uint8_t netFn, uint8_t command, std::span<const uint8_t> data)
{
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if ((it->netFn & 0x3E) != (netFn & 0x3E) || it->command != command) continue;
        if (it->match.size() > data.size() || !std::equal(it->match.begin(), it->match.end(), data.begin())) continue;
        Fault hit = *it;
        if (it->count == 1) faults_.erase(it);
        else if (it->count > 1) --it->count;
        return hit;
    }
    return std::nullopt;
}

void Controller::dispatchOem(Context &ctx, const Request &req, Response &rsp)
{
    // OEM/Group frame: IANA number (3 bytes, LSB first), then the command's own bytes. The
    // answer repeats the IANA number after the completion code, on errors too.
    wire::Reader in = req.reader();
    const uint32_t iana = in.u24();
    if (!in.ok()) {
        rsp.fail(cc::kRequestLengthInvalid);
        return;
    }
    auto finish = [&](Response &inner) {
        Response out;
        out.fail(inner.code());
        out.u24(iana);
        out.append(wire::View(inner.bytes()).from(tvx::kAnswerData).span());
        rsp = std::move(out);
    };
    Response inner;
    if (iana != ctx.profile.oemIana) {
        inner.fail(cc::kInvalidCommand);
        finish(inner);
        return;
    }
    auto whole = oemHandlers_.find(req.command);
    auto subs = oemSubHandlers_.find(req.command);
    // A command whose first byte is a sub-function: that sub-function's handler sees what
    // follows. Bytes no sub-function claims go to the command's own handler, if it has one.
    wire::Reader peek = in;
    const uint8_t selector = peek.u8();
    if (subs != oemSubHandlers_.end() && (whole == oemHandlers_.end() || (peek.ok() && subs->second.count(selector)))) {
        if (!peek.ok()) {
            inner.fail(cc::kRequestLengthInvalid);
        } else if (auto h = subs->second.find(selector); h == subs->second.end()) {
            inner.fail(cc::kInvalidCommand);
        } else {
            Request sub{req.netFn, req.lun, req.command, peek.rest().span()};
            h->second(ctx, sub, inner);
        }
        finish(inner);
        return;
    }
    if (whole == oemHandlers_.end()) {
        inner.fail(cc::kInvalidCommand);
    } else {
        Request sub{req.netFn, req.lun, req.command, in.rest().span()};
        whole->second(ctx, sub, inner);
    }
    finish(inner);
}

void Controller::dispatch(Context &ctx, const Request &req, Response &rsp)
{
    if ((req.netFn & 0x3E) == kNetFnOemGroup) {
        dispatchOem(ctx, req, rsp);
        return;
    }
    auto it = handlers_.find(key(req.netFn, req.command));
    if (it == handlers_.end()) {
        rsp.fail(cc::kInvalidCommand);
        return;
    }
    it->second(ctx, req, rsp);
}

Reply Controller::handle(uint8_t netFn, uint8_t lun, uint8_t command, std::span<const uint8_t> data)
{
    std::lock_guard<std::mutex> g(mutex_);
    Reply reply;
    // A request that is lost or refused never reaches the command; the other faults damage
    // the answer of a command that was carried out.
    std::optional<Fault> fault = takeFault(netFn, command, data);
    if (fault && fault->kind == Fault::Kind::NoAnswer) {
        reply.answered = false;
        return reply;
    }
    if (fault && fault->kind == Fault::Kind::CompletionCode) {
        reply.bytes = {fault->value};
        return reply;
    }
    Response rsp;
    Request req{static_cast<uint8_t>(netFn & 0x3F), static_cast<uint8_t>(lun & 3), command, data};
    transactChecked([&](nlohmann::json &state) {
        Context ctx{profile_, state};
        dispatch(ctx, req, rsp);
        return ctx.dirty;
    });
    reply.bytes = std::move(rsp.bytes());
    if (fault) {
        switch (fault->kind) {
        case Fault::Kind::Short:
            if (reply.bytes.size() > fault->value) reply.bytes.resize(fault->value);
            break;
        case Fault::Kind::Long:
            reply.bytes.insert(reply.bytes.end(), fault->value, 0xEE);
            break;
        case Fault::Kind::Garbled:
            for (std::size_t i = 1; i < reply.bytes.size(); ++i)
                reply.bytes[i] = static_cast<uint8_t>(reply.bytes[i] ^ (fault->value ? fault->value : 0xA5));
            break;
        default:
            break;
        }
    }
    return reply;
}

} // namespace tvxsim
