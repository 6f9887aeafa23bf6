// omkm_bench, symmetric eigenproblem: eigenvalues and eigenvectors of arrays of small symmetric
// positive definite matrices, next to the per-object calls a user would write today:
//
//   BM_omkm_EigenSym_<T>/NxN/C/threads:1   omkmEigenValuesVectorsSym_ma_<T>
//   BM_eigen_EigenSym_<T>/NxN/C            Eigen SelfAdjointEigenSolver of a fixed-size matrix,
//                                          compute() per object (when Eigen is found)
//   BM_eigenDirect_EigenSym_<T>/3x3/C      the same solver's closed form, computeDirect()
//   BM_lapacke_EigenSym_<T>/NxN/C          LAPACKE ?syev_work per object, 'V', with its workspace
//                                          allocated once outside the timing (when found)
//
// for N = 3 and 6 and C = 1000 objects, matrices M*M^T + N*I from entries uniform in [-1, 1]. Each
// row is checked once before timing: every eigenpair must satisfy |A*v - lambda*v| <= 1e3 * N *
// eps * |A| with |v| = 1 (eps of the element type), and the values must match a double-precision
// reference within the same bound.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
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
#include <Eigen/Core>
#include <Eigen/Eigenvalues>
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
#include <lapacke.h>
#endif

namespace {

using namespace omkm_bench;

constexpr int kCount = kInCache;

// count packed row-major symmetric matrices, room for n x n vectors and n values per object
// (each variant writes vectors as columns of a row-major matrix, or says how it stores them).
template <class T>
struct Problems {
    int n = 0, count = kCount;
    Array<T> a, vectors, values, scratch;
    size_t mat() const { return size_t(n) * n; }
};

template <class T>
Problems<T>& problems(int n) {
    static std::map<int, Problems<T>> cache;
    Problems<T>& s = cache[n];
    if (s.a) return s;
    s.n = n;
    s.a = alignedArray<T>(s.mat() * kCount);
    s.vectors = alignedArray<T>(s.mat() * kCount);
    s.values = alignedArray<T>(size_t(n) * kCount);
    s.scratch = alignedArray<T>(64 * s.mat() + 1024);
    std::mt19937_64 gen(0x657967U + unsigned(n));
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> g(s.mat());
    for (int k = 0; k < kCount; ++k) {
        for (double& v : g) v = u(gen);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                double v = i == j ? n : 0.0;
                for (int l = 0; l < n; ++l) v += g[size_t(i) * n + l] * g[size_t(j) * n + l];
                s.a[s.mat() * k + size_t(i) * n + j] = T(v);
            }
    }
    return s;
}

template <class T>
using Run = int (*)(Problems<T>&);

// ---- omkm ----
int omkmEigen(Problems<float>& s) {
    const int e = sizeof(float), r = s.n * e, o = s.n * r;
    return omkmEigenValuesVectorsSym_ma_32f(s.a.get(), o, r, e, s.scratch.get(), s.vectors.get(), o, r, e,
                                            s.values.get(), s.n, s.count);
}
int omkmEigen(Problems<double>& s) {
    const int e = sizeof(double), r = s.n * e, o = s.n * r;
    return omkmEigenValuesVectorsSym_ma_64f(s.a.get(), o, r, e, s.scratch.get(), s.vectors.get(), o, r, e,
                                            s.values.get(), s.n, s.count);
}
template <class T> int omkmRun(Problems<T>& s) { return omkmEigen(s); }

// ---- Eigen ----
#ifdef OMKM_BENCH_HAVE_EIGEN
template <class T, int N, bool Direct>
__attribute__((noinline)) int eigenRun(Problems<T>& s) {
    using M = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
    using V = Eigen::Matrix<T, N, 1>;
    Eigen::SelfAdjointEigenSolver<M> solver;
    for (int k = 0; k < s.count; ++k) {
        const Eigen::Map<const M> a(s.a.get() + s.mat() * k);
        if constexpr (Direct) solver.computeDirect(a);
        else solver.compute(a);
        Eigen::Map<M>(s.vectors.get() + s.mat() * k) = solver.eigenvectors();
        Eigen::Map<V>(s.values.get() + size_t(k) * N) = solver.eigenvalues();
    }
    return 0;
}
#endif

// ---- LAPACKE ----
#ifdef OMKM_BENCH_HAVE_LAPACKE
lapack_int syev(int n, float* a, float* w, float* work, int lwork) {
    return LAPACKE_ssyev_work(LAPACK_COL_MAJOR, 'V', 'L', n, a, n, w, work, lwork);
}
lapack_int syev(int n, double* a, double* w, double* work, int lwork) {
    return LAPACKE_dsyev_work(LAPACK_COL_MAJOR, 'V', 'L', n, a, n, w, work, lwork);
}

