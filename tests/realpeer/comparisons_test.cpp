// The library and tvxctl over LAN against ipmi_sim, side by side with ipmitool against the same
// simulator, and with tvxctl against the virtual controller of the same profile.
//
// Each row of kComparisons runs tvxctl and ipmitool and compares what they report: the identity,
// raw answers and refusals, the SDR repository with every sensor's reading and status, the SEL, the
// chassis power after power control and the LAN settings after a set (by either side).
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
        if (colon == std::string::npos && line.find(" :") == line.size() - 2 && line.size() > 2)
            colon = line.size() - 2;
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

std::string trim(std::string s)
{
    s.erase(0, s.find_first_not_of(" \t"));
    s.erase(s.find_last_not_of(" \t\r") + 1);
    return s;
}

// "a | b | c" lines, each cell trimmed.
std::vector<std::vector<std::string>> parseBarTable(const std::string &text)
{
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.find('|') == std::string::npos) continue;
        std::vector<std::string> cells;
        std::size_t start = 0, bar;
        while ((bar = line.find('|', start)) != std::string::npos) {
            cells.push_back(trim(line.substr(start, bar - start)));
            start = bar + 1;
        }
        cells.push_back(trim(line.substr(start)));
        rows.push_back(std::move(cells));
    }
    return rows;
}

// ipmitool's short status of a threshold sensor for the library's status text.
std::string ipmitoolStatus(const std::string &ours)
{
    static const std::map<std::string, std::string> names = {
        {"OK", "ok"},      {"LowWarn", "lnc"}, {"LowCrit", "lcr"}, {"LowNRecov", "lnr"},
        {"UpWarn", "unc"}, {"UpCrit", "ucr"},  {"UpNRecov", "unr"}};
    auto it = names.find(ours);
    return it == names.end() ? "(no ipmitool name for " + ours + ")" : it->second;
}

// tvxctl --json sdr against ipmitool sdr elist all: the same records in the same order, with the
// same names, sensor numbers and entities; threshold sensors with the same value and status;
// discrete sensors with the state bits Get Sensor Reading gives ipmitool; locators naming the same
// FRU device or controller.
void compareSdr(const Outcome &ours, const Outcome &theirs)
{
    ASSERT_EQ(ours.exitCode, 0) << ours.err;
    ASSERT_EQ(theirs.exitCode, 0) << theirs.err;
    auto records = nlohmann::json::parse(ours.out);
    auto rows = parseBarTable(theirs.out);
    ASSERT_EQ(records.size(), rows.size()) << theirs.out;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto &r = records[i];
        const auto &t = rows[i];
        SCOPED_TRACE(t[0]);
        ASSERT_EQ(t.size(), 5u);
        EXPECT_EQ(r["name"].get<std::string>(), t[0]);
        EXPECT_EQ(r["entity"].get<std::string>(), t[3]);
        const int type = r["record_type"].get<int>();
        if (type == 0x11) {
            char want[32];
            std::snprintf(want, sizeof want, "Logical FRU @%02Xh", std::stoi(r["status"].get<std::string>().substr(4)));
            EXPECT_EQ(t[4], want);
            continue;
        }
        if (type == 0x12) {
            char want[32];
            std::snprintf(want, sizeof want, "Dynamic MC @ %02Xh",
                          std::stoi(r["status"].get<std::string>().substr(8), nullptr, 16));
            EXPECT_EQ(t[4], want);
            continue;
        }
        char number[8];
        std::snprintf(number, sizeof number, "%02Xh", r["sensor_number"].get<int>());
        EXPECT_EQ(t[1], number);
        if (r["status"] == "unavailable") {
            EXPECT_EQ(t[2], "ns");
            EXPECT_EQ(t[4], "No Reading");
        } else if (r["event_reading_type"].get<int>() == 0x01) {
            EXPECT_EQ(ipmitoolStatus(r["status"].get<std::string>()), t[2]);
            // ipmitool prints two decimals, or none for a whole number.
            EXPECT_NEAR(r["value"].get<double>(), std::stod(t[4]), 0.006) << t[4];
        } else {
            EXPECT_EQ(t[2], "ok");
            Outcome reading = ipmitool(defaultPeer(), {"raw", "0x04", "0x2d", "0x" + t[1].substr(0, 2)});
            ASSERT_EQ(reading.exitCode, 0) << reading.err;
            unsigned b[4] = {};
            ASSERT_EQ(std::sscanf(reading.out.c_str(), "%x %x %x %x", &b[0], &b[1], &b[2], &b[3]), 4) << reading.out;
            EXPECT_EQ(r["state_bits"].get<unsigned>(), (b[3] & 0x7F) << 8 | b[2]);
        }
    }
}

