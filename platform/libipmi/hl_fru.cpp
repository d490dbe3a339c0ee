// FRU inventory: LIBIPMI_HL_GetFRUData reads one FRU device and decodes its common header and
// its internal-use, chassis, board and product areas into the caller's FruData.
//
// Reading:
//  - Get FRU Inventory Area Info gives the size in bytes and the access type. A device
//    accessed by words (bit 0) takes offsets and counts in words and answers its count in
//    words; the reader then asks for whole words, at most 127 at a time.
//  - Only what is decoded is read: the 8-byte common header, up to 8 bytes of the
//    internal-use area, and for each other area its first two bytes (format version and
//    length), then the area itself. Nothing is asked for past the inventory area's end.
//  - Read FRU Data starts with 255 bytes. A read refused as too long (0xCA, or 0xC8) is
//    retried a quarter smaller until one works; after that the size tried is the midpoint
//    between the largest that worked and the smallest refused, so the reader settles on the
//    largest read the controller takes. An answer shorter than asked makes that size the
//    limit. A refused read of one byte (one word) fails with its completion code.
//  - At most kMaxRequests Read FRU Data requests per call (LIBIPMI_STATUS_RETRIES_EXHAUSTED
//    after that), so a controller answering a byte at a time cannot keep a caller forever.
//  - Only bytes that arrived are used: the answer's count, the bytes present and the bytes
//    asked for bound each other. An answer that carries no byte is
//    LIBIPMI_STATUS_BAD_RESPONSE.
//  - A failed request (no answer, a completion code other than those above) fails the call
//    with its status; nothing is written to the caller's record or length then.
//
// Decoding:
//  - The common header must have a zero checksum and format version 1 (bits 3:0), else
//    LIBIPMI_STATUS_BAD_RESPONSE: without it, no offset can be trusted.
//  - Record bytes 0-7 are the common header bytes as they stand in the FRU. The offsets stay
//    in the FRU's units of 8 bytes (an area at byte 2040 would not fit a byte otherwise); the
//    contract calls them "offsets in bytes (multiples of 8)", and what callers rely on, 0
//    meaning "no such area", holds alike.
//  - An area that cannot be trusted is left out, and its offset byte in the record is set to
//    0, while the other areas are still decoded: one damaged area must not hide the serial
//    numbers of the others, and a caller that tests the offset must not take a missing area
//    for an empty one. An area cannot be trusted when it starts or ends past the inventory
//    area, has length 0, a format version other than 1, a non-zero checksum, a field
//    running past its checksum byte, or no end-of-fields marker (0xC1).
//  - Fields: the mandatory ones in order, then custom fields up to the end marker (at most
//    255 kept, the count being one byte). A mandatory field the area ends before is absent
//    (type/length 0, text NULL). Texts by type code: binary as lower-case hex digits, as
//    ipmitool prints them; BCD plus as digits, space, '-', '.' (reserved codes as ':', ',',
//    '_'; high nibble first); 6-bit packed ASCII (four characters in three bytes, the first
//    in the low bits); 8-bit as the bytes stand (ASCII or Latin-1, whatever the language
//    code; a NUL ends the text). BCD plus and 6-bit texts lose trailing spaces, which pad
//    their last byte.
//  - The internal-use bytes are copied as they stand (format version first), at most 8 and
//    never past the next area or the end of the inventory area.
//
// Texts and custom-field arrays come from malloc and belong to the session: they stay valid
// until LIBIPMI_CloseSession, which frees them, however often the session reads FRU data.
#include <array>
#include <cstring>

#include "command.h"
#include "internal.h"
#include "tvx/records.h"
#include "tvx/text.h"

namespace libipmi {
namespace {

namespace fru = tvx::fru;
namespace storage = tvx::cmd::storage;
constexpr int kMaxRequests = 1024;
constexpr std::size_t kMaxCustomFields = 0xFF;

bool tooLong(const Reply &r)
{
    return r.completionCode(cc::kCannotReturnBytes) || r.completionCode(cc::kRequestLengthExceeded);
}

// The inventory area as read so far: which bytes have arrived, and the reads to get more.
class FruReader {
public:
    FruReader(IpmiSession *session, uint8_t id, int timeout, std::size_t size, bool words)
        : session_(session), id_(id), timeout_(timeout), unit_(words ? 2 : 1), image_(size, 0), have_(size, 0)
    {
    }

