// The virtual controller's SDR repository, sensors and component status where the library never goes.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "bytes.h"
#include "controller.h"
#include "machine.h"
#include "sdr.h"

namespace {

using nlohmann::json;

constexpr uint8_t kSensor = 0x04, kStorage = 0x0A, kOemGroup = 0x2E;

tvxsim::Profile profileOf(const json &doc) { return tvxsim::parseProfile(doc.dump(), "test.json"); }

// The controller's answer (completion code first); an empty vector when there is none.
Bytes send(tvxsim::Controller &c, uint8_t netFn, uint8_t command, const Bytes &data, uint8_t lun = 0)
{
    tvxsim::Reply r = c.handle(netFn, lun, command, data);
    return r.answered ? r.bytes : Bytes{};
}

TEST(SdrCommands, InformationReservationsAndGetSdr)
{
    // A 60-byte full record, a 35-byte compact one and a 19-byte locator; 40 bytes per answer.
    json doc = tvxtest::baseProfile();
    doc["sdr"] = {{"allocation_unit_size", 16}, {"allocation_units", 100},       {"max_record_units", 4},
                  {"max_read_bytes", 40},       {"add_timestamp", "0x11223344"}, {"erase_timestamp", 7},
                  {"operation_support", "0x23"}};
    doc["sensors"] = json::parse(R"([
      {"record": "full", "number": 1, "entity": 3, "instance": 1, "type": 1, "event_reading_type": 1,
       "name": "Exhaust Temp", "reading": 30, "thresholds": {"uc": 90}},
      {"record": "compact", "number": 2, "entity": 29, "instance": 1, "type": "0xE6",
       "event_reading_type": "0x6F", "name": "Fan", "state": 1}])");
    doc["mc_locators"] = json::parse(R"([{"name": "BMC", "entity": 6, "instance": 1}])");
    tvxsim::Controller c(profileOf(doc), "");
    // Units taken: 60 bytes -> 4, 35 -> 3, 19 -> 2; 91 of 100 free, 16 bytes each.
    EXPECT_EQ(send(c, kStorage, 0x20, {}),
              (Bytes{0x00, 0x51, 0x03, 0x00, 0xB0, 0x05, 0x44, 0x33, 0x22, 0x11, 0x07, 0x00, 0x00, 0x00, 0x23}));
    EXPECT_EQ(send(c, kStorage, 0x21, {}), (Bytes{0x00, 0x64, 0x00, 0x10, 0x00, 0x5B, 0x00, 0x5B, 0x00, 0x04}));
    EXPECT_EQ(send(c, kStorage, 0x20, {0x00}), Bytes{0xC7});
    EXPECT_EQ(send(c, kStorage, 0x21, {0x00}), Bytes{0xC7});
    EXPECT_EQ(send(c, kStorage, 0x22, {0x00}), Bytes{0xC7});
    EXPECT_EQ(send(c, kStorage, 0x22, {}), (Bytes{0x00, 0x01, 0x00})); // reservation 1, cancelled by
    EXPECT_EQ(send(c, kStorage, 0x22, {}), (Bytes{0x00, 0x02, 0x00})); // reservation 2
    // clang-format off
    const struct {
        const char *what;
        Bytes request, answer; // reservation, record ID, offset, count
    } cases[] = {
        {"request too short", {0, 0, 0, 0, 0}, {0xC7}},
        {"header of the first record (ID 0)", {0, 0, 0, 0, 0, 5}, {0x00, 0x02, 0x00, 0x01, 0x00, 0x51, 0x01, 0x37}},
        {"whole record beyond one answer", {0, 0, 1, 0, 0, 0xFF}, {0xCA}},
        {"offset with a cancelled reservation", {1, 0, 1, 0, 20, 0xFF}, {0xC5}},
        {"unknown record ID", {0, 0, 4, 0, 0, 5}, {0xCB}},
        {"a piece: the compact record's name", {2, 0, 2, 0, 30, 5}, {0x00, 0x03, 0x00, 0x00, 0xC3, 'F', 'a', 'n'}},
        {"last record (ID 0xFFFF), the controller's locator", {0, 0, 0xFF, 0xFF, 0, 0xFF},
         {0x00, 0xFF, 0xFF, 0x03, 0x00, 0x51, 0x12, 0x0E, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x01, 0x00,
          0xC3, 'B', 'M', 'C'}},
        {"offset at the end of the record", {2, 0, 2, 0, 35, 0xFF}, {0xC9}},
    };
    // clang-format on
    for (const auto &k : cases) EXPECT_EQ(send(c, kStorage, 0x23, k.request), k.answer) << k.what;
}

