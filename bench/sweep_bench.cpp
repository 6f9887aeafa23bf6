// omkm_bench, count sweeps: time per object of five workloads as the number of objects grows from
// one to a million, the data of the plots in docs/benchmarks.md:
//
//   BM_<who>_AddSweep_mama_32f/4x4/C         d = a + b on 4x4 float matrices
//                                            (omkmAdd_mama_32f; plain loop, Eigen, glm)
//   BM_<who>_MulSweep_mama_32f/4x4/C         d = a * b on 4x4 float matrices
//                                            (omkmMul_mama_32f; plain loop, Eigen, glm, libxsmm)
//   BM_<who>_LUSolveSweep_64f/3x3/C          LU factorisation of A and one solve of A*x = b, 3x3
//                                            double (omkmLUDecomp_ma_64f + omkmLUBackSubst_mava_64f;
//                                            plain row-pivoting loop, Eigen lu() per matrix,
//                                            LAPACKE dgetrf + dgetrs)
//   BM_<who>_TransformSweep_m4v3a_32f/C      points (x, y, z, 1) * M, 4 floats out
//                                            (omkmAffineTransform_m4v3a_32f; plain loop, glm mat4 *
//                                            vec4, Eigen Affine3f with 3 floats out)
//   BM_<who>_EigenSymSweep_64f/3x3/C         eigenvalues and eigenvectors of 3x3 symmetric double
//                                            matrices (omkmEigenValuesVectorsSym_ma_64f; Eigen
//                                            SelfAdjointEigenSolver compute() and computeDirect(),
//                                            LAPACKE dsyev)
//
// for C = 1, 10, 100, 1000, 10000, 100000 and 1000000 objects. The library runs twice per count:
// with a budget of one thread (/threads:1) and with its default budget (/threads:default, the
// OpenMP runtime's maximum); below its work limits an array call runs on the calling thread under
// either budget. Peers run on the calling thread. Layouts and peers are those of the fixed-count
// rows (add_bench, mul_bench, solver_bench, graphics_bench, eigen_bench), with two differences:
// the operands are this file's own, and the plain loops fix the order at compile time (the
// strongest form of such a loop) where add_bench and mul_bench pass it and the strides as
// arguments.
//
// Each row is checked once, on all C objects, before its first timing (destinations filled with
// NaN first): Add bit for bit against a + b, Mul within 2 * N * eps * sum |a_il * b_lj| of a
// double-precision product, the LU solve by the residual of A*x = b, the transform against a
// double-precision product, and the eigenproblem by the residual of every pair, unit length and
// mutual orthogonality of the vectors. A row that fails is reported as an error and not timed.
// Each row reports time_per_obj (wall seconds per object), bytes_per_second and threads.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
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
#include <Eigen/Geometry>
#include <Eigen/LU>
#endif
#ifdef OMKM_BENCH_HAVE_GLM
#include <glm/glm.hpp>
#endif
#ifdef OMKM_BENCH_HAVE_XSMM
#include <libxsmm.h>
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
#include <lapacke.h>
#endif

