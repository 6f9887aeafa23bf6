// omkm_bench, general eigenproblem: eigenvalues (and right eigenvectors) of arrays of small general
// matrices, next to the per-object calls a user would write today:
//
//   BM_omkm_EigenGenVectorsRight_64f/NxN/C/threads:1   omkmEigenValuesVectorsRight_ma_64f
//   BM_eigen_EigenGenVectorsRight_64f/NxN/C            Eigen EigenSolver of a fixed-size matrix,
//                                                      compute(A, true) per object, values and the
//                                                      pseudo-eigenvectors normalised to norm 1
//   BM_lapacke_EigenGenVectorsRight_64f/NxN/C          LAPACKE dgeev_work per object, 'N', 'V'
//   BM_omkm_EigenGenValues_32f/NxN/C/threads:1         omkmEigenValues_ma_32f
//   BM_eigen_EigenGenValues_32f/NxN/C                  EigenSolver, compute(A, false) per object
//   BM_lapacke_EigenGenValues_32f/NxN/C                LAPACKE sgeev_work per object, 'N', 'N'
//
// for N = 3, 4 and 6 and C = 1000 objects with entries uniform in [-1, 1]; such matrices often have
// complex eigenvalues. Every variant stores values as real and imaginary arrays (n per object) and
// vectors in the same column layout (a pair's vector as real and imaginary column). The LAPACKE
// rows copy each matrix transposed into a column-major work matrix (geev overwrites its input) and
// use a workspace queried and allocated once outside the timing. Each row is checked once before
// timing: pairs are conjugate and consecutive, every eigenpair satisfies |A*v - lambda*v| <= 1e3 *
// N * eps * |A|_F with |v| = 1 (eps of the element type), the values match as a multiset those of a
// long double Eigen solver (a double LAPACKE one without Eigen) within the same bound, and at least
// one matrix has a complex pair.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <type_traits>
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
// The 64f rows compute values and right vectors, the 32f rows values only.
template <class T> constexpr bool kVectors = std::is_same_v<T, double>;

// count packed row-major matrices, n x n vectors and n real and imaginary values per object, the
// omkm buffer, the LAPACKE workspace and column-major input copy, and the reference values.
template <class T>
struct Problems {
    int n = 0, count = kCount, lwork = 0;
    Array<T> a, vectors, re, im, buffer, work, colMajor;
    std::vector<std::complex<double>> ref;
    size_t mat() const { return size_t(n) * n; }
};

#ifdef OMKM_BENCH_HAVE_LAPACKE
lapack_int geev(char jobvr, int n, float* a, float* wr, float* wi, float* vr, float* work, int lwork) {
    return LAPACKE_sgeev_work(LAPACK_COL_MAJOR, 'N', jobvr, n, a, n, wr, wi, nullptr, 1, vr, n, work, lwork);
}
lapack_int geev(char jobvr, int n, double* a, double* wr, double* wi, double* vr, double* work, int lwork) {
    return LAPACKE_dgeev_work(LAPACK_COL_MAJOR, 'N', jobvr, n, a, n, wr, wi, nullptr, 1, vr, n, work, lwork);
}
#endif

template <class T>
Problems<T>& problems(int n) {
    static std::map<int, Problems<T>> cache;
    Problems<T>& s = cache[n];
    if (s.a) return s;
    s.n = n;
    s.a = alignedArray<T>(s.mat() * kCount);
    s.vectors = alignedArray<T>(s.mat() * kCount);
    s.re = alignedArray<T>(size_t(n) * kCount);
    s.im = alignedArray<T>(size_t(n) * kCount);
    s.colMajor = alignedArray<T>(s.mat());
    int bytes = 0;
    if constexpr (kVectors<T>) omkmEigenValuesVectorsGetBufSize_64f(n, &bytes);
    else omkmEigenValuesGetBufSize_32f(n, &bytes);
    s.buffer = alignedArray<T>((size_t(bytes) + sizeof(T) - 1) / sizeof(T) + 1);
    std::mt19937_64 gen(0x67656eU + unsigned(n));
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (size_t q = 0; q < s.mat() * kCount; ++q) s.a[q] = T(u(gen));
    s.lwork = 8 * n;
#ifdef OMKM_BENCH_HAVE_LAPACKE
    T query = 0, vr[64], wr[8], wi[8];
    if (geev(kVectors<T> ? 'V' : 'N', n, s.colMajor.get(), wr, wi, vr, &query, -1) == 0)
        s.lwork = std::max(s.lwork, int(query));
#endif
    s.work = alignedArray<T>(size_t(s.lwork));
    // Reference values from the exact entries the rows see.
    for (int k = 0; k < kCount; ++k) {
        const T* a = s.a.get() + s.mat() * k;
#if defined(OMKM_BENCH_HAVE_EIGEN)
        Eigen::Matrix<long double, Eigen::Dynamic, Eigen::Dynamic> m(n, n);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) m(i, j) = a[i * n + j];
        Eigen::EigenSolver<decltype(m)> es(m, false);
        for (int j = 0; j < n; ++j) s.ref.emplace_back(double(es.eigenvalues()(j).real()), double(es.eigenvalues()(j).imag()));
#elif defined(OMKM_BENCH_HAVE_LAPACKE)
        std::vector<double> m(s.mat()), wr(n), wi(n), w(8 * n);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) m[j * n + i] = a[i * n + j];
        if (geev('N', n, m.data(), wr.data(), wi.data(), nullptr, w.data(), 8 * n) != 0) { s.ref.clear(); break; }
        for (int j = 0; j < n; ++j) s.ref.emplace_back(wr[j], wi[j]);
