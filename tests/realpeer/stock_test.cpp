// tvxctl against stock ipmi_sim (none of the vendor's commands, no module of ours) beside
// ipmitool and FreeIPMI, for every machine in stock/: each is an ordinary server (satellite
// controllers owning sensors, FRU devices without locators or on other controllers, no
// chassis device). Adding a machine is adding a file there.
//
// Each row of kRows runs the three programs and reduces what each prints to items (a sensor,
// a FRU device, an event) keyed the same way, with named fields. A field is compared with
// each peer that shows it, unless the two peers disagree with each other on it; every item a
// peer lists must be listed by tvxctl.
#include <algorithm>
#include <dirent.h>
#include <map>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support.h"

using namespace realpeer;
using nlohmann::json;

namespace {

using Item = std::map<std::string, std::string>;
using Items = std::map<std::string, Item>; // by key

std::string lower(std::string s)
{
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string twoDecimals(double v)
{
    char b[32];
    std::snprintf(b, sizeof b, "%.2f", v);
    return b;
}

// Either a number printed with two decimals, or the text as it stands.
std::string reading(const std::string &text)
{
    char *end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    return end != text.c_str() && *end == '\0' ? twoDecimals(v) : lower(text);
}

// --- sensors ---
Items oursSensors(const std::string &out)
{
    Items items;
    for (const json &r : json::parse(out)) {
        if (r["sensor_number"].is_null()) continue; // locators
        Item &i = items[r["name"].get<std::string>()];
        char number[8];
        std::snprintf(number, sizeof number, "%02xh", r["sensor_number"].get<int>());
        i["number"] = number;
        if (r["event_reading_type"].get<int>() == 0x01)
            i["reading"] = r.value("value", json()).is_number() ? twoDecimals(r["value"].get<double>()) : "no reading";
    }
    return items;
}
// ipmitool sdr elist full/compact: "name | 01h | ok | 55.1 | 24 degrees C".
Items ipmitoolSensors(const std::string &out)
{
    Items items;
    for (const auto &c : table(out, '|')) {
        if (c.size() != 5 || c[4].find(" @") != std::string::npos) continue; // locators: "Logical FRU @01h"
        Item &i = items[c[0]];
        i["number"] = lower(c[1]);
        if (c[4].find("degrees") != std::string::npos || c[4] == "No Reading")
            i["reading"] = c[4] == "No Reading" ? "no reading" : reading(c[4].substr(0, c[4].find(' ')));
    }
    return items;
}
// ipmi-sensors --comma-separated-output: "ID,Name,Type,Reading,Units,Event".
Items freeipmiSensors(const std::string &out)
{
    Items items;
    for (const auto &c : table(out, ',', true)) {
        if (c.size() < 5) continue;
        Item &i = items[c[1]];
        if (c[4] == "C") i["reading"] = c[3] == "N/A" ? "no reading" : reading(c[3]);
    }
    return items;
}

// --- FRU devices, by board serial number ---
Items oursFru(const std::string &out)
{
    Items items;
    for (const json &d : json::parse(out)) {
        if (d["board"].is_null()) continue;
        const json &b = d["board"];
        Item &i = items[b.value("serial_number", "")];
        i["manufacturer"] = b.value("manufacturer", "");
        i["product"] = b.value("product_name", "");
        i["part"] = b.value("part_number", "");
    }
    return items;
}
// "Label : value" (ipmitool) or "Label: value" (ipmi-fru) lines; a device starts at `start`.
Items colonFru(const std::string &out, const std::string &start, const std::map<std::string, std::string> &labels)
{
    std::vector<Item> devices;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        const auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        const std::string label = trim(line.substr(0, colon)), value = trim(line.substr(colon + 1));
        if (label == start) devices.emplace_back();
        auto it = labels.find(label);
        if (it != labels.end() && !devices.empty()) devices.back()[it->second] = value;
    }
    Items items;
    for (Item &d : devices) {
        const std::string serial = d["serial"];
        d.erase("serial");
        if (!serial.empty()) items[serial] = d;
    }
    return items;
}
Items ipmitoolFru(const std::string &out)
{
    return colonFru(out, "FRU Device Description",
                    {{"Board Mfg", "manufacturer"}, {"Board Product", "product"}, {"Board Serial", "serial"},
                     {"Board Part Number", "part"}});
}
Items freeipmiFru(const std::string &out)
{
    return colonFru(out, "FRU Inventory Device",
                    {{"FRU Board Manufacturer", "manufacturer"}, {"FRU Board Product Name", "product"},
                     {"FRU Board Serial Number", "serial"}, {"FRU Board Part Number", "part"}});
}

// --- events, by record ID in decimal ---
Items oursSel(const std::string &out)
{
    Items items;
    for (const json &e : json::parse(out)) {
        Item &i = items[std::to_string(e["record_id"].get<unsigned>())];
        i["time"] = e.value("time", "");
        i["type"] = e.value("sensor_type_name", "");
        i["event"] = lower(e.value("event", ""));
        i["direction"] = e.value("direction", "");
    }
    return items;
}
// ipmitool sel list: "1 | Pre-Init |0000000100| Temperature #0x02 | Upper Critical going high | Asserted".
Items ipmitoolSel(const std::string &out)
{
    Items items;
    for (const auto &c : table(out, '|')) {
        if (c.size() != 6) continue;
        Item &i = items[std::to_string(std::stoul(c[0], nullptr, 16))];
        i["time"] = c[1] == "Pre-Init" ? "Pre-Init " + c[2] : c[1] + " " + c[2];
        i["type"] = c[3].substr(0, c[3].find(" #"));
        i["event"] = lower(c[4]);
        i["direction"] = c[5];
    }
    return items;
}
// ipmi-sel --comma-separated-output: "ID,Date,Time,Name,Type,Event".
Items freeipmiSel(const std::string &out)
{
    Items items;
    for (const auto &c : table(out, ',', true)) {
        if (c.size() < 6) continue;
        Item &i = items[c[0]];
        i["type"] = c[4];
        i["event"] = lower(c[5]);
    }
    return items;
}

// --- identity: tvxctl --json devid; ipmitool mc info and bmc-info print "Name : value" ---
std::string firstNumber(const std::string &text)
{
    const auto start = text.find_first_of("0123456789");
    return start == std::string::npos ? text : std::to_string(std::stoul(text.substr(start)));
}
Items oursIdentity(const std::string &out)
{
    const json j = json::parse(out);
    return {{"-",
             {{"device", std::to_string(j["device_id"].get<int>())},
              {"firmware", j["firmware_revision"].get<std::string>()},
              {"ipmi", j["ipmi_version"].get<std::string>()},
              {"manufacturer", std::to_string(j["manufacturer_id"].get<unsigned>())},
              {"product", std::to_string(j["product_id"].get<unsigned>())}}}};
}
Items peerIdentity(const std::string &out)
{
    Fields f = fields(out);
    Item i;
    const std::pair<const char *, const char *> keys[] = {{"device", "Device ID"},
                                                          {"firmware", "Firmware Revision"},
                                                          {"ipmi", "IPMI Version"},
                                                          {"manufacturer", "Manufacturer ID"},
                                                          {"product", "Product ID"}};
    for (const auto &[name, key] : keys)
        if (!f[key].empty()) i[name] = name == std::string("firmware") || name == std::string("ipmi")
                                           ? f[key].front()
                                           : firstNumber(f[key].front());
    return {{"-", i}};
}

// --- raw Get Device ID: the answer's data bytes (ipmi-raw prints the command and the
// completion code first) ---
std::string hexWords(std::istringstream in, int skip)
{
    std::string out, word;
    while (in >> word)
        if (word.find(':') == std::string::npos && skip-- <= 0) out += (out.empty() ? "" : " ") + lower(word);
    return out;
}
Items rawBytes(const std::string &out) { return {{"-", {{"bytes", hexWords(std::istringstream(out), 0)}}}}; }
Items ipmiRawBytes(const std::string &out) { return {{"-", {{"bytes", hexWords(std::istringstream(out), 2)}}}}; }

// --- LAN: tvxctl --json lan; ipmitool lan print 1 ("Name : value"); ipmi-config's Lan_Conf
// section ("Key   value") ---
Items oursLan(const std::string &out)
{
    const json j = json::parse(out);
    auto text = [&j](const char *k) {
        return j.contains(k) && j[k].is_string() ? j[k].get<std::string>() : std::string("(none)");
    };
    return {{"-",
             {{"ip", text("ip_address")},
              {"mask", text("subnet_mask")},
              {"mac", lower(text("mac_address"))},
              {"gateway", text("default_gateway")}}}};
}
Items ipmitoolLan(const std::string &out)
{
    Fields f = fields(out);
    auto one = [&f](const char *k) { return f[k].empty() ? std::string("(none)") : lower(f[k].front()); };
    return {{"-",
             {{"ip", one("IP Address")},
              {"mask", one("Subnet Mask")},
              {"mac", one("MAC Address")},
              {"gateway", one("Default Gateway IP")}}}};
}
Items freeipmiLan(const std::string &out)
{
    std::map<std::string, std::string> v;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string key, value;
        if (words >> key >> value) v[key] = lower(value);
    }
    return {{"-",
             {{"ip", v["IP_Address"]},
              {"mask", v["Subnet_Mask"]},
              {"mac", v["MAC_Address"]},
              {"gateway", v["Default_Gateway_IP_Address"]}}}};
}

