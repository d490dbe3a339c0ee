// The sensor lists and getters against the virtual controller, through tvxctl: the default
// machine's sensor table and agent values powered off and on again, every status the lab
// machine's sensors stand in, sdr type/get, and the partition filter on a system board.
#include <map>

#include <gtest/gtest.h>

#include "child.h"
#include "libipmi_host.h"
#include "machine.h"
#include "process.h"
#include "tvx_toipmi.h"

namespace {

using tvxtest::json;
const std::string kMachines = TVX_MACHINES_DIR;

class SensorMachine : public ::testing::Test {
protected:
    tvxtest::Outcome tvxctl(std::vector<std::string> args) { return tvxtest::tvxctl(dir_.path(), args); }
    json jsonOf(const std::vector<std::string> &args) { return tvxtest::tvxctlJson(dir_.path(), args); }
    tvxtest::TempDir dir_;
};

TEST_F(SensorMachine, TableAndAgentValuesPowerOffAndReturn)
{
    std::map<std::string, bool> powered;
    const json profile = tvxtest::readJson(kMachines + "/default.json");
    for (const json &s : profile["sensors"]) powered[s["name"]] = s.value("powered_by_host", false);
    tvxtest::Outcome table = tvxctl({"sensor"});
    EXPECT_EQ(table.out.substr(0, table.out.find('\n')),
              "Inlet Temp       | 23.000     | C          | OK     | -5.000    "
              "| 0.000     | 5.000     | 37.000    | 42.000    | 46.000   ");
    const json on = jsonOf({"sensor"}), agentOn = jsonOf({"agent", "sensors"});
    ASSERT_EQ(on.size(), powered.size()) << "every sensor record, once";

    ASSERT_EQ(tvxctl({"power", "off"}).code, 0);
    const json off = jsonOf({"sensor"});
    for (std::size_t i = 0; i < off.size(); ++i) {
        json want = on[i];
        if (powered[want["name"]]) want["status"] = "Power Off", want["value"] = want["state_bits"] = nullptr;
        // A sensor with no state to name shows the power text, which follows the power.
        else if (want["status"] == "N/A") want["status"] = "Power Off";
        EXPECT_EQ(off[i], want);
    }
    for (const json &s : jsonOf({"agent", "sensors"})) {
        SCOPED_TRACE(s["name"].get<std::string>());
        // Power supplies report on standby power; what the host powers reads unknown and 0.
        const bool supply = s["class"] == "power supply";
        if (supply || powered[s["name"]]) {
            EXPECT_EQ(s["status"], supply ? 3 : 1);
            EXPECT_EQ(s["value"], 0);
        }
    }
    ASSERT_EQ(tvxctl({"power", "on"}).code, 0);
    EXPECT_EQ(jsonOf({"sensor"}), on);
    EXPECT_EQ(jsonOf({"agent", "sensors"}), agentOn);
}

TEST_F(SensorMachine, AgentStatusesOfTheLabMachineAndSdrQueries)
{
    std::map<std::string, json> got;
    for (const json &s : jsonOf({"--machine", kMachines + "/sensor-states.json", "agent", "sensors"}))
        got[s["name"]] = s;
    const std::map<std::string, int> statuses = {
        {"Duct Temp", 5},  {"Thermal Zone", 7}, {"Unread Temp", 2}, {"12V Aux", 7},       {"VTT Fault", 6},
        {"VCore Perf", 4}, {"FAN4", 8},         {"Power Unit", 2},  {"PSU12 Status", 13}, {"PSU13 Status", 1}};
    for (const auto &[name, code] : statuses) EXPECT_EQ(got[name]["status"], code) << name;
    EXPECT_EQ(got["CPU1 Temp"]["value"], 65) << "a processor's raw byte, whatever its factors";
    // Fan speed limits in two bytes, in four, and none.
    for (auto [fan, quality] : {std::pair{"FAN2", 89}, {"FAN3", 30}, {"FAN4", 0}})
        EXPECT_EQ(got[fan]["getters"]["getFanQuality(n, info)"], quality) << fan;
    json profile = tvxtest::readJson(kMachines + "/default.json");
    profile["fan_speed_limits"][1]["fan"] = "0x28";
    tvxtest::writeFile(dir_.file("bad.json"), profile.dump());
    EXPECT_NE(tvxctl({"--machine", dir_.file("bad.json"), "sensor"}).err.find("/fan_speed_limits/1/fan: no fan sensor"),
              std::string::npos);

    tvxtest::Outcome fans = tvxctl({"sdr", "type", "fan"}), get = tvxctl({"sdr", "get", "FAN2", "nosuch"});
    EXPECT_EQ(fans.out.substr(0, fans.out.find('\n')),
              "FAN1             | 20h | Fan ON, running |  29.1 | 5200.000 RPM");
    EXPECT_EQ(std::count(fans.out.begin(), fans.out.end(), '\n'), 4);
    EXPECT_NE(get.out.find(" Lower critical        : 500.000\n"), std::string::npos) << get.out;
    EXPECT_EQ(get.err, "tvxctl: no sensor named \"nosuch\"\n");
    EXPECT_EQ(tvxctl({"sdr", "type", "nosuchtype"}).code, 2);
}

// On a system board of a partitioned server the threshold lists keep the board's own sensors.
// In a child process: the library asks once per process what it runs on.
TEST_F(SensorMachine, PartitionedBoardListsItsOwnSensors)
{
    tvxtest::inFreshProcess([] {
        tvxtest::ScratchMachine m(tvxtest::shippedProfile("partition-board.json"));
        SDRInfo info{};
        ListNode *list = nullptr;
        ASSERT_EQ(getSDRInfo(m.session(), &info), 1);
        EXPECT_EQ(ipmiGetVoltageSensors(m.session(), &list, &info), 2);
        EXPECT_EQ(tvxtest::lines(list), (std::vector<std::string>{"SB1 12V", "SB1 3.3V"}));
        freeSDRInfo(&info);
    });
}

} // namespace
