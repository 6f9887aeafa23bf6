// omkm_bench, solvers: LU factorisation plus one solve, and Cholesky factorisation, on arrays of
// small square matrices, next to the per-object calls a user would write today:
//
//   BM_omkm_LUSolve_<T>/NxN/C/threads:1   omkmLUDecomp_ma_<T> then omkmLUBackSubst_mava_<T>
//   BM_eigen_LUSolve_<T>/NxN/C            Eigen PartialPivLU of a fixed-size row-major matrix and
//                                         its solve, per object (when Eigen is found)
//   BM_lapacke_LUSolve_<T>/NxN/C          LAPACKE ?getrf_work + ?getrs_work per object (when found)
//   BM_omkm_Cholesky_64f/NxN/C/threads:1  omkmCholeskyDecomp_ma_64f
//   BM_eigen_Cholesky_64f/NxN/C           Eigen LLT per object
//   BM_lapacke_Cholesky_64f/NxN/C         LAPACKE dpotrf_work per object
//   BM_floor_LUSolve_<T>/NxN/C,           the arithmetic floor of the same work: only the object's own
//   BM_floor_Cholesky_64f/NxN/C           fused multiply-adds, divisions and roots, 8 float or 4
//                                         double objects side by side, on values in registers
//
// for N = 4 and 6 and C = 1000 objects. The LU matrices have entries drawn uniformly from [-1, 1]
// (so the pivot search exchanges rows), the Cholesky matrices are M*M^T + N*I. Every variant writes
// its factor into its own destination (the source stays intact, as with omkm's separate
// destination), and LAPACK, being column-major, factors the stored transpose and solves with
// trans = 'T'. Each row reports time_per_obj (wall seconds per object) and is checked once before
// timing: LU rows by the residual of A*x = b, Cholesky rows by the factor against a double-precision
// factorisation.
#include <benchmark/benchmark.h>
#include <immintrin.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench_common.h"
#include "omkcore.h"
#include "omkm.h"

#ifdef OMKM_BENCH_HAVE_EIGEN
#include <Eigen/Cholesky>
#include <Eigen/Core>
#include <Eigen/LU>
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
#include <lapacke.h>
#endif

namespace {

using namespace omkm_bench;

constexpr int kCount = kInCache;

// count packed row-major n x n matrices, right-hand sides, and room for factors, pivots and
// solutions.
template <class T>
struct Systems {
    int n = 0, count = 0;
    Array<T> a, f, b, x;
    std::vector<int> p;
    size_t mat() const { return size_t(n) * n; }
};

template <class T>
Systems<T>& systems(int n, bool spd) {
    static std::map<std::pair<int, bool>, Systems<T>> cache;
    Systems<T>& s = cache[{n, spd}];
    if (s.a) return s;
    s.n = n;
    s.count = kCount;
    const size_t m = s.mat() * kCount;
    s.a = alignedArray<T>(m);
    s.f = alignedArray<T>(m);
    s.b = alignedArray<T>(size_t(n) * kCount);
    s.x = alignedArray<T>(size_t(n) * kCount);
    s.p.assign(size_t(n) * kCount, 0);
    std::mt19937_64 gen(0x6c75U + unsigned(n) + (spd ? 100U : 0U));
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> g(s.mat());
    for (int k = 0; k < kCount; ++k) {
        T* a = s.a.get() + s.mat() * k;
        for (double& v : g) v = u(gen);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                double v = g[size_t(i) * n + j];
                if (spd) {
                    v = i == j ? n : 0.0;
                    for (int l = 0; l < n; ++l) v += g[size_t(i) * n + l] * g[size_t(j) * n + l];
                }
                a[i * n + j] = T(v);
            }
        for (int i = 0; i < n; ++i) s.b[size_t(k) * n + i] = T(u(gen));
    }
    return s;
}

template <class T>
using Run = int (*)(Systems<T>&);

// ---- omkm ----
template <class T> struct Omkm;
template <> struct Omkm<float> {
    static constexpr auto decomp = omkmLUDecomp_ma_32f;
    static constexpr auto solve = omkmLUBackSubst_mava_32f;
};
template <> struct Omkm<double> {
    static constexpr auto decomp = omkmLUDecomp_ma_64f;
    static constexpr auto solve = omkmLUBackSubst_mava_64f;
};

template <class T>
int omkmLUSolve(Systems<T>& s) {
    const int e = sizeof(T), r = s.n * e, o = s.n * r;
    if (int st = Omkm<T>::decomp(s.a.get(), o, r, e, s.p.data(), s.f.get(), o, r, e, s.n, s.count)) return st;
    return Omkm<T>::solve(s.f.get(), o, r, e, s.p.data(), s.b.get(), r, e, s.x.get(), r, e, s.n, s.count);
}

