// tvxctl sel: the system event log as raw lines, as localized texts, its summary; clearing
// and adding records.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "cli.h"
#include "libipmi.h"
#include "tvx/hex_string.h"
#include "tvx/records.h"

namespace tvxctl {
namespace {

namespace sel = tvx::sel;
namespace wire = tvx::wire;
using Record = std::array<uint8_t, sel::kRecordSize>;

const char *kSeverity[8] = {"INFO", "MINOR", "MAJOR", "CRITICAL", "UNKNOWN", "UNKNOWN", "UNKNOWN", "UNKNOWN"};

std::string timeText(uint32_t t)
{
    if (t == 0) return "";
    char buf[25] = {0};
    time_t value = static_cast<time_t>(t);
    convertTime(&value, buf, sizeof buf);
    std::string s(buf);
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

// The log's records in the order asked for. The library hands out lines and texts, not the
// records they come from, which --json shows and texts in other languages need: they are read
// once here, and every line and text is made from them by the library.
std::vector<Record> readRecords(IpmiSession *session, bool reverse)
{
    uint16_t count = 0;
    uint16_t status = LIBIPMI_HL_GetNumOfSELEntries(session, &count, 60);
    if (status != 0) throw Failure{kExitFailed, "cannot read the SEL: " + statusText(status)};
    std::vector<Record> records(count);
    if (count == 0) return records;
    status = LIBIPMI_HL_GetAllSELEntries(session, reinterpret_cast<SelRecord *>(records.data()), 60);
    if (status != 0) throw Failure{kExitFailed, "cannot read the SEL: " + statusText(status)};
    if (reverse) std::reverse(records.begin(), records.end());
    return records;
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
    auto records = readRecords(session.get(), reverse);
    if (!opt.json) {
        for (const Record &r : records) std::cout << rawLine(r) << "\n";
        return kExitOk;
    }
    Json out = Json::array();
    for (const Record &r : records) {
        const wire::View rec(r);
        const uint8_t type = rec.get(sel::kRecordType, uint8_t{0});
        Json entry = {{"line", rawLine(r)}, {"record_id", rec.get(sel::kRecordId, uint16_t{0})}, {"record_type", type}};
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
    auto records = readRecords(session.get(), reverse);
    Json out = Json::array();
    for (const Record &record : records) {
        const uint8_t *r = record.data();
        char *line = buildSelTextString(session.get(), r, 0, 1, 1, static_cast<uint16_t>(language));
        if (!opt.json) {
            if (line) std::cout << line << "\n";
            std::free(line);
            continue;
        }
        const wire::View rec(record);
        Json entry = {{"record_id", rec.get(sel::kRecordId, uint16_t{0})}};
        ErrorCodeRecord *code = getErrorCode(session.get(), r, 0);
        char *message = code ? getSelTextByErrorCode(session.get(), code, nullptr, 0, 0, static_cast<uint16_t>(language))
                             : nullptr;
        if (code) {
            entry["error_code"] = tvx::hexBytes(code->errorCode, 0, true);
            entry["severity"] = kSeverity[wire::bits(code->flags, 4, 3)];
            std::vector<std::string> params;
            for (unsigned p = 0; p < code->paramCount; ++p) params.emplace_back(code->params[p]);
            entry["parameters"] = params;
        }
        entry["time"] = timeText(rec.get(sel::kTimestamp, uint32_t{0}));
        entry["message"] = message ? Json(message) : Json(nullptr);
        entry["line"] = line ? Json(line) : Json(nullptr);
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
                   {"last_add", timeText(s.lastAddTime)},
                   {"last_erase_time", s.lastEraseTime},
                   {"last_erase", timeText(s.lastEraseTime)},
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
    if (!ipmiClearEventLog(session.get())) throw Failure{kExitFailed, "the controller did not clear the SEL"};
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
    Session session;
    if (!ipmiWriteSelEntry(session.get(), b[0], b[1], b[2], b[3], b[4], b[5]))
        throw Failure{kExitFailed, "the controller did not add the record"};
    if (opt.json) printJson({{"added", true}});
    else std::cout << "Record added.\n";
    return kExitOk;
}

} // namespace

int cmdSel(const Options &opt, const std::vector<std::string> &words)
{
    Args args(words);
    bool asText = args.flag("--text");
    if (args.size() > 0 && args[0] == "watch")
        return cmdSelWatch(opt, std::vector<std::string>(args.words().begin() + 1, args.words().end()), asText);
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
