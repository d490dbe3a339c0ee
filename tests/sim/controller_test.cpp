// The virtual controller: profile faults and the state file.
#include <gtest/gtest.h>

#include "bytes.h"
#include "controller.h"
#include "machine.h"

using nlohmann::json;
using tvxsim::Controller;
using tvxsim::Reply;
using tvxtest::TempDir;

namespace {

constexpr uint8_t kApp = 0x06;
constexpr uint8_t kSetAcpi = 0x06, kGetAcpi = 0x07;

tvxsim::Profile profileOf(const json &doc, const std::string &name = "sim-test.json")
{
    return tvxsim::parseProfile(doc.dump(), name);
}

Reply send(Controller &c, uint8_t netFn, uint8_t cmd, const Bytes &data = {}) { return c.handle(netFn, 0, cmd, data); }

Bytes acpi(Controller &c)
{
    Reply r = send(c, kApp, kGetAcpi);
    EXPECT_TRUE(r.answered);
    return r.bytes;
}

TEST(ProfileFault, MatchPrefixAndCountAndNoExecution)
{
    json doc = tvxtest::baseProfile();
    doc["faults"] = {
        {{"netfn", kApp}, {"command", kSetAcpi}, {"match", "83"}, {"kind", "no_answer"}, {"count", 2}},
        {{"netfn", kApp},
         {"command", kSetAcpi},
         {"match", {0x85, 0x7F, 0x00}},
         {"kind", "completion_code"},
         {"value", 0xD5}},
    };
    TempDir dir;
    Controller c(profileOf(doc), dir.path());

    EXPECT_FALSE(send(c, kApp, kSetAcpi, {0x83, 0x7F}).answered); // hit 1: not carried out
    EXPECT_EQ(acpi(c), (Bytes{0x00, 0x00, 0x00}));
    EXPECT_EQ(send(c, kApp, kSetAcpi, {0x7F, 0x83}).bytes, Bytes{0x00}); // prefix differs
    EXPECT_EQ(acpi(c), (Bytes{0x00, 0x00, 0x03}));
    EXPECT_FALSE(send(c, kApp, kSetAcpi, {0x83, 0x7F}).answered); // hit 2
    EXPECT_EQ(acpi(c), (Bytes{0x00, 0x00, 0x03}));
    EXPECT_EQ(send(c, kApp, kSetAcpi, {0x83, 0x7F}).bytes, Bytes{0x00}); // used up
    EXPECT_EQ(acpi(c), (Bytes{0x00, 0x03, 0x03}));

    // A match longer than the request never hits; count 0 hits every time.
    const Bytes backing = {0x85, 0x7F, 0x00};
    EXPECT_EQ(c.handle(kApp, 0, kSetAcpi, std::span<const uint8_t>(backing).first(2)).bytes, Bytes{0x00});
    EXPECT_EQ(acpi(c), (Bytes{0x00, 0x05, 0x03}));
    send(c, kApp, kSetAcpi, {0x80, 0x80});
    for (int i = 0; i < 3; ++i) EXPECT_EQ(send(c, kApp, kSetAcpi, {0x85, 0x7F, 0x00}).bytes, Bytes{0xD5});
    EXPECT_EQ(acpi(c), (Bytes{0x00, 0x00, 0x00}));
    // Nothing of the refused requests reached the state file either.
    Controller next(profileOf(doc), dir.path());
    EXPECT_EQ(acpi(next), (Bytes{0x00, 0x00, 0x00}));
}

TEST(State, CorruptStateFileIsNamedAndResetRecovers)
{
    for (const char *text : {"\x01not json at all", R"({"format": 1})"}) {
        TempDir dir;
        const auto profile = profileOf(tvxtest::baseProfile(), "box.json");
        const std::string path = dir.path() + "/box.state.json";
        tvxtest::writeFile(path, text);
        std::string error;
        try {
            Controller c(profile, dir.path());
        } catch (const tvxsim::ProfileError &e) {
            error = e.what();
        }
        EXPECT_EQ(error.rfind(path + ": ", 0), 0u) << error;
        EXPECT_NE(error.find("corrupt"), std::string::npos) << error;
        tvxsim::StateStore store(dir.path(), profile, [] { return json{{"acpi", {{"system", 0}, {"device", 0}}}}; });
        EXPECT_THROW(store.open(), tvxsim::ProfileError);
        store.reset();
        Controller c(profile, dir.path());
        EXPECT_EQ(acpi(c), (Bytes{0x00, 0x00, 0x00}));
    }
}

// A counter kept in the state: 0x01 counts up, 0x02 reads it, 0x03 counts and then fails.
void counterInstall(Controller &c)
{
    c.on(0x30, 0x01, [](tvxsim::Context &ctx, const tvxsim::Request &, tvxsim::Response &rsp) {
        uint32_t n = ctx.state["counter"].get<uint32_t>() + 1;
        ctx.state["counter"] = n;
        ctx.changed();
        rsp.u32(n);
    });
    c.on(0x30, 0x02, [](tvxsim::Context &ctx, const tvxsim::Request &, tvxsim::Response &rsp) {
        rsp.u32(ctx.state["counter"].get<uint32_t>());
        rsp.u8(ctx.state.contains("stray") ? 1 : 0);
    });
    c.on(0x30, 0x03, [](tvxsim::Context &ctx, const tvxsim::Request &, tvxsim::Response &) {
        ctx.state["counter"] = 99;
        ctx.state["stray"] = true;
        ctx.changed();
        throw tvxsim::ProfileError("failed half-way");
    });
}
void counterInit(const tvxsim::Profile &, json &state) { state["counter"] = 7; }
const tvxsim::Subsystem kCounter[] = {{"counter", counterInstall, counterInit}};

TEST(State, AHandlerThatFailsHalfWayLeavesNothingBehind)
{
    TempDir dir;
    for (const std::string &stateDir : {std::string(), dir.path()}) {
        SCOPED_TRACE(stateDir.empty() ? "in memory" : "on file");
        auto start = [&] {
            return std::make_unique<Controller>(profileOf(tvxtest::baseProfile()), stateDir, kCounter);
        };
        auto c = start();
        EXPECT_EQ(send(*c, 0x30, 0x01).bytes, (Bytes{0x00, 8, 0, 0, 0}));
        for (int round = 0; round < 2; ++round) {
            EXPECT_THROW(send(*c, 0x30, 0x03), tvxsim::ProfileError);
            EXPECT_EQ(send(*c, 0x30, 0x02).bytes, (Bytes{0x00, 8, 0, 0, 0, 0}));
        }
        EXPECT_EQ(send(*c, 0x30, 0x01).bytes, (Bytes{0x00, 9, 0, 0, 0}));
        EXPECT_EQ(send(*start(), 0x30, 0x02).bytes[1], stateDir.empty() ? 7 : 9) << "a new controller";
    }
}

// A reset starts afresh whoever changed the machine since the last one: this controller,
// another one on the same state file, or a handler that changed the state without storing it.
TEST(State, EveryResetStartsAfresh)
{
    TempDir dir;
    for (const std::string &stateDir : {std::string(), dir.path()}) {
        SCOPED_TRACE(stateDir.empty() ? "in memory" : "on file");
        auto start = [&] {
            return std::make_unique<Controller>(profileOf(tvxtest::baseProfile()), stateDir, kCounter);
        };
        auto a = start(), b = start();
        a->on(0x30, 0x04, [](tvxsim::Context &ctx, const tvxsim::Request &, tvxsim::Response &) {
            ctx.state["counter"] = 50;
        });
        const auto counter = [](Controller &c) { return send(c, 0x30, 0x02).bytes.at(1); };
        a->reset();
        a->reset();
        EXPECT_EQ(counter(*a), 7);
        send(*a, 0x30, 0x04);
        EXPECT_EQ(counter(*a), 50);
        a->reset();
        EXPECT_EQ(counter(*a), 7);
        send(*a, 0x30, 0x01);
        a->reset();
        EXPECT_EQ(counter(*a), 7);
        if (stateDir.empty()) continue;
        send(*b, 0x30, 0x01);
        EXPECT_EQ(counter(*a), 8);
        a->reset();
        EXPECT_EQ(counter(*b), 7);
        EXPECT_EQ(counter(*start()), 7);
    }
}

} // namespace
