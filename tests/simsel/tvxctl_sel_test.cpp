// tvxctl sel as a user runs it: a separate process per command with its own home and state
// directory, against the built-in default machine and against copies of it; every expectation
// comes from the profile.
#include <gtest/gtest.h>

#include "raw_line.h"
#include "tvxctl_runner.h"

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

class TvxctlSel : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directory(dir_.file("home"));
        profile_ = defaultProfile();
    }

    Outcome run(std::vector<std::string> args) { return tvxtest::runTvxctl(TVXCTL_PATH, dir_.path(), args); }
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
    json profile_;
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

} // namespace
} // namespace simsel