namespace {

using namespace omkm_bench;

constexpr int kCounts[] = {1, 10, 100, 1000, 10000, 100000, 1000000};

// Minimum time of one repetition (set per row, so --benchmark_min_time does not change it): a
// call on a million objects takes milliseconds to seconds, so the large counts run a few
// iterations and the whole sweep stays within a few minutes.
double minTime(int count) { return count >= 100000 ? 0.1 : 0.05; }

// Data of one workload at one count, made on first use and shared by every row of that count.
// Every set comes from a fixed seed, so a short set is the start of the long one.
template <class D>
D& dataFor(int count) {
    static std::map<int, D> cache;
    D& d = cache[count];
    if (d.count != count) d.make(count);
    return d;
}

// ---- 4x4 float matrices: Add and Mul ----

constexpr int kOrder = 4;
constexpr int kElems = kOrder * kOrder;
constexpr int kElemStride = sizeof(float), kRowStride = kOrder * kElemStride, kObjStride = kOrder * kRowStride;

struct Mats {
    int count = 0;
    Array<float> a, b, d;
    void make(int n) {
        const size_t e = size_t(n) * kElems;
        a = alignedArray<float>(e);
        b = alignedArray<float>(e);
        d = alignedArray<float>(e);
        std::mt19937_64 gen(0x73774D41U);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        for (size_t i = 0; i < e; ++i) a[i] = float(u(gen)), b[i] = float(u(gen)), d[i] = 0.0f;
        count = n;
    }
};

int omkmAdd(Mats& m) {
    return omkmAdd_mama_32f(m.a.get(), kObjStride, kRowStride, kElemStride, m.b.get(), kObjStride, kRowStride,
                            kElemStride, m.d.get(), kObjStride, kRowStride, kElemStride, kOrder, kOrder, m.count);
}

int omkmMul(Mats& m) {
    return omkmMul_mama_32f(m.a.get(), kObjStride, kRowStride, kElemStride, kOrder, kOrder, m.b.get(), kObjStride,
                            kRowStride, kElemStride, kOrder, kOrder, m.d.get(), kObjStride, kRowStride, kElemStride,
                            m.count);
}

// The loops a user writes for packed 4x4 matrices, with the order fixed at compile time so the
// compiler can unroll and vectorise them.
__attribute__((noinline)) int plainAdd(Mats& m) {
    const float* a = m.a.get();
    const float* b = m.b.get();
    float* d = m.d.get();
    for (int k = 0; k < m.count; ++k)
        for (int q = 0; q < kElems; ++q) d[size_t(k) * kElems + q] = a[size_t(k) * kElems + q] + b[size_t(k) * kElems + q];
    return 0;
}

__attribute__((noinline)) int plainMul(Mats& m) {
    for (int k = 0; k < m.count; ++k) {
        const float* a = m.a.get() + size_t(k) * kElems;
        const float* b = m.b.get() + size_t(k) * kElems;
        float* d = m.d.get() + size_t(k) * kElems;
        for (int i = 0; i < kOrder; ++i)
            for (int j = 0; j < kOrder; ++j) {
                float s = 0.0f;
                for (int l = 0; l < kOrder; ++l) s += a[i * kOrder + l] * b[l * kOrder + j];
                d[i * kOrder + j] = s;
            }
    }
    return 0;
}

#ifdef OMKM_BENCH_HAVE_EIGEN
using EigenMat4 = Eigen::Matrix<float, 4, 4, Eigen::RowMajor>;
__attribute__((noinline)) int eigenAdd(Mats& m) {
    for (int k = 0; k < m.count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * kElems;
        Eigen::Map<EigenMat4>(m.d.get() + o) = Eigen::Map<const EigenMat4>(m.a.get() + o) + Eigen::Map<const EigenMat4>(m.b.get() + o);
    }
    return 0;
}
__attribute__((noinline)) int eigenMul(Mats& m) {
    for (int k = 0; k < m.count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * kElems;
        Eigen::Map<EigenMat4>(m.d.get() + o).noalias() =
            Eigen::Map<const EigenMat4>(m.a.get() + o) * Eigen::Map<const EigenMat4>(m.b.get() + o);
    }
    return 0;
}
#endif

#ifdef OMKM_BENCH_HAVE_GLM
// glm is column-major: a row-major matrix read as a glm matrix is its transpose, so the row-major
// a * b is the glm product b * a (the sum is the same either way). Loads and stores go through
// memcpy.
__attribute__((noinline)) int glmAdd(Mats& m) {
    for (int k = 0; k < m.count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * kElems;
        glm::mat4 x, y;
        std::memcpy(static_cast<void*>(&x), m.a.get() + o, sizeof x);
        std::memcpy(static_cast<void*>(&y), m.b.get() + o, sizeof y);
        const glm::mat4 z = x + y;
        std::memcpy(m.d.get() + o, &z, sizeof z);
    }
    return 0;
}
__attribute__((noinline)) int glmMul(Mats& m) {
    for (int k = 0; k < m.count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * kElems;
        glm::mat4 x, y;
        std::memcpy(static_cast<void*>(&x), m.a.get() + o, sizeof x);
        std::memcpy(static_cast<void*>(&y), m.b.get() + o, sizeof y);
        const glm::mat4 z = y * x;
        std::memcpy(m.d.get() + o, &z, sizeof z);
    }
    return 0;
}
#endif

#ifdef OMKM_BENCH_HAVE_XSMM
// A libxsmm JIT 4x4x4 kernel called per object; column-major, so the row-major C = A * B is
// C^T = B^T * A^T and B goes first. The kernel is dispatched on the first call, the result check.
__attribute__((noinline)) int xsmmMul(Mats& m) {
    static const libxsmm_smmfunction kernel = [] {
        const float alpha = 1.0f, beta = 0.0f;
        const int flags = LIBXSMM_GEMM_FLAG_NONE, prefetch = LIBXSMM_GEMM_PREFETCH_NONE;
        return libxsmm_smmdispatch(kOrder, kOrder, kOrder, nullptr, nullptr, nullptr, &alpha, &beta, &flags,
                                   &prefetch);
    }();
    if (kernel == nullptr) return -1;
    for (int k = 0; k < m.count; ++k) {
        const ptrdiff_t o = ptrdiff_t(k) * kElems;
        kernel(m.b.get() + o, m.a.get() + o, m.d.get() + o);
    }
    return 0;
}
#endif

std::string checkAdd(Mats& m, int (*run)(Mats&)) {
    const size_t e = size_t(m.count) * kElems;
    std::fill(m.d.get(), m.d.get() + e, std::numeric_limits<float>::quiet_NaN());
    if (const int st = run(m)) return "returned status " + std::to_string(st);
    for (size_t i = 0; i < e; ++i) {
        const float want = m.a[i] + m.b[i];
        if (std::memcmp(&m.d[i], &want, sizeof want) != 0) return "element " + std::to_string(i) + " differs from a + b";
    }
    return {};
}

std::string checkMul(Mats& m, int (*run)(Mats&)) {
    std::fill(m.d.get(), m.d.get() + size_t(m.count) * kElems, std::numeric_limits<float>::quiet_NaN());
    if (const int st = run(m)) return "returned status " + std::to_string(st);
    const double eps = std::numeric_limits<float>::epsilon();
    for (int k = 0; k < m.count; ++k) {
        const float* a = m.a.get() + size_t(k) * kElems;
        const float* b = m.b.get() + size_t(k) * kElems;
        const float* d = m.d.get() + size_t(k) * kElems;
        for (int i = 0; i < kOrder; ++i)
            for (int j = 0; j < kOrder; ++j) {
                double want = 0.0, size = 0.0;
                for (int l = 0; l < kOrder; ++l) {
                    want += double(a[i * kOrder + l]) * double(b[l * kOrder + j]);
                    size += std::fabs(double(a[i * kOrder + l]) * double(b[l * kOrder + j]));
                }
                if (!(std::fabs(double(d[i * kOrder + j]) - want) <= 2.0 * kOrder * eps * size))
                    return "object " + std::to_string(k) + " element (" + std::to_string(i) + "," + std::to_string(j) +
                           ") differs from the product";
            }
    }
    return {};
}

// ---- 3x3 double LU solve ----

constexpr int kLU = 3;

struct Systems {
    int count = 0;
    Array<double> a, f, b, x;
    std::vector<int> p;
    void make(int n) {
        const size_t m = size_t(n) * kLU * kLU;
        a = alignedArray<double>(m);
        f = alignedArray<double>(m);
        b = alignedArray<double>(size_t(n) * kLU);
        x = alignedArray<double>(size_t(n) * kLU);
        p.assign(size_t(n) * kLU, 0);
        // Entries uniform in [-1, 1], so the pivot search exchanges rows.
        std::mt19937_64 gen(0x6C753364U);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        for (size_t i = 0; i < m; ++i) a[i] = u(gen), f[i] = 0.0;
        for (size_t i = 0; i < size_t(n) * kLU; ++i) b[i] = u(gen), x[i] = 0.0;
        count = n;
    }
};

int omkmLUSolve(Systems& s) {
    const int e = sizeof(double), r = kLU * e, o = kLU * r;
    if (const int st = omkmLUDecomp_ma_64f(s.a.get(), o, r, e, s.p.data(), s.f.get(), o, r, e, kLU, s.count))
        return st;
    return omkmLUBackSubst_mava_64f(s.f.get(), o, r, e, s.p.data(), s.b.get(), r, e, s.x.get(), r, e, kLU, s.count);
}

// Gaussian elimination with row exchanges on a copy of each matrix, then back substitution: the
// loop a user writes without a library, for the order fixed at compile time.
template <int n>
__attribute__((noinline)) int plainLUSolveLoop(const double* a, const double* b, double* f, double* x, int count) {
    constexpr size_t mat = size_t(n) * n;
    for (int k = 0; k < count; ++k) {
        double* m = f + mat * k;
        double* y = x + size_t(n) * k;
        std::memcpy(m, a + mat * k, mat * sizeof(double));
        std::memcpy(y, b + size_t(n) * k, size_t(n) * sizeof(double));
        for (int c = 0; c < n; ++c) {
            int p = c;
            for (int r = c + 1; r < n; ++r)
                if (std::fabs(m[r * n + c]) > std::fabs(m[p * n + c])) p = r;
            if (m[p * n + c] == 0.0) return -1;
            if (p != c) {
                for (int j = 0; j < n; ++j) std::swap(m[p * n + j], m[c * n + j]);
                std::swap(y[p], y[c]);
            }
            for (int r = c + 1; r < n; ++r) {
                const double l = m[r * n + c] / m[c * n + c];
                m[r * n + c] = l;
                for (int j = c + 1; j < n; ++j) m[r * n + j] -= l * m[c * n + j];
                y[r] -= l * y[c];
            }
        }
        for (int i = n - 1; i >= 0; --i) {
            double t = y[i];
            for (int j = i + 1; j < n; ++j) t -= m[i * n + j] * y[j];
            y[i] = t / m[i * n + i];
        }
    }
    return 0;
}

int plainLUSolve(Systems& s) { return plainLUSolveLoop<kLU>(s.a.get(), s.b.get(), s.f.get(), s.x.get(), s.count); }

#ifdef OMKM_BENCH_HAVE_EIGEN
__attribute__((noinline)) int eigenLUSolve(Systems& s) {
    using M = Eigen::Matrix<double, kLU, kLU, Eigen::RowMajor>;
    using V = Eigen::Matrix<double, kLU, 1>;
    for (int k = 0; k < s.count; ++k) {
        const auto lu = Eigen::Map<const M>(s.a.get() + size_t(k) * kLU * kLU).lu();
        Eigen::Map<V>(s.x.get() + size_t(k) * kLU) = lu.solve(Eigen::Map<const V>(s.b.get() + size_t(k) * kLU));
    }
    return 0;
}
#endif

#ifdef OMKM_BENCH_HAVE_LAPACKE
// The row-major A is the column-major A^T: factor it and solve with trans = 'T'.
__attribute__((noinline)) int lapackeLUSolve(Systems& s) {
    lapack_int piv[kLU];
    for (int k = 0; k < s.count; ++k) {
        double* f = s.f.get() + size_t(k) * kLU * kLU;
        double* x = s.x.get() + size_t(k) * kLU;
        std::memcpy(f, s.a.get() + size_t(k) * kLU * kLU, kLU * kLU * sizeof(double));
        std::memcpy(x, s.b.get() + size_t(k) * kLU, kLU * sizeof(double));
        if (LAPACKE_dgetrf_work(LAPACK_COL_MAJOR, kLU, kLU, f, kLU, piv) != 0) return -1;
        if (LAPACKE_dgetrs_work(LAPACK_COL_MAJOR, 'T', kLU, 1, f, kLU, piv, x, kLU) != 0) return -1;
    }
    return 0;
}
#endif

// |A*x - b| within 64 * n * eps * (|A|*|x| + |b|) in every component.
std::string checkLUSolve(Systems& s, int (*run)(Systems&)) {
    std::fill(s.x.get(), s.x.get() + size_t(s.count) * kLU, std::numeric_limits<double>::quiet_NaN());
    if (const int st = run(s)) return "returned status " + std::to_string(st);
    const double eps = std::numeric_limits<double>::epsilon();
    for (int k = 0; k < s.count; ++k)
        for (int i = 0; i < kLU; ++i) {
            const double* a = s.a.get() + size_t(k) * kLU * kLU + size_t(i) * kLU;
            const double* x = s.x.get() + size_t(k) * kLU;
            double r = -s.b[size_t(k) * kLU + i], size = std::fabs(r);
            for (int j = 0; j < kLU; ++j) {
                r += a[j] * x[j];
                size += std::fabs(a[j] * x[j]);
            }
            if (!(std::fabs(r) <= 64.0 * kLU * eps * size))
                return "system " + std::to_string(k) + " row " + std::to_string(i) + " has residual " + std::to_string(r);
        }
    return {};
}

// ---- point transforms ----

struct Points {
    int count = 0;
    float m[16];
    Array<float> src, dst;
    void make(int n) {
        src = alignedArray<float>(size_t(n) * 3);
        dst = alignedArray<float>(size_t(n) * 4);
        std::mt19937 gen(0x70743364U);
        std::uniform_real_distribution<float> u(-1.0f, 1.0f);
        for (int i = 0; i < 16; ++i) m[i] = u(gen) + (i % 5 == 0 ? 2.0f : 0.0f);
        for (size_t i = 0; i < size_t(n) * 3; ++i) src[i] = 10.0f * u(gen);
        for (size_t i = 0; i < size_t(n) * 4; ++i) dst[i] = 0.0f;
        count = n;
    }
};

int omkmTransform(Points& p) { return omkmAffineTransform_m4v3a_32f(p.m, p.src.get(), 12, p.dst.get(), 16, p.count); }

// The row-vector product, one output component at a time.
__attribute__((noinline)) int plainTransform(Points& p) {
    const float* m = p.m;
    for (int k = 0; k < p.count; ++k) {
        const float* s = p.src.get() + 3 * size_t(k);
        float* d = p.dst.get() + 4 * size_t(k);
        for (int j = 0; j < 4; ++j) d[j] = s[0] * m[j] + s[1] * m[4 + j] + s[2] * m[8 + j] + m[12 + j];
    }
    return 0;
}

#ifdef OMKM_BENCH_HAVE_GLM
// The row-major storage read as a glm matrix is the transpose, so mat4 * vec4 is the row-vector product.
__attribute__((noinline)) int glmTransform(Points& p) {
    glm::mat4 m;
    std::memcpy(static_cast<void*>(&m), p.m, sizeof m);
    for (int k = 0; k < p.count; ++k) {
        const float* s = p.src.get() + 3 * size_t(k);
        const glm::vec4 r = m * glm::vec4(s[0], s[1], s[2], 1.0f);
        std::memcpy(p.dst.get() + 4 * size_t(k), &r, sizeof r);
    }
    return 0;
}
#endif

#ifdef OMKM_BENCH_HAVE_EIGEN
// Column vectors: the transposed matrix; 3 floats out per point.
__attribute__((noinline)) int eigenTransform(Points& p) {
    Eigen::Affine3f t;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) t(i, j) = p.m[4 * j + i];
    for (int k = 0; k < p.count; ++k)
        Eigen::Map<Eigen::Vector3f>(p.dst.get() + 4 * size_t(k)) =
            t * Eigen::Map<const Eigen::Vector3f>(p.src.get() + 3 * size_t(k));
    return 0;
}
#endif

