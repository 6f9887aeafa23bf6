// omkm_bench, determinants, inverses and QR on arrays of small matrices, next to what a user would
// call per object today:
//
//   BM_<who>_Invert4_32f/C      4x4 float inverses: omkm (omkmInvert_m4_32f per object, and
//                               omkmInvert_ma_32f on the packed array), glm inverse(mat4) (plain,
//                               and with its SIMD intrinsics), Eigen Matrix4f::inverse(), LAPACKE
//                               sgetrf + sgetri
//   BM_<who>_Det4_32f/C         4x4 float determinants: omkmDet_ma_32f, Eigen determinant()
//   BM_<who>_QRSolve_64f/HxW/C  omkmQRDecomp_ma + omkmQRBackSubst_mava, Eigen HouseholderQR and
//                               solve, LAPACKE dgeqrf + dormqr + dtrtrs; H x W = 4x4 and 6x4
//
// C = 1000 objects, entries uniform in [-1, 1] plus 2 on the diagonal (well conditioned). Every row
// is checked once before timing against a double-precision computation and reports time_per_obj.
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
#include <Eigen/LU>
#include <Eigen/QR>
#endif
#ifdef OMKM_BENCH_HAVE_GLM
// glm's SIMD functions (glm_mat4_inverse) are compiled in only with its intrinsics enabled.
#define GLM_FORCE_INTRINSICS
#include <glm/glm.hpp>
#include <glm/gtc/matrix_inverse.hpp>
#include <glm/simd/matrix.h>
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
#include <lapacke.h>
#endif

namespace {

using namespace omkm_bench;

constexpr int kCount = kInCache;

// count packed row-major h x w matrices, right-hand sides of h, results of h x w (or w), scratch.
template <class T>
struct Set {
    int h = 0, w = 0, count = kCount;
    Array<T> a, out, b, x, scratch;
    size_t mat() const { return size_t(h) * w; }
};

template <class T>
Set<T>& set(int h, int w) {
    static std::map<std::pair<int, int>, Set<T>> cache;
    Set<T>& s = cache[{h, w}];
    if (s.a) return s;
    s.h = h, s.w = w;
    s.a = alignedArray<T>(s.mat() * kCount);
    s.out = alignedArray<T>(s.mat() * kCount);
    s.b = alignedArray<T>(size_t(h) * kCount);
    s.x = alignedArray<T>(size_t(h) * kCount);
    s.scratch = alignedArray<T>(4096);
    std::mt19937_64 gen(0x647169U + unsigned(h * 8 + w));
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int k = 0; k < kCount; ++k) {
        for (int i = 0; i < h; ++i)
            for (int j = 0; j < w; ++j) s.a[s.mat() * k + size_t(i) * w + j] = T(u(gen) + (i == j ? 2.0 : 0.0));
        for (int i = 0; i < h; ++i) s.b[size_t(k) * h + i] = T(u(gen));
    }
    return s;
}

template <class T>
using Run = int (*)(Set<T>&);

// ---- 4x4 float inverse ----
int omkmInvert4(Set<float>& s) {
    int st = 0;
    for (int k = 0; k < s.count; ++k) st |= omkmInvert_m4_32f(s.a.get() + 16 * k, nullptr, s.out.get() + 16 * k);
    return st;
}
int omkmInvertArray(Set<float>& s) {
    return omkmInvert_ma_32f(s.a.get(), 64, 16, 4, s.scratch.get(), s.out.get(), 64, 16, 4, 4, s.count);
}
#ifdef OMKM_BENCH_HAVE_GLM
// glm is column-major; the inverse of the transpose is the transpose of the inverse, so reading
// and writing the row-major storage as glm matrices gives the row-major inverse.
template <bool Simd>
__attribute__((noinline)) int glmInvert(Set<float>& s) {
    for (int k = 0; k < s.count; ++k) {
        glm::mat4 m;
        std::memcpy(static_cast<void*>(&m), s.a.get() + 16 * k, sizeof m);
        glm::mat4 r;
        if constexpr (Simd) {
            glm_vec4 in[4], out[4];
            std::memcpy(in, &m, sizeof in);
            glm_mat4_inverse(in, out);
            std::memcpy(static_cast<void*>(&r), out, sizeof out);
        } else {
            r = glm::inverse(m);
        }
        std::memcpy(s.out.get() + 16 * k, &r, sizeof r);
    }
    return 0;
}
#endif
#ifdef OMKM_BENCH_HAVE_EIGEN
__attribute__((noinline)) int eigenInvert(Set<float>& s) {
    using M = Eigen::Matrix<float, 4, 4, Eigen::RowMajor>;
    for (int k = 0; k < s.count; ++k) Eigen::Map<M>(s.out.get() + 16 * k) = Eigen::Map<const M>(s.a.get() + 16 * k).inverse();
    return 0;
}
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
__attribute__((noinline)) int lapackeInvert(Set<float>& s) {
    lapack_int piv[4];
    float work[64];
    for (int k = 0; k < s.count; ++k) {
        float* r = s.out.get() + 16 * k;
        std::memcpy(r, s.a.get() + 16 * k, 16 * sizeof(float));
        if (LAPACKE_sgetrf_work(LAPACK_COL_MAJOR, 4, 4, r, 4, piv) != 0) return -1;
        if (LAPACKE_sgetri_work(LAPACK_COL_MAJOR, 4, r, 4, piv, work, 64) != 0) return -1;
    }
    return 0;
}
#endif

