// The SDR cache against the virtual controller: building it from repositories of 100 and
// 1,000 records, and the lookups over 1,000 records. Requests per build are reported.
#include <benchmark/benchmark.h>

#include "machine.h"

namespace {

using tvxtest::ScratchMachine;

// A machine whose generated repository holds `count` sensors.
nlohmann::json repository(int count) { return tvxtest::generatedRepository(count); }

void BM_GetSDRInfo(benchmark::State &state)
{
    ScratchMachine repo(repository(static_cast<int>(state.range(0))));
    uint64_t requests = 0;
    for (auto _ : state) {
        SDRInfo info{};
        ipmihost_reset_request_count();
        if (!getSDRInfo(repo.session(), &info)) state.SkipWithError("getSDRInfo failed");
        requests = ipmihost_request_count();
        freeSDRInfo(&info);
    }
    state.counters["requests"] = static_cast<double>(requests);
    state.counters["requests_per_record"] = static_cast<double>(requests) / static_cast<double>(state.range(0));
}
BENCHMARK(BM_GetSDRInfo)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

// Lookups over a cache of 1,000 records: the last compact record (a full walk), and every
// full record of a sensor type copied into a list.
void BM_FindCompactSdrByEntity(benchmark::State &state)
{
    ScratchMachine repo(repository(1000));
    SDRInfo info{};
    getSDRInfo(repo.session(), &info);
    // An instance no record has: the lookup walks all 1,000 slots.
    for (auto _ : state) benchmark::DoNotOptimize(findCompactSdrByEntity(0x1D, 127, 0x04, &info));
    freeSDRInfo(&info);
}
BENCHMARK(BM_FindCompactSdrByEntity);

void BM_FindSensorByType(benchmark::State &state)
{
    ScratchMachine repo(repository(1000));
    SDRInfo info{};
    getSDRInfo(repo.session(), &info);
    for (auto _ : state) {
        ListNode *list = nullptr;
        benchmark::DoNotOptimize(ipmiFindSensorByType(&list, 1, 0x01, &info));
        freeList(&list);
    }
    freeSDRInfo(&info);
}
BENCHMARK(BM_FindSensorByType);

void BM_GetSdrByIndexWalk(benchmark::State &state)
{
    ScratchMachine repo(repository(1000));
    SDRInfo info{};
    getSDRInfo(repo.session(), &info);
    for (auto _ : state)
        for (uint32_t i = 0; i < info.count; ++i) benchmark::DoNotOptimize(getSdrByIndex(i, &info));
    freeSDRInfo(&info);
}
BENCHMARK(BM_GetSdrByIndexWalk);

} // namespace

BENCHMARK_MAIN();
