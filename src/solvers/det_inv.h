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
#include "frame/object_lanes.h"
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

template <class T> T fms(T x, T y, T z) { return fmadd(x, y, -z); }

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
    return fmadd(T(b.at(0, 2)), M(0, 1), fms(T(b.at(0, 0)), M(1, 2), T(b.at(0, 1)) * M(0, 2)));
}

// The unsigned minor of element (i, j) of an n x n matrix: its determinant without row i and
// column j, by the expansion of order n - 1.
template <int N, class T, class B> T detExpand(const B& b);

template <int N, class T, class B>
T minorOf(const B& b, int i, int j) {
    int rows[N - 1], cols[N - 1];
#pragma GCC unroll 8
    for (int q = 0, r = 0; q < N; ++q) if (q != i) rows[r++] = q;
#pragma GCC unroll 8
    for (int q = 0, c = 0; q < N; ++q) if (q != j) cols[c++] = q;
    return detExpand<N - 1, T>(Picked<T, B>{b, rows, cols});
}

// -x, also for a zero. The value passes through an empty asm first: once inlined, the compiler
// would otherwise fold -fma(a, b, -c) into fma(-a, b, c), which gives +0 where -(+0) = -0 is due.
template <class T>
inline T negateExactly(T x) {
    asm("" : "+x"(x));
    return -x;
}

// Signed cofactor C(i, j) = (-1)^(i+j) * minor, the sign applied exactly.
template <int N, class T, class B>
T cofactor(const B& b, int i, int j) {
    const T m = minorOf<N, T>(b, i, j);
    return (i + j) % 2 ? negateExactly(m) : m;
}

// Orders 2 and 3 as above; order 4 fma(b00, C00, b01*C01) + fma(b02, C02, b03*C03); orders 5 and 6
// t = b00*C00, then t = fma(b0j, C0j, t) for j = 1 ... n-1.
template <int N, class T, class B>
T detExpand(const B& b) {
    if constexpr (N == 1) return T(b.at(0, 0));
    else if constexpr (N == 2) return det2<T>(b);
    else if constexpr (N == 3) return det3<T>(b);
    else if constexpr (N == 4) {
        return fmadd(T(b.at(0, 0)), cofactor<4, T>(b, 0, 0), T(b.at(0, 1)) * cofactor<4, T>(b, 0, 1)) +
               fmadd(T(b.at(0, 2)), cofactor<4, T>(b, 0, 2), T(b.at(0, 3)) * cofactor<4, T>(b, 0, 3));
    } else {
        T t = T(b.at(0, 0)) * cofactor<N, T>(b, 0, 0);
        for (int j = 1; j < N; ++j) t = fmadd(T(b.at(0, j)), cofactor<N, T>(b, 0, j), t);
        return t;
    }
}

// ---- 4x4 cofactors in vector registers ----
// Lane j of cofactor row i is C(i, j): the 3x3 determinant without row i and column j, expanded as
// det3 above over the remaining columns c0 < c1 < c2 (lane-wise shuffles), with the sign of
// (-1)^(i+j) applied to the sign bit. Every lane runs the scalar formula's operations, so the bits
// are those of cofactor<4>.
template <class T> struct Lanes4;
template <> struct Lanes4<float> {
    using V = __m128;
    static V load(const float* p) { return _mm_loadu_ps(p); }
    static void store(float* p, V v) { _mm_storeu_ps(p, v); }
    template <int Imm> static V perm(V v) { return _mm_permute_ps(v, Imm); }
    static V mul(V a, V b) { return _mm_mul_ps(a, b); }
    static V fma(V a, V b, V c) { return _mm_fmadd_ps(a, b, c); }
    static V fms(V a, V b, V c) { return _mm_fmsub_ps(a, b, c); }
    static V signs(bool odd) { return odd ? _mm_setr_ps(-0.0f, 0.0f, -0.0f, 0.0f) : _mm_setr_ps(0.0f, -0.0f, 0.0f, -0.0f); }
    static V flip(V v, V s) { return _mm_xor_ps(v, s); }
    static V splat(float x) { return _mm_set1_ps(x); }
    // lane 0 + lane 2
    static float sum02(V v) { return _mm_cvtss_f32(_mm_add_ss(v, _mm_movehl_ps(v, v))); }
    static void transpose(V& a, V& b, V& c, V& d) { _MM_TRANSPOSE4_PS(a, b, c, d); }
};
template <> struct Lanes4<double> {
    using V = __m256d;
    static V load(const double* p) { return _mm256_loadu_pd(p); }
    static void store(double* p, V v) { _mm256_storeu_pd(p, v); }
    template <int Imm> static V perm(V v) { return _mm256_permute4x64_pd(v, Imm); }
    static V mul(V a, V b) { return _mm256_mul_pd(a, b); }
    static V fma(V a, V b, V c) { return _mm256_fmadd_pd(a, b, c); }
    static V fms(V a, V b, V c) { return _mm256_fmsub_pd(a, b, c); }
    static V signs(bool odd) {
        return odd ? _mm256_setr_pd(-0.0, 0.0, -0.0, 0.0) : _mm256_setr_pd(0.0, -0.0, 0.0, -0.0);
    }
    static V flip(V v, V s) { return _mm256_xor_pd(v, s); }
    static V splat(double x) { return _mm256_set1_pd(x); }
    static double sum02(V v) {
        return _mm_cvtsd_f64(_mm_add_sd(_mm256_castpd256_pd128(v), _mm256_extractf128_pd(v, 1)));
    }
    static void transpose(V& a, V& b, V& c, V& d) { transpose4x4(a, b, c, d); }
};

