// Records for a hand-made SDR cache: the bytes the lookups, sensor lists and getters read, at
// their named positions, in slots of 64 bytes (or another size).
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "scripted.h"
#include "tvx/records.h"

namespace sdr = tvx::sdr;
using Set = std::vector<std::pair<std::size_t, uint8_t>>; // position, byte

// A sensor record: header, key and body fields, the ID string, then `extra` bytes.
inline Bytes record(uint8_t recordType, uint8_t number, uint8_t sensorType, uint8_t eventType, uint8_t entity,
                    uint8_t instance, const std::string &name, const Set &extra = {})
{
    const bool full = recordType == sdr::kFullSensor;
    const auto &id = full ? sdr::full::kIdString : sdr::compact::kIdString;
    Bytes r(id.at + name.size(), 0);
    const std::pair<tvx::wire::U8, uint8_t> fields[] = {
        {sdr::kRecordType, recordType},
        {sdr::kLength, static_cast<uint8_t>(r.size() - sdr::kHeaderSize)},
        {sdr::kOwnerId, 0x20},
        {sdr::kSensorNumber, number},
        {sdr::kEntityId, entity},
        {sdr::kEntityInstance, instance},
        {sdr::kSensorType, sensorType},
        {sdr::kEventReadingType, eventType},
        {full ? sdr::full::kIdStringType : sdr::compact::kIdStringType, static_cast<uint8_t>(0xC0 | name.size())}};
    tvx::wire::Writer w(r.data(), r.size());
    for (auto [field, value] : fields) w.put(field, value);
    if (full) r[sdr::full::kM.at] = 1;
    std::memcpy(r.data() + id.at, name.data(), name.size());
    for (auto [at, v] : extra) r[at] = v;
    return r;
}
inline Bytes full(uint8_t number, uint8_t type, const std::string &name, const Set &extra = {}, uint8_t entity = 0x07,
                  uint8_t instance = 1)
{
    return record(sdr::kFullSensor, number, type, 0x01, entity, instance, name, extra);
}
inline Bytes compact(uint8_t number, uint8_t type, uint8_t eventType, uint8_t entity, uint8_t instance,
                     const std::string &name, const Set &extra = {})
{
    return record(sdr::kCompactSensor, number, type, eventType, entity, instance, name, extra);
}

// The cache of those records, one per slot, in a buffer of exactly their slots.
struct Cache {
    std::vector<uint8_t> bytes;
    SDRInfo info;
    explicit Cache(const std::vector<Bytes> &records, uint32_t slot = 64)
        : bytes(records.size() * slot), info{slot, bytes.data(), static_cast<uint32_t>(records.size())}
    {
        for (size_t i = 0; i < records.size(); ++i)
            std::copy_n(records[i].begin(), std::min<size_t>(slot, records[i].size()), bytes.begin() + i * slot);
    }
    SDRInfo *get() { return &info; }
    uint8_t *slot(size_t i) { return bytes.data() + i * info.recordSize; }
};

// Get Sensor Reading answers: a threshold sensor's reading and comparison bits, a discrete
// sensor's states, and a refusal.
inline Bytes thresholdAnswer(uint8_t raw, uint8_t bits = 0)
{
    return {0x00, raw, 0xC0, static_cast<uint8_t>(0xC0 | bits)};
}
inline Bytes discreteAnswer(uint16_t states)
{
    return {0x00, 0x00, 0xC0, static_cast<uint8_t>(states), static_cast<uint8_t>(0x80 | states >> 8)};
}
inline const Bytes kUnavailable = {0x00, 0x00, 0xE0, 0xC0};
inline void expectReading(uint8_t number, const Bytes &answer) { expect(0x10, 0x2D, {number}, answer); }
inline void expectNoReading(uint8_t number) { expect(0x10, 0x2D, {number}, {0xCB}, 0x01CB); }
inline void expectPower(bool on) { expect(0x00, 0x01, {}, {0x00, static_cast<uint8_t>(on ? 0x01 : 0x00), 0x00, 0x00}); }
