// tvxctl sel as a user runs it: a separate process per command with its own home and state
// directory, against the built-in default machine and against copies of it; every expectation
// comes from the profile.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <map>

#include <gtest/gtest.h>

#include "raw_line.h"
#include "tvxctl_runner.h"

extern char **environ;

namespace simsel {
namespace {

using tvxtest::Outcome;

std::vector<std::string> splitLines(const std::string &text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// "Name   : value" rows.
std::map<std::string, std::string> rows(const std::string &text)
{
    std::map<std::string, std::string> out;
    for (const auto &line : splitLines(text)) {
        auto colon = line.find(" : ");
        if (colon == std::string::npos) continue;
        std::string name = line.substr(0, colon);
        name.erase(name.find_last_not_of(' ') + 1);
        out[name] = line.substr(colon + 3);
    }
    return out;
}

class TvxctlSel : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directory(dir_.file("home"));
        profile_ = defaultProfile();
        fixed_ = profile_;
        fixed_["sel"]["clock"] = {{"fixed", "2026-11-16T21:45:12Z"}};
        writeFile(dir_.file("fixed.json"), fixed_.dump());
    }

    Outcome run(std::vector<std::string> args) { return tvxtest::runTvxctl(TVXCTL_PATH, dir_.path(), args); }
    // The same with the fixed-clock copy of the default machine.
    Outcome runFixed(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--machine", dir_.file("fixed.json")});
        return run(args);
    }

    std::vector<std::string> rawLines(const json &profile, bool reverse = false)
    {
        std::vector<std::string> out;
        for (const Bytes &r : profileRecords(profile)) out.push_back(rawLine(r));
        if (reverse) std::reverse(out.begin(), out.end());
        return out;
    }
    std::vector<std::string> textLines(const json &profile, const std::string &lcid)
    {
        std::vector<std::string> out;
        std::vector<Bytes> recs = profileRecords(profile);
        for (std::size_t i = 0; i < recs.size(); ++i)
            out.push_back(textLine(profile, profile["sel"]["records"][i], bytes3to6(recs[i]), lcid));
        return out;
    }

