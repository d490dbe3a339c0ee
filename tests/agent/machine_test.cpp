// tvxctl status, agent identity and network against the virtual controller: the default
// machine in order, and a machine whose fan, memory module and processor have failed.
#include <gtest/gtest.h>

#include "machine.h"
#include "process.h"

namespace {

using nlohmann::json;

TEST(StatusTool, FailedComponentsMakeTheOverallStatusCriticalAndAreNamed)
{
    tvxtest::TempDir scratch;
    const std::vector<std::string> args = {"--machine", std::string(TVX_MACHINES_DIR) + "/failing-components.json",
                                           "status"};
    tvxtest::Outcome r = tvxtest::tvxctl(scratch.path(), args);
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_NE(r.out.find("Overall status: CRITICAL\n  because of: "), std::string::npos) << r;
    const std::string because = r.out.substr(0, r.out.find("\n\n"));
    for (const char *name : {"FAN2", "DIMM-1C", "CPU2"}) EXPECT_NE(because.find(name), std::string::npos) << r;

    json j = tvxtest::tvxctlJson(scratch.path(), args);
    std::map<std::string, std::string> counts;
    for (const json &c : j["components"]) counts[c["name"]] = c["counts_as"];
    EXPECT_EQ(
        (std::vector<json>{j["overall"]["state"], j["classes"]["fans"]["state"], j["classes"]["processors"]["state"],
                           j["classes"]["memory_modules"]["state"], j["classes"]["voltages"]["state"], counts["FAN2"],
                           counts["FAN1"], counts["CPU2 Status"], counts["CPU1 Status"]}),
        (std::vector<json>{"critical", "critical", "critical", "critical", "ok", "critical", "ok", "critical", "ok"}));
}

TEST(StatusTool, DefaultMachineAgentIdentityAndNetwork)
{
    tvxtest::TempDir scratch;
    json j = tvxtest::tvxctlJson(scratch.path(), {"status"});
    EXPECT_NE(j["overall"]["state"], "critical") << j;
    EXPECT_EQ(j["boot"]["state"], "ok");
    bool emptySlotExplained = false;
    for (const json &c : j["components"]) emptySlotExplained |= c["name"] == "DIMM-1B" && c["explanation"] == "Empty Slot";
    EXPECT_TRUE(emptySlotExplained) << j;

    j = tvxtest::tvxctlJson(scratch.path(), {"agent", "identity"});
    EXPECT_EQ((std::vector<json>{j["id"], j["version"], j["build"]}),
              (std::vector<json>{"Halvex Tessorin 2 hardware monitoring agent", "Build: 3.52.0098",
                                 "Build: Jun 11 2024 08:15:42"}));

    j = tvxtest::tvxctlJson(scratch.path(), {"network", "01:00:00", "02:05:00", "09:09:09"});
    ASSERT_EQ(j.size(), 4u) << j;
    EXPECT_EQ(
        (std::vector<json>{j[0]["ipv4"], j[0]["netmask"], j[0]["ipv6"], j[0]["ipv6_gateway"], j[0]["ipv4_source"],
                           j[1]["mac"], j[1]["ipv6"], j[2]["ipv4"], j[3]["mac"]}),
        (std::vector<json>{"10.20.30.40", "255.255.255.0", "fd00:10:20:30::40 fe80::ff:fe14:1e28", "fd00:10:20:30::1",
                           "static", "02:00:0a:14:20:11", "fd00:10:20:32::11 fe80::ff:fe14:2011",
                           "192.168.50.7 192.168.51.7", "(area unavailable)"}));
}

} // namespace