// tvxctl --json sel against ipmitool sel list: the same records in the same order; a system event
// with the same time in seconds (ipmi_sim stamps its entries with its uptime, which ipmitool prints
// as a number), sensor number and direction; an OEM record with the same bytes.
void compareSel(const Outcome &ours, const Outcome &theirs)
{
    ASSERT_EQ(ours.exitCode, 0) << ours.err;
    ASSERT_EQ(theirs.exitCode, 0) << theirs.err;
    auto entries = nlohmann::json::parse(ours.out);
    auto rows = parseBarTable(theirs.out);
    ASSERT_EQ(entries.size(), rows.size()) << theirs.out;
    ASSERT_GT(rows.size(), 40u);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto &e = entries[i];
        const auto &t = rows[i];
        SCOPED_TRACE(e["line"].get<std::string>());
        EXPECT_EQ(e["record_id"].get<unsigned>(), std::stoul(t[0], nullptr, 16));
        const auto bytes = e["bytes"].get<std::vector<unsigned>>();
        ASSERT_EQ(bytes.size(), 16u);
        auto hex = [&](std::initializer_list<std::size_t> at) {
            std::string h;
            for (std::size_t k : at) {
                char b[4];
                std::snprintf(b, sizeof b, "%02x", bytes[k]);
                h += b;
            }
            return h;
        };
        char oem[32];
        std::snprintf(oem, sizeof oem, "OEM record %02x", bytes[2]);
        if (bytes[2] >= 0xE0) { // OEM, no timestamp: 13 bytes
            ASSERT_EQ(t.size(), 3u);
            EXPECT_EQ(t[1], oem);
            EXPECT_EQ(t[2], hex({3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}));
            continue;
        }
        ASSERT_EQ(t.size(), 6u);
        EXPECT_EQ(e["timestamp"].get<unsigned>(), std::stoul(t[2])) << t[2];
        if (bytes[2] >= 0xC0) { // OEM with timestamp: manufacturer ID, 6 bytes
            EXPECT_EQ(t[3], oem);
            EXPECT_EQ(t[4], hex({9, 8, 7}));
            EXPECT_EQ(t[5], hex({10, 11, 12, 13, 14, 15}));
            continue;
        }
        char sensor[8];
        std::snprintf(sensor, sizeof sensor, "#0x%02x", bytes[11]);
        EXPECT_NE(t[3].find(sensor), std::string::npos) << t[3];
        EXPECT_EQ((bytes[12] & 0x80) ? "Deasserted" : "Asserted", t[5]);
    }
}

// tvxctl --json lan against ipmitool lan print 1.
void compareLan(const Outcome &ours, const Outcome &theirs)
{
    ASSERT_EQ(ours.exitCode, 0) << ours.err;
    ASSERT_EQ(theirs.exitCode, 0) << theirs.err;
    auto j = nlohmann::json::parse(ours.out);
    Fields t = parseColonTable(theirs.out);
    EXPECT_EQ(j["ip_address"].get<std::string>(), one(t, "IP Address"));
    EXPECT_EQ(j["subnet_mask"].get<std::string>(), one(t, "Subnet Mask"));
    EXPECT_EQ(j["mac_address"].get<std::string>(), one(t, "MAC Address"));
    EXPECT_EQ(j["default_gateway"].get<std::string>(), one(t, "Default Gateway IP"));
    static const std::map<std::string, std::string> sources = {{"static", "Static Address"},
                                                               {"dhcp", "DHCP Address"},
                                                               {"bios", "BIOS Assigned Address"},
                                                               {"other", "Other"},
                                                               {"unspecified", "Unspecified"}};
    auto source = sources.find(j["address_source"].get<std::string>());
    ASSERT_NE(source, sources.end()) << j.dump();
    EXPECT_EQ(source->second, one(t, "IP Address Source"));
}

