// The event log against the virtual controller: raw lines and texts of logs of 100 and 1,000
// entries. Requests per entry are reported.
#include <benchmark/benchmark.h>

#include "machine.h"

namespace {

using nlohmann::json;
using tvxtest::ScratchMachine;

// The default machine with a log of `count` entries (its own records over and over, with
// their texts) and a fixed clock.
json withLog(int count)
{
    json profile = tvxtest::shippedProfile("default.json");
    const json base = profile["sel"]["records"];
    json records = json::array();
    for (int i = 0; i < count; ++i) records.push_back(base[static_cast<std::size_t>(i) % base.size()]);
    profile["sel"]["records"] = records;
    profile["sel"]["capacity"] = count;
    profile["sel"]["clock"] = {{"fixed", "2026-11-16T21:45:12Z"}};
    return profile;
}

void report(benchmark::State &state, uint64_t requests)
{
    state.counters["requests"] = static_cast<double>(requests);
    state.counters["requests_per_entry"] = static_cast<double>(requests) / static_cast<double>(state.range(0));
}

void BM_SelRawStrings(benchmark::State &state)
{
    ScratchMachine log(withLog(static_cast<int>(state.range(0))));
    uint64_t requests = 0;
    for (auto _ : state) {
        ipmihost_reset_request_count();
        ListNode *lines = ipmiGetSelRawStrings(log.session(), 0);
        requests = ipmihost_request_count();
        if (!lines) state.SkipWithError("ipmiGetSelRawStrings failed");
        freeList(&lines);
    }
    report(state, requests);
}
BENCHMARK(BM_SelRawStrings)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

void BM_SelText(benchmark::State &state)
{
    ScratchMachine log(withLog(static_cast<int>(state.range(0))));
    uint64_t requests = 0;
    for (auto _ : state) {
        ipmihost_reset_request_count();
        ListNode *lines = ipmiGetSelText(log.session(), 0, 0);
        requests = ipmihost_request_count();
        if (!lines) state.SkipWithError("ipmiGetSelText failed");
        freeList(&lines);
    }
    report(state, requests);
}
BENCHMARK(BM_SelText)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
