// Kernels of the matrix and vector products: dst(i, j) = sum over k of A(i, k) * B(k, j), with A
// and B as the operation uses them (a transposed operand is a view with its steps exchanged, a
// vector a view of one column).
//
// The rounding order of every destination element is fixed by the kernel that computes it:
//
//   path         order 3..6 (every dimension n)             other sizes
//   contiguous   chain: t = a1*b1, t = fma(a0, b0, t),       eight lanes: p[k % 8] = fma(a_k, b_k, p[k % 8])
//                then t = fma(ak, bk, t) for k = 2..n-1      from +0, then ((p0+p4)+(p2+p6))+((p1+p5)+(p3+p7))
//   strided      the tabled orders of strided3..strided6     pairs of rounded products added to t = +0,
//                                                            an odd last term fused
//   pointer      as strided                                  d = +0, then d = fma(a_k, b_k, d)
//
// The contiguous path is taken by the standard and layout descriptions when the element strides
// of both sources and of the destination are the element size; the pointer path by the pointer
// description. How a kernel walks memory never changes a result: the packed row kernels below
// compute whole destination rows, one column per lane, in exactly the chain order.
#pragma once
#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "frame/operand_views.h"

namespace omk::mul {

enum class Path { Contiguous, Strided, Pointer };

// ---- one destination element from its n terms a[k], b[k] ----

// t = a1*b1; t = fma(a0, b0, t); t = fma(ak, bk, t) for k = 2..n-1.
template <int N, class T>
inline T chainOrder(const T* a, const T* b) {
    T t = a[1] * b[1];
    t = std::fma(a[0], b[0], t);
#pragma GCC unroll 4
    for (int k = 2; k < N; ++k) t = std::fma(a[k], b[k], t);
    return t;
}

template <class T>
inline T strided3(const T* a, const T* b) { return std::fma(a[2], b[2], std::fma(a[0], b[0], a[1] * b[1])); }
template <class T>
inline T strided4(const T* a, const T* b) { return std::fma(a[1], b[1], a[2] * b[2]) + std::fma(a[0], b[0], a[3] * b[3]); }
template <class T>
inline T strided6(const T* a, const T* b) {
    return std::fma(a[1], b[1], std::fma(a[2], b[2], a[4] * b[4])) + std::fma(a[0], b[0], std::fma(a[3], b[3], a[5] * b[5]));
}

// The order of a straight-line element of order N on a path. The pointer description uses the
// strided orders; order 5 is the chain on every path.
template <Path P, int N, class T>
inline T fixedOrder(const T* a, const T* b) {
    if constexpr (P == Path::Contiguous || N == 5) return chainOrder<N>(a, b);
    else if constexpr (N == 3) return strided3(a, b);
    else if constexpr (N == 4) return strided4(a, b);
    else return strided6(a, b);
}

// Other sizes, K terms given by term(k, a, b).
template <Path P, class T, class Term>
inline T generalOrder(int K, Term&& term) {
    if constexpr (P == Path::Strided) {
        T t = T(0);
        int k = 0;
        for (; k + 1 < K; k += 2) {
            T a, b;
            term(k, a, b);
            t = t + a * b;
            term(k + 1, a, b);
            t = t + a * b;
        }
        if (k < K) {
            T a, b;
            term(k, a, b);
            t = std::fma(a, b, t);
        }
        return t;
    } else if constexpr (P == Path::Pointer) {
        T d = T(0);
        for (int k = 0; k < K; ++k) {
            T a, b;
            term(k, a, b);
            d = std::fma(a, b, d);
        }
        return d;
    } else {
        // Eight lane sums over the inner index, reduced as the 256-bit halves and then the pairs of
        // a register are added.
        T p[8] = {T(0), T(0), T(0), T(0), T(0), T(0), T(0), T(0)};
        for (int k = 0; k < K; ++k) {
            T a, b;
            term(k, a, b);
            p[k & 7] = std::fma(a, b, p[k & 7]);
        }
        return ((p[0] + p[4]) + (p[2] + p[6])) + ((p[1] + p[5]) + (p[3] + p[7]));
    }
}

// ---- packed rows: one destination row at once, one column per lane ----

// A row of N elements of T held in one register of Lanes >= N lanes (lanes past N are zero on
// load and never stored). Loads and stores touch exactly the N elements.
template <class T, int N> struct Row;

// Orders up to 4 fit a 128-bit register of floats, 5 and 6 a 256-bit one.
template <bool Wide> struct FloatRegister { using V = __m128; };
template <> struct FloatRegister<true> { using V = __m256; };

// Two floats moved as one 64-bit word; the unaligned integer forms, because float rows are only
// 4-byte aligned.
inline __m128 loadTwo(const float* p) { return _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i_u*>(p))); }
inline void storeTwo(float* p, __m128 v) { _mm_storel_epi64(reinterpret_cast<__m128i_u*>(p), _mm_castps_si128(v)); }

