// The virtual controller's chassis, LED, configuration-space, console and LAN commands the library never sends.
#include <gtest/gtest.h>

#include "bytes.h"
#include "controller.h"
#include "machine.h"

using nlohmann::json;
using tvxsim::Controller;

namespace {

constexpr uint8_t kChassis = 0x00, kSensorEvent = 0x04, kApp = 0x06, kTransport = 0x0C, kOem = 0x2E;

json machine()
{
    json doc = tvxtest::baseProfile();
    doc["chassis"] = {{"power_on", true}, {"intrusion", true}, {"cooling_fault", true}};
    doc["leds"] = {{"error", "warning"}};
    doc["config_space"] =
        json::parse(R"({"0x0201": {"name": "SystemName", "text": "box-1"}, "0x0072": {"u16": [60, 70]},
      "0x0300": {"text": "abcd", "max_length": 4}, "0x0400": {"bytes": {"2": "aa bb"}},
      "0x1A3A": {"ipv6": "fd00::1"}})");
    doc["console"] = {
        {"logging", false}, {"capacity", 40}, {"log", {"old line"}}, {"boot_lines", {"BIOS 1.0", "login:"}}};
    doc["lan"] = json::parse(R"({"channels": [
      {"number": 1, "medium": "802.3", "ip_address": "10.1.2.3", "subnet_mask": "255.255.0.0",
       "default_gateway": "10.1.0.1", "mac_address": "02:00:00:00:00:01", "address_source": "static",
       "alert_destinations": [{"address": "10.1.0.50", "port": 1620}, {"refuses_event": true}]},
      {"number": 2, "medium": "802.3", "ip_address": "10.9.9.9", "address_source": "dhcp"},
      {"number": 3, "medium": "serial"}]})");
    return doc;
}

tvxsim::Profile profileOf(const json &doc) { return tvxsim::parseProfile(doc.dump(), "chassis-test.json"); }

struct Step {
    uint8_t netFn, cmd;
    Bytes request, answer;
};
const Step kStatusOn{kChassis, 0x01, {}, {0x00, 0x01, 0x00, 0x49}}; // intrusion, cooling fault, identify reported
Step control(uint8_t action, uint8_t code) { return {kChassis, 0x02, {action}, {code}}; }