// Cofactor row from the first remaining row f and the two rows p, q of the 2x2 minors; lane j
// leaves out column j, so its columns c0, c1, c2 are (1,2,3), (0,2,3), (0,1,3), (0,1,2).
template <class T>
typename Lanes4<T>::V cofactorRow4(typename Lanes4<T>::V f, typename Lanes4<T>::V p, typename Lanes4<T>::V q, bool odd) {
    using L = Lanes4<T>;
    constexpr int S0 = 0x01, S1 = 0x5A, S2 = 0xBF;  // lanes (1,0,0,0), (2,2,1,1), (3,3,3,2)
    const auto p0 = L::template perm<S0>(p), p1 = L::template perm<S1>(p), p2 = L::template perm<S2>(p);
    const auto q0 = L::template perm<S0>(q), q1 = L::template perm<S1>(q), q2 = L::template perm<S2>(q);
    const auto m01 = L::fms(p0, q1, L::mul(p1, q0));
    const auto m12 = L::fms(p1, q2, L::mul(p2, q1));
    const auto m02 = L::fms(p0, q2, L::mul(p2, q0));
    const auto d = L::fma(L::template perm<S2>(f), m01,
                          L::fms(L::template perm<S0>(f), m12, L::mul(L::template perm<S1>(f), m02)));
    return L::flip(d, L::signs(odd));
}

// fma(a00, c00, a01*c01) + fma(a02, c02, a03*c03) from row 0 and its cofactors.
template <class T>
T det4FromRow(typename Lanes4<T>::V a0, typename Lanes4<T>::V c0) {
    using L = Lanes4<T>;
    return L::sum02(L::fma(a0, c0, L::template perm<0xB1>(L::mul(a0, c0))));
}

// Four rows of four elements, each packed, anywhere in memory.
template <class T>
struct Rows4 {
    const T* r[4];
};
template <class T> Rows4<T> packedRows4(const T* p) { return {{p, p + 4, p + 8, p + 12}}; }

template <class T>
T det4(const Rows4<T>& m) {
    using L = Lanes4<T>;
    const auto r0 = L::load(m.r[0]), r1 = L::load(m.r[1]), r2 = L::load(m.r[2]), r3 = L::load(m.r[3]);
    return det4FromRow<T>(r0, cofactorRow4<T>(r1, r2, r3, false));
}

