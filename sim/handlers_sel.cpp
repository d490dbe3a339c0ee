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
#include "controller.h"
#include "sel_model.h"

namespace tvxsim {
namespace {

constexpr uint8_t kNetFnStorage = 0x0A;
constexpr uint8_t kSelVersion = 0x51; // IPMI 2.0 (and 1.5) SEL
constexpr uint8_t kOverflow = 0x80;
constexpr uint8_t kReserveSupported = 0x02;
constexpr uint8_t kAllocInfoSupported = 0x01;
constexpr uint8_t kEraseCompleted = 0x01;

using sel::Log;
using sel::Model;

uint16_t u16(std::span<const uint8_t> d, std::size_t at) { return static_cast<uint16_t>(d[at] | d[at + 1] << 8); }

uint16_t freeUnits(const Model &m, const Log &log)
{
    return log.size() >= m.capacity ? 0 : static_cast<uint16_t>(m.capacity - log.size());
}

void getSelInfo(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (!req.data.empty()) return rsp.fail(cc::kRequestLengthInvalid);
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
    if (!req.data.empty()) return rsp.fail(cc::kRequestLengthInvalid);
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
    if (!req.data.empty()) return rsp.fail(cc::kRequestLengthInvalid);
    Log log = openLog(m, ctx);
    rsp.u16(log.reserve());
    ctx.changed();
}

void getSelEntry(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (req.data.size() != 6) return rsp.fail(cc::kRequestLengthInvalid);
    Log log = openLog(m, ctx);
    uint16_t reservation = u16(req.data, 0), id = u16(req.data, 2);
    uint8_t offset = req.data[4], wanted = req.data[5];
    if ((offset != 0 || reservation != 0) && (reservation == 0 || reservation != log.reservation()))
        return rsp.fail(cc::kReservationInvalid);
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
    if (req.data.size() != sel::kRecordSize) return rsp.fail(cc::kRequestLengthInvalid);
    Log log = openLog(m, ctx);
    if (log.size() >= m.capacity) {
        if (!log.overflow()) {
            log.setOverflow(true);
            ctx.changed();
        }
        return rsp.fail(cc::kOutOfSpace);
    }
    sel::Entry e;
    std::copy(req.data.begin(), req.data.end(), e.record.begin());
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
    if (req.data.size() != 6) return rsp.fail(cc::kRequestLengthInvalid);
    Log log = openLog(m, ctx);
    uint16_t reservation = u16(req.data, 0);
    if (reservation == 0 || reservation != log.reservation()) return rsp.fail(cc::kReservationInvalid);
    if (req.data[2] != 'C' || req.data[3] != 'L' || req.data[4] != 'R') return rsp.fail(cc::kInvalidDataField);
    uint8_t action = req.data[5];
    if (action == 0xAA) {
        log.clear();
        log.setLastErase(log.now());
        log.setOverflow(false);
        log.cancelReservation();
        ctx.changed();
    } else if (action != 0x00) {
        return rsp.fail(cc::kInvalidDataField);
    }
    rsp.u8(kEraseCompleted);
}

void getSelTime(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (!req.data.empty()) return rsp.fail(cc::kRequestLengthInvalid);
    rsp.u32(openLog(m, ctx).now());
}

void setSelTime(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (req.data.size() != 4) return rsp.fail(cc::kRequestLengthInvalid);
    uint32_t t = static_cast<uint32_t>(req.data[0]) | static_cast<uint32_t>(req.data[1]) << 8 |
                 static_cast<uint32_t>(req.data[2]) << 16 | static_cast<uint32_t>(req.data[3]) << 24;
    openLog(m, ctx).setTime(t);
    ctx.changed();
}

void getUtcOffset(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (!req.data.empty()) return rsp.fail(cc::kRequestLengthInvalid);
    rsp.u16(static_cast<uint16_t>(openLog(m, ctx).utcOffset()));
}

void setUtcOffset(const Model &m, Context &ctx, const Request &req, Response &rsp)
{
    if (req.data.size() != 2) return rsp.fail(cc::kRequestLengthInvalid);
    int16_t minutes = static_cast<int16_t>(u16(req.data, 0));
    if ((minutes < -1440 || minutes > 1440) && minutes != sel::kUtcOffsetUnspecified)
        return rsp.fail(cc::kParameterOutOfRange);
    openLog(m, ctx).setUtcOffset(minutes);
    ctx.changed();
}

using SelHandler = void (*)(const Model &, Context &, const Request &, Response &);

void install(Controller &c)
{
    // Parsed once per controller; a bad "sel" or "event_texts" stops the machine from starting.
    auto model = std::make_shared<const Model>(sel::parseModel(c.profile()));
    auto on = [&](uint8_t command, SelHandler fn) {
        c.on(kNetFnStorage, command, [model, fn](Context &ctx, const Request &req, Response &rsp) { fn(*model, ctx, req, rsp); });
    };
    on(0x40, getSelInfo);
    on(0x41, getAllocationInfo);
    on(0x42, reserveSel);
    on(0x43, getSelEntry);
    on(0x44, addSelEntry);
    on(0x47, clearSel);
    on(0x48, getSelTime);
    on(0x49, setSelTime);
    on(0x5C, getUtcOffset);
    on(0x5D, setUtcOffset);
    installEventTextHandlers(c, model);
}

void initState(const Profile &p, nlohmann::json &state) { state["sel"] = sel::initialState(sel::parseModel(p)); }

} // namespace

Log openLog(const Model &m, Context &ctx)
{
    Log log(ctx.state, m);
    if (log.created()) ctx.changed();
    return log;
}

const Subsystem kSelSubsystem = {"system event log", install, initState};

} // namespace tvxsim
