// tvxctl status, agent identity and network against the virtual controller: the default
// machine in order, and a machine whose fan, memory module and processor have failed.
#include <gtest/gtest.h>

#include "machine.h"
#include "process.h"

namespace {

using nlohmann::json;

class StatusTool : public ::testing::Test {
protected:
    tvxtest::Outcome run(std::vector<std::string> args, const std::string &machine = "")
    {
        if (!machine.empty()) args.insert(args.begin(), {"--machine", std::string(TVX_MACHINES_DIR) + "/" + machine});
        return tvxtest::tvxctl(scratch_.path(), args);
    }
    tvxtest::TempDir scratch_;
};

TEST_F(StatusTool, FailedComponentsMakeTheOverallStatusCriticalAndAreNamed)
{
    tvxtest::Outcome r = run({"status"}, "failing-components.json");
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_NE(r.out.find("Overall status: CRITICAL\n  because of: "), std::string::npos) << r;
    const std::string because = r.out.substr(0, r.out.find("\n\n"));
    for (const char *name : {"FAN2", "DIMM-1C", "CPU2"}) EXPECT_NE(because.find(name), std::string::npos) << r;

    json j = tvxtest::tvxctlJson(scratch_.path(), {"--machine", std::string(TVX_MACHINES_DIR) + "/failing-components.json", "status"});
    EXPECT_EQ(j["overall"]["state"], "critical");
    for (const char *cls : {"fans", "processors", "memory_modules"}) EXPECT_EQ(j["classes"][cls]["state"], "critical") << cls;
    EXPECT_EQ(j["classes"]["voltages"]["state"], "ok");
    std::map<std::string, std::string> counts;
    for (const json &c : j["components"]) counts[c["name"]] = c["counts_as"];
    EXPECT_EQ(counts["FAN2"], "critical");
    EXPECT_EQ(counts["FAN1"], "ok");
    EXPECT_EQ(counts["CPU2 Status"], "critical");
    EXPECT_EQ(counts["CPU1 Status"], "ok");
}

TEST_F(StatusTool, DefaultMachineAgentIdentityAndNetwork)
{
    json j = tvxtest::tvxctlJson(scratch_.path(), {"status"});
    EXPECT_NE(j["overall"]["state"], "critical") << j;
    EXPECT_EQ(j["boot"]["state"], "ok");
    bool emptySlotExplained = false;
    for (const json &c : j["components"]) emptySlotExplained |= c["name"] == "DIMM-1B" && c["explanation"] == "Empty Slot";
    EXPECT_TRUE(emptySlotExplained) << j;

    j = tvxtest::tvxctlJson(scratch_.path(), {"agent", "identity"});
    EXPECT_EQ(j["id"], "Halvex Tessorin 2 hardware monitoring agent");
    EXPECT_EQ(j["version"], "Build: 3.52.0098");
    EXPECT_EQ(j["build"], "Build: Jun 11 2024 08:15:42");

    j = tvxtest::tvxctlJson(scratch_.path(), {"network", "01:00:00", "02:05:00", "09:09:09"});
    ASSERT_EQ(j.size(), 4u) << j;
    EXPECT_EQ(j[0]["ipv4"], "10.20.30.40");
    EXPECT_EQ(j[0]["netmask"], "255.255.255.0");
    EXPECT_EQ(j[0]["ipv6"], "fd00:10:20:30::40 fe80::ff:fe14:1e28");
    EXPECT_EQ(j[0]["ipv6_gateway"], "fd00:10:20:30::1");
    EXPECT_EQ(j[0]["ipv4_source"], "static");
    EXPECT_EQ(j[1]["mac"], "02:00:0a:14:20:11");
    EXPECT_EQ(j[1]["ipv6"], "fd00:10:20:32::11 fe80::ff:fe14:2011");
    EXPECT_EQ(j[2]["ipv4"], "192.168.50.7 192.168.51.7");
    EXPECT_EQ(j[3]["mac"], "(area unavailable)");
}

} // namespace