    TempDir dir_;
    json profile_, fixed_;
};

TEST_F(TvxctlSel, ListsTheDefaultMachinesLogRawAndAsTexts)
{
    Outcome r = run({"sel"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(splitLines(r.out), rawLines(profile_));
    EXPECT_EQ(r.err, "");
    r = run({"sel", "--reverse"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(splitLines(r.out), rawLines(profile_, true));

    r = run({"sel", "--text", "--lang", "0x0407"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(splitLines(r.out), textLines(profile_, "0x0407"));
    r = run({"sel", "--text"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(splitLines(r.out), textLines(profile_, "0x0409"));
    // A language the machine has no texts in shows the English ones.
    r = run({"sel", "list", "--text", "--lang", "1036"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(splitLines(r.out), textLines(profile_, "0x0409"));
}

TEST_F(TvxctlSel, JsonDescribesEveryRecord)
{
    Outcome r = run({"--json", "sel"});
    ASSERT_EQ(r.code, 0) << r;
    json list = json::parse(r.out);
    std::vector<Bytes> recs = profileRecords(profile_);
    ASSERT_EQ(list.size(), recs.size());
    for (std::size_t i = 0; i < recs.size(); ++i) {
        EXPECT_EQ(list[i]["record_id"], i + 1);
        EXPECT_EQ(list[i]["bytes"].get<Bytes>(), recs[i]);
        EXPECT_EQ(list[i]["line"], rawLine(recs[i]));
        if (timestamped(profile_["sel"]["records"][i])) {
            EXPECT_EQ(list[i]["time"], timeText(bytes3to6(recs[i])));
        }
    }

    r = run({"--json", "sel", "--text", "--lang", "0x0407", "--reverse"});
    ASSERT_EQ(r.code, 0) << r;
    list = json::parse(r.out);
    ASSERT_EQ(list.size(), recs.size());
    for (std::size_t k = 0; k < recs.size(); ++k) {
        std::size_t i = recs.size() - 1 - k;
        const json &rec = profile_["sel"]["records"][i];
        EXPECT_EQ(list[k]["record_id"], i + 1);
        EXPECT_EQ(list[k]["error_code"], rec["error_code"]);
        EXPECT_EQ(list[k]["severity"], severity(profile_, rec));
        EXPECT_EQ(list[k]["parameters"], rec.value("parameters", json::array()));
        // The message text as the controller keeps it, its parameters beside it.
        EXPECT_EQ(list[k]["message"], profile_["event_texts"]["codes"][rec["error_code"].get<std::string>()]["texts"]["0x0407"]);
        EXPECT_EQ(list[k]["line"], textLine(profile_, rec, bytes3to6(recs[i]), "0x0407"));
    }
}

TEST_F(TvxctlSel, InfoShowsTheSummary)
{
    Outcome r = run({"sel", "info"});
    ASSERT_EQ(r.code, 0) << r;
    auto info = rows(r.out);
    const unsigned entries = static_cast<unsigned>(profile_["sel"]["records"].size());
    const unsigned capacity = profile_["sel"]["capacity"];
    EXPECT_EQ(info["Entries"], std::to_string(entries));
    EXPECT_EQ(info["Capacity"], std::to_string(capacity));
    EXPECT_EQ(info["Percent used"], std::to_string(100 * entries / capacity) + "%");
    EXPECT_EQ(info["Last addition"], timeText(lastAddOf(profile_)));
    EXPECT_EQ(info["Last erase"], timeText(timeOf(profile_["sel"]["last_erase"])));
    EXPECT_EQ(info["UTC offset"], std::to_string(profile_["sel"]["utc_offset_minutes"].get<int>()) + " minutes");

    r = run({"--json", "sel", "info"});
    ASSERT_EQ(r.code, 0) << r;
    json j = json::parse(r.out);
    EXPECT_EQ(j["entries"], entries);
    EXPECT_EQ(j["max_entries"], capacity);
    EXPECT_EQ(j["last_add_time"], lastAddOf(profile_));
    EXPECT_EQ(j["last_erase_time"], timeOf(profile_["sel"]["last_erase"]));
    EXPECT_EQ(j["utc_offset_minutes"], profile_["sel"]["utc_offset_minutes"]);
}

TEST_F(TvxctlSel, AddAndClearAreSeenByTheNextCommand)
{
    Outcome r = runFixed({"sel", "add", "0x04", "0x20", "0x01", "0x52", "3", "5"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(r.out, "Record added.\n");
    r = runFixed({"--json", "sel", "add", "0x22", "0x72", "0x6f", "0", "0xff", "0xff"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(json::parse(r.out), json({{"added", true}}));

    const std::size_t n = fixed_["sel"]["records"].size();
    const std::string now = timeText(kFixedNow);
    r = runFixed({"sel", "--reverse"});
    ASSERT_EQ(r.code, 0) << r;
    auto raw = splitLines(r.out);
    ASSERT_EQ(raw.size(), n + 2);
    Bytes fan = {uint8_t(n + 1), 0, 0x02, 0, 0, 0, 0, 0x20, 0x00, 0x01, 0x04, 0x20, 0x01, 0x52, 0x03, 0x05};
    for (int i = 0; i < 4; ++i) fan[3 + i] = uint8_t(kFixedNow >> (8 * i));
    EXPECT_EQ(raw[1], rawLine(fan));

    // The controller labels them as its event handling would.
    r = runFixed({"sel", "--text", "--lang", "0x0407", "--reverse"});
    ASSERT_EQ(r.code, 0) << r;
    auto texts = splitLines(r.out);
    ASSERT_EQ(texts.size(), n + 2);
    EXPECT_EQ(texts[0], textLine(fixed_, {{"error_code", "01000101"}}, kFixedNow, "0x0407"));
    EXPECT_EQ(texts[1], textLine(fixed_, {{"error_code", "02000101"}, {"parameters", {sensorName(fixed_, 0x20)}}}, kFixedNow, "0x0407"));
    EXPECT_EQ(rows(runFixed({"sel", "info"}).out)["Last addition"], now);

    r = runFixed({"sel", "clear"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(r.out, "Clearing the SEL.\n");
    for (const auto &args : std::vector<std::vector<std::string>>{{"sel"}, {"sel", "--text"}}) {
        r = runFixed(args);
        EXPECT_EQ(r.code, 0) << r;
        EXPECT_EQ(r.out, "") << r;
    }
    r = runFixed({"--json", "sel"});
    EXPECT_EQ(json::parse(r.out), json::array());
    auto info = rows(runFixed({"sel", "info"}).out);
    EXPECT_EQ(info["Entries"], "0");
    EXPECT_EQ(info["Last erase"], now);
    r = runFixed({"--json", "sel", "clear"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_EQ(json::parse(r.out), json({{"cleared", true}}));

    // The built-in machine in the same state directory was not touched.
    EXPECT_EQ(splitLines(run({"sel"}).out), rawLines(profile_));
}

TEST_F(TvxctlSel, AFullLogAndBadArgumentsAreRefused)
{
    fixed_["sel"]["capacity"] = fixed_["sel"]["records"].size();
    writeFile(dir_.file("fixed.json"), fixed_.dump());
    Outcome r = runFixed({"sel", "add", "1", "2", "3", "4", "5", "6"});
    EXPECT_EQ(r.code, 1) << r;
    EXPECT_NE(r.err.find("did not add"), std::string::npos) << r;
    EXPECT_EQ(rows(runFixed({"sel", "info"}).out)["Percent used"], "100%");

    const std::vector<std::pair<std::vector<std::string>, std::string>> bad = {
        {{"sel", "add", "1", "2"}, "usage: tvxctl sel add"},
        {{"sel", "add", "0x100", "2", "3", "4", "5", "6"}, "invalid SENSORTYPE \"0x100\""},
        {{"sel", "--text", "--lang", "german"}, "invalid --lang \"german\""},
        {{"sel", "info", "now"}, "sel info takes no arguments"},
        {{"sel", "clear", "all"}, "sel clear takes no arguments"},
        {{"sel", "--sorted"}, "--sorted"},
    };
    for (const auto &[args, reason] : bad) {
        r = run(args);
        EXPECT_EQ(r.code, 2) << r;
        EXPECT_NE(r.err.find(reason), std::string::npos) << r;
        EXPECT_EQ(r.out, "") << r;
    }
}

TEST_F(TvxctlSel, ABadLogStopsTvxctlNamingThePlace)
{
    fixed_["sel"]["records"][5]["sensor_type"] = "0x1FF";
    writeFile(dir_.file("fixed.json"), fixed_.dump());
    for (const auto &args : std::vector<std::vector<std::string>>{{"sel"}, {"sel", "info"}, {"sel", "clear"}}) {
        Outcome r = runFixed(args);
        EXPECT_EQ(r.code, 1) << r;
        EXPECT_NE(r.err.find(dir_.file("fixed.json") + ": /sel/records/5/sensor_type: expected an integer from 0 to 255"),
                  std::string::npos)
            << r;
        EXPECT_EQ(r.out, "");
    }
    EXPECT_FALSE(std::filesystem::exists(dir_.file("state/fixed.state.json")));
}

} // namespace
} // namespace simsel
