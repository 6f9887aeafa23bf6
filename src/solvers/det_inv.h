// Determinants and inverses of square matrices, single or in arrays, in the standard, pointer (_P)
// and layout (_L) descriptions, and the fixed 4x4 float forms omkmDet_m4_32f / omkmInvert_m4_32f.
//
// Small orders use cofactor formulas with fused operations; the others eliminate with partial
// pivoting in the caller's buffer (n*n elements, then n 32-bit row indices). The tolerance of the
// singularity tests is t = 2*n^3 * (the smallest normal number), 2*n^3 formed as a 32-bit integer.
// The exported functions (det_inv_entries.cpp) are one line each.
#pragma once
#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>

#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/parallel_driver.h"
#include "frame/wrapping.h"
#include "solvers/solver_arrays.h"

namespace omk::detinv {

using solve::Desc;
enum class Group { m, ma };

// ---- serial limits ----
constexpr int32_t kDetLimit = 14401;            // widthHeight*count: serial while below
constexpr int32_t kInvertPackedLimit = 3600;    // 2*widthHeight*count: serial while at most, packed
constexpr int32_t kInvertLimit = 2500;          // other strides and _P

template <class T>
T tolerance(int n) {
    const int32_t twiceCube = (Wrap32(2) * n * n * n).value();
    return T(twiceCube) * std::numeric_limits<T>::min();
}

template <class T> T fms(T x, T y, T z) { return std::fma(x, y, -z); }

// ---- cofactor expansions ----
// A matrix read through at(i, j) of an object with rows and columns picked by index lists: the
// minors of the expansions below.
template <class T, class MO>
struct Picked {
    const MO& m;
    const int* rows;
    const int* cols;
    T at(int i, int j) const { return T(m.at(rows[i], cols[j])); }
};

// det of 2x2: fms(b00, b11, b01*b10).
template <class T, class B> T det2(const B& b) { return fms(T(b.at(0, 0)), T(b.at(1, 1)), T(b.at(0, 1)) * T(b.at(1, 0))); }

// det of 3x3 along row 0 over the 2x2 minors of rows 1 and 2: fma(b02, M02, fms(b00, M00, b01*M01)).
template <class T, class B>
T det3(const B& b) {
    auto M = [&](int j0, int j1) {
        return fms(T(b.at(1, j0)), T(b.at(2, j1)), T(b.at(1, j1)) * T(b.at(2, j0)));
    };
    return std::fma(T(b.at(0, 2)), M(0, 1), fms(T(b.at(0, 0)), M(1, 2), T(b.at(0, 1)) * M(0, 2)));
}

// The unsigned minor of element (i, j) of an n x n matrix: its determinant without row i and
// column j, by the expansion of order n - 1.
template <int N, class T, class B> T detExpand(const B& b);

template <int N, class T, class B>
T minorOf(const B& b, int i, int j) {
    int rows[N - 1], cols[N - 1];
    for (int q = 0, r = 0; q < N; ++q) if (q != i) rows[r++] = q;
    for (int q = 0, c = 0; q < N; ++q) if (q != j) cols[c++] = q;
    return detExpand<N - 1, T>(Picked<T, B>{b, rows, cols});
}

// Signed cofactor C(i, j) = (-1)^(i+j) * minor, the sign applied exactly.
template <int N, class T, class B>
T cofactor(const B& b, int i, int j) {
    const T m = minorOf<N, T>(b, i, j);
    return (i + j) % 2 ? -m : m;
}

// Orders 2 and 3 as above; order 4 fma(b00, C00, b01*C01) + fma(b02, C02, b03*C03); orders 5 and 6
// t = b00*C00, then t = fma(b0j, C0j, t) for j = 1 ... n-1.
template <int N, class T, class B>
T detExpand(const B& b) {
    if constexpr (N == 1) return T(b.at(0, 0));
    else if constexpr (N == 2) return det2<T>(b);
    else if constexpr (N == 3) return det3<T>(b);
    else if constexpr (N == 4) {
        return std::fma(T(b.at(0, 0)), cofactor<4, T>(b, 0, 0), T(b.at(0, 1)) * cofactor<4, T>(b, 0, 1)) +
               std::fma(T(b.at(0, 2)), cofactor<4, T>(b, 0, 2), T(b.at(0, 3)) * cofactor<4, T>(b, 0, 3));
    } else {
        T t = T(b.at(0, 0)) * cofactor<N, T>(b, 0, 0);
        for (int j = 1; j < N; ++j) t = std::fma(T(b.at(0, j)), cofactor<N, T>(b, 0, j), t);
        return t;
    }
}

// A local N x N copy.
template <class T, int N>
struct Local {
    T v[N][N];
    T at(int i, int j) const { return v[i][j]; }
};
template <int N, class T, class SO>
Local<T, N> loadLocal(const SO& a) {
    Local<T, N> l;
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) l.v[i][j] = a.at(i, j);
    return l;
}

