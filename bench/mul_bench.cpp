// omkm_bench, matrix products: omkm's Mul on packed arrays of small square matrices next to the
// baselines a user would compare it with, all on the same data and in the same run:
//
//   BM_omkm_Mul_mama_<T>/NxN/C/threads:1        omkmMul_mama_<T>, budget of 1 thread
//   BM_omkm_Mul_mama_<T>/NxN/C/threads:default  the same with the library's default thread budget
//   BM_plain_Mul_mama_<T>/NxN/C                 a plain k, i, j, l loop over byte strides (noinline)
//   BM_eigen_Mul_mama_<T>/NxN/C                 Eigen fixed-size row-major products over the same
//                                                memory, d.noalias() = a * b (when Eigen is found)
//   BM_glm_Mul_mama_<T>/NxN/C                   glm mat3/mat4/dmat3/dmat4, N = 3 and 4 (when found)
//   BM_xsmm_Mul_mama_<T>/6x6/C                  a libxsmm JIT 6x6x6 kernel called per object, N = 6
//                                                (when found)
//   BM_omkm_Mul_mm4x4_32f/4x4/C                 omkmMul_mm4x4_32f called once per object
//   BM_omkm_Mul_mm_32f/4x4/1                    one omkmMul_mm_32f call on one 4x4 matrix
//   BM_stream_Mul_limit_32f/4x4/C/threads:T     c[i] = a[i] + b[i] over the 4x4 f32 arrays: two
//                                                64-byte reads and one 64-byte write per object, the
//                                                memory (or cache) limit of that product on T threads
//   BM_fmaBound_Mul_64f/6x6                     54 four-lane fused multiply-adds, the fewest AVX2
//                                                instructions one 6x6 double product's 216
//                                                multiply-adds take, in 12 independent chains: the
//                                                arithmetic limit of that product in this build,
//                                                time_per_obj per 54 instructions
//
// for <T> = 32f, 64f, N = 3, 4, 6 and C = 1000 objects (three operands of 27 KB to 864 KB, cache
// resident) and 1000000 (far beyond the last-level cache). Every case of one (type, N, C) reads the same arrays
// of packed row-major matrices (element stride sizeof(T), row stride N * sizeof(T), object stride
// N * N * sizeof(T)) with values drawn uniformly from [-1, 1]. Each row reports time_per_obj (wall
// seconds per product, or per call for the single call), bytes_per_second counted as two reads and
// one write of every object (the STREAM convention) and the number of threads.
//
// Every row checks its result once, before its first timing: the destination is filled with NaN,
// the variant runs, and every element must lie within 2 * N * epsilon(T) * sum_l |a_il * b_lj| of
// the product computed in double precision (the STREAM row must give a + b exactly). A row that
// fails is reported as an error and not timed.
#include <benchmark/benchmark.h>
#include <immintrin.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>

#include "bench_common.h"
#include "omkcore.h"
#include "omkm.h"

#ifdef OMKM_BENCH_HAVE_EIGEN
#include <Eigen/Core>
#endif
#ifdef OMKM_BENCH_HAVE_GLM
#include <glm/glm.hpp>
#endif
#ifdef OMKM_BENCH_HAVE_XSMM
#include <libxsmm.h>
#endif

