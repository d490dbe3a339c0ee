// The test trap end to end: tvxctl points the virtual controller's alert destinations at a
// real snmptrapd on loopback, and trap test makes the controller send its Platform Event Traps
// there; a destination that refuses the event parameters gets the plain alert instead.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "machine.h"
#include "process.h"

namespace {

using nlohmann::json;

TEST(TestTrap, ReachesSnmptrapdAndARefusingDestinationGetsThePlainAlert)
{
    tvxtest::TempDir dir;
    json profile = tvxtest::shippedProfile("default.json");
    profile["lan"]["channels"][0]["alert_destinations"] = json::parse(R"([{}, {"refuses_event": true}])");
    const std::string machine = dir.file("alerts.json");
    tvxtest::writeFile(machine, profile.dump());
    tvxtest::writeFile(dir.file("snmptrapd.conf"), "disableAuthorization yes\n");
    const std::string port = std::to_string(tvxtest::freeUdpPort()), log = dir.file("traps.log");
    tvxtest::Daemon trapd({SNMPTRAPD_PATH, "-f", "-Lo", "-n", "-C", "-m", "", "-c", dir.file("snmptrapd.conf"),
                            "udp:127.0.0.1:" + port},
                           {}, log);
    auto tvxctl = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"--machine", machine});
        return tvxtest::tvxctl(dir.path(), args);
    };
    for (const char *n : {"1", "2"}) ASSERT_EQ(tvxctl({"lan", "alert", "set", n, "127.0.0.1:" + port}).code, 0);
    const tvxtest::Outcome listed = tvxctl({"lan", "alert", "list"});
    EXPECT_NE(listed.out.find("2    PET trap  127.0.0.1:" + port), std::string::npos) << listed;

    // snmptrapd may still be starting: the first traps can be lost, so try until they arrive.
    std::string traps;
    tvxtest::Outcome r;
    for (int attempt = 0; attempt < 50 && traps.find("(15)") == std::string::npos; ++attempt) {
        r = tvxctl({"trap", "test"});
        ASSERT_EQ(r.code, 0) << r;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        traps = tvxtest::readFile(log);
    }
    EXPECT_NE(r.out.find("  1   127.0.0.1:" + port + "       trap sent with the test event"), std::string::npos) << r;
    EXPECT_NE(r.out.find("refused: completion code 0x83 (platform event parameters not supported); plain alert sent"),
              std::string::npos)
        << r;
    // The test event: System Event sensor type, sensor-specific, offset 4; its data in the PET.
    EXPECT_NE(traps.find("SNMP v1, community public"), std::string::npos) << traps;
    EXPECT_NE(traps.find("3.6.1.4.1.3183.1.1 Enterprise Specific Trap (1208068)"), std::string::npos) << traps;
    traps.erase(std::remove_if(traps.begin(), traps.end(), [](char c) { return c == ' ' || c == '\n'; }), traps.end());
    EXPECT_NE(traps.find("20200020FF0000E40180FFFFFFFFFF19"), std::string::npos) << traps;
    EXPECT_NE(traps.find("(15)"), std::string::npos) << traps; // the plain alert: no event
    EXPECT_EQ(trapd.stop(), 0);
}

} // namespace
