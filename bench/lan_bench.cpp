// The library over IPMI-over-LAN against ipmi_sim on loopback, with and without its
// connection pool, beside ipmitool (lanplus) and FreeIPMI's ipmi-raw sending the same
// requests: one process per request, and one process (one session) for all of them.
//
// The work measured:
//   OpenClose   open and close one library session (what nearly every query of the library
//               costs before its first request)
//   RawRoundTrip  one request on an open session (Get Device ID)
//   SdrCache    the library's SDR cache over LAN (getSDRInfo): the whole repository in the
//               simulator's 36-byte answers
//   AgentPass   what the agent does for a sensor table: a session, every sensor's reading
//               and status (ipmiGetSensorReading, ipmiSdrGetStatus), close; the others send
//               the same Get Sensor Reading requests (0x04/0x2D)
//
// Run: build/bench/bench/lan_bench   (see bench/README.md for the figures)
#include <benchmark/benchmark.h>

#include <filesystem>

#include <cstdio>
#include <cstring>
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
#include "tvx/session.h"
#include "tvx_toipmi.h"

extern char **environ;

namespace {

struct Bed {
    std::unique_ptr<tvxsim::ipmisim::Peer> peer;
    std::vector<uint8_t> sensors; // the sensor records' numbers, from the SDR cache
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
        b.peer = std::make_unique<tvxsim::ipmisim::Peer>(o);
        return b;
    }();
    return made;
}

// The sensor numbers of the repository's full and compact sensor records.
std::vector<uint8_t> discoverSensors(IpmiSession *s)
{
    std::vector<uint8_t> found;
    SDRInfo info{};
    if (getSDRInfo(s, &info) != 1) std::abort();
    for (uint32_t i = 0; i < info.count; ++i) {
        const uint8_t *r = getSdrByIndex(i, &info);
        if (r[TVX_SDR_POS_RECORD_TYPE] == TVX_SDR_FULL_SENSOR || r[TVX_SDR_POS_RECORD_TYPE] == TVX_SDR_COMPACT_SENSOR)
            found.push_back(r[TVX_SDR_POS_SENSOR_NUMBER]);
    }
    freeSDRInfo(&info);
    return found;
}

