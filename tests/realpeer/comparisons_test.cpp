// The library and tvxctl over LAN against ipmi_sim, side by side with ipmitool against the same
// simulator, and with tvxctl against the virtual controller of the same profile.
//
// Each row of kComparisons runs tvxctl and ipmitool and compares what they report: the identity,
// the SDR repository and the sensor table with every sensor's reading, status and thresholds (the host
// powered and not), the chassis power after power control and the LAN settings after tvxctl set
// them. That power-up restores the readings is pinned in process (SensorMachine).
#include <map>

#include <gtest/gtest.h>

#include "support.h"

using namespace realpeer;
using nlohmann::json;

namespace {

std::string first(const Fields &f, const std::string &key)
{
    auto it = f.find(key);
    return it == f.end() || it->second.empty() ? "(missing " + key + ")" : it->second.front();
}

#define BOTH_OK(ours, theirs)                                                                                          \
    ASSERT_EQ(ours.code, 0) << ours;                                                                                   \
    ASSERT_EQ(theirs.code, 0) << theirs

// tvxctl --json devid against ipmitool mc info.
void compareDeviceId(const Outcome &ours, const Outcome &theirs)
{
    BOTH_OK(ours, theirs);
    json j = json::parse(ours.out);
    Fields t = fields(theirs.out);
    auto yesNo = [&](const char *key) { return j[key].get<bool>() ? "yes" : "no"; };
    const std::pair<const char *, std::string> same[] = {
        {"Device ID", std::to_string(j["device_id"].get<int>())},
        {"Device Revision", std::to_string(j["device_revision"].get<int>())},
        {"Firmware Revision", j["firmware_revision"]},
        {"IPMI Version", j["ipmi_version"]},
        {"Manufacturer ID", std::to_string(j["manufacturer_id"].get<unsigned>())}, // ipmitool: decimal
        {"Device Available", yesNo("device_available")},
        {"Provides Device SDRs", yesNo("provides_device_sdrs")},
    };
    for (const auto &[key, value] : same) EXPECT_EQ(first(t, key), value) << key;
    // ipmitool prints the product as "N (0xNNNN)".
    EXPECT_EQ(first(t, "Product ID").rfind(std::to_string(j["product_id"].get<unsigned>()) + " (", 0), 0u);
    EXPECT_EQ(j["additional_device_support"].get<std::vector<std::string>>(), t["Additional Device Support"]);
    std::vector<std::string> aux;
    for (int b : j["aux_firmware_revision"]) {
        char buf[8];
        std::snprintf(buf, sizeof buf, "0x%02x", b);
        aux.push_back(buf);
    }
    EXPECT_EQ(aux, t["Aux Firmware Rev Info"]);
}

// tvxctl raw Get Chassis Status against ipmitool chassis power status.
void samePowerState(const Outcome &ours, const Outcome &theirs)
{
    BOTH_OK(ours, theirs);
    unsigned state = std::stoul(ours.out.substr(0, 3), nullptr, 16);
    EXPECT_EQ(theirs.out, std::string("Chassis Power is ") + ((state & 1) ? "on" : "off") + "\n");
}

// tvxctl --json sdr against ipmitool sdr elist all: the same records in the same order, with the
// same names, sensor numbers and entities; locators naming the same FRU device or controller.
// Values, statuses and state bits are compared in the sensor table.
void compareSdr(const Outcome &ours, const Outcome &theirs)
{
    BOTH_OK(ours, theirs);
    json records = json::parse(ours.out);
    auto rows = table(theirs.out, '|');
    ASSERT_EQ(records.size(), rows.size()) << theirs.out;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const json &r = records[i];
        const auto &t = rows[i];
        SCOPED_TRACE(t[0]);
        ASSERT_EQ(t.size(), 5u);
        EXPECT_EQ(r["name"].get<std::string>(), t[0]);
        EXPECT_EQ(r["entity"].get<std::string>(), t[3]);
        const std::string status = r["status"];
        char want[32];
        if (r["record_type"] == 0x11) {
            std::snprintf(want, sizeof want, "Logical FRU @%02Xh", std::stoi(status.substr(4)));
            EXPECT_EQ(t[4], want);
            continue;
        }
        if (r["record_type"] == 0x12) {
            std::snprintf(want, sizeof want, "Dynamic MC @ %02Xh", std::stoi(status.substr(8), nullptr, 16));
            EXPECT_EQ(t[4], want);
            continue;
        }
        std::snprintf(want, sizeof want, "%02Xh", r["sensor_number"].get<int>());
        EXPECT_EQ(t[1], want);
        if (status == "unavailable") {
            EXPECT_EQ(t[2] + " " + t[4], "ns No Reading");
        }
    }
}

