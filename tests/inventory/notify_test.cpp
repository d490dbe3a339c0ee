// The SEL notification queues against a real tvx-selnotifyd started by the test on a virtual
// machine of its own: registration, one message per new entry for each watcher, unregistering,
// and what watchers see without the service. The queue keys are fixed (from /tmp), so these
// tests run one at a time, and every test removes the queues it made, also when it fails.
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <thread>
#include <tuple>

#include "libipmi_host.h"
#include "peer.h"
#include "machine.h"
#include "process.h"
#include "scripted.h"

namespace {

using namespace std::chrono_literals;

int queueId(int project)
{
    key_t key = ftok("/tmp", project);
    return key == -1 ? -1 : msgget(key, 0);
}

// Polls until check() holds or the time is up.
template <class F> bool within(std::chrono::milliseconds limit, F check)
{
    for (auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;) {
        if (check()) return true;
        std::this_thread::sleep_for(10ms);
    }
    return check();
}

// A message: code, value16, value32.
using Event = std::tuple<uint8_t, uint16_t, uint32_t>;

// The next message for that watcher, waiting at most `limit`.
std::optional<Event> next(long watcher, std::chrono::milliseconds limit = 5s)
{
    Event e{};
    auto &[code, value16, value32] = e;
    if (within(limit, [&] { return selNotifyRecvRemote(IPC_NOWAIT, &code, &value32, &value16, watcher) == 1; }))
        return e;
    return std::nullopt;
}

class Service : public testing::Test {
protected:
    // Starts the service on target_ (by default a virtual machine of the test's own), waits for
    // its queues, and opens a session with the same controller.
    void SetUp() override
    {
        if (target_.empty()) {
            tvxtest::json p = tvxtest::baseProfile();
            p["sel"] = {{"records", tvxtest::json::array()}};
            tvxtest::writeFile(dir_.file("lab.json"), p.dump());
            target_ = "machine:" + dir_.file("lab.json");
        }
        service_ = startService();
        ASSERT_TRUE(within(10s, [&] { return queueId('r') != -1 && queueId('n') != -1; })) << log();
        ASSERT_EQ(ipmihost_select_target(target_.c_str(), dir_.file("state").c_str()), 0) << ipmihost_last_error();
        ASSERT_TRUE(session_.open()) << ipmihost_last_error();
    }
    void TearDown() override
    {
        session_.close();
        ipmihost_select_default();
        if (service_.pid() > 0) {
            EXPECT_EQ(service_.stop(), 0) << log();
        }
        // The service removes its queues; what it left behind is removed here.
        for (int project : {'r', 'n'}) {
            int id = queueId(project);
            EXPECT_EQ(id, -1) << "queue '" << char(project) << "' left behind";
            if (id != -1) msgctl(id, IPC_RMID, nullptr);
        }
    }
    tvxtest::Daemon startService(const std::string &errFile = "service.err")
    {
        return tvxtest::Daemon(
            {TVX_SELNOTIFYD_PATH, "--interval", "50", "--target", target_, "--state", dir_.file("state")}, {},
            "/dev/null", dir_.file(errFile));
    }
    std::string log(const std::string &errFile = "service.err") { return tvxtest::readFile(dir_.file(errFile)); }
    // Whether that file comes to hold text within the time.
    bool logged(const std::string &file, const std::string &text, std::chrono::milliseconds limit = 5s)
    {
        return within(limit, [&] { return log(file).find(text) != std::string::npos; });
    }
    // Adds a system event record; returns its timestamp.
    uint32_t addEntry()
    {
        EXPECT_EQ(ipmiWriteSelEntry(session_.get(), 0x01, 0x03, 0x01, 0x57, 0x56, 0x55), 1);
        return ipmiGetSelInfo(session_.get()).lastAddTime;
    }
    tvxtest::TempDir dir_;
    std::string target_;
    tvxtest::Daemon service_;
    tvx::Session session_{tvx::deferred};
};

// The same service watching OpenIPMI's ipmi_sim over IPMI-over-LAN.
class ServiceOverLan : public Service {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(dir_.file("peer"));
        tvxsim::ipmisim::PeerOptions o;
        o.profilePath = std::string(TVX_MACHINES_DIR) + "/default.json";
        o.modulePath = TVX_IPMI_SIM_MODULE;
        o.workDir = dir_.file("peer");
        peer_ = std::make_unique<tvxsim::ipmisim::Peer>(o);
        target_ = peer_->target("&timeout=2000");
        Service::SetUp();
    }
    std::unique_ptr<tvxsim::ipmisim::Peer> peer_; // stopped after TearDown has stopped the service
};

