// The parallel driver's fixed cost: an empty OpenMP region of the linked runtime (the floor any
// parallel call pays), the same region with a published value and a barrier (the shape of a split
// handed out by one thread), and packed 4x4 Add and Mul of two arrays from just above their serial
// limits (63 and 53 objects) to 100,000 objects, each with a budget of 1 and of 2. The difference
// of the two budgets at the smallest counts is the driver's cost per call; where the budget-2 row
// drops below the budget-1 row is the crossover.
#include <omp.h>

#include <vector>

#include "bench_common.h"
#include "omkm.h"

namespace {

using namespace omkm_bench;

void BM_OmpEmptyRegion(benchmark::State& state) {
    const int team = int(state.range(0));
    int sink = 0;
    for (auto _ : state) {
#pragma omp parallel num_threads(team)
        {
            benchmark::DoNotOptimize(sink);
        }
    }
    state.counters["threads"] = team;
}
BENCHMARK(BM_OmpEmptyRegion)->Arg(2)->UseRealTime();

void BM_OmpRegionPublishBarrier(benchmark::State& state) {
    const int team = int(state.range(0));
    for (auto _ : state) {
        int published = 0;
#pragma omp parallel num_threads(team)
        {
#pragma omp master
            published = omp_get_num_threads();
#pragma omp barrier
            benchmark::DoNotOptimize(published);
        }
    }
    state.counters["threads"] = team;
}
BENCHMARK(BM_OmpRegionPublishBarrier)->Arg(2)->UseRealTime();

// Packed 4x4 single-precision arrays: a, b sources, c destination.
template <bool kMul>
void BM_DriverCost(benchmark::State& state) {
    const int count = int(state.range(0)), budget = int(state.range(1));
    std::vector<float> a(size_t(count) * 16), b(a.size()), c(a.size());
    for (size_t i = 0; i < a.size(); ++i) {
        a[i] = float(i % 7) * 0.25f;
        b[i] = float(i % 5) * 0.5f;
    }
    const int threads = applyBudget(budget);
    const int s0 = 64, s1 = 16, s2 = 4;
    for (auto _ : state) {
        const OmkStatus st =
            kMul ? omkmMul_mama_32f(a.data(), s0, s1, s2, 4, 4, b.data(), s0, s1, s2, 4, 4, c.data(), s0, s1, s2, count)
                 : omkmAdd_mama_32f(a.data(), s0, s1, s2, b.data(), s0, s1, s2, c.data(), s0, s1, s2, 4, 4, count);
        if (st != omkStsOk) {
            state.SkipWithError("status");
            break;
        }
        benchmark::ClobberMemory();
    }
    applyBudget(0);
    finishTraffic(state, size_t(count), 3 * 64, threads);
}

// The same work as BM_DriverCost at one count, split by hand in a bare region of two threads: each
// thread calls the member on its half, which inside a parallel region runs on the calling thread.
// This is the floor of any parallel call of this work: the region, each half's work and the second
// core fetching operands that the first core's cache holds. The driver's call of the whole array
// with a budget of 2 costs this plus what the driver itself adds.
template <bool kMul>
void BM_OmpRegionHalves(benchmark::State& state) {
    const int count = int(state.range(0));
    std::vector<float> a(size_t(count) * 16), b(a.size()), c(a.size());
    for (size_t i = 0; i < a.size(); ++i) {
        a[i] = float(i % 7) * 0.25f;
        b[i] = float(i % 5) * 0.5f;
    }
    const int s0 = 64, s1 = 16, s2 = 4;
    int failed = 0;
    for (auto _ : state) {
#pragma omp parallel num_threads(2) reduction(+ : failed)
        {
            const int t = omp_get_thread_num(), n = omp_get_num_threads();
            const int first = int(int64_t(count) * t / n), part = int(int64_t(count) * (t + 1) / n) - first;
            const float* x = a.data() + size_t(first) * 16;
            const float* y = b.data() + size_t(first) * 16;
            float* z = c.data() + size_t(first) * 16;
            const OmkStatus st = kMul ? omkmMul_mama_32f(x, s0, s1, s2, 4, 4, y, s0, s1, s2, 4, 4, z, s0, s1, s2, part)
                                      : omkmAdd_mama_32f(x, s0, s1, s2, y, s0, s1, s2, z, s0, s1, s2, 4, 4, part);
            failed += st != omkStsOk;
        }
        benchmark::ClobberMemory();
    }
    if (failed) state.SkipWithError("status");
    finishTraffic(state, size_t(count), 3 * 64, 2);
}
BENCHMARK_TEMPLATE(BM_OmpRegionHalves, false)->Name("BM_OmpRegionHalves_Add_mama_32f_4x4")->Arg(63)->ArgName("count")
    ->UseRealTime();
BENCHMARK_TEMPLATE(BM_OmpRegionHalves, true)->Name("BM_OmpRegionHalves_Mul_mama_32f_4x4")->Arg(53)->ArgName("count")
    ->UseRealTime();

void driverArgs(benchmark::internal::Benchmark* b, int firstParallel) {
    for (int count : {firstParallel, 128, 256, 512, 1000, 2000, 4000, 10000, 100000})
        for (int budget : {1, 2}) b->Args({count, budget});
    b->ArgNames({"count", "budget"})->UseRealTime();
}

BENCHMARK_TEMPLATE(BM_DriverCost, false)->Name("BM_DriverCost_Add_mama_32f_4x4")->Apply([](auto* b) {
    driverArgs(b, 63);
});
BENCHMARK_TEMPLATE(BM_DriverCost, true)->Name("BM_DriverCost_Mul_mama_32f_4x4")->Apply([](auto* b) {
    driverArgs(b, 53);
});

}  // namespace