// tvxctl --json lan against ipmitool lan print 1.
void compareLan(const Outcome &ours, const Outcome &theirs)
{
    BOTH_OK(ours, theirs);
    json j = json::parse(ours.out);
    Fields t = fields(theirs.out);
    static const std::map<std::string, std::string> sources = {{"static", "Static Address"},
                                                               {"dhcp", "DHCP Address"},
                                                               {"bios", "BIOS Assigned Address"},
                                                               {"other", "Other"},
                                                               {"unspecified", "Unspecified"}};
    const std::pair<const char *, std::string> same[] = {
        {"IP Address", j["ip_address"]},
        {"Subnet Mask", j["subnet_mask"]},
        {"MAC Address", j["mac_address"]},
        {"Default Gateway IP", j["default_gateway"]},
        {"IP Address Source", sources.at(j["address_source"])},
    };
    for (const auto &[key, value] : same) EXPECT_EQ(first(t, key), value) << key;
}

// ipmitool's words for the library's units and threshold states.
const std::map<std::string, std::string> kUnits = {{"C", "degrees C"},     {"Volt", "Volts"},
                                                   {"Amps", "Amps"},       {"RPM", "RPM"},
                                                   {"percent", "percent"}, {"discrete", "discrete"}};
const std::map<std::string, std::string> kStates = {{"OK", "ok"},       {"LowWarn", "nc"},   {"UpWarn", "nc"},
                                                    {"LowCrit", "cr"},  {"UpCrit", "cr"},    {"LowNRecov", "nr"},
                                                    {"UpNRecov", "nr"}, {"Power Off", "na"}, {"N/A", "na"}};
const char *kThresholds[6] = {"lnr", "lcr", "lnc", "unc", "ucr", "unr"};

// tvxctl --json sensor against ipmitool -c sensor: every sensor's unit, value, status (a fan's
// is its status sensor's state, which ipmitool does not show) and thresholds; discrete
// sensors' state bits.
void compareSensors(const Outcome &ours, const Outcome &theirs)
{
    BOTH_OK(ours, theirs);
    std::map<std::string, json> byName;
    for (const json &r : json::parse(ours.out)) byName[r["name"]] = r;
    auto rows = table(theirs.out, ',');
    ASSERT_EQ(rows.size(), byName.size()) << theirs.out;
    for (const auto &t : rows) {
        SCOPED_TRACE(t[0]);
        ASSERT_EQ(t.size(), 10u);
        ASSERT_TRUE(byName.count(t[0]));
        const json &r = byName[t[0]];
        EXPECT_EQ(kUnits.at(r["unit"]), t[2]);
        if (r["unit"] == "discrete") {
            // ipmitool shows the two state bytes as one hexadecimal number, low byte first.
            const unsigned bytes = t[3] == "na" ? 0 : std::stoul(t[3], nullptr, 16);
            if (r["state_bits"].is_null()) EXPECT_EQ(t[3], "na");
            else EXPECT_EQ(r["state_bits"].get<unsigned>(), (bytes >> 8) | (bytes & 0x7F) << 8) << t[3];
            continue;
        }
        if (r["value"].is_null()) EXPECT_EQ(t[1], "na");
        else EXPECT_NEAR(r["value"].get<double>(), std::stod(t[1]), 0.0005) << t[1];
        // A fan's status is its status sensor's state, which ipmitool does not show.
        if (r["class"] != "fan" || r["value"].is_null()) {
            EXPECT_EQ(kStates.at(r["status"]), t[3]);
        }
        for (int i = 0; i < 6; ++i) {
            const json &v = r["thresholds"][kThresholds[i]];
            if (v.is_null()) EXPECT_EQ(t[4 + i], "na") << kThresholds[i];
            else EXPECT_NEAR(v.get<double>(), std::stod(t[4 + i]), 0.0005) << kThresholds[i];
        }
    }
}

struct Comparison {
    const char *what;
    std::vector<std::vector<std::string>> before; // tvxctl commands that change the machine first
    std::vector<std::string> ours;                // tvxctl arguments
    std::vector<std::string> theirs;              // ipmitool arguments
    void (*compare)(const Outcome &, const Outcome &);
};

const std::vector<std::string> kPowerDown = {"raw", "0x00", "0x02", "0x00"}, kPowerUp = {"raw", "0x00", "0x02", "0x01"},
                               kSdr = {"--json", "sdr"}, kElist = {"sdr", "elist", "all"},
                               kSensor = {"--json", "sensor"}, kCsvSensor = {"-c", "sensor"};

