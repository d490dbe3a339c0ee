// The event text service (OEM/Group command 0xF5): a log entry's error code, severity and
// parameters, the message texts of error codes in chunks, an entry's short text, and an
// entry's whole text with follow-up chunks.
//
// Choices of this controller:
// - The selector byte names the log; there is one, so every selector reaches it.
// - Record ID 0x0000 means the first entry and 0xFFFF the last, as in Get SEL Entry.
// - An unknown record, an entry without an error code, an unknown error code and an unknown
//   follow-up handle answer 0xCB (requested data not present); a text offset beyond the
//   text 0xC9 (parameter out of range); a request of the wrong length 0xC7.
// - A language without a text gets the English one (every error code has one); the 0x89
//   answer says in its third field which language it used.
// - 0x45: the 10 bytes are the record ID, the error code, the flags, the parameter count and
//   the next record ID; then the length of the English text (at most 255) and as much of the
//   text as fits a 64-byte answer.
// - 0x89: p7 bit 0 puts the entry's time before the text, bit 1 the severity after it; p8 is
//   the language (0: English); p10 the length of the first chunk (0: the profile's chunk size);
//   p11 is reserved. The answer's fields are the record ID, the record type, the language
//   used, the error code, the flags, the parameter count, the next record ID, the number of
//   entries, the text size, the first chunk's length and the follow-up handle. Every chunk
//   counts its own terminator in the text size and in the follow-up's remaining length, so a
//   buffer of the text size holds the chunks as they arrive.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "controller.h"
#include "sel_model.h"

