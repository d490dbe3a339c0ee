// The library over IPMI-over-LAN against ipmi_sim on loopback, with and without its
// connection pool, beside ipmitool (lanplus) and FreeIPMI's ipmi-raw sending the same
// requests: one process per request, and one process (one session) for all of them.
//
// The work measured:
//   OpenClose   open and close one library session (what nearly every query of the library
//               costs before its first request)
//   RawRoundTrip  one request on an open session (Get Device ID)
//   AgentPass   what the agent does for a sensor table: a session, Get Sensor Reading
//               (0x04/0x2D) for every sensor the simulator has, close
//
// Run: build/bench/bench/lan_bench   (see bench/README.md for the figures)
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "libipmi.h"
#include "libipmi_host.h"
#include "peer.h"
#include "tvx_toipmi.h"

extern char **environ;

namespace {

constexpr int kSensors = 16;

// A full sensor record (temperature, threshold based, degrees C, M=1) for sensor `number`.
std::string fullSensorSdr(int number)
{
    char id[16];
    int n = std::snprintf(id, sizeof id, "Temp %d", number);
    std::vector<int> body = {0x20, 0x00, number,                   // owner, LUN, sensor number
                             0x03, 0x01, 0x7F, 0x68, 0x01, 0x01,   // processor 1, init, caps, temperature, threshold
                             0x00, 0x00, 0x00, 0x00, 0x3F, 0x3F,   // event masks, readable thresholds
                             0x00, 0x01, 0x00, 0x00,               // unsigned, degrees C, linear
                             0x01, 0x00, 0x00, 0x00, 0x00, 0x00,   // M = 1, B = 0, exponents 0
                             0x00, 0x28, 0x50, 0x05, 0xFF, 0x00,   // nominal, normal max/min, range
                             0x5F, 0x5A, 0x55, 0x00, 0x00, 0x00,   // upper NR, C, NC; lower ones
                             0x00, 0x00, 0x00, 0x00, 0x00, 0xC0 | n};
    std::string line = "main_sdr_add 0x20 0x00 0x00 0x51 0x01 " + std::to_string(body.size() + n);
    char buf[8];
    for (int b : body) std::snprintf(buf, sizeof buf, " 0x%02x", b), line += buf;
    for (int i = 0; i < n; ++i) std::snprintf(buf, sizeof buf, " 0x%02x", static_cast<unsigned char>(id[i])), line += buf;
    return line;
}

struct Bed {
    std::unique_ptr<tvxsim::ipmisim::Peer> peer;
    std::vector<uint8_t> sensors; // found by walking the SDR repository
    std::string execFile;         // ipmitool exec: one raw command per line
    std::string rawFile;          // ipmi-raw: one request per line
};

Bed &bed()
{
    static Bed made = [] {
        Bed b;
        std::string work = TVX_BENCH_WORK;
        ::mkdir(work.c_str(), 0700);
        tvxsim::ipmisim::PeerOptions o;
        o.profilePath = std::string(TVX_MACHINES_DIR) + "/default.json";
        o.modulePath = TVX_IPMI_SIM_MODULE;
        o.workDir = work + "/sim";
        for (int s = 1; s <= kSensors; ++s) {
            o.extraCommands.push_back(fullSensorSdr(s));
            o.extraCommands.push_back("sensor_add 0x20 0 " + std::to_string(s) + " 0x01 0x01");
            o.extraCommands.push_back("sensor_set_value 0x20 0 " + std::to_string(s) + " " + std::to_string(30 + s) + " 0");
        }
        b.peer = std::make_unique<tvxsim::ipmisim::Peer>(o);
        return b;
    }();
    return made;
}

// The sensor numbers of the repository's full and compact sensor records: Get SDR with
// reservation 0 (which ipmi_sim accepts), header first, then the key by the record's type.
std::vector<uint8_t> discoverSensors(IpmiSession *s)
{
    std::vector<uint8_t> found;
    uint16_t id = 0;
    for (int guard = 0; guard < 1024 && id != 0xFFFF; ++guard) {
        uint8_t rq[6] = {0x00, 0x00, static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8), 0x00, 0x08};
        uint8_t rs[64];
        uint32_t len = sizeof rs;
        if (LIBIPMI_Send_RAW_IPMI2_0_Command(s, 0, 0x28, 0x23, rq, sizeof rq, rs, &len, 60) != 0 || len < 11) break;
        uint8_t type = rs[3 + 3];
        if (type == 0x01 || type == 0x02) found.push_back(rs[3 + 7]);
        id = static_cast<uint16_t>(rs[1] | rs[2] << 8);
    }
    return found;
}

