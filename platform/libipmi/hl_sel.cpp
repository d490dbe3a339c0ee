// The system event log operations, on the raw exchange.
#include <cstring>

#include "command.h"
#include "internal.h"

namespace libipmi {
namespace {

constexpr uint8_t kNetFnStorage = 0x0A;
constexpr uint8_t kGetSelInfo = 0x40;
constexpr uint8_t kGetSelAllocInfo = 0x41;
constexpr uint8_t kReserveSel = 0x42;
constexpr uint8_t kGetSelEntry = 0x43;
constexpr uint8_t kAddSelEntry = 0x44;
constexpr size_t kRecordSize = 16;
constexpr uint8_t kCannotReturnBytes = 0xCA;
constexpr uint8_t kReservationCancelled = 0xC5;

// One record read in pieces, for controllers that cannot return 16 data bytes at once.
uint16_t readInPieces(IpmiSession *s, uint16_t id, uint8_t *record, uint16_t *next, int timeout)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::vector<uint8_t> rsp;
        uint16_t status = exchange(s, kNetFnStorage, kReserveSel, {}, rsp, timeout);
        if (status != 0) return status;
        if (rsp.size() < 3) return LIBIPMI_STATUS_BAD_RESPONSE;
        uint16_t reservation = le16(rsp, 1);
        bool lost = false;
        for (size_t offset = 0; offset < kRecordSize && !lost;) {
            uint8_t piece = static_cast<uint8_t>(kRecordSize - offset < 8 ? kRecordSize - offset : 8);
            uint8_t req[6] = {static_cast<uint8_t>(reservation), static_cast<uint8_t>(reservation >> 8),
                              static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(offset),
                              piece};
            status = exchange(s, kNetFnStorage, kGetSelEntry, req, rsp, timeout);
            if (status == LIBIPMI_STATUS_COMPLETION_CODE(kReservationCancelled)) {
                lost = true;
                break;
            }
            if (status != 0) return status;
            if (rsp.size() < 3u + piece) return LIBIPMI_STATUS_BAD_RESPONSE;
            *next = le16(rsp, 1);
            std::memcpy(record + offset, rsp.data() + 3, piece);
            offset += piece;
        }
        if (!lost) return LIBIPMI_STATUS_OK;
    }
    return LIBIPMI_STATUS_RETRIES_EXHAUSTED;
}

} // namespace
} // namespace libipmi

using namespace libipmi;

extern "C" uint16_t IPMICMD_GetSELInfo(IpmiSession *s, SelInfo *res, int timeout)
{
    return recordCommand(s, kNetFnStorage, kGetSelInfo, {}, res, sizeof(SelInfo), timeout);
}

extern "C" uint16_t LIBIPMI_HL_GetNumOfSELEntries(IpmiSession *s, uint16_t *count, int timeout)
{
    if (!count) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    SelInfo info;
    std::memset(&info, 0, sizeof info);
    // The entry count is all this needs: bytes 2-3 after the completion code.
    uint16_t status = recordCommand(s, kNetFnStorage, kGetSelInfo, {}, &info, 4, timeout);
    if (status != 0) return status;
    *count = info.entries;
    if (SessionData *d = dataFor(s)) d->selCount = info.entries;
    return LIBIPMI_STATUS_OK;
}

extern "C" uint16_t LIBIPMI_HL_GetMaxPossibleSELEntries(IpmiSession *s, uint16_t *max, int timeout)
{
    if (!max) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    std::vector<uint8_t> rsp;
    uint16_t status = exchange(s, kNetFnStorage, kGetSelAllocInfo, {}, rsp, timeout);
    if (status == 0) {
        if (rsp.size() < 5) return LIBIPMI_STATUS_BAD_RESPONSE;
        // Possible allocation units x unit size, in 16-byte records (a unit size of 0 means
        // "unspecified": count one record per unit).
        uint32_t units = le16(rsp, 1);
        uint32_t unitSize = le16(rsp, 3);
        uint32_t records = unitSize ? units * unitSize / kRecordSize : units;
        *max = static_cast<uint16_t>(records > 0xFFFF ? 0xFFFF : records);
        return LIBIPMI_STATUS_OK;
    }
    if (status != LIBIPMI_STATUS_COMPLETION_CODE(0xC1)) return status;
    // Without allocation information: the entries there are plus those that still fit.
    SelInfo info;
    std::memset(&info, 0, sizeof info);
    status = recordCommand(s, kNetFnStorage, kGetSelInfo, {}, &info, 6, timeout);
    if (status != 0) return status;
    uint32_t records = info.entries + info.freeSpace / kRecordSize;
    *max = static_cast<uint16_t>(records > 0xFFFF ? 0xFFFF : records);
    return LIBIPMI_STATUS_OK;
}

// Reads the log from its first record along the next-record IDs. The caller's array holds as
// many records as the last count reported on this session; without such a count there is no
// safe capacity and nothing is read.
extern "C" uint16_t LIBIPMI_HL_GetAllSELEntries(IpmiSession *s, SelRecord *records, int timeout)
{
    if (!records) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    SessionData *d = dataFor(s);
    if (!d) return LIBIPMI_STATUS_NO_SESSION;
    if (!d->selCount) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    const uint16_t capacity = *d->selCount;
    uint16_t id = 0x0000;
    for (uint16_t stored = 0; stored < capacity; ++stored) {
        // Whole records in one request need no reservation (ID 0).
        uint8_t req[6] = {0x00, 0x00, static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8), 0x00, 0xFF};
        std::vector<uint8_t> rsp;
        uint16_t status = exchange(s, kNetFnStorage, kGetSelEntry, req, rsp, timeout);
        uint16_t next = 0xFFFF;
        if (status == LIBIPMI_STATUS_COMPLETION_CODE(kCannotReturnBytes)) {
            status = readInPieces(s, id, records[stored].bytes, &next, timeout);
            if (status != 0) return status;
        } else if (status == LIBIPMI_STATUS_COMPLETION_CODE(0xCB) && stored == 0) {
            return LIBIPMI_STATUS_OK; // the log was emptied since it was counted
        } else if (status != 0) {
            return status;
        } else {
            if (rsp.size() < 3 + kRecordSize) return LIBIPMI_STATUS_BAD_RESPONSE;
            next = le16(rsp, 1);
            std::memcpy(records[stored].bytes, rsp.data() + 3, kRecordSize);
        }
        if (next == 0xFFFF) break;
        id = next;
    }
    return LIBIPMI_STATUS_OK;
}

extern "C" uint16_t IPMICMD_AddSELEntry(IpmiSession *s, SelRecord *req, SelAddResponse *res, int timeout)
{
    if (!req) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    return recordCommand(s, kNetFnStorage, kAddSelEntry, std::span<const uint8_t>(req->bytes, kRecordSize), res,
                         sizeof(SelAddResponse), timeout);
}