struct Comparison {
    const char *what;
    std::vector<std::vector<std::string>> before; // commands that change the machine first: tvxctl's
                                                  // arguments, or ipmitool's after "ipmitool"
    std::vector<std::string> ours;                // tvxctl arguments
    std::vector<std::string> theirs;              // ipmitool arguments
    void (*compare)(const Outcome &, const Outcome &);
};

const Comparison kComparisons[] = {
    {"device identity", {}, {"--json", "devid"}, {"mc", "info"}, compareDeviceId},
    {"raw Get Device ID", {}, {"raw", "0x06", "0x01"}, {"raw", "0x06", "0x01"}, sameOutput},
    {"raw Get Self Test Results", {}, {"raw", "0x06", "0x04"}, {"raw", "0x06", "0x04"}, sameOutput},
    {"raw Get SDR Repository Allocation Info (from the module)",
     {},
     {"raw", "0x0a", "0x21"},
     {"raw", "0x0a", "0x21"},
     sameOutput},
    {"raw Get SEL Time UTC Offset (from the module)", {}, {"raw", "0x0a", "0x5c"}, {"raw", "0x0a", "0x5c"}, sameOutput},
    {"an OEM request with another IANA number",
     {},
     {"raw", "0x2e", "0x01", "0x01", "0x02", "0x03"},
     {"raw", "0x2e", "0x01", "0x01", "0x02", "0x03"},
     sameRefusal},
    {"an unknown command", {}, {"raw", "0x06", "0x99"}, {"raw", "0x06", "0x99"}, sameRefusal},
    {"chassis power after Chassis Control power down",
     {{"raw", "0x00", "0x02", "0x00"}},
     {"raw", "0x00", "0x01"},
     {"chassis", "power", "status"},
     samePowerState},
    {"chassis power after Chassis Control power up",
     {{"raw", "0x00", "0x02", "0x01"}},
     {"raw", "0x00", "0x01"},
     {"chassis", "power", "status"},
     samePowerState},
    {"SDR repository and sensor readings", {}, {"--json", "sdr"}, {"sdr", "elist", "all"}, compareSdr},
    {"sensors powered by the host after power down",
     {{"raw", "0x00", "0x02", "0x00"}},
     {"--json", "sdr"},
     {"sdr", "elist", "all"},
     compareSdr},
    {"sensors after power up",
     {{"raw", "0x00", "0x02", "0x01"}},
     {"--json", "sdr"},
     {"sdr", "elist", "all"},
     compareSdr},
    {"system event log", {}, {"--json", "sel"}, {"sel", "list"}, compareSel},
    {"LAN settings after tvxctl set them",
     {{"lan", "set", "ip", "10.9.8.7"},
      {"lan", "set", "netmask", "255.255.0.0"},
      {"lan", "set", "gateway", "10.9.0.1"},
      {"lan", "set", "mac", "02:11:22:33:44:55"},
      {"lan", "set", "source", "static"}},
     {"--json", "lan"},
     {"lan", "print", "1"},
     compareLan},
    {"LAN settings after ipmitool set them",
     {{"ipmitool", "lan", "set", "1", "ipaddr", "192.168.7.9"},
      {"ipmitool", "lan", "set", "1", "netmask", "255.255.255.128"},
      {"ipmitool", "lan", "set", "1", "defgw", "ipaddr", "192.168.7.1"},
      {"ipmitool", "lan", "set", "1", "ipsrc", "dhcp"}},
     {"--json", "lan"},
     {"lan", "print", "1"},
     compareLan},
};

} // namespace

TEST(RealPeer, TvxctlAndIpmitoolAgree)
{
    auto &peer = defaultPeer();
    for (const Comparison &c : kComparisons) {
        SCOPED_TRACE(c.what);
        for (const auto &b : c.before) {
            Outcome r = b.front() == "ipmitool" ? ipmitool(peer, {b.begin() + 1, b.end()}) : tvxctl(&peer, b);
            ASSERT_EQ(r.exitCode, 0) << r.err;
        }
        c.compare(tvxctl(&peer, c.ours), ipmitool(peer, c.theirs));
    }
}

