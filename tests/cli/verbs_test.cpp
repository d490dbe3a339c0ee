// ipmitool's verbs beside tvxctl's own commands, the help pages, and output that cannot be
// written.
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "machine.h"
#include "process.h"

using nlohmann::json;
using tvxtest::Outcome;

namespace {

class Verbs : public testing::Test {
protected:
    // tvxctl with a state directory of its own per name: a state-changing alias and its
    // canonical command each start from the same machine.
    Outcome run(const std::vector<std::string> &args, const std::string &state = "state")
    {
        return tvxtest::tvxctl(scratch_.path(), args, {"TVX_IPMI_STATE_DIR=" + scratch_.path() + "/" + state});
    }
    tvxtest::TempDir scratch_;
};

TEST_F(Verbs, IpmitoolWordsDoWhatTheCanonicalCommandDoes)
{
    struct Case {
        std::vector<std::string> alias, canonical;
        std::vector<std::string> after; // read afterwards on both sides, when the command changes state
    };
    const std::vector<Case> cases = {
        {{"mc", "info"}, {"devid"}, {}},
        {{"chassis", "power", "status"}, {"power", "status"}, {}},
        {{"chassis", "power", "off"}, {"power", "off"}, {"power"}},
        {{"fru", "print"}, {"fru"}, {}},
        {{"fru", "print", "0"}, {"fru", "0"}, {}},
        {{"sdr", "elist"}, {"sdr"}, {}},
        {{"sdr", "list", "full"}, {"sdr"}, {}},
        {{"sensor", "list"}, {"sensor"}, {}},
        {{"lan", "print", "1"}, {"lan", "show"}, {}},
        {{"lan", "set", "1", "ipaddr", "10.1.2.3"}, {"lan", "set", "ip", "10.1.2.3"}, {"lan"}},
        {{"lan", "set", "1", "defgw", "ipaddr", "10.1.2.1"}, {"lan", "set", "gateway", "10.1.2.1"}, {"lan"}},
        {{"lan", "set", "1", "ipsrc", "none"}, {"lan", "set", "source", "unspecified"}, {"lan"}},
    };
    // The words are rewritten before any option applies: the text output stands for --json too.
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.alias));
        const std::string a = "a" + std::to_string(n), b = "b" + std::to_string(n++);
        Outcome viaAlias = run(c.alias, a), direct = run(c.canonical, b);
        EXPECT_EQ(viaAlias.code, 0) << viaAlias;
        EXPECT_EQ(viaAlias.code, direct.code);
        if (c.after.empty()) EXPECT_EQ(viaAlias.out, direct.out);
        else EXPECT_EQ(run(c.after, a).out, run(c.after, b).out);
    }
    // A channel that is not the LAN channel is refused, not answered for another.
    Outcome r = run({"lan", "print", "7"});
    EXPECT_EQ(r.code, 1) << r;
    EXPECT_NE(r.err.find("channel 7 is not the controller's LAN channel"), std::string::npos) << r;
}

TEST_F(Verbs, ChassisAndControllerVerbsOfTheirOwn)
{
    Outcome r = run({"mc", "selftest"});
    EXPECT_EQ(r.out, "Selftest: passed\n") << r;
    EXPECT_EQ(run({"chassis", "identify", "force"}).out, "Chassis identify interval: indefinite\n");
    EXPECT_EQ(run({"chassis", "identify"}).out, "Chassis identify interval: 15 seconds\n");
    EXPECT_EQ(run({"chassis", "identify", "0"}).out, "Chassis identify interval: off\n");
    EXPECT_EQ(run({"chassis", "identify", "256"}).code, 2);
    ASSERT_EQ(run({"chassis", "power", "off"}).code, 0);
    EXPECT_EQ(tvxtest::tvxctlJson(scratch_.path(), {"chassis", "status"})["power"], "off");
}

TEST_F(Verbs, SelElistHasOneSchemaForEveryRecord)
{
    ASSERT_EQ(run({"sel", "add", "0x01", "0x30", "0x01", "0x09", "0xff", "0xff"}).code, 0);
    ASSERT_EQ(run({"raw", "0x0a", "0x44", "0", "0", "0xe0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13"}).code, 0);
    json records = tvxtest::tvxctlJson(scratch_.path(), {"sel", "elist"});
    ASSERT_GE(records.size(), 2u);
    std::vector<std::string> keys;
    for (auto &[k, v] : records[0].items()) keys.push_back(k);
    for (const auto &rec : records) {
        std::vector<std::string> these;
        for (auto &[k, v] : rec.items()) these.push_back(k);
        EXPECT_EQ(these, keys) << rec.dump();
    }
    const json &oem = records.back(), &threshold = records[records.size() - 2];
    EXPECT_EQ((std::vector<json>{oem["record_type"], oem["direction"], oem["event"], threshold["event"],
                                 threshold["direction"], threshold["sensor_number"]}),
              (std::vector<json>{0xE0, nullptr, "0102030405060708090a0b0c0d", "Upper Critical going high", "Asserted",
                                 0x30}));
    // sel get shows the same record.
    EXPECT_EQ(
        tvxtest::tvxctlJson(scratch_.path(), {"sel", "get", std::to_string(threshold["record_id"].get<int>())})[0],
        threshold);
    EXPECT_EQ(run({"sel", "get", "0xfffe"}).code, 1);
}

TEST_F(Verbs, HelpForEveryCommandAndAfterEveryCommand)
{
    Outcome all = run({"help"});
    ASSERT_EQ(all.code, 0) << all;
    EXPECT_NE(all.out.find("usage: tvxctl"), std::string::npos);
    // Every command the list names has a page, the same by "help X", "X --help" and "X -h".
    std::istringstream in(all.out);
    int pages = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("  ", 0) != 0 || line.size() < 3 || line[2] == ' ' || line[2] == '-') continue;
        const std::string word = line.substr(2, line.find(' ', 2) - 2);
        Outcome page = run({"help", word});
        EXPECT_EQ(page.code, 0) << word << page;
        EXPECT_NE(page.out.find("tvxctl [OPTIONS] " + word), std::string::npos) << page;
        EXPECT_NE(page.out.find("Examples:"), std::string::npos) << page;
        EXPECT_EQ(run({word, "--help"}).out, page.out) << word;
        EXPECT_EQ(run({word, "x", "-h"}).out, page.out) << word;
        ++pages;
    }
    EXPECT_GT(pages, 20);
    Outcome r = run({"help", "frobnicate"});
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("unknown command"), std::string::npos) << r;
}

TEST_F(Verbs, OutputThatCannotBeWrittenFails)
{
    for (const char *command : {"sel", "sdr", "help", "devid"}) {
        std::string line = "HOME=" + scratch_.path() + " TVX_IPMI_STATE_DIR=" + scratch_.path() + "/state ";
        for (const std::string &word : tvxtest::kEmulator) line += word + " ";
        line += std::string(TVXCTL_PATH) + " " + command + " >/dev/full 2>" + scratch_.path() + "/err";
        int status = std::system(line.c_str());
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 1) << command;
        std::ifstream err(scratch_.path() + "/err");
        std::string text((std::istreambuf_iterator<char>(err)), {});
        EXPECT_NE(text.find("cannot write the output"), std::string::npos) << text;
    }
}

} // namespace
