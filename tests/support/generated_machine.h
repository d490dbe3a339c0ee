// A machine profile with a generated SDR repository, for the tests and benchmarks that need
// a large one: `count` sensors alternating full temperature records and compact fan records,
// with entity instances spread so that lookups have to walk.
#pragma once

#include <fstream>
#include <string>

#include <nlohmann/json.hpp>

namespace tvxtest {

// The default machine with its sensors replaced (machinesDir: the source tree's machines/).
inline nlohmann::json generatedRepository(const std::string &machinesDir, int count)
{
    std::ifstream in(machinesDir + "/default.json");
    nlohmann::json profile = nlohmann::json::parse(in);
    nlohmann::json sensors = nlohmann::json::array();
    for (int i = 0; i < count; ++i) {
        bool full = i % 2 == 0;
        sensors.push_back({{"record", full ? "full" : "compact"},
                           {"number", i % 250},
                           {"lun", i / 250},
                           {"name", "S" + std::to_string(i)},
                           {"entity", full ? 0x03 : 0x1D},
                           {"instance", i % 120},
                           {"type", full ? 0x01 : 0x04},
                           {"event_reading_type", 0x01},
                           {"units", {{"base", full ? 1 : 18}}},
                           {"reading", 40 + i % 10}});
    }
    profile["sensors"] = sensors;
    profile.erase("fru_locators");
    profile.erase("mc_locators");
    profile.erase("components");
    profile.erase("processors"); // their presence sensors are gone
    profile.erase("fan_speed_limits");
    profile["sdr"]["allocation_units"] = 8192;
    return profile;
}

} // namespace tvxtest