template <int N> struct Row<float, N> {
    static_assert(N >= 3 && N <= 6);
    using V = typename FloatRegister<(N > 4)>::V;
    static V load(const float* p) {
        if constexpr (N == 3) return _mm_movelh_ps(loadTwo(p), _mm_load_ss(p + 2));
        else if constexpr (N == 4) return _mm_loadu_ps(p);
        else if constexpr (N == 5) return _mm256_set_m128(_mm_load_ss(p + 4), _mm_loadu_ps(p));
        else return _mm256_set_m128(loadTwo(p + 4), _mm_loadu_ps(p));
    }
    static void store(float* p, V v) {
        if constexpr (N == 3) {
            storeTwo(p, v);
            _mm_store_ss(p + 2, _mm_movehl_ps(v, v));
        } else if constexpr (N == 4) {
            _mm_storeu_ps(p, v);
        } else {
            _mm_storeu_ps(p, _mm256_castps256_ps128(v));
            const __m128 hi = _mm256_extractf128_ps(v, 1);
            if constexpr (N == 5) _mm_store_ss(p + 4, hi);
            else storeTwo(p + 4, hi);
        }
    }
    // Whole-register forms for a row that is followed by more elements of the same object: the
    // lanes past N read the next row, and a wide store's extra lanes are rewritten by the next
    // row's store.
    static V loadWide(const float* p) {
        if constexpr (N <= 4) return _mm_loadu_ps(p);
        else return _mm256_loadu_ps(p);
    }
    static void storeWide(float* p, V v) {
        if constexpr (N <= 4) _mm_storeu_ps(p, v);
        else _mm256_storeu_ps(p, v);
    }
    static V splat(float x) {
        if constexpr (N <= 4) return _mm_set1_ps(x);
        else return _mm256_set1_ps(x);
    }
    static V mul(V a, V b) {
        if constexpr (N <= 4) return _mm_mul_ps(a, b);
        else return _mm256_mul_ps(a, b);
    }
    static V fma(V a, V b, V c) {
        if constexpr (N <= 4) return _mm_fmadd_ps(a, b, c);
        else return _mm256_fmadd_ps(a, b, c);
    }
};

// Doubles: orders 3 and 4 in one 256-bit register; 5 and 6 in one 256-bit register and the
// remaining one or two lanes in a 128-bit one.
template <int N> struct Row<double, N> {
    static_assert(N >= 3 && N <= 6);
    struct V {
        __m256d lo;
        __m128d hi;
    };
    static V load(const double* p) {
        if constexpr (N == 3) return {_mm256_set_m128d(_mm_load_sd(p + 2), _mm_loadu_pd(p)), _mm_setzero_pd()};
        else if constexpr (N == 4) return {_mm256_loadu_pd(p), _mm_setzero_pd()};
        else if constexpr (N == 5) return {_mm256_loadu_pd(p), _mm_load_sd(p + 4)};
        else return {_mm256_loadu_pd(p), _mm_loadu_pd(p + 4)};
    }
    static void store(double* p, V v) {
        if constexpr (N == 3) {
            _mm_storeu_pd(p, _mm256_castpd256_pd128(v.lo));
            _mm_store_sd(p + 2, _mm256_extractf128_pd(v.lo, 1));
        } else {
            _mm256_storeu_pd(p, v.lo);
            if constexpr (N == 5) _mm_store_sd(p + 4, v.hi);
            else if constexpr (N == 6) _mm_storeu_pd(p + 4, v.hi);
        }
    }
    static V loadWide(const double* p) {
        if constexpr (N <= 4) return {_mm256_loadu_pd(p), _mm_setzero_pd()};
        else return {_mm256_loadu_pd(p), _mm_loadu_pd(p + 4)};
    }
    static void storeWide(double* p, V v) {
        _mm256_storeu_pd(p, v.lo);
        if constexpr (N > 4) _mm_storeu_pd(p + 4, v.hi);
    }
    static V splat(double x) { return {_mm256_set1_pd(x), _mm_set1_pd(x)}; }
    static V mul(V a, V b) {
        V r{_mm256_mul_pd(a.lo, b.lo), _mm_setzero_pd()};
        if constexpr (N > 4) r.hi = _mm_mul_pd(a.hi, b.hi);
        return r;
    }
    static V fma(V a, V b, V c) {
        V r{_mm256_fmadd_pd(a.lo, b.lo, c.lo), _mm_setzero_pd()};
        if constexpr (N > 4) r.hi = _mm_fmadd_pd(a.hi, b.hi, c.hi);
        return r;
    }
};

