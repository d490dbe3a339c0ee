// ipmitool's verbs that have no tvxctl command of their own: mc selftest and reset, chassis
// status and identify, sel elist and get. They print what ipmitool prints, so that scripts and
// habits carry over; --json gives the same facts as fields.
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>

#include "cli.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx/event_states.h"
#include "tvx/records.h"

namespace tvxctl {
namespace {

namespace wire = tvx::wire;
namespace sel = tvx::sel;
namespace sdr = tvx::sdr;

// Get Chassis Status: power state (restore policy in bits 6:5), last power event, misc state,
// and the optional front panel button capabilities.
namespace chassis_status {
inline constexpr wire::U8 kPowerState{0};
inline constexpr wire::U8 kLastEvent{1};
inline constexpr wire::U8 kMiscState{2};
inline constexpr wire::U8 kFrontPanel{3};
} // namespace chassis_status

// Get Self Test Results: the result code and its detail byte.
namespace self_test {
inline constexpr wire::U8 kResult{0};
inline constexpr wire::U8 kDetail{1};
inline constexpr uint8_t kPassed = 0x55, kNotImplemented = 0x56, kCorrupted = 0x57, kFatal = 0x58;
} // namespace self_test

// One request; the response data after the completion code. A refusal is a failure naming it.
std::vector<uint8_t> request(IpmiSession *session, uint8_t netFn, uint8_t cmd, std::vector<uint8_t> data,
                             const char *what)
{
    std::vector<uint8_t> response(LIBIPMI_MAX_RESPONSE_LEN);
    uint32_t len = static_cast<uint32_t>(response.size());
    uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, tvx::netfn::lun0(netFn), cmd,
                                                       data.empty() ? nullptr : data.data(),
                                                       static_cast<uint32_t>(data.size()), response.data(), &len, 60);
    response.resize(status == 0 || LIBIPMI_STATUS_IS_COMPLETION_CODE(status) ? len : 0);
    const wire::View answer(response);
    const uint8_t cc = answer.get(tvx::kCompletionCode, static_cast<uint8_t>(status & 0xFF));
    if (status != 0 && !LIBIPMI_STATUS_IS_COMPLETION_CODE(status))
        throw Failure{kExitFailed, std::string(what) + ": " + statusText(status)};
    if (cc != 0) throw Failure{kExitFailed, std::string(what) + ": " + statusText(static_cast<uint16_t>(0x0100 | cc))};
    const wire::View rest = answer.from(tvx::kAnswerData);
    return std::vector<uint8_t>(rest.span().begin(), rest.span().end());
}

const char *flag(uint8_t byte, unsigned bit, const char *set, const char *clear)
{
    return wire::bits(byte, bit, 1) ? set : clear;
}

int chassisStatus(const Options &opt)
{
    Session session;
    const auto data = request(session.get(), tvx::netfn::kChassis, tvx::cmd::chassis::kGetStatus, {},
                              "cannot read the chassis status");
    const wire::View v(data);
    if (v.size() < 3) throw Failure{kExitFailed, "the chassis status is too short (" + std::to_string(v.size()) + " bytes)"};
    const uint8_t power = v.get(chassis_status::kPowerState, uint8_t{0});
    const uint8_t last = v.get(chassis_status::kLastEvent, uint8_t{0});
    const uint8_t misc = v.get(chassis_status::kMiscState, uint8_t{0});
    static const char *kPolicy[4] = {"always-off", "previous", "always-on", "unknown"};
    static const char *kEvents[5] = {"ac-failed", "overload", "interlock", "fault", "command"};
    std::string lastText;
    Json lastJson = Json::array();
    for (unsigned b = 0; b < 5; ++b) {
        if (!wire::bits(last, b, 1)) continue;
        lastText += std::string(kEvents[b]) + (b < 4 ? " " : "");
        lastJson.push_back(kEvents[b]);
    }
    const char *policy = kPolicy[wire::bits(power, 5, 2)];
    // The four buttons, most significant first: "disable allowed", then "disabled".
    static const char *kButtons[4] = {"Sleep", "Diag", "Reset", "Power"};
    const bool hasPanel = v.size() > 3;
    const uint8_t panel = v.get(chassis_status::kFrontPanel, uint8_t{0});
    if (opt.json) {
        Json buttons = nullptr;
        if (hasPanel) {
            buttons = Json::object();
            for (unsigned i = 0; i < 4; ++i) {
                std::string name = kButtons[i];
                for (auto &c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                buttons[name] = {{"disable_allowed", wire::bits(panel, 7 - i, 1) != 0},
                                 {"disabled", wire::bits(panel, 3 - i, 1) != 0}};
            }
        }
        printJson({{"power", flag(power, 0, "on", "off")},
                   {"power_overload", wire::bits(power, 1, 1) != 0},
                   {"power_interlock", wire::bits(power, 2, 1) != 0},
                   {"main_power_fault", wire::bits(power, 3, 1) != 0},
                   {"power_control_fault", wire::bits(power, 4, 1) != 0},
                   {"power_restore_policy", policy},
                   {"last_power_event", lastJson},
                   {"chassis_intrusion", wire::bits(misc, 0, 1) != 0},
                   {"front_panel_lockout", wire::bits(misc, 1, 1) != 0},
                   {"drive_fault", wire::bits(misc, 2, 1) != 0},
                   {"cooling_fault", wire::bits(misc, 3, 1) != 0},
                   {"front_panel_buttons", buttons}});
        return kExitOk;
    }
    std::printf("System Power         : %s\n", flag(power, 0, "on", "off"));
    std::printf("Power Overload       : %s\n", flag(power, 1, "true", "false"));
    std::printf("Power Interlock      : %s\n", flag(power, 2, "active", "inactive"));
    std::printf("Main Power Fault     : %s\n", flag(power, 3, "true", "false"));
    std::printf("Power Control Fault  : %s\n", flag(power, 4, "true", "false"));
    std::printf("Power Restore Policy : %s\n", policy);
    std::printf("Last Power Event     : %s\n", lastText.c_str());
    std::printf("Chassis Intrusion    : %s\n", flag(misc, 0, "active", "inactive"));
    std::printf("Front-Panel Lockout  : %s\n", flag(misc, 1, "active", "inactive"));
    std::printf("Drive Fault          : %s\n", flag(misc, 2, "true", "false"));
    std::printf("Cooling/Fan Fault    : %s\n", flag(misc, 3, "true", "false"));
    if (hasPanel && panel == 0) std::printf("Front Panel Control  : none\n");
    else if (hasPanel) {
        for (unsigned i = 0; i < 4; ++i)
            std::printf("%-5s Button Disable : %s\n", kButtons[i], flag(panel, 7 - i, "allowed", "not allowed"));
        for (unsigned i = 0; i < 4; ++i)
            std::printf("%-5s Button Disabled: %s\n", kButtons[i], flag(panel, 3 - i, "true", "false"));
    }
    return kExitOk;
}

int chassisIdentify(const Options &opt, const std::vector<std::string> &args)
{
    if (args.size() > 1) throw Failure{kExitUsage, "usage: tvxctl chassis identify [SECONDS|force]"};
    constexpr uint8_t kDefaultSeconds = 15;
    std::vector<uint8_t> data;
    Json interval;
    std::string text;
    unsigned long seconds = kDefaultSeconds;
    if (!args.empty() && args[0] == "force") {
        data = {0, 1}; // interval ignored, force on
        interval = "indefinite";
        text = "indefinite";
    } else {
        if (!args.empty() && !parseNumber(args[0], 0xFF, seconds))
            throw Failure{kExitUsage, "invalid identify interval \"" + args[0] + "\" (0 to 255 seconds, or force)"};
        data = {static_cast<uint8_t>(seconds)};
        interval = seconds;
        text = seconds == 0 ? "off" : std::to_string(seconds) + " seconds";
    }
    Session session;
    request(session.get(), tvx::netfn::kChassis, tvx::cmd::chassis::kIdentify, data, "cannot set the identify LED");
    if (opt.json) printJson({{"identify_interval", interval}});
    else std::printf("Chassis identify interval: %s\n", text.c_str());
    return kExitOk;
}

int mcSelftest(const Options &opt)
{
    Session session;
    const auto data = request(session.get(), tvx::netfn::kApp, tvx::cmd::app::kGetSelfTestResults, {},
                              "cannot read the self-test results");
    const wire::View v(data);
    if (v.size() < 2) throw Failure{kExitFailed, "the self-test results are too short"};
    const uint8_t result = v.get(self_test::kResult, uint8_t{0}), detail = v.get(self_test::kDetail, uint8_t{0});
    // What each bit of the detail byte of "corrupted or inaccessible data or devices" means,
    // most significant first.
    static const char *kCorrupt[8] = {"SEL device not accessible",
                                      "SDR repository not accessible",
                                      "BMC FRU device not accessible",
                                      "IPMB signal lines do not respond",
                                      "SDR repository empty",
                                      "internal use area of the BMC FRU corrupted",
                                      "controller update boot block firmware corrupted",
                                      "controller operational firmware corrupted"};
    std::string verdict;
    Json problems = Json::array();
    switch (result) {
    case self_test::kPassed: verdict = "passed"; break;
    case self_test::kNotImplemented: verdict = "not implemented"; break;
    case self_test::kCorrupted:
        verdict = "device corrupted";
        for (unsigned i = 0; i < 8; ++i)
            if (wire::bits(detail, 7 - i, 1)) problems.push_back(kCorrupt[i]);
        break;
    case self_test::kFatal: verdict = "fatal hardware error " + hexByte(detail); break;
    default: verdict = "device-specific failure " + hexByte(result) + ":" + hexByte(detail); break;
    }
    if (opt.json) {
        printJson({{"result", result}, {"detail", detail}, {"selftest", verdict}, {"problems", problems}});
        return kExitOk;
    }
    std::printf("Selftest: %s\n", verdict.c_str());
    for (const auto &p : problems) std::printf(" -> %s\n", p.get<std::string>().c_str());
    return kExitOk;
}

// --- sel elist / sel get ---------------------------------------------------------------------

using Record = std::array<uint8_t, sel::kRecordSize>;

// Sensor names by owner, number and sensor type, from the SDR repository: an event names the
// sensor only when a record of that number also has the event's sensor type.
struct SensorNames {
    struct Entry {
        uint8_t owner, number, type;
        std::string name;
    };
    std::vector<Entry> entries;

    explicit SensorNames(IpmiSession *session)
    {
        SDRInfo info;
        std::memset(&info, 0, sizeof info);
        if (!getSDRInfo(session, &info)) return; // names are a courtesy: "#0x30" without them
        for (uint32_t i = 0; i < info.count; ++i) {
            const wire::View rec(getSdrByIndex(i, &info), info.recordSize);
            if (!sdr::isSensorRecord(rec.get(sdr::kRecordType, uint8_t{0}))) continue;
            entries.push_back({rec.get(sdr::kOwnerId, uint8_t{0}), rec.get(sdr::kSensorNumber, uint8_t{0}),
                               rec.get(sdr::kSensorType, uint8_t{0}), sdrIdString(rec)});
        }
        freeSDRInfo(&info);
    }

    const std::string *find(uint8_t owner, uint8_t number, uint8_t type) const
    {
        for (const Entry &e : entries)
            if (e.owner == owner && e.number == number && e.type == type) return &e.name;
        return nullptr;
    }
};

struct Decoded {
    unsigned id = 0;
    uint8_t recordType = 0;
    Json date = nullptr, time = nullptr;
    std::string sensor, event, direction;
    Json sensorType = nullptr, sensorNumber = nullptr, sensorName = nullptr;
    std::string manufacturer; // of a timestamped OEM record, 6 hex digits
};

Decoded decode(const Record &r, const SensorNames &names)
{
    const wire::View rec(r);
    Decoded d;
    d.id = rec.get(sel::kRecordId, uint16_t{0});
    d.recordType = rec.get(sel::kRecordType, uint8_t{0});
    if (sel::hasTimestamp(d.recordType)) {
        const uint32_t t = rec.get(sel::kTimestamp, uint32_t{0});
        char date[16], clock[16];
        if (t < sel::kPreInitLimit) {
            std::snprintf(date, sizeof date, "Pre-Init");
            std::snprintf(clock, sizeof clock, "%010u", static_cast<unsigned>(t));
        } else {
            const time_t when = static_cast<time_t>(t);
            struct tm tm;
            localtime_r(&when, &tm);
            std::strftime(date, sizeof date, "%m/%d/%Y", &tm);
            std::strftime(clock, sizeof clock, "%H:%M:%S", &tm);
        }
        d.date = date;
        d.time = clock;
    }
    if (d.recordType != sel::kSystemEvent) {
        const wire::View oem = rec.get(sel::isOemUntimed(d.recordType) ? sel::kOemData : sel::kOemTimedData);
        d.sensor = "OEM record " + tvx::hexNumber(d.recordType, 2).substr(2);
        d.event = tvx::hexBytes(oem.span(), 0);
        // A timestamped OEM record begins with its manufacturer's ID, shown in a column of its own.
        if (sel::isOemTimed(d.recordType))
            d.manufacturer = tvx::hexNumber(rec.get(sel::kManufacturerId, uint32_t{0}), 6).substr(2);
        return d;
    }
    const uint8_t type = rec.get(sel::kSensorType, uint8_t{0}), number = rec.get(sel::kSensorNumber, uint8_t{0});
    const uint8_t dirType = rec.get(sel::kEventDirType, uint8_t{0});
    const uint8_t eventType = static_cast<uint8_t>(wire::bits(dirType, 0, 7));
    const unsigned offset = wire::bits(rec.get(sel::kEventData1, uint8_t{0}), 0, 4);
    // The generator's slave address (bit 0 tells software from a controller) owns the sensor.
    const uint8_t owner = static_cast<uint8_t>(rec.get(sel::kGeneratorId, uint16_t{0}) & 0xFF);
    const std::string typeName = ipmiSdrGetSensorTypeDesc(type);
    const std::string *name = names.find(owner, number, type);
    char num[8];
    std::snprintf(num, sizeof num, "#0x%02x", number);
    d.sensor = typeName + " " + (name ? *name : num);
    d.sensorType = typeName;
    d.sensorNumber = number;
    d.sensorName = name ? Json(*name) : Json(nullptr);
    const char *text = tvx::events::describe(type, eventType, static_cast<uint8_t>(offset));
    d.event = text ? text : "Offset " + std::to_string(offset);
    while (!d.event.empty() && d.event.back() == ' ') d.event.pop_back();
    d.direction = wire::bits(dirType, 7, 1) ? "Deasserted" : "Asserted";
    return d;
}

Json toJson(const Decoded &d)
{
    return {{"record_id", d.id},
            {"record_type", d.recordType},
            {"date", d.date},
            {"time", d.time},
            {"sensor", d.sensor},
            {"sensor_type", d.sensorType},
            {"sensor_number", d.sensorNumber},
            {"sensor_name", d.sensorName},
            {"manufacturer_id", d.manufacturer.empty() ? Json(nullptr) : Json(d.manufacturer)},
            {"event", d.event},
            {"direction", d.direction.empty() ? Json(nullptr) : Json(d.direction)}};
}

// "   1 | 11/24/2026 | 05:28:00 | Temperature CPU Temp | Upper Critical going high | Asserted"
void printLine(const Decoded &d)
{
    std::printf("%4x | ", d.id);
    if (d.date.is_string()) std::printf("%s | %s | ", d.date.get<std::string>().c_str(), d.time.get<std::string>().c_str());
    std::printf("%s | ", d.sensor.c_str());
    if (!d.manufacturer.empty()) std::printf("%s | ", d.manufacturer.c_str());
    std::printf("%s", d.event.c_str());
    if (!d.direction.empty()) std::printf(" | %s", d.direction.c_str());
    std::printf("\n");
}


} // namespace

int cmdMc(const Options &opt, const std::vector<std::string> &args)
{
    if (args.size() == 1 && args[0] == "selftest") return mcSelftest(opt);
    if (args.size() == 2 && args[0] == "reset" && (args[1] == "warm" || args[1] == "cold")) {
        Session session;
        const bool warm = args[1] == "warm";
        request(session.get(), tvx::netfn::kApp, warm ? tvx::cmd::app::kWarmReset : tvx::cmd::app::kColdReset, {},
                "the controller refused the reset");
        if (opt.json) printJson({{"reset", args[1]}, {"sent", true}});
        else std::printf("Sent %s reset command to MC\n", args[1].c_str());
        return kExitOk;
    }
    throw Failure{kExitUsage, "usage: tvxctl mc info | mc selftest | mc reset warm|cold"};
}

int cmdChassis(const Options &opt, const std::vector<std::string> &args)
{
    if (args.size() == 1 && args[0] == "status") return chassisStatus(opt);
    if (!args.empty() && args[0] == "identify")
        return chassisIdentify(opt, std::vector<std::string>(args.begin() + 1, args.end()));
    throw Failure{kExitUsage, "usage: tvxctl chassis status | chassis power ACTION | chassis identify [SECONDS|force]"};
}

int cmdSelDecoded(const Options &opt, const std::vector<std::string> &ids)
{
    std::vector<uint16_t> wanted;
    for (const auto &w : ids) {
        unsigned long id;
        if (!parseNumber(w, 0xFFFF, id)) throw Failure{kExitUsage, "invalid SEL record ID \"" + w + "\""};
        wanted.push_back(static_cast<uint16_t>(id));
    }
    Session session;
    const auto records = readSelRecords(session.get(), false);
    const SensorNames names(session.get());
    std::vector<Decoded> shown;
    if (wanted.empty()) {
        for (const Record &r : records) shown.push_back(decode(r, names));
    } else {
        for (uint16_t id : wanted) {
            bool found = false;
            for (const Record &r : records) {
                if (wire::View(r).get(sel::kRecordId, uint16_t{0}) != id) continue;
                shown.push_back(decode(r, names));
                found = true;
            }
            if (!found) throw Failure{kExitFailed, "no SEL record with ID " + tvx::hexNumber(id, 4)};
        }
    }
    if (opt.json) {
        Json out = Json::array();
        for (const Decoded &d : shown) out.push_back(toJson(d));
        printJson(out);
        return kExitOk;
    }
    for (const Decoded &d : shown) printLine(d);
    return kExitOk;
}

} // namespace tvxctl