TEST_F(Service, EachWatcherGetsOneMessagePerNewEntry)
{
    const long w1 = getpid() * 10L + 1, w2 = getpid() * 10L + 2;
    ASSERT_EQ(selNotifyRegisterRemote(w1), 0);
    uint32_t t1 = addEntry(), t2 = addEntry();
    EXPECT_EQ(next(w1), (Event{1, 1, t1}));
    EXPECT_EQ(next(w1), (Event{1, 2, t2}));
    ASSERT_EQ(selNotifyRegisterRemote(w2), 0);
    uint32_t t3 = addEntry();
    EXPECT_EQ(next(w2), (Event{1, 3, t3}));
    EXPECT_EQ(next(w1), (Event{1, 3, t3}));
    // Unregistered: no more messages for w1, while w2 still gets its own.
    ASSERT_EQ(selNotifyUnregisterRemote(w1), 0);
    uint32_t t4 = addEntry();
    EXPECT_EQ(next(w2), (Event{1, 4, t4}));
    ASSERT_EQ(ipmiClearEventLog(session_.get()), 1);
    EXPECT_EQ(next(w2), (Event{2, 0, ipmiGetSelInfo(session_.get()).lastEraseTime}));
    EXPECT_EQ(next(w1, 300ms), std::nullopt);
    // Type 0 takes the oldest message of any watcher.
    addEntry();
    EXPECT_EQ(next(0), (Event{1, 1, ipmiGetSelInfo(session_.get()).lastAddTime}));
    ASSERT_EQ(selNotifyUnregisterRemote(w2), 0);
    EXPECT_TRUE(logged("service.err", "watcher " + std::to_string(w2) + " unregistered")) << log();
    EXPECT_TRUE(logged("service.err", "watcher " + std::to_string(w1) + " registered")) << log();
}

TEST_F(Service, OneServiceAtATimeAndWatchersWithoutIt)
{
    EXPECT_EQ(startService("second.err").wait(), 1);
    EXPECT_TRUE(logged("second.err", "another tvx-selnotifyd (PID " + std::to_string(service_.pid()) + ") owns"))
        << log("second.err");
    EXPECT_EQ(stderrOf([] { EXPECT_EQ(selNotifyRegisterRemote(0), -1); }),
              "Can't send registration request by watcher 0: Invalid argument\n");

    // Stopped: the queues are gone, and watchers are told so.
    EXPECT_EQ(service_.stop(), 0) << log();
    EXPECT_EQ(queueId('r'), -1);
    EXPECT_EQ(stderrOf([] { EXPECT_EQ(selNotifyRegisterRemote(7), -1); }),
              "Can't open register queue: No such file or directory\n");
    uint8_t code = 0xEE;
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(selNotifyRecvRemote(IPC_NOWAIT, &code, nullptr, nullptr, 0), 0); }), "");
    EXPECT_EQ(code, 0xEE);

    // Queues left behind by a service that died are taken over by the next one.
    int stale = msgget(ftok("/tmp", 'r'), IPC_CREAT | 0660);
    ASSERT_NE(stale, -1);
    service_ = startService("third.err");
    EXPECT_TRUE(logged("third.err", "watching the SEL", 10s)) << log("third.err");
    EXPECT_TRUE(logged("third.err", "removed a queue left behind")) << log("third.err");
}

TEST_F(Service, TvxctlSelWatchPrintsNewEntriesUntilStopped)
{
    const std::string target = "TVX_IPMI_TARGET=" + target_, state = "TVX_IPMI_STATE_DIR=" + dir_.file("state");
    tvxtest::Daemon watch({TVXCTL_PATH, "sel", "watch"}, {target, state}, dir_.file("watch.out"), dir_.file("watch.err"));
    ASSERT_TRUE(logged("watch.err", "Watching the SEL", 10s)) << log("watch.err");
    addEntry();
    EXPECT_TRUE(within(5s, [&] { return log("watch.out").find("0001 ") == 0; })) << log("watch.out");
    EXPECT_NE(log("watch.out").find("Sens:01:03, Trig:01, Data:57:56:55\n"), std::string::npos) << log("watch.out");
    const pid_t watcher = watch.pid();
    EXPECT_EQ(watch.stop(), 0) << log("watch.err");
    EXPECT_TRUE(logged("service.err", "watcher " + std::to_string(watcher) + " unregistered")) << log();
}

TEST_F(ServiceOverLan, NewEntriesOfARealControllerReachTheWatcher)
{
    const long watcher = getpid() * 10L + 3;
    ASSERT_EQ(selNotifyRegisterRemote(watcher), 0);
    SelRecord request = {{0, 0, 0x02, 0, 0, 0, 0, 0x20, 0, 0x04, 0x01, 0x03, 0x01, 0x57, 0x56, 0x55}};
    SelAddResponse added{};
    ASSERT_EQ(IPMICMD_AddSELEntry(session_.get(), &request, &added, 60), 0) << ipmihost_last_error();
    std::optional<Event> e = next(watcher, 10s);
    ASSERT_TRUE(e) << log();
    EXPECT_EQ(std::tuple(std::get<0>(*e), std::get<1>(*e)), std::tuple(1, +added.recordId));
    EXPECT_EQ(next(watcher, 300ms), std::nullopt); // one message per entry
    ASSERT_EQ(selNotifyUnregisterRemote(watcher), 0);
}

} // namespace
