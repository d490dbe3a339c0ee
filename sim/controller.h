// The virtual controller: dispatches IPMI requests by network function and command to the
// handlers of its subsystems, frames OEM/Group requests, keeps the machine's state in a
// StateStore and applies injected faults to what it answers.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "profile.h"
#include "state_store.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace tvxsim {

// Completion codes, by their one name (tvx::cc).
namespace cc = tvx::cc;
namespace wire = tvx::wire;

struct Request {
    uint8_t netFn;
    uint8_t lun;
    uint8_t command;
    std::span<const uint8_t> data; // for OEM handlers: the bytes after the IANA number

    // The request's fields, read in order.
    wire::Reader reader() const { return wire::Reader(wire::View(data)); }
};

// The answer being built: completion code first, then data bytes in the shared encoding.
class Response {
public:
    Response() : bytes_{cc::kOk} {}
    void fail(uint8_t code) { bytes_.assign(1, code); }
    Response &u8(uint8_t v) { return add().u8(v), *this; }
    Response &u16(uint16_t v) { return add().u16(v), *this; }
    Response &u24(uint32_t v) { return add().u24(v), *this; }
    Response &u32(uint32_t v) { return add().u32(v), *this; }
    Response &append(std::span<const uint8_t> b) { return add().bytes(b), *this; }
    Response &append(std::string_view text)
    {
        return append(std::span<const uint8_t>(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
    }
    // Answers 0xC7 unless the walk read exactly the request's bytes: true when the handler
    // may go on.
    bool complete(const wire::Reader &in)
    {
        if (!in.done()) fail(cc::kRequestLengthInvalid);
        return in.done();
    }
    uint8_t code() const { return wire::View(bytes_).get(tvx::kCompletionCode, uint8_t{0}); }
    const std::vector<uint8_t> &bytes() const { return bytes_; }
    std::vector<uint8_t> &bytes() { return bytes_; }

private:
    wire::Appender<std::vector<uint8_t>> add() { return wire::Appender<std::vector<uint8_t>>(bytes_); }
    std::vector<uint8_t> bytes_;
};

// What a handler sees of the machine. Changing `state` requires calling changed(), so the
// change is stored (each area where its subsystem keeps it: non-volatile storage, RAM, or as
// a log; see Controller::keepInRam and keepAsLog). What is stored is what differs from the
// state before the request, so a handler may call changed() for a change that comes to nothing.
struct Context {
    const Profile &profile;
    nlohmann::json &state;
    bool dirty = false;
    void changed() { dirty = true; }
};

using Handler = std::function<void(Context &, const Request &, Response &)>;

// What the controller sends back: nothing (the request is lost), or these bytes.
struct Reply {
    bool answered = true;
    std::vector<uint8_t> bytes;
};

// One subsystem of the controller: its commands and its part of the initial state.
struct Subsystem {
    const char *name;
    void (*install)(class Controller &);
    // Adds this subsystem's part of a fresh machine's state (may be null).
    void (*initState)(const Profile &, nlohmann::json &state);
};

class Controller {
public:
    // stateDir empty: the state lives in memory only. Throws ProfileError for a state that
    // cannot be used.
    Controller(Profile profile, const std::string &stateDir);
    // The same with a chosen set of subsystems (tests use their own).
    // With checkState false the old state is not read (a machine about to be reset).
    Controller(Profile profile, const std::string &stateDir, std::span<const Subsystem> subsystems,
               bool checkState = true);

    void on(uint8_t netFn, uint8_t command, Handler h); // a standard command
    void onOem(uint8_t command, Handler h);             // an OEM/Group (0x2E) command
    // An OEM/Group command whose first byte after the IANA number selects a sub-function:
    // the handler sees the bytes after that selector. A command without any handler for its
    // sub-function answers 0xC1 (with the IANA number), one without selector byte 0xC7.
    // A command with both keeps its onOem handler for the bytes no sub-function claims.
    void onOemSub(uint8_t command, uint8_t sub, Handler h);

    // How a subsystem keeps a top-level area of the state (by default: in non-volatile
    // storage, each change synced before it is acknowledged). Declared while installing.
    // In RAM: shared by the programs using the machine, forgotten when it is reset, never
    // written to non-volatile storage (reservations, transactions in progress).
    void keepInRam(const std::string &area) { layout_.ram.insert(area); }
    // state[area][member] is a list that only grows at its end or is replaced whole (emptied):
    // a change costs the entries appended. Entries are never changed in place.
    void keepAsLog(const std::string &area, const std::string &member) { layout_.logs.insert({area, member}); }

    // Runs a host-side control (not a request) on the machine's state, serialized like a
    // request; what fn changes (after ctx.changed()) is kept. Throws ProfileError.
    void control(const std::function<void(Context &)> &fn);

    // What a subsystem derives from the profile once (its parsed tables), kept with the
    // controller for its handlers and its host-side controls.
    template <typename T> void attach(const std::string &name, std::shared_ptr<const T> part)
    {
        parts_[name] = std::move(part);
    }
    template <typename T> std::shared_ptr<const T> attachment(const std::string &name) const
    {
        auto it = parts_.find(name);
        return it == parts_.end() ? nullptr : std::static_pointer_cast<const T>(it->second);
    }
    // The part of that name, made by parse(profile) on first use and kept.
    template <typename T, typename Parse>
    std::shared_ptr<const T> attachedOrParsed(const std::string &name, Parse parse)
    {
        if (auto part = attachment<T>(name)) return part;
        auto part = std::make_shared<const T>(parse(profile_));
        attach<T>(name, part);
        return part;
    }

    // Handles one request. Thread-safe; serialized with other programs on the same state.
    Reply handle(uint8_t netFn, uint8_t lun, uint8_t command, std::span<const uint8_t> data);

    void injectFault(const Fault &f);
    void clearFaults();
    void reset();

    const Profile &profile() const { return profile_; }
    const std::string &statePath() const { return store_->path(); }

    // The subsystems of a complete machine.
    static std::span<const Subsystem> standardSubsystems();

private:
    void transactChecked(const std::function<bool(nlohmann::json &)> &fn);
    void dispatch(Context &ctx, const Request &req, Response &rsp);
    void dispatchOem(Context &ctx, const Request &req, Response &rsp);
    std::optional<Fault> takeFault(uint8_t netFn, uint8_t command, std::span<const uint8_t> data);

    Profile profile_;
    std::optional<nlohmann::json> initialState_; // built from profile_ on first use
    std::vector<const Subsystem *> subsystems_;
    StateLayout layout_;
    std::unique_ptr<StateStore> store_;
    std::map<uint16_t, Handler> handlers_;
    std::map<uint8_t, Handler> oemHandlers_;
    std::map<uint8_t, std::map<uint8_t, Handler>> oemSubHandlers_;
    std::map<std::string, std::shared_ptr<const void>> parts_;
    std::vector<Fault> faults_;
    std::mutex mutex_;
};

// Subsystems defined in their own source files.
extern const Subsystem kAppSubsystem;
extern const Subsystem kSdrRepositorySubsystem;
extern const Subsystem kSensorSubsystem;
extern const Subsystem kComponentSubsystem;
extern const Subsystem kFanSubsystem;
extern const Subsystem kChassisSubsystem;
extern const Subsystem kConfigSpaceSubsystem;
extern const Subsystem kLanSubsystem;
extern const Subsystem kAlertSubsystem;
extern const Subsystem kSelSubsystem;
extern const Subsystem kFruSubsystem;
extern const Subsystem kIpmbSubsystem;
extern const Subsystem kProcessorSubsystem;
extern const Subsystem kMemorySubsystem;
extern const Subsystem kPlatformInfoSubsystem;
extern const Subsystem kInventorySubsystem; // host agent, EEPROM information
extern const Subsystem kIelSubsystem;       // the internal event log
extern const Subsystem kSignalSubsystem;    // component signals, boot status, port functions

} // namespace tvxsim