    std::size_t size() const { return image_.size(); }
    const std::vector<uint8_t> &image() const { return image_; }

    // Makes bytes [from, from + count) available, cut at the end of the inventory area.
    uint16_t load(std::size_t from, std::size_t count)
    {
        const std::size_t end = std::min(image_.size(), from + count);
        for (std::size_t pos = from; pos < end;) {
            if (have_[pos]) {
                ++pos;
                continue;
            }
            uint16_t status = readFrom(pos, end);
            if (status != LIBIPMI_STATUS_OK) return status;
        }
        return LIBIPMI_STATUS_OK;
    }

private:
    // One Read FRU Data that brings at least the byte at `pos` (retried smaller when refused).
    uint16_t readFrom(std::size_t pos, std::size_t end)
    {
        const std::size_t first = pos / unit_;
        const std::size_t last = (end + unit_ - 1) / unit_; // units up to `end`, rounded up
        for (;;) {
            if (requests_ >= kMaxRequests) return LIBIPMI_STATUS_RETRIES_EXHAUSTED;
            ++requests_;
            const std::size_t want = std::min(last - first, chunkToTry());
            std::array<uint8_t, 4> req;
            wire::Writer(req).u8(id_).u16(static_cast<uint16_t>(first)).u8(static_cast<uint8_t>(want));
            Reply r = command(session_, netfn::kStorage, storage::kReadFruData, req, timeout_);
            if (tooLong(r)) {
                if (want <= 1) return r.status;
                refused_ = want;
                if (worked_ >= refused_) worked_ = 0; // the controller changed its mind
                continue;
            }
            if (!r.ok()) return r.status;
            // The count the controller states (in units), then the bytes.
            wire::Reader in = r.read();
            const std::size_t count = in.u8();
            const wire::View bytes = in.rest();
            if (!in.ok()) return LIBIPMI_STATUS_BAD_RESPONSE;
            const std::size_t got = std::min({count, want, bytes.size() / unit_});
            if (got == 0) return LIBIPMI_STATUS_BAD_RESPONSE;
            const std::size_t at = first * unit_;
            const std::size_t n = std::min(got * unit_, image_.size() - at);
            std::memcpy(image_.data() + at, bytes.data(), n);
            std::memset(have_.data() + at, 1, n);
            if (got < want) { // the most this controller answers
                worked_ = got;
                refused_ = got + 1;
            } else if (got > worked_) {
                worked_ = got;
            }
            return LIBIPMI_STATUS_OK;
        }
    }

    std::size_t chunkToTry() const
    {
        const std::size_t most = unit_ == 2 ? 127 : 255;
        if (refused_ == 0) return most;
        if (worked_ == 0) return std::max<std::size_t>(1, refused_ - std::max<std::size_t>(1, refused_ / 4));
        return (worked_ + refused_) / 2;
    }

