// omkm_bench: throughput of omkm's element-wise Add on packed arrays of small objects, next to
// the baselines a user would compare it with, all on the same data and in the same run:
//
//   BM_omkm_Add_mama_32f/N/threads:1        omkmAdd_mama_32f, 4x4 float matrices, budget of 1 thread
//   BM_omkm_Add_mama_32f/N/threads:default  the same with the library's default thread budget
//   BM_plain_Add_mama_32f/N                 a plain k, i, j loop over byte strides (noinline)
//   BM_eigen_Add_mama_32f/N                 a loop of Eigen::Map<Matrix4f> sums (when Eigen is found)
//   ... and the same four for omkmAdd_vava_64f on length-16 double vectors;
//   BM_stream_add_64f/N/threads:T           c[i] = a[i] + b[i] over three 64 MiB double arrays,
//                                           the machine's memory bandwidth on T threads.
//
// N = 1000 objects keeps the three operands in the per-core L2 cache; N = 1000000 puts them far
// beyond the last-level cache. Every row reports bytes_per_second counted as two reads and one
// write of every object (3 * N * object bytes per call), the STREAM convention; write-allocate
// traffic is not counted. Times are wall-clock (UseRealTime) because the library may run an
// OpenMP team.
//
// Before timing, every variant is run once and its result compared bit for bit with a + b: the
// sum is one rounding per element, so all correct implementations agree exactly.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_common.h"
#include "omkcore.h"
#include "omkm.h"

#ifdef OMKM_BENCH_HAVE_EIGEN
#include <Eigen/Core>
#endif