TEST(SdrCommands, FullSensorRecordHasTheBytesTheLibraryReads)
{
    json doc = tvxtest::baseProfile();
    doc["sensors"] = json::parse(R"([
      {"record": "full", "number": "0x42", "lun": 1, "channel": 2, "owner": "0x22",
       "entity": "0x37", "instance": 5, "logical_entity": true, "type": "0x01",
       "event_reading_type": "0x01", "name": "Exhaust Temp", "format": "twos_complement",
       "units": {"base": 1, "modifier": 6, "modifier_use": "multiply", "rate": 3, "percentage": true},
       "m": -3, "b": -300, "b_exp": 3, "r_exp": -2, "linearization": 7}])");
    tvxsim::Controller c(profileOf(doc), "");
    Bytes full = send(c, kStorage, 0x23, {0, 0, 0, 0, 0, 0xFF});
    ASSERT_EQ(full.size(), 3u + 60u);
    // What the library reads: ID, type, length, number, entity, sensor and event type, units, M and B.
    const Bytes r(full.begin() + 3, full.end());
    EXPECT_EQ((Bytes{r[0], r[3], r[4], r[7], r[8], r[12], r[13], r[20], r[21], r[22], r[23], r[24], r[25], r[26], r[27],
                     r[29]}),
              (Bytes{0x01, 0x01, 55, 0x42, 0x37, 0x01, 0x01, 0x9D, 0x01, 0x06, 0x07, 0xFD, 0xC0, 0xD4, 0x80, 0xE3}));
    EXPECT_EQ(std::string(full.begin() + 51, full.end()), "Exhaust Temp");
}

json sensorProfile()
{
    json doc = tvxtest::baseProfile();
    doc["sensors"] = json::parse(R"([
      {"record": "full", "number": 1, "entity": 3, "instance": 1, "type": 1, "event_reading_type": 1,
       "name": "Unsigned", "reading": 50,
       "thresholds": {"lnr": 10, "lc": 20, "lnc": 30, "unc": 100, "uc": 110, "unr": 120},
       "readable_thresholds": ["lc", "unc", "unr"], "hysteresis": {"positive": 2, "negative": 3}},
      {"record": "full", "number": 2, "entity": 3, "instance": 2, "type": 1, "event_reading_type": 1,
       "name": "Twos", "format": "twos_complement",
       "thresholds": {"lnr": -40, "lc": -30, "lnc": -20, "unc": 10, "uc": 20, "unr": 30}},
      {"record": "full", "number": 3, "entity": 3, "instance": 3, "type": 1, "event_reading_type": 1,
       "name": "Ones", "format": "ones_complement",
       "thresholds": {"lnr": -40, "lc": -30, "lnc": -20, "unc": 10, "uc": 20, "unr": 30}},
      {"record": "compact", "number": 4, "entity": 3, "instance": 4, "type": 1, "event_reading_type": 1,
       "name": "Only UC", "thresholds": {"uc": 200}},
      {"record": "full", "number": 5, "entity": 3, "instance": 5, "type": 1, "event_reading_type": 1,
       "name": "No analog", "format": "none", "thresholds": {"uc": 10}},
      {"record": "compact", "number": 16, "entity": 3, "instance": 1, "type": 7, "event_reading_type": "0x6F",
       "name": "CPU Status", "state": "0x4081"},
      {"record": "compact", "number": 17, "entity": 3, "instance": 2, "type": 7, "event_reading_type": "0x6F",
       "name": "Quiet", "state": 1, "events": false, "scanning": false},
      {"record": "full", "number": 18, "entity": 3, "instance": 1, "type": 1, "event_reading_type": 1,
       "name": "Host Temp", "reading": 40, "powered_by_host": true, "thresholds": {"unc": 41}},
      {"record": "compact", "number": 1, "lun": 1, "entity": 3, "instance": 9, "type": 7,
       "event_reading_type": "0x6F", "name": "On LUN 1", "state": 2}])");
    return doc;
}

Bytes reading(tvxsim::Controller &c, uint8_t number, uint8_t lun = 0) { return send(c, kSensor, 0x2D, {number}, lun); }

