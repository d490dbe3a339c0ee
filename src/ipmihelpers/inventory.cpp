// Chassis and board inventory: texts from the FRU devices the SDR cache locates, read through
// the platform's decoded FRU record; and two single requests, the host agent's connection
// and the controller's EEPROM information.
//
// The decoded record is the platform's packed FruData. Its text pointers are native and
// unaligned, and where they stand depends on the pointer width (on a 32-bit controller the
// record is the 945-byte layout; on a 64-bit host every position after the first pointer
// moves), so every position is taken from the platform's own declaration.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "common/diag.h"
#include "common/raw.h"
#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/inventory.h"
#include "tvx/ipmi.h"
#include "tvx/records.h"
#include "tvx/wire.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;
using tvx::wire::U8;
using tvx::wire::View;

namespace {

constexpr uint8_t kSystemChassis = 0x17;
constexpr uint8_t kSystemBoard = 0x07;

// ---- the platform's decoded FRU record, field by field ------------------------------------

// A native pointer inside the record (unaligned).
struct PointerField {
    std::size_t at;
};
// A decoded text: its type/length byte and the pointer to its text.
struct TextField {
    U8 typeLength;
    PointerField text;
};
// Custom fields: a pointer to an array of text pointers, and their count.
struct CustomFields {
    PointerField array;
    U8 count;
};

constexpr TextField textAt(std::size_t at) { return {U8{at}, PointerField{at + offsetof(FruField, text)}}; }

namespace rec {
constexpr U8 kFormatVersion{offsetof(FruData, formatVersion)};
constexpr U8 kChassisOffset{offsetof(FruData, chassisOffset)};
constexpr U8 kBoardOffset{offsetof(FruData, boardOffset)};
constexpr U8 kProductOffset{offsetof(FruData, productOffset)};
constexpr TextField kChassisPartNumber = textAt(offsetof(FruData, chassisPartNumber));
constexpr TextField kChassisSerialNumber = textAt(offsetof(FruData, chassisSerialNumber));
constexpr CustomFields kChassisCustom{{offsetof(FruData, chassisCustomFields)},
                                      U8{offsetof(FruData, chassisCustomCount)}};
constexpr TextField kBoardManufacturer = textAt(offsetof(FruData, boardManufacturer));
constexpr TextField kBoardProductName = textAt(offsetof(FruData, boardProductName));
constexpr TextField kBoardSerialNumber = textAt(offsetof(FruData, boardSerialNumber));
constexpr TextField kBoardPartNumber = textAt(offsetof(FruData, boardPartNumber));
constexpr CustomFields kBoardCustom{{offsetof(FruData, boardCustomFields)}, U8{offsetof(FruData, boardCustomCount)}};
constexpr TextField kProductManufacturer = textAt(offsetof(FruData, productManufacturer));
constexpr TextField kProductPartNumber = textAt(offsetof(FruData, productPartNumber));
constexpr TextField kProductVersion = textAt(offsetof(FruData, productVersion));
} // namespace rec

// One FRU device's decoded record, zero-filled before the platform fills it.
class FruRecord {
public:
    FruRecord() { std::memset(&data_, 0, sizeof data_); }
    // Reads the device; false when it cannot be read or its format version is neither 1 nor 2.
    bool read(IpmiSession *session, uint8_t deviceId)
    {
        uint32_t length = 0;
        if (LIBIPMI_HL_GetFRUData(session, deviceId, &length, &data_, tvx::kPlatformTimeout) != 0) return false;
        uint8_t version = view().get(rec::kFormatVersion, uint8_t{0});
        return version == 1 || version == 2;
    }
    View view() const { return View(reinterpret_cast<const uint8_t *>(&data_), sizeof data_); }
    bool has(U8 areaOffset) const { return view().get(areaOffset, uint8_t{0}) != 0; }
    uint8_t typeLength(TextField f) const { return view().get(f.typeLength, uint8_t{0}); }
    const char *text(TextField f) const { return static_cast<const char *>(pointer(f.text)); }
    uint8_t customCount(CustomFields f) const { return view().get(f.count, uint8_t{0}); }
    // The first custom field's text; null when the record has none (or no array to hold it).
    const char *firstCustom(CustomFields f) const
    {
        if (customCount(f) == 0) return nullptr;
        auto *array = static_cast<char *const *>(pointer(f.array));
        return array ? array[0] : nullptr;
    }

private:
    const void *pointer(PointerField f) const
    {
        const void *p = nullptr;
        if (view().has(f.at, sizeof p)) std::memcpy(&p, view().data() + f.at, sizeof p);
        return p;
    }
    FruData data_;
};

// The FRU devices to read, in the cache's slot order: FRU Device Locators of the system
// chassis or the system board.
class FruDevices {
public:
    explicit FruDevices(const SDRInfo *info) : info_(info) {}
    bool next(uint8_t &deviceId)
    {
        if (!info_->records || info_->recordSize == 0) return false;
        while (index_ < info_->count) {
            View slot(info_->records + static_cast<std::size_t>(info_->recordSize) * index_++, info_->recordSize);
            if (slot.get(tvx::sdr::kRecordType) != tvx::sdr::kFruDeviceLocator) continue;
            auto entity = slot.get(tvx::sdr::fru_locator::kEntityId);
            if (entity != kSystemChassis && entity != kSystemBoard) continue;
            deviceId = slot.get(tvx::sdr::fru_locator::kFruDeviceId, uint8_t{0});
            return true;
        }
        return false;
    }

private:
    const SDRInfo *info_;
    uint32_t index_ = 0;
};

// ---- copying texts into the caller's record -------------------------------------------------

enum class Copy { Unchanged, Done, NoMemory };

// Puts a zero-filled heap buffer of `size` bytes holding at most size - 1 characters of text
// into field, releasing what it held. On allocation failure the field keeps its old text.
Copy replace(char *&field, const char *text, std::size_t size)
{
    auto *copy = static_cast<char *>(std::calloc(size, 1));
    if (!copy) return Copy::NoMemory;
    std::memcpy(copy, text, strnlen(text, size - 1));
    std::free(field);
    field = copy;
    return Copy::Done;
}

// A text copied whole, unless absent or empty.
Copy copyWhole(char *&field, const char *text)
{
    if (!text || !*text) return Copy::Unchanged;
    return replace(field, text, std::strlen(text) + 1);
}

// A chassis text: as long as its type/length byte says (the whole byte, type bits included),
// or copied whole when that byte is 0.
Copy copySized(char *&field, uint8_t typeLength, const char *text)
{
    if (typeLength == 0) return copyWhole(field, text);
    if (!text) return Copy::Unchanged;
    return replace(field, text, static_cast<std::size_t>(typeLength) + 1);
}

bool ok(Copy c) { return c != Copy::NoMemory; }

void release(char *&field)
{
    std::free(field);
    field = nullptr;
}

} // namespace

