// Dot products of vectors and cross products of 3-vectors, single or in arrays, in the standard,
// pointer (_P) and layout (_L) descriptions, and the fixed-size members for contiguous 2-, 3- and
// 4-vectors of floats, which make no checks.
//
// A dot product's scalar results go to `count` consecutive elements of pDst. Its rounding order is
// fixed per length and per path: the contiguous path (every element stride the element size) and
// the strided path (also every _P call) of one length may differ in the last bit, as intended.
// The exported functions (dot_cross_entries.cpp) are one line each.
#pragma once
#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/parallel_driver.h"
#include "frame/wrapping.h"

namespace omk::dotcross {

enum class Group { vv, vav, vva, vava };
enum class Desc { Std, L, P };

// fms(x, y, z) = x*y - z rounded once (z already rounded).
template <class T> T fms(T x, T y, T z) { return std::fma(x, y, -z); }

// ---- dot product kernels ----

// The strided path (and every _P call): the tabled fused orders of lengths 3 to 6; other lengths
// t = a0*b0, then t = fma(a_k, b_k, t) in increasing k.
template <class T, class AO, class BO>
T dotStrided(const AO& a, const BO& b, int n) {
    auto A = [&](int k) -> T { return a.at(0, k); };
    auto B = [&](int k) -> T { return b.at(0, k); };
    switch (n) {
    case 3: return std::fma(A(0), B(0), std::fma(A(1), B(1), A(2) * B(2)));
    case 4: return std::fma(A(1), B(1), A(2) * B(2)) + std::fma(A(3), B(3), A(0) * B(0));
    case 5: {
        T t = A(2) * B(2);
        t = std::fma(A(4), B(4), t);
        t = std::fma(A(3), B(3), t);
        t = std::fma(A(0), B(0), t);
        return std::fma(A(1), B(1), t);
    }
    case 6:
        return std::fma(A(3), B(3), std::fma(A(4), B(4), A(1) * B(1))) +
               std::fma(A(5), B(5), std::fma(A(0), B(0), A(2) * B(2)));
    default: {
        T t = A(0) * B(0);
        for (int k = 1; k < n; ++k) t = std::fma(A(k), B(k), t);
        return t;
    }
    }
}

// Sixteen partial sums, lane q of the products q, q + 16, ... of the blocks, combined pairwise as
// q + 8, then q + 4, q + 2, q + 1, lower lane first.
inline float combine16(__m256 lo, __m256 hi) {
    const __m256 q = _mm256_add_ps(lo, hi);
    const __m128 r = _mm_add_ps(_mm256_castps256_ps128(q), _mm256_extractf128_ps(q, 1));
    const __m128 s = _mm_add_ps(r, _mm_movehl_ps(r, r));
    return _mm_cvtss_f32(_mm_add_ss(s, _mm_movehdup_ps(s)));
}
inline double combine16(__m256d a0, __m256d a1, __m256d a2, __m256d a3) {
    const __m256d r = _mm256_add_pd(_mm256_add_pd(a0, a2), _mm256_add_pd(a1, a3));
    const __m128d s = _mm_add_pd(_mm256_castpd256_pd128(r), _mm256_extractf128_pd(r, 1));
    return _mm_cvtsd_f64(_mm_add_sd(s, _mm_unpackhi_pd(s, s)));
}

// Contiguous lengths other than 3 to 6: t = t + a_k*b_k from t = 0 until b reaches a 32-byte
// boundary, blocks of 16 products into 16 partial sums (products rounded, then added), their
// combination added to t, then the tail one element at a time.
// Blocks of 16 elements from k on into vector accumulators, combined at the end; k is left at the
// first element not taken.
inline float blocks16(const float* a, const float* b, int& k, int n) {
    __m256 lo = _mm256_setzero_ps(), hi = _mm256_setzero_ps();
    for (; k + 16 <= n; k += 16) {
        lo = _mm256_add_ps(lo, _mm256_mul_ps(_mm256_loadu_ps(a + k), _mm256_load_ps(b + k)));
        hi = _mm256_add_ps(hi, _mm256_mul_ps(_mm256_loadu_ps(a + k + 8), _mm256_load_ps(b + k + 8)));
    }
    return combine16(lo, hi);
}
inline double blocks16(const double* a, const double* b, int& k, int n) {
    __m256d s0 = _mm256_setzero_pd(), s1 = s0, s2 = s0, s3 = s0;
    for (; k + 16 <= n; k += 16) {
        s0 = _mm256_add_pd(s0, _mm256_mul_pd(_mm256_loadu_pd(a + k), _mm256_load_pd(b + k)));
        s1 = _mm256_add_pd(s1, _mm256_mul_pd(_mm256_loadu_pd(a + k + 4), _mm256_load_pd(b + k + 4)));
        s2 = _mm256_add_pd(s2, _mm256_mul_pd(_mm256_loadu_pd(a + k + 8), _mm256_load_pd(b + k + 8)));
        s3 = _mm256_add_pd(s3, _mm256_mul_pd(_mm256_loadu_pd(a + k + 12), _mm256_load_pd(b + k + 12)));
    }
    return combine16(s0, s1, s2, s3);
}

template <class T>
T dotLong(const T* a, const T* b, int n) {
    const uintptr_t mis = reinterpret_cast<uintptr_t>(b) % 32;
    int head = mis == 0 ? 0 : mis % sizeof(T) ? n : int((32 - mis) / sizeof(T));
    if (head > n) head = n;
    T t = T(0);
    int k = 0;
    for (; k < head; ++k) t = t + a[k] * b[k];
    if (n - k >= 16) t = t + blocks16(a, b, k, n);
    for (; k < n; ++k) t = t + a[k] * b[k];
    return t;
}

// The contiguous path: with p_k = a_k*b_k rounded, length 3 (p0 + p1) + p2, length 4
// (p0 + p1) + (p2 + p3), lengths 5 and 6 that sum, then + p4, then + p5; other lengths dotLong.
template <class T>
T dotContiguous(const T* a, const T* b, int n) {
    auto p = [&](int k) { return a[k] * b[k]; };
    switch (n) {
    case 3: return (p(0) + p(1)) + p(2);
    case 4: return (p(0) + p(1)) + (p(2) + p(3));
    case 5: return ((p(0) + p(1)) + (p(2) + p(3))) + p(4);
    case 6: return (((p(0) + p(1)) + (p(2) + p(3))) + p(4)) + p(5);
    default: return dotLong(a, b, n);
    }
}

// Packed arrays (each object's elements follow each other and the objects follow each other, or a
// single contiguous second operand): a loop over element offsets known to the compiler, which it
// vectorises across objects; every object keeps the contiguous order of its length.
template <int N, bool BArray, class T>
void dotPacked(const T* a, const T* b, T* out, int32_t m) {
    for (int32_t k = 0; k < m; ++k) out[k] = dotContiguous<T>(a + ptrdiff_t(k) * N, BArray ? b + ptrdiff_t(k) * N : b, N);
}

template <bool BArray, class T>
bool dotPackedRun(int n, const T* a, const T* b, T* out, int32_t m) {
    switch (n) {
    case 3: dotPacked<3, BArray>(a, b, out, m); return true;
    case 4: dotPacked<4, BArray>(a, b, out, m); return true;
    case 5: dotPacked<5, BArray>(a, b, out, m); return true;
    case 6: dotPacked<6, BArray>(a, b, out, m); return true;
    default: return false;
    }
}

// ---- work figures and serial limits: an array stays serial while its work is at most the limit ----
//                                      work                std/_L contiguous  std/_L other  _P
constexpr int32_t kDotContiguous = 5000;  // vav (count+1)*len, vava 2*len*count
constexpr int32_t kDotStrided = 2620;
constexpr int32_t kDotPointer = 2400;
constexpr int32_t kCrossOneArray = 2999;  // vav, vva: 2*count (before the contiguity is looked at)
constexpr int32_t kCrossTwoArrays = 3000; // vava: 3*count

inline int32_t dotWork(Group g, const Dims& d) {
    return g == Group::vav ? ((Wrap32(d.count) + 1) * d.width).value() : (Wrap32(2) * d.width * d.count).value();
}

// Cross products have no size; their arrays test strides before count, and ROI shifts last.
inline constexpr CheckOrder kCrossOrder{Check::Null, Check::Stride, Check::Count, Check::RoiShift};

// ---- exported forms ----

template <Group G, Desc Dsc, class R, class A, class B>
OmkStatus dot(const R& result, const A& a, const B& b, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, a, b, result)) return st;
    using T = std::remove_const_t<typename A::Elem>;
    const int n = dims.width;
    const bool contiguous = elementsContiguous(a, b);
    const int32_t limit = Dsc == Desc::P ? kDotPointer : contiguous ? kDotContiguous : kDotStrided;
    const bool parallel = G != Group::vv && dotWork(G, dims) > limit;
    return overObjects(parallel, dims.count, [&](int32_t first, int32_t m) {
        const A as = a.from(first);
        const B bs = b.from(first);
        T* out = result.from(first).obj(0);
        if constexpr (Dsc == Desc::Std) {
            if (contiguous && as.packed(n, 1) && (!B::kArray || bs.packed(n, 1)) &&
                dotPackedRun<B::kArray>(n, as.obj(0).p, bs.obj(0).p, out, m))
                return omkStsOk;
        }
        if constexpr (Dsc != Desc::P) {
            if (contiguous) {
                for (int32_t k = 0; k < m; ++k) out[k] = dotContiguous<T>(as.obj(k).p, bs.obj(k).p, n);
                return omkStsOk;
            }
        }
        for (int32_t k = 0; k < m; ++k) out[k] = dotStrided<T>(as.obj(k), bs.obj(k), n);
        return omkStsOk;
    });
}