void selectLan(bool pool)
{
    std::string t = bed().peer->target(pool ? "" : "&pool=0");
    if (ipmihost_select_target(t.c_str(), nullptr) != 0) std::abort();
    if (bed().sensors.empty()) {
        IpmiSession *s = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
        if (!s) std::abort();
        bed().sensors = discoverSensors(s);
        ipmiHelperCloseSession(&s);
    }
}

void reportHandshakes(benchmark::State &state)
{
    ipmihost_lan_statistics st{};
    ipmihost_lan_stats(&st);
    state.counters["handshakes/iter"] =
        benchmark::Counter(static_cast<double>(st.handshakes), benchmark::Counter::kAvgIterations);
    ipmihost_select_default();
}

void BM_Library_OpenClose(benchmark::State &state)
{
    selectLan(state.range(0));
    ipmihost_lan_drop_connections();
    for (auto _ : state) {
        IpmiSession *s = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
        if (!s) state.SkipWithError("no session");
        ipmiHelperCloseSession(&s);
    }
    reportHandshakes(state);
}

void BM_Library_RawRoundTrip(benchmark::State &state)
{
    selectLan(state.range(0));
    IpmiSession *s = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
    uint8_t rs[64];
    for (auto _ : state) {
        uint32_t len = sizeof rs;
        if (ipmiSendCmd(s, TVX_NETFN_APP, 0x01, 0, nullptr, &len, rs) != 1) state.SkipWithError("no answer");
    }
    ipmiHelperCloseSession(&s);
    reportHandshakes(state);
}

void BM_Library_AgentPass(benchmark::State &state)
{
    selectLan(state.range(0));
    const auto &sensors = bed().sensors;
    uint8_t rs[16];
    for (auto _ : state) {
        IpmiSession *s = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
        for (uint8_t n : sensors) {
            uint32_t len = sizeof rs;
            uint8_t rq = n;
            if (ipmiSendCmd(s, TVX_NETFN_SENSOR, 0x2D, 1, &rq, &len, rs) != 1 || rs[0] != 0)
                state.SkipWithError("reading failed");
        }
        ipmiHelperCloseSession(&s);
    }
    state.counters["sensors"] = static_cast<double>(sensors.size());
    reportHandshakes(state);
}

// ---- Other clients, as processes ------------------------------------------------------------

