// The internal event log (OEM command 0xF5): summary, reading an entry's body in pieces,
// writing and clearing entries. The log lives in the machine state (see iel_model.h) and
// takes its times from the controller's clock, the one the SEL stamps its records with.
//
// Choices of this controller:
// - Summary (21 bytes): s0 the log's format version (1); s1 flags, bit 7 set when entries
//   were dropped to make room; s2 the number of entries; s4 the time of the last addition;
//   s8 the most body bytes one read answers (50); s9 and s11 the first and last entry IDs
//   (0xFFFF when empty); s13 the capacity in entries; s15 the free entries; s17 the bytes
//   the bodies take; s19 the entries dropped since the last clear (at most 0xFFFF).
// - Read: e0 the entry's ID, e2 its severity (0 info, 1 minor, 2 major, 3 critical), e3 the
//   next entry's ID (0xFFFF after the last), e5 its time, then the body's whole length and
//   up to 50 body bytes from the offset. Entry ID 0x0000 reads the first entry, 0xFFFF the
//   last. An unknown entry answers 0xCB, an offset beyond the body 0xC9.
// - Write: w4 is the severity (above 3: 0xCC); w5 to w7 are reserved and ignored. The
//   entry's time is the controller's. A full log drops its oldest entry. A text without its
//   zero byte answers 0xCC, a text over 200 bytes 0xC8; a record of 15 bytes is taken with
//   its last byte 0 (some clients leave it out), any other length answers 0xC7.
// - Clear: mode 0x80 clears every entry (the entry ID is ignored) and IDs start at 1 again;
//   mode 0x00 clears that one entry (0xCB when there is none); other modes 0xCC.
#include <algorithm>

#include "controller.h"
#include "iel_model.h"
#include "sel_model.h"
#include "tvx/iel.h"

namespace tvxsim {
namespace {

namespace layout = tvx::iel;
using tvx::wire::Reader;

struct Shared {
    Controller *controller;
    iel::Model model;