int omkmCholesky(Systems<double>& s) {
    const int e = sizeof(double), r = s.n * e, o = s.n * r;
    return omkmCholeskyDecomp_ma_64f(s.a.get(), o, r, e, s.f.get(), o, r, e, s.n, s.count);
}

// ---- Eigen ----
#ifdef OMKM_BENCH_HAVE_EIGEN
template <class T, int N>
__attribute__((noinline)) int eigenLUSolve(Systems<T>& s) {
    using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
    using V = Eigen::Matrix<T, N, 1>;
    for (int k = 0; k < s.count; ++k) {
        const Eigen::PartialPivLU<M> lu(Eigen::Map<const M>(s.a.get() + s.mat() * k));
        Eigen::Map<V>(s.x.get() + size_t(k) * N) = lu.solve(Eigen::Map<const V>(s.b.get() + size_t(k) * N));
    }
    return 0;
}

template <int N>
__attribute__((noinline)) int eigenCholesky(Systems<double>& s) {
    using M = Eigen::Matrix<double, N, N, Eigen::RowMajor>;
    for (int k = 0; k < s.count; ++k) {
        const Eigen::LLT<M> llt(Eigen::Map<const M>(s.a.get() + s.mat() * k));
        Eigen::Map<M>(s.f.get() + s.mat() * k) = llt.matrixLLT();
        if (llt.info() != Eigen::Success) return -1;
    }
    return 0;
}
#endif

// ---- LAPACKE ----
#ifdef OMKM_BENCH_HAVE_LAPACKE
lapack_int getrf(int n, float* a, lapack_int* p) { return LAPACKE_sgetrf_work(LAPACK_COL_MAJOR, n, n, a, n, p); }
lapack_int getrf(int n, double* a, lapack_int* p) { return LAPACKE_dgetrf_work(LAPACK_COL_MAJOR, n, n, a, n, p); }
lapack_int getrs(int n, const float* a, const lapack_int* p, float* b) {
    return LAPACKE_sgetrs_work(LAPACK_COL_MAJOR, 'T', n, 1, a, n, p, b, n);
}
lapack_int getrs(int n, const double* a, const lapack_int* p, double* b) {
    return LAPACKE_dgetrs_work(LAPACK_COL_MAJOR, 'T', n, 1, a, n, p, b, n);
}

// The row-major A is the column-major A^T: factor it and solve A^T^T x = b.
template <class T>
__attribute__((noinline)) int lapackeLUSolve(Systems<T>& s) {
    lapack_int piv[16];
    for (int k = 0; k < s.count; ++k) {
        T* f = s.f.get() + s.mat() * k;
        T* x = s.x.get() + size_t(k) * s.n;
        std::memcpy(f, s.a.get() + s.mat() * k, s.mat() * sizeof(T));
        std::memcpy(x, s.b.get() + size_t(k) * s.n, s.n * sizeof(T));
        if (getrf(s.n, f, piv) != 0) return -1;
        if (getrs(s.n, f, piv, x) != 0) return -1;
    }
    return 0;
}

// Row-major lower triangle = column-major upper triangle.
__attribute__((noinline)) int lapackeCholesky(Systems<double>& s) {
    for (int k = 0; k < s.count; ++k) {
        double* f = s.f.get() + s.mat() * k;
        std::memcpy(f, s.a.get() + s.mat() * k, s.mat() * sizeof(double));
        if (LAPACKE_dpotrf_work(LAPACK_COL_MAJOR, 'U', s.n, f, s.n) != 0) return -1;
    }
    return 0;
}
#endif

// ---- result checks ----

// |A*x - b| within 64 * n * eps * (|A|*|x| + |b|) in every component.
template <class T>
std::string checkSolve(Systems<T>& s, Run<T> run) {
    std::fill(s.x.get(), s.x.get() + size_t(s.n) * s.count, std::numeric_limits<T>::quiet_NaN());
    if (const int st = run(s)) return "returned status " + std::to_string(st);
    const double eps = std::numeric_limits<T>::epsilon();
    for (int k = 0; k < s.count; ++k)
        for (int i = 0; i < s.n; ++i) {
            const T* a = s.a.get() + s.mat() * k + size_t(i) * s.n;
            const T* x = s.x.get() + size_t(k) * s.n;
            double r = -double(s.b[size_t(k) * s.n + i]), size = std::fabs(r);
            for (int j = 0; j < s.n; ++j) {
                r += double(a[j]) * double(x[j]);
                size += std::fabs(double(a[j]) * double(x[j]));
            }
            if (!(std::fabs(r) <= 64.0 * s.n * eps * size))
                return "system " + std::to_string(k) + " row " + std::to_string(i) + " has residual " +
                       std::to_string(r);
        }
    return {};
}

