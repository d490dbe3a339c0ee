// The system event log (Storage, NetFn 0x0A): information, allocation, reservation, reading,
// adding and clearing records, the SEL time and its UTC offset.
//
// Choices where controllers differ:
// - Record IDs run from 1 in the order records were added and start at 1 again after a clear.
// - Add SEL Entry stamps a system event record (type 0x02) with the controller's time always,
//   and a timestamped OEM record (0xC0-0xDF) only when its timestamp is 0, so software can log
//   OEM records with times of its own. Any record type is accepted.
// - Get SEL Entry needs a valid reservation for a read that does not start at offset 0; a
//   reservation ID other than 0 is checked at offset 0 too. Reading more bytes at once than
//   the profile's max_read_bytes answers 0xCA, so readers fall back to partial reads.
// - Clear SEL erases at once: initiate (0xAA) and get status (0x00) both answer 0x01,
//   erase completed. A clear cancels the reservation.
#include <algorithm>
#include <iterator>

#include "controller.h"
#include "sel_model.h"

namespace tvxsim {
namespace {

namespace storage = tvx::cmd::storage;
namespace clear = tvx::clear_sel;
constexpr uint8_t kSelVersion = 0x51; // IPMI 2.0 (and 1.5) SEL
constexpr uint8_t kOverflow = 0x80;
constexpr uint8_t kReserveSupported = 0x02;
constexpr uint8_t kAllocInfoSupported = 0x01;

using sel::Log;
using sel::Model;

uint16_t freeUnits(const Model &m, const Log &log)
{
    return log.size() >= m.capacity ? 0 : static_cast<uint16_t>(m.capacity - log.size());
}

void getSelInfo(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    Log log = openLog(m, ctx);
    uint32_t freeBytes = static_cast<uint32_t>(freeUnits(m, log)) * sel::kRecordSize;
    rsp.u8(kSelVersion);
    rsp.u16(static_cast<uint16_t>(log.size()));
    rsp.u16(static_cast<uint16_t>(freeBytes > 0xFFFF ? 0xFFFF : freeBytes));
    rsp.u32(log.lastAdd());
    rsp.u32(log.lastErase());
    rsp.u8(static_cast<uint8_t>((log.overflow() ? kOverflow : 0) | kReserveSupported | kAllocInfoSupported));
}

void getAllocationInfo(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    Log log = openLog(m, ctx);
    // One record per allocation unit: every free unit is also a block large enough.
    rsp.u16(m.capacity);
    rsp.u16(sel::kRecordSize);
    rsp.u16(freeUnits(m, log));
    rsp.u16(freeUnits(m, log));
    rsp.u8(1);
}

void reserveSel(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    Log log = openLog(m, ctx);
    rsp.u16(log.reserve());
    ctx.changed();
}

void getSelEntry(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint16_t reservation = in.u16(), id = in.u16();
    const uint8_t offset = in.u8(), wanted = in.u8();
    if (!rsp.complete(in)) return;
    Log log = openLog(m, ctx);
    if ((offset != 0 || reservation != 0) && (reservation == 0 || reservation != log.reservation()))
        return rsp.fail(cc::kReservationCancelled);
    long index = log.indexOf(id);
    if (index < 0) return rsp.fail(cc::kNotPresent);
    if (offset >= sel::kRecordSize) return rsp.fail(cc::kParameterOutOfRange);
    std::size_t rest = sel::kRecordSize - offset;
    std::size_t count = wanted == 0xFF || wanted > rest ? rest : wanted;
    if (count > m.maxReadBytes) return rsp.fail(cc::kCannotReturnBytes);
    sel::Entry e = log.at(static_cast<std::size_t>(index));
    rsp.u16(log.nextId(static_cast<std::size_t>(index)));
    rsp.append(std::span<const uint8_t>(e.record).subspan(offset, count));
}

void addSelEntry(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const wire::View record = in.bytes(sel::kRecordSize);
    if (!rsp.complete(in)) return;
    Log log = openLog(m, ctx);
    if (log.size() >= m.capacity) {
        if (!log.overflow()) {
            log.setOverflow(true);
            ctx.changed();
        }
        return rsp.fail(cc::kOutOfSpace);
    }
    sel::Entry e;
    std::copy(record.span().begin(), record.span().end(), e.record.begin());
    uint32_t now = log.now();
    if (e.type() == sel::kSystemEvent || (sel::isOemTimed(e.type()) && e.timestamp() == 0)) e.setTimestamp(now);
    m.label(e);
    uint16_t id = log.append(std::move(e));
    log.setLastAdd(now);
    ctx.changed();
    rsp.u16(id);
}

void clearSel(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint16_t reservation = in.u16();
    const wire::View guard = in.bytes(sizeof clear::kGuard);
    const uint8_t action = in.u8();
    if (!rsp.complete(in)) return;
    Log log = openLog(m, ctx);
    if (reservation == 0 || reservation != log.reservation()) return rsp.fail(cc::kReservationCancelled);
    if (!std::equal(guard.span().begin(), guard.span().end(), std::begin(clear::kGuard)))
        return rsp.fail(cc::kInvalidDataField);
    if (action == clear::kInitiate) {
        log.clear();
        log.setLastErase(log.now());
        log.setOverflow(false);
        log.cancelReservation();
        ctx.changed();
    } else if (action != clear::kGetStatus) {
        return rsp.fail(cc::kInvalidDataField);
    }
    rsp.u8(clear::kEraseCompleted);
}

void getSelTime(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    rsp.u32(openLog(m, ctx).now());
}

void setSelTime(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint32_t t = in.u32();
    if (!rsp.complete(in)) return;
    openLog(m, ctx).setTime(t);
    ctx.changed();
}

void getUtcOffset(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    rsp.u16(static_cast<uint16_t>(openLog(m, ctx).utcOffset()));
}

void setUtcOffset(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const int16_t minutes = static_cast<int16_t>(in.u16());
    if (!rsp.complete(in)) return;
    if ((minutes < -1440 || minutes > 1440) && minutes != sel::kUtcOffsetUnspecified)
        return rsp.fail(cc::kParameterOutOfRange);
    openLog(m, ctx).setUtcOffset(minutes);
    ctx.changed();
}

using SelHandler = void (*)(const Model &, Context &, const Request &, Response &);

// How the log is kept (see sel::Log).
void keepLog(Controller &c)
{
    c.keepAsLog("sel", "records");
    c.keepInRam("sel_reservation");
}

void install(Controller &c)
{
    // Parsed once per controller; a bad "sel" or "event_texts" stops the machine from starting.
    // The profile's records are read only when the log is made from them.
    auto model = std::make_shared<const Model>(sel::parseModel(c.profile(), false));
    keepLog(c);
    auto on = [&](uint8_t command, SelHandler fn) {
        c.on(tvx::netfn::kStorage, command,
             [model, fn](Context &ctx, const Request &req, Response &rsp) { fn(*model, ctx, req, rsp); });
    };
    on(storage::kGetSelInfo, getSelInfo);
    on(storage::kGetSelAllocInfo, getAllocationInfo);
    on(storage::kReserveSel, reserveSel);
    on(storage::kGetSelEntry, getSelEntry);
    on(storage::kAddSelEntry, addSelEntry);
    on(storage::kClearSel, clearSel);
    on(storage::kGetSelTime, getSelTime);
    on(storage::kSetSelTime, setSelTime);
    on(storage::kGetSelTimeUtcOffset, getUtcOffset);
    on(storage::kSetSelTimeUtcOffset, setUtcOffset);
    installEventTextHandlers(c, model);
}

void initState(const Profile &p, nlohmann::json &state) { state["sel"] = sel::initialState(sel::parseModel(p)); }

} // namespace

Log openLog(const Model &m, Context &ctx)
{
    // A state kept from before the machine had a log gets the profile's.
    if (ctx.state.is_object() && !ctx.state.contains("sel")) {
        ctx.state["sel"] = sel::initialState(sel::parseModel(ctx.profile));
        ctx.changed();
    }
    return Log(ctx.state, m);
}

const Subsystem kSelSubsystem = {"system event log", install, initState};

} // namespace tvxsim
