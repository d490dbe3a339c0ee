// The controller's system event log and its event texts as the machine profile describes
// them ("sel" and "event_texts"), and the log as it stands in the machine state.
//
// Every log entry carries, besides its 16-byte IPMI record, what the controller's own event
// handling attached to it: the vendor's error code (4 opaque bytes), a severity and the
// parameter strings its message text refers to as %1..%8. Entries from the profile say
// these themselves; entries added at run time get them from the profile's sensor-event
// rules (sensor type, event offset, direction).
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "profile.h"
#include "tvx/records.h"

namespace tvxsim {

class Controller;
struct Context;

namespace sel {

using tvx::sel::hasTimestamp;
using tvx::sel::isOemTimed;
using tvx::sel::kRecordSize;
using tvx::sel::kSystemEvent;
inline constexpr uint16_t kFirst = 0x0000;
inline constexpr uint16_t kLast = 0xFFFF;
inline constexpr uint16_t kEnglish = 0x0409;
inline constexpr int16_t kUtcOffsetUnspecified = 0x07FF;
// The largest log a profile may describe (records of 16 bytes, allocation units of one record).
inline constexpr uint16_t kMaxCapacity = 8192;
// Parameters of one entry: at most 8 (%1..%8), each at most this long, all of them together
// within one answer of the error-code request.
inline constexpr std::size_t kMaxParameters = 8;
inline constexpr std::size_t kMaxParameterLength = 64;
inline constexpr std::size_t kMaxParameterBytes = 240;
inline constexpr std::size_t kMaxTextLength = 2000;

using Record = std::array<uint8_t, kRecordSize>;
using ErrorCode = std::array<uint8_t, 4>;

enum class Severity : uint8_t { Info = 0, Minor = 1, Major = 2, Critical = 3 };
const char *severityName(Severity s);
// The flags byte of the error-code answer: the severity class in bits 4-6.
constexpr uint8_t severityFlags(Severity s) { return static_cast<uint8_t>(static_cast<uint8_t>(s) << 4); }

// "1A000301": the 4 bytes in the order the controller sends them.
std::string codeText(const ErrorCode &c);

struct Entry {
    Record record{};
    std::optional<ErrorCode> code; // none: the controller has no message for this entry
    Severity severity = Severity::Info;
    std::vector<std::string> parameters;

    uint16_t id() const { return tvx::wire::View(record).get(tvx::sel::kRecordId, uint16_t{0}); }
    uint8_t type() const { return tvx::wire::View(record).get(tvx::sel::kRecordType, uint8_t{0}); }
    uint32_t timestamp() const { return tvx::wire::View(record).get(tvx::sel::kTimestamp, uint32_t{0}); }
    void setId(uint16_t id);
    void setTimestamp(uint32_t t);
};

// An error code's message in each language (LCID -> text); English (0x0409) is always there.
struct Message {
    Severity severity = Severity::Info; // for entries that do not say otherwise
    std::map<uint16_t, std::string> texts;

    // The text in a language, or the English one for a language the controller lacks.
    const std::string &text(uint16_t language, uint16_t *used = nullptr) const;
};

// How the controller's event handling labels a system event: the first rule whose given
// fields all match wins. Parameter templates may name {sensor}, {number}, {lun}, {type},
// {event_type}, {offset}, {data1}, {data2}, {data3}.
struct EventRule {
    std::optional<uint8_t> sensorType;
    std::optional<uint8_t> sensor;     // sensor number
    std::optional<uint8_t> offset;     // event data 1, bits 3..0
    std::optional<uint8_t> eventType;  // event/reading type, bits 6..0 of the event/direction byte
    std::optional<bool> assertion;     // direction: bit 7 of the event/direction byte clear
    ErrorCode code{};
    std::optional<Severity> severity;  // else the message's
    std::vector<std::string> parameters;
};

struct ClockSetting {
    bool fixed = false;
    int64_t value = 0; // fixed: the time; else seconds added to the host's clock
};

struct Model {
    // "sel"
    uint16_t capacity = 512;
    uint8_t maxReadBytes = 16;
    int16_t utcOffset = kUtcOffsetUnspecified;
    ClockSetting clock;
    uint32_t lastErase = 0;
    std::vector<Entry> records; // the initial log, record IDs 1, 2, ...
    // "event_texts"
    uint8_t chunkSize = 40;
    std::map<ErrorCode, Message> messages;
    std::vector<EventRule> rules;
    // Names of the sensors the profile's SDR part describes, by (LUN << 8 | number).
    std::map<uint16_t, std::string> sensorNames;

    const Message *message(const ErrorCode &c) const;
    // What the event handling attaches to a system event record added at run time.
    void label(Entry &e) const;
    std::string sensorName(uint8_t lun, uint8_t number) const;
};

// Reads "sel" and "event_texts" (and the names in "sensors", if any). The log's records are
// read only withRecords: a machine whose log already exists never needs them, and a profile
// may describe thousands. Throws ProfileError naming the file and the JSON pointer of what is
// wrong.
Model parseModel(const Profile &profile, bool withRecords = true);

// A time in a profile: "2026-11-16T21:45:12Z" (UTC) or seconds since 1970.
uint32_t parseProfileTime(const Node &n);

// The message text of an entry with its parameters in place of %1..%8.
std::string compose(const std::string &text, const std::vector<std::string> &parameters);

// The log in the machine state: "sel" in non-volatile storage, its "records" kept as a log
// (appended to, or emptied), and the reservation in the controller's RAM ("sel_reservation").
// Accessors check what they read: a state changed by hand into something unusable throws
// ProfileError saying where.
class Log {
public:
    // The state must hold "sel" (see openLog).
    Log(nlohmann::json &state, const Model &model);

    std::size_t size() const { return records_->size(); }
    // Index of a record ID (kFirst: the first, kLast: the last), or -1.
    long indexOf(uint16_t id) const;
    uint16_t idAt(std::size_t index) const;
    Entry at(std::size_t index) const;
    // Record ID of the record after index, or 0xFFFF after the last.
    uint16_t nextId(std::size_t index) const { return index + 1 < size() ? idAt(index + 1) : 0xFFFF; }

    // Assigns the record ID and appends.
    uint16_t append(Entry e);
    void clear();

    uint32_t lastAdd() const;
    uint32_t lastErase() const;
    void setLastAdd(uint32_t t);
    void setLastErase(uint32_t t);
    bool overflow() const;
    void setOverflow(bool v);
    // The current reservation (0: none).
    uint16_t reservation() const;
    uint16_t reserve();
    void cancelReservation();
    // The controller's clock: the host's clock plus an offset, or a fixed time.
    uint32_t now() const;
    void setTime(uint32_t t);
    int16_t utcOffset() const;
    void setUtcOffset(int16_t minutes);

    nlohmann::json &raw() { return *sel_; }

private:
    uint16_t number(const char *key) const;
    bool used(uint16_t id) const;
    nlohmann::json *state_;
    nlohmann::json *sel_;
    nlohmann::json *records_;
};

// The initial "sel" part of a fresh machine state.
nlohmann::json initialState(const Model &m);

nlohmann::json toJson(const Entry &e);

} // namespace sel

// The subsystem's Storage commands and OEM event-text commands (handlers_sel.cpp,
// handlers_event_text.cpp) share one parsed model.
void installEventTextHandlers(Controller &c, std::shared_ptr<const sel::Model> model);

// The log of a request's machine state (made from the profile, and the change noted, when the
// state has none yet).
sel::Log openLog(const sel::Model &m, Context &ctx);

} // namespace tvxsim