// The first W components of every point against a double-precision product.
template <int W>
std::string checkTransform(Points& p, int (*run)(Points&)) {
    std::fill(p.dst.get(), p.dst.get() + size_t(p.count) * 4, std::numeric_limits<float>::quiet_NaN());
    if (const int st = run(p)) return "returned status " + std::to_string(st);
    for (int k = 0; k < p.count; ++k) {
        const float* s = p.src.get() + 3 * size_t(k);
        for (int j = 0; j < W; ++j) {
            const double r = double(s[0]) * p.m[j] + double(s[1]) * p.m[4 + j] + double(s[2]) * p.m[8 + j] + p.m[12 + j];
            if (!(std::fabs(p.dst[4 * size_t(k) + j] - r) <= 1e-4 * (1 + std::fabs(r))))
                return "point " + std::to_string(k) + " component " + std::to_string(j) + " differs";
        }
    }
    return {};
}

// ---- 3x3 symmetric eigenproblem, double ----

constexpr int kSym = 3;

struct SymProblems {
    int count = 0;
    Array<double> a, vectors, values, scratch;
    void make(int n) {
        const size_t m = size_t(n) * kSym * kSym;
        a = alignedArray<double>(m);
        vectors = alignedArray<double>(m);
        values = alignedArray<double>(size_t(n) * kSym);
        scratch = alignedArray<double>(64 * kSym * kSym);
        // M*M^T + n*I with M uniform in [-1, 1]: symmetric positive definite.
        std::mt19937_64 gen(0x73796D33U);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        double g[kSym * kSym];
        for (int k = 0; k < n; ++k) {
            for (double& v : g) v = u(gen);
            for (int i = 0; i < kSym; ++i)
                for (int j = 0; j < kSym; ++j) {
                    double v = i == j ? kSym : 0.0;
                    for (int l = 0; l < kSym; ++l) v += g[i * kSym + l] * g[j * kSym + l];
                    a[size_t(k) * kSym * kSym + size_t(i) * kSym + j] = v;
                }
        }
        std::fill(vectors.get(), vectors.get() + m, 0.0);
        std::fill(values.get(), values.get() + size_t(n) * kSym, 0.0);
        count = n;
    }
};

