// The SDR repository: its two information records, and the walk that reads every record
// into the caller's buffer of fixed-size slots.
//
// Allocation info (IPMICMD_GetSDRRepositoryAllocInfo): the controller's answer; from a
// controller without the command (0xC1) one derived from the records (deriveAllocInfo).
//
// The walk (LIBIPMI_HL_GetAllSDRs):
//  - slot size = allocation unit size x maximum record size in units, from Get SDR Repository
//    Allocation Info; the session's last successful answer is reused, so a caller who has
//    just asked for it costs no second request.
//  - Reserve SDR Repository, then Get SDR from record ID 0 along the next-record IDs until
//    0xFFFF. A record is read in one request (offset 0, 0xFF bytes: the whole record) and
//    taken as 5 + its header's length byte; bytes after it are ignored (some controllers
//    append junk). A repository whose records all arrive that way costs one reservation and
//    one Get SDR per record.
//  - A controller that cannot return a whole record (0xCA, or 0xC8) is read in pieces for
//    the rest of the walk: the 5-byte header, then the body in chunks. A chunk it refuses in
//    the same way is shrunk by a quarter (down to kMinChunk bytes, then the walk fails with
//    that completion code); once a size works, later chunks try the midpoint between the
//    largest size that worked and the smallest refused, so the walk settles on the largest
//    chunk the controller takes, and keeps it for the rest of the walk.
//  - Reservation lost (0xC5): reserve again and restart from the first record, at most
//    kMaxRestarts times, then LIBIPMI_STATUS_RETRIES_EXHAUSTED.
//  - The chain is bounded without asking for the record count: a record ID seen twice is a
//    loop (LIBIPMI_STATUS_BAD_RESPONSE), and a chain that goes on after every slot of the
//    buffer is filled does not fit (LIBIPMI_STATUS_BUFFER_TOO_SMALL), so a chain that never
//    ends costs at most one request per slot.
//  - An empty repository (0xCB for the first record) stores nothing and succeeds.
//  - Every slot gets its record and zeros after it; slots after the last record, and any
//    bytes after the last whole slot, are zeroed. Nothing is written past bufferSize. On a
//    failure the buffer's contents are unspecified (but still within bufferSize).
#include <algorithm>
#include <array>
#include <cstring>

#include "command.h"
#include "internal.h"
#include "tvx/records.h"