namespace {

using namespace omkm_bench;

// ---- data ----

// count packed row-major order x order matrices per operand: dst[k] = a[k] * b[k]. One batch per
// (type, order, count), made on first use and shared by every row of that case. The values come
// from one fixed sequence per order, so the f32 batch holds the f64 values rounded to float and a
// short batch is the start of the long one.
template <class T>
struct Batch {
    Array<T> a, b, d;
    int order = 0;
    int count = 0;
    size_t elems() const { return size_t(count) * order * order; }
};

template <class T>
Batch<T>& batch(int order, int count) {
    static std::map<std::pair<int, int>, Batch<T>> cache;
    Batch<T>& bt = cache[{order, count}];
    if (bt.a) return bt;
    bt.order = order;
    bt.count = count;
    const size_t n = bt.elems();
    bt.a = alignedArray<T>(n);
    bt.b = alignedArray<T>(n);
    bt.d = alignedArray<T>(n);
    std::mt19937_64 gen(0x6f6d6b6dU + unsigned(order));
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (size_t i = 0; i < n; ++i) {
        bt.a[i] = T(u(gen));
        bt.b[i] = T(u(gen));
        bt.d[i] = T(0);
    }
    return bt;
}

// Every variant has this form: dst = a * b for `count` packed order x order matrices; returns 0
// or the library's status.
template <class T>
using Run = int (*)(const T* a, const T* b, T* d, int order, int count);

// ---- the library ----

template <class T>
struct Omkm;
template <>
struct Omkm<float> {
    static constexpr auto mama = omkmMul_mama_32f;
};
template <>
struct Omkm<double> {
    static constexpr auto mama = omkmMul_mama_64f;
};

template <class T>
int omkmMama(const T* a, const T* b, T* d, int n, int count) {
    const int e = sizeof(T), r = n * e, o = n * r;
    return Omkm<T>::mama(a, o, r, e, n, n, b, o, r, e, n, n, d, o, r, e, count);
}

int omkmMm4x4Loop(const float* a, const float* b, float* d, int, int count) {
    int status = 0;
    for (int k = 0; k < count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * 16;
        status |= omkmMul_mm4x4_32f(a + o, b + o, d + o);
    }
    return status;
}

// One call on the first matrix of the batch (count is 1 for this row).
int omkmMmSingle(const float* a, const float* b, float* d, int n, int) {
    const int e = sizeof(float), r = n * e;
    return omkmMul_mm_32f(a, r, e, n, n, b, r, e, n, n, d, r, e);
}

// ---- baselines ----

// Element (i, j) of object k at base + k*s0 + i*s1 + j*s2 bytes, as a user writes it for a batch
// of matrices whose size and strides are known only at run time.
template <class T>
__attribute__((noinline)) void plainMulMatrices(const T* a, int a0, int a1, int a2, const T* b, int b0, int b1,
                                                int b2, T* d, int d0, int d1, int d2, int n, int count) {
    const char* pa = reinterpret_cast<const char*>(a);
    const char* pb = reinterpret_cast<const char*>(b);
    char* pd = reinterpret_cast<char*>(d);
    for (int k = 0; k < count; ++k)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                T s = T(0);
                for (int l = 0; l < n; ++l) {
                    const T x = *reinterpret_cast<const T*>(pa + ptrdiff_t(k) * a0 + ptrdiff_t(i) * a1 + ptrdiff_t(l) * a2);
                    const T y = *reinterpret_cast<const T*>(pb + ptrdiff_t(k) * b0 + ptrdiff_t(l) * b1 + ptrdiff_t(j) * b2);
                    s += x * y;
                }
                *reinterpret_cast<T*>(pd + ptrdiff_t(k) * d0 + ptrdiff_t(i) * d1 + ptrdiff_t(j) * d2) = s;
            }
}

template <class T>
int plainMul(const T* a, const T* b, T* d, int n, int count) {
    const int e = sizeof(T), r = n * e, o = n * r;
    plainMulMatrices<T>(a, o, r, e, b, o, r, e, d, o, r, e, n, count);
    return 0;
}

#ifdef OMKM_BENCH_HAVE_EIGEN
template <class T, int N>
__attribute__((noinline)) int eigenMul(const T* a, const T* b, T* d, int, int count) {
    using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
    for (int k = 0; k < count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * N * N;
        Eigen::Map<M>(d + o).noalias() = Eigen::Map<const M>(a + o) * Eigen::Map<const M>(b + o);
    }
    return 0;
}
#endif

#ifdef OMKM_BENCH_HAVE_GLM
// glm is column-major: a row-major matrix read as a glm matrix is its transpose, so the row-major
// a * b is the glm product b * a. Loads and stores go through memcpy (plain vector moves).
template <class T, int N>
__attribute__((noinline)) int glmMul(const T* a, const T* b, T* d, int, int count) {
    using M = glm::mat<N, N, T, glm::defaultp>;
    static_assert(sizeof(M) == sizeof(T) * N * N, "glm matrix is not packed");
    for (int k = 0; k < count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * N * N;
        M x, y;
        std::memcpy(static_cast<void*>(&x), a + o, sizeof x);
        std::memcpy(static_cast<void*>(&y), b + o, sizeof y);
        const M z = y * x;
        std::memcpy(d + o, &z, sizeof z);
    }
    return 0;
}
#endif