// Each scenario is a series of requests on a fresh machine with the exact answers expected.
TEST(ChassisCommands, AnswerByteForByte)
{
    const std::pair<const char *, std::vector<Step>> scenarios[] = {
        // clang-format off
        {"power and restart cause", {control(0, 0x00), control(2, 0xD5), {kOem, 0x02, oem({0x01}), oemAnswer({}, 0xD5)},
          control(1, 0x00), {kChassis, 0x01, {}, {0x00, 0x01, 0x10, 0x49}}, {kChassis, 0x07, {}, {0x00, 0x01, 0x01}},
          {kOem, 0x02, oem({0x01}), oemAnswer({})}, {kChassis, 0x07, {}, {0x00, 0x0A, 0x01}}}},
        {"bad control bytes", {control(6, 0xCC), {kChassis, 0x02, {1, 0}, {0xC7}}, {kChassis, 0x01, {0}, {0xC7}},
          {kOem, 0x02, oem({0x02}), oemAnswer({}, 0xCC)}, {kOem, 0x01, oem({0x18, 0, 0, 0, 1, 3}), oemAnswer({}, 0xCC)},
          {kOem, 0x01, oem({0x1B, 0, 0, 0, 1}), oemAnswer({}, 0xC7)}, kStatusOn}},
        {"chassis identify and LEDs", {{kChassis, 0x04, {0, 1}, {0x00}}, {kChassis, 0x01, {}, {0x00, 0x01, 0x00, 0x69}},
          {kOem, 0xF5, oem({0xB1}), oemAnswer({0x01})}, {kChassis, 0x04, {0}, {0x00}}, kStatusOn,
          {kChassis, 0x04, {}, {0x00}}, {kChassis, 0x01, {}, {0x00, 0x01, 0x00, 0x59}}, // 15 s: temporary
          {kOem, 0xF5, oem({0xB1, 0x00}), oemAnswer({}, 0xC7)}, {kOem, 0xF5, oem({0xB2}), oemAnswer({}, 0xC1)},
          // A warm reset keeps the LED on, a cold one turns it off.
          {kOem, 0xF5, oem({0xB0, 0x01}), oemAnswer({})}, {kApp, 0x03, {}, {0x00}}, {kOem, 0xF5, oem({0xB1}), oemAnswer({0x01})},
          {kApp, 0x02, {}, {0x00}}, {kOem, 0xF5, oem({0xB1}), oemAnswer({0x00})}}},
        {"configuration space", {{kOem, 0xE0, oem({0x01, 1, 0x72, 0x00}), oemAnswer({2, 70, 0})},
          {kOem, 0xE0, oem({0x01, 0, 0x3A, 0x1A}),
           oemAnswer({16, 0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})},
          {kOem, 0xE0, oem({0x01, 2, 0x72, 0x00}), oemAnswer({}, 0xCB)}, {kOem, 0xE0, oem({1, 0, 1}), oemAnswer({}, 0xC7)},
          {kOem, 0xE0, oem({0x02, 0, 0x00, 0x03, 5, '1', '2', '3', '4', '5'}), oemAnswer({}, 0xC8)},
          {kOem, 0xF5, oem({0xE0, 'C', 'L', 'X', 0xAA}), oemAnswer({}, 0xCC)},
          {kOem, 0xE0, oem({0x01, 0, 0x01, 0x02}), oemAnswer({5, 'b', 'o', 'x', '-', '1'})}}},
        {"LAN channels and parameters", {{kApp, 0x42, {0x0E}, {0x00, 1, 0x04, 0x01, 0x80, 0xF2, 0x1B, 0, 0, 0}},
          {kTransport, 0x02, {0x81, 3, 0, 0}, {0x00, 0x11}}, {kTransport, 0x01, {0x0E, 13, 2, 0, 0, 0, 0, 15}, {0}},
          {kTransport, 0x02, {1, 13, 0, 0}, {0x00, 0x11, 2, 0, 0, 0, 0, 15}}, {kTransport, 0x01, {1, 1, 0x15}, {0x82}},
          {kTransport, 0x01, {1, 5, 1, 0, 0, 0, 0, 1}, {0xCC}}}},
        {"set in progress and commit", {{kTransport, 0x01, {1, 0, 1}, {0x00}}, {kTransport, 0x01, {1, 0, 1}, {0x81}},
          {kTransport, 0x01, {1, 3, 10, 1, 2, 99}, {0x00}}, {kTransport, 0x02, {1, 3, 0, 0}, {0x00, 0x11, 10, 1, 2, 3}},
          {kTransport, 0x01, {1, 0, 2}, {0x00}}, {kTransport, 0x02, {1, 3, 0, 0}, {0x00, 0x11, 10, 1, 2, 99}},
          {kTransport, 0x01, {1, 3, 10, 1, 2, 100}, {0x00}}, {kTransport, 0x01, {1, 0, 0}, {0x00}}, // rolled back
          {kTransport, 0x02, {1, 3, 0, 0}, {0x00, 0x11, 10, 1, 2, 99}}, {kTransport, 0x01, {1, 0, 3}, {0xCC}},
          {kTransport, 0x01, {1, 0, 1}, {0x00}}, {kApp, 0x02, {}, {0x00}}, // a restart forgets the set in progress
          {kTransport, 0x02, {1, 0, 0, 0}, {0x00, 0x11, 0}}}},
        {"alert destinations", {{kTransport, 0x02, {1, 17, 0, 0}, {0x00, 0x11, 2}},
          {kTransport, 0x02, {1, 19, 1, 0}, {0x00, 0x11, 1, 0x00, 0, 10, 1, 0, 50, 0, 0, 0, 0, 0, 0}},
          {kTransport, 0x02, {1, 0xC0, 1, 0}, {0x00, 0x11, 1, 0x54, 0x06}},
          {kTransport, 0x01, {1, 19, 2, 0x00, 1, 10, 9, 8, 7, 2, 0, 0, 0, 0, 1}, {0x00}},
          {kTransport, 0x01, {1, 18, 2, 0x80, 5, 3}, {0x00}}, {kTransport, 0x01, {1, 0xC0, 2, 0xA2, 0x00}, {0x00}},
          {kTransport, 0x02, {1, 19, 2, 0}, {0x00, 0x11, 2, 0x00, 1, 10, 9, 8, 7, 2, 0, 0, 0, 0, 1}},
          {kTransport, 0x02, {1, 18, 2, 0}, {0x00, 0x11, 2, 0x80, 5, 3}},
          {kTransport, 0x02, {1, 0xC0, 2, 0}, {0x00, 0x11, 2, 0xA2, 0x00}},
          {kTransport, 0x02, {1, 19, 3, 0}, {0xC9}}, {kTransport, 0x01, {1, 18, 3, 0, 0, 0}, {0xC9}},
          {kTransport, 0x01, {1, 17, 4}, {0x82}}, {kTransport, 0x01, {1, 18, 1, 0x03, 0, 0}, {0xCC}},
          {kTransport, 0x01, {1, 19, 1, 0x10, 0, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0}, {0xCC}},
          {kTransport, 0x01, {1, 0xC0, 1, 0, 0}, {0xCC}}, {kTransport, 0x01, {1, 19, 1, 0}, {0xC7}},
          {kTransport, 0x02, {2, 17, 0, 0}, {0x00, 0x11, 0}}, {kTransport, 0x02, {3, 17, 0, 0}, {0xCC}},
          {kTransport, 0x01, {1, 19, 0, 0x00, 0, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0}, {0x00}}, // the volatile one
          {kTransport, 0x02, {1, 19, 0, 0}, {0x00, 0x11, 0, 0x00, 0, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0}},
          {kApp, 0x02, {}, {0x00}}, {kTransport, 0x02, {1, 19, 0, 0}, {0x00, 0x11, 0, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
          {kTransport, 0x02, {2, 19, 1, 0}, {0xC9}}}},
        {"alert immediate refusals", {{kSensorEvent, 0x16, {1, 2, 0, 0x20, 0x04, 0x12, 0xFF, 0x6F, 0xE4, 0x01, 0x80}, {0x83}},
          {kSensorEvent, 0x16, {1, 2, 0x80}, {0xD3}}, {kSensorEvent, 0x16, {1, 3, 0}, {0xC9}},
          {kSensorEvent, 0x16, {3, 1, 0}, {0xCC}}, {kSensorEvent, 0x16, {1, 1}, {0xC7}},
          {kSensorEvent, 0x16, {1, 1, 0, 0x20}, {0xC7}}, {kSensorEvent, 0x16, {1, 0x41, 0}, {0x00, 0x00}},
          {kTransport, 0x01, {1, 18, 1, 0x06, 0, 0}, {0x00}}, {kSensorEvent, 0x16, {1, 1, 0}, {0xCC}}}},
        // clang-format on
    };
    for (const auto &[name, steps] : scenarios) {
        Controller c(profileOf(machine()), "");
        for (std::size_t i = 0; i < steps.size(); ++i) {
            tvxsim::Reply r = c.handle(steps[i].netFn, 0, steps[i].cmd, steps[i].request);
            EXPECT_TRUE(r.answered);
            EXPECT_EQ(r.bytes, steps[i].answer) << name << ", step " << i;
        }
    }
}

json storedState(const Controller &c) { return tvxsim::StateStore::readStored(c.statePath()); }

// A state file from an older program, or edited by hand, falls back to the profile.
TEST(ChassisState, UnreadableMembersFallBackToTheProfileAndTheConsoleLogKeepsTheNewest)
{
    tvxtest::TempDir dir;
    std::string path = Controller(profileOf(machine()), dir.path()).statePath();
    json doc = tvxtest::readJson(path);
    doc["state"]["chassis"] = {{"power_on", "yes"}, {"last_power_event", -4}};
    doc["state"]["leds"] = 7;
    doc["state"]["config_space"] = {{"0x0201", {{"0", "zz"}}}, {"0x0072", {{"1", "01"}}}};
    doc["state"]["lan"] = {{"1", {{"ip_address", 17}, {"subnet_mask", "255.255.0.0.0"}, {"set_in_progress", 3}}},
                           {"2", "x"}};
    doc["state"].erase("console");
    tvxtest::writeFile(path, doc.dump());
    Controller c(profileOf(machine()), dir.path());
    EXPECT_EQ(c.handle(kChassis, 0, 0x01, {}).bytes, kStatusOn.answer);
    EXPECT_EQ(c.handle(kOem, 0, 0xF5, oem({0xB3})).bytes, oemAnswer({0x01}));
    EXPECT_EQ(c.handle(kOem, 0, 0xE0, oem({0x01, 0, 0x01, 0x02})).bytes, oemAnswer({5, 'b', 'o', 'x', '-', '1'}));
    EXPECT_EQ(c.handle(kOem, 0, 0xE0, oem({0x01, 1, 0x72, 0x00})).bytes, oemAnswer({2, 70, 0}));
    EXPECT_EQ(c.handle(kTransport, 0, 0x02, Bytes{1, 6, 0, 0}).bytes, (Bytes{0x00, 0x11, 255, 255, 0, 0}));
    EXPECT_EQ(c.handle(kTransport, 0, 0x01, Bytes{2, 3, 1, 2, 3, 4}).bytes, Bytes{0x00});
    EXPECT_EQ(c.handle(kTransport, 0, 0x02, Bytes{2, 3, 0, 0}).bytes, (Bytes{0x00, 0x11, 1, 2, 3, 4}));
    // Power sources are kept in the state.
    for (uint8_t selector : {0x1B, 0x17}) c.handle(kOem, 0, 0x01, oem({selector, 0, 0, 0, 1, uint8_t(selector - 0x10)}));
    EXPECT_EQ(storedState(c)["chassis"]["power_on_source"], 0x0B);
    EXPECT_EQ(storedState(c)["chassis"]["power_off_source"], 0x07);
    // The console log takes the boot lines while logging and keeps the newest within its capacity.
    auto log = [&] { // a state without the console member stands for the profile's
        json st = storedState(c);
        return st.contains("console") ? st["console"]["log"] : json({"old line"});
    };
    c.handle(kChassis, 0, 0x02, Bytes{0x03}); // a restart while logging is off writes nothing
    EXPECT_EQ(log(), json({"old line"}));
    ASSERT_EQ(c.handle(kOem, 0, 0xE0, oem({0x02, 0, 0x30, 0x16, 1, 1})).bytes, oemAnswer({}));
    for (uint8_t action : {0x03, 0x02, 0x03}) c.handle(kChassis, 0, 0x02, Bytes{action});
    // Capacity 40 bytes, a line feed counted per line: the oldest lines went.
    EXPECT_EQ(log(), json({"login:", "BIOS 1.0", "login:", "BIOS 1.0", "login:"}));
    EXPECT_EQ(c.handle(kOem, 0, 0xF5, oem({0x09, 0x07})).bytes, oemAnswer({}));
    c.handle(kOem, 0, 0x02, oem({0x01})); // a graceful reboot starts the host too
    EXPECT_EQ(log(), json({"BIOS 1.0", "login:"}));
}

} // namespace