// Floats: two cofactor rows per 256-bit register, one in each half (the shuffles stay within a
// half), the same operations lane for lane.
struct Lanes8 {
    using V = __m256;
    template <int Imm> static V perm(V v) { return _mm256_permute_ps(v, Imm); }
    static V mul(V a, V b) { return _mm256_mul_ps(a, b); }
    static V fma(V a, V b, V c) { return _mm256_fmadd_ps(a, b, c); }
    static V fms(V a, V b, V c) { return _mm256_fmsub_ps(a, b, c); }
};
inline __m256 cofactorRows4(__m256 f, __m256 p, __m256 q) {
    using L = Lanes8;
    constexpr int S0 = 0x01, S1 = 0x5A, S2 = 0xBF;
    const auto p0 = L::perm<S0>(p), p1 = L::perm<S1>(p), p2 = L::perm<S2>(p);
    const auto q0 = L::perm<S0>(q), q1 = L::perm<S1>(q), q2 = L::perm<S2>(q);
    const auto m01 = L::fms(p0, q1, L::mul(p1, q0));
    const auto m12 = L::fms(p1, q2, L::mul(p2, q1));
    const auto m02 = L::fms(p0, q2, L::mul(p2, q0));
    const auto d = L::fma(L::perm<S2>(f), m01, L::fms(L::perm<S0>(f), m12, L::mul(L::perm<S1>(f), m02)));
    // Cofactor rows 0 and 1 (and 2 and 3) take the signs (+,-,+,-) and (-,+,-,+).
    return _mm256_xor_ps(d, _mm256_setr_ps(0.0f, -0.0f, 0.0f, -0.0f, -0.0f, 0.0f, -0.0f, 0.0f));
}

// The inverse of a 4x4 matrix by its adjugate: returns det; when scale(det, r) gives r (true),
// writes row j of the result, out[j], as C(0..3, j) * r.
template <class T, class Scale>
T adjugate4(const Rows4<T>& m, T* const out[4], Scale&& scale, bool& singular) {
    using L = Lanes4<T>;
    const auto r0 = L::load(m.r[0]), r1 = L::load(m.r[1]), r2 = L::load(m.r[2]), r3 = L::load(m.r[3]);
    typename L::V c0, c1, c2, c3;
    if constexpr (std::is_same_v<T, float>) {
        // Rows (0, 1): f = A1 | A0, minors of rows 2 and 3; rows (2, 3): f = A0, minors of rows
        // (1, 3) | (1, 2).
        const __m256 c01 = cofactorRows4(_mm256_set_m128(r0, r1), _mm256_set_m128(r2, r2), _mm256_set_m128(r3, r3));
        const __m256 c23 = cofactorRows4(_mm256_set_m128(r0, r0), _mm256_set_m128(r1, r1), _mm256_set_m128(r2, r3));
        c0 = _mm256_castps256_ps128(c01), c1 = _mm256_extractf128_ps(c01, 1);
        c2 = _mm256_castps256_ps128(c23), c3 = _mm256_extractf128_ps(c23, 1);
    } else {
        c0 = cofactorRow4<T>(r1, r2, r3, false);
        c1 = cofactorRow4<T>(r0, r2, r3, true);
        c2 = cofactorRow4<T>(r0, r1, r3, false);
        c3 = cofactorRow4<T>(r0, r1, r2, true);
    }
    const T det = det4FromRow<T>(r0, c0);
    T r;
    singular = !scale(det, r);
    if (singular) return det;
    L::transpose(c0, c1, c2, c3);
    const auto rr = L::splat(r);
    L::store(out[0], L::mul(c0, rr));
    L::store(out[1], L::mul(c1, rr));
    L::store(out[2], L::mul(c2, rr));
    L::store(out[3], L::mul(c3, rr));
    return det;
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
    return fmadd(T(a.at(2, 0)), m0, fms(T(a.at(2, 2)), m2, T(a.at(2, 1)) * m1));
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
    case 4: {
        if constexpr (std::is_same_v<SO, StridedObject<const T, true>>) return det4<T>({{a.row(0), a.row(1), a.row(2), a.row(3)}});
        const Local<T, 4> l = loadLocal<4, T>(a);
        return det4<T>(packedRows4(&l.v[0][0]));
    }
    case 5: return detFixedEliminate<5, T>(a);
    case 6: return detFixedEliminate<6, T>(a);
    default: return detEliminate<T>(a, w, n);
    }
}

// ---- inverse ----

// The determinant of an adjugate inverse from row 0 and its cofactors: order 3 as det3, order 4
// fma(a00, C00, a01*C01) + fma(a02, C02, a03*C03), orders 5 and 6 t = a00*C00, then
// t = fma(a0j, C0j, t).
template <int N, class T, class B>
[[gnu::always_inline]] inline T detFromRow0(const B& l, const T (&c)[N][N]) {
    if constexpr (N == 3) {
        return det3<T>(l);
    } else if constexpr (N == 4) {
        return fmadd(T(l.at(0, 0)), c[0][0], T(l.at(0, 1)) * c[0][1]) +
               fmadd(T(l.at(0, 2)), c[0][2], T(l.at(0, 3)) * c[0][3]);
    } else {
        T t = T(l.at(0, 0)) * c[0][0];
        for (int j = 1; j < N; ++j) t = fmadd(T(l.at(0, j)), c[0][j], t);
        return t;
    }
}

