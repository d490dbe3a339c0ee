// The machine's state as programs share it: writers in separate processes at once, writers
// killed at random points, a disk that refuses the change, reads that never write.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "controller.h"
#include "libipmi.h"
#include "libipmi_host.h"
#include "machine.h"
#include "process.h"
#include "tvx_toipmi.h"

namespace {

const std::string kDefault = std::string(TVX_MACHINES_DIR) + "/default.json";
constexpr uint16_t kVariable = 0x0072; // FanFailShutdownDelay: 16 bits, indexes 0..6
constexpr uint8_t kSensorBase = 0xC0;

enum Kind : uint8_t { kSel, kConfig, kLan };
struct Ack {
    uint8_t writer, kind, round;
};

// Writer w's LAN field and its value in round r (as the getter returns it).
std::vector<uint8_t> lanValue(int w, int r)
{
    switch (w % 4) {
    case 0: return {10, 99, uint8_t(w), uint8_t(r)};                                          // IP address
    case 1: return {255, 255, uint8_t(0xFF << (8 - (r % 8 + 1)) & 0xFF), 0};                  // net mask
    case 2: return {10, 98, uint8_t(w), uint8_t(r)};                                          // gateway
    default: return {0x02, 0x00, 0x00, 0x00, uint8_t(w), uint8_t(r)};                        // MAC address
    }
}
int setLan(IpmiSession *s, int w, const std::vector<uint8_t> &v)
{
    switch (w % 4) {
    case 0: return ipmiSetIpAddress(s, v.data());
    case 1: return ipmiSetNetMask(s, v.data());
    case 2: return ipmiSetDefaultGateway(s, v.data());
    default: return ipmiSetMacAddress(s, v.data());
    }
}
std::vector<uint8_t> getLan(IpmiSession *s, int w)
{
    uint8_t *p = w % 4 == 0 ? ipmiGetIpAddress(s) : w % 4 == 1 ? ipmiGetNetMask(s) : w % 4 == 2 ? ipmiGetDefaultGateway(s) : ipmiGetMacAddress(s);
    std::vector<uint8_t> v = p ? std::vector<uint8_t>(p, p + (w % 4 == 3 ? 6 : 4)) : std::vector<uint8_t>{};
    std::free(p);
    return v;
}

IpmiSession *openMachine(const std::string &dir)
{
    if (ipmihost_select_machine(kDefault.c_str(), dir.c_str()) != 0) return nullptr;
    return ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
}

// A program making changes in rounds from `first` on, reporting each one acknowledged on fd.
// Runs in a child process; exits 0 after `rounds`, 1 at the first change refused, 4 at the
// first acknowledged setting that does not read back (no other writer touches it).
[[noreturn]] void writer(const std::string &dir, int w, int first, int rounds, int fd)
{
    IpmiSession *s = openMachine(dir);
    if (!s) _exit(2);
    auto ack = [&](Kind k, int r) {
        const Ack a{uint8_t(w), k, uint8_t(r)};
        if (write(fd, &a, sizeof a) != sizeof a) _exit(3);
    };
    for (int r = first; r < first + rounds; ++r) {
        if (!ipmiWriteSelEntry(s, 0x02, uint8_t(kSensorBase + w), 0x6F, 0x00, uint8_t(r), 0x5A)) _exit(1);
        ack(kSel, r);
        const uint8_t value[2] = {uint8_t(r), uint8_t(w)};
        if (!ipmiWriteConfigSpaceVariable(s, kVariable, uint8_t(w), value, 2)) _exit(1);
        ack(kConfig, r);
        if (!setLan(s, w, lanValue(w, r))) _exit(1);
        ack(kLan, r);
        if (getLan(s, w) != lanValue(w, r)) _exit(4);
    }
    ipmiHelperCloseSession(&s);
    _exit(0);
}

struct Seen {
    std::set<int> sel;
    int config = -1, lan = -1; // the last round acknowledged
};

// Every acknowledged change is in the state a new program finds; the newest value of each
// setting is the last acknowledged, or one whose acknowledgement a kill cut off.
void expectKept(const std::string &dir, const std::map<int, Seen> &acked, bool killed)
{
    IpmiSession *s = openMachine(dir);
    ASSERT_NE(s, nullptr) << ipmihost_last_error();
    uint16_t count = 0;
    ASSERT_EQ(LIBIPMI_HL_GetNumOfSELEntries(s, &count, 60), 0);
    std::vector<SelRecord> records(count);
    ASSERT_EQ(LIBIPMI_HL_GetAllSELEntries(s, records.data(), 60), 0);
    std::set<std::pair<int, int>> logged;
    for (const SelRecord &r : records)
        if (r.bytes[15] == 0x5A) logged.insert({r.bytes[11] - kSensorBase, r.bytes[14]});
    for (const auto &[w, seen] : acked) {
        SCOPED_TRACE("writer " + std::to_string(w));
        for (int r : seen.sel) EXPECT_TRUE(logged.count({w, r})) << "SEL round " << r;
        uint8_t value[8] = {0};
        ASSERT_EQ(ipmiReadConfigSpaceVariable(s, uint8_t(w), kVariable, value), 2);
        const int slack = killed ? 1 : 0; // a change stored whose acknowledgement a kill cut off
        if (seen.config >= 0) {
            EXPECT_TRUE(value[1] == w && value[0] >= seen.config && value[0] <= seen.config + slack) << int(value[0]);
        }
        if (seen.lan < 0) continue;
        const std::vector<uint8_t> lan = getLan(s, w);
        EXPECT_TRUE(lan == lanValue(w, seen.lan) || (killed && lan == lanValue(w, seen.lan + 1)));
    }
    ipmiHelperCloseSession(&s);
    ipmihost_select_default();
}

void collect(int fd, std::map<int, Seen> &acked)
{
    Ack a;
    while (read(fd, &a, sizeof a) == sizeof a) {
        Seen &s = acked[a.writer];
        if (a.kind == kSel) s.sel.insert(a.round);
        else if (a.kind == kConfig) s.config = a.round;
        else s.lan = a.round;
    }
}

TEST(SharedState, WritersInSeparateProcessesAtOnceLoseNothing)
{
    constexpr int kWriters = 4, kRounds = 6;
    tvxtest::TempDir dir;
    int acks[2];
    ASSERT_EQ(pipe(acks), 0);
    std::vector<pid_t> children;
    for (int w = 0; w < kWriters; ++w) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) writer(dir.path(), w, 0, kRounds, acks[1]);
        children.push_back(pid);
    }
    close(acks[1]);
    std::map<int, Seen> acked;
    collect(acks[0], acked);
    close(acks[0]);
    for (pid_t pid : children) {
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a writer failed: " << status;
    }
    for (int w = 0; w < kWriters; ++w) {
        EXPECT_EQ(acked[w].sel.size(), std::size_t(kRounds));
        EXPECT_EQ(acked[w].lan, kRounds - 1);
    }
    expectKept(dir.path(), acked, false);
}

