// The library and tvxctl over LAN against ipmi_sim, side by side with ipmitool against the
// same simulator, and with tvxctl against the virtual controller of the same profile.
//
// Each row of kComparisons runs tvxctl and ipmitool and compares what they report. Later
// subsystems add their rows here:
//   - SDR repository and sensor readings: `tvxctl sdr` / `sdr elist full`, `sensor reading`
//   - SEL lines: `tvxctl sel` / `sel list` (after sel_add entries from the profile)
//   - FRU inventory: `tvxctl fru` / `fru print 0`
//   - LAN parameters after a set: `tvxctl lan set ...` then `tvxctl lan` / `lan print 1`
#include <map>
#include <sstream>
#include <sys/stat.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support.h"

using namespace realpeer;

namespace {

using Fields = std::map<std::string, std::vector<std::string>>;

// "Name   : value" lines, with the indented lines after a name as further values.
Fields parseColonTable(const std::string &text)
{
    Fields f;
    std::istringstream in(text);
    std::string line, current;
    auto trim = [](std::string s) {
        s.erase(0, s.find_first_not_of(" \t"));
        s.erase(s.find_last_not_of(" \t\r") + 1);
        return s;
    };
    while (std::getline(in, line)) {
        std::size_t colon = line.find(" : ");
        if (colon == std::string::npos && line.find(" :") == line.size() - 2 && line.size() > 2) colon = line.size() - 2;
        if (colon != std::string::npos && line[0] != ' ') {
            current = trim(line.substr(0, colon));
            std::string value = colon + 3 <= line.size() ? trim(line.substr(colon + 3)) : "";
            f[current];
            if (!value.empty()) f[current].push_back(value);
        } else if (!current.empty() && !trim(line).empty()) {
            f[current].push_back(trim(line));
        }
    }
    return f;
}

std::string one(const Fields &f, const std::string &key)
{
    auto it = f.find(key);
    return it == f.end() || it->second.empty() ? "(missing " + key + ")" : it->second.front();
}

// tvxctl --json devid against ipmitool mc info.
void compareDeviceId(const Outcome &ours, const Outcome &theirs)
{
    ASSERT_EQ(ours.exitCode, 0) << ours.err;
    ASSERT_EQ(theirs.exitCode, 0) << theirs.err;
    auto j = nlohmann::json::parse(ours.out);
    Fields t = parseColonTable(theirs.out);
    EXPECT_EQ(std::to_string(j["device_id"].get<int>()), one(t, "Device ID"));
    EXPECT_EQ(std::to_string(j["device_revision"].get<int>()), one(t, "Device Revision"));
    EXPECT_EQ(j["firmware_revision"].get<std::string>(), one(t, "Firmware Revision"));
    EXPECT_EQ(j["ipmi_version"].get<std::string>(), one(t, "IPMI Version"));
    // ipmitool prints the manufacturer in decimal and the product as "N (0xNNNN)".
    EXPECT_EQ(std::to_string(j["manufacturer_id"].get<unsigned>()), one(t, "Manufacturer ID"));
    EXPECT_EQ(one(t, "Product ID").rfind(std::to_string(j["product_id"].get<unsigned>()) + " (", 0), 0u)
        << one(t, "Product ID");
    EXPECT_EQ(j["device_available"].get<bool>() ? "yes" : "no", one(t, "Device Available"));
    EXPECT_EQ(j["provides_device_sdrs"].get<bool>() ? "yes" : "no", one(t, "Provides Device SDRs"));
    EXPECT_EQ(j["additional_device_support"].get<std::vector<std::string>>(), t["Additional Device Support"]);
    std::vector<std::string> aux;
    for (int b : j["aux_firmware_revision"]) {
        char buf[8];
        std::snprintf(buf, sizeof buf, "0x%02x", b);
        aux.push_back(buf);
    }
    EXPECT_EQ(aux, t["Aux Firmware Rev Info"]);
}

// Both print the response data bytes the same way.
void sameOutput(const Outcome &ours, const Outcome &theirs)
{
    EXPECT_EQ(ours.exitCode, 0) << ours.err;
    EXPECT_EQ(theirs.exitCode, 0) << theirs.err;
    EXPECT_EQ(ours.out, theirs.out);
}

// Both report the same refusal: exit status 1 and the completion code in "rsp=0x..".
void sameRefusal(const Outcome &ours, const Outcome &theirs)
{
    EXPECT_EQ(ours.exitCode, 1);
    EXPECT_NE(theirs.exitCode, 0);
    std::size_t a = ours.err.find("rsp=0x"), b = theirs.err.find("rsp=0x");
    ASSERT_NE(a, std::string::npos) << ours.err;
    ASSERT_NE(b, std::string::npos) << theirs.err;
    EXPECT_EQ(ours.err.substr(a, 8), theirs.err.substr(b, 8));
}

// tvxctl raw Get Chassis Status against ipmitool chassis power status.
void samePowerState(const Outcome &ours, const Outcome &theirs)
{
    ASSERT_EQ(ours.exitCode, 0) << ours.err;
    ASSERT_EQ(theirs.exitCode, 0) << theirs.err;
    unsigned state = std::stoul(ours.out.substr(0, 3), nullptr, 16);
    EXPECT_EQ(theirs.out, std::string("Chassis Power is ") + ((state & 1) ? "on" : "off") + "\n");
}

struct Comparison {
    const char *what;
    std::vector<std::vector<std::string>> before; // tvxctl commands that change the machine first
    std::vector<std::string> ours;                // tvxctl arguments
    std::vector<std::string> theirs;              // ipmitool arguments
    void (*compare)(const Outcome &, const Outcome &);
};

const Comparison kComparisons[] = {
    {"device identity", {}, {"--json", "devid"}, {"mc", "info"}, compareDeviceId},
    {"raw Get Device ID", {}, {"raw", "0x06", "0x01"}, {"raw", "0x06", "0x01"}, sameOutput},
    {"raw Get Self Test Results", {}, {"raw", "0x06", "0x04"}, {"raw", "0x06", "0x04"}, sameOutput},
    {"raw Get SDR Repository Allocation Info (from the module)", {}, {"raw", "0x0a", "0x21"},
     {"raw", "0x0a", "0x21"}, sameOutput},
    {"raw Get SEL Time UTC Offset (from the module)", {}, {"raw", "0x0a", "0x5c"}, {"raw", "0x0a", "0x5c"},
     sameOutput},
    {"an OEM request with another IANA number", {}, {"raw", "0x2e", "0x01", "0x01", "0x02", "0x03"},
     {"raw", "0x2e", "0x01", "0x01", "0x02", "0x03"}, sameRefusal},
    {"an unknown command", {}, {"raw", "0x06", "0x99"}, {"raw", "0x06", "0x99"}, sameRefusal},
    {"chassis power after Chassis Control power down", {{"raw", "0x00", "0x02", "0x00"}}, {"raw", "0x00", "0x01"},
     {"chassis", "power", "status"}, samePowerState},
    {"chassis power after Chassis Control power up", {{"raw", "0x00", "0x02", "0x01"}}, {"raw", "0x00", "0x01"},
     {"chassis", "power", "status"}, samePowerState},
};

} // namespace