std::string checkInverse(Set<float>& s, Run<float> run) {
    std::fill(s.out.get(), s.out.get() + s.mat() * s.count, std::numeric_limits<float>::quiet_NaN());
    if (const int st = run(s)) return "returned status " + std::to_string(st);
    for (int k = 0; k < s.count; ++k)
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) {
                double r = i == j ? -1.0 : 0.0;
                for (int l = 0; l < 4; ++l) r += double(s.a[16 * k + 4 * i + l]) * s.out[16 * k + 4 * l + j];
                if (!(std::fabs(r) <= 1e-4)) return "matrix " + std::to_string(k) + " A*inv differs from I by " + std::to_string(r);
            }
    return {};
}

// ---- 4x4 float determinant ----
int omkmDet(Set<float>& s) { return omkmDet_ma_32f(s.a.get(), 64, 16, 4, 4, s.scratch.get(), s.out.get(), s.count); }
#ifdef OMKM_BENCH_HAVE_EIGEN
__attribute__((noinline)) int eigenDet(Set<float>& s) {
    using M = Eigen::Matrix<float, 4, 4, Eigen::RowMajor>;
    for (int k = 0; k < s.count; ++k) s.out[k] = Eigen::Map<const M>(s.a.get() + 16 * k).determinant();
    return 0;
}
#endif

std::string checkDet(Set<float>& s, Run<float> run) {
    std::fill(s.out.get(), s.out.get() + s.count, std::numeric_limits<float>::quiet_NaN());
    if (const int st = run(s)) return "returned status " + std::to_string(st);
    for (int k = 0; k < s.count; ++k) {
        double m[16];
        for (int q = 0; q < 16; ++q) m[q] = s.a[16 * k + q];
        double d = 1;
        for (int c = 0; c < 4; ++c) {
            int p = c;
            for (int i = c + 1; i < 4; ++i)
                if (std::fabs(m[4 * i + c]) > std::fabs(m[4 * p + c])) p = i;
            if (p != c) {
                for (int j = 0; j < 4; ++j) std::swap(m[4 * c + j], m[4 * p + j]);
                d = -d;
            }
            d *= m[4 * c + c];
            for (int i = c + 1; i < 4; ++i) {
                const double l = m[4 * i + c] / m[4 * c + c];
                for (int j = c; j < 4; ++j) m[4 * i + j] -= l * m[4 * c + j];
            }
        }
        if (!(std::fabs(s.out[k] - d) <= 1e-5 * (1 + std::fabs(d)))) return "matrix " + std::to_string(k) + " determinant differs";
    }
    return {};
}

// ---- QR factorisation and solve, doubles ----
int omkmQRSolve(Set<double>& s) {
    const int e = 8, r = s.w * e, o = s.h * r;
    if (int st = omkmQRDecomp_ma_64f(s.a.get(), o, r, e, s.scratch.get(), s.out.get(), o, r, e, s.w, s.h, s.count)) return st;
    return omkmQRBackSubst_mava_64f(s.out.get(), o, r, e, s.scratch.get(), s.b.get(), s.h * e, e, s.x.get(), s.h * e, e,
                                    s.w, s.h, s.count);
}
#ifdef OMKM_BENCH_HAVE_EIGEN
template <int H, int W>
__attribute__((noinline)) int eigenQRSolve(Set<double>& s) {
    using M = Eigen::Matrix<double, H, W, Eigen::RowMajor>;
    using B = Eigen::Matrix<double, H, 1>;
    using X = Eigen::Matrix<double, W, 1>;
    Eigen::HouseholderQR<M> qr;
    for (int k = 0; k < s.count; ++k) {
        qr.compute(Eigen::Map<const M>(s.a.get() + s.mat() * k));
        Eigen::Map<X>(s.x.get() + size_t(k) * H) = qr.solve(Eigen::Map<const B>(s.b.get() + size_t(k) * H));
    }
    return 0;
}
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
// The row-major A is stored into a column-major copy; dgeqrf, then Q^T*b by dormqr and R*x = Q^T*b
// by dtrtrs.
__attribute__((noinline)) int lapackeQRSolve(Set<double>& s) {
    const int h = s.h, w = s.w;
    double tau[8], work[256], f[64], y[8];
    for (int k = 0; k < s.count; ++k) {
        const double* a = s.a.get() + s.mat() * k;
        for (int i = 0; i < h; ++i)
            for (int j = 0; j < w; ++j) f[j * h + i] = a[i * w + j];
        std::memcpy(y, s.b.get() + size_t(k) * h, h * sizeof(double));
        if (LAPACKE_dgeqrf_work(LAPACK_COL_MAJOR, h, w, f, h, tau, work, 256) != 0) return -1;
        if (LAPACKE_dormqr_work(LAPACK_COL_MAJOR, 'L', 'T', h, 1, w, f, h, tau, y, h, work, 256) != 0) return -1;
        if (LAPACKE_dtrtrs_work(LAPACK_COL_MAJOR, 'U', 'N', 'N', w, 1, f, h, y, h) != 0) return -1;
        std::memcpy(s.x.get() + size_t(k) * h, y, w * sizeof(double));
    }
    return 0;
}
#endif