// dst rows = A * B for one object of order N whose B and destination rows are packed (unit
// column step); A is read element by element through its view. Every lane runs the chain order.
// With Dense, the rows of B and of the destination follow each other without a gap, so every row
// but the last is read and written with whole registers.
// Doubles of order 5 and 6: the first four columns of a row in one 256-bit register, and the last
// one or two columns of two rows together in another, so a pair of rows takes three fused
// operations per term instead of four. The terms run in the outer loop (k = 1, 0, 2, ..., N-1,
// the chain order of every lane), so each row of B is loaded once and all accumulators stay in
// registers.
template <int N, class AO>
[[gnu::always_inline]] inline void chainRowPairs(double* d, ptrdiff_t dRow, const AO a, const double* b, ptrdiff_t bRow) {
    static_assert(N == 5 || N == 6);
    constexpr int P = (N + 1) / 2;  // row pairs; the odd last row of order 5 pairs with itself
    __m256d lo[N], hi[P];
#pragma GCC unroll 6
    for (int s = 0; s < N; ++s) {
        const int k = s == 0 ? 1 : s == 1 ? 0 : s;
        const double* bk = addBytes(b, k * bRow);
        const __m256d bl = _mm256_loadu_pd(bk);
        // Columns 4 (and 5) of row k of B, repeated in both halves.
        const __m256d bh = N == 6 ? _mm256_broadcast_pd(reinterpret_cast<const __m128d*>(bk + 4)) : _mm256_broadcast_sd(bk + 4);
#pragma GCC unroll 3
        for (int p = 0; p < P; ++p) {
            const int i = 2 * p, j = i + 1 < N ? i + 1 : i;
            const __m256d x = _mm256_set1_pd(a.at(i, k)), y = _mm256_set1_pd(a.at(j, k));
            const __m256d h = _mm256_blend_pd(x, y, 0b1100);
            if (s == 0) {
                lo[i] = _mm256_mul_pd(x, bl);
                if (j != i) lo[j] = _mm256_mul_pd(y, bl);
                hi[p] = _mm256_mul_pd(h, bh);
            } else {
                lo[i] = _mm256_fmadd_pd(x, bl, lo[i]);
                if (j != i) lo[j] = _mm256_fmadd_pd(y, bl, lo[j]);
                hi[p] = _mm256_fmadd_pd(h, bh, hi[p]);
            }
        }
    }
#pragma GCC unroll 6
    for (int i = 0; i < N; ++i) {
        double* di = addBytes(d, i * dRow);
        _mm256_storeu_pd(di, lo[i]);
        const __m128d h = i % 2 == 0 ? _mm256_castpd256_pd128(hi[i / 2]) : _mm256_extractf128_pd(hi[i / 2], 1);
        if constexpr (N == 6) _mm_storeu_pd(di + 4, h);
        else _mm_store_sd(di + 4, h);
    }
}

template <int N, bool Dense, class T, class AO>
[[gnu::always_inline]] inline void chainRows(T* d, ptrdiff_t dRow, const AO a, const T* b, ptrdiff_t bRow) {
    if constexpr (std::is_same_v<T, double> && N >= 5) {
        return chainRowPairs<N>(d, dRow, a, b, bRow);
    }
    using R = Row<T, N>;
    typename R::V brow[N];
#pragma GCC unroll 6
    for (int k = 0; k < N; ++k)
        brow[k] = Dense && k + 1 < N ? R::loadWide(addBytes(b, k * bRow)) : R::load(addBytes(b, k * bRow));
#pragma GCC unroll 6
    for (int i = 0; i < N; ++i) {
        auto t = R::mul(R::splat(a.at(i, 1)), brow[1]);
        t = R::fma(R::splat(a.at(i, 0)), brow[0], t);
#pragma GCC unroll 4
        for (int k = 2; k < N; ++k) t = R::fma(R::splat(a.at(i, k)), brow[k], t);
        if (Dense && i + 1 < N) R::storeWide(addBytes(d, i * dRow), t);
        else R::store(addBytes(d, i * dRow), t);
    }
}