int omkmEigenSym(SymProblems& s) {
    const int e = sizeof(double), r = kSym * e, o = kSym * r;
    return omkmEigenValuesVectorsSym_ma_64f(s.a.get(), o, r, e, s.scratch.get(), s.vectors.get(), o, r, e,
                                            s.values.get(), kSym, s.count);
}

#ifdef OMKM_BENCH_HAVE_EIGEN
template <bool Direct>
__attribute__((noinline)) int eigenEigenSym(SymProblems& s) {
    using M = Eigen::Matrix<double, kSym, kSym, Eigen::RowMajor>;
    using V = Eigen::Matrix<double, kSym, 1>;
    Eigen::SelfAdjointEigenSolver<M> solver;
    for (int k = 0; k < s.count; ++k) {
        const Eigen::Map<const M> a(s.a.get() + size_t(k) * kSym * kSym);
        if constexpr (Direct)
            solver.computeDirect(a);
        else
            solver.compute(a);
        Eigen::Map<M>(s.vectors.get() + size_t(k) * kSym * kSym) = solver.eigenvectors();
        Eigen::Map<V>(s.values.get() + size_t(k) * kSym) = solver.eigenvalues();
    }
    return 0;
}
#endif

#ifdef OMKM_BENCH_HAVE_LAPACKE
// The matrix is symmetric, so its row-major storage is its column-major storage; the vectors come
// back column-major (vector j is row j of the row-major storage).
__attribute__((noinline)) int lapackeEigenSym(SymProblems& s) {
    constexpr int lwork = 64 * kSym;
    for (int k = 0; k < s.count; ++k) {
        double* v = s.vectors.get() + size_t(k) * kSym * kSym;
        std::memcpy(v, s.a.get() + size_t(k) * kSym * kSym, kSym * kSym * sizeof(double));
        if (LAPACKE_dsyev_work(LAPACK_COL_MAJOR, 'V', 'L', kSym, v, kSym, s.values.get() + size_t(k) * kSym,
                               s.scratch.get(), lwork) != 0)
            return -1;
    }
    return 0;
}
#endif

