// What the hardware-monitoring agent publishes for the machine's sensors: every sensor getter
// of the library for every sensor it applies to, called as the agent calls them (one call
// per value, each with a session of its own). Shared by `tvxctl agent sensors` and the
// benchmarks, so both run exactly the same pass.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tvx_toipmi.h"

namespace tvxctl {

enum class SensorClass { Temperature, Fan, Voltage, Current, PowerSupply, Other };

// A sensor the agent publishes: a full sensor record, or a power supply's status sensor.
struct AgentSensor {
    SensorClass kind;
    std::string name;
    uint8_t number = 0;
    uint8_t sensorType = 0;
    uint8_t eventReadingType = 0;
    uint8_t ordinal = 0; // power supplies: 1 for the first status sensor, ...
    std::string unit;    // of the value getter's result
};

// One getter as the agent calls it for a sensor.
struct AgentGetter {
    const char *call;  // the function and its arguments, e.g. "getVoltThresholds(n, type, info, 1)"
    const char *label; // what the value is, for people: "upper critical (mV)"
    int (*run)(const AgentSensor &, SDRInfo *);
};

// The published sensors, in SDR cache order.
std::vector<AgentSensor> agentSensors(SDRInfo *info);
// The getters the agent calls for a sensor of that class: the status getter first, then the
// value getter, then the others.
std::span<const AgentGetter> agentGetters(SensorClass kind);
const char *className(SensorClass kind);

// What a status code means for a sensor of that class.
std::string statusMeaning(const AgentSensor &sensor, int code);

} // namespace tvxctl