extern "C" {

TVX_API int ipmiGetChassisInfo(IpmiSession *session, ChassisInfo *chassisInfo, SDRInfo *sdrInfo)
{
    if (!chassisInfo) {
        TVX_DIAG_ERROR_AT(Unit::Helpers, "chassis info pointer error");
        return 0;
    }
    if (!sdrInfo) {
        TVX_DIAG_ERROR_AT(Unit::Helpers, "sdr info pointer error");
        return 0;
    }
    *chassisInfo = ChassisInfo{};
    if (!session) {
        TVX_DIAG_ERROR_AT(Unit::Helpers, "session is null");
        return 0;
    }
    ChassisInfo &out = *chassisInfo;
    int result = 0;
    FruDevices devices(sdrInfo);
    for (uint8_t id; devices.next(id);) {
        FruRecord fru;
        if (!fru.read(session, id)) continue;
        if (fru.has(rec::kChassisOffset)) {
            static const char kUnknown[] = "Unknown";
            bool copied = ok(replace(out.chassisCustomField, kUnknown, sizeof kUnknown)) &&
                          ok(copySized(out.chassisSerialNumber, fru.typeLength(rec::kChassisSerialNumber),
                                       fru.text(rec::kChassisSerialNumber))) &&
                          ok(copySized(out.chassisPartNumber, fru.typeLength(rec::kChassisPartNumber),
                                       fru.text(rec::kChassisPartNumber)));
            // The first custom field replaces "Unknown" even when it is empty.
            if (const char *custom = fru.firstCustom(rec::kChassisCustom); copied && custom)
                copied = ok(replace(out.chassisCustomField, custom, std::strlen(custom) + 1));
            if (!copied) {
                TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
                continue;
            }
        }
        if (fru.has(rec::kProductOffset)) {
            result = 1;
            bool copied = ok(copyWhole(out.productManufacturer, fru.text(rec::kProductManufacturer))) &&
                          ok(copyWhole(out.productPartNumber, fru.text(rec::kProductPartNumber))) &&
                          ok(copyWhole(out.productVersion, fru.text(rec::kProductVersion)));
            if (!copied) TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        }
    }
    return result;
}

TVX_API void ipmiFreeChassisInfo(ChassisInfo *chassisInfo)
{
    if (!chassisInfo) return;
    release(chassisInfo->productManufacturer);
    release(chassisInfo->productPartNumber);
    release(chassisInfo->productVersion);
    release(chassisInfo->chassisCustomField);
    release(chassisInfo->chassisSerialNumber);
    release(chassisInfo->chassisPartNumber);
}

TVX_API int ipmiGetBoardInfo(IpmiSession *session, BoardInfo *boardInfo, SDRInfo *sdrInfo)
{
    if (!boardInfo) return 0;
    *boardInfo = BoardInfo{};
    if (!session || !sdrInfo) return 0;
    BoardInfo &out = *boardInfo;
    int result = 0;
    FruDevices devices(sdrInfo);
    for (uint8_t id; devices.next(id);) {
        FruRecord fru;
        if (!fru.read(session, id) || !fru.has(rec::kBoardOffset)) continue;
        result = 1;
        bool copied = ok(copyWhole(out.manufacturer, fru.text(rec::kBoardManufacturer))) &&
                      ok(copyWhole(out.partNumber, fru.text(rec::kBoardPartNumber))) &&
                      ok(copyWhole(out.serialNumber, fru.text(rec::kBoardSerialNumber))) &&
                      ok(copyWhole(out.productName, fru.text(rec::kBoardProductName))) &&
                      ok(copyWhole(out.customField, fru.firstCustom(rec::kBoardCustom)));
        if (!copied) TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
    }
    return result;
}

TVX_API void ipmiFreeBoardInfo(BoardInfo *boardInfo)
{
    if (!boardInfo) return;
    release(boardInfo->productName);
    release(boardInfo->customField);
    release(boardInfo->serialNumber);
    release(boardInfo->partNumber);
    release(boardInfo->manufacturer);
}

TVX_API int ipmiOemAgetConnected(IpmiSession *session)
{
    if (!session) return 0;
    const auto request = tvx::oem::request(tvx::inventory::kAgentConnected);
    uint8_t response[tvx::kOemResponseSize];
    uint32_t len = 0;
    if (tvx::sendStated(session, TVX_NETFN_OEM_GROUP, tvx::inventory::kAgentCommand, request.data(), request.size(),
                        response, &len) != 0)
        return 0;
    View payload = View(response, len < sizeof response ? len : sizeof response).from(tvx::oem::kPayload);
    return payload.get(tvx::inventory::kAgentState) == tvx::inventory::kAgentIsConnected ? 1 : 0;
}

TVX_API EEPROMInfo ipmiGetEEPROMInfo(IpmiSession *session, int index)
{
    EEPROMInfo info{};
    if (!session) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Session check failed.");
        return info;
    }
    const auto request = tvx::oem::request(tvx::inventory::kEepromInfo, index & 0xFF);
    tvx::RawAnswer answer;
    tvx::sendRaw(session, TVX_NETFN_OEM_GROUP, tvx::inventory::kEepromCommand, request.data(), request.size(), answer,
                 1);
    if (answer.status != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return info;
    }
    // Only the length decides: the block and nothing more.
    constexpr std::size_t kAnswerSize = tvx::oem::kPayload + tvx::inventory::kEepromBlock.size;
    View received(answer.bytes, answer.length < sizeof answer.bytes ? answer.length : sizeof answer.bytes);
    if (answer.length != kAnswerSize) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to read device id, wrong response size.");
        return info;
    }
    View block = received.from(tvx::oem::kPayload).get(tvx::inventory::kEepromBlock);
    std::memcpy(info.data, block.data(), block.size());
    return info;
}

} // extern "C"