TEST(SensorCommands, ThresholdStatusAtEachBoundaryInEachFormat)
{
    tvxsim::Controller c(profileOf(sensorProfile()), "");
    const uint8_t LNC = 0x01, LC = 0x02, LNR = 0x04, UNC = 0x08, UC = 0x10, UNR = 0x20;
    const uint8_t LOW = LNC | LC | LNR, HIGH = UNC | UC | UNR;
    const struct {
        uint8_t sensor, raw, bits;
    } cases[] = {
        // clang-format off
        // unsigned: lnr 10, lc 20, lnc 30, unc 100, uc 110, unr 120
        {1, 10, LOW}, {1, 11, LNC | LC}, {1, 31, 0}, {1, 100, UNC}, {1, 119, UNC | UC}, {1, 120, HIGH},
        // two's complement: -40, -30, -20 | 10, 20, 30; ones' complement (-n is ~n): -40 = 0xD7
        {2, 0xD8, LOW}, {2, 0xD9, LNC | LC}, {2, 0xED, 0}, {2, 0x1E, HIGH}, {3, 0xD7, LOW}, {3, 0xD8, LNC | LC},
        // a threshold the sensor does not have never asserts; without analog readings nothing compares
        {4, 0, 0}, {4, 199, 0}, {4, 200, UC}, {5, 200, 0},
        // clang-format on
    };
    for (const auto &k : cases) {
        SCOPED_TRACE("sensor " + std::to_string(k.sensor) + " raw " + std::to_string(k.raw));
        ASSERT_EQ(tvxsim::setSensorReading(c, k.sensor, k.raw), "");
        EXPECT_EQ(reading(c, k.sensor), (Bytes{0x00, k.raw, 0xC0, uint8_t(0xC0 | k.bits)}));
    }
}

TEST(SensorCommands, DiscreteStatesFlagsAvailabilityThresholdsAndHysteresis)
{
    tvxsim::Controller c(profileOf(sensorProfile()), "");
    // States 0..7 in byte 3; 8..14 in byte 4, whose bit 7 reads as 1.
    EXPECT_EQ(reading(c, 16), (Bytes{0x00, 0x00, 0xC0, 0x81, 0xC0}));
    ASSERT_EQ(tvxsim::setSensorState(c, 16, 0x7FFF), "");
    EXPECT_EQ(reading(c, 16), (Bytes{0x00, 0x00, 0xC0, 0xFF, 0xFF}));
    EXPECT_EQ(reading(c, 17), (Bytes{0x00, 0x00, 0x00, 0x01, 0x80})) << "events and scanning off in the profile";
    // Unavailable: no reading and no states, whatever the sensor holds.
    ASSERT_EQ(tvxsim::setSensorFlags(c, 1, -1, 1), "");
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 0x00, 0xE0, 0xC0}));
    ASSERT_EQ(tvxsim::setSensorFlags(c, 1, 0, 0), "");
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 50, 0x80, 0xC0}));
    // A sensor powered by the host reads as unavailable while the chassis is off.
    for (bool on : {false, true}) {
        c.control([on](tvxsim::Context &ctx) {
            ctx.state["chassis"]["power_on"] = on;
            ctx.changed();
        });
        EXPECT_EQ(reading(c, 18), (on ? Bytes{0x00, 40, 0xC0, 0xC0} : Bytes{0x00, 0x00, 0xE0, 0xC0}));
    }
    // Sensors are found by LUN and number.
    EXPECT_EQ(reading(c, 1, 1), (Bytes{0x00, 0x00, 0xC0, 0x02, 0x80}));
    EXPECT_EQ(reading(c, 16, 1), Bytes{0xCB});
    EXPECT_EQ(send(c, kSensor, 0x2D, {1, 0}), Bytes{0xC7});
    const struct {
        uint8_t command;
        Bytes request, answer;
    } cases[] = {
        // clang-format off
        // readable thresholds only, in the order LNC LC LNR UNC UC UNR; a discrete sensor has none
        {0x27, {1}, {0x00, 0x2A, 0, 20, 0, 100, 0, 120}}, {0x27, {2}, {0x00, 0x3F, 0xEC, 0xE2, 0xD8, 10, 20, 30}},
        {0x27, {16}, {0xCD}}, {0x27, {0x99}, {0xCB}}, {0x27, {1, 0}, {0xC7}}, {0x25, {1, 0xFF}, {0x00, 2, 3}},
        // clang-format on
    };
    for (const auto &k : cases) EXPECT_EQ(send(c, kSensor, k.command, k.request), k.answer) << int(k.command);
}

