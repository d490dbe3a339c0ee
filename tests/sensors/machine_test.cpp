// The sensor lists and getters against the virtual controller: tvxctl's sensor table and the
// agent's values on the default machine, powered off and on again; every status the lab
// machine's sensors stand in; the partition filter on a system board; the fan speed limits.
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "scratch.h"
#include "tvxctl_runner.h"
#include "libipmi_host.h"
#include "tvx_toipmi.h"

namespace {

using tvxtest::json;
const std::string kMachines = TVX_MACHINES_DIR;

class SensorMachine : public ::testing::Test {
protected:
    tvxtest::Outcome tvxctl(std::vector<std::string> args)
    {
        return tvxtest::runTvxctl(TVXCTL_PATH, dir_.path(), std::move(args));
    }
    json jsonOf(std::vector<std::string> args)
    {
        tvxtest::Outcome r = tvxctl(std::move(args));
        EXPECT_EQ(r.code, 0) << r;
        EXPECT_EQ(r.err, "");
        return r.code == 0 ? json::parse(r.out) : json();
    }
    tvxtest::TempDir dir_;
};

TEST_F(SensorMachine, TableShowsEverySensorPowerOffAndValuesReturn)
{
    const json profile = tvxtest::readJson(kMachines + "/default.json");
    std::map<std::string, bool> powered;
    for (const json &s : profile["sensors"]) powered[s["name"]] = s.value("powered_by_host", false);

    tvxtest::Outcome table = tvxctl({"sensor"});
    ASSERT_EQ(table.code, 0) << table;
    EXPECT_EQ(table.out.substr(0, table.out.find('\n')), "Inlet Temp       | 23.000     | C          | OK     | -5.000    "
                                                         "| 0.000     | 5.000     | 37.000    | 42.000    | 46.000   ");
    const json on = jsonOf({"--json", "sensor"});
    const json agentOn = jsonOf({"--json", "agent", "sensors"});
    ASSERT_EQ(on.size(), powered.size()) << "every sensor record, once";

    ASSERT_EQ(tvxctl({"power", "off"}).code, 0);
    const json off = jsonOf({"--json", "sensor"});
    ASSERT_EQ(off.size(), on.size());
    for (std::size_t i = 0; i < off.size(); ++i) {
        SCOPED_TRACE(off[i]["name"].get<std::string>());
        if (powered[off[i]["name"]]) {
            EXPECT_EQ(off[i]["status"], "Power Off");
            EXPECT_TRUE(off[i]["value"].is_null());
            EXPECT_EQ(off[i]["thresholds"], on[i]["thresholds"]);
        } else {
            EXPECT_EQ(off[i], on[i]);
        }
    }
    for (const json &s : jsonOf({"--json", "agent", "sensors"})) {
        SCOPED_TRACE(s["name"].get<std::string>());
        if (s["class"] == "power supply") {
            EXPECT_EQ(s["status"], 3) << "the supplies report on standby power";
            EXPECT_EQ(s["value"], 0) << "their loads are powered by the host";
        } else if (powered[s["name"]]) {
            EXPECT_EQ(s["status"], 1);
            EXPECT_EQ(s["value"], 0);
        }
    }

    ASSERT_EQ(tvxctl({"power", "on"}).code, 0);
    EXPECT_EQ(jsonOf({"--json", "sensor"}), on);
    EXPECT_EQ(jsonOf({"--json", "agent", "sensors"}), agentOn);
}

TEST_F(SensorMachine, AgentStatusesOfTheLabMachine)
{
    std::map<std::string, json> byName;
    for (const json &s : jsonOf({"--machine", kMachines + "/sensor-states.json", "--json", "agent", "sensors"}))
        byName[s["name"]] = s;
    const std::map<std::string, int> statuses = {
        {"Inlet Temp", 8},   {"Rear Temp", 8},   {"Duct Temp", 5},    {"VR Temp", 6},     {"PCH Temp", 7},
        {"GPU Temp", 5},     {"Thermal Zone", 7}, {"Unread Temp", 2}, {"12V", 3},         {"12V Aux", 7},
        {"12V Riser", 4},    {"12V GPU", 5},     {"VTT Fault", 6},    {"VCore Perf", 4},  {"12V Current", 3},
        {"FAN1", 3},         {"FAN2", 5},        {"FAN3", 4},         {"FAN4", 8},        {"FAN5", 8},
        {"Power Unit", 2},   {"PSU1 Status", 2}, {"PSU2 Status", 3},  {"PSU12 Status", 13}, {"PSU13 Status", 1},
        {"PSU3 Load", 5}};
    for (const auto &[name, code] : statuses) EXPECT_EQ(byName[name]["status"], code) << name;
    EXPECT_EQ(byName["CPU1 Temp"]["value"], 65) << "a processor's raw byte, whatever its factors";
    EXPECT_EQ(byName["FAN2"]["getters"]["getFanQuality(n, info)"], 89);
    EXPECT_EQ(byName["FAN3"]["getters"]["getFanQuality(n, info)"], 30);
    EXPECT_EQ(byName["FAN1"]["getters"]["getFanFailShutdownDelay(n, info)"], 300);
    EXPECT_EQ(byName["PSU3 Status"]["value"], 88);
}

TEST_F(SensorMachine, SdrTypeAndGetSelectSensors)
{
    tvxtest::Outcome fans = tvxctl({"sdr", "type", "fan"});
    ASSERT_EQ(fans.code, 0) << fans;
    EXPECT_EQ(fans.out.substr(0, fans.out.find('\n')), "FAN1             | 20h | Fan ON, running |  29.1 | 5200.000 RPM");
    EXPECT_EQ(std::count(fans.out.begin(), fans.out.end(), '\n'), 4);
    EXPECT_EQ(jsonOf({"--json", "sdr", "type", "0xe8"}).size(), 2u);
    tvxtest::Outcome get = tvxctl({"sdr", "get", "FAN2", "nosuch"});
    EXPECT_EQ(get.code, 1);
    EXPECT_NE(get.out.find(" Lower critical        : 500.000\n"), std::string::npos) << get.out;
    EXPECT_EQ(get.err, "tvxctl: no sensor named \"nosuch\"\n");
    EXPECT_EQ(tvxctl({"sdr", "type", "nosuchtype"}).code, 2);
    EXPECT_EQ(tvxctl({"sensor", "--type", "pressure"}).code, 2);
}

// The controller's fan speed limits, and a profile that gives limits to something not a fan.
TEST_F(SensorMachine, FanSpeedLimitsComeFromTheProfile)
{
    ASSERT_EQ(ipmihost_select_machine(nullptr, dir_.path().c_str()), 0) << ipmihost_last_error();
    IpmiSession *s = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
    uint32_t first = 0, second = 0;
    EXPECT_EQ(ipmiGetFanMaximumSpeed(s, 0x21, &first, &second), 1);
    EXPECT_EQ(first, 4500u);
    EXPECT_EQ(second, 6000u);
    EXPECT_EQ(ipmiGetFanMaximumSpeed(s, 0x28, &first, &second), 0) << "no limits for a fan status sensor";
    ipmiHelperCloseSession(&s);

    json profile = tvxtest::readJson(kMachines + "/default.json");
    profile["fan_speed_limits"][1]["fan"] = "0x28";
    tvxtest::writeFile(dir_.file("bad.json"), profile.dump());
    EXPECT_NE(ipmihost_select_machine(dir_.file("bad.json").c_str(), dir_.path().c_str()), 0);
    EXPECT_NE(std::string(ipmihost_last_error()).find("/fan_speed_limits/1/fan: no fan sensor"), std::string::npos)
        << ipmihost_last_error();
    ipmihost_select_default();
}

// On a system board of a partitioned server the threshold lists keep the board's own sensors.
// (In a child process: the library asks once per process what it runs on.)
TEST_F(SensorMachine, PartitionedBoardListsItsOwnSensors)
{
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        bool ok = ipmihost_select_machine((kMachines + "/partition-board.json").c_str(), dir_.path().c_str()) == 0;
        IpmiSession *s = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
        SDRInfo info{};
        ok = ok && getSDRInfo(s, &info) == 1;
        ListNode *list = nullptr;
        ok = ok && ipmiGetVoltageSensors(s, &list, &info) == 2 && list && list->next &&
             std::string(reinterpret_cast<char *>(list->data)) == "SB1 12V" &&
             std::string(reinterpret_cast<char *>(list->next->data)) == "SB1 3.3V";
        freeList(&list);
        freeSDRInfo(&info);
        ipmiHelperCloseSession(&s);
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

} // namespace
