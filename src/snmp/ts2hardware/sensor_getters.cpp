// The agent's sensor getters: one value per call for a temperature, fan, voltage, current or
// power-supply sensor of the agent's SDR cache, and the status code of a sensor's reading on
// the agent's scale for its kind. Each getter opens a session of its own and closes it on
// every way out (AgentSession); getSdrSensorStatus works in the caller's session.
#include <bit>
#include <cstdint>

#include "common/sensor_record.h"
#include "common/session_guard.h"
#include "tvx/records.h"
#include "tvx/wire.h"
#include "tvx_toipmi.h"

using tvx::AgentSession;
using tvx::wire::View;
namespace sdr = tvx::sdr;
namespace sensor = tvx::sensor;

namespace {

constexpr uint8_t kThresholdBased = 0x01;  // event/reading type of threshold sensors
constexpr uint8_t kDigitalDiscrete = 0x03; // generic "state deasserted / asserted"
constexpr uint8_t kPerformance = 0x06;     // generic "performance met / lags"
constexpr uint8_t kSeverity = 0x07;        // generic severity transitions
constexpr uint8_t kSensorSpecific = 0x6F;
constexpr uint8_t kPowerSupplyEntity = 0x0A;
constexpr unsigned kNoLevel = 0xFF; // the sensor could not be read (server on), or no state is set

// Configuration-space variables with a value per sensor, indexed by the sensor's ordinal.
constexpr uint16_t kVarCriticalReaction = TVX_VAR_CRITICAL_REACTION;
constexpr uint16_t kVarFanCriticalReaction = TVX_VAR_FAN_CRITICAL_REACTION;
constexpr uint16_t kVarFanFailShutdownDelay = TVX_VAR_FAN_FAIL_SHUTDOWN_DELAY;
constexpr uint16_t kVarTemperatureCriticalReaction = TVX_VAR_TEMPERATURE_CRITICAL_REACTION;
constexpr uint32_t kConfigBufferSize = 255;

// The agent's status codes, one row per kind of sensor, indexed by level: for threshold
// sensors the highest threshold passed (0 none, 1 lower non-critical ... 6 upper
// non-recoverable), for discrete sensors the highest asserted state offset.
enum StatusRow { kTemperatureThreshold, kOtherThreshold, kTemperatureSeverity, kPowerUnit, kVoltageDigital };
constexpr uint8_t kStatusTable[5][8] = {
    {8, 8, 8, 5, 6, 7, 5, 0}, // temperature, threshold
    {3, 7, 4, 4, 5, 5, 5, 0}, // other sensor types, threshold
    {8, 6, 7, 5, 6, 7, 5, 0}, // temperature, severity states
    {3, 4, 4, 4, 2, 5, 4, 5}, // power unit
    {3, 6, 0, 0, 0, 0, 0, 0}, // voltage, digital states
};

// Threshold sensors: 0 when no comparison is set, else 1 + the highest set bit of 0-5.
unsigned thresholdLevel(uint16_t bits) { return static_cast<unsigned>(std::bit_width(bits & 0x3Fu)); }
// Discrete sensors: the highest asserted offset of 0-14, or kNoLevel.
unsigned discreteLevel(uint16_t bits)
{
    unsigned set = bits & 0x7FFFu;
    return set ? static_cast<unsigned>(std::bit_width(set)) - 1 : kNoLevel;
}

int thresholdStatus(uint8_t sensorType, unsigned level)
{
    switch (sensorType) {
    case TVX_SENSOR_TEMPERATURE:
        return level == kNoLevel ? 2 : kStatusTable[kTemperatureThreshold][level];
    case TVX_SENSOR_FAN_STATUS:
        // A fan's own thresholds: running low is a warning, below critical a failure; a fan
        // that cannot be read counts as not there.
        if (level == kNoLevel) return 8;
        if (level == 0) return 3;
        if (level == 1) return 5;
        return level <= 3 ? 4 : 3;
    default:
        return level == kNoLevel ? 2 : kStatusTable[kOtherThreshold][level];
    }
}

int discreteStatus(uint8_t sensorType, uint8_t eventReadingType, uint16_t bits)
{
    const unsigned level = discreteLevel(bits);
    switch (sensorType) {
    case TVX_SENSOR_TEMPERATURE:
        return eventReadingType == kSeverity && level <= 6 ? kStatusTable[kTemperatureSeverity][level] : 1;
    case TVX_SENSOR_FAN_STATUS:
        if (eventReadingType != kDigitalDiscrete && eventReadingType != kPerformance) return 1;
        if (level == 0 || level == kNoLevel) return 3;
        return level == 1 ? 4 : 1;
    case TVX_SENSOR_PSU_STATUS: {
        // The lowest asserted power-supply state of 0-11, as 2 to 13.
        unsigned states = bits & 0x0FFFu;
        return states ? std::countr_zero(states) + 2 : 1;
    }
    case TVX_SENSOR_POWER_UNIT:
        return level <= 7 ? kStatusTable[kPowerUnit][level] : 2;
    case TVX_SENSOR_VOLTAGE:
        if (eventReadingType == kDigitalDiscrete) return level <= 1 ? kStatusTable[kVoltageDigital][level] : 2;
        return eventReadingType == kPerformance ? 4 : 1;
    default:
        return 1;
    }
}

// A sensor's present value on the agent's scale for its type; 0 when it gives no reading.
int presentValue(IpmiSession *session, sensor::FullRecord &rec, uint8_t sensorType)
{
    SensorReadingResponse rsp;
    if (!sensor::readSensor(session, rec.u8(sdr::kSensorNumber), rsp) || !sensor::available(rsp)) return 0;
    float v = sensor::convertedValue(rec, rsp.reading);
    return sensorType == TVX_SENSOR_VOLTAGE ? sensor::voltageScale(v) : sensor::truncated(v);
}

// The ordinal-th (from 1) power supply load record: a full record of sensor type 0x0B,
// threshold-based, of a power supply entity. The count is 8 bits wide.
const uint8_t *loadRecord(SDRInfo *info, uint8_t ordinal)
{
    if (!sensor::usable(info)) return nullptr;
    uint8_t seen = 0;
    const uint8_t *slot = info->records;
    for (uint32_t i = 0; i < info->count; ++i, slot += info->recordSize) {
        View r = sensor::slotView(info, slot);
        if (sensor::isSensorOfType(r, sdr::kFullSensor, TVX_SENSOR_OTHER_UNITS) &&
            r.get(sdr::kEventReadingType, uint8_t{0}) == kThresholdBased &&
            r.get(sdr::kEntityId, uint8_t{0}) == kPowerSupplyEntity && ++seen == ordinal)
            return slot;
    }
    return nullptr;
}

// A variable of the configuration space with one value per sensor; its length, or -1.
int readPerSensor(IpmiSession *session, uint16_t variable, uint32_t ordinal, uint8_t (&value)[kConfigBufferSize])
{
    for (uint8_t &b : value) b = 0;
    return ipmiReadConfigSpaceVariable(session, static_cast<uint8_t>(ordinal), variable, value);
}

} // namespace