// The normal equations A^T*(A*x - b) = 0 within 1e-10 per component.
std::string checkQR(Set<double>& s, Run<double> run) {
    std::fill(s.x.get(), s.x.get() + size_t(s.h) * s.count, std::numeric_limits<double>::quiet_NaN());
    if (const int st = run(s)) return "returned status " + std::to_string(st);
    for (int k = 0; k < s.count; ++k) {
        const double* a = s.a.get() + s.mat() * k;
        const double* x = s.x.get() + size_t(k) * s.h;
        for (int j = 0; j < s.w; ++j) {
            double g = 0;
            for (int i = 0; i < s.h; ++i) {
                double r = -s.b[size_t(k) * s.h + i];
                for (int l = 0; l < s.w; ++l) r += a[i * s.w + l] * x[l];
                g += a[i * s.w + j] * r;
            }
            if (!(std::fabs(g) <= 1e-10)) return "system " + std::to_string(k) + " is not solved";
        }
    }
    return {};
}

// ---- rows ----
template <class T>
void BM_row(benchmark::State& state, const std::string& row, Set<T>* s, Run<T> run,
            std::function<std::string()> check, int budget) {
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
void row(const std::string& name, Set<T>* s, Run<T> run, std::string (*check)(Set<T>&, Run<T>), int budget) {
    benchmark::RegisterBenchmark(name.c_str(), BM_row<T>, name, s, run,
                                 std::function<std::string()>([s, run, check] { return check(*s, run); }), budget)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

bool registerAll() {
    const std::string c = "/" + std::to_string(kCount);
    Set<float>* m4 = &set<float>(4, 4);
    row<float>("BM_omkm_Invert4_32f/m4" + c, m4, omkmInvert4, checkInverse, -1);
    row<float>("BM_omkm_Invert4_32f/ma" + c + "/threads:1", m4, omkmInvertArray, checkInverse, 1);
#ifdef OMKM_BENCH_HAVE_GLM
    row<float>("BM_glm_Invert4_32f" + c, m4, glmInvert<false>, checkInverse, -1);
    row<float>("BM_glmSimd_Invert4_32f" + c, m4, glmInvert<true>, checkInverse, -1);
#endif
#ifdef OMKM_BENCH_HAVE_EIGEN
    row<float>("BM_eigen_Invert4_32f" + c, m4, eigenInvert, checkInverse, -1);
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
    row<float>("BM_lapacke_Invert4_32f" + c, m4, lapackeInvert, checkInverse, -1);
#endif
    row<float>("BM_omkm_Det4_32f/ma" + c + "/threads:1", m4, omkmDet, checkDet, 1);
#ifdef OMKM_BENCH_HAVE_EIGEN
    row<float>("BM_eigen_Det4_32f" + c, m4, eigenDet, checkDet, -1);
#endif
    for (auto [h, w] : {std::pair{4, 4}, std::pair{6, 4}}) {
        Set<double>* q = &set<double>(h, w);
        const std::string shape = "/" + std::to_string(h) + "x" + std::to_string(w) + c;
        row<double>("BM_omkm_QRSolve_64f" + shape + "/threads:1", q, omkmQRSolve, checkQR, 1);
#ifdef OMKM_BENCH_HAVE_EIGEN
        row<double>("BM_eigen_QRSolve_64f" + shape, q, h == 4 ? eigenQRSolve<4, 4> : eigenQRSolve<6, 4>, checkQR, -1);
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
        row<double>("BM_lapacke_QRSolve_64f" + shape, q, lapackeQRSolve, checkQR, -1);
#endif
    }
    return true;
}

[[maybe_unused]] const bool registered = registerAll();

}  // namespace