// Every pair satisfies |A*v - lambda*v| <= 1e3 * n * eps * |A|, and the vectors are orthonormal
// within the same bound. vectorsAsRows: vector j is row j of the stored matrix, else column j.
std::string checkEigenSym(SymProblems& s, int (*run)(SymProblems&), bool vectorsAsRows) {
    std::fill(s.values.get(), s.values.get() + size_t(s.count) * kSym, std::numeric_limits<double>::quiet_NaN());
    std::fill(s.vectors.get(), s.vectors.get() + size_t(s.count) * kSym * kSym, std::numeric_limits<double>::quiet_NaN());
    if (const int st = run(s)) return "returned status " + std::to_string(st);
    const double eps = std::numeric_limits<double>::epsilon();
    for (int k = 0; k < s.count; ++k) {
        const double* a = s.a.get() + size_t(k) * kSym * kSym;
        const double* v = s.vectors.get() + size_t(k) * kSym * kSym;
        auto vec = [&](int i, int j) { return vectorsAsRows ? v[j * kSym + i] : v[i * kSym + j]; };
        double norm = 0.0;
        for (int q = 0; q < kSym * kSym; ++q) norm = std::max(norm, std::fabs(a[q]) * kSym);
        const double bound = 1e3 * kSym * eps * norm;
        for (int j = 0; j < kSym; ++j) {
            const double lambda = s.values[size_t(k) * kSym + j];
            for (int i = 0; i < kSym; ++i) {
                double r = -lambda * vec(i, j);
                for (int l = 0; l < kSym; ++l) r += a[i * kSym + l] * vec(l, j);
                if (!(std::fabs(r) <= bound))
                    return "matrix " + std::to_string(k) + " pair " + std::to_string(j) + " has residual " + std::to_string(r);
            }
            for (int q = 0; q <= j; ++q) {
                double dot = 0.0;
                for (int i = 0; i < kSym; ++i) dot += vec(i, j) * vec(i, q);
                if (!(std::fabs(dot - (q == j ? 1.0 : 0.0)) <= bound))
                    return "matrix " + std::to_string(k) + " vectors " + std::to_string(q) + " and " + std::to_string(j) +
                           " are not orthonormal";
            }
        }
    }
    return {};
}

