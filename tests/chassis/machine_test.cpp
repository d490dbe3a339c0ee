// The library and tvxctl against the shipped machines: each change seen by the next request and program.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <regex>

#include "machine.h"
#include "process.h"
#include "state_store.h"

using nlohmann::json;
using tvxtest::shippedProfile;

namespace {
std::string text(const json &profile, const char *id, std::size_t index = 0)
{
    const json &t = profile["config_space"][id]["text"];
    return t.is_array() ? t[index].get<std::string>() : t.get<std::string>();
}

class DefaultMachine : public testing::Test {
protected:
    json state() const { return tvxsim::StateStore::readStored(m_.dir().file("machine.state.json")); }

    const json profile_ = shippedProfile("default.json");
    tvxtest::ScratchMachine m_{profile_};
    IpmiSession *s_ = m_.session();
};

// What tvxctl does not reach, through the library.
TEST_F(DefaultMachine, ChangesAreSeenByTheNextRequestAndKeptInTheState)
{
    ASSERT_TRUE(profile_["chassis"]["power_on"].get<bool>());
    EXPECT_EQ(ipmiSendGracefullControl(s_, 7), 0);
    EXPECT_EQ(ipmiSendGracefullControl(s_, 0), 1);
    EXPECT_EQ(ipmiChassisPowerStatus(s_), 0);
    EXPECT_EQ(state()["chassis"]["power_on"], false);
    EXPECT_EQ(ipmiSendGracefullControl(s_, 0), 0) << "already off";
    EXPECT_EQ(ipmiSetIdenLed(s_, 1), 0);
    EXPECT_EQ(ipmiReset(s_, 1), 1); // warm: the LED stays
    EXPECT_EQ(ipmiGetIdenLed(s_), 1);
    EXPECT_EQ(ipmiReset(s_, 0), 1); // cold: the controller starts afresh
    EXPECT_EQ(ipmiGetIdenLed(s_), 0);
    EXPECT_EQ(ipmiPowerOnSource(s_, 0x05), 1);
    EXPECT_EQ(ipmiPowerOffSource(s_, 0x106), 1); // the low byte is sent
    EXPECT_EQ(state()["chassis"]["power_on_source"], 0x05);
    EXPECT_EQ(state()["chassis"]["power_off_source"], 0x06);

    // A variable's second value; configuration space writes and resets are tvxctl's (below).
    char dest[32];
    EXPECT_EQ(getConfigSpaceVariable(dest, sizeof dest, 1, TVX_VAR_FIRMWARE_BUILD), dest);
    EXPECT_EQ(std::string(dest), text(profile_, "0x2150", 1));
    uint8_t buffer[256];
    EXPECT_LT(ipmiReadConfigSpaceVariable(s_, 0, 0x9999, buffer), 0);
    ipmiConsoleLogStart(s_);
    EXPECT_EQ(ipmiPowerOn(s_), 1); // the host starts while its console is logged
    EXPECT_EQ(state()["console"]["log"].size(),
              profile_["console"]["log"].size() + profile_["console"]["boot_lines"].size());
    EXPECT_EQ(ipmiConsoleLogClear(s_), 0);
    EXPECT_EQ(state()["console"]["log"], json::array());
    EXPECT_EQ(ipmiResetConfigSpace(s_), 1);
    uint32_t logging = 7;
    ipmiConsoleLogGetState(s_, &logging);
    EXPECT_EQ(logging, profile_["console"]["logging"].get<bool>() ? 1u : 0u);
}

// ---- tvxctl -----------------------------------------------------------------------------------

class Cli : public testing::Test {
protected:
    tvxtest::Outcome run(const std::vector<std::string> &args) { return tvxtest::tvxctl(dir_.path(), args); }
    // Commands run one after another: exit status, and the exact output (for failures: a part of stderr).
    void steps(const std::vector<std::tuple<std::vector<std::string>, int, std::string>> &list)
    {
        for (const auto &[args, code, out] : list) {
            tvxtest::Outcome r = run(args);
            SCOPED_TRACE(testing::PrintToString(args));
            EXPECT_EQ(r.code, code) << r;
            if (code == 0) EXPECT_EQ(r.out, out) << r;
            else EXPECT_NE(r.err.find(out), std::string::npos) << r;
        }
    }
    json state() const { return tvxsim::StateStore::readStored(dir_.file("state/default.state.json")); }
    tvxtest::TempDir dir_;
};

TEST_F(Cli, ChangesAreSeenByTheNextCommandAndTheBanner)
{
    const json p = shippedProfile("default.json");
    // The banner shows the profile's texts and the machine as it is now.
    auto banner = [&](const std::string &name, const char *identify, const char *power) {
        tvxtest::Outcome r = run({"banner"});
        for (const std::string &line :
             {"\nSystem Type  : " + text(p, "0x0205"), "\nSystem Name  : " + name,
              "\nSystem Status: OK (Identify LED is " + std::string(identify) + ")",
              "\nPower Status : " + std::string(power), "\nAsset Tag    : " + text(p, "0x0210")})
            EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r;
    };
    banner(text(p, "0x0201"), "OFF", "On");
    steps({
        // clang-format off
        {{"power", "off"}, 0, "Chassis Power Control: Down/Off\n"}, {{"power", "status"}, 0, "Chassis Power is off\n"},
        {{"power", "cycle"}, 1, "power cycle was not carried out: the controller refused"}, {{"power", "on"}, 0,
         "Chassis Power Control: Up/On\n"},
        {{"power", "soft"}, 0, "Chassis Power Control: Soft\n"}, {{"power"}, 0, "Chassis Power is off\n"},
        {{"led", "identify", "on"}, 0, "Identify LED on\n"},
        {{"led", "status"}, 0, "Identify LED  : on\nSystem status : OK (error LED 0)\n"},
        {{"lan", "set", "ip", "10.20.30.77"}, 0, "Set ip to 10.20.30.77\n"},
        {{"lan", "set", "mac", "02:AA:bb:cc:dd:0e"}, 0, "Set mac to 02:AA:bb:cc:dd:0e\n"},
        {{"lan", "set", "source", "dhcp"}, 0, "Set source to dhcp\n"},
        {{"lan"}, 0, "Channel            : 1\nIP Address Source  : dhcp\nIP Address         : 10.20.30.77\n"
                     "Subnet Mask        : 255.255.255.0\nMAC Address        : 02:aa:bb:cc:dd:0e\n"
                     "Default Gateway IP : 10.20.30.1\n"},
        {{"config", "set", "0x0201", "0", "web-07"}, 0, "Written 6 bytes.\n"}, {{"config", "get", "0x0201"}, 0,
         "web-07\n"},
        {{"config", "set", "--hex", "0x1630", "0", "02"}, 1, "the controller did not store the variable"},
        {{"console-log", "start"}, 0, "Console logging on\n"}, {{"console-log", "state"}, 0, "Console logging on\n"},
        // clang-format on
    });
    banner("web-07", "ON", "Off");
    EXPECT_EQ(state()["lan"]["2"]["ip_address"], p["lan"]["channels"][1]["ip_address"]);
    EXPECT_EQ(json::parse(run({"--json", "led"}).out),
              json({{"identify", "on"}, {"error_led", 0}, {"system_status", "OK"}}));
    steps({{{"config", "reset"}, 0, "Every variable is back at its default.\n"},
           {{"config", "get", "0x0201"}, 0, text(p, "0x0201") + "\n"}});
}

TEST_F(Cli, PartitionBoardShowsTheShortBox)
{
    const json p = shippedProfile("partition-board.json");
    ASSERT_EQ(p["lan"]["channels"][0]["ip_address"].get<std::string>().rfind("127.1.2.", 0), 0u);
    tvxtest::Outcome r = run({"--machine", std::string(TVX_MACHINES_DIR) + "/partition-board.json", "banner"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_TRUE(std::regex_match(
        r.out, std::regex("\\*{44}\r\n\\* {42}\\*\r\n\\*  Welcome to KESTRAVONE Remote Manager    \\*\r\n"
                          "\\*  Firmware Revision [0-9]+\\.[0-9]+.? \\([0-9A-F]+\\.[0-9]{2}\\)          \\*\n"
                          "\\*  Firmware built " +
                          text(p, "0x2150") + " \\*\r\n\\* {42}\\*\r\n\\*{44}\r\n")))
        << r;
}

} // namespace