TEST(RealPeer, TvxctlAndIpmitoolAgree)
{
    auto &peer = defaultPeer();
    for (const Comparison &c : kComparisons) {
        SCOPED_TRACE(c.what);
        for (const auto &b : c.before) {
            Outcome r = tvxctl(&peer, b);
            ASSERT_EQ(r.exitCode, 0) << r.err;
        }
        c.compare(tvxctl(&peer, c.ours), ipmitool(peer, c.theirs));
    }
}

// Over LAN tvxctl prints exactly what it prints for the virtual controller of the same
// profile: the transport changes nothing above the raw exchange.
TEST(RealPeer, TvxctlPrintsTheSameAsInProcess)
{
    auto &peer = defaultPeer();
    std::string state = workDir("inprocess-state");
    const std::vector<std::vector<std::string>> commands = {
        {"devid"}, {"--json", "devid"}, {"raw", "0x06", "0x01"}, {"--json", "raw", "0x06", "0x01"},
        {"--json", "raw", "0x06", "0x99"}};
    for (const auto &args : commands) {
        SCOPED_TRACE(args.back());
        std::vector<std::string> local = {"--machine", defaultProfile(), "--state", state};
        local.insert(local.end(), args.begin(), args.end());
        Outcome inProcess = tvxctl(nullptr, local);
        Outcome overLan = tvxctl(&peer, args);
        EXPECT_EQ(overLan.exitCode, inProcess.exitCode) << overLan.err;
        EXPECT_EQ(overLan.out, inProcess.out);
    }
}

TEST(RealPeer, TvxctlNeverShowsThePassword)
{
    auto &peer = defaultPeer();
    const std::string password = peer.options().users.front().password;
    Outcome target = tvxctl(&peer, {"target"});
    EXPECT_EQ(target.exitCode, 0);
    EXPECT_NE(target.out.find("admin@" + peer.hostPort()), std::string::npos) << target.out;
    EXPECT_EQ(target.out.find(password), std::string::npos) << target.out;

    // Refused: the message names the user and host, never the password given.
    Outcome refused = run({TVX_TVXCTL, "--target",
                       "lan://admin:Wrong-Pa55@" + peer.hostPort() + "?workaround=opensesspriv&timeout=1000", "devid"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("password invalid"), std::string::npos) << refused.err;
    EXPECT_EQ(refused.err.find("Wrong-Pa55"), std::string::npos) << refused.err;
    EXPECT_EQ(refused.out.find("Wrong-Pa55"), std::string::npos) << refused.out;

    // A password file works the same as the password in the string.
    std::string dir = workDir("password-file");
    std::string file = writeFile(dir, "pass", password + "\n");
    ::chmod(file.c_str(), 0600);
    Outcome fromFile = run({TVX_TVXCTL, "--target",
                        "lan://admin@" + peer.hostPort() + "?workaround=opensesspriv&password_file=" + file, "raw",
                        "0x06", "0x01"});
    EXPECT_EQ(fromFile.exitCode, 0) << fromFile.err;

    // And so does the password in the environment, with the target in the environment too:
    // the way an unmodified client program is pointed at a controller.
    Outcome fromEnv = run({TVX_TVXCTL, "devid"}, {"TVX_IPMI_TARGET=lan://admin@" + peer.hostPort() + "?workaround=opensesspriv",
                                                "TVX_IPMI_PASSWORD=" + password});
    EXPECT_EQ(fromEnv.exitCode, 0) << fromEnv.err;
    EXPECT_NE(fromEnv.out.find("Product ID"), std::string::npos) << fromEnv.out;
}

TEST(RealPeer, TvxctlHelpDocumentsLanTargets)
{
    Outcome help = tvxctl(nullptr, {"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("lan://"), std::string::npos) << help.out;
    EXPECT_NE(help.out.find("TVX_IPMI_PASSWORD"), std::string::npos) << help.out;
}