// Over LAN tvxctl prints exactly what it prints for the virtual controller of the same profile: the
// transport changes nothing above the raw exchange, and the simulator built from the profile reads
// as the profile says (sensors included, powered or not).
TEST(RealPeer, TvxctlPrintsTheSameAsInProcess)
{
    auto &peer = defaultPeer();
    std::string state = workDir("inprocess-state");
    auto both = [&](const std::vector<std::string> &args) {
        std::vector<std::string> local = {"--machine", defaultProfile(), "--state", state};
        local.insert(local.end(), args.begin(), args.end());
        return std::make_pair(tvxctl(nullptr, local), tvxctl(&peer, args));
    };
    const std::vector<std::vector<std::string>> commands = {{"devid"},
                                                            {"--json", "devid"},
                                                            {"raw", "0x06", "0x01"},
                                                            {"--json", "raw", "0x06", "0x01"},
                                                            {"--json", "raw", "0x06", "0x99"},
                                                            {"power", "on"},
                                                            {"sdr"},
                                                            {"--json", "sdr"},
                                                            {"power", "off"},
                                                            {"sdr"},
                                                            {"power", "on"}};
    for (const auto &args : commands) {
        SCOPED_TRACE(args.back());
        auto [inProcess, overLan] = both(args);
        EXPECT_EQ(overLan.exitCode, inProcess.exitCode) << overLan.err;
        EXPECT_EQ(overLan.out, inProcess.out);
    }
}

// The event texts come through the vendor's text service in chunks that fit ipmi_sim's
// answers: the messages are the profile's, with their parameters and severities, in both
// languages. What cannot come is an entry whose parameters do not fit one answer of 31 bytes
// after the IANA number (error code, flags, count and the parameters with their length
// bytes): that entry has no message, and the library says nothing of it. The times differ:
// ipmi_sim stamps the entries itself.
TEST(RealPeer, EventTextsOverLanAreTheProfiles)
{
    auto &peer = defaultPeer();
    constexpr std::size_t kParameterRoom = 31 - 6;
    for (const char *language : {"0x0409", "0x0407"}) {
        SCOPED_TRACE(language);
        Outcome lan = tvxctl(&peer, {"--json", "sel", "--text", "--lang", language});
        Outcome local = tvxctl(nullptr, {"--machine", defaultProfile(), "--state", workDir("texts-state"), "--json",
                                         "sel", "--text", "--lang", language});
        ASSERT_EQ(lan.exitCode, 0) << lan.err;
        ASSERT_EQ(local.exitCode, 0) << local.err;
        EXPECT_EQ(lan.err, "");
        auto overLan = nlohmann::json::parse(lan.out), inProcess = nlohmann::json::parse(local.out);
        ASSERT_EQ(overLan.size(), inProcess.size());
        std::size_t withText = 0;
        for (std::size_t i = 0; i < overLan.size(); ++i) {
            const auto &l = overLan[i], &p = inProcess[i];
            SCOPED_TRACE(p["line"].dump());
            EXPECT_EQ(l["record_id"], p["record_id"]);
            std::size_t needed = 0;
            for (const auto &param : p.value("parameters", nlohmann::json::array()))
                needed += 1 + param.get<std::string>().size();
            if (needed > kParameterRoom) {
                EXPECT_FALSE(l.contains("message")) << l; // decoded the standard way instead
                continue;
            }
            ++withText;
            EXPECT_EQ(l["message"], p["message"]);
            EXPECT_EQ(l["severity"], p["severity"]);
            EXPECT_EQ(l["parameters"], p["parameters"]);
        }
        EXPECT_GE(withText, overLan.size() - 2);
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

    // A real controller has no profile to start afresh from.
    Outcome reset = tvxctl(&peer, {"reset"});
    EXPECT_EQ(reset.exitCode, 1);
    EXPECT_NE(reset.err.find("is not a virtual machine"), std::string::npos) << reset.err;
    EXPECT_EQ(reset.err.find(password), std::string::npos) << reset.err;

    // Refused: the message names the user and host, never the password given.
    Outcome refused =
        run({TVX_TVXCTL, "--target",
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

    // And so does the password in the environment, with the target in the environment too: the way
    // an unmodified client program is pointed at a controller.
    Outcome fromEnv =
        run({TVX_TVXCTL, "devid"}, {"TVX_IPMI_TARGET=lan://admin@" + peer.hostPort() + "?workaround=opensesspriv",
                                    "TVX_IPMI_PASSWORD=" + password});
    EXPECT_EQ(fromEnv.exitCode, 0) << fromEnv.err;
    EXPECT_NE(fromEnv.out.find("Product ID"), std::string::npos) << fromEnv.out;
}