// ---- rows ----

// One row over the data of `count` objects. budget: the library's thread budget (0: its default);
// peers pass -1 and run on the calling thread.
template <class D>
void BM_sweep(benchmark::State& state, const std::string& row, int count, int (*run)(D&),
              const std::function<std::string(D&)>& check, int budget, size_t bytesPerObject) {
    D& d = dataFor<D>(count);
    const int threads = budget >= 0 ? applyBudget(budget) : 1;
    const std::string error = checkOnce(row, [&] { return check(d); });
    if (error.empty())
        for (auto _ : state) {
            benchmark::DoNotOptimize(run(d));
            benchmark::ClobberMemory();
        }
    if (budget >= 0) applyBudget(0);
    if (!error.empty()) {
        state.SkipWithError((row + ": " + error).c_str());
        return;
    }
    finishTraffic(state, size_t(count), bytesPerObject, threads);
}

// A workload: its name after BM_<who>_ (up to the count), the bytes each object moves, and the
// check every row must pass.
template <class D>
struct Workload {
    std::string name;
    size_t bytesPerObject;
    std::function<std::string(D&, int (*)(D&))> check;

    void row(const std::string& who, int (*run)(D&), int budget = -1,
             std::string (*peerCheck)(D&, int (*)(D&)) = nullptr) const {
        for (int count : kCounts) {
            std::string n = "BM_" + who + "_" + name + "/" + std::to_string(count);
            if (budget == 1) n += "/threads:1";
            if (budget == 0) n += "/threads:default";
            auto full = peerCheck ? std::function<std::string(D&, int (*)(D&))>(peerCheck) : check;
            const std::function<std::string(D&)> bound = [full, run](D& d) { return full(d, run); };
            benchmark::RegisterBenchmark(n.c_str(), BM_sweep<D>, n, count, run, bound, budget, bytesPerObject)
                ->UseRealTime()
                ->MinTime(minTime(count))
                ->Unit(count >= 1000 ? benchmark::kMicrosecond : benchmark::kNanosecond);
        }
    }
    void omkm(int (*run)(D&)) const {
        row("omkm", run, 1);
        row("omkm", run, 0);
    }
};

