// tvxctl against stock ipmi_sim (none of the vendor's commands, no module of ours) beside
// ipmitool, for every machine in stock/: each is an ordinary server (satellite controllers
// owning sensors, no chassis device). Adding a machine is adding a file there. Its FRU devices
// and events as tvxctl shows them are pinned in process (the satellite tests), FRU reads and
// standard event decoding over LAN beside ipmitool in the real-peer FRU and elist tests.
//
// Both programs' sensor lists are reduced to items keyed by name, with named fields: every
// sensor ipmitool lists must be listed by tvxctl, with every field ipmitool shows the same; the
// chassis power (or its refusal) must be the same.
#include <algorithm>
#include <filesystem>
#include <map>

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
// --- chassis power: the state, or the refusal ---
std::string powerOutcome(const Outcome &r, const std::string &onText)
{
    if (r.code != 0) return lower(r.err).find("invalid") != std::string::npos ? "refused: invalid command" : "failed";
    return lower(r.out).find(onText) != std::string::npos ? "on" : "off";
}

} // namespace

TEST(StockController, TvxctlAgreesWithIpmitool)
{
    std::vector<std::string> files;
    for (const auto &e : std::filesystem::directory_iterator(TVX_STOCK_MACHINES))
        if (e.path().extension() == ".json") files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    ASSERT_GE(files.size(), 2u);
    for (const std::string &file : files) {
        SCOPED_TRACE(file);
        auto peer = startPeer("stock-" + std::filesystem::path(file).stem().string(), file, false);
        // Every sensor ipmitool lists, with each field it shows (number, reading).
        const Outcome ours = tvxctl(peer.get(), {"--json", "sdr"}), theirs = ipmitool(*peer, {"sdr", "elist", "all"});
        ASSERT_TRUE(ours.code == 0 && theirs.code == 0) << ours.err << theirs.err;
        const Items mine = oursSensors(ours.out), listed = ipmitoolSensors(theirs.out);
        EXPECT_FALSE(listed.empty()) << theirs.out;
        for (const auto &[name, item] : listed) {
            auto it = mine.find(name);
            ASSERT_NE(it, mine.end()) << name << ": listed by ipmitool, not by tvxctl\n" << ours.out << theirs.out;
            for (const auto &[field, value] : item)
                EXPECT_EQ(it->second.count(field) ? it->second.at(field) : "(none)", value) << name << " " << field;
        }
        // The chassis power: the state, or the refusal.
        EXPECT_EQ(powerOutcome(tvxctl(peer.get(), {"power"}), "on"),
                  powerOutcome(ipmitool(*peer, {"chassis", "power", "status"}), "power is on"));
    }
}
