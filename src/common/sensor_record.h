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

#include "libipmi.h"
#include "tvx/records.h"
#include "tvx/wire.h"
#include "tvx_toipmi.h"

namespace tvx::sensor {

using wire::View;

inline constexpr int kTimeout = 60;
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
// record; fewer when the slot is smaller), zeros after them and one zero byte more, so the ID
// string always ends. The platform's conversion reads it like the record it was given.
struct FullRecord {
    uint8_t bytes[sdr::full::kMaxSize + 1];

    FullRecord() { std::memset(bytes, 0, sizeof bytes); }
    explicit FullRecord(View slot) : FullRecord()
    {
        std::memcpy(bytes, slot.data(), slot.size() < sdr::full::kMaxSize ? slot.size() : sdr::full::kMaxSize);
    }
    View view() const { return View(bytes, sizeof bytes); }
    uint8_t u8(wire::U8 field) const { return view().get(field, uint8_t{0}); }
    uint16_t u16(wire::U16 field) const { return view().get(field, uint16_t{0}); }
};

// The full record of a sensor type with that sensor number, and its ordinal: the 0-based
// position among the full records of that type, in cache order.
struct Lookup {
    bool anyOfType = false; // the cache holds at least one full record of the type
    bool found = false;
    uint32_t ordinal = 0;
    FullRecord record;
};

inline Lookup findFull(const SDRInfo *info, uint8_t sensorType, uint8_t sensorNumber)
{
    Lookup l;
    if (!usable(info)) return l;
    for (uint32_t i = 0; i < info->count; ++i) {
        View slot = slotView(info, slotAt(info, i));
        if (!isSensorOfType(slot, sdr::kFullSensor, sensorType)) continue;
        if (slot.get(sdr::kSensorNumber, uint8_t{0}) == sensorNumber) {
            l.anyOfType = l.found = true;
            l.record = FullRecord(slot);
            return l;
        }
        l.anyOfType = true;
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
    return IPMICMD_GetSensorReading(session, &req, &rsp, kTimeout) == 0 && rsp.completionCode == 0;
}
inline bool available(const SensorReadingResponse &rsp) { return !(rsp.flags & kReadingUnavailable); }

// A raw byte of a record (a reading, threshold, nominal or limit) in the sensor's unit: the
// record's conversion, or the plain unsigned byte for a processor's sensors, which report
// their values unconverted. 0 when the conversion cannot be applied.
inline float convertedValue(FullRecord &rec, uint8_t raw)
{
    if (rec.u8(sdr::kEntityId) == kProcessorEntity) return static_cast<float>(raw);
    float value = 0.0f;
    (void)ipmi_convert_reading(rec.bytes, raw, &value);
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
