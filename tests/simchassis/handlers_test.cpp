// The virtual controller's chassis, LED, configuration-space, console-log and LAN commands, byte
// by byte: each scenario is a series of requests on a fresh machine with the exact answers
// expected, completion codes included. Then what they leave in the state file, and profiles
// that cannot be used.
#include <gtest/gtest.h>

#include "controller.h"
#include "sim_test_util.h"

using nlohmann::json;
using simtest::Bytes;
using simtest::TempDir;
using tvxsim::Controller;

namespace {

constexpr uint8_t kChassis = 0x00, kApp = 0x06, kTransport = 0x0C, kOem = 0x2E;
constexpr uint8_t I0 = 0xD9, I1 = 0x7E, I2 = 0x00; // the vendor's IANA number, LSB first

json machine()
{
    json doc = simtest::baseProfile();
    doc["chassis"] = {{"power_on", true}, {"intrusion", true}, {"cooling_fault", true}};
    doc["leds"] = {{"error", "warning"}};
    doc["config_space"] = json::parse(R"({
      "0x0201": {"name": "SystemName", "text": "box-1"},
      "0x0072": {"u16": [60, 70]},
      "0x0300": {"text": "abcd", "max_length": 4},
      "0x0400": {"bytes": {"2": "aa bb"}},
      "0x1A3A": {"ipv6": "fd00::1"}
    })");
    doc["console"] = {{"logging", false}, {"capacity", 40}, {"log", {"old line"}}, {"boot_lines", {"BIOS 1.0", "login:"}}};
    doc["lan"] = json::parse(R"({"channels": [
      {"number": 1, "medium": "802.3", "ip_address": "10.1.2.3", "subnet_mask": "255.255.0.0",
       "default_gateway": "10.1.0.1", "mac_address": "02:00:00:00:00:01", "address_source": "static"},
      {"number": 2, "medium": "802.3", "ip_address": "10.9.9.9", "address_source": "dhcp"},
      {"number": 3, "medium": "serial"}
    ]})");
    return doc;
}

tvxsim::Profile profileOf(const json &doc) { return tvxsim::parseProfile(doc.dump(), "chassis-test.json"); }

struct Step {
    uint8_t netFn, cmd;
    Bytes request, answer;
};

struct Scenario {
    const char *name;
    std::vector<Step> steps;
};

void PrintTo(const Scenario &s, std::ostream *os) { *os << s.name; }

Bytes oem(Bytes payload) // an OEM request: IANA then the bytes
{
    payload.insert(payload.begin(), {I0, I1, I2});
    return payload;
}
Bytes oemAnswer(uint8_t code, Bytes payload = {})
{
    payload.insert(payload.begin(), {code, I0, I1, I2});
    return payload;
}

const Step kStatusOn{kChassis, 0x01, {}, {0x00, 0x01, 0x00, 0x49}};   // on; intrusion, cooling fault, identify reported
const Step kStatusOff{kChassis, 0x01, {}, {0x00, 0x00, 0x00, 0x49}};
Step control(uint8_t action, uint8_t code) { return {kChassis, 0x02, {action}, {code}}; }

class Commands : public testing::TestWithParam<Scenario> {};

