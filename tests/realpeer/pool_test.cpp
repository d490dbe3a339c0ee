// How library sessions map onto RMCP+ connections, counted by handshakes (never timed).
#include <csignal>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "libipmi.h"
#include "libipmi_host.h"
#include "support.h"

using namespace realpeer;

namespace {

ipmihost_lan_statistics stats()
{
    ipmihost_lan_statistics st{};
    EXPECT_EQ(ipmihost_lan_stats(&st), 0) << ipmihost_last_error();
    return st;
}

// One query as the library makes it: open a session, ask, close.
bool query()
{
    tvx::Session s;
    if (!s.get()) return false;
    IpmiDeviceId id = ipmiGetDeviceId(s.get());
    return id.deviceId != 0 || id.manufacturerId[0] != 0;
}

} // namespace

TEST(RealPeerPool, SessionsInARowShareOneConnectionUnlessThePoolIsOff)
{
    auto &peer = defaultPeer();
    for (bool pooled : {false, true}) {
        SCOPED_TRACE(pooled ? "pool" : "pool=0");
        ASSERT_EQ(ipmihost_select_target(peer.target(pooled ? "" : "&pool=0").c_str(), nullptr), 0);
        for (int i = 0; i < 5; ++i) ASSERT_TRUE(query()) << ipmihost_last_error();
        auto st = stats();
        EXPECT_EQ(std::tuple(st.handshakes, st.requests, st.reuses, st.idle),
                  pooled ? std::tuple(1u, 5u, 5u, 1u) : std::tuple(5u, 5u, 0u, 0u));
    }
    {
        // Sessions open at the same time still need one connection: it is borrowed per
        // request, not held by a session.
        tvx::Session a, b;
        ASSERT_TRUE(a.get() && b.get());
        ipmiGetDeviceId(a.get());
        ipmiGetDeviceId(b.get());
    }
    EXPECT_EQ(stats().handshakes, 1u);
    // Dropped on request, re-established by the next session.
    ASSERT_EQ(ipmihost_lan_drop_connections(), 0);
    EXPECT_EQ(stats().idle, 0u);
    ASSERT_TRUE(query());
    EXPECT_EQ(stats().handshakes, 2u);
    ipmihost_select_default();
}

TEST(RealPeerPool, IdleConnectionsAreNotReusedPastTheirTime)
{
    auto &peer = defaultPeer();
    ASSERT_EQ(ipmihost_select_target(peer.target("&idle=1").c_str(), nullptr), 0);
    ASSERT_TRUE(query());
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // well past the 1 ms allowed
    ASSERT_TRUE(query());
    auto st = stats();
    EXPECT_EQ(std::tuple(st.handshakes, st.closed, st.dropped), std::tuple(2u, 1u, 0u));
    ipmihost_select_default();
}

TEST(RealPeerPool, AConnectionKilledUnderThePoolIsReestablished)
{
    auto peer = startPeer("restart", defaultProfile());
    ASSERT_EQ(ipmihost_select_target(peer->target("&timeout=500").c_str(), nullptr), 0);
    tvx::Session s;
    ASSERT_NE(s.get(), nullptr);
    ASSERT_NE(ipmiGetDeviceId(s.get()).manufacturerId[0], 0);
    // The controller restarts: the pooled connection's RMCP+ session no longer exists there.
    peer->restart();
    IpmiDeviceId id = ipmiGetDeviceId(s.get());
    EXPECT_EQ(id.manufacturerId[0], 0xD9) << ipmihost_last_error();
    auto st = stats();
    EXPECT_EQ(std::tuple(st.handshakes, st.dropped, st.retries), std::tuple(2u, 1u, 1u));
    // Stopped for good: the request fails (no answer), the connection is not kept.
    peer->stop();
    id = ipmiGetDeviceId(s.get());
    EXPECT_EQ(id.manufacturerId[0], 0);
    EXPECT_EQ(stats().idle, 0u);
    ipmihost_select_default();
}

TEST(RealPeerPool, ThreadsBorrowConnectionsSafely)
{
    auto &peer = defaultPeer();
    ASSERT_EQ(ipmihost_select_target(peer.target().c_str(), nullptr), 0);
    constexpr int kThreads = 3, kQueries = 15;
    int ok[kThreads] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&ok, t] {
            for (int i = 0; i < kQueries; ++i) ok[t] += query() ? 1 : 0;
        });
    for (auto &t : threads) t.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(ok[t], kQueries);
    auto st = stats();
    // Never more connections open at once than requests in flight: a connection beyond what
    // the pool keeps idle is closed on return, and only then may a later request open another.
    EXPECT_LE(st.handshakes, static_cast<uint64_t>(kThreads) + st.closed);
    EXPECT_LE(st.idle, 2u);
    EXPECT_EQ(st.requests, static_cast<uint64_t>(kThreads * kQueries));
    ipmihost_select_default();
}

// The simulator never outlives the process that started it, even one that dies without
// running a destructor or an exit handler.
TEST(RealPeerLifetime, TheSimulatorDiesWithItsStarter)
{
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(fds[0]);
        pid_t sim = -1;
        try {
            auto peer = startPeer("orphan", defaultProfile());
            sim = peer->pid();
            (void)!::write(fds[1], &sim, sizeof sim);
            ::_exit(0); // no destructors, no exit handlers
        } catch (...) {
            (void)!::write(fds[1], &sim, sizeof sim);
            ::_exit(1);
        }
    }
    ::close(fds[1]);
    pid_t sim = -1;
    ASSERT_EQ(::read(fds[0], &sim, sizeof sim), static_cast<ssize_t>(sizeof sim));
    ::close(fds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_GT(sim, 0) << "the child could not start a simulator";
    // Gone: no such process, or a dead one (a zombie waiting for its new parent to reap it).
    bool gone = false;
    for (int i = 0; i < 300 && !gone; ++i) { // bounded: three seconds at most
        std::ifstream stat("/proc/" + std::to_string(sim) + "/stat");
        std::string pidText, name, state;
        gone = !(stat >> pidText >> name >> state) || state == "Z" || state == "X";
        if (!gone) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(gone) << "ipmi_sim " << sim << " outlived the process that started it";
    if (!gone) ::kill(sim, SIGKILL);
}