namespace libipmi {
namespace {

namespace sdr = tvx::sdr;
namespace storage = tvx::cmd::storage;

constexpr uint16_t kFirstRecord = 0x0000;
constexpr uint16_t kLastRecord = 0xFFFF;
constexpr uint8_t kWholeRecord = 0xFF;     // "bytes to read" meaning the entire record
constexpr std::size_t kHeaderSize = sdr::kHeaderSize;
constexpr std::size_t kMaxRecordSize = sdr::kMaxRecordSize;
constexpr uint8_t kMinChunk = 8;           // smallest body chunk tried before giving up
constexpr int kMaxRestarts = 5;            // walks restarted after a lost reservation
constexpr uint16_t kDerivedUnit = 16;      // allocation unit of a derived allocation info

bool tooLong(const Reply &r)
{
    return r.completionCode(cc::kCannotReturnBytes) || r.completionCode(cc::kRequestLengthExceeded);
}

uint16_t reserveSdr(IpmiSession *session, int timeout, uint16_t &reservation)
{
    Reply r = command(session, netfn::kStorage, storage::kReserveSdrRepository, {}, timeout);
    if (!r.ok()) return r.status;
    wire::Reader in = r.read();
    reservation = in.u16();
    return in.ok() ? LIBIPMI_STATUS_OK : LIBIPMI_STATUS_BAD_RESPONSE;
}

Reply getSdr(IpmiSession *session, int timeout, uint16_t reservation, uint16_t id, uint8_t offset, uint8_t count)
{
    std::array<uint8_t, 6> req;
    wire::Writer(req).u16(reservation).u16(id).u8(offset).u8(count);
    return command(session, netfn::kStorage, storage::kGetSdr, req, timeout);
}

// The record IDs a walk has met, to end a next-record chain that loops.
class SeenIds {
public:
    bool seen(uint16_t id) const { return bits_[id / 64] >> (id % 64) & 1u; }
    void mark(uint16_t id) { bits_[id / 64] |= uint64_t{1} << (id % 64); }
    void clear() { bits_.fill(0); }

private:
    std::array<uint64_t, 65536 / 64> bits_{};
};

// Allocation information derived from the records themselves, for a controller without Get
// SDR Repository Allocation Info (an optional command; 0xC1): every record's header is read
// (Get SDR, 5 bytes from offset 0) along the next-record chain, and the slot is the longest
// record rounded up to kDerivedUnit-byte units (one unit for an empty repository). The units
// the records take stand in numAllocUnits; free space is not known and reads as 0.
uint16_t deriveAllocInfo(IpmiSession *session, SdrRepositoryAllocInfo *res, int timeout)
{
    auto seen = std::make_unique<SeenIds>();
    for (int restarts = 0; restarts <= kMaxRestarts; ++restarts) {
        uint16_t reservation = 0;
        uint16_t status = reserveSdr(session, timeout, reservation);
        if (status != LIBIPMI_STATUS_OK) return status;
        seen->clear();
        std::size_t longest = 0, units = 0;
        bool lost = false;
        for (uint16_t id = kFirstRecord; id != kLastRecord && !lost;) {
            if (seen->seen(id)) return LIBIPMI_STATUS_BAD_RESPONSE;
            seen->mark(id);
            Reply r = getSdr(session, timeout, reservation, id, 0, kHeaderSize);
            if (r.completionCode(cc::kNotPresent) && id == kFirstRecord) break; // an empty repository
            if (r.completionCode(cc::kReservationCancelled)) {
                lost = true;
                continue;
            }
            if (!r.ok()) return r.status;
            wire::Reader in = r.read();
            const uint16_t next = in.u16();
            const wire::View header = in.rest();
            const std::optional<uint8_t> body = header.get(sdr::kLength);
            if (!body) return LIBIPMI_STATUS_BAD_RESPONSE;
            const std::size_t length = kHeaderSize + *body;
            longest = std::max(longest, length);
            units += (length + kDerivedUnit - 1) / kDerivedUnit;
            if (id == kFirstRecord) seen->mark(header.get(sdr::kRecordId, kFirstRecord));
            id = next;
        }
        if (lost) continue;
        SdrRepositoryAllocInfo info{};
        info.completionCode = cc::kOk;
        info.allocUnitSize = kDerivedUnit;
        info.numAllocUnits = static_cast<uint16_t>(std::min<std::size_t>(units, 0xFFFE));
        info.maxRecordSize = static_cast<uint8_t>(std::max<std::size_t>(1, (longest + kDerivedUnit - 1) / kDerivedUnit));
        *res = info;
        return LIBIPMI_STATUS_OK;
    }
    return LIBIPMI_STATUS_RETRIES_EXHAUSTED;
}

uint16_t getAllocInfo(IpmiSession *session, SdrRepositoryAllocInfo *res, int timeout)
{
    Reply r = command(session, netfn::kStorage, storage::kGetSdrRepositoryAllocInfo, {}, timeout);
    uint16_t status = r.completionCode(cc::kInvalidCommand) ? deriveAllocInfo(session, res, timeout)
                                                            : storeReply(r, res, sizeof *res, sizeof *res);
    if (status == LIBIPMI_STATUS_OK) rememberSdrAllocInfo(session, *res);
    else forgetSdrAllocInfo(session);
    return status;
}

// One walk over the repository; restarted by the caller when the reservation is lost.
class SdrWalk {
public:
    SdrWalk(IpmiSession *session, int timeout, uint8_t *buffer, uint32_t bufferSize, uint32_t slotSize)
        : session_(session), timeout_(timeout), buffer_(buffer), bufferSize_(bufferSize), slotSize_(slotSize),
          slots_(bufferSize / slotSize)
    {
    }