#ifdef OMKM_BENCH_HAVE_XSMM
// libxsmm is column-major: the row-major C = A * B is the column-major C^T = B^T * A^T, so B goes
// first. alpha = 1, beta = 0 (C is overwritten), no prefetch.
libxsmm_smmfunction xsmmKernel(float*, int n) {
    const float alpha = 1.0f, beta = 0.0f;
    const int flags = LIBXSMM_GEMM_FLAG_NONE, prefetch = LIBXSMM_GEMM_PREFETCH_NONE;
    return libxsmm_smmdispatch(n, n, n, nullptr, nullptr, nullptr, &alpha, &beta, &flags, &prefetch);
}
libxsmm_dmmfunction xsmmKernel(double*, int n) {
    const double alpha = 1.0, beta = 0.0;
    const int flags = LIBXSMM_GEMM_FLAG_NONE, prefetch = LIBXSMM_GEMM_PREFETCH_NONE;
    return libxsmm_dmmdispatch(n, n, n, nullptr, nullptr, nullptr, &alpha, &beta, &flags, &prefetch);
}

// The kernel is dispatched on the first call, which is the result check, outside the timings.
template <class T, int N>
__attribute__((noinline)) int xsmmMul(const T* a, const T* b, T* d, int, int count) {
    static const auto kernel = xsmmKernel(static_cast<T*>(nullptr), N);
    if (kernel == nullptr) return -1;
    for (int k = 0; k < count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * N * N;
        kernel(b + o, a + o, d + o);
    }
    return 0;
}
#endif

// ---- result checks ----

template <class T>
std::string checkProduct(Batch<T>& bt, Run<T> run) {
    const int n = bt.order;
    std::fill(bt.d.get(), bt.d.get() + bt.elems(), std::numeric_limits<T>::quiet_NaN());
    if (const int status = run(bt.a.get(), bt.b.get(), bt.d.get(), n, bt.count))
        return "returned status " + std::to_string(status);
    const double eps = std::numeric_limits<T>::epsilon();
    for (int k = 0; k < bt.count; ++k) {
        const T* a = bt.a.get() + size_t(k) * n * n;
        const T* b = bt.b.get() + size_t(k) * n * n;
        const T* d = bt.d.get() + size_t(k) * n * n;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                double want = 0.0, size = 0.0;
                for (int l = 0; l < n; ++l) {
                    want += double(a[i * n + l]) * double(b[l * n + j]);
                    size += std::fabs(double(a[i * n + l]) * double(b[l * n + j]));
                }
                const double got = double(d[i * n + j]);
                if (!(std::fabs(got - want) <= 2.0 * n * eps * size)) {
                    char msg[160];
                    std::snprintf(msg, sizeof msg, "object %d element (%d,%d) is %.9g, the product is %.9g", k, i,
                                  j, got, want);
                    return msg;
                }
            }
    }
    return {};
}

// ---- benchmark bodies ----

// One row: `run` over the batch (order, count). For library calls, budget is the thread budget
// (0: the library's default); the others pass -1 and run on the calling thread.
template <class T>
void BM_mul(benchmark::State& state, const std::string& row, int order, int count, Run<T> run, int budget) {
    Batch<T>& bt = batch<T>(order, count);
    const int threads = budget >= 0 ? applyBudget(budget) : 1;
    const std::string error = checkOnce(row, [&] { return checkProduct(bt, run); });
    if (error.empty()) {
        for (auto _ : state) {
            benchmark::DoNotOptimize(run(bt.a.get(), bt.b.get(), bt.d.get(), order, count));
            benchmark::ClobberMemory();
        }
    }
    if (budget >= 0) applyBudget(0);
    if (!error.empty()) {
        state.SkipWithError((row + ": " + error).c_str());
        return;
    }
    finish(state, count, size_t(order) * order * sizeof(T), threads);
}

void BM_streamLimit(benchmark::State& state, const std::string& row, int count, int threads) {
    Batch<float>& bt = batch<float>(4, count);
    const size_t n = bt.elems();
    const std::string error = checkOnce(row, [&]() -> std::string {
        std::fill(bt.d.get(), bt.d.get() + n, std::numeric_limits<float>::quiet_NaN());
        streamAdd(bt.a.get(), bt.b.get(), bt.d.get(), n, threads);
        for (size_t i = 0; i < n; ++i)
            if (bt.d[i] != bt.a[i] + bt.b[i]) return "differs from a + b at element " + std::to_string(i);
        return {};
    });
    if (!error.empty()) {
        state.SkipWithError((row + ": " + error).c_str());
        return;
    }
    for (auto _ : state) {
        streamAdd(bt.a.get(), bt.b.get(), bt.d.get(), n, threads);
        benchmark::ClobberMemory();
    }
    finish(state, count, 16 * sizeof(float), threads);
}

