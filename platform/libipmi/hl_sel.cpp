// The system event log operations, on the raw exchange.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

#include "command.h"
#include "internal.h"
#include "tvx/records.h"

namespace libipmi {
namespace {

namespace storage = tvx::cmd::storage;
constexpr std::size_t kRecordSize = tvx::sel::kRecordSize;
constexpr uint16_t kFirstRecord = 0x0000;
constexpr uint16_t kLastRecord = 0xFFFF;
constexpr uint8_t kPieceSize = 8;

// A Get SEL Entry request: reservation, record ID, offset, bytes to read.
std::array<uint8_t, 6> getEntryRequest(uint16_t reservation, uint16_t id, uint8_t offset, uint8_t count)
{
    std::array<uint8_t, 6> req;
    wire::Writer(req).u16(reservation).u16(id).u8(offset).u8(count);
    return req;
}

// One record read in pieces, for controllers that cannot return 16 data bytes at once.
uint16_t readInPieces(IpmiSession *s, uint16_t id, uint8_t *record, uint16_t *next, int timeout)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::vector<uint8_t> rsp;
        uint16_t status = exchange(s, netfn::kStorage, storage::kReserveSel, {}, rsp, timeout);
        if (status != 0) return status;
        wire::Reader reserved = readData(rsp);
        uint16_t reservation = reserved.u16();
        if (!reserved.ok()) return LIBIPMI_STATUS_BAD_RESPONSE;
        bool lost = false;
        for (size_t offset = 0; offset < kRecordSize && !lost;) {
            uint8_t piece = static_cast<uint8_t>(std::min<std::size_t>(kRecordSize - offset, kPieceSize));
            status = exchange(s, netfn::kStorage, storage::kGetSelEntry,
                              getEntryRequest(reservation, id, static_cast<uint8_t>(offset), piece), rsp, timeout);
            if (status == LIBIPMI_STATUS_COMPLETION_CODE(cc::kReservationCancelled)) {
                lost = true;
                break;
            }
            if (status != 0) return status;
            wire::Reader in = readData(rsp);
            uint16_t nextId = in.u16();
            wire::View bytes = in.bytes(piece);
            if (!in.ok()) return LIBIPMI_STATUS_BAD_RESPONSE;
            *next = nextId;
            std::memcpy(record + offset, bytes.data(), piece);
            offset += piece;
        }
        if (!lost) return LIBIPMI_STATUS_OK;
    }
    return LIBIPMI_STATUS_RETRIES_EXHAUSTED;
}

// The bytes of SelInfo an answer must carry for a field to be read from it.
constexpr std::size_t kThroughEntries = offsetof(SelInfo, entries) + sizeof(SelInfo::entries);
constexpr std::size_t kThroughFreeSpace = offsetof(SelInfo, freeSpace) + sizeof(SelInfo::freeSpace);

} // namespace
} // namespace libipmi

using namespace libipmi;

extern "C" uint16_t IPMICMD_GetSELInfo(IpmiSession *s, SelInfo *res, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        return recordCommand(s, netfn::kStorage, storage::kGetSelInfo, {}, res, sizeof(SelInfo), timeout);
    });
}

extern "C" uint16_t LIBIPMI_HL_GetNumOfSELEntries(IpmiSession *s, uint16_t *count, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!count) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        SelInfo info;
        std::memset(&info, 0, sizeof info);
        // The entry count is all this needs.
        uint16_t status = recordCommand(s, netfn::kStorage, storage::kGetSelInfo, {}, &info, kThroughEntries, timeout);
        if (status != 0) return status;
        *count = info.entries;
        if (SessionData *d = dataFor(s)) d->selCount = info.entries;
        return LIBIPMI_STATUS_OK;
    });
}

extern "C" uint16_t LIBIPMI_HL_GetMaxPossibleSELEntries(IpmiSession *s, uint16_t *max, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!max) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        std::vector<uint8_t> rsp;
        uint16_t status = exchange(s, netfn::kStorage, storage::kGetSelAllocInfo, {}, rsp, timeout);
        if (status == 0) {
            wire::Reader in = readData(rsp);
            uint32_t units = in.u16();
            uint32_t unitSize = in.u16();
            if (!in.ok()) return LIBIPMI_STATUS_BAD_RESPONSE;
            // Possible allocation units x unit size, in 16-byte records (a unit size of 0 means
            // "unspecified": count one record per unit).
            uint32_t records = unitSize ? units * unitSize / kRecordSize : units;
            *max = static_cast<uint16_t>(records > 0xFFFF ? 0xFFFF : records);
            return LIBIPMI_STATUS_OK;
        }
        if (status != LIBIPMI_STATUS_COMPLETION_CODE(cc::kInvalidCommand)) return status;
        // Without allocation information: the entries there are plus those that still fit.
        SelInfo info;
        std::memset(&info, 0, sizeof info);
        status = recordCommand(s, netfn::kStorage, storage::kGetSelInfo, {}, &info, kThroughFreeSpace, timeout);
        if (status != 0) return status;
        uint32_t records = info.entries + info.freeSpace / kRecordSize;
        *max = static_cast<uint16_t>(records > 0xFFFF ? 0xFFFF : records);
        return LIBIPMI_STATUS_OK;
    });
}

// Reads the log from its first record along the next-record IDs. The caller's array holds as
// many records as the last count reported on this session; without such a count there is no
// safe capacity and nothing is read.
extern "C" uint16_t LIBIPMI_HL_GetAllSELEntries(IpmiSession *s, SelRecord *records, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!records) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        SessionData *d = dataFor(s);
        if (!d) return LIBIPMI_STATUS_NO_SESSION;
        if (!d->selCount) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        const uint16_t capacity = *d->selCount;
        uint16_t id = kFirstRecord;
        for (uint16_t stored = 0; stored < capacity; ++stored) {
            // Whole records in one request need no reservation (ID 0).
            std::vector<uint8_t> rsp;
            uint16_t status =
                exchange(s, netfn::kStorage, storage::kGetSelEntry, getEntryRequest(0, id, 0, 0xFF), rsp, timeout);
            uint16_t next = kLastRecord;
            if (status == LIBIPMI_STATUS_COMPLETION_CODE(cc::kCannotReturnBytes)) {
                status = readInPieces(s, id, records[stored].bytes, &next, timeout);
                if (status != 0) return status;
            } else if (status == LIBIPMI_STATUS_COMPLETION_CODE(cc::kNotPresent) && stored == 0) {
                return LIBIPMI_STATUS_OK; // the log was emptied since it was counted
            } else if (status != 0) {
                return status;
            } else {
                wire::Reader in = readData(rsp);
                next = in.u16();
                wire::View record = in.bytes(kRecordSize);
                if (!in.ok()) return LIBIPMI_STATUS_BAD_RESPONSE;
                std::memcpy(records[stored].bytes, record.data(), kRecordSize);
            }
            if (next == kLastRecord) break;
            id = next;
        }
        return LIBIPMI_STATUS_OK;
    });
}

extern "C" uint16_t IPMICMD_AddSELEntry(IpmiSession *s, SelRecord *req, SelAddResponse *res, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!req) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        return recordCommand(s, netfn::kStorage, storage::kAddSelEntry, std::span<const uint8_t>(req->bytes, kRecordSize), res,
                             sizeof(SelAddResponse), timeout);
    });
}