    uint16_t run()
    {
        uint16_t status = reserve();
        if (status != LIBIPMI_STATUS_OK) return status;
        seen_.clear();
        uint32_t stored = 0;
        uint16_t id = kFirstRecord;
        while (id != kLastRecord) {
            // More records than slots: stop before asking for one that cannot be stored.
            if (stored == slots_ && stored != 0) return LIBIPMI_STATUS_BUFFER_TOO_SMALL;
            if (seen_.seen(id)) return LIBIPMI_STATUS_BAD_RESPONSE;
            seen_.mark(id);
            uint16_t next = kLastRecord;
            std::size_t length = 0;
            status = readRecord(id, next, length);
            // No first record: the repository is empty.
            if (status == LIBIPMI_STATUS_COMPLETION_CODE(cc::kNotPresent) && stored == 0) break;
            if (status != LIBIPMI_STATUS_OK) return status;
            if (stored == slots_) return LIBIPMI_STATUS_BUFFER_TOO_SMALL;
            // The first record is asked for as "first"; its own ID closes a chain leading back to it.
            if (id == kFirstRecord) seen_.mark(wire::View(record_).get(sdr::kRecordId, kFirstRecord));
            uint8_t *slot = buffer_ + static_cast<std::size_t>(stored) * slotSize_;
            std::memcpy(slot, record_.data(), length);
            std::memset(slot + length, 0, slotSize_ - length);
            ++stored;
            id = next;
        }
        std::size_t used = static_cast<std::size_t>(stored) * slotSize_;
        std::memset(buffer_ + used, 0, bufferSize_ - used);
        return LIBIPMI_STATUS_OK;
    }

private:
    uint16_t reserve() { return reserveSdr(session_, timeout_, reservation_); }

    Reply getSdr(uint16_t id, uint8_t offset, uint8_t count)
    {
        return libipmi::getSdr(session_, timeout_, reservation_, id, offset, count);
    }

    // The answer of a read from offset 0: the next record ID, then the record from its
    // header on (perhaps with junk after it). Sets `length` to the record's length, checked
    // against the slot; the header must have arrived.
    uint16_t readHeader(const Reply &r, uint16_t &next, wire::View &record, std::size_t &length) const
    {
        wire::Reader in = r.read();
        next = in.u16();
        record = in.rest();
        std::optional<uint8_t> body = record.get(sdr::kLength); // the header's last byte
        if (!body) return LIBIPMI_STATUS_BAD_RESPONSE;
        length = kHeaderSize + *body;
        return length <= slotSize_ ? LIBIPMI_STATUS_OK : LIBIPMI_STATUS_BUFFER_TOO_SMALL;
    }

    // Reads record `id` into record_; sets its length and the next record ID.
    uint16_t readRecord(uint16_t id, uint16_t &next, std::size_t &length)
    {
        if (!piecewise_) {
            Reply r = getSdr(id, 0, kWholeRecord);
            if (tooLong(r)) {
                piecewise_ = true;
                return readInPieces(id, next, length);
            }
            if (!r.ok()) return r.status;
            wire::View record;
            uint16_t status = readHeader(r, next, record, length);
            if (status != LIBIPMI_STATUS_OK) return status;
            // Fewer bytes than the header announces: the answer contradicts itself.
            wire::View whole = record.first(length);
            if (whole.size() < length) return LIBIPMI_STATUS_BAD_RESPONSE;
            std::memcpy(record_.data(), whole.data(), length);
            return LIBIPMI_STATUS_OK;
        }
        return readInPieces(id, next, length);
    }