// c0 = fms(a1, b2, a2*b1), c1 = fms(a2, b0, a0*b2), c2 = fms(a0, b1, a1*b0); both sources are read
// whole before the destination is written, so it may coincide with either.
template <class T, class DO, class AO, class BO>
void crossObject(const DO& d, const AO& a, const BO& b) {
    const T a0 = a.at(0, 0), a1 = a.at(0, 1), a2 = a.at(0, 2);
    const T b0 = b.at(0, 0), b1 = b.at(0, 1), b2 = b.at(0, 2);
    const T c0 = fms(a1, b2, a2 * b1), c1 = fms(a2, b0, a0 * b2), c2 = fms(a0, b1, a1 * b0);
    d.at(0, 0) = c0;
    d.at(0, 1) = c1;
    d.at(0, 2) = c2;
}

// Packed arrays of 3-vectors: element offsets known to the compiler, vectorised across objects.
template <bool AArray, bool BArray, class T>
void crossPacked(T* d, const T* a, const T* b, int32_t m) {
    for (int32_t k = 0; k < m; ++k) {
        const T* x = AArray ? a + ptrdiff_t(k) * 3 : a;
        const T* y = BArray ? b + ptrdiff_t(k) * 3 : b;
        const T a0 = x[0], a1 = x[1], a2 = x[2], b0 = y[0], b1 = y[1], b2 = y[2];
        T* c = d + ptrdiff_t(k) * 3;
        c[0] = fms(a1, b2, a2 * b1);
        c[1] = fms(a2, b0, a0 * b2);
        c[2] = fms(a0, b1, a1 * b0);
    }
}