    iel::Log log(Context &ctx) const
    {
        iel::Log log(ctx.state, model);
        if (log.created()) ctx.changed();
        return log;
    }
    // The controller's clock.
    uint32_t now(Context &ctx) const
    {
        // The log's settings without its records (openLog reads those if it makes the log).
        auto selModel = controller->attachedOrParsed<sel::Model>(
            "sel", [](const Profile &p) { return sel::parseModel(p, false); });
        return openLog(*selModel, ctx).now();
    }
};

void summary(const Shared &s, Context &ctx, const Request &req, Response &rsp)
{
    if (!req.data.empty()) return rsp.fail(cc::kRequestLengthInvalid);
    iel::Log log = s.log(ctx);
    const uint16_t count = static_cast<uint16_t>(log.size());
    rsp.u8(iel::kVersion);
    rsp.u8(log.overflow() ? 0x80 : 0x00);
    rsp.u16(count);
    rsp.u32(log.lastAdd());
    rsp.u8(layout::kPieceSize);
    rsp.u16(count ? log.at(0).id : 0xFFFF);
    rsp.u16(count ? log.at(count - 1).id : 0xFFFF);
    rsp.u16(s.model.capacity);
    rsp.u16(static_cast<uint16_t>(count < s.model.capacity ? s.model.capacity - count : 0));
    rsp.u16(static_cast<uint16_t>(std::min<std::size_t>(log.bodyBytes(), 0xFFFF)));
    rsp.u16(log.dropped());
}

void read(const Shared &s, Context &ctx, const Request &req, Response &rsp)
{
    Reader r(req.data);
    const uint16_t id = r.u16(), offset = r.u16();
    if (!r.done()) return rsp.fail(cc::kRequestLengthInvalid);
    iel::Log log = s.log(ctx);
    long index = log.indexOf(id);
    if (index < 0) return rsp.fail(cc::kNotPresent);
    const iel::Entry e = log.at(static_cast<std::size_t>(index));
    const std::vector<uint8_t> body = e.body();
    if (offset > body.size()) return rsp.fail(cc::kParameterOutOfRange);
    uint8_t head[layout::entry::kBody] = {};
    tvx::wire::Writer w(head, sizeof head);
    w.put(layout::entry::kEntryId, e.id)
        .put(layout::entry::kSeverity, e.severity)
        .put(layout::entry::kNextId, log.nextId(static_cast<std::size_t>(index)))
        .put(layout::entry::kTimestamp, e.time)
        .put(layout::entry::kBodyLength, static_cast<uint16_t>(body.size()));
    rsp.append(w.written());
    const std::size_t piece = std::min(layout::kPieceSize, body.size() - offset);
    rsp.append(std::span<const uint8_t>(body).subspan(offset, piece));
}

void write(const Shared &s, Context &ctx, const Request &req, Response &rsp)
{
    Reader r(req.data);
    const uint8_t severity = r.u8();
    r.skip(3); // w5-w7: reserved
    tvx::wire::View rest = r.rest();
    if (!r.ok()) return rsp.fail(cc::kRequestLengthInvalid);
    const uint8_t *begin = rest.data(), *end = begin + rest.size();
    const uint8_t *nul = std::find(begin, end, uint8_t{0});
    if (nul == end) return rsp.fail(cc::kInvalidDataField);
    const std::size_t recordBytes = static_cast<std::size_t>(end - nul - 1);
    if (recordBytes != iel::kRecordSize && recordBytes != iel::kRecordSize - 1)
        return rsp.fail(cc::kRequestLengthInvalid);
    if (static_cast<std::size_t>(nul - begin) > iel::kMaxTextLength) return rsp.fail(cc::kRequestLengthExceeded);
    if (severity > iel::kMaxSeverity) return rsp.fail(cc::kInvalidDataField);
    iel::Entry e;
    e.severity = severity;
    e.text.assign(begin, nul);
    std::copy(nul + 1, end, e.record.begin());
    e.time = s.now(ctx);
    s.log(ctx).append(std::move(e), s.model.capacity);
    ctx.changed();
}

void clear(const Shared &s, Context &ctx, const Request &req, Response &rsp)
{
    Reader r(req.data);
    const uint8_t mode = r.u8();
    const uint16_t id = r.u16();
    if (!r.done()) return rsp.fail(cc::kRequestLengthInvalid);
    iel::Log log = s.log(ctx);
    if (mode == layout::kClearAll) {
        log.clear();
    } else if (mode == layout::kClearOne) {
        // Here an ID names an entry, never a place.
        long index = id == layout::kFirstEntry || id == layout::kLastEntry ? -1 : log.indexOf(id);
        if (index < 0) return rsp.fail(cc::kNotPresent);
        log.erase(static_cast<std::size_t>(index));
    } else {
        return rsp.fail(cc::kInvalidDataField);
    }
    ctx.changed();
}

using IelHandler = void (*)(const Shared &, Context &, const Request &, Response &);

void install(Controller &c)
{
    // Entries are appended, or the list changes as a whole (a full log drops its oldest, an
    // entry is erased): an addition stores one entry.
    c.keepAsLog("iel", "entries");
    // Parsed once per controller; a bad "iel" stops the machine from starting.
    auto shared = std::make_shared<const Shared>(Shared{&c, iel::parseModel(c.profile())});
    auto on = [&](uint8_t sub, IelHandler fn) {
        c.onOemSub(layout::kCommand, sub,
                   [shared, fn](Context &ctx, const Request &req, Response &rsp) { fn(*shared, ctx, req, rsp); });
    };
    on(layout::kSummary, summary);
    on(layout::kRead, read);
    on(layout::kWrite, write);
    on(layout::kClear, clear);
}

void initState(const Profile &p, nlohmann::json &state) { state["iel"] = iel::initialState(iel::parseModel(p)); }

} // namespace

const Subsystem kIelSubsystem = {"internal event log", install, initState};

} // namespace tvxsim
