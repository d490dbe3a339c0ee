// Sensor readings: threshold comparison status computed around every threshold in each
// analog data format, discrete states, flags, thresholds and hysteresis, and changes made
// through the host API as the next request and the next program see them.
#include <cstdio>

#include "libipmi_host.h"
#include "simsdr_util.h"
#include "tvx_toipmi.h"

namespace simsdr {
namespace {

nlohmann::json sensorProfile()
{
    nlohmann::json doc = baseProfile();
    doc["sensors"] = nlohmann::json::parse(R"([
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
       "event_reading_type": "0x6F", "name": "On LUN 1", "state": 2}
    ])");
    return doc;
}

Bytes reading(tvxsim::Controller &c, uint8_t number, uint8_t lun = 0) { return send(c, kNetFnSensor, 0x2D, {number}, lun); }

TEST(ThresholdStatus, ComputedAroundEachThresholdInEachFormat)
{
    tvxsim::Controller c(profileOf(sensorProfile()), "");
    const uint8_t LNC = 0x01, LC = 0x02, LNR = 0x04, UNC = 0x08, UC = 0x10, UNR = 0x20;
    struct Case {
        uint8_t sensor;
        uint8_t raw;
        uint8_t bits;
    } cases[] = {
        // unsigned: lnr 10, lc 20, lnc 30, unc 100, uc 110, unr 120
        {1, 0, LNC | LC | LNR}, {1, 10, LNC | LC | LNR}, {1, 11, LNC | LC}, {1, 20, LNC | LC},
        {1, 21, LNC}, {1, 30, LNC}, {1, 31, 0}, {1, 99, 0}, {1, 100, UNC}, {1, 109, UNC},
        {1, 110, UNC | UC}, {1, 119, UNC | UC}, {1, 120, UNC | UC | UNR}, {1, 255, UNC | UC | UNR},
        // two's complement: -40, -30, -20 | 10, 20, 30
        {2, 0x80, LNC | LC | LNR}, {2, 0xD7, LNC | LC | LNR}, {2, 0xD8, LNC | LC | LNR},
        {2, 0xD9, LNC | LC}, {2, 0xE2, LNC | LC}, {2, 0xE3, LNC}, {2, 0xEC, LNC}, {2, 0xED, 0},
        {2, 0xFF, 0}, {2, 0x00, 0}, {2, 0x09, 0}, {2, 0x0A, UNC}, {2, 0x14, UNC | UC},
        {2, 0x1D, UNC | UC}, {2, 0x1E, UNC | UC | UNR}, {2, 0x7F, UNC | UC | UNR},
        // ones' complement (-n is ~n): -40 = 0xD7, -30 = 0xE1, -20 = 0xEB
        {3, 0x80, LNC | LC | LNR}, {3, 0xD6, LNC | LC | LNR}, {3, 0xD7, LNC | LC | LNR},
        {3, 0xD8, LNC | LC}, {3, 0xE1, LNC | LC}, {3, 0xE2, LNC}, {3, 0xEB, LNC}, {3, 0xEC, 0},
        {3, 0xFF, 0}, {3, 0x00, 0}, {3, 0x0A, UNC}, {3, 0x14, UNC | UC}, {3, 0x1E, UNC | UC | UNR},
        // a threshold the sensor does not have never asserts
        {4, 0, 0}, {4, 199, 0}, {4, 200, UC}, {4, 255, UC},
        // without analog readings there is nothing to compare
        {5, 0, 0}, {5, 200, 0},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE("sensor " + std::to_string(k.sensor) + " raw " + std::to_string(k.raw));
        ASSERT_EQ(tvxsim::setSensorReading(c, k.sensor, k.raw), "");
        EXPECT_EQ(reading(c, k.sensor), (Bytes{0x00, k.raw, 0xC0, static_cast<uint8_t>(0xC0 | k.bits)}));
    }
}

