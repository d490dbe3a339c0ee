// tvxctl's sensor table over LAN against ipmi_sim beside `ipmitool sensor` on the same
// simulator, powered on and off.
#include <cmath>
#include <map>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support.h"

using namespace realpeer;
using nlohmann::json;

namespace {

// ipmitool's CSV lines as cells.
std::vector<std::vector<std::string>> cells(const std::string &text)
{
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(text);
    for (std::string line, cell; std::getline(in, line);) {
        rows.emplace_back();
        for (std::istringstream l(line); std::getline(l, cell, ',');) rows.back().push_back(cell);
    }
    return rows;
}

// ipmitool's words for the library's units and threshold states.
const std::map<std::string, std::string> kUnits = {{"C", "degrees C"},     {"Volt", "Volts"},
                                                   {"Amps", "Amps"},       {"RPM", "RPM"},
                                                   {"percent", "percent"}, {"discrete", "discrete"}};
const std::map<std::string, std::string> kStates = {{"OK", "ok"},       {"LowWarn", "nc"},   {"UpWarn", "nc"},
                                                    {"LowCrit", "cr"},  {"UpCrit", "cr"},    {"LowNRecov", "nr"},
                                                    {"UpNRecov", "nr"}, {"Power Off", "na"}, {"N/A", "na"}};
const char *kThresholds[6] = {"lnr", "lcr", "lnc", "unc", "ucr", "unr"};

void sameAsIpmitool(const Outcome &ours, const Outcome &theirs)
{
    ASSERT_EQ(ours.exitCode, 0) << ours.err;
    ASSERT_EQ(theirs.exitCode, 0) << theirs.err;
    std::map<std::string, json> byName;
    for (const json &r : json::parse(ours.out)) byName[r["name"]] = r;
    auto rows = cells(theirs.out);
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

} // namespace

TEST(RealPeer, SensorTableAgreesWithIpmitool)
{
    auto &peer = defaultPeer();
    for (const char *power : {"on", "off", "on"}) {
        SCOPED_TRACE(power);
        ASSERT_EQ(tvxctl(&peer, {"power", power}).exitCode, 0);
        sameAsIpmitool(tvxctl(&peer, {"--json", "sensor"}), ipmitool(peer, {"-c", "sensor"}));
    }
}
