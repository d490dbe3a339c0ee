// tvxctl against stock ipmi_sim (none of the vendor's commands, no module of ours) beside
// ipmitool, for every machine in stock/: each is an ordinary server (satellite controllers
// owning sensors, no chassis device). Adding a machine is adding a file there. Its FRU devices
// and events as tvxctl shows them are pinned in process (the satellite tests), FRU reads and
// standard event decoding over LAN beside ipmitool in the real-peer FRU and elist tests.
//
// Each row of kRows runs both programs and reduces what each prints to items (a sensor, the
// power) keyed the same way, with named fields. Every field ipmitool shows is compared; every
// item it lists must be listed by tvxctl.
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
Item powerOutcome(const Outcome &r, const std::string &onText)
{
    if (r.code != 0)
        return {{"outcome", lower(r.err).find("invalid") != std::string::npos ? "refused: invalid command"
                                                                                        : "failed"}};
    return {{"outcome", lower(r.out).find(onText) != std::string::npos ? "on" : "off"}};
}

struct Row {
    const char *what;
    std::vector<std::string> ours, theirs; // tvxctl's arguments, ipmitool's
    Items (*parseOurs)(const std::string &), (*parseTheirs)(const std::string &); // null: the outcome alone (power)
    std::vector<std::string> fields;
};

const Row kRows[] = {
    {"sensors", {"--json", "sdr"}, {"sdr", "elist", "all"}, oursSensors, ipmitoolSensors, {"number", "reading"}},
    {"chassis power", {"power"}, {"chassis", "power", "status"}, nullptr, nullptr, {"outcome"}},
};

std::vector<std::string> machines()
{
    std::vector<std::string> out;
    for (const auto &e : std::filesystem::directory_iterator(TVX_STOCK_MACHINES))
        if (e.path().extension() == ".json") out.push_back(e.path().string());
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace

TEST(StockController, TvxctlAgreesWithIpmitool)
{
    const auto files = machines();
    ASSERT_GE(files.size(), 2u);
    for (const std::string &file : files) {
        SCOPED_TRACE(file);
        auto peer = startPeer("stock-" + std::filesystem::path(file).stem().string(), file, false);
        for (const Row &row : kRows) {
            SCOPED_TRACE(row.what);
            const Outcome ours = tvxctl(peer.get(), row.ours), a = ipmitool(*peer, row.theirs);
            Items mine, theirs;
            if (!row.parseOurs) {
                mine["-"] = powerOutcome(ours, "on");
                theirs["-"] = powerOutcome(a, "power is on");
            } else {
                ASSERT_EQ(ours.code, 0) << ours.err;
                ASSERT_EQ(a.code, 0) << a.err;
                mine = row.parseOurs(ours.out);
                theirs = row.parseTheirs(a.out);
            }
            std::size_t compared = 0;
            for (const auto &[key, item] : theirs) {
                SCOPED_TRACE(key);
                auto it = mine.find(key);
                ASSERT_NE(it, mine.end()) << "listed by ipmitool, not by tvxctl\n" << ours.out << a.out;
                for (const std::string &f : row.fields) {
                    auto t = item.find(f);
                    if (t == item.end()) continue;
                    EXPECT_EQ(it->second.count(f) ? it->second.at(f) : "(none)", t->second) << f;
                    ++compared;
                }
            }
            EXPECT_GT(compared, 0u) << ours.out << a.out << a.err;
        }
    }
}
