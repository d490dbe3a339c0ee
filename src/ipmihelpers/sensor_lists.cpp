// The sensor lists: tables of fans, of temperature, voltage or current sensors, of discrete
// sensors and of every sensor's identity, built from the SDR cache and the sensors' present
// readings; and the vendor's query of a fan's speed limits.
#include <cstdlib>
#include <cstring>

#include "common/diag.h"
#include "common/sensor_record.h"
#include "tvx/ipmi.h"
#include "tvx/records.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;
using tvx::wire::View;
namespace sdr = tvx::sdr;
namespace sensor = tvx::sensor;

namespace {

// The vendor's fan speed limits: OEM command 0xF5, sub-function 0x33, then the fan number.
// The answer carries two little-endian numbers of equal width after the IANA number.
constexpr uint8_t kOemVendorCommand = 0xF5;
constexpr uint8_t kFanSpeedLimits = 0x33;
constexpr uint32_t kFanSpeedAnswerSize = 16;

// The status of an entry whose sensor gave no reading: whether the server is on.
const char *powerText(IpmiSession *session) { return ipmiChassisPowerStatus(session) ? "N/A" : "Power Off"; }

// On a partitioned system only the records that this partition's board owns are listed. The
// question is asked once per list, and only when a record comes up for it.
class PartitionFilter {
public:
    explicit PartitionFilter(IpmiSession *session) : session_(session) {}
    bool passes(View slot)
    {
        if (partitioned_ < 0) {
            partitioned_ = ipmiIsKVSystem(session_) ? 1 : 0;
            if (partitioned_) owner_ = ipmiGetSbSlaveAddr(session_);
        }
        return !partitioned_ || slot.get(sdr::kOwnerId, uint8_t{0}) == owner_;
    }

private:
    IpmiSession *session_;
    int partitioned_ = -1;
    int owner_ = 0;
};

// Calls f(record) for every full record of the sensor type, in cache order, until f returns
// false.
template <typename F> void forEachFull(const SDRInfo *info, uint8_t sensorType, F &&f)
{
    if (!sensor::usable(info)) return;
    for (uint32_t i = 0; i < info->count; ++i) {
        View slot = sensor::slotView(info, sensor::slotAt(info, i));
        if (!sensor::isSensorOfType(slot, sdr::kFullSensor, sensorType)) continue;
        sensor::FullRecord record(slot);
        if (!f(slot, record)) return;
    }
}

bool anyFull(const SDRInfo *info, uint8_t sensorType)
{
    bool any = false;
    forEachFull(info, sensorType, [&](View, sensor::FullRecord &) {
        any = true;
        return false;
    });
    return any;
}

// A zero-filled working entry, or nullptr after the allocation diagnostic naming `function`.
template <typename Entry> Entry *newEntry(int line, const char *function)
{
    Entry *e = static_cast<Entry *>(std::calloc(1, sizeof(Entry)));
    if (!e) tvx::diag::located(Unit::Helpers, line, function, "Filed to allocate memory.");
    return e;
}

// Appends a copy of the working entry and releases it; false when the copy was not appended.
template <typename Entry> bool appendEntry(ListNode **list, Entry *e)
{
    bool ok = addToList(list, e, sizeof *e) == 1;
    std::free(e);
    return ok;
}

// The first asserted state of a discrete sensor that answers with a reading, or nullptr.
const char *stateOf(IpmiSession *session, View record, int32_t *offset = nullptr)
{
    SensorReadingResponse rsp;
    if (!sensor::readSensor(session, record.get(sdr::kSensorNumber, uint8_t{0}), rsp) || !sensor::available(rsp))
        return nullptr;
    return ipmiGetDiscreteState(record.get(sdr::kSensorType, uint8_t{0}),
                                record.get(sdr::kEventReadingType, uint8_t{0}), rsp.state0_7, rsp.state8_14, offset);
}

uint32_t appendCommon(ListNode **list, const SDRInfo *info, uint8_t recordType, size_t nameAt)
{
    uint32_t appended = 0;
    for (uint32_t i = 0; i < info->count; ++i) {
        View slot = sensor::slotView(info, sensor::slotAt(info, i));
        if (slot.get(sdr::kRecordType, uint8_t{0}) != recordType) continue;
        CommonSensorEntry *e = newEntry<CommonSensorEntry>(__LINE__, "ipmiGetCommonSensors");
        if (!e) break;
        sensor::putName(e->name, sizeof e->name, slot, nameAt);
        e->sensorNumber = slot.get(sdr::kSensorNumber, uint8_t{0});
        e->sensorType = slot.get(sdr::kSensorType, uint8_t{0});
        e->eventReadingType = slot.get(sdr::kEventReadingType, uint8_t{0});
        e->entityId = slot.get(sdr::kEntityId, uint8_t{0});
        e->entityInstance = slot.get(sdr::kEntityInstance, uint8_t{0});
        if (!appendEntry(list, e)) break;
        ++appended;
    }
    return appended;
}

} // namespace

