// What the virtual controller's state costs per request as its event log grows: a read (Get
// Device ID), a reservation (Reserve SDR Repository) and an SEL addition (Add SEL Entry, stored
// and synced before it is answered) with 50 and 3,000 entries in the log; and `tvxctl sel`
// (its own code, in-process, output discarded) over 100, 1,000 and 3,000 entries, with the
// requests it sends.
//
// `state_bench --count=KIND:ENTRIES:N` sends N requests of one kind inside measuredRequests()
// and nothing else, for bench/state_callgrind.sh to count their instructions.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "cli.h"
#include "libipmi_host.h"
#include "machine.h"
#include "tvx/ipmi.h"
#include "tvx_toipmi.h"

namespace {

using nlohmann::json;
using tvxtest::ScratchMachine;

// The default machine with a log of `count` entries (its own records over and over), room for
// `room` more, and a fixed clock.
json withLog(int count, int room)
{
    json profile = tvxtest::shippedProfile("default.json");
    const json base = profile["sel"]["records"];
    json records = json::array();
    for (int i = 0; i < count; ++i) records.push_back(base[static_cast<std::size_t>(i) % base.size()]);
    profile["sel"]["records"] = records;
    profile["sel"]["capacity"] = count + room;
    profile["sel"]["clock"] = {{"fixed", "2026-11-16T21:45:12Z"}};
    return profile;
}

enum Kind : int { kRead, kReservation, kAddition };
const char *const kKindNames[] = {"read", "reservation", "addition"};

// One request of a kind; false when it is not answered with success.
bool request(IpmiSession *s, Kind kind)
{
    namespace cmd = tvx::cmd;
    uint8_t rsp[64] = {0};
    uint32_t len = sizeof rsp;
    int sent = 0;
    if (kind == kRead) {
        sent = ipmiSendCmd(s, TVX_NETFN_APP, cmd::app::kGetDeviceId, 0, nullptr, &len, rsp);
    } else if (kind == kReservation) {
        sent = ipmiSendCmd(s, TVX_NETFN_STORAGE, cmd::storage::kReserveSdrRepository, 0, nullptr, &len, rsp);
    } else {
        // A system event record: record type 0x02, generator 0x20, event message revision 4,
        // a temperature sensor's upper critical threshold crossed.
        uint8_t record[16] = {0, 0, 0x02, 0, 0, 0, 0, 0x20, 0x00, 0x04, 0x01, 0x30, 0x01, 0x59, 0x00, 0x00};
        sent = ipmiSendCmd(s, TVX_NETFN_STORAGE, cmd::storage::kAddSelEntry, sizeof record, record, &len, rsp);
    }
    return sent == 1 && len >= 1 && rsp[0] == 0x00;
}

// An addition grows the log: the machine is made afresh (untimed) after this many, so the
// log stays within 50..99 and 3,000..3,049 entries.
constexpr int kAdditionsPerMachine = 50;

void BM_Request(benchmark::State &state)
{
    const Kind kind = static_cast<Kind>(state.range(0));
    const int entries = static_cast<int>(state.range(1));
    state.SetLabel(std::string(kKindNames[kind]) + ", " + std::to_string(entries) + " entries");
    const json profile = withLog(entries, kAdditionsPerMachine);
    auto machine = std::make_unique<ScratchMachine>(profile);
    int made = 0;
    for (auto _ : state) {
        if (kind == kAddition && made == kAdditionsPerMachine) {
            state.PauseTiming();
            machine.reset();
            machine = std::make_unique<ScratchMachine>(profile);
            made = 0;
            state.ResumeTiming();
        }
        if (!request(machine->session(), kind)) {
            state.SkipWithError("the request failed");
            break;
        }
        ++made;
    }
}
BENCHMARK(BM_Request)
    ->ArgsProduct({{kRead, kReservation, kAddition}, {50, 3000}})
    ->ArgNames({"kind", "entries"})
    ->Unit(benchmark::kMicrosecond);

// `tvxctl sel` as the tool runs it, its lines written to /dev/null.
void BM_TvxctlSel(benchmark::State &state)
{
    const int entries = static_cast<int>(state.range(0));
    ScratchMachine log(withLog(entries, 0));
    std::fflush(stdout);
    const int out = dup(STDOUT_FILENO), null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    uint64_t requests = 0;
    for (auto _ : state) {
        ipmihost_reset_request_count();
        int code = 0;
        try {
            code = tvxctl::cmdSel(tvxctl::Options{}, {});
        } catch (const tvxctl::Failure &) {
            code = tvxctl::kExitFailed;
        }
        std::fflush(stdout);
        requests = ipmihost_request_count();
        if (code != tvxctl::kExitOk) {
            state.SkipWithError("tvxctl sel failed");
            break;
        }
    }
    dup2(out, STDOUT_FILENO);
    close(out);
    close(null);
    state.counters["requests"] = static_cast<double>(requests);
    state.counters["requests_per_entry"] = static_cast<double>(requests) / entries;
    state.counters["us_per_entry"] = benchmark::Counter(
        static_cast<double>(entries) * 1e-6, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_TvxctlSel)->Arg(100)->Arg(1000)->Arg(3000)->Unit(benchmark::kMillisecond);

// The requests callgrind counts; kept out of line so that it can be named.
[[gnu::noinline]] int measuredRequests(IpmiSession *s, Kind kind, int n)
{
    int ok = 0;
    for (int i = 0; i < n; ++i) ok += request(s, kind) ? 1 : 0;
    return ok;
}

// KIND:ENTRIES:N. A first request of the kind goes before the counted ones, so that what
// every program pays once (reading the state, the first lock) is not counted.
int countMode(const char *spec)
{
    char name[16] = {0};
    int entries = 0, n = 0;
    if (std::sscanf(spec, "%15[a-z]:%d:%d", name, &entries, &n) != 3 || entries < 0 || n < 1) return 2;
    int kind = 0;
    while (kind < 3 && std::strcmp(name, kKindNames[kind]) != 0) ++kind;
    if (kind == 3) return 2;
    ScratchMachine machine(withLog(entries, n + 1));
    if (!request(machine.session(), static_cast<Kind>(kind))) return 1;
    const int ok = measuredRequests(machine.session(), static_cast<Kind>(kind), n);
    std::printf("%s %d entries: %d of %d requests answered\n", name, entries, ok, n);
    return ok == n ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::strncmp(argv[i], "--count=", 8) == 0) return countMode(argv[i] + 8);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