    IpmiSession *session_;
    uint8_t id_;
    int timeout_;
    std::size_t unit_;
    std::vector<uint8_t> image_;
    std::vector<uint8_t> have_;
    int requests_ = 0;
    std::size_t worked_ = 0;  // the largest read (in units) the controller answered whole
    std::size_t refused_ = 0; // the smallest it refused as too long (0: none)
};

// What one call hands out, kept by the session once the call succeeds.
class Texts {
public:
    char *keep(const std::string &text)
    {
        char *p = static_cast<char *>(std::malloc(text.size() + 1));
        if (!p) return nullptr;
        std::memcpy(p, text.c_str(), text.size() + 1);
        blocks_.emplace_back(p);
        return p;
    }
    char **array(std::size_t count)
    {
        auto **p = static_cast<char **>(std::calloc(count, sizeof(char *)));
        if (p) blocks_.emplace_back(p);
        return p;
    }
    bool failed = false;
    std::vector<std::unique_ptr<void, SessionData::FreeBlock>> blocks_;
};

// Decodes the fields of an area from byte `at`: the mandatory ones into `fields`, the rest
// as custom fields. False when the area cannot be trusted.
bool decodeFields(wire::View area, std::size_t at, std::initializer_list<FruField *> fields, char **&custom,
                  uint8_t &customCount, Texts &texts)
{
    // Fields run up to the end marker, which stands before the checksum byte.
    wire::Reader in(area.first(area.size() - 1));
    in.seek(at);
    auto next = fields.begin();
    std::vector<char *> extra;
    for (;;) {
        const uint8_t tl = in.u8();
        if (!in.ok()) return false; // no end marker
        if (tl == fru::area::kEndOfFields) break;
        const wire::View bytes = in.bytes(fru::lengthOf(tl));
        if (!in.ok()) return false; // a field running past the checksum
        char *text = texts.keep(std::string(fru::fieldText(tl, bytes).view()));
        if (!text) texts.failed = true;
        if (next != fields.end()) {
            (*next)->typeLength = tl;
            (*next)->text = text;
            ++next;
        } else if (extra.size() < kMaxCustomFields) {
            extra.push_back(text);
        }
    }
    if (!extra.empty()) {
        custom = texts.array(extra.size());
        if (!custom) {
            texts.failed = true;
            return true;
        }
        std::copy(extra.begin(), extra.end(), custom);
        customCount = static_cast<uint8_t>(extra.size());
    }
    return true;
}

uint8_t checksum(std::span<const uint8_t> b)
{
    unsigned sum = 0;
    for (uint8_t v : b) sum += v;
    return static_cast<uint8_t>(sum);
}

// Reads the area at header offset `units`. `area` stays empty when it cannot be trusted.
uint16_t readArea(FruReader &reader, uint8_t units, std::vector<uint8_t> &area)
{
    area.clear();
    const std::size_t start = static_cast<std::size_t>(units) * fru::kOffsetUnit;
    if (start + fru::kOffsetUnit > reader.size()) return LIBIPMI_STATUS_OK;
    uint16_t status = reader.load(start, fru::area::kLength.end());
    if (status != LIBIPMI_STATUS_OK) return status;
    const wire::View head = wire::View(reader.image()).from(start);
    const std::size_t length = static_cast<std::size_t>(head.get(fru::area::kLength, uint8_t{0})) * fru::kOffsetUnit;
    if (length == 0 || start + length > reader.size() ||
        wire::bits(head.get(fru::area::kVersion, uint8_t{0}), 0, 4) != fru::kVersion1)
        return LIBIPMI_STATUS_OK;
    status = reader.load(start, length);
    if (status != LIBIPMI_STATUS_OK) return status;
    const wire::View bytes = head.first(length);
    if (checksum(bytes.span()) == 0) area.assign(bytes.span().begin(), bytes.span().end());
    return LIBIPMI_STATUS_OK;
}

uint16_t decode(FruReader &reader, FruData &rec, Texts &texts)
{
    uint16_t status = reader.load(0, fru::kHeaderSize);
    if (status != LIBIPMI_STATUS_OK) return status;
    const wire::View header = wire::View(reader.image()).first(fru::kHeaderSize);
    auto headerByte = [&header](wire::U8 field) { return header.get(field, uint8_t{0}); };
    if (checksum(header.span()) != 0 || wire::bits(headerByte(fru::kFormatVersion), 0, 4) != fru::kVersion1)
        return LIBIPMI_STATUS_BAD_RESPONSE;
    std::memcpy(&rec, header.data(), fru::kHeaderSize);

    if (const uint8_t internal = headerByte(fru::kInternalUseOffset)) {
        // At most 8 bytes, never past the next area or the end of the inventory area.
        const std::size_t start = static_cast<std::size_t>(internal) * fru::kOffsetUnit;
        std::size_t end = std::min(reader.size(), start + sizeof rec.internalUse);
        for (wire::U8 other : {fru::kChassisOffset, fru::kBoardOffset, fru::kProductOffset, fru::kMultiRecordOffset}) {
            const std::size_t at = static_cast<std::size_t>(headerByte(other)) * fru::kOffsetUnit;
            if (at != 0 && at > start) end = std::min(end, at);
        }
        if (start < end) {
            status = reader.load(start, end - start);
            if (status != LIBIPMI_STATUS_OK) return status;
            std::memcpy(rec.internalUse, reader.image().data() + start, end - start);
        }
    }

    // Each area present is read and decoded; one that cannot be trusted is left out: its
    // offset cleared, its fields absent.
    std::vector<uint8_t> area;
    auto decodeArea = [&](uint8_t offset, std::size_t firstField, std::initializer_list<FruField *> fields,
                          char **&custom, uint8_t &count) -> uint16_t {
        area.clear();
        custom = nullptr;
        count = 0;
        if (offset == 0) return LIBIPMI_STATUS_OK;
        uint16_t read = readArea(reader, offset, area);
        if (read != LIBIPMI_STATUS_OK) return read;
        if (area.empty() || !decodeFields(wire::View(area), firstField, fields, custom, count, texts)) {
            area.clear();
            for (FruField *f : fields) *f = FruField{0, nullptr};
        }
        return LIBIPMI_STATUS_OK;
    };
    char **custom = nullptr;
    uint8_t count = 0;
    // A field of the area just decoded (an area holds at least 8 bytes).
    auto field = [&area](wire::U8 f) { return wire::View(area).get(f, uint8_t{0}); };

    status = decodeArea(rec.chassisOffset, fru::chassis::kFirstField, {&rec.chassisPartNumber, &rec.chassisSerialNumber},
                        custom, count);
    if (status != LIBIPMI_STATUS_OK) return status;
    if (area.empty()) {
        rec.chassisOffset = 0;
    } else {
        rec.chassisFormatVersion = field(fru::area::kVersion);
        rec.chassisLength = field(fru::area::kLength);
        rec.chassisType = field(fru::chassis::kType);
        rec.chassisCustomFields = custom;
        rec.chassisCustomCount = count;
    }

    status = decodeArea(rec.boardOffset, fru::board::kFirstField,
                        {&rec.boardManufacturer, &rec.boardProductName, &rec.boardSerialNumber, &rec.boardPartNumber,
                         &rec.boardFruFileId},
                        custom, count);
    if (status != LIBIPMI_STATUS_OK) return status;
    if (area.empty()) {
        rec.boardOffset = 0;
    } else {
        rec.boardFormatVersion = field(fru::area::kVersion);
        rec.boardLength = field(fru::area::kLength);
        rec.boardLanguage = field(fru::board::kLanguage);
        std::memcpy(rec.boardMfgDateTime, wire::View(area).get(fru::board::kMfgDateTime).data(),
                    sizeof rec.boardMfgDateTime);
        rec.boardCustomFields = custom;
        rec.boardCustomCount = count;
    }

    status = decodeArea(rec.productOffset, fru::product::kFirstField,
                        {&rec.productManufacturer, &rec.productName, &rec.productPartNumber, &rec.productVersion,
                         &rec.productSerialNumber, &rec.productAssetTag, &rec.productFruFileId},
                        custom, count);
    if (status != LIBIPMI_STATUS_OK) return status;
    if (area.empty()) {
        rec.productOffset = 0;
    } else {
        rec.productFormatVersion = field(fru::area::kVersion);
        rec.productLength = field(fru::area::kLength);
        rec.productLanguage = field(fru::product::kLanguage);
        rec.productCustomFields = custom;
        rec.productCustomCount = count;
    }
    return texts.failed ? LIBIPMI_STATUS_NO_MEMORY : LIBIPMI_STATUS_OK;
}

} // namespace
} // namespace libipmi