TEST_P(Commands, AnswerByteForByte)
{
    Controller c(profileOf(machine()), "");
    for (std::size_t i = 0; i < GetParam().steps.size(); ++i) {
        const Step &s = GetParam().steps[i];
        tvxsim::Reply r = c.handle(s.netFn, 0, s.cmd, s.request);
        EXPECT_TRUE(r.answered);
        EXPECT_EQ(r.bytes, s.answer) << "step " << i << " (netfn " << int(s.netFn) << " cmd " << int(s.cmd) << ")";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, Commands,
    testing::Values(
        Scenario{"PowerDownAndUp",
                 {kStatusOn, control(0, 0x00), kStatusOff, control(0, 0x00), kStatusOff, control(1, 0x00),
                  {kChassis, 0x01, {}, {0x00, 0x01, 0x10, 0x49}}, // last power event: on by command
                  {kChassis, 0x07, {}, {0x00, 0x01, 0x01}}}},     // restart cause: chassis control, channel 1
        Scenario{"CycleEndsOnResetStaysOnSoftEndsOff",
                 {control(2, 0x00), {kChassis, 0x01, {}, {0x00, 0x01, 0x10, 0x49}}, control(3, 0x00),
                  control(4, 0x00), {kChassis, 0x01, {}, {0x00, 0x01, 0x10, 0x49}}, control(5, 0x00),
                  {kChassis, 0x01, {}, {0x00, 0x00, 0x10, 0x49}}}},
        Scenario{"WhatNeedsARunningHostIsRefusedWhileOff",
                 {control(0, 0x00), control(2, 0xD5), control(3, 0xD5), control(4, 0xD5), control(5, 0xD5), kStatusOff,
                  {kOem, 0x02, oem({0x00}), oemAnswer(0xD5)}, {kOem, 0x02, oem({0x01}), oemAnswer(0xD5)}}},
        Scenario{"ChassisControlChecksItsByte",
                 {control(6, 0xCC), control(0xFF, 0xCC), {kChassis, 0x02, {}, {0xC7}}, {kChassis, 0x02, {1, 0}, {0xC7}},
                  {kChassis, 0x01, {0}, {0xC7}}, kStatusOn}},
        Scenario{"ChassisIdentify",
                 {{kChassis, 0x04, {0, 1}, {0x00}}, {kChassis, 0x01, {}, {0x00, 0x01, 0x00, 0x69}}, // indefinite
                  {kOem, 0xF5, oem({0xB1}), oemAnswer(0x00, {0x01})},
                  {kChassis, 0x04, {0}, {0x00}}, kStatusOn,
                  {kChassis, 0x04, {}, {0x00}}, {kChassis, 0x01, {}, {0x00, 0x01, 0x00, 0x59}}, // 15 s: temporary
                  {kChassis, 0x04, {5, 2}, {0xCC}}, {kChassis, 0x04, {5, 1, 0}, {0xC7}}}},
        Scenario{"GracefulControl",
                 {{kOem, 0x02, oem({0x01}), oemAnswer(0x00)}, {kChassis, 0x07, {}, {0x00, 0x0A, 0x01}}, kStatusOn,
                  {kOem, 0x02, oem({0x02}), oemAnswer(0xCC)}, {kOem, 0x02, oem({}), oemAnswer(0xC7)},
                  {kOem, 0x02, oem({0x00}), oemAnswer(0x00)}, kStatusOff}},
        Scenario{"PowerSources",
                 {{kOem, 0x01, oem({0x1B, 0, 0, 0, 1, 0x07}), oemAnswer(0x00)},
                  {kOem, 0x01, oem({0x17, 0, 0, 0, 1, 0x03}), oemAnswer(0x00)},
                  {kOem, 0x01, oem({0x18, 0, 0, 0, 1, 0x03}), oemAnswer(0xCC)},
                  {kOem, 0x01, oem({0x1B, 0, 0, 0, 2, 0x03}), oemAnswer(0xCC)},
                  {kOem, 0x01, oem({0x1B, 0, 0, 0, 1}), oemAnswer(0xC7)}}},
        Scenario{"Leds",
                 {{kOem, 0xF5, oem({0xB1}), oemAnswer(0x00, {0x00})}, {kOem, 0xF5, oem({0xB3}), oemAnswer(0x00, {0x01})},
                  {kOem, 0xF5, oem({0xB0, 0x01}), oemAnswer(0x00)}, {kOem, 0xF5, oem({0xB1}), oemAnswer(0x00, {0x01})},
                  {kChassis, 0x01, {}, {0x00, 0x01, 0x00, 0x69}},
                  {kOem, 0xF5, oem({0xB0, 0x02}), oemAnswer(0xCC)}, {kOem, 0xF5, oem({0xB0}), oemAnswer(0xC7)},
                  {kOem, 0xF5, oem({0xB1, 0x00}), oemAnswer(0xC7)}, {kOem, 0xF5, oem({0xB2}), oemAnswer(0xC1)},
                  {kOem, 0xF5, oem({0xB0, 0x00}), oemAnswer(0x00)}, {kOem, 0xF5, oem({0xB1}), oemAnswer(0x00, {0x00})}}},
        Scenario{"ControllerResets",
                 {{kApp, 0x02, {}, {0x00}}, {kApp, 0x03, {}, {0x00}}, {kApp, 0x02, {1}, {0xC7}}, kStatusOn,
                  {kOem, 0xF5, oem({0xB0, 0x01}), oemAnswer(0x00)}, {kApp, 0x03, {}, {0x00}},
                  {kOem, 0xF5, oem({0xB1}), oemAnswer(0x00, {0x01})}, // a warm reset keeps the LED
                  {kApp, 0x02, {}, {0x00}}, {kOem, 0xF5, oem({0xB1}), oemAnswer(0x00, {0x00})}}},
        Scenario{"ConfigSpaceRead",
                 {{kOem, 0xE0, oem({0x01, 0, 0x01, 0x02}), oemAnswer(0x00, {5, 'b', 'o', 'x', '-', '1'})},
                  {kOem, 0xE0, oem({0x01, 1, 0x72, 0x00}), oemAnswer(0x00, {2, 70, 0})},
                  {kOem, 0xE0, oem({0x01, 2, 0x00, 0x04}), oemAnswer(0x00, {2, 0xAA, 0xBB})},
                  {kOem, 0xE0, oem({0x01, 0, 0x3A, 0x1A}),
                   oemAnswer(0x00, {16, 0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})},
                  {kOem, 0xE0, oem({0x01, 0, 0x30, 0x16}), oemAnswer(0x00, {1, 0})}, // console logging off
                  {kOem, 0xE0, oem({0x01, 0, 0x99, 0x99}), oemAnswer(0xCB)},
                  {kOem, 0xE0, oem({0x01, 2, 0x72, 0x00}), oemAnswer(0xCB)}, // no index 2
                  {kOem, 0xE0, oem({0x01, 0, 0x00, 0x04}), oemAnswer(0xCB)},
                  {kOem, 0xE0, oem({0x01, 0, 0x01}), oemAnswer(0xC7)},
                  {kOem, 0xE0, oem({0x01, 0, 0x01, 0x02, 0}), oemAnswer(0xC7)},
                  {kOem, 0xE0, oem({0x03, 0, 0x01, 0x02}), oemAnswer(0xCC)}, {kOem, 0xE0, oem({}), oemAnswer(0xC7)}}},
        Scenario{"ConfigSpaceWriteAndReset",
                 {{kOem, 0xE0, oem({0x02, 0, 0x01, 0x02, 3, 'n', 'e', 'w'}), oemAnswer(0x00)},
                  {kOem, 0xE0, oem({0x01, 0, 0x01, 0x02}), oemAnswer(0x00, {3, 'n', 'e', 'w'})},
                  {kOem, 0xE0, oem({0x02, 0, 0x01, 0x02, 0}), oemAnswer(0x00)}, // an empty value
                  {kOem, 0xE0, oem({0x01, 0, 0x01, 0x02}), oemAnswer(0x00, {0})},
                  {kOem, 0xE0, oem({0x02, 1, 0x72, 0x00, 2, 0x2C, 0x01}), oemAnswer(0x00)},
                  {kOem, 0xE0, oem({0x01, 1, 0x72, 0x00}), oemAnswer(0x00, {2, 0x2C, 0x01})},
                  {kOem, 0xE0, oem({0x01, 0, 0x72, 0x00}), oemAnswer(0x00, {2, 60, 0})}, // other index untouched
                  {kOem, 0xF5, oem({0xE0, 'C', 'L', 'X', 0xAA}), oemAnswer(0xCC)},
                  {kOem, 0xF5, oem({0xE0, 'C', 'L', 'R'}), oemAnswer(0xC7)},
                  {kOem, 0xE0, oem({0x01, 1, 0x72, 0x00}), oemAnswer(0x00, {2, 0x2C, 0x01})},
                  {kOem, 0xF5, oem({0xE0, 'C', 'L', 'R', 0xAA}), oemAnswer(0x00)},
                  {kOem, 0xE0, oem({0x01, 0, 0x01, 0x02}), oemAnswer(0x00, {5, 'b', 'o', 'x', '-', '1'})},
                  {kOem, 0xE0, oem({0x01, 1, 0x72, 0x00}), oemAnswer(0x00, {2, 70, 0})}}},
        Scenario{"ConfigSpaceRefusedWrites",
                 {{kOem, 0xE0, oem({0x02, 0, 0x01, 0x02, 4, 'a', 'b', 'c'}), oemAnswer(0xC7)}, // length says 4, 3 sent
                  {kOem, 0xE0, oem({0x02, 0, 0x01, 0x02, 2, 'a', 'b', 'c'}), oemAnswer(0xC7)},
                  {kOem, 0xE0, oem({0x02, 0, 0x01, 0x02}), oemAnswer(0xC7)},
                  {kOem, 0xE0, oem({0x02, 0, 0x00, 0x03, 5, '1', '2', '3', '4', '5'}), oemAnswer(0xC8)}, // max 4
                  {kOem, 0xE0, oem({0x02, 0, 0x72, 0x00, 1, 9}), oemAnswer(0xCC)},                  // u16
                  {kOem, 0xE0, oem({0x02, 0, 0x30, 0x16, 1, 2}), oemAnswer(0xCC)},                  // logging 0/1
                  {kOem, 0xE0, oem({0x02, 5, 0x01, 0x02, 1, 'x'}), oemAnswer(0xCB)},                // no index 5
                  {kOem, 0xE0, oem({0x02, 0, 0x99, 0x99, 1, 'x'}), oemAnswer(0xCB)},
                  {kOem, 0xE0, oem({0x01, 0, 0x01, 0x02}), oemAnswer(0x00, {5, 'b', 'o', 'x', '-', '1'})}}},
        Scenario{"ConsoleLog",
                 {{kOem, 0xF5, oem({0x09, 0x07}), oemAnswer(0x00)}, {kOem, 0xF5, oem({0x09, 0x01}), oemAnswer(0xCC)},
                  {kOem, 0xF5, oem({0x09}), oemAnswer(0xC7)}}},
        Scenario{"ChannelInfo",
                 {{kApp, 0x42, {1}, {0x00, 1, 0x04, 0x01, 0x80, 0xF2, 0x1B, 0x00, 0x00, 0x00}},
                  {kApp, 0x42, {0x0E}, {0x00, 1, 0x04, 0x01, 0x80, 0xF2, 0x1B, 0x00, 0x00, 0x00}},
                  {kApp, 0x42, {2}, {0x00, 2, 0x04, 0x01, 0x80, 0xF2, 0x1B, 0x00, 0x00, 0x00}},
                  {kApp, 0x42, {3}, {0x00, 3, 0x05, 0x01, 0x40, 0xF2, 0x1B, 0x00, 0x00, 0x00}},
                  {kApp, 0x42, {4}, {0xCC}}, {kApp, 0x42, {0}, {0xCC}}, {kApp, 0x42, {0x11}, {0xCC}},
                  {kApp, 0x42, {}, {0xC7}}, {kApp, 0x42, {1, 0}, {0xC7}}}},
        Scenario{"LanParametersRead",
                 {{kTransport, 0x02, {1, 3, 0, 0}, {0x00, 0x11, 10, 1, 2, 3}},
                  {kTransport, 0x02, {0x0E, 6, 0, 0}, {0x00, 0x11, 255, 255, 0, 0}},
                  {kTransport, 0x02, {1, 12, 0, 0}, {0x00, 0x11, 10, 1, 0, 1}},
                  {kTransport, 0x02, {1, 5, 0, 0}, {0x00, 0x11, 2, 0, 0, 0, 0, 1}},
                  {kTransport, 0x02, {1, 13, 0, 0}, {0x00, 0x11, 0, 0, 0, 0, 0, 0}},
                  {kTransport, 0x02, {1, 4, 0, 0}, {0x00, 0x11, 1}},
                  {kTransport, 0x02, {2, 4, 0, 0}, {0x00, 0x11, 2}},
                  {kTransport, 0x02, {2, 3, 0, 0}, {0x00, 0x11, 10, 9, 9, 9}},
                  {kTransport, 0x02, {1, 0, 0, 0}, {0x00, 0x11, 0}},
                  {kTransport, 0x02, {1, 1, 0, 0}, {0x00, 0x11, 0x15}},
                  {kTransport, 0x02, {0x81, 3, 0, 0}, {0x00, 0x11}}, // revision only
                  {kTransport, 0x02, {1, 2, 0, 0}, {0x80}}, {kTransport, 0x02, {1, 99, 0, 0}, {0x80}},
                  {kTransport, 0x02, {3, 3, 0, 0}, {0xCC}}, {kTransport, 0x02, {7, 3, 0, 0}, {0xCC}},
                  {kTransport, 0x02, {0x21, 3, 0, 0}, {0xCC}}, {kTransport, 0x02, {1, 3, 0}, {0xC7}}}},
        Scenario{"LanParametersWrite",
                 {{kTransport, 0x01, {2, 3, 192, 168, 7, 8}, {0x00}},
                  {kTransport, 0x02, {2, 3, 0, 0}, {0x00, 0x11, 192, 168, 7, 8}},
                  {kTransport, 0x02, {1, 3, 0, 0}, {0x00, 0x11, 10, 1, 2, 3}}, // channel 1 untouched
                  {kTransport, 0x01, {0x0E, 13, 2, 0, 0, 0, 0, 0x0F}, {0x00}},
                  {kTransport, 0x02, {1, 13, 0, 0}, {0x00, 0x11, 2, 0, 0, 0, 0, 0x0F}},
                  {kTransport, 0x01, {1, 4, 2}, {0x00}}, {kTransport, 0x02, {1, 4, 0, 0}, {0x00, 0x11, 2}},
                  {kTransport, 0x01, {1, 1, 0x15}, {0x82}}, {kTransport, 0x01, {1, 2, 0, 0, 0, 0, 0}, {0x80}},
                  {kTransport, 0x01, {1, 3, 1, 2, 3}, {0xC7}}, {kTransport, 0x01, {1, 5, 2, 0, 0, 0, 0}, {0xC7}},
                  {kTransport, 0x01, {1, 4, 5}, {0xCC}}, {kTransport, 0x01, {1, 6, 255, 0, 255, 0}, {0xCC}},
                  {kTransport, 0x01, {1, 5, 1, 0, 0, 0, 0, 1}, {0xCC}}, // multicast
                  {kTransport, 0x01, {3, 3, 1, 2, 3, 4}, {0xCC}}, {kTransport, 0x01, {0, 3, 1, 2, 3, 4}, {0xCC}},
                  {kTransport, 0x01, {1}, {0xC7}},
                  {kTransport, 0x02, {1, 3, 0, 0}, {0x00, 0x11, 10, 1, 2, 3}}}},
        Scenario{"LanSetInProgressAndCommit",
                 {{kTransport, 0x01, {1, 0, 1}, {0x00}}, {kTransport, 0x02, {1, 0, 0, 0}, {0x00, 0x11, 1}},
                  {kTransport, 0x01, {1, 0, 1}, {0x81}}, // already in progress
                  {kTransport, 0x01, {1, 3, 10, 1, 2, 99}, {0x00}},
                  {kTransport, 0x02, {1, 3, 0, 0}, {0x00, 0x11, 10, 1, 2, 3}}, // not yet committed
                  {kTransport, 0x01, {1, 0, 2}, {0x00}}, {kTransport, 0x02, {1, 3, 0, 0}, {0x00, 0x11, 10, 1, 2, 99}},
                  {kTransport, 0x01, {1, 3, 10, 1, 2, 100}, {0x00}}, {kTransport, 0x01, {1, 0, 0}, {0x00}}, // rolled back
                  {kTransport, 0x02, {1, 3, 0, 0}, {0x00, 0x11, 10, 1, 2, 99}},
                  {kTransport, 0x02, {1, 0, 0, 0}, {0x00, 0x11, 0}},
                  {kTransport, 0x01, {1, 0, 3}, {0xCC}}, {kTransport, 0x01, {1, 0, 0x41}, {0xCC}},
                  {kTransport, 0x01, {1, 0, 1}, {0x00}}, {kTransport, 0x01, {1, 3, 1, 1, 1, 1}, {0x00}},
                  {kApp, 0x02, {}, {0x00}}, // a controller restart forgets the set in progress
                  {kTransport, 0x02, {1, 0, 0, 0}, {0x00, 0x11, 0}},
                  {kTransport, 0x01, {1, 0, 2}, {0x00}},
                  {kTransport, 0x02, {1, 3, 0, 0}, {0x00, 0x11, 10, 1, 2, 99}}}}),
    [](const testing::TestParamInfo<Scenario> &i) { return std::string(i.param.name); });

// Whatever arrives, every command answers with a completion code and never reads past the
// request (the sanitizers watch); a fixed seed keeps the run repeatable.
TEST(Commands, ArbitraryRequestsAreAnsweredNotCrashedOn)
{
    Controller c(profileOf(machine()), "");
    const struct {
        uint8_t netFn, cmd;
        Bytes prefix;
    } commands[] = {{kChassis, 0x01, {}},        {kChassis, 0x02, {}},        {kChassis, 0x04, {}},
                    {kChassis, 0x07, {}},        {kApp, 0x02, {}},            {kApp, 0x03, {}},
                    {kApp, 0x42, {}},            {kTransport, 0x01, {}},      {kTransport, 0x02, {}},
                    {kOem, 0x01, oem({})},       {kOem, 0x02, oem({})},       {kOem, 0xE0, oem({0x01})},
                    {kOem, 0xE0, oem({0x02})},   {kOem, 0xF5, oem({0xB0})},   {kOem, 0xF5, oem({0xB1})},
                    {kOem, 0xF5, oem({0xB3})},   {kOem, 0xF5, oem({0xE0})},   {kOem, 0xF5, oem({0x09})}};
    uint32_t seed = 12345;
    auto next = [&] { return seed = seed * 1103515245u + 12345u, static_cast<uint8_t>(seed >> 16); };
    for (int round = 0; round < 300; ++round) {
        for (const auto &cmd : commands) {
            Bytes req = cmd.prefix;
            std::size_t extra = next() % (round % 10 == 0 ? 255 : 12);
            for (std::size_t i = 0; i < extra; ++i) req.push_back(next() % 4 == 0 ? 0 : next());
            tvxsim::Reply r = c.handle(cmd.netFn, 0, cmd.cmd, req);
            ASSERT_TRUE(r.answered);
            ASSERT_FALSE(r.bytes.empty());
            if (cmd.netFn == kOem) {
                ASSERT_GE(r.bytes.size(), 4u);
            }
            ASSERT_LE(r.bytes.size(), 255u);
        }
    }
}

// ---- what stays in the state file ------------------------------------------------------------

json storedState(const Controller &c) { return json::parse(simtest::readFile(c.statePath()))["state"]; }

TEST(ChassisState, PowerAndSettingsPersistForTheNextProgram)
{
    TempDir dir;
    {
        Controller c(profileOf(machine()), dir.path());
        EXPECT_EQ(storedState(c)["chassis"]["power_on"], true);
        c.handle(kChassis, 0, 0x02, Bytes{0x00});
        // Other subsystems read the power exactly here.
        EXPECT_EQ(storedState(c)["chassis"]["power_on"], false);
        c.handle(kOem, 0, 0x01, oem({0x1B, 0, 0, 0, 1, 0x42}));
        c.handle(kOem, 0, 0xE0, oem({0x02, 0, 0x01, 0x02, 2, 'h', 'i'}));
        c.handle(kTransport, 0, 0x01, Bytes{2, 6, 255, 255, 255, 128});
    }
    Controller next(profileOf(machine()), dir.path());
    json s = storedState(next);
    EXPECT_EQ(s["chassis"]["power_on_source"], 0x42);
    EXPECT_EQ(next.handle(kChassis, 0, 0x01, {}).bytes, kStatusOff.answer);
    EXPECT_EQ(next.handle(kOem, 0, 0xE0, oem({0x01, 0, 0x01, 0x02})).bytes, oemAnswer(0x00, {2, 'h', 'i'}));
    EXPECT_EQ(next.handle(kTransport, 0, 0x02, Bytes{2, 6, 0, 0}).bytes, (Bytes{0x00, 0x11, 255, 255, 255, 128}));
    EXPECT_EQ(s["lan"]["2"]["subnet_mask"], "255.255.255.128");
}

TEST(ChassisState, ConsoleLogTakesBootLinesWhileLoggingAndKeepsTheNewest)
{
    TempDir dir;
    Controller c(profileOf(machine()), dir.path());
    auto log = [&] { return storedState(c)["console"]["log"]; };
    EXPECT_EQ(log(), json({"old line"}));
    c.handle(kChassis, 0, 0x02, Bytes{0x03}); // a restart while logging is off writes nothing
    EXPECT_EQ(log(), json({"old line"}));
    ASSERT_EQ(c.handle(kOem, 0, 0xE0, oem({0x02, 0, 0x30, 0x16, 1, 1})).bytes, oemAnswer(0x00));
    for (uint8_t action : {0x03, 0x02, 0x03}) c.handle(kChassis, 0, 0x02, Bytes{action});
    // Capacity 40 bytes, a line feed counted per line: the oldest lines went.
    EXPECT_EQ(log(), json({"login:", "BIOS 1.0", "login:", "BIOS 1.0", "login:"}));
    c.handle(kOem, 0, 0xF5, oem({0x09, 0x07}));
    EXPECT_EQ(log(), json::array());
    c.handle(kOem, 0, 0x02, oem({0x01})); // a graceful reboot starts the host too
    EXPECT_EQ(log(), json({"BIOS 1.0", "login:"}));
}

// A state file from an older program, or edited by hand, falls back to the profile: no state
// makes a command fail.
TEST(ChassisState, UnreadableMembersFallBackToTheProfile)
{
    TempDir dir;
    std::string path;
    {
        Controller c(profileOf(machine()), dir.path());
        path = c.statePath();
    }
    json doc = json::parse(simtest::readFile(path));
    doc["state"]["chassis"] = {{"power_on", "yes"}, {"last_power_event", -4}};
    doc["state"]["leds"] = 7;
    doc["state"]["config_space"] = {{"0x0201", {{"0", "zz"}}}, {"0x0072", {{"1", "01"}}}};
    doc["state"]["lan"] = {{"1", {{"ip_address", 17}, {"subnet_mask", "255.255.0.0.0"}, {"set_in_progress", 3}}}, {"2", "x"}};
    doc["state"].erase("console");
    simtest::writeFile(path, doc.dump());
    Controller c(profileOf(machine()), dir.path());
    EXPECT_EQ(c.handle(kChassis, 0, 0x01, {}).bytes, kStatusOn.answer);
    EXPECT_EQ(c.handle(kOem, 0, 0xF5, oem({0xB3})).bytes, oemAnswer(0x00, {0x01}));
    EXPECT_EQ(c.handle(kOem, 0, 0xE0, oem({0x01, 0, 0x01, 0x02})).bytes, oemAnswer(0x00, {5, 'b', 'o', 'x', '-', '1'}));
    EXPECT_EQ(c.handle(kOem, 0, 0xE0, oem({0x01, 1, 0x72, 0x00})).bytes, oemAnswer(0x00, {2, 70, 0}));
    EXPECT_EQ(c.handle(kTransport, 0, 0x02, Bytes{1, 3, 0, 0}).bytes, (Bytes{0x00, 0x11, 10, 1, 2, 3}));
    EXPECT_EQ(c.handle(kTransport, 0, 0x02, Bytes{1, 6, 0, 0}).bytes, (Bytes{0x00, 0x11, 255, 255, 0, 0}));
    EXPECT_EQ(c.handle(kTransport, 0, 0x01, Bytes{2, 3, 1, 2, 3, 4}).bytes, Bytes{0x00});
    EXPECT_EQ(c.handle(kTransport, 0, 0x02, Bytes{2, 3, 0, 0}).bytes, (Bytes{0x00, 0x11, 1, 2, 3, 4}));
    EXPECT_EQ(c.handle(kOem, 0, 0xF5, oem({0x09, 0x07})).bytes, oemAnswer(0x00));
}

// ---- profiles ---------------------------------------------------------------------------------

struct BadProfile {
    const char *name;
    const char *pointer; // where the sections below are put
    json value;
    const char *message; // expected after "chassis-test.json: "
};

void PrintTo(const BadProfile &b, std::ostream *os) { *os << b.name; }

class Profiles : public testing::TestWithParam<BadProfile> {};

TEST_P(Profiles, BadSectionIsNamedWithItsPlace)
{
    json doc = machine();
    doc[json::json_pointer(GetParam().pointer)] = GetParam().value;
    try {
        profileOf(doc);
        FAIL() << "accepted";
    } catch (const tvxsim::ProfileError &e) {
        EXPECT_NE(std::string(e.what()).find(std::string("chassis-test.json: ") + GetParam().message), std::string::npos)
            << e.what();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, Profiles,
    testing::Values(
        BadProfile{"UnknownSection", "/power", json::object(), "/power: unknown key \"power\""},
        BadProfile{"PowerNotBool", "/chassis/power_on", "on", "/chassis/power_on: expected true or false"},
        BadProfile{"UnknownPolicy", "/chassis/power_restore_policy", "sometimes",
                   "/chassis/power_restore_policy: unknown name \"sometimes\""},
        BadProfile{"MisspeltChassisKey", "/chassis/poweron", true, "/chassis/poweron: unknown key"},
        BadProfile{"ErrorLedName", "/leds/error", "red", "/leds/error: unknown name \"red\""},
        BadProfile{"VariableIdNotANumber", "/config_space/name", json{{"text", "x"}}, "/config_space/name: expected an integer"},
        BadProfile{"VariableIdTooLarge", "/config_space/0x10000", json{{"text", "x"}}, "/config_space/0x10000: expected an integer"},
        BadProfile{"VariableTwice", "/config_space/0x201", json{{"text", "x"}}, "/config_space/0x201: variable 0x201 is declared twice"},
        BadProfile{"VariableWithoutValue", "/config_space/0x0500", json{{"name", "x"}}, "/config_space/0x0500: missing the value"},
        BadProfile{"VariableTwoKinds", "/config_space/0x0500", json{{"text", "x"}, {"u8", 1}}, "/config_space/0x0500: give one of"},
        BadProfile{"U8TooLarge", "/config_space/0x0500", json{{"u8", {1, 256}}}, "/config_space/0x0500/u8/1: expected an integer from 0 to 255"},
        BadProfile{"TextTooLong", "/config_space/0x0500", json{{"text", std::string(251, 'x')}}, "/config_space/0x0500/text: the value at index 0 has 251 bytes"},
        BadProfile{"LongerThanItsMaximum", "/config_space/0x0500", json{{"text", "abc"}, {"max_length", 2}}, "/config_space/0x0500/text: the value at index 0 has 3 bytes; at most 2 fit"},
        BadProfile{"BadIpv6", "/config_space/0x0500", json{{"ipv6", "fd00::zz"}}, "/config_space/0x0500/ipv6: expected an IPv6 address"},
        BadProfile{"BadIndex", "/config_space/0x0500", json{{"u8", {{"300", 1}}}}, "/config_space/0x0500/u8/300: expected an integer from 0 to 255"},
        BadProfile{"LoggingDeclaredTwice", "/config_space/0x1630", json{{"u8", 1}}, "/config_space/0x1630: ConfConsLoggingEnable"},
        BadProfile{"ConsoleLineNotText", "/console/log", json{1}, "/console/log/0: expected a string"},
        BadProfile{"BadIpAddress", "/lan/channels/0/ip_address", "10.1.2", "/lan/channels/0/ip_address: expected an address"},
        BadProfile{"GappedMask", "/lan/channels/0/subnet_mask", "255.0.255.0", "/lan/channels/0/subnet_mask: a subnet mask is ones"},
        BadProfile{"BadMac", "/lan/channels/1/mac_address", "02:00:00:00:00", "/lan/channels/1/mac_address: expected an address"},
        BadProfile{"MulticastMac", "/lan/channels/1/mac_address", "01:00:5e:00:00:01", "/lan/channels/1/mac_address: a multicast"},
        BadProfile{"UnknownMedium", "/lan/channels/2/medium", "fiber", "/lan/channels/2/medium: unknown name \"fiber\""},
        BadProfile{"LanSettingOnSerial", "/lan/channels/2/ip_address", "10.0.0.1", "/lan/channels/2/ip_address: LAN settings belong to 802.3"},
        BadProfile{"ChannelTwice", "/lan/channels/2/number", 1, "/lan/channels/2/number: channel 1 is declared twice"},
        BadProfile{"CurrentChannelNumber", "/lan/channels/2/number", 14, "/lan/channels/2/number: channel 14 (0x0E)"},
        BadProfile{"ChannelMissingNumber", "/lan/channels/3", json{{"medium", "802.3"}}, "/lan/channels/3: missing \"number\""},
        BadProfile{"CurrentChannelAbsent", "/lan/current_channel", 9, "/lan/current_channel: channel 9 is not among"}),
    [](const testing::TestParamInfo<BadProfile> &i) { return std::string(i.param.name); });

TEST(Profiles, CurrentChannelAndIndicesAsTheProfileSaysThem)
{
    json doc = machine();
    doc["lan"]["current_channel"] = 2;
    doc["config_space"]["0x0500"] = {{"text", {"zero", nullptr, "two"}}};
    Controller c(profileOf(doc), "");
    EXPECT_EQ(c.handle(kApp, 0, 0x42, Bytes{0x0E}).bytes[1], 2);
    EXPECT_EQ(c.handle(kTransport, 0, 0x02, Bytes{0x0E, 3, 0, 0}).bytes, (Bytes{0x00, 0x11, 10, 9, 9, 9}));
    EXPECT_EQ(c.handle(kOem, 0, 0xE0, oem({0x01, 2, 0x00, 0x05})).bytes, oemAnswer(0x00, {3, 't', 'w', 'o'}));
    EXPECT_EQ(c.handle(kOem, 0, 0xE0, oem({0x01, 1, 0x00, 0x05})).bytes, oemAnswer(0xCB));

    // A machine without LAN channels answers none, not even the current one.
    doc.erase("lan");
    Controller bare(profileOf(doc), "");
    for (uint8_t ch : {0x01, 0x0E}) EXPECT_EQ(bare.handle(kApp, 0, 0x42, Bytes{ch}).bytes, Bytes{0xCC});
}

TEST(Profiles, ShippedMachinesLoad)
{
    for (const char *name : {"default.json", "partition-board.json"}) {
        tvxsim::Profile p = tvxsim::loadProfile(std::string(TVX_MACHINES_DIR) + "/" + name);
        ASSERT_FALSE(p.settings.lan.channels.empty()) << name;
        EXPECT_EQ(p.settings.lan.channels[0].number, 1) << name;
        EXPECT_EQ(p.settings.lan.channels[0].medium, tvxsim::kMediumLan) << name;
        for (uint16_t id : {0x0201, 0x0205, 0x0207, 0x020F, 0x0210, 0x2150, 0x2151, 0x0071, 0x0072, 0x0073, 0x1412, 0x1A25,
                            0x1A36, 0x1A3A, 0x1630})
            EXPECT_EQ(p.settings.configSpace.count(id), 1u) << name << " lacks variable " << std::hex << id;
        EXPECT_EQ(p.settings.configSpace.at(0x2150).defaults.count(1), 1u) << name;
    }
}

} // namespace