TEST(SharedState, AWriterKilledAtAnyPointLosesNoAcknowledgedChange)
{
    tvxtest::TempDir dir;
    std::map<int, Seen> acked;
    uint32_t seed = 20240611;
    for (int kill = 0; kill < 4; ++kill) { // writer `kill`, each on its own settings
        SCOPED_TRACE("kill " + std::to_string(kill));
        int acks[2];
        ASSERT_EQ(pipe(acks), 0);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) writer(dir.path(), kill, 0, 60, acks[1]);
        close(acks[1]);
        seed = seed * 1103515245u + 12345u;
        usleep(40000 + seed % 200000); // 40 to 240 ms: a few rounds, then anywhere in one
        ::kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        collect(acks[0], acked);
        close(acks[0]);
        expectKept(dir.path(), acked, true);
        // A LAN transaction the writer left open is released with its end.
        IpmiSession *s = openMachine(dir.path());
        ASSERT_NE(s, nullptr);
        const uint8_t ip[4] = {192, 0, 2, uint8_t(kill)};
        EXPECT_EQ(ipmiSetIpAddress(s, ip), 1);
        EXPECT_EQ(getLan(s, 0), std::vector<uint8_t>(ip, ip + 4));
        acked[0].lan = -1; // the writer's own last value is gone
        ipmiHelperCloseSession(&s);
        ipmihost_select_default();
    }
}