using namespace libipmi;

extern "C" uint16_t LIBIPMI_HL_GetFRUData(IpmiSession *s, uint8_t fruDeviceId, uint32_t *length, FruData *record,
                                          int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!s || !dataFor(s)) return LIBIPMI_STATUS_NO_SESSION;
        if (!length || !record) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        const std::array<uint8_t, 1> req{fruDeviceId};
        Reply info = command(s, netfn::kStorage, storage::kGetFruInventoryAreaInfo, req, timeout);
        if (!info.ok()) return info.status;
        // The area's size in bytes, and the access type (bit 0: by words).
        wire::Reader in = info.read();
        const std::size_t size = in.u16();
        const bool words = wire::bits(in.u8(), 0, 1);
        if (!in.ok()) return LIBIPMI_STATUS_BAD_RESPONSE;
        if (size < fru::kHeaderSize) return LIBIPMI_STATUS_BAD_RESPONSE; // no room for a common header
        FruReader reader(s, fruDeviceId, timeout, size, words);
        FruData rec;
        std::memset(&rec, 0, sizeof rec);
        Texts texts;
        uint16_t status = decode(reader, rec, texts);
        if (status != LIBIPMI_STATUS_OK) return status;
        SessionData *d = dataFor(s);
        if (!d) return LIBIPMI_STATUS_NO_SESSION;
        for (auto &b : texts.blocks_) d->fruBlocks.push_back(std::move(b));
        std::memcpy(record, &rec, sizeof rec);
        *length = static_cast<uint32_t>(size);
        return LIBIPMI_STATUS_OK;
    });
}
