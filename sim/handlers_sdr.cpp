// SDR repository commands (Storage, NetFn 0x0A): repository and allocation information,
// reservations and reading records.
//
// Completion codes of Get SDR, checked in this order:
//   0xC7  the request is not 6 bytes long
//   0xC5  a read at a non-zero offset without the current reservation (none taken, or
//         cancelled by a newer one); reads from offset 0 need no reservation
//   0xCB  no record with that ID (or the repository is empty)
//   0xC9  the offset lies at or beyond the end of the record
//   0xCA  the bytes asked for run past the end of the record, or are more than one answer
//         carries (/sdr/max_read_bytes, and /controller/max_response_length less the
//         completion code and next record ID); 0xFF asks for the rest of the record, which
//         must fit one answer as well
#include <algorithm>

#include "controller.h"
#include "sdr.h"

namespace tvxsim {
namespace {

namespace storage = tvx::cmd::storage;
constexpr uint8_t kSdrVersion = 0x51;

// The repository's reservation lives in the controller's RAM (state["sdr"]), shared by the
// programs using the machine, so that they cancel each other's reservations as clients of one
// controller do; a reservation never reaches non-volatile storage.
uint16_t currentReservation(const nlohmann::json &state)
{
    auto sdr = state.find("sdr");
    if (sdr == state.end() || !sdr->is_object()) return 0;
    auto r = sdr->find("reservation");
    if (r == sdr->end() || !r->is_number_unsigned() || r->get<uint64_t>() > 0xFFFF) return 0;
    return static_cast<uint16_t>(r->get<uint64_t>());
}

void getRepositoryInfo(const SdrModel &m, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    const RepositoryOptions &o = m.options;
    uint32_t freeBytes = (o.units - m.usedUnits) * static_cast<uint32_t>(o.unitSize);
    rsp.u8(kSdrVersion);
    rsp.u16(static_cast<uint16_t>(m.records.size()));
    rsp.u16(static_cast<uint16_t>(std::min<uint32_t>(freeBytes, 0xFFFE))); // 0xFFFE: 64 KB - 2 or more
    rsp.u32(o.addTimestamp);
    rsp.u32(o.eraseTimestamp);
    rsp.u8(o.operationSupport);
}

void getAllocationInfo(const SdrModel &m, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    const RepositoryOptions &o = m.options;
    uint16_t freeUnits = static_cast<uint16_t>(o.units - m.usedUnits);
    rsp.u16(o.units);
    rsp.u16(o.unitSize);
    rsp.u16(freeUnits);
    rsp.u16(freeUnits); // the free units form one block: records are never deleted
    rsp.u8(o.maxRecordUnits);
}

void reserve(Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    nlohmann::json &sdr = ctx.state["sdr"];
    if (!sdr.is_object()) sdr = nlohmann::json::object();
    uint16_t last = 0;
    auto it = sdr.find("last_reservation");
    if (it != sdr.end() && it->is_number_unsigned() && it->get<uint64_t>() <= 0xFFFF)
        last = static_cast<uint16_t>(it->get<uint64_t>());
    // IDs run 1..0xFFFF and wrap; 0 never names a reservation.
    uint16_t id = static_cast<uint16_t>(last == 0xFFFF ? 1 : last + 1);
    sdr["last_reservation"] = id;
    sdr["reservation"] = id;
    ctx.changed();
    rsp.u16(id);
}

void getSdr(const SdrModel &m, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint16_t reservation = in.u16();
    const uint16_t recordId = in.u16();
    const uint8_t offset = in.u8();
    const uint8_t count = in.u8();
    if (!rsp.complete(in)) return;
    if (offset != 0) {
        uint16_t current = currentReservation(ctx.state);
        if (current == 0 || reservation != current) return rsp.fail(cc::kReservationCancelled);
    }
    long index = m.indexOf(recordId);
    if (index < 0) return rsp.fail(cc::kNotPresent);
    const std::vector<uint8_t> &record = m.records[static_cast<std::size_t>(index)].bytes;
    if (offset >= record.size()) return rsp.fail(cc::kParameterOutOfRange);
    std::size_t rest = record.size() - offset;
    std::size_t n = count == 0xFF ? rest : count;
    std::size_t limit = m.options.maxReadBytes;
    if (ctx.profile.maxResponseLength != 0) limit = std::min(limit, ctx.profile.maxResponseLength - 3);
    if (n > rest || n > limit) return rsp.fail(cc::kCannotReturnBytes);
    std::size_t next = static_cast<std::size_t>(index) + 1;
    rsp.u16(next < m.records.size() ? m.records[next].id : 0xFFFF);
    rsp.append(std::span<const uint8_t>(record).subspan(offset, n));
}

void install(Controller &c)
{
    std::shared_ptr<const SdrModel> m = sdrModel(c);
    c.on(tvx::netfn::kStorage, storage::kGetSdrRepositoryInfo,
         [m](Context &, const Request &req, Response &rsp) { getRepositoryInfo(*m, req, rsp); });
    c.on(tvx::netfn::kStorage, storage::kGetSdrRepositoryAllocInfo,
         [m](Context &, const Request &req, Response &rsp) { getAllocationInfo(*m, req, rsp); });
    c.on(tvx::netfn::kStorage, storage::kReserveSdrRepository, reserve);
    c.on(tvx::netfn::kStorage, storage::kGetSdr, [m](Context &ctx, const Request &req, Response &rsp) { getSdr(*m, ctx, req, rsp); });
    c.keepInRam("sdr");
}

} // namespace

const Subsystem kSdrRepositorySubsystem = {"sdr_repository", install, nullptr};

} // namespace tvxsim