int spawnWait(const std::vector<std::string> &args, const std::string &stdinFile = "/dev/null")
{
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, stdinFile.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    std::vector<std::string> copy = args;
    std::vector<char *> argv;
    for (auto &a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid;
    int rc = posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return -1;
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> ipmitoolArgs()
{
    const auto &p = *bed().peer;
    return {"ipmitool", "-I", "lanplus", "-H", "127.0.0.1", "-p", std::to_string(p.port()), "-U", "admin", "-P",
            "secret", "-C", "3"};
}

std::vector<std::string> ipmiRawArgs()
{
    return {"ipmi-raw", "-D", "LAN_2_0", "-h", bed().peer->hostPort(), "-u", "admin", "-p", "secret", "-l", "ADMIN",
            "-I", "3", "-W", "opensesspriv"};
}

char hexByte[8];
const char *hx(unsigned v)
{
    std::snprintf(hexByte, sizeof hexByte, "0x%02x", v);
    return hexByte;
}

void prepareFiles()
{
    Bed &b = bed();
    if (!b.execFile.empty()) return;
    selectLan(true);
    ipmihost_select_default();
    b.execFile = std::string(TVX_BENCH_WORK) + "/ipmitool.exec";
    b.rawFile = std::string(TVX_BENCH_WORK) + "/ipmi-raw.in";
    std::ofstream e(b.execFile), r(b.rawFile);
    for (uint8_t n : b.sensors) {
        e << "raw 0x04 0x2d " << hx(n) << "\n";
        char line[32];
        std::snprintf(line, sizeof line, "00 04 2d %02x\n", n);
        r << line;
    }
}

void BM_Ipmitool_RawRoundTrip(benchmark::State &state)
{
    auto args = ipmitoolArgs();
    args.insert(args.end(), {"raw", "0x06", "0x01"});
    for (auto _ : state)
        if (spawnWait(args) != 0) state.SkipWithError("ipmitool failed");
}

void BM_IpmiRaw_RawRoundTrip(benchmark::State &state)
{
    auto args = ipmiRawArgs();
    args.insert(args.end(), {"00", "06", "01"});
    for (auto _ : state)
        if (spawnWait(args) != 0) state.SkipWithError("ipmi-raw failed");
}

void BM_Ipmitool_AgentPass_ProcessPerRequest(benchmark::State &state)
{
    prepareFiles();
    for (auto _ : state)
        for (uint8_t n : bed().sensors) {
            auto args = ipmitoolArgs();
            args.insert(args.end(), {"raw", "0x04", "0x2d", hx(n)});
            if (spawnWait(args) != 0) state.SkipWithError("ipmitool failed");
        }
    state.counters["sensors"] = static_cast<double>(bed().sensors.size());
}

void BM_Ipmitool_AgentPass_OneSession(benchmark::State &state)
{
    prepareFiles();
    auto args = ipmitoolArgs();
    args.insert(args.end(), {"exec", bed().execFile});
    for (auto _ : state)
        if (spawnWait(args) != 0) state.SkipWithError("ipmitool exec failed");
    state.counters["sensors"] = static_cast<double>(bed().sensors.size());
}

void BM_IpmiRaw_AgentPass_ProcessPerRequest(benchmark::State &state)
{
    prepareFiles();
    for (auto _ : state)
        for (uint8_t n : bed().sensors) {
            auto args = ipmiRawArgs();
            char num[4];
            std::snprintf(num, sizeof num, "%02x", n);
            args.insert(args.end(), {"00", "04", "2d", num});
            if (spawnWait(args) != 0) state.SkipWithError("ipmi-raw failed");
        }
    state.counters["sensors"] = static_cast<double>(bed().sensors.size());
}

void BM_IpmiRaw_AgentPass_OneSession(benchmark::State &state)
{
    prepareFiles();
    auto args = ipmiRawArgs();
    for (auto _ : state)
        if (spawnWait(args, bed().rawFile) != 0) state.SkipWithError("ipmi-raw failed");
    state.counters["sensors"] = static_cast<double>(bed().sensors.size());
}

} // namespace

// Argument: 1 with the connection pool, 0 without.
BENCHMARK(BM_Library_OpenClose)->ArgName("pool")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Library_RawRoundTrip)->ArgName("pool")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Library_AgentPass)->ArgName("pool")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Ipmitool_RawRoundTrip)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_IpmiRaw_RawRoundTrip)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_Ipmitool_AgentPass_ProcessPerRequest)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Ipmitool_AgentPass_OneSession)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_IpmiRaw_AgentPass_ProcessPerRequest)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_IpmiRaw_AgentPass_OneSession)->Unit(benchmark::kMillisecond)->Iterations(10);

BENCHMARK_MAIN();