// Host API changes, through libtvx_toipmi, as a tool drives the machine.
TEST(SensorCommands, HostApiChangesAreSeenByTheNextRequest)
{
    tvxtest::ScratchMachine m(sensorProfile());
    IpmiSession *s = m.session();
    uint8_t raw = 0;
    uint16_t bits = 0;
    ASSERT_EQ(ipmihost_set_sensor_reading(1, 105), 0) << ipmihost_last_error();
    ASSERT_EQ(ipmiGetSensorReading(s, 1, &raw, &bits), 1);
    EXPECT_EQ(std::tuple(raw, bits & 0x3F), std::tuple(105, 0x08)) << "at or above the upper non-critical threshold";
    ASSERT_EQ(ipmihost_set_sensor_state(16, 0x0102), 0) << ipmihost_last_error();
    ASSERT_EQ(ipmiGetSensorReading(s, 16, &raw, &bits), 1);
    EXPECT_EQ(bits, 0x0102);
    ASSERT_EQ(ipmihost_set_sensor_flags(17, 1, 1), 0) << ipmihost_last_error();
    EXPECT_EQ(ipmiGetSensorReading(s, 17, &raw, &bits), 0) << "unavailable while scanning: not read";
    EXPECT_EQ(ipmihost_set_sensor_reading(0x99, 1), -1);
    EXPECT_NE(std::string(ipmihost_last_error()).find("no sensor 0x99"), std::string::npos);
    // Starting the machine afresh brings back the profile's values.
    ASSERT_EQ(ipmihost_reset_machine(), 0);
    ASSERT_EQ(ipmiGetSensorReading(s, 1, &raw, &bits), 1);
    EXPECT_EQ(raw, 50);
    // Without a virtual controller there is no sensor to set.
    ASSERT_EQ(ipmihost_select_script(), 0);
    EXPECT_EQ(ipmihost_set_sensor_reading(1, 1), -1);
}

// The profile's components through the library: the record as the controller answers it, with
// the status of a component that answers a completion code of its own; none for an unknown key.
TEST(ComponentStatus, TheProfilesComponentsThroughTheLibrary)
{
    json doc = tvxtest::baseProfile();
    doc["components"] = json::parse(R"([
      {"key": "01 01", "id": "00 01", "bytes": "03 01 00", "status": 2, "byte": 5, "name": "CPU1"},
      {"key": "05 02", "id": "00 41", "bytes": "0b 02 00", "status": 1, "name": "Riser", "completion_code": "0x02"},
      {"key": [6, 0], "id": [0, 6], "bytes": [1, 2, 3], "status": 3, "name": "Component name of 31 characters"}])");
    tvxtest::ScratchMachine m(doc);
    // ID, bytes, status, byte, name length and 16 name bytes (none when the name is longer).
    const std::pair<Bytes, Bytes> cases[] = {
        {{0x01, 0x01}, cat({{0x00, 0x01, 0x03, 0x01, 0x00, 2, 5, 4}, text("CPU1"), Bytes(12, 0)})},
        {{0x05, 0x02}, cat({{0x00, 0x41, 0x0B, 0x02, 0x00, uint8_t(-2), 0, 5}, text("Riser"), Bytes(11, 0)})},
        {{0x06, 0x00}, cat({{0x00, 0x06, 1, 2, 3, 3, 0, 31}, Bytes(16, 0)})},
        {{0x01, 0x02}, {}},
    };
    for (const auto &[key, record] : cases) {
        ComponentStatus *s = oemGetComponentStatus(m.session(), key.data());
        EXPECT_EQ(s ? Bytes(reinterpret_cast<uint8_t *>(s), reinterpret_cast<uint8_t *>(s) + sizeof *s) : Bytes{},
                  record);
        std::free(s);
    }
    // The controller's refusals of a short request and an unknown sub-function keep the IANA number;
    // another vendor's number is refused and repeated, one cut short refused.
    tvxsim::Controller c(profileOf(doc), "");
    EXPECT_EQ(send(c, kOemGroup, 0xF5, {0x57, 0x01, 0x00, 0x40}), (Bytes{0xC1, 0x57, 0x01, 0x00}));
    EXPECT_EQ(send(c, kOemGroup, 0xF5, {0xD9, 0x7E}), Bytes{0xC7});
    EXPECT_EQ(send(c, kOemGroup, 0xF5, oem({0x40, 0x01, 0x01})), oemAnswer({}, 0xC7));
    EXPECT_EQ(send(c, kOemGroup, 0xF5, oem({0x99, 0x01, 0x01, 0x01})), oemAnswer({}, 0xC1));
}

} // namespace
