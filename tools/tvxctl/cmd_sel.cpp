// tvxctl sel: the system event log as raw lines, as localized texts, its summary; clearing
// and adding records.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

#include "cli.h"
#include "libipmi.h"
#include "libipmi_host.h"
#include "tvx/event_states.h"
#include "tvx/hex_string.h"
#include "tvx/ipmi.h"
#include "tvx/records.h"

namespace tvxctl {
namespace {

namespace sel = tvx::sel;
namespace wire = tvx::wire;
using Record = std::array<uint8_t, sel::kRecordSize>;

constexpr uint8_t kEventMessageRevision = 0x04; // IPMI 2.0

const char *kSeverity[8] = {"INFO", "MINOR", "MAJOR", "CRITICAL", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN"};

// A SEL timestamp as administrators read it: the date and time; below 0x20000000 the seconds
// since the controller's initialisation (its clock was not set yet), "Pre-Init" and the
// seconds as ipmitool shows them; 0xFFFFFFFF "Unspecified".
std::string timeText(uint32_t t)
{
    if (t == sel::kUnspecifiedTime) return "Unspecified";
    char buf[25] = {0};
    if (t < sel::kPreInitLimit) {
        std::snprintf(buf, sizeof buf, "Pre-Init %010u", static_cast<unsigned>(t));
        return buf;
    }
    time_t value = static_cast<time_t>(t);
    convertTime(&value, buf, sizeof buf);
    std::string s(buf);
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

std::string trimmed(std::string s)
{
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

// A record decoded the standard way, for controllers without the vendor's texts: the sensor
// type's name and number, the event's description from the library's event-state tables,
// and its direction; OEM records as their type and bytes.
struct StandardText {
    Json fields = Json::object();
    std::string line;
};

StandardText standardText(const Record &record)
{
    const wire::View rec(record);
    const uint8_t type = rec.get(sel::kRecordType, uint8_t{0});
    StandardText out;
    if (type != sel::kSystemEvent) {
        const wire::View data = rec.get(sel::isOemUntimed(type) ? sel::kOemData : sel::kOemTimedData);
        const std::string bytes = tvx::hexBytes(data.span(), 0);
        out.fields = {{"record_type", type}, {"oem_data", bytes}};
        out.line = "OEM record " + hexByte(type) + " " + bytes;
        if (sel::hasTimestamp(type)) out.line = timeText(rec.get(sel::kTimestamp, uint32_t{0})) + "  " + out.line;
        return out;
    }
    const uint8_t sensorType = rec.get(sel::kSensorType, uint8_t{0});
    const uint8_t number = rec.get(sel::kSensorNumber, uint8_t{0});
    const uint8_t dirType = rec.get(sel::kEventDirType, uint8_t{0});
    const uint8_t eventType = static_cast<uint8_t>(wire::bits(dirType, 0, 7));
    const unsigned offset = wire::bits(rec.get(sel::kEventData1, uint8_t{0}), 0, 4);
    const std::string typeName = ipmiSdrGetSensorTypeDesc(sensorType);
    const char *text = tvx::events::describe(sensorType, eventType, static_cast<uint8_t>(offset));
    const std::string event = text ? trimmed(text) : "Offset " + std::to_string(offset);
    const std::string direction = wire::bits(dirType, 7, 1) ? "Deasserted" : "Asserted";
    char sensor[8];
    std::snprintf(sensor, sizeof sensor, "#0x%02x", number);
    out.fields = {{"sensor_type", sensorType}, {"sensor_type_name", typeName}, {"sensor_number", number},
                  {"event_type", eventType},   {"event", event},               {"direction", direction}};
    out.line = timeText(rec.get(sel::kTimestamp, uint32_t{0})) + "  " + typeName + " " + sensor + " " + event + " (" +
               direction + ")";
    return out;
}


// The library's raw one-line text of a record.
std::string rawLine(const Record &r)
{
    ListNode *node = nullptr;
    addEntryToRawStringList(&node, r.data());
    std::string line = node ? reinterpret_cast<const char *>(node->data) : "";
    freeList(&node);
    return line;
}

int raw(const Options &opt, Args &args)
{
    bool reverse = args.flag("--reverse");
    args.noMoreOptions("sel");
    if (args.size() != 0) throw Failure{kExitUsage, "sel takes no further arguments (see tvxctl --help)"};
    Session session;
    auto records = readSelRecords(session.get(), reverse);
    if (!opt.json) {
        for (const Record &r : records) std::cout << rawLine(r) << "\n";
        return kExitOk;
    }
    Json out = Json::array();
    for (const Record &r : records) {
        const wire::View rec(r);
        const uint8_t type = rec.get(sel::kRecordType, uint8_t{0});
        Json entry = {{"line", rawLine(r)}, {"record_id", rec.get(sel::kRecordId, uint16_t{0})}, {"record_type", type}};
        // Every record has the same keys: null where an untimed OEM record has no time.
        entry["timestamp"] = nullptr;
        entry["time"] = nullptr;
        if (sel::hasTimestamp(type)) {
            const uint32_t t = rec.get(sel::kTimestamp, uint32_t{0});
            entry["timestamp"] = t;
            entry["time"] = timeText(t);
        }
        entry["bytes"] = std::vector<int>(r.begin(), r.end());
        out.push_back(entry);
    }
    printJson(out);
    return kExitOk;
}

int text(const Options &opt, Args &args)
{
    bool reverse = args.flag("--reverse");
    std::string lang = args.option("--lang");
    args.noMoreOptions("sel --text");
    unsigned long language = TVX_LANG_ENGLISH;
    if (!lang.empty() && !parseNumber(lang, 0xFFFF, language))
        throw Failure{kExitUsage, "invalid --lang \"" + lang + "\" (a language identifier such as 0x0409 or 0x0407)"};
    Session session;
    auto records = readSelRecords(session.get(), reverse);
    Json out = Json::array();
    // The vendor's texts, until the controller shows it has none (0xC1 to their request);
    // a record without one (refused, or not answered) gets the standard decoding instead.
    bool vendorTexts = true;
    auto refused = [&session, &vendorTexts]() {
        ipmihost_request_outcome last;
        if (ipmihost_last_request(session.get(), &last) == 0 &&
            last.status == LIBIPMI_STATUS_COMPLETION_CODE(tvx::cc::kInvalidCommand))
            vendorTexts = false;
        return !session.whyFailed().empty();
    };
    for (const Record &record : records) {
        const uint8_t *r = record.data();
        const wire::View rec(record);
        char *line = nullptr;
        ErrorCodeRecord *code = nullptr;
        char *message = nullptr;
        if (vendorTexts && !opt.json) {
            line = buildSelTextString(session.get(), r, 0, 1, 1, static_cast<uint16_t>(language));
            if (refused()) std::free(std::exchange(line, nullptr));
        } else if (vendorTexts) {
            code = getErrorCode(session.get(), r, 0);
            if (code && !refused())
                message = getSelTextByErrorCode(session.get(), code, nullptr, 0, 0, static_cast<uint16_t>(language));
            if (message && !refused())
                line = buildSelTextString(session.get(), r, 0, 1, 1, static_cast<uint16_t>(language));
            if (refused() || !line) {
                std::free(std::exchange(line, nullptr));
                std::free(std::exchange(message, nullptr));
                freeErrorCode(std::exchange(code, nullptr));
            }
        }
        const StandardText standard = line ? StandardText{} : standardText(record);
        if (!opt.json) {
            std::cout << (line ? std::string(line) : standard.line) << "\n";
            std::free(line);
            continue;
        }
        Json entry = {{"record_id", rec.get(sel::kRecordId, uint16_t{0})}};
        // Every entry has the same keys, null where they do not apply: a controller's text has
        // no standard decoding, a standard event no error code, an OEM record no sensor.
        for (const char *key : {"time", "source", "error_code", "severity", "parameters", "message", "record_type",
                                "oem_data", "sensor_type", "sensor_type_name", "sensor_number", "event_type",
                                "event", "direction", "line"})
            entry[key] = nullptr;
        const uint8_t type = rec.get(sel::kRecordType, uint8_t{0});
        entry["record_type"] = type;
        if (sel::hasTimestamp(type)) entry["time"] = timeText(rec.get(sel::kTimestamp, uint32_t{0}));
        if (line) {
            entry["source"] = "controller";
            entry["error_code"] = tvx::hexBytes(code->errorCode, 0, true);
            entry["severity"] = kSeverity[wire::bits(code->flags, 4, 3)];
            std::vector<std::string> params;
            for (unsigned p = 0; p < code->paramCount; ++p) params.emplace_back(code->params[p]);
            entry["parameters"] = params;
            entry["message"] = message;
            entry["line"] = line;
        } else {
            entry["source"] = "standard";
            entry.update(standard.fields);
            entry["line"] = standard.line;
        }
        out.push_back(entry);
        std::free(message);
        freeErrorCode(code);
        std::free(line);
    }
    if (opt.json) printJson(out);
    return kExitOk;
}

int info(const Options &opt)
{
    Session session;
    SelSummary s = ipmiGetSelInfo(session.get());
    int16_t offset = ipmiGetSelTimeUtcOffset(session.get());
    std::string offsetText = offset == 0x07FF ? "unspecified" : offset == -1 ? "unknown" : std::to_string(offset) + " minutes";
    if (opt.json) {
        printJson({{"entries", s.entries},
                   {"max_entries", s.maxEntries},
                   {"last_add_time", s.lastAddTime},
                   {"last_add", s.lastAddTime ? Json(timeText(s.lastAddTime)) : Json(nullptr)},
                   {"last_erase_time", s.lastEraseTime},
                   {"last_erase", s.lastEraseTime ? Json(timeText(s.lastEraseTime)) : Json(nullptr)},
                   {"utc_offset_minutes", offset == 0x07FF || offset == -1 ? Json(nullptr) : Json(offset)}});
        return kExitOk;
    }
    std::printf("Entries            : %u\n", s.entries);
    std::printf("Capacity           : %u\n", s.maxEntries);
    unsigned percent = s.maxEntries ? 100u * s.entries / s.maxEntries : 0u;
    std::printf("Percent used       : %u%%\n", percent);
    std::printf("Last addition      : %s\n", s.lastAddTime ? timeText(s.lastAddTime).c_str() : "never");
    std::printf("Last erase         : %s\n", s.lastEraseTime ? timeText(s.lastEraseTime).c_str() : "never");
    std::printf("UTC offset         : %s\n", offsetText.c_str());
    return kExitOk;
}

int clear(const Options &opt)
{
    Session session;
    if (!ipmiClearEventLog(session.get())) throw session.failed("the controller did not clear the SEL");
    if (opt.json) printJson({{"cleared", true}});
    else std::cout << "Clearing the SEL.\n";
    return kExitOk;
}

int add(const Options &opt, Args &args)
{
    if (args.size() != 6)
        throw Failure{kExitUsage, "usage: tvxctl sel add SENSORTYPE SENSOR EVENTTYPE DATA1 DATA2 DATA3"};
    const char *names[6] = {"SENSORTYPE", "SENSOR", "EVENTTYPE", "DATA1", "DATA2", "DATA3"};
    uint8_t b[6];
    for (int i = 0; i < 6; ++i)
        if (!parseByte(args[i], b[i]))
            throw Failure{kExitUsage, std::string("invalid ") + names[i] + " \"" + args[i] + "\" (0x00 to 0xff)"};
    // A system event record as IPMI 2.0 writes it (event message revision 0x04), from the
    // controller's address; the controller gives it its ID and time stamp.
    SelRecord record{};
    wire::Writer w(record.bytes, sizeof record.bytes);
    w.put(sel::kRecordType, sel::kSystemEvent)
        .put(sel::kGeneratorId, uint16_t{tvx::ipmb::kBmcAddress})
        .put(sel::kEvmRevision, kEventMessageRevision)
        .put(sel::kSensorType, b[0])
        .put(sel::kSensorNumber, b[1])
        .put(sel::kEventDirType, b[2])
        .put(sel::kEventData1, b[3])
        .put(sel::kEventData2, b[4])
        .put(sel::kEventData3, b[5]);
    Session session;
    SelAddResponse added{};
    if (IPMICMD_AddSELEntry(session.get(), &record, &added, 60) != 0)
        throw session.failed("the controller did not add the record");
    const uint16_t id = added.recordId;
    if (opt.json) printJson({{"added", true}, {"record_id", id}});
    else std::cout << "Record added (ID " << id << ").\n";
    return kExitOk;
}

} // namespace

// The log's records in the order asked for. The library hands out lines and texts, not the
// records they come from, which --json shows and texts in other languages need: they are read
// once here, and every line and text is made from them by the library.
std::vector<SelRecordBytes> readSelRecords(IpmiSession *session, bool reverse)
{
    uint16_t count = 0;
    uint16_t status = LIBIPMI_HL_GetNumOfSELEntries(session, &count, 60);
    if (status != 0) throw Failure{kExitFailed, "cannot read the SEL: " + statusText(status)};
    std::vector<SelRecordBytes> records(count);
    if (count == 0) return records;
    status = LIBIPMI_HL_GetAllSELEntries(session, reinterpret_cast<SelRecord *>(records.data()), 60);
    if (status != 0) throw Failure{kExitFailed, "cannot read the SEL: " + statusText(status)};
    if (reverse) std::reverse(records.begin(), records.end());
    return records;
}

int cmdSel(const Options &opt, const std::vector<std::string> &words)
{
    Args args(words);
    bool asText = args.flag("--text");
    if (args.size() > 0 && args[0] == "watch")
        return cmdSelWatch(opt, std::vector<std::string>(args.words().begin() + 1, args.words().end()), asText);
    if (args.size() > 0 && args[0] == "elist" && !asText) {
        if (args.size() != 1) throw Failure{kExitUsage, "sel elist takes no arguments"};
        return cmdSelDecoded(opt, {});
    }
    if (args.size() > 1 && args[0] == "get" && !asText)
        return cmdSelDecoded(opt, std::vector<std::string>(args.words().begin() + 1, args.words().end()));
    if (args.size() > 0 && args[0] == "info") {
        if (args.size() != 1) throw Failure{kExitUsage, "sel info takes no arguments"};
        return info(opt);
    }
    if (args.size() > 0 && args[0] == "clear") {
        if (args.size() != 1) throw Failure{kExitUsage, "sel clear takes no arguments"};
        return clear(opt);
    }
    if (args.size() > 0 && args[0] == "add") {
        Args rest(std::vector<std::string>(args.words().begin() + 1, args.words().end()));
        return add(opt, rest);
    }
    if (args.size() > 0 && args[0] == "list") args = Args(std::vector<std::string>(args.words().begin() + 1, args.words().end()));
    return asText ? text(opt, args) : raw(opt, args);
}

} // namespace tvxctl
