// tvxctl against the shipped machines: each change seen by the next command and the banner.
#include <gtest/gtest.h>

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

} // namespace