namespace tvxsim {
namespace {

using nlohmann::json;
using sel::Log;
using sel::Model;

namespace vendor = tvx::oem::vendor;
// Text bytes of one 0x45 answer: 64 bytes less completion code, IANA number, 10 info bytes
// and the length byte.
constexpr std::size_t kEntryTextRoom = 64 - 4 - 10 - 1;
// The first chunk of a 0x89 answer stands from byte 24 on, its terminator within 255 bytes.
constexpr std::size_t kMaxFirstChunk = 255 - 24 - 1;
// Follow-up texts kept at a time; the oldest is dropped for a new one.
constexpr std::size_t kMaxHandles = 16;

const char *const kSuffix[4] = {" (INFO)", " (MINOR)", " (MAJOR)", " (CRITICAL)"};

// The entry a request names, with its message; fails the answer when there is none.
struct Found {
    sel::Entry entry;
    std::size_t index;
    const sel::Message *message;
};

std::optional<Found> findEntry(const Model &m, const Log &log, uint16_t id, Response &rsp)
{
    long index = log.indexOf(id);
    if (index < 0) {
        rsp.fail(cc::kNotPresent);
        return std::nullopt;
    }
    sel::Entry e = log.at(static_cast<std::size_t>(index));
    const sel::Message *msg = e.code ? m.message(*e.code) : nullptr;
    if (!msg) {
        rsp.fail(cc::kNotPresent);
        return std::nullopt;
    }
    return Found{std::move(e), static_cast<std::size_t>(index), msg};
}

// "16-Nov-2026 21:45:12 ", as the controller's console shows times.
std::string timeText(uint32_t t)
{
    static const char *const months[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    time_t v = static_cast<time_t>(t);
    struct tm tm{};
    if (!gmtime_r(&v, &tm)) return "";
    char b[40];
    std::snprintf(b, sizeof b, "%02d-%s-%04d %02d:%02d:%02d ", tm.tm_mday, months[tm.tm_mon % 12], tm.tm_year + 1900,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return b;
}

void getErrorCode(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    in.u8(); // the selector: there is one log
    const uint16_t id = in.u16();
    if (!rsp.complete(in)) return;
    Log log = openLog(m, ctx);
    auto f = findEntry(m, log, id, rsp);
    if (!f) return;
    rsp.append(*f->entry.code);
    rsp.u8(sel::severityFlags(f->entry.severity));
    rsp.u8(static_cast<uint8_t>(f->entry.parameters.size()));
    for (const auto &p : f->entry.parameters) rsp.u8(static_cast<uint8_t>(p.size())).append(p);
}

void getTextChunk(const Model &m, Context &, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const wire::View codeBytes = in.bytes(std::tuple_size_v<sel::ErrorCode>);
    const uint16_t offset = in.u16();
    in.u8(); // the selector: there is one log
    const uint16_t language = in.u16();
    in.u8(); // reserved
    if (!rsp.complete(in)) return;
    sel::ErrorCode code;
    std::copy(codeBytes.span().begin(), codeBytes.span().end(), code.begin());
    const sel::Message *msg = m.message(code);
    if (!msg) return rsp.fail(cc::kNotPresent);
    const std::string &text = msg->text(language);
    if (offset > text.size()) return rsp.fail(cc::kParameterOutOfRange);
    std::size_t n = std::min<std::size_t>(m.chunkSize, text.size() - offset);
    rsp.u16(static_cast<uint16_t>(text.size())).u8(static_cast<uint8_t>(n));
    rsp.append(std::string_view(text).substr(offset, n)).u8(0);
}

void getEntryText(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint16_t id = in.u16();
    if (!rsp.complete(in)) return;
    Log log = openLog(m, ctx);
    auto f = findEntry(m, log, id, rsp);
    if (!f) return;
    std::string text = sel::compose(f->message->text(sel::kEnglish), f->entry.parameters);
    std::size_t length = std::min<std::size_t>(text.size(), 255);
    rsp.u16(f->entry.id());
    rsp.append(*f->entry.code);
    rsp.u8(sel::severityFlags(f->entry.severity));
    rsp.u8(static_cast<uint8_t>(f->entry.parameters.size()));
    rsp.u16(log.nextId(f->index));
    rsp.u8(static_cast<uint8_t>(length));
    rsp.append(std::string_view(text).substr(0, std::min(length, kEntryTextRoom)));
}

// The follow-up texts waiting in the machine state, oldest first:
// [{"handle": H, "text": "...", "at": where the next chunk starts, "chunk": its size}, ...].
// The text is kept whole, as chunks may end inside a character. Anything unusable there is
// dropped rather than answered from.
json &handles(Log &log)
{
    json &h = log.raw()["text_handles"];
    if (!h.is_array()) h = json::array();
    return h;
}

bool validHandle(const json &h)
{
    auto whole = [&](const char *key, int64_t max) {
        return h.contains(key) && h[key].is_number_integer() && h[key].get<int64_t>() >= 0 && h[key].get<int64_t>() <= max;
    };
    return h.is_object() && whole("handle", 0xFF) && whole("at", 0xFFFF) && whole("chunk", 0xFF) &&
           h["chunk"].get<int64_t>() > 0 && h.contains("text") && h["text"].is_string() &&
           h["at"].get<std::size_t>() <= h["text"].get_ref<const std::string &>().size();
}

// What the chunks from `at` on take in a text size: each chunk with its terminator.
std::size_t chunkedSize(std::size_t length, std::size_t at, std::size_t chunk)
{
    std::size_t rest = length > at ? length - at : 0;
    return rest + (rest + chunk - 1) / chunk;
}

uint8_t keepFollowUp(Log &log, const std::string &text, std::size_t at, std::size_t chunk)
{
    json &list = handles(log);
    json &next = log.raw()["next_handle"];
    int64_t h = next.is_number_integer() ? next.get<int64_t>() : 1;
    auto inUse = [&](int64_t v) {
        for (const json &e : list)
            if (validHandle(e) && e["handle"] == v) return true;
        return false;
    };
    for (int tries = 0; tries < 256; ++tries) {
        if (h <= 0 || h > 0xFF) h = 1;
        if (!inUse(h)) break;
        ++h;
    }
    while (list.size() >= kMaxHandles) list.erase(list.begin());
    list.push_back({{"handle", h}, {"text", text}, {"at", at}, {"chunk", chunk}});
    next = h + 1;
    return static_cast<uint8_t>(h);
}

void getEntryAsText(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    in.u8(); // the selector: there is one log
    const uint16_t id = in.u16();
    const uint8_t form = in.u8();
    const uint16_t language = in.u16();
    const uint8_t firstWanted = in.u8();
    in.u8(); // p11, reserved
    in.u8(); // reserved
    if (!rsp.complete(in)) return;
    Log log = openLog(m, ctx);
    auto f = findEntry(m, log, id, rsp);
    if (!f) return;
    uint16_t used = 0;
    std::string text = sel::compose(f->message->text(language ? language : sel::kEnglish, &used), f->entry.parameters);
    if ((form & 0x01) && sel::hasTimestamp(f->entry.type())) text = timeText(f->entry.timestamp()) + text;
    if (form & 0x02) text += kSuffix[static_cast<uint8_t>(f->entry.severity) & 3];

    std::size_t first = firstWanted ? std::min<std::size_t>(firstWanted, kMaxFirstChunk) : m.chunkSize;
    std::string head = text.substr(0, first);
    std::size_t size = head.size() + 1 + chunkedSize(text.size(), head.size(), m.chunkSize);
    uint8_t handle = 0;
    if (text.size() > head.size()) {
        handle = keepFollowUp(log, text, head.size(), m.chunkSize);
        ctx.changed();
    }
    rsp.u16(f->entry.id());
    rsp.u16(f->entry.type());
    rsp.u16(used);
    rsp.append(*f->entry.code);
    rsp.u8(sel::severityFlags(f->entry.severity));
    rsp.u8(static_cast<uint8_t>(f->entry.parameters.size()));
    rsp.u16(log.nextId(f->index));
    rsp.u16(static_cast<uint16_t>(log.size()));
    rsp.u16(static_cast<uint16_t>(size));
    rsp.u8(static_cast<uint8_t>(head.size() + 1));
    rsp.u8(handle);
    rsp.append(head).u8(0);
}

void getFollowUp(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t handle = in.u8();
    if (!rsp.complete(in)) return;
    Log log = openLog(m, ctx);
    json &list = handles(log);
    for (auto it = list.begin(); it != list.end(); ++it) {
        if (!validHandle(*it) || (*it)["handle"] != handle) continue;
        const std::string &text = (*it)["text"].get_ref<const std::string &>();
        std::size_t at = (*it)["at"].get<std::size_t>(), size = (*it)["chunk"].get<std::size_t>();
        std::string chunk = text.substr(at, size);
        at += chunk.size();
        std::size_t remaining = chunkedSize(text.size(), at, size);
        if (remaining == 0) list.erase(it);
        else (*it)["at"] = at;
        ctx.changed();
        rsp.u16(static_cast<uint16_t>(remaining)).u8(static_cast<uint8_t>(chunk.size() + 1));
        rsp.append(chunk).u8(0);
        return;
    }
    rsp.fail(cc::kNotPresent);
}

} // namespace

void installEventTextHandlers(Controller &c, std::shared_ptr<const Model> model)
{
    using Fn = void (*)(const Model &, Context &, const Request &, Response &);
    auto on = [&](uint8_t sub, Fn fn) {
        c.onOemSub(tvx::oem::cmd::kVendor, sub,
                   [model, fn](Context &ctx, const Request &req, Response &rsp) { fn(*model, ctx, req, rsp); });
    };
    on(vendor::kGetErrorCode, getErrorCode);
    on(vendor::kGetTextChunk, getTextChunk);
    on(vendor::kGetEntryText, getEntryText);
    on(vendor::kGetFollowUp, getFollowUp);
    on(vendor::kGetEntryAsText, getEntryAsText);
}

} // namespace tvxsim
