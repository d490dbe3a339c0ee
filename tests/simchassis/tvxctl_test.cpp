// tvxctl against the shipped machines, one process per command as a user runs it: the login
// banner byte for byte, changes made by one command seen by the next, JSON output, and the
// errors for bad arguments, refused settings and bad profiles.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sim_test_util.h"
#include "tvxctl_runner.h"

extern char **environ;

using nlohmann::json;

namespace {

const std::string kMachines = TVX_MACHINES_DIR;

using tvxtest::Outcome;

struct Step {
    std::vector<std::string> args;
    int code;
    std::string out; // exact; for failures: a part of the message
};

class Cli : public testing::Test {
protected:
    // Commands run one after another, each answer checked.
    void steps(const std::vector<Step> &list)
    {
        for (const Step &s : list) {
            Outcome r = run(s.args);
            SCOPED_TRACE(testing::PrintToString(s.args));
            EXPECT_EQ(r.code, s.code) << r;
            if (s.code == 0) EXPECT_EQ(r.out, s.out) << r;
            else EXPECT_NE(r.err.find(s.out), std::string::npos) << r;
        }
    }

    // tvxctl with a home and state directory of its own, never the user's.
    Outcome run(std::vector<std::string> args) { return tvxtest::runTvxctl(TVXCTL_PATH, dir_.path(), args); }
    json runJson(const std::vector<std::string> &args)
    {
        std::vector<std::string> full = {"--json"};
        full.insert(full.end(), args.begin(), args.end());
        Outcome r = run(full);
        EXPECT_EQ(r.code, 0) << r;
        return json::parse(r.out, nullptr, false);
    }
    json state(const std::string &machine = "default") const
    {
        return json::parse(simtest::readFile(dir_.file("state/" + machine + ".state.json")))["state"];
    }