TEST(SensorReading, DiscreteStatesFlagsAndAvailability)
{
    tvxsim::Controller c(profileOf(sensorProfile()), "");
    // States 0..7 in byte 3; 8..14 in byte 4, whose bit 7 reads as 1.
    EXPECT_EQ(reading(c, 16), (Bytes{0x00, 0x00, 0xC0, 0x81, 0xC0}));
    ASSERT_EQ(tvxsim::setSensorState(c, 16, 0x7FFF), "");
    EXPECT_EQ(reading(c, 16), (Bytes{0x00, 0x00, 0xC0, 0xFF, 0xFF}));
    ASSERT_EQ(tvxsim::setSensorState(c, 16, 0x0000), "");
    EXPECT_EQ(reading(c, 16), (Bytes{0x00, 0x00, 0xC0, 0x00, 0x80}));

    EXPECT_EQ(reading(c, 17), (Bytes{0x00, 0x00, 0x00, 0x01, 0x80})) << "events and scanning off in the profile";

    // Unavailable: no reading and no states, whatever the sensor holds.
    ASSERT_EQ(tvxsim::setSensorFlags(c, 1, -1, 1), "");
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 0x00, 0xE0, 0xC0}));
    ASSERT_EQ(tvxsim::setSensorFlags(c, 1, 0, -1), "");
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 0x00, 0xA0, 0xC0}));
    ASSERT_EQ(tvxsim::setSensorFlags(c, 1, 1, 0), "");
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 50, 0xC0, 0xC0}));

    // A sensor powered by the host reads as unavailable while the chassis is off.
    EXPECT_EQ(reading(c, 18), (Bytes{0x00, 40, 0xC0, 0xC0}));
    c.control([](tvxsim::Context &ctx) {
        ctx.state["chassis"]["power_on"] = false;
        ctx.changed();
    });
    EXPECT_EQ(reading(c, 18), (Bytes{0x00, 0x00, 0xE0, 0xC0}));
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 50, 0xC0, 0xC0})) << "other sensors read on";
    c.control([](tvxsim::Context &ctx) {
        ctx.state["chassis"]["power_on"] = true;
        ctx.changed();
    });
    EXPECT_EQ(reading(c, 18), (Bytes{0x00, 40, 0xC0, 0xC0}));

    // Sensors are found by LUN and number.
    EXPECT_EQ(reading(c, 1, 1), (Bytes{0x00, 0x00, 0xC0, 0x02, 0x80}));
    EXPECT_EQ(reading(c, 16, 1), Bytes{0xCB});
    EXPECT_EQ(reading(c, 0x99), Bytes{0xCB});
    EXPECT_EQ(send(c, kNetFnSensor, 0x2D, {}), Bytes{0xC7});
    EXPECT_EQ(send(c, kNetFnSensor, 0x2D, {1, 0}), Bytes{0xC7});
}