// dst = A * B for one 3x3 object whose rows follow each other without a gap in all three
// operands. Rows 0 and 1 of the result share a 256-bit register, one per half, and row 2 takes a
// 128-bit one; every lane runs the chain order. A's first eight elements come in one load and
// each term's multipliers for rows 0 and 1 are spread from it by one permutation (instead of six
// broadcasts from memory: the loads, not the fused operations, bound the row-by-row kernel). Row
// k of B is repeated in both halves. Nothing outside the three objects is read or written: B's
// last row is read from one element earlier and moved into place, and the result's rows are
// stored in order, each 4-lane store's fourth element rewritten by the next row.
// With BPastEnd the caller vouches that the element after B is readable (another object of the
// array follows), and B's last row is read in place.
template <bool BPastEnd = false>
[[gnu::always_inline]] inline void rows3x3(float* d, const float* a, const float* b) {
    const __m256 a01 = _mm256_loadu_ps(a);  // a00 ... a21
    const __m256 b0 = _mm256_broadcast_ps(reinterpret_cast<const __m128*>(b));
    const __m256 b1 = _mm256_broadcast_ps(reinterpret_cast<const __m128*>(b + 3));
    const __m256 b2 = BPastEnd ? _mm256_broadcast_ps(reinterpret_cast<const __m128*>(b + 6))
                               : _mm256_permute_ps(_mm256_broadcast_ps(reinterpret_cast<const __m128*>(b + 5)), 0xF9);
    const __m256 s0 = _mm256_permutevar8x32_ps(a01, _mm256_setr_epi32(0, 0, 0, 0, 3, 3, 3, 3));
    const __m256 s1 = _mm256_permutevar8x32_ps(a01, _mm256_setr_epi32(1, 1, 1, 1, 4, 4, 4, 4));
    const __m256 s2 = _mm256_permutevar8x32_ps(a01, _mm256_setr_epi32(2, 2, 2, 2, 5, 5, 5, 5));
    __m256 t = _mm256_mul_ps(s1, b1);
    t = _mm256_fmadd_ps(s0, b0, t);
    t = _mm256_fmadd_ps(s2, b2, t);
    __m128 u = _mm_mul_ps(_mm_broadcast_ss(a + 7), _mm256_castps256_ps128(b1));
    u = _mm_fmadd_ps(_mm_broadcast_ss(a + 6), _mm256_castps256_ps128(b0), u);
    u = _mm_fmadd_ps(_mm_broadcast_ss(a + 8), _mm256_castps256_ps128(b2), u);
    _mm_storeu_ps(d, _mm256_castps256_ps128(t));
    _mm_storeu_ps(d + 3, _mm256_extractf128_ps(t, 1));
    Row<float, 3>::store(d + 6, u);
}

// The same for doubles, one row per 256-bit register: each row of A comes in one load (the last
// from one element earlier) and its three multipliers are spread by permutations, B's last row
// likewise (read in place with BPastEnd), so the object takes six loads instead of twelve.
template <bool BPastEnd = false>
[[gnu::always_inline]] inline void rows3x3(double* d, const double* a, const double* b) {
    const __m256d b0 = _mm256_loadu_pd(b), b1 = _mm256_loadu_pd(b + 3);
    const __m256d b2 = BPastEnd ? _mm256_loadu_pd(b + 6) : _mm256_permute4x64_pd(_mm256_loadu_pd(b + 5), 0xF9);
    const __m256d a0 = _mm256_loadu_pd(a), a1 = _mm256_loadu_pd(a + 3), a2 = _mm256_loadu_pd(a + 5);
    auto row = [&](__m256d x0, __m256d x1, __m256d x2) {
        const __m256d t = _mm256_mul_pd(x1, b1);
        return _mm256_fmadd_pd(x2, b2, _mm256_fmadd_pd(x0, b0, t));
    };
    const __m256d r0 = row(_mm256_permute4x64_pd(a0, 0x00), _mm256_permute4x64_pd(a0, 0x55), _mm256_permute4x64_pd(a0, 0xAA));
    const __m256d r1 = row(_mm256_permute4x64_pd(a1, 0x00), _mm256_permute4x64_pd(a1, 0x55), _mm256_permute4x64_pd(a1, 0xAA));
    const __m256d r2 = row(_mm256_permute4x64_pd(a2, 0x55), _mm256_permute4x64_pd(a2, 0xAA), _mm256_permute4x64_pd(a2, 0xFF));
    _mm256_storeu_pd(d, r0);
    _mm256_storeu_pd(d + 3, r1);
    _mm_storeu_pd(d + 6, _mm256_castpd256_pd128(r2));
    _mm_store_sd(d + 8, _mm256_extractf128_pd(r2, 1));
}

