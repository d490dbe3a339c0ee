#include "agent_pass.h"

#include <map>

#include "tvx/records.h"
#include "tvx/wire.h"

namespace tvxctl {
namespace {

namespace sdr = tvx::sdr;
using tvx::wire::View;

// The record's ID string as 8-bit text (the type/length byte's length, within the record).
std::string idString(View record, const tvx::wire::U8 &typeLength)
{
    const std::size_t length = record.get(typeLength, uint8_t{0}) & 0x1F;
    View bytes = record.upTo(typeLength.end(), length);
    std::string s;
    for (uint8_t c : bytes.span()) {
        if (c == 0) break;
        s += static_cast<char>(c);
    }
    return s;
}

std::string unitOf(View record)
{
    constexpr uint8_t kPercentage = 0x01; // sensor units 1, bit 0
    if (record.get(sdr::kUnits1, uint8_t{0}) & kPercentage) return "%";
    return getUnitDesc(record.get(sdr::kBaseUnit, uint8_t{0}));
}

using S = const AgentSensor &;

constexpr AgentGetter kTemperature[] = {
    {"getTemperatureSensorStatus(n, info)", "status",
     [](S s, SDRInfo *i) { return getTemperatureSensorStatus(s.number, i); }},
    {"getTemperatureCurrentValue(n, info)", "value",
     [](S s, SDRInfo *i) { return getTemperatureCurrentValue(s.number, i); }},
    {"getTemperatureThresholdLevel(n, info, 0)", "warning",
     [](S s, SDRInfo *i) { return getTemperatureThresholdLevel(s.number, i, 0); }},
    {"getTemperatureThresholdLevel(n, info, 1)", "critical",
     [](S s, SDRInfo *i) { return getTemperatureThresholdLevel(s.number, i, 1); }},
    {"getNormalMax(n, 0x01, info)", "normal max",
     [](S s, SDRInfo *i) { return getNormalMax(s.number, s.sensorType, i); }},
    {"getCriticalReaction(n, 0x01, info)", "reaction",
     [](S s, SDRInfo *i) { return getCriticalReaction(s.number, s.sensorType, i); }},
};

constexpr AgentGetter kFan[] = {
    {"getFanStatus(n, info)", "status", [](S s, SDRInfo *i) { return getFanStatus(s.number, i); }},
    {"getFanCurrentSpeed(n, info)", "value", [](S s, SDRInfo *i) { return getFanCurrentSpeed(s.number, i); }},
    {"getFanQuality(n, info)", "quality %", [](S s, SDRInfo *i) { return getFanQuality(s.number, i); }},
    {"getNormalMax(n, 0x04, info)", "normal max",
     [](S s, SDRInfo *i) { return getNormalMax(s.number, s.sensorType, i); }},
    {"getFanFailShutdownDelay(n, info)", "shutdown delay",
     [](S s, SDRInfo *i) { return getFanFailShutdownDelay(s.number, i); }},
    {"getCriticalReaction(n, 0x04, info)", "reaction",
     [](S s, SDRInfo *i) { return getCriticalReaction(s.number, s.sensorType, i); }},
};

constexpr AgentGetter kVoltage[] = {
    {"getVoltStatus(n, info)", "status", [](S s, SDRInfo *i) { return getVoltStatus(s.number, i); }},
    {"getVoltCurrentValue(n, info)", "value", [](S s, SDRInfo *i) { return getVoltCurrentValue(s.number, i); }},
    {"getVoltNominalValue(n, 0x02, info)", "nominal",
     [](S s, SDRInfo *i) { return getVoltNominalValue(s.number, s.sensorType, i); }},
    {"getVoltThresholds(n, 0x02, info, 0)", "lower critical",
     [](S s, SDRInfo *i) { return getVoltThresholds(s.number, s.sensorType, i, 0); }},
    {"getVoltThresholds(n, 0x02, info, 1)", "upper critical",
     [](S s, SDRInfo *i) { return getVoltThresholds(s.number, s.sensorType, i, 1); }},
    {"getNormalMax(n, 0x02, info)", "normal max",
     [](S s, SDRInfo *i) { return getNormalMax(s.number, s.sensorType, i); }},
    {"getCriticalReaction(n, 0x02, info)", "reaction",
     [](S s, SDRInfo *i) { return getCriticalReaction(s.number, s.sensorType, i); }},
};

// Currents: the value in whole units, the nominal reading and thresholds in thousandths
// (the voltage scale applies to whatever sensor type the getters are given).
constexpr AgentGetter kCurrent[] = {
    {"getCurrentSensorsStatus(n, 0x03, info)", "status",
     [](S s, SDRInfo *i) { return getCurrentSensorsStatus(s.number, s.sensorType, i); }},
    {"getCurrentValue(n, 0x03, info)", "value",
     [](S s, SDRInfo *i) { return getCurrentValue(s.number, s.sensorType, i); }},
    {"getVoltNominalValue(n, 0x03, info)", "nominal (1/1000)",
     [](S s, SDRInfo *i) { return getVoltNominalValue(s.number, s.sensorType, i); }},
    {"getVoltThresholds(n, 0x03, info, 0)", "lower critical (1/1000)",
     [](S s, SDRInfo *i) { return getVoltThresholds(s.number, s.sensorType, i, 0); }},
    {"getVoltThresholds(n, 0x03, info, 1)", "upper critical (1/1000)",
     [](S s, SDRInfo *i) { return getVoltThresholds(s.number, s.sensorType, i, 1); }},
    {"getNormalMax(n, 0x03, info)", "normal max",
     [](S s, SDRInfo *i) { return getNormalMax(s.number, s.sensorType, i); }},
    {"getCriticalReaction(n, 0x03, info)", "reaction",
     [](S s, SDRInfo *i) { return getCriticalReaction(s.number, s.sensorType, i); }},
};

constexpr AgentGetter kPowerSupply[] = {
    {"getPowerSupplyStatus(n, info)", "status", [](S s, SDRInfo *i) { return getPowerSupplyStatus(s.number, i); }},
    {"getPowerSupplyLoad(k, info)", "value", [](S s, SDRInfo *i) { return getPowerSupplyLoad(s.ordinal, i); }},
    {"getPowerSupplyNominal(n, k, info)", "load normal max",
     [](S s, SDRInfo *i) { return getPowerSupplyNominal(s.number, s.ordinal, i); }},
};

constexpr AgentGetter kOther[] = {
    {"getCurrentSensorsStatus(n, type, info)", "status",
     [](S s, SDRInfo *i) { return getCurrentSensorsStatus(s.number, s.sensorType, i); }},
    {"getCurrentValue(n, type, info)", "value",
     [](S s, SDRInfo *i) { return getCurrentValue(s.number, s.sensorType, i); }},
    {"getNormalMax(n, type, info)", "normal max",
     [](S s, SDRInfo *i) { return getNormalMax(s.number, s.sensorType, i); }},
    {"getCriticalReaction(n, type, info)", "reaction",
     [](S s, SDRInfo *i) { return getCriticalReaction(s.number, s.sensorType, i); }},
};

} // namespace

const char *className(SensorClass kind)
{
    switch (kind) {
    case SensorClass::Temperature:
        return "temperature";
    case SensorClass::Fan:
        return "fan";
    case SensorClass::Voltage:
        return "voltage";
    case SensorClass::Current:
        return "current";
    case SensorClass::PowerSupply:
        return "power supply";
    default:
        return "other";
    }
}

std::span<const AgentGetter> agentGetters(SensorClass kind)
{
    switch (kind) {
    case SensorClass::Temperature:
        return kTemperature;
    case SensorClass::Fan:
        return kFan;
    case SensorClass::Voltage:
        return kVoltage;
    case SensorClass::Current:
        return kCurrent;
    case SensorClass::PowerSupply:
        return kPowerSupply;
    default:
        return kOther;
    }
}

std::vector<AgentSensor> agentSensors(SDRInfo *info)
{
    std::vector<AgentSensor> out;
    uint8_t supplies = 0;
    for (uint32_t i = 0; info && i < info->count; ++i) {
        const uint8_t *slot = getSdrByIndex(i, info);
        if (!slot) break;
        View r(slot, info->recordSize);
        const uint8_t recordType = r.get(sdr::kRecordType, uint8_t{0});
        AgentSensor s{SensorClass::Other,
                      "",
                      r.get(sdr::kSensorNumber, uint8_t{0}),
                      r.get(sdr::kSensorType, uint8_t{0}),
                      r.get(sdr::kEventReadingType, uint8_t{0}),
                      0,
                      ""};
        if (recordType == sdr::kFullSensor) {
            s.name = idString(r, sdr::full::kIdStringType);
            s.unit = unitOf(r);
            switch (s.sensorType) {
            case TVX_SENSOR_TEMPERATURE:
                s.kind = SensorClass::Temperature;
                break;
            case TVX_SENSOR_FAN:
                s.kind = SensorClass::Fan;
                break;
            case TVX_SENSOR_VOLTAGE:
                s.kind = SensorClass::Voltage, s.unit = "mV";
                break;
            case TVX_SENSOR_CURRENT:
                s.kind = SensorClass::Current;
                break;
            default:
                break;
            }
        } else if (recordType == sdr::kCompactSensor && s.sensorType == TVX_SENSOR_PSU_STATUS) {
            s.name = idString(r, sdr::compact::kIdStringType);
            s.kind = SensorClass::PowerSupply;
            s.ordinal = ++supplies;
            s.unit = "%";
        } else {
            continue;
        }
        out.push_back(std::move(s));
    }
    // A power supply's load is published as a percentage when its load sensors say so.
    std::map<uint8_t, std::string> loadUnits;
    uint8_t loads = 0;
    for (uint32_t i = 0; info && i < info->count; ++i) {
        View r(getSdrByIndex(i, info), info->recordSize);
        if (r.get(sdr::kRecordType, uint8_t{0}) == sdr::kFullSensor &&
            r.get(sdr::kSensorType, uint8_t{0}) == TVX_SENSOR_OTHER_UNITS &&
            r.get(sdr::kEntityId, uint8_t{0}) == 0x0A && r.get(sdr::kEventReadingType, uint8_t{0}) == 0x01)
            loadUnits[++loads] = unitOf(r);
    }
    for (AgentSensor &s : out)
        if (s.kind == SensorClass::PowerSupply) s.unit = loadUnits.count(s.ordinal) ? loadUnits[s.ordinal] : "";
    return out;
}

std::string statusMeaning(const AgentSensor &s, int code)
{
    static const std::map<int, const char *> temperature = {{1, "unknown"}, {2, "not available"}, {5, "failed"},
                                                            {6, "warning"}, {7, "critical"},      {8, "ok"}};
    static const std::map<int, const char *> fan = {
        {1, "unknown"}, {3, "ok"}, {4, "failed"}, {5, "prefailure"}, {8, "not available"}};
    static const std::map<int, const char *> ranged = {{1, "unknown"}, {2, "not available"}, {3, "ok"},
                                                       {4, "too low"}, {5, "too high"},      {6, "out of range"},
                                                       {7, "warning"}};
    static const std::map<int, const char *> powerUnit = {
        {1, "unknown"}, {2, "input lost"}, {3, "ok"}, {4, "failed"}, {5, "degraded"}};
    // The power supply scale follows the supply status sensor's states: code 2 is state 0.
    static const std::map<int, const char *> powerSupply = {{1, "unknown"},
                                                            {2, "not present"},
                                                            {3, "ok"},
                                                            {4, "failed"},
                                                            {5, "AC failed (redundant)"},
                                                            {6, "DC failed (redundant)"},
                                                            {7, "critical temperature"},
                                                            {8, "not manageable"},
                                                            {9, "fan failure predicted"},
                                                            {10, "fan failed"},
                                                            {11, "power save mode"},
                                                            {12, "DC failed"},
                                                            {13, "AC failed"}};
    const std::map<int, const char *> *table = &ranged;
    if (s.kind == SensorClass::PowerSupply) table = &powerSupply;
    else if (s.kind == SensorClass::Temperature) table = &temperature;
    else if (s.kind == SensorClass::Fan) table = &fan;
    else if (s.sensorType == TVX_SENSOR_POWER_UNIT) table = &powerUnit;
    auto it = table->find(code);
    return it == table->end() ? "" : it->second;
}

} // namespace tvxctl