// Determinant order 3 as the library defines it: with m0 = fms(a01, a12, a02*a11),
// m1 = fms(a00, a12, a02*a10), m2 = fms(a00, a11, a01*a10), the a22 and a21 terms first,
// fms(a22, m2, a21*m1), then the a20 term, fma(a20, m0, that).
template <class T, class B>
T detOrder3(const B& a) {
    const T m0 = fms(T(a.at(0, 1)), T(a.at(1, 2)), T(a.at(0, 2)) * T(a.at(1, 1)));
    const T m1 = fms(T(a.at(0, 0)), T(a.at(1, 2)), T(a.at(0, 2)) * T(a.at(1, 0)));
    const T m2 = fms(T(a.at(0, 0)), T(a.at(1, 1)), T(a.at(0, 1)) * T(a.at(1, 0)));
    return std::fma(T(a.at(2, 0)), m0, fms(T(a.at(2, 2)), m2, T(a.at(2, 1)) * m1));
}

// ---- elimination ----
// Rows of `w` (row-major n x n) reached through idx. Multipliers by division (Det) or by the
// reciprocal of the pivot (Invert); updates fused, a(i, j) = fma(-l, a(k, j), a(i, j)). Returns
// false when a pivot of steps 0 ... n-2 falls below t; else the product of those pivots in order
// and the exchange sign, with the last pivot left in place.
template <bool Reciprocal, class T>
bool eliminate(T* w, int* idx, int n, T t, T& product, int& sign) {
    product = T(1);
    sign = 1;
    for (int k = 0; k + 1 < n; ++k) {
        int best = k;
        T big = std::fabs(w[idx[k] * n + k]);
        for (int i = k + 1; i < n; ++i) {
            const T v = std::fabs(w[idx[i] * n + k]);
            if (v > big) big = v, best = i;
        }
        if (best != k) std::swap(idx[k], idx[best]), sign = -sign;
        const T pivot = w[idx[k] * n + k];
        if (std::fabs(pivot) < t) return false;
        const T* pk = w + idx[k] * n;
        const T r = Reciprocal ? T(1) / pivot : T(0);
        for (int i = k + 1; i < n; ++i) {
            T* pi = w + idx[i] * n;
            const T l = Reciprocal ? r * pi[k] : pi[k] / pivot;
            for (int j = k + 1; j < n; ++j) pi[j] = std::fma(-l, pk[j], pi[j]);
        }
        product = product * pivot;
    }
    return true;
}

// Determinant by elimination in the buffer: 0 when a pivot falls below t or the last pivot is not
// above it, else d * (last * s).
template <class T, class SO>
T detEliminate(const SO& a, T* w, int n) {
    int* idx = reinterpret_cast<int*>(w + ptrdiff_t(n) * n);
    for (int i = 0; i < n; ++i) {
        idx[i] = i;
        for (int j = 0; j < n; ++j) w[i * n + j] = a.at(i, j);
    }
    const T t = tolerance<T>(n);
    T d;
    int s;
    if (!eliminate<false>(w, idx, n, t, d, s)) return T(0);
    const T last = w[idx[n - 1] * n + n - 1];
    if (!(std::fabs(last) > t)) return T(0);
    return d * (last * T(s));
}

// Fixed orders 5 and 6 run the same elimination on a local copy.
template <int N, class T, class SO>
T detFixedEliminate(const SO& a) {
    T w[N * N + N];  // the matrix, then N ints (no wider than T)
    return detEliminate<T>(a, w, N);
}