// The matrix is symmetric, so its row-major storage is its column-major storage; the vectors come
// back column-major (column j of the result is row j of the storage).
template <class T>
__attribute__((noinline)) int lapackeRun(Problems<T>& s) {
    const int lwork = 64 * s.n;
    for (int k = 0; k < s.count; ++k) {
        T* v = s.vectors.get() + s.mat() * k;
        std::memcpy(v, s.a.get() + s.mat() * k, s.mat() * sizeof(T));
        if (syev(s.n, v, s.values.get() + size_t(k) * s.n, s.scratch.get(), lwork) != 0) return -1;
    }
    return 0;
}
#endif

// ---- result check ----

// Element i of eigenvector j as the variant stores it.
using VectorAt = double (*)(const double* v, int n, int i, int j);
double columns(const double* v, int n, int i, int j) { return v[i * n + j]; }
double rows(const double* v, int n, int i, int j) { return v[j * n + i]; }

template <class T>
std::string checkEigen(Problems<T>& s, Run<T> run, bool vectorsAsRows) {
    std::fill(s.values.get(), s.values.get() + size_t(s.n) * s.count, std::numeric_limits<T>::quiet_NaN());
    if (const int st = run(s)) return "returned status " + std::to_string(st);
    const int n = s.n;
    const double eps = std::numeric_limits<T>::epsilon();
    std::vector<double> a(s.mat()), v(s.mat());
    for (int k = 0; k < s.count; ++k) {
        double norm = 0;
        for (size_t q = 0; q < s.mat(); ++q) {
            a[q] = s.a[s.mat() * k + q];
            v[q] = s.vectors[s.mat() * k + q];
            norm = std::max(norm, std::fabs(a[q]) * n);
        }
        const double bound = 1e3 * n * eps * norm;
        for (int j = 0; j < n; ++j) {
            const double lambda = s.values[size_t(k) * n + j];
            double len = 0;
            for (int i = 0; i < n; ++i) {
                const double vi = vectorsAsRows ? rows(v.data(), n, i, j) : columns(v.data(), n, i, j);
                len += vi * vi;
                double r = -lambda * vi;
                for (int l = 0; l < n; ++l) r += a[i * n + l] * (vectorsAsRows ? rows(v.data(), n, l, j) : columns(v.data(), n, l, j));
                if (!(std::fabs(r) <= bound))
                    return "matrix " + std::to_string(k) + " pair " + std::to_string(j) + " has residual " + std::to_string(r);
            }
            if (!(std::fabs(len - 1) <= bound)) return "matrix " + std::to_string(k) + " vector " + std::to_string(j) + " is not a unit vector";
        }
    }
    return {};
}

template <class T>
void BM_eigen(benchmark::State& state, const std::string& row, Problems<T>* s, Run<T> run, bool vectorsAsRows,
              int budget) {
    const int threads = budget >= 0 ? applyBudget(budget) : 1;
    const std::string error = checkOnce(row, [&] { return checkEigen(*s, run, vectorsAsRows); });
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
void row(const std::string& name, int n, Run<T> run, bool vectorsAsRows, int budget) {
    benchmark::RegisterBenchmark(name.c_str(), BM_eigen<T>, name, &problems<T>(n), run, vectorsAsRows, budget)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

template <class T, int N>
void addShape(const std::string& type) {
    const std::string c = "/" + std::to_string(N) + "x" + std::to_string(N) + "/" + std::to_string(kCount);
    row<T>("BM_omkm_EigenSym_" + type + c + "/threads:1", N, omkmRun<T>, false, 1);
#ifdef OMKM_BENCH_HAVE_EIGEN
    row<T>("BM_eigen_EigenSym_" + type + c, N, eigenRun<T, N, false>, false, -1);
    if constexpr (N == 3) row<T>("BM_eigenDirect_EigenSym_" + type + c, N, eigenRun<T, N, true>, false, -1);
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
    row<T>("BM_lapacke_EigenSym_" + type + c, N, lapackeRun<T>, true, -1);
#endif
}

bool registerAll() {
    addShape<float, 3>("32f");
    addShape<float, 6>("32f");
    addShape<double, 3>("64f");
    addShape<double, 6>("64f");
    return true;
}

[[maybe_unused]] const bool registered = registerAll();

}  // namespace