namespace {

using namespace omkm_bench;

// ---- data ----

// 4x4 float matrices, packed: element stride 4 bytes, row stride 16, object stride 64.
constexpr int kMatOrder = 4;
constexpr int kMatElems = kMatOrder * kMatOrder;
constexpr int kMatElemStride = sizeof(float);
constexpr int kMatRowStride = kMatOrder * sizeof(float);
constexpr int kMatObjStride = kMatElems * sizeof(float);

// Length-16 double vectors, packed: element stride 8 bytes, object stride 128.
constexpr int kVecLen = 16;
constexpr int kVecElemStride = sizeof(double);
constexpr int kVecObjStride = kVecLen * sizeof(double);

// STREAM-like arrays: 64 MiB each.
constexpr size_t kStreamElems = (size_t(64) << 20) / sizeof(double);

// Two sources and a destination of n elements. Every benchmark of one case reuses the same
// operands, so allocation and first touch happen once, outside all timings. The values are
// non-trivial (no zeros, no repeats over short ranges) and are written by the thread that
// allocates, which is the first touch of every page.
template <class T>
struct Operands {
    Array<T> a, b, d;
    size_t n = 0;
};

template <class T>
Operands<T>& operands(size_t n) {
    static std::map<size_t, Operands<T>> cache;
    Operands<T>& o = cache[n];
    if (o.n == n) return o;
    o.a = alignedArray<T>(n);
    o.b = alignedArray<T>(n);
    o.d = alignedArray<T>(n);
    o.n = n;
    for (size_t i = 0; i < n; ++i) {
        o.a[i] = T(1) + T(i % 1009) * T(0.001);
        o.b[i] = T(-0.5) + T(i % 997) * T(0.0007);
        o.d[i] = T(0);
    }
    return o;
}

// ---- baselines ----

// Element (i, j) of object k at base + k*s0 + i*s1 + j*s2 bytes, as a user writes it for a
// batch of matrices with strides known only at run time.
template <class T>
__attribute__((noinline)) void plainAddMatrices(const T* a, int a0, int a1, int a2, const T* b, int b0, int b1,
                                                int b2, T* d, int d0, int d1, int d2, int width, int height,
                                                int count) {
    const char* pa = reinterpret_cast<const char*>(a);
    const char* pb = reinterpret_cast<const char*>(b);
    char* pd = reinterpret_cast<char*>(d);
    for (int k = 0; k < count; ++k)
        for (int i = 0; i < height; ++i)
            for (int j = 0; j < width; ++j) {
                const T x = *reinterpret_cast<const T*>(pa + ptrdiff_t(k) * a0 + ptrdiff_t(i) * a1 + ptrdiff_t(j) * a2);
                const T y = *reinterpret_cast<const T*>(pb + ptrdiff_t(k) * b0 + ptrdiff_t(i) * b1 + ptrdiff_t(j) * b2);
                *reinterpret_cast<T*>(pd + ptrdiff_t(k) * d0 + ptrdiff_t(i) * d1 + ptrdiff_t(j) * d2) = x + y;
            }
}

// Element j of vector k at base + k*s0 + j*s2 bytes.
template <class T>
__attribute__((noinline)) void plainAddVectors(const T* a, int a0, int a2, const T* b, int b0, int b2, T* d,
                                               int d0, int d2, int len, int count) {
    const char* pa = reinterpret_cast<const char*>(a);
    const char* pb = reinterpret_cast<const char*>(b);
    char* pd = reinterpret_cast<char*>(d);
    for (int k = 0; k < count; ++k)
        for (int j = 0; j < len; ++j) {
            const T x = *reinterpret_cast<const T*>(pa + ptrdiff_t(k) * a0 + ptrdiff_t(j) * a2);
            const T y = *reinterpret_cast<const T*>(pb + ptrdiff_t(k) * b0 + ptrdiff_t(j) * b2);
            *reinterpret_cast<T*>(pd + ptrdiff_t(k) * d0 + ptrdiff_t(j) * d2) = x + y;
        }
}

#ifdef OMKM_BENCH_HAVE_EIGEN
// One fixed-size Eigen sum per object over packed storage.
__attribute__((noinline)) void eigenAddMatrices4f(const float* a, const float* b, float* d, int count) {
    using M = Eigen::Matrix4f;
    for (int k = 0; k < count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * kMatElems;
        Eigen::Map<M>(d + o) = Eigen::Map<const M>(a + o) + Eigen::Map<const M>(b + o);
    }
}

__attribute__((noinline)) void eigenAddVectors16d(const double* a, const double* b, double* d, int count) {
    using V = Eigen::Matrix<double, kVecLen, 1>;
    for (int k = 0; k < count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * kVecLen;
        Eigen::Map<V>(d + o) = Eigen::Map<const V>(a + o) + Eigen::Map<const V>(b + o);
    }
}
#endif

// ---- library calls ----

OmkStatus omkmMatrices(Operands<float>& o, int count) {
    return omkmAdd_mama_32f(o.a.get(), kMatObjStride, kMatRowStride, kMatElemStride, o.b.get(), kMatObjStride,
                            kMatRowStride, kMatElemStride, o.d.get(), kMatObjStride, kMatRowStride, kMatElemStride,
                            kMatOrder, kMatOrder, count);
}

OmkStatus omkmVectors(Operands<double>& o, int count) {
    return omkmAdd_vava_64f(o.a.get(), kVecObjStride, kVecElemStride, o.b.get(), kVecObjStride, kVecElemStride,
                            o.d.get(), kVecObjStride, kVecElemStride, kVecLen, count);
}

void plainMatrices(Operands<float>& o, int count) {
    plainAddMatrices<float>(o.a.get(), kMatObjStride, kMatRowStride, kMatElemStride, o.b.get(), kMatObjStride,
                            kMatRowStride, kMatElemStride, o.d.get(), kMatObjStride, kMatRowStride, kMatElemStride,
                            kMatOrder, kMatOrder, count);
}

void plainVectors(Operands<double>& o, int count) {
    plainAddVectors<double>(o.a.get(), kVecObjStride, kVecElemStride, o.b.get(), kVecObjStride, kVecElemStride,
                            o.d.get(), kVecObjStride, kVecElemStride, kVecLen, count);
}

// ---- benchmark bodies ----

// The library's calls as timed bodies (their status is kept live).
void omkmMatricesBody(Operands<float>& o, int count) { benchmark::DoNotOptimize(omkmMatrices(o, count)); }
void omkmVectorsBody(Operands<double>& o, int count) { benchmark::DoNotOptimize(omkmVectors(o, count)); }

#ifdef OMKM_BENCH_HAVE_EIGEN
void eigenMatrices(Operands<float>& o, int count) { eigenAddMatrices4f(o.a.get(), o.b.get(), o.d.get(), count); }
void eigenVectors(Operands<double>& o, int count) { eigenAddVectors16d(o.a.get(), o.b.get(), o.d.get(), count); }
constexpr void (*eigenMatricesBody)(Operands<float>&, int) = eigenMatrices;
constexpr void (*eigenVectorsBody)(Operands<double>&, int) = eigenVectors;
#else
constexpr void (*eigenMatricesBody)(Operands<float>&, int) = nullptr;
constexpr void (*eigenVectorsBody)(Operands<double>&, int) = nullptr;
#endif

// One timed case: `run` over `count` objects of `objectElems` elements. For library calls, budget
// is the thread budget (0: the library's default); baselines pass -1 and run on one thread.
template <class T>
void BM_case(benchmark::State& state, int count, int objectElems, void (*run)(Operands<T>&, int), int budget) {
    Operands<T>& o = operands<T>(size_t(count) * objectElems);
    const int threads = budget >= 0 ? applyBudget(budget) : 1;
    for (auto _ : state) {
        run(o, count);
        benchmark::ClobberMemory();
    }
    if (budget >= 0) applyBudget(0);
    finish(state, count, objectElems * sizeof(T), threads);
}

// The STREAM arrays are their own buffers (not shared with a case), first touched by the same
// static split of threads that later reads them.
struct StreamArrays {
    Array<double> a, b, c;
    StreamArrays() : a(alignedArray<double>(kStreamElems)), b(alignedArray<double>(kStreamElems)),
                     c(alignedArray<double>(kStreamElems)) {
        double* pa = a.get();
        double* pb = b.get();
        double* pc = c.get();
#pragma omp parallel for schedule(static)
        for (ptrdiff_t i = 0; i < ptrdiff_t(kStreamElems); ++i) {
            pa[i] = 1.0 + double(i % 1009) * 0.001;
            pb[i] = -0.5 + double(i % 997) * 0.0007;
            pc[i] = 0.0;
        }
    }
};

StreamArrays& streamArrays() {
    static StreamArrays s;
    return s;
}

void BM_streamAdd(benchmark::State& state, int threads) {
    StreamArrays& s = streamArrays();
    for (auto _ : state) {
        streamAdd(s.a.get(), s.b.get(), s.c.get(), kStreamElems, threads);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * 3 * int64_t(kStreamElems * sizeof(double)));
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(kStreamElems));
    state.counters["threads"] = threads;
}