// 108 four-lane fused multiply-adds (two products' worth) per iteration in 12 independent chains,
// more than the FMA units' latency times their throughput, so that throughput alone limits them;
// the chains and their two factors stay in registers.
void BM_fmaBound(benchmark::State& state) {
    __m256d acc[12];
    for (int i = 0; i < 12; ++i) acc[i] = _mm256_set1_pd(i);
    const __m256d x = _mm256_set1_pd(1.0000001), y = _mm256_set1_pd(0.9999999);
    for (auto _ : state) {
        for (int k = 0; k < 9; ++k)
            for (int i = 0; i < 12; ++i) acc[i] = _mm256_fmadd_pd(x, y, acc[i]);
        for (int i = 0; i < 12; ++i) asm volatile("" : "+x"(acc[i]));
    }
    double sink = 0;
    for (int i = 0; i < 12; ++i) sink += _mm256_cvtsd_f64(acc[i]);
    benchmark::DoNotOptimize(sink);
    finishTraffic(state, 2, 0, 1);
}

// ---- registration ----

template <class T>
void row(const std::string& name, int order, int count, Run<T> run, int budget) {
    benchmark::RegisterBenchmark(name.c_str(), BM_mul<T>, name, order, count, run, budget)
        ->UseRealTime()
        ->Unit(count > 1 ? benchmark::kMicrosecond : benchmark::kNanosecond);
}

// The rows of one (type, N) at both counts.
template <class T, int N>
void addShape(const std::string& type) {
    const std::string shape = "/" + std::to_string(N) + "x" + std::to_string(N) + "/";
    for (int count : {kInCache, kOutOfCache}) {
        const std::string c = shape + std::to_string(count);
        const std::string member = "_Mul_mama_" + type + c;
        row<T>("BM_omkm" + member + "/threads:1", N, count, omkmMama<T>, 1);
        row<T>("BM_omkm" + member + "/threads:default", N, count, omkmMama<T>, 0);
        row<T>("BM_plain" + member, N, count, plainMul<T>, -1);
#ifdef OMKM_BENCH_HAVE_EIGEN
        row<T>("BM_eigen" + member, N, count, eigenMul<T, N>, -1);
#endif
#ifdef OMKM_BENCH_HAVE_GLM
        if constexpr (N == 3 || N == 4) row<T>("BM_glm" + member, N, count, glmMul<T, N>, -1);
#endif
#ifdef OMKM_BENCH_HAVE_XSMM
        if constexpr (N == 6) row<T>("BM_xsmm" + member, N, count, xsmmMul<T, N>, -1);
#endif
        if constexpr (N == 4 && sizeof(T) == sizeof(float)) {
            row<float>("BM_omkm_Mul_mm4x4_32f" + c, 4, count, omkmMm4x4Loop, -1);
            // The out-of-cache limit also on the whole team, the library's default budget.
            const int team = omp_get_max_threads();
            for (int threads : {1, team}) {
                if (threads > 1 && count == kInCache) break;
                const std::string name = "BM_stream_Mul_limit_32f" + c + "/threads:" + std::to_string(threads);
                benchmark::RegisterBenchmark(name.c_str(), BM_streamLimit, name, count, threads)
                    ->UseRealTime()
                    ->Unit(benchmark::kMicrosecond);
                if (team == 1) break;
            }
        }
    }
}

bool registerAll() {
    addShape<float, 3>("32f");
    addShape<float, 4>("32f");
    addShape<float, 6>("32f");
    addShape<double, 3>("64f");
    addShape<double, 4>("64f");
    addShape<double, 6>("64f");
    row<float>("BM_omkm_Mul_mm_32f/4x4/1", 4, 1, omkmMmSingle, -1);
    benchmark::RegisterBenchmark("BM_fmaBound_Mul_64f/6x6", BM_fmaBound)->UseRealTime()->Unit(benchmark::kNanosecond);
    return true;
}

[[maybe_unused]] const bool registered = registerAll();

}  // namespace