#ifdef OMKM_BENCH_HAVE_EIGEN
std::string checkEigenColumns(SymProblems& s, int (*run)(SymProblems&)) { return checkEigenSym(s, run, false); }
std::string checkTransform3(Points& p, int (*run)(Points&)) { return checkTransform<3>(p, run); }
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
std::string checkEigenRows(SymProblems& s, int (*run)(SymProblems&)) { return checkEigenSym(s, run, true); }
#endif

bool registerAll() {
    const Workload<Mats> add{"AddSweep_mama_32f/4x4", 3 * kElems * sizeof(float), checkAdd};
    add.omkm(omkmAdd);
    add.row("plain", plainAdd);
#ifdef OMKM_BENCH_HAVE_EIGEN
    add.row("eigen", eigenAdd);
#endif
#ifdef OMKM_BENCH_HAVE_GLM
    add.row("glm", glmAdd);
#endif

    const Workload<Mats> mul{"MulSweep_mama_32f/4x4", 3 * kElems * sizeof(float), checkMul};
    mul.omkm(omkmMul);
    mul.row("plain", plainMul);
#ifdef OMKM_BENCH_HAVE_EIGEN
    mul.row("eigen", eigenMul);
#endif
#ifdef OMKM_BENCH_HAVE_GLM
    mul.row("glm", glmMul);
#endif
#ifdef OMKM_BENCH_HAVE_XSMM
    mul.row("xsmm", xsmmMul);
#endif

    const Workload<Systems> lu{"LUSolveSweep_64f/3x3", 3 * kLU * kLU * sizeof(double), checkLUSolve};
    lu.omkm(omkmLUSolve);
    lu.row("plain", plainLUSolve);
#ifdef OMKM_BENCH_HAVE_EIGEN
    lu.row("eigen", eigenLUSolve);
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
    lu.row("lapacke", lapackeLUSolve);
#endif

    // 12 bytes read and 16 written per point.
    const Workload<Points> tr{"TransformSweep_m4v3a_32f", 12 + 16, checkTransform<4>};
    tr.omkm(omkmTransform);
    tr.row("plain", plainTransform);
#ifdef OMKM_BENCH_HAVE_GLM
    tr.row("glm", glmTransform);
#endif
#ifdef OMKM_BENCH_HAVE_EIGEN
    tr.row("eigen", eigenTransform, -1, checkTransform3);
#endif

    const Workload<SymProblems> sym{"EigenSymSweep_64f/3x3", 3 * kSym * kSym * sizeof(double),
                                    [](SymProblems& s, int (*run)(SymProblems&)) { return checkEigenSym(s, run, false); }};
    sym.omkm(omkmEigenSym);
#ifdef OMKM_BENCH_HAVE_EIGEN
    sym.row("eigen", eigenEigenSym<false>, -1, checkEigenColumns);
    sym.row("eigenDirect", eigenEigenSym<true>, -1, checkEigenColumns);
#endif
#ifdef OMKM_BENCH_HAVE_LAPACKE
    sym.row("lapacke", lapackeEigenSym, -1, checkEigenRows);
#endif
    return true;
}

[[maybe_unused]] const bool registered = registerAll();

}  // namespace