// --- chassis power: the state, or the refusal ---
Item powerOutcome(const Outcome &r, const std::string &onText)
{
    if (r.code != 0)
        return {{"outcome", lower(r.err).find("invalid") != std::string::npos ? "refused: invalid command"
                                                                                        : "failed"}};
    return {{"outcome", lower(r.out).find(onText) != std::string::npos ? "on" : "off"}};
}

struct Program {
    std::vector<std::string> argv;
    Items (*parse)(const std::string &); // null: the outcome alone (power)
};

struct Row {
    const char *what;
    Program ours, ipmitool, freeipmi; // tvxctl's arguments, ipmitool's, a FreeIPMI program's
    std::vector<std::string> fields;
};

const Row kRows[] = {
    {"sensors", {{"--json", "sdr"}, oursSensors},
     {{"sdr", "elist", "all"}, ipmitoolSensors},
     {{"ipmi-sensors", "--bridge-sensors", "--comma-separated-output"}, freeipmiSensors},
     {"number", "reading"}},
    {"FRU devices", {{"--json", "fru"}, oursFru},
     {{"fru", "print"}, ipmitoolFru},
     {{"ipmi-fru", "--bridge-fru"}, freeipmiFru},
     {"manufacturer", "product", "part"}},
    {"events", {{"--json", "sel", "--text"}, oursSel},
     {{"sel", "list"}, ipmitoolSel},
     {{"ipmi-sel", "--comma-separated-output"}, freeipmiSel},
     {"time", "type", "event", "direction"}},
    {"identity", {{"--json", "devid"}, oursIdentity},
     {{"mc", "info"}, peerIdentity},
     {{"bmc-info"}, peerIdentity},
     {"device", "firmware", "ipmi", "manufacturer", "product"}},
    {"raw Get Device ID", {{"raw", "0x06", "0x01"}, rawBytes},
     {{"raw", "0x06", "0x01"}, rawBytes},
     {{"ipmi-raw", "00", "06", "01"}, ipmiRawBytes},
     {"bytes"}},
    {"LAN", {{"--json", "lan"}, oursLan},
     {{"lan", "print", "1"}, ipmitoolLan},
     {{"ipmi-config", "--checkout", "--section=Lan_Conf"}, freeipmiLan},
     {"ip", "mask", "mac", "gateway"}},
    {"chassis power", {{"power"}, nullptr},
     {{"chassis", "power", "status"}, nullptr},
     {{"ipmi-chassis", "--get-chassis-status"}, nullptr},
     {"outcome"}},
};