// The factor's L(i, j) (j <= i) within 1e-12 of a double-precision Cholesky factorisation, read
// through `at(f, i, j)` as each library stores it.
template <class At>
std::string checkFactor(Systems<double>& s, int (*run)(Systems<double>&), At at) {
    std::fill(s.f.get(), s.f.get() + s.mat() * s.count, std::numeric_limits<double>::quiet_NaN());
    if (const int st = run(s)) return "returned status " + std::to_string(st);
    const int n = s.n;
    std::vector<double> l(s.mat());
    for (int k = 0; k < s.count; ++k) {
        const double* a = s.a.get() + s.mat() * k;
        const double* f = s.f.get() + s.mat() * k;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j <= i; ++j) {
                double v = a[i * n + j];
                for (int q = 0; q < j; ++q) v -= l[i * n + q] * l[j * n + q];
                l[i * n + j] = i == j ? std::sqrt(v) : v / l[j * n + j];
                if (!(std::fabs(at(f, n, i, j) - l[i * n + j]) <= 1e-12 * std::fabs(l[i * n + j]) + 1e-14))
                    return "matrix " + std::to_string(k) + " element (" + std::to_string(i) + "," + std::to_string(j) +
                           ") differs from the factor";
            }
    }
    return {};
}

// ---- rows ----

template <class T>
void BM_solver(benchmark::State& state, const std::string& row, Systems<T>* s, Run<T> run,
               const std::function<std::string()>& check, int budget) {
    const int threads = budget >= 0 ? applyBudget(budget) : 1;
    const std::string error = checkOnce(row, check);
    if (error.empty())
        for (auto _ : state) {
            benchmark::DoNotOptimize(run(*s));
            benchmark::ClobberMemory();
        }
    if (budget >= 0) applyBudget(0);
    if (!error.empty()) {
        state.SkipWithError((row + ": " + error).c_str());
        return;
    }
    finish(state, s->count, s->mat() * sizeof(T), threads);
}