#else
        (void)a;
#endif
    }
    return s;
}

template <class T>
using Run = int (*)(Problems<T>&);

// ---- omkm ----
int omkmRun(Problems<double>& s) {
    const int e = sizeof(double), r = s.n * e, o = s.n * r;
    return omkmEigenValuesVectorsRight_ma_64f(s.a.get(), o, r, e, s.vectors.get(), o, r, e, s.re.get(), s.im.get(),
                                              s.n, s.count, s.buffer.get());
}
int omkmRun(Problems<float>& s) {
    const int e = sizeof(float), r = s.n * e, o = s.n * r;
    return omkmEigenValues_ma_32f(s.a.get(), o, r, e, s.re.get(), s.im.get(), s.n, s.count, s.buffer.get());
}
template <class T> int omkmRow(Problems<T>& s) { return omkmRun(s); }

// ---- Eigen ----
#ifdef OMKM_BENCH_HAVE_EIGEN
template <class T, int N>
__attribute__((noinline)) int eigenRun(Problems<T>& s) {
    using RowMajor = Eigen::Matrix<T, N, N, Eigen::RowMajor>;
    Eigen::EigenSolver<Eigen::Matrix<T, N, N>> solver;
    for (int k = 0; k < s.count; ++k) {
        solver.compute(Eigen::Map<const RowMajor>(s.a.get() + s.mat() * k), kVectors<T>);
        if (solver.info() != Eigen::Success) return -1;
        const auto& values = solver.eigenvalues();
        for (int j = 0; j < N; ++j) {
            s.re[size_t(k) * N + j] = values(j).real();
            s.im[size_t(k) * N + j] = values(j).imag();
        }
        if constexpr (kVectors<T>) {
            Eigen::Map<RowMajor> v(s.vectors.get() + s.mat() * k);
            v = solver.pseudoEigenvectors();
            for (int j = 0; j < N; ++j)
                if (values(j).imag() == T(0)) v.col(j).normalize();
                else if (j + 1 < N) {
                    const T scale = T(1) / std::sqrt(v.col(j).squaredNorm() + v.col(j + 1).squaredNorm());
                    v.col(j) *= scale;
                    v.col(++j) *= scale;
                }
        }
    }
    return 0;
}
#endif

// ---- LAPACKE ----
#ifdef OMKM_BENCH_HAVE_LAPACKE
// Vectors come back column-major: vector j is row j of the object's row-major storage.
template <class T>
__attribute__((noinline)) int lapackeRun(Problems<T>& s) {
    const int n = s.n;
    T* m = s.colMajor.get();
    for (int k = 0; k < s.count; ++k) {
        const T* a = s.a.get() + s.mat() * k;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) m[j * n + i] = a[i * n + j];
        if (geev(kVectors<T> ? 'V' : 'N', n, m, s.re.get() + size_t(k) * n, s.im.get() + size_t(k) * n,
                 kVectors<T> ? s.vectors.get() + s.mat() * k : nullptr, s.work.get(), s.lwork) != 0)
            return -1;
    }
    return 0;
}
#endif