// The rows of one case at both counts: the library at a budget of one thread and at its default,
// the plain loop, and Eigen when it is there.
template <class T>
void addCase(std::vector<benchmark::internal::Benchmark*>& all, const std::string& member, int objectElems,
             void (*omkmBody)(Operands<T>&, int), void (*plainBody)(Operands<T>&, int),
             void (*eigenBody)(Operands<T>&, int)) {
    for (int count : {kInCache, kOutOfCache}) {
        const std::string n = "/" + std::to_string(count);
        auto row = [&](const std::string& name, void (*run)(Operands<T>&, int), int budget) {
            all.push_back(benchmark::RegisterBenchmark(name.c_str(), BM_case<T>, count, objectElems, run, budget));
        };
        row("BM_omkm_" + member + n + "/threads:1", omkmBody, 1);
        row("BM_omkm_" + member + n + "/threads:default", omkmBody, 0);
        row("BM_plain_" + member + n, plainBody, -1);
        if (eigenBody) row("BM_eigen_" + member + n, eigenBody, -1);
    }
}

// ---- result check (before any timing) ----

template <class T, class Run>
bool sameAsSum(const char* what, Operands<T>& o, Run run) {
    std::fill(o.d.get(), o.d.get() + o.n, T(0));
    run();
    for (size_t i = 0; i < o.n; ++i) {
        const T want = o.a[i] + o.b[i];
        if (std::memcmp(&o.d[i], &want, sizeof(T)) != 0) {
            std::fprintf(stderr, "omkm_bench: %s differs from a + b at element %zu (%.9g, want %.9g)\n", what, i,
                         double(o.d[i]), double(want));
            return false;
        }
    }
    return true;
}