Outcome freeipmi(const tvxsim::ipmisim::Peer &peer, std::vector<std::string> argv)
{
    const auto &u = peer.options().users.front();
    // Its own SDR cache for the programs that keep one: ports are reused by other machines.
    if (argv.front() == "ipmi-sensors" || argv.front() == "ipmi-sel" || argv.front() == "ipmi-fru")
        argv.insert(argv.begin() + 1, "--sdr-cache-directory=" + peer.options().workDir);
    argv.insert(argv.begin() + 1, {"-h", peer.hostPort(), "-u", u.name, "-p", u.password, "-l", "ADMIN", "-I", "3",
                                   "-W", "opensesspriv", "--session-timeout=2000"});
    return tvxtest::run(argv);
}

std::vector<std::string> machines()
{
    std::vector<std::string> out;
    if (DIR *d = ::opendir(TVX_STOCK_MACHINES)) {
        while (dirent *e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name.size() > 5 && name.substr(name.size() - 5) == ".json") out.push_back(name);
        }
        ::closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::unique_ptr<tvxsim::ipmisim::Peer> stockPeer(const std::string &file)
{
    tvxsim::ipmisim::PeerOptions o;
    o.profilePath = std::string(TVX_STOCK_MACHINES) + "/" + file;
    o.workDir = workDir("stock-" + file);
    return std::make_unique<tvxsim::ipmisim::Peer>(std::move(o)); // no module
}

} // namespace