    uint16_t readInPieces(uint16_t id, uint16_t &next, std::size_t &length)
    {
        Reply r = getSdr(id, 0, kHeaderSize);
        if (!r.ok()) return r.status;
        wire::View record;
        uint16_t status = readHeader(r, next, record, length);
        if (status != LIBIPMI_STATUS_OK) return status;
        std::memcpy(record_.data(), record.data(), kHeaderSize);
        std::size_t offset = kHeaderSize;
        while (offset < length) {
            std::size_t want = std::min(length - offset, chunkToTry());
            // The offset is one byte: a chunk that would leave the next one starting past 0xFF
            // stops at 0xFF instead, so the last (at most 5 bytes) can still be addressed.
            if (offset + want < length && offset + want > 0xFF) want = 0xFF - offset;
            if (offset > 0xFF || want == 0) return LIBIPMI_STATUS_BAD_RESPONSE; // cannot happen
            r = getSdr(id, static_cast<uint8_t>(offset), static_cast<uint8_t>(want));
            if (tooLong(r)) {
                if (want <= kMinChunk) return r.status;
                refused_ = static_cast<uint8_t>(want);
                if (worked_ >= refused_) worked_ = 0; // the controller changed its mind
                continue;
            }
            if (!r.ok()) return r.status;
            wire::Reader in = r.read();
            in.u16(); // the next record ID, known from the header's read
            wire::View chunk = in.bytes(want);
            if (!in.ok()) return LIBIPMI_STATUS_BAD_RESPONSE;
            std::memcpy(record_.data() + offset, chunk.data(), want);
            offset += want;
            if (want > worked_) worked_ = static_cast<uint8_t>(want);
        }
        return LIBIPMI_STATUS_OK;
    }

    // The body chunk to ask for next. Nothing refused yet: no limit. Refused but nothing
    // worked since: a quarter less than the refused size, down to kMinChunk. Both known: the
    // midpoint between them, so later chunks close in on the largest size the controller
    // takes; every refusal lowers `refused_`, so the search ends.
    std::size_t chunkToTry() const
    {
        if (refused_ == 0) return kMaxRecordSize;
        if (worked_ == 0) return std::max<std::size_t>(kMinChunk, refused_ - std::max(1, refused_ / 4));
        return (static_cast<std::size_t>(worked_) + refused_) / 2;
    }

    IpmiSession *session_;
    int timeout_;
    uint8_t *buffer_;
    uint32_t bufferSize_;
    uint32_t slotSize_;
    uint32_t slots_;
    uint16_t reservation_ = 0;
    // What the walk learnt about the controller; kept across restarts.
    bool piecewise_ = false;
    uint8_t worked_ = 0;  // the largest body chunk the controller returned (0: none yet)
    uint8_t refused_ = 0; // the smallest body chunk it refused as too long (0: none)
    std::array<uint8_t, kMaxRecordSize> record_{};
    SeenIds seen_;
};

} // namespace
} // namespace libipmi

using namespace libipmi;

extern "C" uint16_t IPMICMD_GetSDRRepositoryAllocInfo(IpmiSession *s, SdrRepositoryAllocInfo *res, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!s) return LIBIPMI_STATUS_NO_SESSION;
        if (!res) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        return getAllocInfo(s, res, timeout);
    });
}

extern "C" uint16_t IPMICMD_GetSDRRepositoryInfo(IpmiSession *s, SdrRepositoryInfo *res, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!s) return LIBIPMI_STATUS_NO_SESSION;
        if (!res) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        Reply r = command(s, netfn::kStorage, storage::kGetSdrRepositoryInfo, {}, timeout);
        return storeReply(r, res, sizeof *res, sizeof *res);
    });
}

extern "C" uint16_t LIBIPMI_HL_GetAllSDRs(IpmiSession *s, uint8_t *buffer, uint32_t bufferSize, int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!s) return LIBIPMI_STATUS_NO_SESSION;
        if (!buffer) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        SdrRepositoryAllocInfo alloc;
        if (std::optional<SdrRepositoryAllocInfo> cached = cachedSdrAllocInfo(s)) {
            alloc = *cached;
        } else {
            uint16_t status = getAllocInfo(s, &alloc, timeout);
            if (status != LIBIPMI_STATUS_OK) return status;
        }
        uint32_t slotSize = static_cast<uint32_t>(alloc.allocUnitSize) * alloc.maxRecordSize;
        // A controller reporting no room for any record gives no slot to store one in.
        if (slotSize == 0) return LIBIPMI_STATUS_BAD_RESPONSE;
        auto walk = std::make_unique<SdrWalk>(s, timeout, buffer, bufferSize, slotSize);
        for (int restarts = 0; restarts <= kMaxRestarts; ++restarts) {
            uint16_t status = walk->run();
            if (status != LIBIPMI_STATUS_COMPLETION_CODE(cc::kReservationCancelled)) return status;
        }
        return LIBIPMI_STATUS_RETRIES_EXHAUSTED;
    });
}