template <Group G, Desc Dsc, class D, class A, class B>
OmkStatus cross(const D& d, const A& a, const B& b, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kCrossOrder, dims, a, b, d)) return st;
    using T = std::remove_const_t<typename D::Elem>;
    const bool parallel = G == Group::vava ? (Wrap32(3) * dims.count).value() > kCrossTwoArrays
                        : G != Group::vv && (Wrap32(2) * dims.count).value() > kCrossOneArray;
    return overObjectsPacked(parallel, dims.count, [&](auto packed, int32_t first, int32_t m) {
        constexpr bool P = decltype(packed)::value;
        const D ds = d.from(first);
        const A as = a.from(first);
        const B bs = b.from(first);
        if constexpr (Dsc == Desc::Std && D::kArray) {
            auto packed3 = [](const auto& v) { return v.contiguous() && (!v.kArray || v.packed(3, 1)); };
            if (packed3(ds) && packed3(as) && packed3(bs)) {
                crossPacked<A::kArray, B::kArray>(ds.obj(0).p, as.obj(0).p, bs.obj(0).p, m);
                return omkStsOk;
            }
        }
        for (int32_t k = 0; k < m; ++k) crossObject<T>(objectOf<P>(ds, k), objectOf<P>(as, k), objectOf<P>(bs, k));
        return omkStsOk;
    }, d, a, b);
}

// ---- fixed sizes: contiguous floats, no checks ----

inline OmkStatus dotFixed2(const float* a, const float* b, float* d) {
    *d = std::fma(a[0], b[0], a[1] * b[1]);
    return omkStsOk;
}
inline OmkStatus dotFixed3(const float* a, const float* b, float* d) {
    *d = std::fma(a[2], b[2], std::fma(a[0], b[0], a[1] * b[1]));
    return omkStsOk;
}
inline OmkStatus dotFixed4(const float* a, const float* b, float* d) {
    *d = std::fma(a[1], b[1], a[2] * b[2]) + std::fma(a[0], b[0], a[3] * b[3]);
    return omkStsOk;
}
inline OmkStatus crossFixed2(const float* a, const float* b, float* d) {
    *d = fms(a[0], b[1], a[1] * b[0]);
    return omkStsOk;
}
inline OmkStatus crossFixed3(const float* a, const float* b, float* d) {
    const float c0 = fms(a[1], b[2], a[2] * b[1]), c1 = fms(a[2], b[0], a[0] * b[2]), c2 = fms(a[0], b[1], a[1] * b[0]);
    d[0] = c0, d[1] = c1, d[2] = c2;
    return omkStsOk;
}
// The 4-vector orthogonal to a, b and c: with the minors m_ij = fms(b_i, c_j, b_j*c_i), each
// result is fma(third term, fms(first, second product)) of its cofactor row, the odd ones negated
// as 0 - value. All sources are read before the destination is written.
inline OmkStatus crossFixed4(const float* a, const float* b, const float* c, float* d) {
    auto m = [&](int i, int j) { return fms(b[i], c[j], b[j] * c[i]); };
    const float m01 = m(0, 1), m02 = m(0, 2), m03 = m(0, 3), m12 = m(1, 2), m13 = m(1, 3), m23 = m(2, 3);
    const float a0 = a[0], a1 = a[1], a2 = a[2], a3 = a[3];
    const float r0 = std::fma(a3, m12, fms(a1, m23, a2 * m13));
    const float r1 = 0.0f - std::fma(a3, m02, fms(a0, m23, a2 * m03));
    const float r2 = std::fma(a3, m01, fms(a0, m13, a1 * m03));
    const float r3 = 0.0f - std::fma(a2, m01, fms(a0, m12, a1 * m02));
    d[0] = r0, d[1] = r1, d[2] = r2, d[3] = r3;
    return omkStsOk;
}

}  // namespace omk::dotcross