template <class T, class SO>
T detObject(const SO& a, T* w, int n) {
    switch (n) {
    case 3: return detOrder3<T>(a);
    case 4: return detExpand<4, T>(loadLocal<4, T>(a));
    case 5: return detFixedEliminate<5, T>(a);
    case 6: return detFixedEliminate<6, T>(a);
    default: return detEliminate<T>(a, w, n);
    }
}

// ---- inverse ----

// Orders 3 to 6: the adjugate. det from row 0 with the cofactors, |det| < t singular (nothing
// written), else inverse(j, i) = C(i, j) * (1/det). The source is read whole first.
template <int N, class T, class DO, class SO>
OmkStatus invertFixed(const DO& d, const SO& a) {
    const Local<T, N> l = loadLocal<N, T>(a);
    T c[N][N];
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) c[i][j] = cofactor<N, T>(l, i, j);
    T det;
    if constexpr (N == 3) {
        det = det3<T>(l);
    } else if constexpr (N == 4) {
        det = std::fma(l.v[0][0], c[0][0], l.v[0][1] * c[0][1]) + std::fma(l.v[0][2], c[0][2], l.v[0][3] * c[0][3]);
    } else {
        det = l.v[0][0] * c[0][0];
        for (int j = 1; j < N; ++j) det = std::fma(l.v[0][j], c[0][j], det);
    }
    if (std::fabs(det) < tolerance<T>(N)) return omkStsSingular;
    const T r = T(1) / det;
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) d.at(j, i) = c[i][j] * r;
    return omkStsOk;
}

// Order 2 and orders 7 and more, in the buffer: the first elimination (multipliers by the
// reciprocal) gives det = (s * last) * (product of the earlier pivots); a pivot below t sets the
// buffer's first element to 0 and is singular, as is |det| <= t. Then every element from its
// minor: the (n-1) x (n-1) matrix without row i and column j eliminated the same way, its value the
// product of its pivots and last pivot, or t when one of them falls below t (a minor of order 1 is
// its element); inverse(j, i) = (r * value) with the sign of (-1)^(i+j) times the minor's exchange
// sign.
template <class T, class DO, class SO>
OmkStatus invertEliminate(const DO& d, const SO& a, T* w, int n) {
    const T t = tolerance<T>(n);
    int* idx = reinterpret_cast<int*>(w + ptrdiff_t(n) * n);
    for (int i = 0; i < n; ++i) {
        idx[i] = i;
        for (int j = 0; j < n; ++j) w[i * n + j] = a.at(i, j);
    }
    T product;
    int sign;
    const bool ok = eliminate<true>(w, idx, n, t, product, sign);
    const T last = w[idx[n - 1] * n + n - 1];
    if (!ok || std::fabs(last) < t) {
        w[0] = T(0);
        return omkStsSingular;
    }
    const T det = (T(sign) * last) * product;
    if (std::fabs(det) <= t) return omkStsSingular;
    const T r = T(1) / det;
    const int m = n - 1;
    int* midx = reinterpret_cast<int*>(w + ptrdiff_t(m) * m);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            T value;
            int msign = 1;
            if (m == 1) {
                value = a.at(1 - i, 1 - j);
            } else {
                for (int p = 0, r2 = 0; p < n; ++p) {
                    if (p == i) continue;
                    midx[r2] = r2;
                    for (int q = 0, c2 = 0; q < n; ++q)
                        if (q != j) w[r2 * m + c2++] = a.at(p, q);
                    ++r2;
                }
                T mp;
                if (!eliminate<true>(w, midx, m, t, mp, msign)) {
                    value = t;
                } else {
                    const T mlast = w[midx[m - 1] * m + m - 1];
                    value = std::fabs(mlast) > t ? mlast * mp : t;
                }
            }
            const T e = r * value;
            d.at(j, i) = ((i + j) % 2 == 0) == (msign > 0) ? e : -e;
        }
    return omkStsOk;
}