TEST(SensorReading, ThresholdsAndHysteresis)
{
    tvxsim::Controller c(profileOf(sensorProfile()), "");
    struct Case {
        const char *what;
        uint8_t command;
        Bytes request;
        Bytes answer;
    } cases[] = {
        {"readable thresholds only, in the order LNC LC LNR UNC UC UNR", 0x27, {1},
         {0x00, 0x2A, 0, 20, 0, 100, 0, 120}},
        {"all six, two's complement", 0x27, {2}, {0x00, 0x3F, 0xEC, 0xE2, 0xD8, 10, 20, 30}},
        {"one threshold of a compact record", 0x27, {4}, {0x00, 0x10, 0, 0, 0, 0, 200, 0}},
        {"a discrete sensor has no thresholds", 0x27, {16}, {0xCD}},
        {"no such sensor", 0x27, {0x99}, {0xCB}},
        {"thresholds request too long", 0x27, {1, 0}, {0xC7}},
        {"hysteresis", 0x25, {1, 0xFF}, {0x00, 2, 3}},
        {"no hysteresis given", 0x25, {2, 0xFF}, {0x00, 0, 0}},
        {"a discrete sensor has no hysteresis", 0x25, {16, 0xFF}, {0xCD}},
        {"hysteresis of no such sensor", 0x25, {0x99, 0xFF}, {0xCB}},
        {"hysteresis request without its second byte", 0x25, {1}, {0xC7}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        EXPECT_EQ(send(c, kNetFnSensor, k.command, k.request), k.answer);
    }
}

// A state file edited by hand with values of the wrong type: the sensor reads its profile
// values instead of failing.
TEST(SensorReading, IgnoresStateValuesOfTheWrongType)
{
    tvxsim::Controller c(profileOf(sensorProfile()), "");
    c.control([](tvxsim::Context &ctx) {
        ctx.state["sensors"]["0:0x01"] = {{"reading", "high"}, {"scanning", 3}, {"unavailable", nullptr}};
        ctx.state["sensors"]["0:0x10"] = {{"state", 0x10000}};
        ctx.state["chassis"] = "off";
        ctx.changed();
    });
    EXPECT_EQ(reading(c, 1), (Bytes{0x00, 50, 0xC0, 0xC0}));
    EXPECT_EQ(reading(c, 16), (Bytes{0x00, 0x00, 0xC0, 0x81, 0xC0}));
    EXPECT_EQ(reading(c, 18), (Bytes{0x00, 40, 0xC0, 0xC0}));
}

std::string runTvxctl(const std::string &args)
{
    std::string cmd = std::string(TVXCTL_PATH) + " " + args + " 2>&1";
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return "popen failed";
    char buf[256];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
    return out;
}

// Through the platform library's host API and libtvx_toipmi, as a test program or a tool
// drives the machine; the change outlives the program that made it.
TEST(HostApi, ChangesAreSeenByTheNextRequestAndTheNextProgram)
{
    TempDir dir;
    std::string profile = (tvxtest::writeFile(dir.file("sensors.json"), sensorProfile().dump()), dir.file("sensors.json"));
    std::string state = dir.path() + "/state";
    ASSERT_EQ(ipmihost_select_machine(profile.c_str(), state.c_str()), 0) << ipmihost_last_error();
    IpmiSession *s = ipmiOpenSession(TVX_PRIV_ADMIN, "admin", nullptr, 0, nullptr);
    ASSERT_NE(s, nullptr);

    uint8_t raw = 0;
    uint16_t bits = 0;
    ASSERT_EQ(ipmihost_set_sensor_reading(1, 105), 0) << ipmihost_last_error();
    ASSERT_EQ(ipmiGetSensorReading(s, 1, &raw, &bits), 1);
    EXPECT_EQ(raw, 105);
    EXPECT_EQ(bits & 0x3F, 0x08) << "at or above the upper non-critical threshold";

    ASSERT_EQ(ipmihost_set_sensor_state(16, 0x0102), 0) << ipmihost_last_error();
    ASSERT_EQ(ipmiGetSensorReading(s, 16, &raw, &bits), 1);
    EXPECT_EQ(bits, 0x0102);

    ASSERT_EQ(ipmihost_set_sensor_flags(17, 1, 1), 0) << ipmihost_last_error();
    EXPECT_EQ(ipmiGetSensorReading(s, 17, &raw, &bits), 0) << "unavailable while scanning: not read";

    EXPECT_EQ(ipmihost_set_sensor_reading(0x99, 1), -1);
    EXPECT_NE(std::string(ipmihost_last_error()).find("no sensor 0x99"), std::string::npos);
    EXPECT_EQ(ipmihost_set_sensor_state(1, 1), -1);
    EXPECT_EQ(ipmihost_set_sensor_flags(1, 5, 0), -1);

    // Another program on the same machine.
    std::string args = "--machine " + profile + " --state " + state + " raw 0x04 0x2d ";
    EXPECT_EQ(runTvxctl(args + "0x01"), " 69 c0 c8\n");
    EXPECT_EQ(runTvxctl(args + "0x10"), " 00 c0 02 81\n");

    // Starting the machine afresh brings back the profile's values.
    ASSERT_EQ(ipmihost_reset_machine(), 0);
    ASSERT_EQ(ipmiGetSensorReading(s, 1, &raw, &bits), 1);
    EXPECT_EQ(raw, 50);
    EXPECT_EQ(runTvxctl(args + "0x10"), " 00 c0 81 c0\n");

    ipmiHelperCloseSession(&s);

    // Without a virtual controller there is no sensor to set.
    ASSERT_EQ(ipmihost_select_script(), 0);
    EXPECT_EQ(ipmihost_set_sensor_reading(1, 1), -1);
    ipmihost_select_default();
}

} // namespace
} // namespace simsdr
