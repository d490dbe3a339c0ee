// The agent's sensor getters: one agent pass is every sensor getter of the library for every
// sensor of the default machine, called as the agent calls them (tvxctl agent sensors runs
// the same pass). Measured in-process against the virtual controller, and over LAN against
// ipmi_sim with and without the connection pool, beside one `ipmitool sensor` run on the
// same simulator. Each benchmark reports the requests sent and the sessions opened; one
// benchmark per getter reports them per call.
//
//   build/bench/bench/agent_bench                       the benchmarks
//   build/bench/bench/agent_bench --passes=N            N passes in-process, nothing else
//                                                       (for callgrind: bench/agent_callgrind.sh)
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent_pass.h"
#include "collector.h"
#include "libipmi_host.h"
#include "peer.h"
#include "machine.h"
#include "tvx/session.h"
#include "tvx_toipmi.h"

extern char **environ;

namespace {

using tvxctl::AgentSensor;

using tvxtest::ScratchMachine;

nlohmann::json defaultProfile() { return tvxtest::shippedProfile("default.json"); }

// The SDR cache of the selected controller and the sensors the agent publishes.
struct Machine {
    SDRInfo info{};
    std::vector<AgentSensor> sensors;
    explicit Machine(IpmiSession *s)
    {
        if (getSDRInfo(s, &info) != 1) std::abort();
        sensors = tvxctl::agentSensors(&info);
    }
    ~Machine() { freeSDRInfo(&info); }
    Machine(const Machine &) = delete;
    Machine &operator=(const Machine &) = delete;
};

int pass(Machine &m)
{
    int sum = 0;
    for (const AgentSensor &s : m.sensors)
        for (const tvxctl::AgentGetter &g : tvxctl::agentGetters(s.kind)) sum += g.run(s, &m.info);
    return sum;
}

std::size_t calls(const Machine &m)
{
    std::size_t n = 0;
    for (const AgentSensor &s : m.sensors) n += tvxctl::agentGetters(s.kind).size();
    return n;
}

void countPerIteration(benchmark::State &state, uint64_t requests, uint64_t sessions)
{
    using benchmark::Counter;
    state.counters["requests/iter"] = Counter(static_cast<double>(requests), Counter::kAvgIterations);
    state.counters["sessions/iter"] = Counter(static_cast<double>(sessions), Counter::kAvgIterations);
}

void BM_AgentPass_InProcess(benchmark::State &state)
{
    ScratchMachine machine(defaultProfile());
    Machine m(machine.session());
    ipmihost_reset_request_count();
    ipmihost_reset_session_count();
    for (auto _ : state) benchmark::DoNotOptimize(pass(m));
    countPerIteration(state, ipmihost_request_count(), ipmihost_session_count());
    state.counters["sensors"] = static_cast<double>(m.sensors.size());
    state.counters["getter_calls"] = static_cast<double>(calls(m));
}

tvxsim::ipmisim::Peer &peer();

// One getter for every sensor it applies to, per call: in-process, or over LAN with the pool.
void BM_Getter(benchmark::State &state, std::string call, bool lan)
{
    std::unique_ptr<ScratchMachine> machine;
    if (lan && ipmihost_select_target(peer().target().c_str(), nullptr) != 0) std::abort();
    if (!lan) machine = std::make_unique<ScratchMachine>(defaultProfile());
    {
        Machine m(tvx::Session().get()); // the getters open their own sessions
        std::vector<std::pair<const AgentSensor *, const tvxctl::AgentGetter *>> targets;
        for (const AgentSensor &sensor : m.sensors)
            for (const tvxctl::AgentGetter &g : tvxctl::agentGetters(sensor.kind))
                if (call == g.call) targets.emplace_back(&sensor, &g);
        ipmihost_reset_request_count();
        ipmihost_reset_session_count();
        for (auto _ : state)
            for (auto [sensor, g] : targets) benchmark::DoNotOptimize(g->run(*sensor, &m.info));
        const double n = static_cast<double>(state.iterations() * targets.size());
        state.counters["requests/call"] = static_cast<double>(ipmihost_request_count()) / n;
        state.counters["sessions/call"] = static_cast<double>(ipmihost_session_count()) / n;
        state.counters["sensors"] = static_cast<double>(targets.size());
        state.SetItemsProcessed(static_cast<int64_t>(n));
    }
    ipmihost_select_default();
}

// ---- Over LAN, against ipmi_sim ------------------------------------------------------------------

tvxsim::ipmisim::Peer &peer()
{
    static std::unique_ptr<tvxsim::ipmisim::Peer> made = [] {
        std::string work = TVX_BENCH_WORK;
        ::mkdir(work.c_str(), 0700);
        tvxsim::ipmisim::PeerOptions o;
        o.profilePath = std::string(TVX_MACHINES_DIR) + "/default.json";
        o.modulePath = TVX_IPMI_SIM_MODULE;
        o.workDir = work + "/agent-sim";
        return std::make_unique<tvxsim::ipmisim::Peer>(o);
    }();
    return *made;
}

void BM_AgentPass_Lan(benchmark::State &state)
{
    if (ipmihost_select_target(peer().target(state.range(0) ? "" : "&pool=0").c_str(), nullptr) != 0) std::abort();
    {
        Machine m(tvx::Session().get()); // the getters open their own sessions
        ipmihost_lan_statistics before{};
        ipmihost_lan_stats(&before);
        ipmihost_reset_request_count();
        ipmihost_reset_session_count();
        for (auto _ : state) benchmark::DoNotOptimize(pass(m));
        countPerIteration(state, ipmihost_request_count(), ipmihost_session_count());
        ipmihost_lan_statistics after{};
        ipmihost_lan_stats(&after);
        state.counters["handshakes/iter"] = benchmark::Counter(
            static_cast<double>(after.handshakes - before.handshakes), benchmark::Counter::kAvgIterations);
    }
    ipmihost_select_default();
}

// The same sensors' readings, statuses and thresholds as one `ipmitool sensor` process shows them.
void BM_Ipmitool_Sensor(benchmark::State &state)
{
    const auto &p = peer();
    std::vector<std::string> args = {
        "ipmitool", "-I",    "lanplus", "-H",     "127.0.0.1", "-p", std::to_string(p.port()),
        "-U",       "admin", "-P",      "secret", "-C",        "3",  "sensor"};
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto _ : state) {
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
        pid_t pid;
        int status = 0;
        if (posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0 || waitpid(pid, &status, 0) != pid ||
            !WIFEXITED(status) || WEXITSTATUS(status) != 0)
            state.SkipWithError("ipmitool sensor failed");
        posix_spawn_file_actions_destroy(&fa);
    }
}