// ---- result check ----
template <class T>
std::string checkRow(Problems<T>& s, Run<T> run, bool vectorsAsRows) {
    const T nan = std::numeric_limits<T>::quiet_NaN();
    std::fill(s.re.get(), s.re.get() + size_t(s.n) * s.count, nan);
    std::fill(s.im.get(), s.im.get() + size_t(s.n) * s.count, nan);
    std::fill(s.vectors.get(), s.vectors.get() + s.mat() * s.count, nan);
    if (const int st = run(s)) return "returned status " + std::to_string(st);
    const int n = s.n;
    const double eps = std::numeric_limits<T>::epsilon();
    int withPairs = 0;
    std::vector<std::complex<double>> got(n);
    std::vector<int> perm(n);
    for (int k = 0; k < s.count; ++k) {
        const T* a = s.a.get() + s.mat() * k;
        const T* v = s.vectors.get() + s.mat() * k;
        const auto vec = [&](int i, int j) { return double(vectorsAsRows ? v[j * n + i] : v[i * n + j]); };
        double norm = 0;
        for (size_t q = 0; q < s.mat(); ++q) norm += double(a[q]) * a[q];
        const double bound = 1e3 * n * eps * std::sqrt(norm);
        const std::string at = "matrix " + std::to_string(k) + " value ";
        bool pair = false;
        for (int j = 0; j < n; ++j) {
            const double lr = s.re[size_t(k) * n + j], li = s.im[size_t(k) * n + j];
            got[j] = {lr, li};
            const bool complex = li != 0;
            if (complex) {
                if (!(li > 0 && j + 1 < n && std::fabs(s.re[size_t(k) * n + j + 1] - lr) <= bound &&
                      std::fabs(s.im[size_t(k) * n + j + 1] + li) <= bound))
                    return at + std::to_string(j) + " does not start a conjugate pair";
                got[j + 1] = {double(s.re[size_t(k) * n + j + 1]), double(s.im[size_t(k) * n + j + 1])};
                pair = true;
            }
            if (kVectors<T>) {  // (A - l) (x + i y) with l = lr + i li, y = 0 for a real value
                double res = 0, len = 0;
                for (int i = 0; i < n; ++i) {
                    const double xi = vec(i, j), yi = complex ? vec(i, j + 1) : 0.0;
                    double rr = -lr * xi + li * yi, ri = -lr * yi - li * xi;
                    for (int l = 0; l < n; ++l) {
                        rr += double(a[i * n + l]) * vec(l, j);
                        ri += complex ? double(a[i * n + l]) * vec(l, j + 1) : 0.0;
                    }
                    res += rr * rr + ri * ri;
                    len += xi * xi + yi * yi;
                }
                if (!(std::sqrt(res) <= bound)) return at + std::to_string(j) + " has residual " + std::to_string(std::sqrt(res));
                if (!(std::fabs(std::sqrt(len) - 1) <= 1e3 * n * eps)) return at + std::to_string(j) + ": vector norm is not 1";
            }
            j += complex;
        }
        withPairs += pair;
        if (s.ref.empty()) continue;
        std::iota(perm.begin(), perm.end(), 0);
        bool match = false;
        do {
            match = true;
            for (int j = 0; j < n && match; ++j) match = std::abs(got[j] - s.ref[size_t(k) * n + perm[j]]) <= bound;
        } while (!match && std::next_permutation(perm.begin(), perm.end()));
        if (!match) return "matrix " + std::to_string(k) + ": values differ from the reference by more than " + std::to_string(bound);
    }
    if (withPairs == 0) return "no matrix has a complex pair";
    return {};
}

template <class T>
void BM_eigenGen(benchmark::State& state, const std::string& row, Problems<T>* s, Run<T> run, bool vectorsAsRows,
                 int budget) {
    const int threads = budget >= 0 ? applyBudget(budget) : 1;
    const std::string error = checkOnce(row, [&] { return checkRow(*s, run, vectorsAsRows); });
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
    // Reads the matrix, writes 2n values and, with vectors, n x n vector elements.
    finishTraffic(state, s->count, (s->mat() * (kVectors<T> ? 2 : 1) + 2 * s->n) * sizeof(T), threads);
}

template <class T>
void row(const std::string& name, int n, Run<T> run, bool vectorsAsRows, int budget) {
    benchmark::RegisterBenchmark(name.c_str(), BM_eigenGen<T>, name, &problems<T>(n), run, vectorsAsRows, budget)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

template <class T, int N>
void addShape() {
    const std::string base = kVectors<T> ? "EigenGenVectorsRight_64f" : "EigenGenValues_32f";
    const std::string c = "/" + std::to_string(N) + "x" + std::to_string(N) + "/" + std::to_string(kCount);
    row<T>("BM_omkm_" + base + c + "/threads:1", N, omkmRow<T>, false, 1);
#ifdef OMKM_BENCH_HAVE_EIGEN
    row<T>("BM_eigen_" + base + c, N, eigenRun<T, N>, false, -1);
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
    row<T>("BM_lapacke_" + base + c, N, lapackeRun<T>, true, -1);
#endif
}

bool registerAll() {
    addShape<double, 3>(), addShape<double, 4>(), addShape<double, 6>();
    addShape<float, 3>(), addShape<float, 4>(), addShape<float, 6>();
    return true;
}

[[maybe_unused]] const bool registered = registerAll();

}  // namespace