// clang-format off
const Comparison kComparisons[] = {
    {"device identity", {}, {"--json", "devid"}, {"mc", "info"}, compareDeviceId},
    {"SDR repository and sensor readings", {}, kSdr, kElist, compareSdr},
    {"sensor table", {}, kSensor, kCsvSensor, compareSensors},
    {"chassis power after Chassis Control power down", {kPowerDown}, {"raw", "0x00", "0x01"},
     {"chassis", "power", "status"}, samePowerState},
    {"sensor table while the host is down", {}, kSensor, kCsvSensor, compareSensors},
    {"LAN settings after tvxctl set them",
     {kPowerUp, {"lan", "set", "ip", "10.9.8.7"}, {"lan", "set", "netmask", "255.255.0.0"}, {"lan", "set", "gateway", "10.9.0.1"},
      {"lan", "set", "mac", "02:11:22:33:44:55"}, {"lan", "set", "source", "static"}},
     {"--json", "lan"}, {"lan", "print", "1"}, compareLan},
};
// clang-format on

} // namespace

TEST(RealPeer, TvxctlAndIpmitoolAgree)
{
    auto &peer = defaultPeer();
    for (const Comparison &c : kComparisons) {
        SCOPED_TRACE(c.what);
        for (const auto &b : c.before) ASSERT_EQ(tvxctl(&peer, b).code, 0) << testing::PrintToString(b);
        c.compare(tvxctl(&peer, c.ours), ipmitool(peer, c.theirs));
    }
}

// ipmi_sim counts no alert destinations and has no volatile one: tvxctl says so, and the test
// trap reports each refusal.
TEST(RealPeer, AlertDestinationsAndTestTrapOnAControllerWithoutThem)
{
    auto &peer = defaultPeer();
    Outcome r = tvxctl(&peer, {"lan", "alert", "list", "1"});
    EXPECT_EQ(std::tuple(r.code, r.out), std::tuple(0, "LAN channel 1 has no alert destinations.\n")) << r;
    r = tvxctl(&peer, {"trap", "test"});
    EXPECT_NE(r.out.find("  2   (address unknown)     refused: completion code 0xc1 (Invalid command)\n"), std::string::npos)
        << r;
}

// Over LAN tvxctl prints exactly what it prints for the virtual controller of the same profile: the
// transport changes nothing above the raw exchange, the simulator built from the profile reads
// as the profile says (sensors included, powered or not), and the commands ipmi_sim lacks are
// answered by the module as the virtual controller answers them (resets, the SEL's UTC offset
// set, read back, refused beyond a day and unspecified again).
TEST(RealPeer, TvxctlPrintsTheSameAsInProcess)
{
    auto &peer = defaultPeer();
    std::string state = workDir("inprocess-state");
    auto both = [&](const std::vector<std::string> &args) {
        std::vector<std::string> local = {"--machine", defaultProfile(), "--state", state};
        local.insert(local.end(), args.begin(), args.end());
        return std::make_pair(tvxctl(nullptr, local), tvxctl(&peer, args));
    };
    // clang-format off
    const std::vector<std::vector<std::string>> commands = {
        {"devid"}, {"--json", "devid"}, {"raw", "0x06", "0x01"}, {"--json", "raw", "0x06", "0x01"},
        {"--json", "raw", "0x06", "0x99"}, {"raw", "0x0a", "0x21"}, {"raw", "0x06", "0x02"}, {"raw", "0x06", "0x03", "0x01"},
        {"raw", "0x0a", "0x5d", "0x3c", "0x00"}, {"raw", "0x0a", "0x5c"}, {"raw", "0x0a", "0x5d", "0xa1", "0x05"},
        {"raw", "0x0a", "0x5d", "0xff", "0x07"}, {"raw", "0x0a", "0x5c"},
        {"power", "on"}, {"sdr"}, {"--json", "sdr"}, {"power", "off"}, {"sdr"}, {"power", "on"}};
    // clang-format on
    for (const auto &args : commands) {
        SCOPED_TRACE(testing::PrintToString(args));
        auto [inProcess, overLan] = both(args);
        EXPECT_EQ(std::tuple(overLan.code, overLan.out), std::tuple(inProcess.code, inProcess.out)) << overLan.err;
    }
}

// The password from the environment with the target there too (the way an unmodified client
// is pointed at a controller) opens a session as the one in the target does (where passwords
// come from, and that no message shows them, is checked on the target strings).
TEST(RealPeer, PasswordFromTheEnvironmentOpensASession)
{
    auto &peer = defaultPeer();
    const std::string password = peer.options().users.front().password;
    const std::string lan = "lan://admin@" + peer.hostPort() + "?workaround=opensesspriv";
    Outcome fromEnv = tvxctl(nullptr, {"devid"}, {"TVX_IPMI_TARGET=" + lan, "TVX_IPMI_PASSWORD=" + password});
    EXPECT_EQ(fromEnv.code, 0) << fromEnv;
    EXPECT_NE(fromEnv.out.find("Product ID"), std::string::npos) << fromEnv;
    // A real controller has no profile to start afresh from.
    Outcome reset = tvxctl(&peer, {"reset"});
    EXPECT_EQ(reset.code, 1);
    EXPECT_NE(reset.err.find("is not a virtual machine"), std::string::npos) << reset;
}