    simtest::TempDir dir_;
};

json machine(const std::string &name) { return json::parse(simtest::readFile(kMachines + "/" + name)); }

std::string text(const json &profile, const char *id, std::size_t index = 0)
{
    const json &t = profile["config_space"][id]["text"];
    return t.is_array() ? t[index].get<std::string>() : t.get<std::string>();
}

// ---- the login banner ---------------------------------------------------------------------------

// What the profile's controller section says of the firmware: the four auxiliary bytes and the
// two revision bytes (the minor one in BCD, as Get Device ID carries it).
struct Firmware {
    unsigned aux[4], major, minorByte;
};

Firmware firmware(const json &profile)
{
    Firmware f{};
    std::istringstream aux(profile["controller"]["aux_firmware_revision"].get<std::string>());
    for (unsigned &a : f.aux) aux >> std::hex >> a;
    std::string rev = profile["controller"]["firmware_revision"];
    f.major = std::stoul(rev.substr(0, rev.find('.')));
    f.minorByte = std::stoul(rev.substr(rev.find('.') + 1), nullptr, 16);
    return f;
}

std::string pad(std::string s, std::size_t width, bool right = false)
{
    if (s.size() >= width) return s.substr(0, width);
    return right ? std::string(width - s.size(), ' ') + s : s + std::string(width - s.size(), ' ');
}
std::string twoDigits(unsigned v) { return (v < 10 ? "0" : "") + std::to_string(v); }
std::string upperHex(unsigned v)
{
    char b[8];
    std::snprintf(b, sizeof b, "%X", v);
    return b;
}
// A line of the standard box: 48 characters and " *".
std::string boxed(const std::string &s) { return pad(s, 48) + " *"; }

struct BannerState {
    std::string status = "OK", identify = "OFF", power = "On";
    std::string name; // "" : the profile's
};

std::string standardBanner(const json &p, const BannerState &st, const std::string &buildLine, const std::string &sdr)
{
    const Firmware f = firmware(p);
    const std::string stars(50, '*');
    std::string b;
    b += stars + "\r\n";
    b += boxed("*    Welcome to TALVIREN Remote Manager") + "\r\n";
    b += boxed("*    Firmware Revision " + std::to_string(f.aux[0]) + "." + twoDigits(f.aux[1]) + char(f.aux[3]) + " (" +
               upperHex(f.major) + "." + twoDigits(f.minorByte) + ")") +
         "\n";
    b += boxed("*    SDR " + pad(sdr, 30)) + "\n";
    b += boxed("*    Firmware built " + buildLine) + "\r\n";
    b += stars + "\r\n";
    auto orUnknown = [&](const char *id) {
        std::string t = p["config_space"].contains(id) ? text(p, id) : "";
        return t.empty() ? std::string("Unknown") : t;
    };
    b += "\nSystem Type  : " + orUnknown("0x0205");
    b += "\nSystem ID    : " + orUnknown("0x0207");
    b += "\nSystem Name  : " + (st.name.empty() ? orUnknown("0x0201") : st.name);
    b += "\nSystem OS    : " + orUnknown("0x020F");
    b += "\nSystem Status: " + st.status + " (Identify LED is " + st.identify + ")";
    b += "\nPower Status : " + st.power;
    b += "\nAsset Tag    : " + orUnknown("0x0210");
    return b + "\r\n\r\n";
}

std::string defaultBanner(const BannerState &st = {})
{
    json p = machine("default.json");
    return standardBanner(p, st, pad(text(p, "0x2150"), 25, true), text(p, "0x2151"));
}

TEST_F(Cli, BannerIsTheStandardBoxForTheDefaultMachine)
{
    Outcome r = run({"banner"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(r.out, defaultBanner());
    EXPECT_EQ(r.err, "");
}

TEST_F(Cli, BannerIsTheShortBoxForThePartitionBoard)
{
    const json p = machine("partition-board.json");
    ASSERT_EQ(p["lan"]["channels"][0]["ip_address"].get<std::string>().rfind("127.1.2.", 0), 0u);
    const Firmware f = firmware(p);
    const std::string expected = "********************************************\r\n"
                                 "*                                          *\r\n"
                                 "*  Welcome to KESTRAVONE Remote Manager    *\r\n"
                                 "*  Firmware Revision " +
                                 std::to_string(f.aux[0]) + "." + std::to_string(f.aux[1]) + char(f.aux[3]) + " (" +
                                 upperHex(f.major) + "." + twoDigits(f.minorByte) +
                                 ")          *\n"
                                 "*  Firmware built " +
                                 text(p, "0x2150") +
                                 " *\r\n"
                                 "*                                          *\r\n"
                                 "********************************************\r\n";
    Outcome r = run({"--machine", kMachines + "/partition-board.json", "banner"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(r.out, expected);
    // Any other address is a standard server.
    json other = p;
    other["lan"]["channels"][0]["ip_address"] = "127.1.2.5";
    simtest::writeFile(dir_.file("other.json"), other.dump());
    r = run({"--machine", dir_.file("other.json"), "banner"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(r.out.rfind(std::string(50, '*') + "\r\n*    Welcome to TALVIREN", 0), 0u) << r;
}

// Without the build and SDR texts the banner shows the library's own build time and "info is
// not available"; an empty or missing identity text shows as "Unknown".
TEST_F(Cli, BannerFallsBackWhereTheControllerHasNoText)
{
    json p = machine("default.json");
    p["config_space"].erase("0x2150");
    p["config_space"].erase("0x2151");
    p["config_space"].erase("0x0205");
    p["config_space"]["0x020F"]["text"] = "";
    simtest::writeFile(dir_.file("bare.json"), p.dump());
    Outcome r = run({"--machine", dir_.file("bare.json"), "banner"});
    ASSERT_EQ(r.code, 0) << r;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("Firmware built ([A-Z][a-z]{2} [ 1-3][0-9] [0-9]{4} [0-2][0-9]:[0-5][0-9]:[0-5][0-9])")))
        << r;
    EXPECT_EQ(r.out, standardBanner(p, {}, m[1].str(), "info is not available"));
}

// ---- changes seen by the next command ------------------------------------------------------------

TEST_F(Cli, PowerChangesAreSeenByTheNextCommand)
{
    steps({{{"power"}, 0, "Chassis Power is on\n"},
              {{"power", "off"}, 0, "Chassis Power Control: Down/Off\n"},
              {{"power", "status"}, 0, "Chassis Power is off\n"},
              {{"power", "cycle"}, 1, "the controller refused power cycle"},
              {{"power", "reset"}, 1, "the controller refused power reset"},
              {{"power", "soft"}, 1, "the controller refused power soft"},
              {{"power"}, 0, "Chassis Power is off\n"},
              {{"power", "on"}, 0, "Chassis Power Control: Up/On\n"},
              {{"power"}, 0, "Chassis Power is on\n"},
              {{"power", "cycle"}, 0, "Chassis Power Control: Cycle\n"},
              {{"power"}, 0, "Chassis Power is on\n"},
              {{"power", "reset"}, 0, "Chassis Power Control: Reset\n"},
              {{"power"}, 0, "Chassis Power is on\n"},
              {{"power", "soft"}, 0, "Chassis Power Control: Soft\n"},
              {{"power"}, 0, "Chassis Power is off\n"}});
    EXPECT_EQ(state()["chassis"]["power_on"], false);
    EXPECT_EQ(run({"banner"}).out, defaultBanner({.power = "Off", .name = ""}));
}

TEST_F(Cli, LedLanConfigAndConsoleChangesAreSeenByTheNextCommand)
{
    const json p = machine("default.json");
    steps({{{"led"}, 0, "Identify LED  : off\nSystem status : OK (error LED 0)\n"},
              {{"led", "identify", "on"}, 0, "Identify LED on\n"},
              {{"led", "status"}, 0, "Identify LED  : on\nSystem status : OK (error LED 0)\n"},
              {{"lan", "set", "ip", "10.20.30.77"}, 0, "Set ip to 10.20.30.77\n"},
              {{"lan", "set", "netmask", "255.255.0.0"}, 0, "Set netmask to 255.255.0.0\n"},
              {{"lan", "set", "gateway", "10.20.0.1"}, 0, "Set gateway to 10.20.0.1\n"},
              {{"lan", "set", "mac", "02:AA:bb:cc:dd:0e"}, 0, "Set mac to 02:AA:bb:cc:dd:0e\n"},
              {{"lan", "set", "source", "dhcp"}, 0, "Set source to dhcp\n"},
              {{"lan"}, 0,
               "Channel            : 1\n"
               "IP Address Source  : dhcp\n"
               "IP Address         : 10.20.30.77\n"
               "Subnet Mask        : 255.255.0.0\n"
               "MAC Address        : 02:aa:bb:cc:dd:0e\n"
               "Default Gateway IP : 10.20.0.1\n"},
              {{"config", "set", "0x0201", "0", "web-07"}, 0, "Written 6 bytes.\n"},
              {{"config", "get", "0x0201"}, 0, "web-07\n"},
              {{"config", "set", "--hex", "0x0072", "2", "2c", "01"}, 0, "Written 2 bytes.\n"},
              {{"config", "get", "--hex", "0x0072", "2"}, 0, "2c 01\n"},
              {{"config", "get", "0x2150", "1"}, 0, text(p, "0x2150", 1) + "\n"},
              {{"console-log", "state"}, 0, "Console logging off\n"},
              {{"console-log", "start"}, 0, "Console logging on\n"},
              {{"console-log", "state"}, 0, "Console logging on\n"}});
    EXPECT_EQ(run({"banner"}).out, defaultBanner({.identify = "ON", .name = "web-07"}));

    // The second LAN channel was not touched.
    EXPECT_EQ(state()["lan"]["2"]["ip_address"], p["lan"]["channels"][1]["ip_address"]);
    ASSERT_EQ(run({"power", "cycle"}).code, 0);
    EXPECT_GT(state()["console"]["log"].size(), p["console"]["log"].size());
    steps({{{"console-log", "clear"}, 0, "Console logging on\n"},
              {{"console-log", "stop"}, 0, "Console logging off\n"},
              {{"led", "identify", "off"}, 0, "Identify LED off\n"},
              {{"config", "reset"}, 0, "Every variable is back at its default.\n"},
              {{"config", "get", "0x0201"}, 0, text(p, "0x0201") + "\n"},
              {{"config", "get", "--hex", "0x0072", "2"}, 0, "3c 00\n"}});
    EXPECT_EQ(state()["console"]["log"], json::array());
    EXPECT_EQ(run({"banner"}).out, defaultBanner());
}

TEST_F(Cli, JsonOutputDescribesTheMachine)
{
    const json p = machine("default.json");
    const json &ch = p["lan"]["channels"][0];
    EXPECT_EQ(runJson({"power"}), json({{"power", "on"}}));
    EXPECT_EQ(runJson({"led"}), json({{"identify", "off"}, {"error_led", 0}, {"system_status", "OK"}}));
    json lan = runJson({"lan"});
    EXPECT_EQ(lan["channel"], 1);
    EXPECT_EQ(lan["ip_address"], ch["ip_address"]);
    EXPECT_EQ(lan["subnet_mask"], ch["subnet_mask"]);
    EXPECT_EQ(lan["default_gateway"], ch["default_gateway"]);
    EXPECT_EQ(lan["mac_address"], ch["mac_address"]);
    EXPECT_EQ(lan["address_source"], ch["address_source"]);
    json var = runJson({"config", "get", "0x0205"});
    EXPECT_EQ(var["text"], text(p, "0x0205"));
    EXPECT_EQ(var["length"], text(p, "0x0205").size());
    json delay = runJson({"config", "get", "0x0072", "1"});
    unsigned d = p["config_space"]["0x0072"]["u16"][1];
    EXPECT_EQ(delay["bytes"], json({d & 0xFF, d >> 8}));
    EXPECT_EQ(runJson({"console-log", "state"}), json({{"console_logging", p["console"]["logging"].get<bool>() ? "on" : "off"}}));

    EXPECT_EQ(runJson({"power", "off"}), json({{"action", "off"}, {"done", true}}));
    EXPECT_EQ(runJson({"power"}), json({{"power", "off"}}));
    EXPECT_EQ(runJson({"lan", "set", "gateway", "10.20.30.254"}), json({{"set", "gateway"}, {"value", "10.20.30.254"}}));
    EXPECT_EQ(runJson({"lan"})["default_gateway"], "10.20.30.254");
}

TEST_F(Cli, BadArgumentsExitTwoAndChangeNothing)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"lan", "set", "ip", "10.20.30"}, "invalid IPv4 address \"10.20.30\""},
        {{"lan", "set", "ip", "10.20.30.400"}, "invalid IPv4 address"},
        {{"lan", "set", "ip", "10.20.30.40/24"}, "invalid IPv4 address"},
        {{"lan", "set", "netmask", "mask"}, "invalid IPv4 address \"mask\""},
        {{"lan", "set", "gateway", ""}, "invalid IPv4 address \"\""},
        {{"lan", "set", "mac", "02:00:00:00:00"}, "invalid MAC address"},
        {{"lan", "set", "mac", "02-00-00-00-00-01"}, "invalid MAC address"},
        {{"lan", "set", "mac", "02:00:00:00:00:0g"}, "invalid MAC address"},
        {{"lan", "set", "mac", "02:00:00:00:00:011"}, "invalid MAC address"},
        {{"lan", "set", "source", "manual"}, "invalid address source \"manual\""},
        {{"lan", "set", "hostname", "db04"}, "unknown LAN setting \"hostname\""},
        {{"lan", "set", "ip"}, "usage: tvxctl lan"},
        {{"power", "sideways"}, "unknown power action \"sideways\""},
        {{"led", "identify", "blink"}, "usage: tvxctl led"},
        {{"config", "get", "0x10000"}, "invalid variable ID"},
        {{"config", "set", "0x0201", "256", "x"}, "invalid index \"256\""},
        {{"config", "set", "0x0201", "0", std::string(251, 'x')}, "at most 250 bytes"},
        {{"console-log", "pause"}, "unknown console-log action \"pause\""},
    };
    json lanBefore = runJson({"lan"});
    for (const auto &[args, reason] : cases) {
        Outcome r = run(args);
        SCOPED_TRACE(testing::PrintToString(args));
        EXPECT_EQ(r.code, 2) << r;
        EXPECT_NE(r.err.find(reason), std::string::npos) << r;
        EXPECT_EQ(r.out, "") << r;
    }
    EXPECT_EQ(runJson({"lan"}), lanBefore);
    EXPECT_EQ(run({"config", "get", "0x0201"}).out, text(machine("default.json"), "0x0201") + "\n");
}

TEST_F(Cli, SettingsTheControllerRefusesExitOne)
{
    json lanBefore = runJson({"lan"});
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"lan", "set", "mac", "01:00:5e:00:00:01"}, "the controller refused the mac setting"},
        {{"lan", "set", "netmask", "255.0.255.0"}, "the controller refused the netmask setting"},
        {{"config", "get", "0x9999"}, "cannot read variable 0x9999 index 0"},
        {{"config", "get", "0x0201", "3"}, "cannot read variable 0x0201 index 3"},
        {{"config", "set", "0x9999", "0", "x"}, "the controller did not store the variable"},
        {{"config", "set", "--hex", "0x0072", "0", "01"}, "the controller did not store the variable"},
        {{"config", "set", "--hex", "0x1630", "0", "02"}, "the controller did not store the variable"},
    };
    for (const auto &[args, reason] : cases) {
        Outcome r = run(args);
        SCOPED_TRACE(testing::PrintToString(args));
        EXPECT_EQ(r.code, 1) << r;
        EXPECT_NE(r.err.find(reason), std::string::npos) << r;
    }
    EXPECT_EQ(runJson({"lan"}), lanBefore);
}

TEST_F(Cli, BadMachineSectionStopsEverything)
{
    json p = machine("default.json");
    p["lan"]["channels"][1]["subnet_mask"] = "255.255.0.255";
    const std::string path = dir_.file("bad.json");
    simtest::writeFile(path, p.dump());
    for (const std::vector<std::string> &args : {std::vector<std::string>{"banner"}, {"power", "off"}, {"lan"}}) {
        std::vector<std::string> full = {"--machine", path};
        full.insert(full.end(), args.begin(), args.end());
        Outcome r = run(full);
        EXPECT_EQ(r.code, 1) << r;
        EXPECT_NE(r.err.find(path + ": /lan/channels/1/subnet_mask: a subnet mask is ones followed by zeros"), std::string::npos)
            << r;
        EXPECT_EQ(r.out, "") << r;
    }
    EXPECT_FALSE(std::filesystem::exists(dir_.file("state/bad.state.json")));
}

} // namespace