bool checkAll() {
    bool ok = true;
    for (int count : {kInCache, kOutOfCache}) {
        Operands<float>& m = operands<float>(size_t(count) * kMatElems);
        Operands<double>& v = operands<double>(size_t(count) * kVecLen);
        for (int budget : {1, 0}) {
            applyBudget(budget);
            ok &= sameAsSum("omkmAdd_mama_32f", m, [&] { return omkmMatrices(m, count) == omkStsOk; });
            ok &= sameAsSum("omkmAdd_vava_64f", v, [&] { return omkmVectors(v, count) == omkStsOk; });
        }
        applyBudget(0);
        ok &= sameAsSum("plain matrix loop", m, [&] { plainMatrices(m, count); });
        ok &= sameAsSum("plain vector loop", v, [&] { plainVectors(v, count); });
#ifdef OMKM_BENCH_HAVE_EIGEN
        ok &= sameAsSum("Eigen Matrix4f loop", m, [&] { eigenMatrices(m, count); });
        ok &= sameAsSum("Eigen 16x1 double loop", v, [&] { eigenVectors(v, count); });
#endif
    }
    // A library call that refuses its arguments writes nothing, which the comparison above
    // reports as a difference; check the status as well so the message names the cause.
    Operands<float>& m = operands<float>(size_t(kInCache) * kMatElems);
    Operands<double>& v = operands<double>(size_t(kInCache) * kVecLen);
    if (const OmkStatus st = omkmMatrices(m, kInCache)) {
        std::fprintf(stderr, "omkm_bench: omkmAdd_mama_32f returned status %d\n", st);
        ok = false;
    }
    if (const OmkStatus st = omkmVectors(v, kInCache)) {
        std::fprintf(stderr, "omkm_bench: omkmAdd_vava_64f returned status %d\n", st);
        ok = false;
    }
    return ok;
}

// ---- registration ----

bool hasFlag(int argc, char** argv, const char* flag) {
    const size_t n = std::strlen(flag);
    for (int i = 1; i < argc; ++i)
        if (std::strncmp(argv[i], flag, n) == 0) return true;
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    // Defaults that keep the whole run near a minute on two cores and spread the noise of a shared
    // machine over all rows: five repetitions of at least 0.3 s each, in random order across the
    // benchmarks, reported as mean, median, standard deviation and coefficient of variation. Each
    // can be overridden by giving the flag on the command line.
    std::vector<char*> args(argv, argv + argc);
    std::vector<std::string> defaults;
    for (const char* flag : {"--benchmark_min_time=0.3", "--benchmark_repetitions=5",
                             "--benchmark_report_aggregates_only=true",
                             "--benchmark_enable_random_interleaving=true"}) {
        const std::string name(flag, std::strchr(flag, '=') - flag);
        if (!hasFlag(argc, argv, name.c_str())) defaults.emplace_back(flag);
    }
    for (std::string& d : defaults) args.insert(args.begin() + 1, d.data());
    int nargs = int(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&nargs, args.data());
    if (benchmark::ReportUnrecognizedArguments(nargs, args.data())) return 1;

    if (!checkAll()) {
        std::fprintf(stderr, "omkm_bench: result check failed, nothing timed\n");
        return 1;
    }

    std::vector<benchmark::internal::Benchmark*> all;
    auto add = [&](benchmark::internal::Benchmark* b) { all.push_back(b); };
    const int maxThreads = omp_get_max_threads();

    addCase<float>(all, "Add_mama_32f", kMatElems, omkmMatricesBody, plainMatrices, eigenMatricesBody);
    addCase<double>(all, "Add_vava_64f", kVecLen, omkmVectorsBody, plainVectors, eigenVectorsBody);
    const std::string ns = std::to_string(kStreamElems);
    add(benchmark::RegisterBenchmark(("BM_stream_add_64f/" + ns + "/threads:1").c_str(), BM_streamAdd, 1));
    if (maxThreads > 1)
        add(benchmark::RegisterBenchmark(("BM_stream_add_64f/" + ns + "/threads:" + std::to_string(maxThreads)).c_str(),
                                         BM_streamAdd, maxThreads));

    for (benchmark::internal::Benchmark* b : all) b->UseRealTime()->Unit(benchmark::kMicrosecond);

    benchmark::AddCustomContext("omkm_threads_default", std::to_string(maxThreads));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