template <class T, class DO, class SO>
OmkStatus invertObject(const DO& d, const SO& a, T* w, int n) {
    switch (n) {
    case 1: {
        const T v = a.at(0, 0);
        if (!(std::fabs(v) > tolerance<T>(1))) return omkStsSingular;
        d.at(0, 0) = T(1) / v;
        return omkStsOk;
    }
    case 3: return invertFixed<3, T>(d, a);
    case 4: return invertFixed<4, T>(d, a);
    case 5: return invertFixed<5, T>(d, a);
    case 6: return invertFixed<6, T>(d, a);
    default: return invertEliminate<T>(d, a, w, n);
    }
}

// ---- exported forms ----

template <Group G, Desc Dsc, class R, class A, class B>
OmkStatus determinant(const R& result, const A& a, const B& buffer, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, a, buffer, result)) return st;
    using T = std::remove_const_t<typename A::Elem>;
    const int n = dims.width;
    const bool parallel = G == Group::ma && (Wrap32(n) * dims.count).value() >= kDetLimit;
    const size_t scratch = size_t(n) * n * sizeof(T) + size_t(n) * sizeof(int32_t);
    auto run = [&](int32_t first, int32_t m, char* block) {
        T* w = block ? reinterpret_cast<T*>(block) : buffer.obj(0);
        const A as = a.from(first);
        T* out = result.from(first).obj(0);
        for (int32_t k = 0; k < m; ++k) out[k] = detObject<T>(as.obj(k), w, n);
        return omkStsOk;
    };
    if (!parallel) return run(0, dims.count, nullptr);
    return runOverObjects(dims.count, run, (scratch + 63) / 64 * 64);
}

template <Group G, Desc Dsc, class D, class A, class B>
OmkStatus inverse(const D& d, const A& a, const B& buffer, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, a, buffer, d)) return st;
    using T = std::remove_const_t<typename D::Elem>;
    const int n = dims.width;
    bool packed = false;
    if constexpr (Dsc != Desc::P) packed = a.contiguous() && d.contiguous();
    const bool parallel =
        G == Group::ma && (Wrap32(2) * n * dims.count).value() > (packed ? kInvertPackedLimit : kInvertLimit);
    const size_t scratch = size_t(n) * n * sizeof(T) + size_t(n) * sizeof(int32_t);
    auto run = [&](int32_t first, int32_t m, char* block) -> OmkStatus {
        T* w = block ? reinterpret_cast<T*>(block) : buffer.obj(0);
        const D ds = d.from(first);
        const A as = a.from(first);
        for (int32_t k = 0; k < m; ++k)
            if (const OmkStatus st = invertObject<T>(ds.obj(k), as.obj(k), w, n)) return st;
        return omkStsOk;
    };
    if (!parallel) return run(0, dims.count, nullptr);
    return runOverObjects(dims.count, run, (scratch + 63) / 64 * 64);
}

// ---- the fixed 4x4 float forms ----

struct Rows4 {
    const float* p;
    float at(int i, int j) const { return p[i * 4 + j]; }
};

inline OmkStatus determinant4(const float* src, float* dst) {
    *dst = detExpand<4, float>(loadLocal<4, float>(Rows4{src}));
    return omkStsOk;
}

// The adjugate; det from row 0; |det| < 2^-119 is singular (*pDet = 0, nothing else written);
// else *pDet = det and each element is its cofactor times r = (r0 + r0) - det*(r0*r0), r0 the
// processor's reciprocal estimate of det.
inline OmkStatus inverse4(const float* src, float* pDet, float* dst) {
    const Local<float, 4> l = loadLocal<4, float>(Rows4{src});
    float c[4][4];
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) c[i][j] = cofactor<4, float>(l, i, j);
    const float det = std::fma(l.v[0][0], c[0][0], l.v[0][1] * c[0][1]) + std::fma(l.v[0][2], c[0][2], l.v[0][3] * c[0][3]);
    if (std::fabs(det) < 0x1p-119f) {
        if (pDet) *pDet = 0.0f;
        return omkStsSingular;
    }
    if (pDet) *pDet = det;
    const float r0 = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(det)));
    const float r = (r0 + r0) - det * (r0 * r0);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) dst[j * 4 + i] = c[i][j] * r;
    return omkStsOk;
}

}  // namespace omk::detinv
