// tvxctl sel: the system event log as raw lines, as localized texts, its summary; clearing
// and adding records.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "cli.h"
#include "libipmi.h"

namespace tvxctl {
namespace {

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

// The log's records, read as the library reads them.
std::vector<std::array<uint8_t, 16>> readRecords(IpmiSession *session)
{
    uint16_t count = 0;
    uint16_t status = LIBIPMI_HL_GetNumOfSELEntries(session, &count, 60);
    if (status != 0) throw Failure{kExitFailed, "cannot read the SEL: " + statusText(status)};
    std::vector<std::array<uint8_t, 16>> records(count);
    if (count == 0) return records;
    status = LIBIPMI_HL_GetAllSELEntries(session, reinterpret_cast<SelRecord *>(records.data()), 60);
    if (status != 0) throw Failure{kExitFailed, "cannot read the SEL: " + statusText(status)};
    return records;
}

int raw(const Options &opt, Args &args)
{
    bool reverse = args.flag("--reverse");
    args.noMoreOptions("sel");
    if (args.size() != 0) throw Failure{kExitUsage, "sel takes no further arguments (see tvxctl --help)"};
    Session session;
    // Read first so that an unreadable log is reported, not shown as an empty one.
    auto records = readRecords(session.get());
    ListNode *lines = records.empty() ? nullptr : ipmiGetSelRawStrings(session.get(), reverse);
    if (!records.empty() && !lines) throw Failure{kExitFailed, "cannot read the SEL"};
    if (opt.json) {
        Json out = Json::array();
        size_t i = 0;
        for (ListNode *n = lines; n; n = n->next, ++i) {
            size_t index = reverse ? records.size() - 1 - i : i;
            Json entry = {{"line", reinterpret_cast<const char *>(n->data)}};
            if (index < records.size()) {
                const auto &r = records[index];
                entry["record_id"] = r[0] | r[1] << 8;
                entry["record_type"] = r[2];
                uint32_t t = r[3] | r[4] << 8 | r[5] << 16 | static_cast<uint32_t>(r[6]) << 24;
                if (r[2] == 0x02 || (r[2] >= 0xC0 && r[2] <= 0xDF)) {
                    entry["timestamp"] = t;
                    entry["time"] = timeText(t);
                }
                entry["bytes"] = std::vector<int>(r.begin(), r.end());
            }
            out.push_back(entry);
        }
        freeList(&lines);
        printJson(out);
        return kExitOk;
    }
    for (ListNode *n = lines; n; n = n->next) std::cout << reinterpret_cast<const char *>(n->data) << "\n";
    freeList(&lines);
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
    auto records = readRecords(session.get());
    Json out = Json::array();
    for (size_t i = 0; i < records.size(); ++i) {
        const uint8_t *r = records[reverse ? records.size() - 1 - i : i].data();
        char *line = buildSelTextString(session.get(), r, 0, 1, 1, static_cast<uint16_t>(language));
        if (!opt.json) {
            if (line) std::cout << line << "\n";
            std::free(line);
            continue;
        }
        Json entry = {{"record_id", r[0] | r[1] << 8}};
        ErrorCodeRecord *code = getErrorCode(session.get(), r, 0);
        char *message = code ? getSelTextByErrorCode(session.get(), code, nullptr, 0, 0, static_cast<uint16_t>(language))
                             : nullptr;
        if (code) {
            char hex[12];
            std::snprintf(hex, sizeof hex, "%02X%02X%02X%02X", code->errorCode[0], code->errorCode[1],
                          code->errorCode[2], code->errorCode[3]);
            entry["error_code"] = hex;
            entry["severity"] = kSeverity[(code->flags >> 4) & 7];
            std::vector<std::string> params;
            for (unsigned p = 0; p < code->paramCount; ++p) params.emplace_back(code->params[p]);
            entry["parameters"] = params;
        }
        uint32_t t = r[3] | r[4] << 8 | r[5] << 16 | static_cast<uint32_t>(r[6]) << 24;
        entry["time"] = timeText(t);
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
