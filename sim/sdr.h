// The controller's SDR repository and sensors as the machine profile describes them: the
// records (full and compact sensor records, FRU and management controller device locators)
// in their binary form, the sensors' definitions, and the sensors' present values, which
// are the profile's values overlaid by what host-side controls changed in the machine state.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "profile.h"

namespace tvxsim {

class Controller;
struct Context;
struct Request;
class Response;

// Analog data format of a sensor's readings (sensor units 1, bits 7..6).
enum class AnalogFormat : uint8_t { Unsigned = 0, OnesComplement = 1, TwosComplement = 2, None = 3 };

// The six thresholds, numbered as the bits of the threshold masks and of the threshold
// comparison status: lower non-critical, lower critical, lower non-recoverable, upper
// non-critical, upper critical, upper non-recoverable.
enum ThresholdIndex { kLnc = 0, kLc = 1, kLnr = 2, kUnc = 3, kUc = 4, kUnr = 5 };
inline constexpr const char *kThresholdNames[6] = {"lnc", "lc", "lnr", "unc", "uc", "unr"};

// The controller the profile describes sits at this slave address; sensors it owns carry it
// as their owner ID, sensors of satellite controllers their controller's address.
inline constexpr uint8_t kControllerAddress = 0x20;

struct SensorDef {
    std::string pointer; // where the sensor stands in the profile, for messages
    uint8_t owner = kControllerAddress; // the owner ID of its record
    uint8_t lun = 0;     // the owner LUN the sensor answers on
    uint8_t number = 0;
    uint8_t sensorType = 0;
    uint8_t eventType = 0;
    std::string name;
    AnalogFormat format = AnalogFormat::Unsigned;
    std::array<std::optional<uint8_t>, 6> thresholds; // raw bytes, by ThresholdIndex
    uint8_t readableMask = 0;
    uint8_t hysteresisPositive = 0;
    uint8_t hysteresisNegative = 0;
    // Initial values.
    uint8_t reading = 0;
    uint16_t state = 0; // discrete sensors: state bits 0..14
    bool scanning = true;
    bool unavailable = false;
    bool events = true;
    bool poweredByHost = false; // reads "unavailable" while the chassis power is off

    bool thresholdBased() const { return eventType == 0x01; }
};

// What a sensor reads now.
struct SensorNow {
    uint8_t reading = 0;
    uint16_t state = 0;
    bool scanning = true;
    bool unavailable = false;
    bool events = true;
};

struct SdrRecord {
    uint16_t id = 0;
    std::vector<uint8_t> bytes; // the whole record, header included
};

struct RepositoryOptions {
    uint16_t unitSize = 16;        // allocation unit size in bytes
    uint16_t units = 0;            // allocation units in all
    uint8_t maxRecordUnits = 4;    // the largest record, in units
    uint8_t maxReadBytes = 0xFF;   // record bytes one Get SDR answer carries at most
    uint32_t addTimestamp = 0;
    uint32_t eraseTimestamp = 0;
    uint8_t operationSupport = 0x03; // Reserve SDR Repository and allocation info supported
};

struct SdrModel {
    RepositoryOptions options;
    std::vector<SdrRecord> records; // repository order; record IDs 1, 2, ...
    std::vector<SensorDef> sensors;
    std::map<uint32_t, std::size_t> byAddress; // (owner << 16 | lun << 8 | number) -> index in sensors
    uint32_t usedUnits = 0;

    // The sensor of that owner (a controller's slave address), LUN and number, or null.
    const SensorDef *find(uint8_t owner, uint8_t lun, uint8_t number) const;
    // Index in records of a record ID (0x0000: the first, 0xFFFF: the last); -1 if none.
    long indexOf(uint16_t recordId) const;
};

// Builds the repository from the profile's "sdr", "sensors", "fru_locators" and
// "mc_locators". Throws ProfileError naming the file and JSON pointer of a bad value.
SdrModel parseSdrModel(const Profile &profile);

// The model of a controller's profile, built on first use and kept with the controller.
std::shared_ptr<const SdrModel> sdrModel(Controller &controller);

// The numeric value of a raw byte in an analog data format (for comparisons).
int numericValue(AnalogFormat format, uint8_t raw);

// The threshold comparison status bits 5..0 for a reading: at or below a lower threshold, at
// or above an upper one, compared as numbers in the sensor's analog data format. Only
// thresholds the sensor has take part; a sensor without analog readings compares nothing.
uint8_t thresholdStatus(const SensorDef &sensor, uint8_t raw);

// The sensor's values now: the profile's, overlaid by the machine state's "sensors" entry,
// and unavailable while the host is powered off for sensors powered by it.
SensorNow sensorNow(const SensorDef &sensor, const nlohmann::json &state);

// The key of a sensor's entry in the machine state's "sensors" object: "0:0x1a" for the
// controller's own sensors, "0x2c/0:0x1a" for those of a satellite controller.
std::string sensorStateKey(const SensorDef &sensor);

// Get Sensor Reading as the controller at `owner` answers it, for its own sensors.
void answerSensorReading(const SdrModel &model, uint8_t owner, Context &ctx, const Request &req, Response &rsp);

// Host-side controls of sensors on LUN 0. They change the machine state (kept like every
// other change, so later programs see them). Each returns "" or why it refused.
std::string setSensorReading(Controller &controller, uint8_t number, uint8_t raw);
std::string setSensorState(Controller &controller, uint8_t number, uint16_t stateBits);
// scanning, unavailable: 0 or 1; a negative value leaves that flag as it is.
std::string setSensorFlags(Controller &controller, uint8_t number, int scanning, int unavailable);

} // namespace tvxsim