// Set In Progress is held for the program that set it while it runs, and no longer.
TEST(SharedState, ASetInProgressEndsWithItsProgram)
{
    tvxtest::TempDir dir;
    const auto profile = tvxsim::loadProfile(kDefault);
    const std::vector<uint8_t> lock = {1, 0, 1}, ask = {1, 0, 0, 0};
    int held[2], release[2];
    ASSERT_EQ(pipe(held), 0);
    ASSERT_EQ(pipe(release), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        tvxsim::Controller c(profile, dir.path());
        char ch = c.handle(0x0C, 0, 0x01, lock).bytes == std::vector<uint8_t>{0x00} ? 'y' : 'n';
        (void)!write(held[1], &ch, 1);
        (void)!read(release[0], &ch, 1);
        _exit(0); // without "set complete"
    }
    char ch = 0;
    ASSERT_EQ(read(held[0], &ch, 1), 1);
    ASSERT_EQ(ch, 'y');
    tvxsim::Controller c(profile, dir.path());
    EXPECT_EQ(c.handle(0x0C, 0, 0x02, ask).bytes, (std::vector<uint8_t>{0x00, 0x11, 0x01})) << "in progress";
    EXPECT_EQ(c.handle(0x0C, 0, 0x01, lock).bytes, std::vector<uint8_t>{0x81}) << "held by a running program";
    (void)!write(release[1], "x", 1);
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(c.handle(0x0C, 0, 0x02, ask).bytes, (std::vector<uint8_t>{0x00, 0x11, 0x00})) << "released";
    EXPECT_EQ(c.handle(0x0C, 0, 0x01, lock).bytes, std::vector<uint8_t>{0x00});
}

class Disk : public testing::Test {
protected:
    tvxtest::Outcome run(const std::vector<std::string> &args) { return tvxtest::tvxctl(dir_.path(), args); }
    // tvxctl with files limited to `blocks` (of 512 or 1024 bytes, as the shell counts them):
    // a write beyond fails as on a full disk.
    tvxtest::Outcome runLimited(long blocks, std::vector<std::string> args)
    {
        args.insert(args.begin(), TVXCTL_PATH);
        args.insert(args.begin(), tvxtest::kEmulator.begin(), tvxtest::kEmulator.end());
        args.insert(args.begin(), {"/bin/sh", "-c", "trap '' XFSZ; ulimit -f " + std::to_string(blocks) + "; exec \"$0\" \"$@\""});
        return tvxtest::run(args, {"HOME=" + dir_.path() + "/home", "TVX_IPMI_STATE_DIR=" + dir_.path() + "/state"},
                            {"TVX_IPMI_", "XDG_STATE_HOME="});
    }
    std::string statePath() const { return dir_.file("state/default.state.json"); }
    tvxtest::TempDir dir_;
};

// Reads leave the state file as it was; a change the disk refuses fails and leaves it too.
TEST_F(Disk, ReadsWriteNothingAndARefusedChangeFailsLeavingTheState)
{
    ASSERT_EQ(run({"devid"}).code, 0);
    struct stat stored{}, after{};
    ASSERT_EQ(stat(statePath().c_str(), &stored), 0);
    const std::string before = tvxtest::readFile(statePath());
    for (std::vector<std::string> args : {std::vector<std::string>{"sdr"}, {"sel"}, {"sel", "--text"}, {"sel", "info"},
                                          {"fru"}, {"lan"}, {"banner"}, {"power"}, {"config", "get", "0x0201"}})
        EXPECT_EQ(run(args).code, 0) << args[0];
    ASSERT_EQ(stat(statePath().c_str(), &after), 0);
    EXPECT_EQ(std::tuple(after.st_ino, after.st_mtim.tv_nsec, tvxtest::readFile(statePath())),
              std::tuple(stored.st_ino, stored.st_mtim.tv_nsec, before));

    const long blocks = long(before.size() / 1024); // at most the file's size: it cannot grow
    const struct {
        std::vector<std::string> change, check;
        std::string unchanged;
    } cases[] = {
        {{"console-log", "start"}, {"console-log", "state"}, "Console logging off\n"},
        {{"sel", "add", "0x01", "0x30", "0x01", "0x57", "0x00", "0x00"}, {"sel", "info"}, "Entries            : 47\n"},
        {{"lan", "set", "ip", "10.9.8.7"}, {"lan"}, "IP Address         : 10.20.30.40\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.change[0]);
        tvxtest::Outcome r = runLimited(blocks, c.change);
        EXPECT_EQ(r.code, 1) << r;
        EXPECT_NE(r.err.find(statePath() + ": the change was not stored: " + std::strerror(EFBIG)), std::string::npos) << r;
        EXPECT_EQ(tvxtest::readFile(statePath()), before);
        r = run(c.check);
        EXPECT_NE(r.out.find(c.unchanged), std::string::npos) << r;
    }
}

} // namespace