extern "C" {

TVX_API uint8_t ipmiGetFanSensors(IpmiSession *session, ListNode **list, SDRInfo *info)
{
    if (!anyFull(info, TVX_SENSOR_FAN) || !session) return 0;
    uint8_t count = 0;
    forEachFull(info, TVX_SENSOR_FAN, [&](View, sensor::FullRecord &rec) {
        FanSensorEntry *e = newEntry<FanSensorEntry>(__LINE__, "ipmiGetFanSensors");
        if (!e) return false;
        sensor::putName(e->name, sizeof e->name, rec.view(), sdr::full::kIdString.at);
        sensor::putText(e->status, sizeof e->status, powerText(session));
        e->sensorNumber = rec.u8(sdr::kSensorNumber);
        e->index = count;
        SensorReadingResponse rsp;
        if (sensor::readSensor(session, e->sensorNumber, rsp)) {
            // A reading flagged unavailable carries no value: the entry keeps 0.
            if (sensor::available(rsp)) (void)ipmi_convert_reading(rec.bytes(), rsp.reading, &e->reading);
            const uint8_t *statusRecord = findCompactSdrByEntity(rec.u8(sdr::kEntityId), rec.u8(sdr::kEntityInstance),
                                                                 TVX_SENSOR_FAN_STATUS, info);
            if (statusRecord) {
                View status = sensor::slotView(info, statusRecord);
                e->eventMask = status.get(sdr::kAssertionMask, uint16_t{0});
                if (const char *state = stateOf(session, status)) sensor::putText(e->status, sizeof e->status, state);
            }
        }
        if (!appendEntry(list, e)) return false;
        ++count;
        return true;
    });
    return count;
}

TVX_API uint8_t ipmiGetTVCSensors(IpmiSession *session, ListNode **list, uint8_t sensorType, SDRInfo *info)
{
    if (sensorType < TVX_SENSOR_TEMPERATURE || sensorType > TVX_SENSOR_CURRENT) return 0;
    if (!anyFull(info, sensorType) || !session) return 0;
    PartitionFilter partition(session);
    uint8_t count = 0;
    forEachFull(info, sensorType, [&](View slot, sensor::FullRecord &rec) {
        if (!partition.passes(slot)) return true;
        ThresholdSensorEntry *e = newEntry<ThresholdSensorEntry>(__LINE__, "ipmiGetTVCSensors");
        if (!e) return false;
        sensor::putName(e->name, sizeof e->name, rec.view(), sdr::full::kIdString.at);
        sensor::putText(e->status, sizeof e->status, powerText(session));
        // The readable thresholds: bit 0 lower non-critical, 1 lower critical, 3 upper
        // non-critical, 4 upper critical. A processor's sensors report only upper thresholds,
        // as plain bytes; the non-recoverable ones are not listed.
        const uint16_t readable = rec.u16(sdr::kReadingMask);
        const bool processor = rec.u8(sdr::kEntityId) == sensor::kProcessorEntity;
        if (!processor && (readable & 0x01))
            e->lowerNonCritical = sensor::convertedValue(rec, rec.u8(sdr::full::kLowerNonCritical));
        if (!processor && (readable & 0x02))
            e->lowerCritical = sensor::convertedValue(rec, rec.u8(sdr::full::kLowerCritical));
        if (readable & 0x08) e->upperNonCritical = sensor::convertedValue(rec, rec.u8(sdr::full::kUpperNonCritical));
        if (readable & 0x10) e->upperCritical = sensor::convertedValue(rec, rec.u8(sdr::full::kUpperCritical));
        sensor::putText(e->unit, sizeof e->unit, getUnitDesc(rec.u8(sdr::kBaseUnit)));
        SensorReadingResponse rsp;
        if (sensor::readSensor(session, rec.u8(sdr::kSensorNumber), rsp) && sensor::available(rsp)) {
            e->reading = sensor::convertedValue(rec, rsp.reading);
            sensor::putText(e->status, sizeof e->status, ipmiSdrGetStatus(rsp.state0_7));
        }
        if (!appendEntry(list, e)) return false;
        ++count;
        return true;
    });
    return count;
}

TVX_API int ipmiGetTemperatureSensors(IpmiSession *session, ListNode **list, SDRInfo *info)
{
    return session ? ipmiGetTVCSensors(session, list, TVX_SENSOR_TEMPERATURE, info) : -1;
}

TVX_API int ipmiGetVoltageSensors(IpmiSession *session, ListNode **list, SDRInfo *info)
{
    return session ? ipmiGetTVCSensors(session, list, TVX_SENSOR_VOLTAGE, info) : -1;
}

TVX_API int ipmiGetCurrentSensors(IpmiSession *session, ListNode **list, SDRInfo *info)
{
    return session ? ipmiGetTVCSensors(session, list, TVX_SENSOR_CURRENT, info) : -1;
}

TVX_API uint8_t ipmiGetDiscreteSensors(IpmiSession *session, ListNode **list, uint8_t sensorType,
                                       uint8_t eventReadingType, uint8_t relatedType, uint32_t, int relatedState,
                                       SDRInfo *info)
{
    // Counted in full, so that a 256th entry cannot pass for an empty list.
    uint32_t count = 0;
    PartitionFilter partition(session);
    for (uint32_t i = 0; sensor::usable(info) && i < info->count; ++i) {
        View slot = sensor::slotView(info, sensor::slotAt(info, i));
        if (!sensor::isSensorOfType(slot, sdr::kCompactSensor, sensorType) ||
            slot.get(sdr::kEventReadingType, uint8_t{0}) != eventReadingType || !partition.passes(slot))
            continue;
        SensorReadingResponse rsp;
        const bool read = sensor::readSensor(session, slot.get(sdr::kSensorNumber, uint8_t{0}), rsp);
        int32_t offset = 0;
        const char *state = read && sensor::available(rsp) ? ipmiGetDiscreteState(sensorType, eventReadingType,
                                                                                  rsp.state0_7, rsp.state8_14, &offset)
                                                           : nullptr;
        DiscreteSensorEntry *e = newEntry<DiscreteSensorEntry>(__LINE__, "ipmiGetDiscreteSensors");
        if (!e) break;
        e->sensorNumber = slot.get(sdr::kSensorNumber, uint8_t{0});
        e->sensorType = sensorType;
        e->eventReadingType = eventReadingType;
        if (read) {
            e->state0_7 = rsp.state0_7;
            e->state8_14 = rsp.state8_14;
        }
        e->stateOffset = offset;
        sensor::putText(e->state, sizeof e->state, state ? state : powerText(session));
        sensor::putName(e->name, sizeof e->name, slot, sdr::compact::kIdString.at);
        const char *related = nullptr;
        if (relatedState && relatedType) {
            const uint8_t *other = findCompactSdrByEntity(
                slot.get(sdr::kEntityId, uint8_t{0}), slot.get(sdr::kEntityInstance, uint8_t{0}), relatedType, info);
            if (other) related = stateOf(session, sensor::slotView(info, other));
        }
        sensor::putText(e->relatedState, sizeof e->relatedState, related ? related : "N/A");
        if (!appendEntry(list, e)) break;
        ++count;
    }
    if (count == 0) {
        freeList(list);
        return 0;
    }
    return static_cast<uint8_t>(count);
}

TVX_API uint32_t ipmiGetCommonSensors(ListNode **list, SDRInfo *info)
{
    if (!sensor::usable(info)) return 0;
    uint32_t full = appendCommon(list, info, sdr::kFullSensor, sdr::full::kIdString.at);
    return full + appendCommon(list, info, sdr::kCompactSensor, sdr::compact::kIdString.at);
}

TVX_API int ipmiGetFanMaximumSpeed(IpmiSession *session, uint8_t fanNumber, uint32_t *first, uint32_t *second)
{
    if (first) *first = 0;
    if (second) *second = 0;
    auto request = tvx::oem::request(kFanSpeedLimits, fanNumber);
    uint8_t response[kFanSpeedAnswerSize];
    std::memset(response, 0xFF, sizeof response);
    uint32_t len = sizeof response;
    if (!ipmiSendCmd(session, tvx::netfn::lun0(tvx::netfn::kOem), kOemVendorCommand, request.size(), request.data(),
                     &len, response))
        return 0;
    // The buffer as filled: bytes the controller did not send read as 0xFF.
    const View buffer(response, sizeof response);
    if (buffer.get(tvx::kCompletionCode, uint8_t{0xFF}) != tvx::cc::kOk || !tvx::oem::echoesIana(buffer)) return 0;
    // Two numbers of n bytes each fill what arrived after the IANA number; only their four
    // lowest bytes count.
    const View answer = buffer.first(len);
    const size_t n = answer.size() > tvx::oem::kPayload ? (answer.size() - tvx::oem::kPayload) / 2 : 0;
    tvx::wire::Reader payload(answer.from(tvx::oem::kPayload));
    auto low32 = [&](View number) { return tvx::wire::loadLe(number.data(), number.size() < 4 ? number.size() : 4); };
    const uint32_t a = low32(payload.bytes(n)), b = low32(payload.bytes(n));
    if (first) *first = a;
    if (second) *second = b;
    return 1;
}

} // extern "C"