// The SNMP subagent's collection: every value of the hardware MIB read once, as
// tvx-snmp-agent reads it on its collector thread (the SDR cache already built, so only Get
// SDR Repository Info checks it). A walk answers from the last collection and sends nothing.
// Argument: 0 in-process, 1 over LAN with the pool.
void BM_SubagentCollection(benchmark::State &state)
{
    std::unique_ptr<ScratchMachine> machine;
    if (state.range(0) && ipmihost_select_target(peer().target().c_str(), nullptr) != 0) std::abort();
    if (!state.range(0)) machine = std::make_unique<ScratchMachine>(defaultProfile());
    {
        tvxagent::Collector collector;
        benchmark::DoNotOptimize(collector.collect());
        ipmihost_reset_request_count();
        ipmihost_reset_session_count();
        for (auto _ : state) benchmark::DoNotOptimize(collector.collect());
        countPerIteration(state, ipmihost_request_count(), ipmihost_session_count());
        state.counters["sdr_builds"] = static_cast<double>(collector.sdrBuilds());
    }
    ipmihost_select_default();
}

// ---- A full walk through snmpd and tvx-snmp-agent ------------------------------------------------

// Starts a program with its output going to `log`; its PID, or -1.
pid_t spawn(std::vector<std::string> args, const std::string &log)
{
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

bool succeeds(const std::vector<std::string> &args, const std::string &log)
{
    int status = 0;
    const pid_t pid = spawn(args, log);
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void stop(pid_t pid)
{
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

// One snmpbulkwalk of the whole subtree, as a manager walks it, through a real snmpd master and
// the subagent on the default machine (argument 0) or on ipmi_sim over LAN with the pool (1).
// The subagent collects once at its start (-I 3600): a walk answers from that collection and
// sends the controller nothing; BM_SubagentCollection is what each collection costs.
void BM_SnmpWalk(benchmark::State &state)
{
    const std::string work = std::string(TVX_BENCH_WORK) + "/walk" + std::to_string(state.range(0));
    std::filesystem::remove_all(work);
    std::filesystem::create_directories(work + "/persist");
    const std::string port = std::to_string(20000 + getpid() % 20000);
    const std::string socket = "unix:" + work + "/agentx.sock";
    std::ofstream(work + "/snmpd.conf") << "agentaddress udp:127.0.0.1:" << port << "\nmaster agentx\nagentXSocket "
                                        << socket << "\nrocommunity public 127.0.0.1\n";
    setenv("SNMP_PERSISTENT_DIR", (work + "/persist").c_str(), 1);
    setenv("MIBS", "", 1);
    const pid_t master = spawn({SNMPD_PATH, "-f", "-C", "-c", work + "/snmpd.conf", "-Lo", "-I",
                                "-smux,mteTrigger,mteTriggerConf,hr_system,hr_storage,hr_disk,hr_filesys"},
                               work + "/snmpd.log");
    std::vector<std::string> agent = {TVX_AGENT_PATH, "-f", "-Lo", "-x", socket, "-I", "3600", "--state",
                                      work + "/state"};
    if (state.range(0)) agent.insert(agent.end(), {"--target", peer().target()});
    const pid_t subagent = spawn(agent, work + "/agent.log");
    const std::vector<std::string> walk = {
        std::string(SNMP_BIN_DIR) + "/snmpbulkwalk", "-v2c", "-c", "public", "-r", "1", "-t", "5", "-On", "-Oq",
        "127.0.0.1:" + port, ".1.3.6.1.4.1.32473.1.1"};
    bool served = false;
    for (int i = 0; i < 300 && !served; ++i) {
        served = succeeds(walk, work + "/walk.txt") && std::filesystem::file_size(work + "/walk.txt") > 1000;
        if (!served) usleep(100000);
    }
    static std::string why;
    why = "the subagent did not serve the subtree (see " + work + ")";
    if (!served) state.SkipWithError(why.c_str());
    std::size_t varbinds = 0;
    {
        std::ifstream in(work + "/walk.txt");
        for (std::string line; std::getline(in, line);) ++varbinds;
    }
    for (auto _ : state)
        if (served && !succeeds(walk, "/dev/null")) state.SkipWithError("snmpbulkwalk failed");
    state.counters["varbinds"] = static_cast<double>(varbinds);
    stop(subagent);
    stop(master);
}

// The passes callgrind counts (bench/agent_callgrind.sh collects inside this function only).
__attribute__((noinline)) void agentPasses(Machine &m, int n)
{
    for (int i = 0; i < n; ++i) benchmark::DoNotOptimize(pass(m));
}

// --passes=N: N agent passes in-process and nothing else, for an instruction count. Prints
// the requests and sessions of the passes.
int passesOnly(int n)
{
    ScratchMachine machine(defaultProfile());
    Machine m(machine.session());
    ipmihost_reset_request_count();
    ipmihost_reset_session_count();
    agentPasses(m, n);
    std::printf("passes %d requests %llu sessions %llu getter_calls %zu\n", n,
                static_cast<unsigned long long>(ipmihost_request_count()),
                static_cast<unsigned long long>(ipmihost_session_count()), calls(m) * static_cast<std::size_t>(n));
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::strncmp(argv[1], "--passes=", 9) == 0) return passesOnly(std::atoi(argv[1] + 9));
    benchmark::RegisterBenchmark("BM_AgentPass_InProcess", BM_AgentPass_InProcess)->Unit(benchmark::kMicrosecond);
    {
        // One benchmark per getter, in the order the pass calls them.
        ScratchMachine machine(defaultProfile());
        Machine m(machine.session());
        std::vector<std::string> seen;
        for (const AgentSensor &s : m.sensors)
            for (const tvxctl::AgentGetter &g : tvxctl::agentGetters(s.kind))
                if (std::find(seen.begin(), seen.end(), g.call) == seen.end()) seen.push_back(g.call);
        for (bool lan : {false, true})
            for (const std::string &call : seen)
                benchmark::RegisterBenchmark((std::string(lan ? "BM_GetterLan/" : "BM_Getter/") + call).c_str(),
                                             BM_Getter, call, lan)
                    ->Unit(benchmark::kMicrosecond);
    }
    benchmark::RegisterBenchmark("BM_AgentPass_Lan", BM_AgentPass_Lan)
        ->ArgName("pool")
        ->Arg(1)
        ->Arg(0)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_SubagentCollection", BM_SubagentCollection)
        ->ArgName("lan")
        ->Arg(0)
        ->Arg(1)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_SnmpWalk", BM_SnmpWalk)->ArgName("lan")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_Ipmitool_Sensor", BM_Ipmitool_Sensor)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(10);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
