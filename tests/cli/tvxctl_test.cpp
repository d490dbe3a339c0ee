// tvxctl as a user runs it: a process per command, each with its own state directory and home.
#include <filesystem>

#include <gtest/gtest.h>

#include "machine.h"
#include "process.h"

using nlohmann::json;

namespace {

using tvxtest::readFile;
using tvxtest::writeFile;

using tvxtest::Outcome;

class Tvxctl : public testing::Test {
protected:
    void SetUp() override
    {
        dir_ = scratch_.path();
        oddPath_ = dir_ + "/odd.json";
        writeFile(oddPath_, tvxtest::baseProfile().dump(2));
    }

    std::string stateDir() const { return dir_ + "/state"; }

    // Runs tvxctl; extraEnv entries ("NAME=VALUE") are added to its environment.
    Outcome run(const std::vector<std::string> &args, const std::vector<std::string> &extraEnv = {})
    {
        return tvxtest::tvxctl(dir_, args, extraEnv);
    }

    tvxtest::TempDir scratch_;
    std::string dir_, oddPath_;
};

TEST_F(Tvxctl, BadUsageExitsTwoWithAReason)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"raw", "0x40", "0x01"}, "invalid NETFN \"0x40\""},
        {{"raw", "0x06", "0x06", "0x83", "7f"}, "invalid data byte \"7f\""},
        {{"frobnicate"}, "unknown command \"frobnicate\""},
        {{"--machine", "a.json", "--target", "default", "devid"}, "give one"},
        {{}, "usage: tvxctl"},
        {{"lan", "set", "ip", "10.20.30.400"}, "invalid IPv4 address \"10.20.30.400\""},
        {{"power", "sideways"}, "unknown power action \"sideways\""},
        {{"config", "get", "0x10000"}, "invalid variable ID"},
        {{"config", "set", "0x0201", "0", std::string(251, 'x')}, "at most 250 bytes"},
    };
    for (const auto &[args, reason] : cases) {
        Outcome r = run(args);
        SCOPED_TRACE(testing::Message() << "args: " << testing::PrintToString(args));
        EXPECT_EQ(std::tuple(r.code, r.out), std::tuple(2, "")) << r;
        EXPECT_NE(r.err.find(reason), std::string::npos) << r;
    }
}

TEST_F(Tvxctl, RefusedCommandExitsOneWithTheCompletionCode)
{
    Outcome r = run({"raw", "0x06", "0x99"});
    EXPECT_EQ(r.code, 1) << r;
    EXPECT_NE(r.err.find("rsp=0xc1"), std::string::npos) << r;
    EXPECT_NE(r.err.find("Invalid command"), std::string::npos) << r;

    r = run({"--json", "raw", "0x06", "0x99"});
    EXPECT_EQ(r.code, 1) << r;
    json j = json::parse(r.out);
    EXPECT_EQ((std::vector<json>{j["completion_code"], j["completion_code_text"], j["data"]}),
              (std::vector<json>{0xC1, "Invalid command", json::array()}));
}

TEST_F(Tvxctl, BadProfileIsNamedWithThePlace)
{
    json doc = tvxtest::baseProfile();
    doc["controller"]["product_id"] = "0x10000";
    const std::string bad = dir_ + "/bad.json";
    writeFile(bad, doc.dump());
    for (const auto &[args, env] : std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>>{
             {{"--target", "machine:" + bad, "raw", "0x06", "0x01"}, {}},
             {{"devid"}, {"TVX_IPMI_TARGET=" + bad}},
         }) {
        Outcome r = run(args, env);
        EXPECT_EQ(std::tuple(r.code, r.out), std::tuple(1, "")) << r;
        EXPECT_NE(r.err.find(bad + ": /controller/product_id: "), std::string::npos) << r;
    }
    EXPECT_FALSE(std::filesystem::exists(stateDir() + "/bad.state.json"));
    EXPECT_FALSE(std::filesystem::exists(stateDir() + "/bad.lock"));
}

TEST_F(Tvxctl, StatePersistsAcrossProcessesUntilReset)
{
    Outcome r = run({"raw", "0x06", "0x06", "0x83", "0x7f"});
    ASSERT_EQ(r.code, 0) << r;
    EXPECT_TRUE(std::filesystem::exists(stateDir() + "/default.state.json"));
    EXPECT_EQ(run({"raw", "0x06", "0x07"}).out, " 03 00\n");

    // Another machine, or the same machine in another state directory, is not affected.
    EXPECT_EQ(run({"--machine", oddPath_, "raw", "0x06", "0x07"}).out, " 00 00\n");
    EXPECT_EQ(run({"--state", dir_ + "/elsewhere", "raw", "0x06", "0x07"}).out, " 00 00\n");
    EXPECT_EQ(run({"raw", "0x06", "0x07"}).out, " 03 00\n");

    // The message for a corrupt state file tells the user to run 'tvxctl reset'; that has to work.
    writeFile(stateDir() + "/default.state.json", "{ half a file");
    r = run({"raw", "0x06", "0x07"});
    EXPECT_EQ(r.code, 1) << r;
    EXPECT_NE(r.err.find(stateDir() + "/default.state.json: "), std::string::npos) << r;
    EXPECT_NE(r.err.find("tvxctl reset"), std::string::npos) << r;
    EXPECT_EQ(tvxtest::tvxctlJson(dir_, {"reset"})["state_file"], stateDir() + "/default.state.json");
    EXPECT_EQ(run({"raw", "0x06", "0x07"}).out, " 00 00\n");
}

} // namespace