template <class T>
void solveRow(const std::string& name, int n, Run<T> run, int budget) {
    Systems<T>* s = &systems<T>(n, false);
    benchmark::RegisterBenchmark(name.c_str(), BM_solver<T>, name, s, run,
                                 std::function<std::string()>([s, run] { return checkSolve(*s, run); }), budget)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

template <class At>
void factorRow(const std::string& name, int n, int (*run)(Systems<double>&), At at, int budget) {
    Systems<double>* s = &systems<double>(n, true);
    benchmark::RegisterBenchmark(name.c_str(), BM_solver<double>, name, s, run,
                                 std::function<std::string()>([s, run, at] { return checkFactor(*s, run, at); }),
                                 budget)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

// ---- arithmetic floors ----
// Per block of 8 float or 4 double objects: F fused multiply-adds in 12 independent chains (more than
// the FMA units' latency times their throughput, so throughput alone limits them), D divisions and R
// square roots, each independent of the others, on values kept in registers; no pivot search, no
// exchange, no load or store. LU and one solve of order n: sum over j < n of (j^2 + j), plus n(n-1), plus n
// multiply-adds and n divisions; Cholesky: sum over j < n of (j(n-j) + n-j-1) multiply-adds, n roots
// and n divisions.
constexpr int luFmas(int n) { return (n - 1) * n * (n + 1) / 3 + n * (n - 1) + n; }
constexpr int choleskyFmas(int n) {
    int f = 0;
    for (int j = 0; j < n; ++j) f += j * (n - j) + n - j - 1;
    return f;
}
// One 256-bit register of T; a traits struct, so that no vector type (whose attributes a template
// argument would drop) is itself a template argument.
template <class T> struct Reg;
template <> struct Reg<float> {
    using V = __m256;
    static V set(double x) { return _mm256_set1_ps(float(x)); }
    static V fma(V a, V b, V c) { return _mm256_fmadd_ps(a, b, c); }
    static V div(V a, V b) { return _mm256_div_ps(a, b); }
    static V sqrt(V a) { return _mm256_sqrt_ps(a); }
};
template <> struct Reg<double> {
    using V = __m256d;
    static V set(double x) { return _mm256_set1_pd(x); }
    static V fma(V a, V b, V c) { return _mm256_fmadd_pd(a, b, c); }
    static V div(V a, V b) { return _mm256_div_pd(a, b); }
    static V sqrt(V a) { return _mm256_sqrt_pd(a); }
};

template <class T, int F, int D, int R>
__attribute__((noinline)) void fmaBlocks(int blocks) {
    using G = Reg<T>;
    typename G::V acc[12];
    for (int i = 0; i < 12; ++i) acc[i] = G::set(i);
    typename G::V x = G::set(1.0000001);
    const typename G::V y = G::set(0.9999999);
    for (int b = 0; b < blocks; ++b) {
        asm volatile("" : "+x"(x));  // a factor unknown to the compiler in every block
#pragma GCC unroll 128
        for (int k = 0; k < F; ++k) acc[k % 12] = G::fma(x, y, acc[k % 12]);
    }
    for (int i = 0; i < 12; ++i) asm volatile("" : : "x"(acc[i]));
}
template <class T, int F, int D, int R>
__attribute__((noinline)) void dividerBlocks(int blocks) {
    using G = Reg<T>;
    typename G::V q[4];
    for (int i = 0; i < 4; ++i) q[i] = G::set(2 + i);
    const typename G::V x = G::set(1.0000001);
    for (int b = 0; b < blocks; ++b) {
#pragma GCC unroll 8
        for (int k = 0; k < D + R; ++k) {
            typename G::V d = q[k % 4];
            asm volatile("" : "+x"(d));  // a fresh operand each time: nothing is hoisted or shared
            const typename G::V r = k < D ? G::div(x, d) : G::sqrt(d);
            asm volatile("" : : "x"(r));
        }
    }
}

// Each iteration times the multiply-adds and the divisions and roots of all blocks apart and counts
// the longer: the floor as the larger of the two units' times. (On this processor a kernel mixing
// them takes about their sum: the divider and the multiply-adds share an issue port.)
template <class T, int F, int D, int R>
void BM_floor(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    const int blocks = kCount / int(32 / sizeof(T));
    constexpr int kRounds = 16;  // calls per clock reading, so that reading the clock costs nothing
    for (auto _ : state) {
        const auto t0 = Clock::now();
        for (int r = 0; r < kRounds; ++r) fmaBlocks<T, F, D, R>(blocks);
        const auto t1 = Clock::now();
        for (int r = 0; r < kRounds; ++r) dividerBlocks<T, F, D, R>(blocks);
        const auto t2 = Clock::now();
        state.SetIterationTime(std::chrono::duration<double>(std::max(t1 - t0, t2 - t1)).count() / kRounds);
    }
    finishTraffic(state, kCount, 0, 1);
}

template <class T, int F, int D, int R>
void floorRow(const std::string& name) {
    benchmark::RegisterBenchmark(name.c_str(), BM_floor<T, F, D, R>)->UseManualTime()->Unit(benchmark::kMicrosecond);
}

template <class T, int N>
void addLU(const std::string& type) {
    const std::string c = "/" + std::to_string(N) + "x" + std::to_string(N) + "/" + std::to_string(kCount);
    solveRow<T>("BM_omkm_LUSolve_" + type + c + "/threads:1", N, omkmLUSolve<T>, 1);
    floorRow<T, luFmas(N), N, 0>("BM_floor_LUSolve_" + type + c);
#ifdef OMKM_BENCH_HAVE_EIGEN
    solveRow<T>("BM_eigen_LUSolve_" + type + c, N, eigenLUSolve<T, N>, -1);
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
    solveRow<T>("BM_lapacke_LUSolve_" + type + c, N, lapackeLUSolve<T>, -1);
#endif
}

template <int N>
void addCholesky() {
    const std::string c = "/" + std::to_string(N) + "x" + std::to_string(N) + "/" + std::to_string(kCount);
    // omkm stores 1/L(i, i) on the diagonal; Eigen's matrixLLT holds L in the lower triangle;
    // LAPACK's column-major upper triangle is the row-major lower one.
    auto omkmAt = [](const double* f, int n, int i, int j) { return i == j ? 1.0 / f[i * n + i] : f[i * n + j]; };
    auto plainAt = [](const double* f, int n, int i, int j) { return f[i * n + j]; };
    factorRow("BM_omkm_Cholesky_64f" + c + "/threads:1", N, omkmCholesky, omkmAt, 1);
    floorRow<double, choleskyFmas(N), N, N>("BM_floor_Cholesky_64f" + c);
#ifdef OMKM_BENCH_HAVE_EIGEN
    factorRow("BM_eigen_Cholesky_64f" + c, N, eigenCholesky<N>, plainAt, -1);
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
    factorRow("BM_lapacke_Cholesky_64f" + c, N, lapackeCholesky, plainAt, -1);
#endif
    (void)plainAt;
}

bool registerAll() {
    addLU<float, 4>("32f");
    addLU<float, 6>("32f");
    addLU<double, 4>("64f");
    addLU<double, 6>("64f");
    addCholesky<4>();
    addCholesky<6>();
    return true;
}

[[maybe_unused]] const bool registered = registerAll();

}  // namespace