extern "C" {

TVX_API int getSdrSensorStatus(IpmiSession *session, uint8_t sensorNumber, uint8_t sensorType, uint8_t eventReadingType)
{
    if (!session) return 1;
    uint16_t bits = 0;
    const bool read = ipmiGetSensorReading(session, sensorNumber, nullptr, &bits) == 1;
    // A sensor without a reading while the server is off is simply not powered.
    if (!read && !ipmiChassisPowerStatus(session)) return 1;
    if (eventReadingType == kThresholdBased) return thresholdStatus(sensorType, read ? thresholdLevel(bits) : kNoLevel);
    return discreteStatus(sensorType, eventReadingType, read ? bits : 0);
}

TVX_API int getCurrentSensorsStatus(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info)
{
    AgentSession s;
    if (!s) return 1;
    sensor::Lookup l = sensor::findFull(info, sensorType, sensorNumber);
    if (!l.found) return 1;
    uint8_t statusType = sensorType;
    if (sensorType == TVX_SENSOR_FAN) {
        // A fan that its status sensor reports as not installed ("Fan not installed", offset
        // 5) is not there, whatever its own reading says; otherwise the fan's thresholds are
        // ranked on the fan status scale.
        const uint8_t *fanStatus = findCompactSdrByEntity(
            l.record.u8(sdr::kEntityId), l.record.u8(sdr::kEntityInstance), TVX_SENSOR_FAN_STATUS, info);
        if (fanStatus) {
            View status = sensor::slotView(info, fanStatus);
            uint16_t bits = 0;
            if (status.get(sdr::kEventReadingType, uint8_t{0}) == kSensorSpecific &&
                ipmiGetSensorReading(s.get(), status.get(sdr::kSensorNumber, uint8_t{0}), nullptr, &bits) == 1 &&
                (bits & 0x20))
                return 8;
        }
        statusType = TVX_SENSOR_FAN_STATUS;
    }
    return getSdrSensorStatus(s.get(), sensorNumber, statusType, l.record.u8(sdr::kEventReadingType)) & 0xFF;
}

TVX_API int getCurrentValue(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info)
{
    AgentSession s;
    if (!s) return 0;
    sensor::Lookup l = sensor::findFull(info, sensorType, sensorNumber);
    return l.found ? presentValue(s.get(), l.record, sensorType) : 0;
}

TVX_API int getCriticalReaction(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info)
{
    AgentSession s;
    if (!s) return 0;
    sensor::Lookup l = sensor::findFull(info, sensorType, sensorNumber);
    if (!l.anyOfType) return 0;
    if (!l.found) return 1;
    const uint16_t variable = sensorType == TVX_SENSOR_TEMPERATURE ? kVarTemperatureCriticalReaction
                              : sensorType == TVX_SENSOR_FAN       ? kVarFanCriticalReaction
                                                                   : kVarCriticalReaction;
    uint8_t value[kConfigBufferSize];
    if (readPerSensor(s.get(), variable, l.ordinal, value) != 1) return 1;
    return value[0] ? 3 : 2;
}

TVX_API int getTemperatureSensorStatus(uint8_t sensorNumber, SDRInfo *info)
{
    return getCurrentSensorsStatus(sensorNumber, TVX_SENSOR_TEMPERATURE, info);
}

TVX_API int getTemperatureCurrentValue(uint8_t sensorNumber, SDRInfo *info)
{
    return getCurrentValue(sensorNumber, TVX_SENSOR_TEMPERATURE, info);
}

TVX_API int getTemperatureThresholdLevel(uint8_t sensorNumber, SDRInfo *info, int32_t which)
{
    AgentSession s;
    if (!s) return 0;
    sensor::Lookup l = sensor::findFull(info, TVX_SENSOR_TEMPERATURE, sensorNumber);
    if (!l.found) return 0;
    // Critical: the upper critical threshold (readable bit 4); warning: the upper
    // non-critical one (bit 3).
    const uint16_t readable = l.record.u16(sdr::kReadingMask);
    if (!(readable & (which ? 0x10 : 0x08))) return 0;
    const uint8_t raw = l.record.u8(which ? sdr::full::kUpperCritical : sdr::full::kUpperNonCritical);
    return sensor::truncated(sensor::convertedValue(l.record, raw));
}

TVX_API int getFanStatus(uint8_t sensorNumber, SDRInfo *info)
{
    return getCurrentSensorsStatus(sensorNumber, TVX_SENSOR_FAN, info);
}

TVX_API int getFanCurrentSpeed(uint8_t sensorNumber, SDRInfo *info)
{
    return getCurrentValue(sensorNumber, TVX_SENSOR_FAN, info);
}

TVX_API int getFanQuality(uint8_t sensorNumber, SDRInfo *info)
{
    AgentSession s;
    if (!s) return 0;
    sensor::Lookup l = sensor::findFull(info, TVX_SENSOR_FAN, sensorNumber);
    if (!l.found) return 0;
    // Only a fan whose status sensor can report prefailure (assertion mask bit 2) has speed
    // limits to ask for.
    const uint8_t *fanStatus = findCompactSdrByEntity(l.record.u8(sdr::kEntityId), l.record.u8(sdr::kEntityInstance),
                                                      TVX_SENSOR_FAN_STATUS, info);
    if (!fanStatus || !(sensor::slotView(info, fanStatus).get(sdr::kAssertionMask, uint16_t{0}) & 0x04)) return 0;
    uint32_t maximum = 0, rated = 0;
    (void)ipmiGetFanMaximumSpeed(s.get(), sensorNumber, &maximum, &rated);
    if (rated == 0) return 0;
    // The quotient in single precision, the percentage in double: 5400 of 6000 gives 89.
    const float share = static_cast<float>(maximum) / static_cast<float>(rated);
    return sensor::truncated(static_cast<double>(share) * 100.0);
}

TVX_API int getFanFailShutdownDelay(uint8_t sensorNumber, SDRInfo *info)
{
    AgentSession s;
    if (!s) return 0;
    sensor::Lookup l = sensor::findFull(info, TVX_SENSOR_FAN, sensorNumber);
    if (!l.anyOfType) return 0;
    if (!l.found) return -1;
    uint8_t value[kConfigBufferSize];
    if (readPerSensor(s.get(), kVarFanFailShutdownDelay, l.ordinal, value) != 2) return -1;
    return tvx::wire::Reader(value, 2).u16();
}

TVX_API int getPowerSupplyStatus(uint8_t sensorNumber, SDRInfo *)
{
    AgentSession s;
    if (!s) return 1;
    return getSdrSensorStatus(s.get(), sensorNumber, TVX_SENSOR_PSU_STATUS, kSensorSpecific);
}

TVX_API int getPowerSupplyLoad(uint8_t ordinal, SDRInfo *info)
{
    AgentSession s;
    if (!s) return 0;
    const uint8_t *load = loadRecord(info, ordinal);
    if (!load) return 0;
    return getCurrentValue(sensor::slotView(info, load).get(sdr::kSensorNumber, uint8_t{0}), TVX_SENSOR_OTHER_UNITS,
                           info);
}

TVX_API int getPowerSupplyNominal(uint8_t statusSensorNumber, uint8_t ordinal, SDRInfo *info)
{
    AgentSession s;
    if (!s) return 0;
    constexpr int kNotPresent = 2; // "Power supply - Not present"
    if (getPowerSupplyStatus(statusSensorNumber, info) == kNotPresent) return 0;
    const uint8_t *load = loadRecord(info, ordinal);
    if (!load) return 0;
    sensor::FullRecord rec(sensor::slotView(info, load));
    return sensor::truncated(sensor::convertedValue(rec, rec.u8(sdr::full::kNormalMaximum)));
}

TVX_API int getNormalMax(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info)
{
    AgentSession s;
    if (!s) return 0;
    sensor::Lookup l = sensor::findFull(info, sensorType, sensorNumber);
    if (!l.found) return 0;
    return sensor::truncated(sensor::convertedValue(l.record, l.record.u8(sdr::full::kNormalMaximum)));
}

TVX_API int getVoltStatus(uint8_t sensorNumber, SDRInfo *info)
{
    return getCurrentSensorsStatus(sensorNumber, TVX_SENSOR_VOLTAGE, info);
}

TVX_API int getVoltCurrentValue(uint8_t sensorNumber, SDRInfo *info)
{
    return getCurrentValue(sensorNumber, TVX_SENSOR_VOLTAGE, info);
}

TVX_API int getVoltNominalValue(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info)
{
    AgentSession s;
    if (!s) return 0;
    sensor::Lookup l = sensor::findFull(info, sensorType, sensorNumber);
    if (!l.found) return 0;
    return sensor::voltageScale(sensor::convertedValue(l.record, l.record.u8(sdr::full::kNominalReading)));
}

TVX_API int getVoltThresholds(uint8_t sensorNumber, uint8_t sensorType, SDRInfo *info, int32_t which)
{
    AgentSession s;
    if (!s) return -1;
    sensor::Lookup l = sensor::findFull(info, sensorType, sensorNumber);
    if (!l.found) return -1;
    // Lower critical: readable bit 1; upper critical: bit 4.
    const uint16_t readable = l.record.u16(sdr::kReadingMask);
    uint8_t raw;
    if (which == 0 && (readable & 0x02)) raw = l.record.u8(sdr::full::kLowerCritical);
    else if (which == 1 && (readable & 0x10)) raw = l.record.u8(sdr::full::kUpperCritical);
    else return 0;
    const float v = sensor::convertedValue(l.record, raw);
    if (v == 4294967296.0f) return -1;
    return sensor::voltageScale(v);
}

} // extern "C"
