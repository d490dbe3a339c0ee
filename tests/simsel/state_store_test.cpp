// The machine state under a handler that fails half-way: what it changed is dropped, in memory
// and on file, while reported changes stay.
#include <gtest/gtest.h>

#include "controller.h"
#include "simsel_util.h"

namespace simsel {
namespace {

constexpr uint8_t kNetFn = 0x30, kSet = 0x01, kSetThenFail = 0x02, kGet = 0x03;

void install(tvxsim::Controller &c)
{
    c.on(kNetFn, kSet, [](tvxsim::Context &ctx, const tvxsim::Request &req, tvxsim::Response &) {
        ctx.state["n"] = req.data[0];
        ctx.changed();
    });
    c.on(kNetFn, kSetThenFail, [](tvxsim::Context &ctx, const tvxsim::Request &, tvxsim::Response &) {
        ctx.state["n"] = 99;
        ctx.state["stray"] = true;
        ctx.changed();
        throw tvxsim::ProfileError("failed half-way");
    });
    c.on(kNetFn, kGet, [](tvxsim::Context &ctx, const tvxsim::Request &, tvxsim::Response &rsp) {
        rsp.u8(ctx.state["n"].get<uint8_t>());
        rsp.u8(ctx.state.contains("stray") ? 1 : 0);
    });
}

void initState(const tvxsim::Profile &, json &state) { state["n"] = 7; }

const tvxsim::Subsystem kCounter[] = {{"counter", install, initState}};

TEST(StateStore, AHandlerThatFailsHalfWayLeavesNothingBehind)
{
    TempDir dir;
    for (const std::string &stateDir : {std::string(), dir.path()}) {
        SCOPED_TRACE(stateDir.empty() ? "in memory" : "on file");
        auto start = [&] {
            return std::make_unique<tvxsim::Controller>(tvxsim::parseProfile(smallMachine().dump(), "counter.json"),
                                                        stateDir, kCounter);
        };
        auto c = start();
        EXPECT_EQ(c->handle(kNetFn, 0, kGet, {}).bytes, (Bytes{0x00, 7, 0}));
        EXPECT_EQ(c->handle(kNetFn, 0, kSet, Bytes{5}).bytes, Bytes{0x00});
        for (int round = 0; round < 2; ++round) {
            EXPECT_THROW(c->handle(kNetFn, 0, kSetThenFail, {}), tvxsim::ProfileError);
            EXPECT_EQ(c->handle(kNetFn, 0, kGet, {}).bytes, (Bytes{0x00, 5, 0}));
        }
        EXPECT_EQ(c->handle(kNetFn, 0, kSet, Bytes{6}).bytes, Bytes{0x00});
        EXPECT_EQ(c->handle(kNetFn, 0, kGet, {}).bytes, (Bytes{0x00, 6, 0}));
        if (!stateDir.empty()) {
            EXPECT_EQ(start()->handle(kNetFn, 0, kGet, {}).bytes, (Bytes{0x00, 6, 0}));
        }
    }
}

} // namespace
} // namespace simsel