// dst = A * B for 4x4 floats whose rows are all packed: rows (0, 1) and (2, 3) of the result in
// two 256-bit registers. Element k of each half of an A row pair is spread over its half and row k
// of B is repeated in both halves, so every lane runs the chain order. Both sources are read
// whole before the destination is written. Aligned selects 16-byte aligned row loads.
template <bool Aligned = false>
inline __m128 floatRow4(const float* p) { return Aligned ? _mm_load_ps(p) : _mm_loadu_ps(p); }

template <bool Aligned = false>
[[gnu::always_inline]] inline void rowPairs4x4(float* d, ptrdiff_t dRow, const float* a, ptrdiff_t aRow, const float* b, ptrdiff_t bRow) {
    auto row = [](const float* p, ptrdiff_t i, ptrdiff_t pitch) { return floatRow4<Aligned>(addBytes(p, i * pitch)); };
    const __m256 a01 = _mm256_set_m128(row(a, 1, aRow), row(a, 0, aRow));
    const __m256 a23 = _mm256_set_m128(row(a, 3, aRow), row(a, 2, aRow));
    const __m128 b0 = row(b, 0, bRow), b1 = row(b, 1, bRow), b2 = row(b, 2, bRow), b3 = row(b, 3, bRow);
    const __m256 r0 = _mm256_set_m128(b0, b0), r1 = _mm256_set_m128(b1, b1);
    const __m256 r2 = _mm256_set_m128(b2, b2), r3 = _mm256_set_m128(b3, b3);
    auto rows = [&](__m256 ap) {
        __m256 t = _mm256_mul_ps(_mm256_permute_ps(ap, 0x55), r1);
        t = _mm256_fmadd_ps(_mm256_permute_ps(ap, 0x00), r0, t);
        t = _mm256_fmadd_ps(_mm256_permute_ps(ap, 0xAA), r2, t);
        return _mm256_fmadd_ps(_mm256_permute_ps(ap, 0xFF), r3, t);
    };
    const __m256 d01 = rows(a01), d23 = rows(a23);
    if (dRow == 16) {
        _mm256_storeu_ps(d, d01);
        _mm256_storeu_ps(d + 8, d23);
    } else {
        _mm_storeu_ps(d, _mm256_castps256_ps128(d01));
        _mm_storeu_ps(addBytes(d, dRow), _mm256_extractf128_ps(d01, 1));
        _mm_storeu_ps(addBytes(d, 2 * dRow), _mm256_castps256_ps128(d23));
        _mm_storeu_ps(addBytes(d, 3 * dRow), _mm256_extractf128_ps(d23, 1));
    }
}

// ---- one object ----

// dst = A * B for one object: rows M, inner K, columns Ncols; with N non-zero the object is of
// straight-line order N (rows and inner index N, Ncols N or 1 for a vector).
template <Path P, int N, class DO, class AO, class BO>
inline void productObject(const DO& d, const AO& a, const BO& b, int M, int K, int Ncols) {
    using T = std::remove_const_t<std::remove_reference_t<decltype(a.at(0, 0))>>;
    if constexpr (N != 0) {
        const int cols = Ncols;
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < cols; ++j) {
                T av[N], bv[N];
#pragma GCC unroll 6
                for (int k = 0; k < N; ++k) {
                    av[k] = a.at(i, k);
                    bv[k] = b.at(k, j);
                }
                d.at(i, j) = fixedOrder<P, N>(av, bv);
            }
    } else {
        for (int i = 0; i < M; ++i)
            for (int j = 0; j < Ncols; ++j)
                d.at(i, j) = generalOrder<P, T>(K, [&](int k, T& x, T& y) {
                    x = a.at(i, k);
                    y = b.at(k, j);
                });
    }
}

}  // namespace omk::mul