TEST(StockController, TvxctlAgreesWithIpmitoolAndFreeIpmi)
{
    const auto files = machines();
    ASSERT_GE(files.size(), 2u);
    for (const std::string &file : files) {
        SCOPED_TRACE(file);
        auto peer = stockPeer(file);
        for (const Row &row : kRows) {
            SCOPED_TRACE(row.what);
            const Outcome ours = tvxctl(peer.get(), row.ours.argv);
            const Outcome a = ipmitool(*peer, row.ipmitool.argv), b = freeipmi(*peer, row.freeipmi.argv);
            Items mine, first, second;
            if (!row.ipmitool.parse) {
                mine["-"] = powerOutcome(ours, "on");
                first["-"] = powerOutcome(a, "power is on");
                second["-"] = powerOutcome(b, "system power                        : on");
            } else {
                ASSERT_EQ(ours.code, 0) << ours.err;
                ASSERT_EQ(a.code, 0) << a.err;
                ASSERT_EQ(b.code, 0) << b.err;
                mine = row.ours.parse(ours.out);
                first = row.ipmitool.parse(a.out);
                second = row.freeipmi.parse(b.out);
            }
            std::size_t compared = 0;
            for (const Items *peerItems : {&first, &second})
                for (const auto &[key, theirs] : *peerItems) {
                    SCOPED_TRACE(key);
                    auto it = mine.find(key);
                    ASSERT_NE(it, mine.end()) << "listed by a peer, not by tvxctl\n" << ours.out << a.out << b.out;
                    const Item &other = peerItems == &first ? second[key] : first[key];
                    for (const std::string &f : row.fields) {
                        auto t = theirs.find(f);
                        if (t == theirs.end()) continue;
                        auto o = other.find(f);
                        if (o != other.end() && o->second != t->second) continue; // the peers disagree
                        EXPECT_EQ(it->second.count(f) ? it->second.at(f) : "(none)", t->second) << f;
                        ++compared;
                    }
                }
            EXPECT_GT(compared, 0u) << ours.out << a.out << a.err << b.out << b.err;
        }
    }
}