template <int N, class T, class Dst, class Src>
bool invertBlock(const Dst& dst, const Src& src);

// Orders 3 to 6: the adjugate. det from row 0 with the cofactors, |det| < t singular (nothing
// written), else inverse(j, i) = C(i, j) * (1/det). The source is read whole first.
template <int N, class T, class DO, class SO>
OmkStatus invertFixed(const DO& d, const SO& a) {
    const Local<T, N> l = loadLocal<N, T>(a);
    if constexpr (N >= 5) {
        // The block kernel with the one matrix in every lane: its flattened code computes each
        // smaller determinant that the expansions share once.
        Local<T, N> inv;
        const StridedObject<const T, true> src{&l.v[0][0], ptrdiff_t(N * sizeof(T)), ptrdiff_t(sizeof(T))};
        const StridedObject<T, true> dst{&inv.v[0][0], ptrdiff_t(N * sizeof(T)), ptrdiff_t(sizeof(T))};
        if (!invertBlock<N, T>([&](int) { return dst; }, [&](int) { return src; })) return omkStsSingular;
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j) d.at(i, j) = inv.v[i][j];
        return omkStsOk;
    } else if constexpr (N == 4) {
        auto scale = [](T det, T& r) {
            if (std::fabs(det) < tolerance<T>(4)) return false;
            r = T(1) / det;
            return true;
        };
        bool singular;
        if constexpr (std::is_same_v<SO, StridedObject<const T, true>> && std::is_same_v<DO, StridedObject<T, true>>) {
            // Packed rows: read and written in place; the rows are all read before any is written.
            T* const out[4] = {d.row(0), d.row(1), d.row(2), d.row(3)};
            adjugate4<T>({{a.row(0), a.row(1), a.row(2), a.row(3)}}, out, scale, singular);
            return singular ? omkStsSingular : omkStsOk;
        }
        T inv[16];
        T* const out[4] = {inv, inv + 4, inv + 8, inv + 12};
        adjugate4<T>(packedRows4(&l.v[0][0]), out, scale, singular);
        if (singular) return omkStsSingular;
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) d.at(i, j) = inv[i * 4 + j];
        return omkStsOk;
    } else {
        // Order 3: the nine 2x2 minors written out (rows r0 < r1 and columns c0 < c1 of the
        // minor, the same fused expression as det2), so that a single 3x3 call is straight-line
        // code.
        // det3 along row 0 from the same minors: fma(a02, M01, fms(a00, M12, a01*M02)).
        T c[3][3];
        const auto m = [&](int r0, int r1, int c0, int c1) {
            return fms(l.v[r0][c0], l.v[r1][c1], l.v[r0][c1] * l.v[r1][c0]);
        };
        const T m02 = m(1, 2, 0, 2);
        c[0][0] = m(1, 2, 1, 2), c[0][1] = negateExactly(m02), c[0][2] = m(1, 2, 0, 1);
        c[1][0] = negateExactly(m(0, 2, 1, 2)), c[1][1] = m(0, 2, 0, 2), c[1][2] = negateExactly(m(0, 2, 0, 1));
        c[2][0] = m(0, 1, 1, 2), c[2][1] = negateExactly(m(0, 1, 0, 2)), c[2][2] = m(0, 1, 0, 1);
        const T det = fmadd(l.v[0][2], c[0][2], fms(l.v[0][0], c[0][0], l.v[0][1] * m02));
        if (std::fabs(det) < tolerance<T>(3)) return omkStsSingular;
        const T r = T(1) / det;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) d.at(j, i) = c[i][j] * r;
        return omkStsOk;
    }
}

