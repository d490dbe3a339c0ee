// tvxctl iel: the controller's internal event log, read, written and cleared through the
// library. Entries are walked from the first along their next-entry IDs. Bodies are shown as
// this project's virtual controller lays them out (the text, a zero byte, the record); the
// body's length, which the library's entry record does not carry, is taken from the
// answer to one read of the entry's first piece.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <set>

#include "cli.h"
#include "tvx/iel.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace tvxctl {
namespace {

namespace layout = tvx::iel;

const char *const kSeverities[] = {"info", "minor", "major", "critical"};

std::string severityText(uint8_t s) { return s < 4 ? kSeverities[s] : hexByte(s); }

std::string timeText(uint32_t t)
{
    char buf[25] = {0};
    time_t value = static_cast<time_t>(t);
    convertTime(&value, buf, sizeof buf);
    std::string s(buf);
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

std::string hexText(const std::vector<uint8_t> &b)
{
    std::string out(tvx::wire::formatHex(b, nullptr, 0), '\0');
    tvx::wire::formatHex(b, out.data(), out.size() + 1);
    return out;
}

struct Entry {
    uint16_t id = 0, next = 0;
    uint8_t severity = 0;
    uint32_t time = 0;
    std::vector<uint8_t> body;

    std::string text() const
    {
        auto nul = std::find(body.begin(), body.end(), uint8_t{0});
        return std::string(body.begin(), nul);
    }
    std::vector<uint8_t> record() const
    {
        auto nul = std::find(body.begin(), body.end(), uint8_t{0});
        return nul == body.end() ? std::vector<uint8_t>{} : std::vector<uint8_t>(nul + 1, body.end());
    }
    Json json() const
    {
        return {{"id", id},
                {"timestamp", time},
                {"time", timeText(time)},
                {"severity", severityText(severity)},
                {"text", text()},
                {"record", hexText(record())},
                {"body_length", body.size()},
                {"next_id", next}};
    }
};

// The header of an entry's first piece as the controller answers it: its body's length.
struct Header {
    uint16_t id, next, length;
    uint8_t severity;
    uint32_t time;
};

Header readHeader(IpmiSession *s, uint16_t id)
{
    uint8_t request[tvx::oem::kIanaSize + 5];
    tvx::wire::Writer w(request, sizeof request);
    w.bytes(tvx::oem::request(layout::kRead)).u16(id).u16(0);
    uint8_t response[255] = {};
    uint32_t len = sizeof response;
    if (!ipmiSendCmd(s, TVX_NETFN_OEM_GROUP, layout::kCommand, static_cast<uint32_t>(w.size()), request, &len,
                     response))
        throw Failure{kExitFailed, "cannot read internal event log entry " + std::to_string(id)};
    if (response[0] == tvx::cc::kNotPresent)
        throw Failure{kExitFailed, "the internal event log has no entry " + std::to_string(id)};
    if (response[0] != tvx::cc::kOk)
        throw Failure{kExitFailed, "cannot read internal event log entry " + std::to_string(id) + ": completion code " +
                                       hexByte(response[0]) + " (" + tvx::cc::text(response[0]) + ")"};
    tvx::wire::View p =
        tvx::wire::View(response, len < sizeof response ? len : sizeof response).from(tvx::oem::kPayload);
    auto length = p.get(layout::entry::kBodyLength);
    if (!length)
        throw Failure{kExitFailed, "the controller's answer for entry " + std::to_string(id) + " is too short"};
    return {p.get(layout::entry::kEntryId, uint16_t{0}), p.get(layout::entry::kNextId, uint16_t{0}), *length,
            p.get(layout::entry::kSeverity, uint8_t{0}), p.get(layout::entry::kTimestamp, uint32_t{0})};
}

Entry readEntry(IpmiSession *s, uint16_t id)
{
    Header h = readHeader(s, id);
    iELEntry e = ipmiGetiELEntry(s, id, 0);
    // The entry read must be the one whose length was asked (a log cleared in between is not).
    bool same = e.body && e.e0 == h.id && e.e3 == h.next && e.e5 == h.time && e.e2 == h.severity;
    Entry out;
    if (same) {
        out = {e.e0, e.e3, e.e2, e.e5, std::vector<uint8_t>(e.body, e.body + h.length)};
    }
    std::free(e.body);
    if (!same) throw Failure{kExitFailed, "cannot read internal event log entry " + std::to_string(id)};
    return out;
}

// The controller's summary, as this project's virtual controller defines its fields (the
// packed fields are read into values first).
Json summaryJson(const iELSummary &s)
{
    const unsigned flags = s.s1, lastAdd = s.s4;
    return {{"version", unsigned{s.s0}},
            {"overflow", (flags & 0x80) != 0},
            {"entries", unsigned{s.s2}},
            {"last_add_time", lastAdd},
            {"last_add", lastAdd ? Json(timeText(lastAdd)) : Json(nullptr)},
            {"piece_size", unsigned{s.s8}},
            {"first_id", unsigned{s.s9}},
            {"last_id", unsigned{s.s11}},
            {"capacity", unsigned{s.s13}},
            {"free", unsigned{s.s15}},
            {"body_bytes", unsigned{s.s17}},
            {"dropped", unsigned{s.s19}}};
}

iELSummary readSummary(IpmiSession *s)
{
    iELSummary summary = ipmiGetiELInfo(s);
    // The library's record is all zero exactly when the summary could not be read.
    static const iELSummary kNone{};
    if (std::memcmp(&summary, &kNone, sizeof summary) == 0)
        throw Failure{kExitFailed, "cannot read the internal event log's summary"};
    return summary;
}

int list(const Options &opt)
{
    Session session;
    iELSummary summary = readSummary(session.get());
    std::vector<Entry> entries;
    std::set<uint16_t> seen;
    // From the first entry along the next-entry IDs; a controller that links in a circle
    // or beyond its own count does not keep tvxctl walking.
    for (uint16_t id = summary.s2 ? layout::kFirstEntry : layout::kLastEntry;
         id != layout::kLastEntry && entries.size() < summary.s2;) {
        Entry e = readEntry(session.get(), id);
        if (!seen.insert(e.id).second) break;
        id = e.next;
        entries.push_back(std::move(e));
    }
    if (opt.json) {
        Json list = Json::array();
        for (const Entry &e : entries) list.push_back(e.json());
        printJson({{"summary", summaryJson(summary)}, {"entries", list}});
        return kExitOk;
    }
    std::printf("Entries            : %u of %u%s\n", summary.s2, summary.s13,
                summary.s1 & 0x80 ? " (older entries were dropped)" : "");
    std::printf("Last addition      : %s\n", summary.s4 ? timeText(summary.s4).c_str() : "never");
    if (entries.empty()) return kExitOk;
    std::printf("\n%5s  %-20s  %-8s  %s\n", "ID", "Time", "Severity", "Text");
    for (const Entry &e : entries)
        std::printf("%5u  %-20s  %-8s  %s\n", e.id, timeText(e.time).c_str(), severityText(e.severity).c_str(),
                    e.text().c_str());
    return kExitOk;
}

uint16_t parseId(const std::string &text)
{
    unsigned long id;
    if (!parseNumber(text, 0xFFFF, id))
        throw Failure{kExitUsage, "expected an entry ID (0 to 65535), got \"" + text + "\""};
    return static_cast<uint16_t>(id);
}

int show(const Options &opt, const std::string &idText)
{
    uint16_t id = parseId(idText);
    Session session;
    Entry e = readEntry(session.get(), id);
    if (opt.json) {
        printJson(e.json());
        return kExitOk;
    }
    std::printf("Entry ID           : %u\n", e.id);
    std::printf("Time               : %s\n", timeText(e.time).c_str());
    std::printf("Severity           : %s\n", severityText(e.severity).c_str());
    std::printf("Text               : %s\n", e.text().c_str());
    std::printf("Record             : %s\n", hexText(e.record()).c_str());
    std::printf("Body length        : %zu\n", e.body.size());
    std::printf("Next entry ID      : %s\n", e.next == layout::kLastEntry ? "none" : std::to_string(e.next).c_str());
    return kExitOk;
}

// "01 02 0a" or "01020a": at most the 16 bytes of the record (the rest is zero).
std::vector<uint8_t> parseRecord(const std::string &text)
{
    std::string digits;
    for (char c : text)
        if (c != ' ' && c != ':') digits += c;
    std::vector<uint8_t> out;
    bool valid = digits.size() % 2 == 0 && digits.size() <= 2 * layout::kRecordSize;
    for (std::size_t i = 0; valid && i < digits.size(); i += 2) {
        uint8_t b = 0;
        valid = std::isxdigit(static_cast<unsigned char>(digits[i])) &&
                std::isxdigit(static_cast<unsigned char>(digits[i + 1])) && parseByte("0x" + digits.substr(i, 2), b);
        out.push_back(b);
    }
    if (!valid) throw Failure{kExitUsage, "BODY is at most 16 bytes in hex (\"01 02 0a\"), got \"" + text + "\""};
    out.resize(layout::kRecordSize);
    return out;
}

int add(const Options &opt, Args &args)
{
    std::string severity = args.option("--severity");
    args.noMoreOptions("iel add");
    if (args.size() < 1 || args.size() > 2)
        throw Failure{kExitUsage, "usage: tvxctl iel add [--severity S] TEXT [BODY]"};
    uint8_t level = 0;
    if (!severity.empty()) {
        auto it = std::find(std::begin(kSeverities), std::end(kSeverities), severity);
        if (it == std::end(kSeverities))
            throw Failure{kExitUsage, "--severity is info, minor, major or critical, got \"" + severity + "\""};
        level = static_cast<uint8_t>(it - std::begin(kSeverities));
    }
    std::vector<uint8_t> record = parseRecord(args.size() == 2 ? args[1] : "");
    Session session;
    if (!ipmiWriteiELEntry(session.get(), level, 0, 0, record.data(), args[0].c_str(), 0))
        throw Failure{kExitFailed, "the controller did not add the entry"};
    if (opt.json) printJson({{"added", true}});
    else std::printf("Entry added.\n");
    return kExitOk;
}

int clear(const Options &opt, Args &args)
{
    if (args.size() > 1) throw Failure{kExitUsage, "usage: tvxctl iel clear [ID]"};
    const bool all = args.size() == 0;
    const uint16_t id = all ? 0 : parseId(args[0]);
    Session session;
    if (!ipmiCleariELLog(session.get(), all ? 1 : 0, id))
        throw Failure{kExitFailed, all ? "the controller did not clear the internal event log"
                                       : "the controller did not clear entry " + std::to_string(id)};
    if (opt.json) printJson({{"cleared", all ? Json("all") : Json(id)}});
    else if (all) std::printf("Internal event log cleared.\n");
    else std::printf("Entry %u cleared.\n", id);
    return kExitOk;
}

} // namespace

int cmdIel(const Options &opt, const std::vector<std::string> &words)
{
    Args args(words);
    const std::string verb = args.size() > 0 ? args[0] : "list";
    Args rest(args.size() > 0 ? std::vector<std::string>(args.words().begin() + 1, args.words().end())
                              : std::vector<std::string>{});
    if (verb == "list") {
        rest.noMoreOptions("iel list");
        if (rest.size() != 0) throw Failure{kExitUsage, "iel list takes no arguments"};
        return list(opt);
    }
    if (verb == "show") {
        rest.noMoreOptions("iel show");
        if (rest.size() != 1) throw Failure{kExitUsage, "usage: tvxctl iel show ID"};
        return show(opt, rest[0]);
    }
    if (verb == "add") return add(opt, rest);
    if (verb == "clear") return clear(opt, rest);
    throw Failure{kExitUsage, "unknown iel command \"" + verb + "\" (list, show ID, add TEXT [BODY], clear [ID])"};
}

} // namespace tvxctl
