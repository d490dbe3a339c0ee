// What the sensor lists and the agent's sensor getters share: a full sensor record taken out
// of the SDR cache, the walk over the cache's records of one sensor type, one sensor reading,
// and the conversions of raw bytes into values.
//
// The records are read where they stand in the cache: a lookup costs no allocation, and every
// field is read through a view bounded by its slot, so a cache of small slots or a record
// that claims more than it holds never makes a read leave the cache.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/records.h"
#include "tvx/wire.h"
#include "tvx_toipmi.h"

namespace tvx::sensor {

using wire::View;

inline constexpr uint8_t kProcessorEntity = 0x03;
inline constexpr uint8_t kReadingUnavailable = 0x20; // Get Sensor Reading flags, bit 5

// The cache's slots: each exactly recordSize bytes, all inside the cache.
inline bool usable(const SDRInfo *info) { return info && info->records && info->count && info->recordSize; }
inline View slotView(const SDRInfo *info, const uint8_t *slot) { return View(slot, info->recordSize); }
inline const uint8_t *slotAt(const SDRInfo *info, uint32_t index)
{
    return info->records + static_cast<size_t>(info->recordSize) * index;
}

// Whether a slot holds a full (or compact) record of that sensor type, the test the cache's
// lookups make.
inline bool isSensorOfType(View slot, uint8_t recordType, uint8_t sensorType)
{
    return slot.get(sdr::kRecordType, uint8_t{0}) == recordType && slot.has(sdr::kSensorType) &&
           slot.get(sdr::kSensorType, uint8_t{0}) == sensorType;
}

// A full sensor record as the lookups hand it on: its slot's first 64 bytes (the largest full
// record). A slot smaller than that is copied, with zeros after it, so that every field and
// the platform's conversion read within the record as they would in a full-sized one.
class FullRecord {
public:
    FullRecord() = default;
    explicit FullRecord(View slot)
    {
        if (slot.size() >= sdr::full::kMaxSize) {
            data_ = slot.data();
            return;
        }
        std::memset(copy_, 0, sizeof copy_);
        if (slot.size()) std::memcpy(copy_, slot.data(), slot.size());
        data_ = copy_;
    }
    FullRecord(const FullRecord &other) { *this = other; }
    FullRecord &operator=(const FullRecord &other)
    {
        if (this == &other) return *this;
        data_ = other.data_;
        if (other.data_ == other.copy_) {
            std::memcpy(copy_, other.copy_, sizeof copy_);
            data_ = copy_;
        }
        return *this;
    }

    View view() const { return View(data_, data_ ? sdr::full::kMaxSize : 0); }
    uint8_t u8(wire::U8 field) const { return view().get(field, uint8_t{0}); }
    uint16_t u16(wire::U16 field) const { return view().get(field, uint16_t{0}); }
    // For the platform's conversion, which reads the record and writes nothing into it.
    uint8_t *bytes() const { return const_cast<uint8_t *>(data_); }

private:
    const uint8_t *data_ = nullptr;
    uint8_t copy_[sdr::full::kMaxSize];
};

// The full record of a sensor type with that sensor number, and its ordinal: the 0-based
// position among the full records of that type, in cache order.
struct Lookup {
    bool anyOfType = false; // the cache holds at least one full record of the type
    bool found = false;
    uint32_t ordinal = 0;
    FullRecord record;
};

// Walks the slots comparing the record type, sensor type and number where they stand (every
// slot is larger than the positions compared, or the cache holds no sensor records).
inline Lookup findFull(const SDRInfo *info, uint8_t sensorType, uint8_t sensorNumber)
{
    Lookup l;
    if (!usable(info) || info->recordSize <= sdr::kSensorType.at) return l;
    const uint8_t *slot = info->records;
    for (uint32_t i = 0; i < info->count; ++i, slot += info->recordSize) {
        if (slot[sdr::kRecordType.at] != sdr::kFullSensor || slot[sdr::kSensorType.at] != sensorType) continue;
        l.anyOfType = true;
        if (slot[sdr::kSensorNumber.at] == sensorNumber) {
            l.found = true;
            l.record = FullRecord(slotView(info, slot));
            return l;
        }
        ++l.ordinal;
    }
    return l;
}

// One Get Sensor Reading through the platform: true when the controller answered with
// completion code 0. Bytes it did not send stay 0.
inline bool readSensor(IpmiSession *session, uint8_t sensorNumber, SensorReadingResponse &rsp)
{
    std::memset(&rsp, 0, sizeof rsp);
    SensorReadingRequest req = {sensorNumber};
    return IPMICMD_GetSensorReading(session, &req, &rsp, kPlatformTimeout) == 0 && rsp.completionCode == 0;
}
inline bool available(const SensorReadingResponse &rsp) { return !(rsp.flags & kReadingUnavailable); }

// A raw byte of a record (a reading, threshold, nominal or limit) in the sensor's unit: the
// record's conversion, or the plain unsigned byte for a processor's sensors, which report
// their values unconverted. 0 when the conversion cannot be applied.
inline float convertedValue(const FullRecord &rec, uint8_t raw)
{
    if (rec.u8(sdr::kEntityId) == kProcessorEntity) return static_cast<float>(raw);
    float value = 0.0f;
    (void)ipmi_convert_reading(rec.bytes(), raw, &value);
    return value;
}

// Truncation toward zero into an int, saturating where a record's factors give values
// beyond it.
inline int truncated(double v)
{
    if (std::isnan(v)) return 0;
    if (v >= 2147483647.0) return 2147483647;
    if (v <= -2147483648.0) return -2147483647 - 1;
    return static_cast<int>(v);
}

// Thousandths of the unit rounded to tens (12.064 V -> 12060): the value times 100 in single
// precision, plus one half in double precision, truncated toward zero, times ten.
inline int voltageScale(float v)
{
    int hundredths = truncated(static_cast<double>(v * 100.0f) + 0.5);
    if (hundredths > 214748364) return 2147483647;
    if (hundredths < -214748364) return -2147483647 - 1;
    return hundredths * 10;
}

// Copies text into a fixed field: at most size characters, zero-padded, not terminated when
// full.
inline void putText(char *field, size_t size, const char *text)
{
    std::memset(field, 0, size);
    for (size_t i = 0; i < size && text[i]; ++i) field[i] = text[i];
}

// Copies a record's ID string into a fixed name field: the bytes from the ID string's
// position up to the first zero byte, at most size of them, never past the end of `record`.
inline void putName(char *field, size_t size, View record, size_t at)
{
    std::memset(field, 0, size);
    View id = record.upTo(at, size);
    for (size_t i = 0; i < id.size() && id.data()[i]; ++i) field[i] = static_cast<char>(id.data()[i]);
}

} // namespace tvx::sensor