// Order 2 and orders 7 and more, in the buffer: the first elimination (multipliers by the
// reciprocal) gives det = (s * last) * (product of the earlier pivots); a pivot below t sets the
// buffer's first element to 0 and is singular, as is |det| <= t. Then every element from its
// minor: the (n-1) x (n-1) matrix without row i and column j eliminated the same way, its value the
// product of its pivots and last pivot, or t when one of them falls below t, the last one when it is
// not above t. A minor of order 1 (order 2) is its element, which is also its last pivot: an element
// not above t in magnitude gives t. inverse(j, i) = (r * value) with the sign of (-1)^(i+j) times
// the minor's exchange sign.
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
                const T el = a.at(1 - i, 1 - j);
                value = std::fabs(el) > t ? el : t;
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

// ---- blocks of objects side by side ----
// Arrays whose objects have packed rows, of orders 3 to 6 (inverse) and 3 and 4 (determinant), run
// a block of objects at once through the cofactor formulas of one object (frame/object_lanes.h).

// One block: objects first ... first + W - 1. Flattened, so that every cofactor is straight-line
// code over registers.
template <int N, class T, class Src>
OMKM_FLATTEN void detBlock(const Src& src, T* out) {
    using X = typename BlockLanes<T>::X;
    const auto a = loadLanes<N, T>(src);
    X d;
    if constexpr (N == 3) d = detOrder3<X>(a);
    else d = detExpand<4, X>(a);
    std::memcpy(out, &d, sizeof d);
}

// False, with nothing written, when the block holds a singular matrix. Flattened, with the
// cofactor loops unrolled, so that the compiler computes each smaller determinant the expansions
// share once: order 6 costs some hundreds of operations per block instead of thousands.
template <int N, class T, class Dst, class Src>
OMKM_FLATTEN bool invertBlock(const Dst& dst, const Src& src) {
    using X = typename BlockLanes<T>::X;
    const auto a = loadLanes<N, T>(src);
    X c[N][N];
#pragma GCC unroll 6
    for (int i = 0; i < N; ++i)
#pragma GCC unroll 6
        for (int j = 0; j < N; ++j) c[i][j] = cofactor<N, X>(a, i, j);
    const X det = detFromRow0<N, X>(a, c);
    if (BlockLanes<T>::anyBelow(det, tolerance<T>(N))) return false;
    // Row j of every inverse: C(0 .. N-1, j) * r.
    const X r = T(1) / det;
    const auto out = copyObjects<T>(dst);
#pragma GCC unroll 6
    for (int j = 0; j < N; ++j) {
        X row[N];
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i) row[i] = c[i][j] * r;
        rowLanes<false, N>(row, [&](int q, int r) { return out.o[q].row(r); }, j);
    }
    return true;
}

// Determinants of orders 3 and 4 of the whole blocks among objects 0 ... count-1 of `src` (object
// k is src(k)) into out[k]; returns how many objects it did.
template <class T, class Src>
int32_t detLanes(const Src& src, T* out, int n, int32_t count) {
    constexpr int W = BlockLanes<T>::W;
    return forOrder<3, 4>(n, [&](auto order) {
        int32_t k = 0;
        for (; k + W <= count; k += W)
            detBlock<decltype(order)::value, T>([&](int q) { return src(k + q); }, out + k);
        return k;
    });
}

// Inverses of orders 3 to 6 of the whole blocks among objects 0 ... count-1, each block read
// whole before any of it is written. Stops before a block that holds a singular matrix, which the
// per-object kernel then takes in order up to that matrix; returns how many objects it did.
template <class T, class Dst, class Src>
int32_t invertLanes(const Dst& dst, const Src& src, int n, int32_t count) {
    return wholeBlocks<3, 6, T>(n, count, [&](auto order, int32_t k) {
        return invertBlock<decltype(order)::value, T>([&](int q) { return dst(k + q); },
                                                      [&](int q) { return src(k + q); });
    });
}

// ---- exported forms ----

template <Group G, Desc Dsc, class R, class A, class B>
OmkStatus determinant(const R& result, const A& a, const B& buffer, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, a, buffer, result)) return st;
    using T = std::remove_const_t<typename A::Elem>;
    const int n = dims.width;
    const bool parallel = G == Group::ma && (Wrap32(n) * dims.count).value() >= kDetLimit;
    const size_t scratch = size_t(n) * n * sizeof(T) + size_t(n) * sizeof(int32_t);
    return overObjectsWithScratch(parallel, dims.count, buffer.obj(0), scratch, [&](int32_t first, int32_t m, T* w) {
        return overObjectsPacked(false, m, [&](auto packed, int32_t, int32_t cnt) {
            constexpr bool P = decltype(packed)::value;
            const A as = a.from(first);
            T* out = result.from(first).obj(0);
            int32_t k = 0;
            if constexpr (P) k = detLanes<T>([&](int32_t q) { return objectOf<P>(as, q); }, out, n, cnt);
            for (; k < cnt; ++k) out[k] = detObject<T>(objectOf<P>(as, k), w, n);
            return omkStsOk;
        }, a);
    });
}