void selectLan(bool pool)
{
    std::string t = bed().peer->target(pool ? "" : "&pool=0");
    if (ipmihost_select_target(t.c_str(), nullptr) != 0) std::abort();
    if (bed().sensors.empty()) {
        tvx::Session s;
        if (!s) std::abort();
        bed().sensors = discoverSensors(s.get());
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
    {
        tvx::Session s;
        uint8_t rs[64];
        for (auto _ : state) {
            uint32_t len = sizeof rs;
            if (ipmiSendCmd(s.get(), TVX_NETFN_APP, 0x01, 0, nullptr, &len, rs) != 1) state.SkipWithError("no answer");
        }
    }
    reportHandshakes(state);
}

void BM_Library_SdrCache(benchmark::State &state)
{
    selectLan(state.range(0));
    {
        tvx::Session s;
        uint64_t requests = ipmihost_request_count();
        uint32_t records = 0;
        for (auto _ : state) {
            SDRInfo info{};
            if (getSDRInfo(s.get(), &info) != 1) state.SkipWithError("no SDR cache");
            records = info.count;
            freeSDRInfo(&info);
        }
        state.counters["records"] = records;
        state.counters["requests/iter"] = benchmark::Counter(
            static_cast<double>(ipmihost_request_count() - requests), benchmark::Counter::kAvgIterations);
    }
    reportHandshakes(state);
}

void BM_Library_AgentPass(benchmark::State &state)
{
    selectLan(state.range(0));
    const auto &sensors = bed().sensors;
    std::size_t statusBytes = 0;
    for (auto _ : state) {
        tvx::Session s;
        for (uint8_t n : sensors) {
            uint8_t reading = 0;
            uint16_t bits = 0;
            if (ipmiGetSensorReading(s.get(), n, &reading, &bits) != 1) state.SkipWithError("reading failed");
            statusBytes += std::strlen(ipmiSdrGetStatus(bits & 0x3F));
        }
    }
    benchmark::DoNotOptimize(statusBytes);
    state.counters["sensors"] = static_cast<double>(sensors.size());
    reportHandshakes(state);
}

// ---- Other clients, as processes ------------------------------------------------------------

int spawnWait(const std::vector<std::string> &args, const std::string &stdinFile = "/dev/null",
              const std::string &stderrFile = "/dev/null")
{
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, stdinFile.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, stderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
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
    return {"ipmitool", "-I",    "lanplus", "-H",     "127.0.0.1", "-p", std::to_string(p.port()),
            "-U",       "admin", "-P",      "secret", "-C",        "3"};
}

std::vector<std::string> ipmiRawArgs()
{
    return {"ipmi-raw", "-D", "LAN_2_0", "-h", bed().peer->hostPort(), "-u", "admin", "-p", "secret", "-l",
            "ADMIN",    "-I", "3",       "-W", "opensesspriv"};
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
// ---- Listing the sensors with their readings: tvxctl sdr, ipmitool sdr elist, ipmi-sensors ----

// Each program's SDR cache lives here; "cold" empties it before every run.
std::string cacheDir(const char *who)
{
    return std::string(TVX_BENCH_WORK) + "/sdr-cache-" + who;
}
void emptied(const std::string &dir)
{
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
}

// tvxctl sdr over LAN (the pool does not outlive the process): argument 1 with its on-disk copy
// of the repository warm, 0 cold. Counts the LAN requests tvxctl reports with --stats.
void BM_Tvxctl_Sdr(benchmark::State &state)
{
    const bool warm = state.range(0);
    const std::string dir = cacheDir("tvxctl");
    emptied(dir);
    setenv("XDG_CACHE_HOME", dir.c_str(), 1);
    const std::vector<std::string> args = {TVXCTL_PATH, "--stats", "--target", bed().peer->target(), "sdr"};
    const std::string err = std::string(TVX_BENCH_WORK) + "/tvxctl-stats.txt";
    if (warm && spawnWait(args) != 0) state.SkipWithError("tvxctl sdr failed");
    uint64_t requests = 0;
    for (auto _ : state) {
        if (!warm) {
            state.PauseTiming();
            emptied(dir);
            state.ResumeTiming();
        }
        if (spawnWait(args, "/dev/null", err) != 0) state.SkipWithError("tvxctl sdr failed");
        std::ifstream in(err);
        for (std::string line; std::getline(in, line);)
            if (line.rfind("tvxctl: LAN requests ", 0) == 0) requests += std::stoull(line.substr(21));
    }
    unsetenv("XDG_CACHE_HOME");
    state.counters["requests/iter"] = benchmark::Counter(static_cast<double>(requests), benchmark::Counter::kAvgIterations);
}

// ipmitool sdr elist: without a cache (it reads the repository every time), or with the file
// `sdr dump` wrote (-S FILE).
void BM_Ipmitool_SdrElist(benchmark::State &state)
{
    const std::string file = cacheDir("ipmitool") + ".bin";
    std::vector<std::string> args = ipmitoolArgs();
    if (state.range(0)) {
        std::vector<std::string> dump = args;
        dump.insert(dump.end(), {"sdr", "dump", file});
        std::filesystem::remove(file);
        if (spawnWait(dump) != 0) state.SkipWithError("ipmitool sdr dump failed");
        args.insert(args.end(), {"-S", file});
    }
    args.insert(args.end(), {"sdr", "elist"});
    for (auto _ : state)
        if (spawnWait(args) != 0) state.SkipWithError("ipmitool sdr elist failed");
}

// ipmi-sensors with its SDR cache directory kept (warm) or emptied before each run (cold).
void BM_IpmiSensors(benchmark::State &state)
{
    const bool warm = state.range(0);
    const std::string dir = cacheDir("freeipmi");
    emptied(dir);
    std::vector<std::string> args = ipmiRawArgs();
    args[0] = "ipmi-sensors";
    args.push_back("--sdr-cache-directory=" + dir);
    if (warm && spawnWait(args) != 0) state.SkipWithError("ipmi-sensors failed");
    for (auto _ : state) {
        if (!warm) {
            state.PauseTiming();
            emptied(dir);
            state.ResumeTiming();
        }
        if (spawnWait(args) != 0) state.SkipWithError("ipmi-sensors failed");
    }
}

BENCHMARK(BM_Library_OpenClose)->ArgName("pool")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Library_RawRoundTrip)->ArgName("pool")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Library_SdrCache)->ArgName("pool")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Library_AgentPass)->ArgName("pool")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Ipmitool_RawRoundTrip)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_IpmiRaw_RawRoundTrip)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_Ipmitool_AgentPass_ProcessPerRequest)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Ipmitool_AgentPass_OneSession)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_IpmiRaw_AgentPass_ProcessPerRequest)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_IpmiRaw_AgentPass_OneSession)->Unit(benchmark::kMillisecond)->Iterations(10);

BENCHMARK(BM_Tvxctl_Sdr)->ArgName("warm")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_Ipmitool_SdrElist)->ArgName("cache")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_IpmiSensors)->ArgName("warm")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK_MAIN();