// Every inverse but a single one with packed rows, after the checks. Kept out of line, so that the
// exported function's own frame stays that of the checks and the single-object kernels.
template <Group G, Desc Dsc, class D, class A, class B>
[[gnu::noinline]] OmkStatus inverseChecked(const D& d, const A& a, const B& buffer, const Dims& dims) {
    using T = std::remove_const_t<typename D::Elem>;
    const int n = dims.width;
    const bool packed = elementsContiguous(a, d);
    const bool parallel =
        G == Group::ma && (Wrap32(2) * n * dims.count).value() > (packed ? kInvertPackedLimit : kInvertLimit);
    const size_t scratch = size_t(n) * n * sizeof(T) + size_t(n) * sizeof(int32_t);
    return overObjectsWithScratch(parallel, dims.count, buffer.obj(0), scratch, [&](int32_t first, int32_t m, T* w) {
        return overObjectsPacked(false, m, [&](auto packed, int32_t, int32_t cnt) -> OmkStatus {
            constexpr bool P = decltype(packed)::value;
            const D ds = d.from(first);
            const A as = a.from(first);
            int32_t k = 0;
            if constexpr (P)
                k = invertLanes<T>([&](int32_t q) { return objectOf<P>(ds, q); },
                                   [&](int32_t q) { return objectOf<P>(as, q); }, n, cnt);
            for (; k < cnt; ++k)
                if (const OmkStatus st = invertObject<T>(objectOf<P>(ds, k), objectOf<P>(as, k), w, n)) return st;
            return omkStsOk;
        }, d, a);
    });
}

// One exported inverse: the checks, then one matrix with packed columns straight to its kernel
// (orders 3 and 4 inline: a single small inverse costs its arithmetic and the checks), everything
// else through inverseChecked.
template <Group G, Desc Dsc, class D, class A, class B>
[[gnu::always_inline]] inline OmkStatus inverse(const D& d, const A& a, const B& buffer, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, a, buffer, d)) return st;
    using T = std::remove_const_t<typename D::Elem>;
    if constexpr (G == Group::m && D::kLayout == Layout::Strided && A::kLayout == Layout::Strided) {
        if (unitColumns(d) && unitColumns(a)) {
            const auto dk = unitCols(d.obj(0));
            const auto ak = unitCols(a.obj(0));
            if (dims.width == 3) return invertFixed<3, T>(dk, ak);
            if (dims.width == 4) return invertFixed<4, T>(dk, ak);
            return invertObject<T>(dk, ak, buffer.obj(0), dims.width);
        }
    }
    return inverseChecked<G, Dsc>(d, a, buffer, dims);
}

// ---- the fixed 4x4 float forms ----

inline OmkStatus determinant4(const float* src, float* dst) {
    *dst = det4<float>(packedRows4(src));
    return omkStsOk;
}

// The adjugate; det from row 0; |det| < 2^-119 is singular (*pDet = 0, nothing else written);
// else *pDet = det and each element is its cofactor times r = (r0 + r0) - det*(r0*r0), r0 the
// processor's reciprocal estimate of det.
inline OmkStatus inverse4(const float* src, float* pDet, float* dst) {
    float inv[16];
    float* const out[4] = {inv, inv + 4, inv + 8, inv + 12};
    bool singular;
    const float det = adjugate4<float>(packedRows4(src), out, [](float det, float& r) {
        if (std::fabs(det) < 0x1p-119f) return false;
        const float r0 = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(det)));
        r = (r0 + r0) - det * (r0 * r0);
        return true;
    }, singular);
    if (pDet) *pDet = singular ? 0.0f : det;
    if (singular) return omkStsSingular;
    std::memcpy(dst, inv, sizeof inv);
    return omkStsOk;
}

}  // namespace omk::detinv
