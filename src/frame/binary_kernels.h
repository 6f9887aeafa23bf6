// Element-wise kernels d(i, j) = op(a(i, j), b(i, j)) over arrays of objects, for any operand views:
// the sums and differences of Add/Sub, the scaling by a constant and the scaled sums of Saxpy and
// LComb share them. An operation is a type with apply (one element) and packed (a vector of
// lanes); those with scalars of their own (Saxpy's scale) are passed as objects.
//
// Each element is the same fixed sequence of element-type operations in every lane and every path
// (packed lanes use the vector form of the scalar operations), so every path below gives the same
// bits; the paths differ only in how fast they walk memory:
//   packed    every array is one dense run and every single operand a constant: one long loop;
//   dense     every object is a dense run of width*height elements: one loop per object;
//   rows      rows are packed arrays: straight-line code for orders 3 to 6, else a loop per row;
//   strided   any other layout, pointer tables included: straight-line code for orders 3 to 6,
//             else rows with the element loop unrolled by two and one trailing element.
#pragma once
#include <immintrin.h>

#include <cstddef>
#include <type_traits>
#include <utility>

#include "frame/operand_views.h"
#include "frame/parallel_driver.h"

namespace omk {

// 256-bit packed arithmetic per element type.
template <class T> struct Simd;
template <> struct Simd<float> {
    using V = __m256;
    static constexpr int kLanes = 8;
    static V load(const float* p) { return _mm256_loadu_ps(p); }
    static V splat(float v) { return _mm256_set1_ps(v); }
    static void store(float* p, V v) { _mm256_storeu_ps(p, v); }
    static V add(V a, V b) { return _mm256_add_ps(a, b); }
    static V sub(V a, V b) { return _mm256_sub_ps(a, b); }
    static V mul(V a, V b) { return _mm256_mul_ps(a, b); }
};
template <> struct Simd<double> {
    using V = __m256d;
    static constexpr int kLanes = 4;
    static V load(const double* p) { return _mm256_loadu_pd(p); }
    static V splat(double v) { return _mm256_set1_pd(v); }
    static void store(double* p, V v) { _mm256_storeu_pd(p, v); }
    static V add(V a, V b) { return _mm256_add_pd(a, b); }
    static V sub(V a, V b) { return _mm256_sub_pd(a, b); }
    static V mul(V a, V b) { return _mm256_mul_pd(a, b); }
};

struct Plus {
    template <class T> static T apply(T a, T b) { return a + b; }
    template <class T> static auto packed(typename Simd<T>::V a, typename Simd<T>::V b) { return Simd<T>::add(a, b); }
};
struct Minus {
    template <class T> static T apply(T a, T b) { return a - b; }
    template <class T> static auto packed(typename Simd<T>::V a, typename Simd<T>::V b) { return Simd<T>::sub(a, b); }
};

struct Times {
    template <class T> static T apply(T a, T b) { return a * b; }
    template <class T> static auto packed(typename Simd<T>::V a, typename Simd<T>::V b) { return Simd<T>::mul(a, b); }
};

// A run source is either a pointer to packed elements or one scalar for all of them.
template <class T> inline typename Simd<T>::V loadRun(const T* x, ptrdiff_t j) { return Simd<T>::load(x + j); }
template <class T> inline typename Simd<T>::V loadRun(T x, ptrdiff_t) { return Simd<T>::splat(x); }
template <class T> inline T readRun(const T* x, ptrdiff_t j) { return x[j]; }
template <class T> inline T readRun(T x, ptrdiff_t) { return x; }

// d[j] = op(x[j], y[j]) for j < n, four vectors per step while they last.
template <class Op, class T, class X, class Y>
void applyRun(T* d, X x, Y y, ptrdiff_t n, const Op& op = Op{}) {
    using S = Simd<T>;
    constexpr int L = S::kLanes;
    ptrdiff_t j = 0;
    for (; j + 4 * L <= n; j += 4 * L) {
        const auto r0 = op.template packed<T>(loadRun<T>(x, j), loadRun<T>(y, j));
        const auto r1 = op.template packed<T>(loadRun<T>(x, j + L), loadRun<T>(y, j + L));
        const auto r2 = op.template packed<T>(loadRun<T>(x, j + 2 * L), loadRun<T>(y, j + 2 * L));
        const auto r3 = op.template packed<T>(loadRun<T>(x, j + 3 * L), loadRun<T>(y, j + 3 * L));
        S::store(d + j, r0);
        S::store(d + j + L, r1);
        S::store(d + j + 2 * L, r2);
        S::store(d + j + 3 * L, r3);
    }
    for (; j + L <= n; j += L) S::store(d + j, op.template packed<T>(loadRun<T>(x, j), loadRun<T>(y, j)));
    for (; j < n; ++j) d[j] = op.apply(readRun<T>(x, j), readRun<T>(y, j));
}

// Whole object, element by element. With W and H non-zero the sizes are compile-time constants and
// the loops unroll to straight-line code; otherwise the element loop is unrolled by two.
template <int W, int H, class Op, class DO, class AO, class BO>
inline void applyObject(const DO& d, const AO& a, const BO& b, int w, int h, const Op& op = Op{}) {
    const int ww = W ? W : w, hh = H ? H : h;
#pragma GCC unroll 6
    for (int i = 0; i < hh; ++i) {
        int j = 0;
#pragma GCC unroll 3
        for (; j + 1 < ww; j += 2) {
            d.at(i, j) = op.apply(a.at(i, j), b.at(i, j));
            d.at(i, j + 1) = op.apply(a.at(i, j + 1), b.at(i, j + 1));
        }
        if (j < ww) d.at(i, j) = op.apply(a.at(i, j), b.at(i, j));
    }
}

// One object of compile-time shape W x H, all of both operands read before any element of the
// destination is written: with no store between the loads the compiler keeps the rows in vector
// registers, and a destination that coincides with an operand is still read whole first.
template <int W, int H, class Op, class DO, class AO, class BO>
inline void applyObjectReadFirst(const DO& d, const AO& a, const BO& b, const Op& op = Op{}) {
    using T = std::remove_cv_t<std::remove_reference_t<decltype(d.at(0, 0))>>;
    T r[H][W];
#pragma GCC unroll 6
    for (int i = 0; i < H; ++i)
#pragma GCC unroll 6
        for (int j = 0; j < W; ++j) r[i][j] = op.apply(T(a.at(i, j)), T(b.at(i, j)));
#pragma GCC unroll 6
    for (int i = 0; i < H; ++i)
#pragma GCC unroll 6
        for (int j = 0; j < W; ++j) d.at(i, j) = r[i][j];
}

// Calls f with the compile-time shape of the straight-line kernels — square orders 3 to 6 for
// matrices, lengths 3 to 6 for vectors — or with <0, 0> for every other shape.
template <bool Matrix, class F>
inline void withShape(int w, int h, F&& f) {
    using std::integral_constant;
    // Order n: n x n for matrices, n x 1 for vectors.
    const auto order = [&](auto n) { f(n, integral_constant<int, Matrix ? decltype(n)::value : 1>{}); };
    if ((Matrix ? w == h : h == 1) && w >= 3 && w <= 6) {
        switch (w) {
        case 3: return order(integral_constant<int, 3>{});
        case 4: return order(integral_constant<int, 4>{});
        case 5: return order(integral_constant<int, 5>{});
        case 6: return order(integral_constant<int, 6>{});
        }
    }
    f(integral_constant<int, 0>{}, integral_constant<int, 0>{});
}

// Start of a dense object's run, or the constant itself.
template <class T> inline T* runOf(const StridedObject<T>& o) { return o.p; }
template <class T> inline std::remove_const_t<T> runOf(const ScalarObject<T>& o) { return o.v; }
template <class T> inline T* rowRun(const StridedObject<T>& o, int i) { return o.row(i); }
template <class T> inline std::remove_const_t<T> rowRun(const ScalarObject<T>& o, int) { return o.v; }

template <class V> inline bool denseObjects(const V& v, int32_t w, int32_t h) {
    if constexpr (V::kLayout == Layout::Scalar) return true;
    else return v.denseObjects(w, h);
}

// Serial kernel over objects 0..count-1 of the views.
template <class Op, class D, class A, class B>
void binarySerial(const D& d, const A& a, const B& b, int32_t w, int32_t h, int32_t count, const Op& op = Op{}) {
    constexpr bool noTables = D::kLayout == Layout::Strided && A::kLayout != Layout::Scattered &&
                              B::kLayout != Layout::Scattered;
    if constexpr (noTables) {
        if (unitColumns(d) && unitColumns(a) && unitColumns(b)) {
            if (d.packed(w, h) && a.packed(w, h) && b.packed(w, h)) {
                applyRun(runOf(d.obj(0)), runOf(a.obj(0)), runOf(b.obj(0)), ptrdiff_t(count) * w * h, op);
                return;
            }
            if (denseObjects(d, w, h) && denseObjects(a, w, h) && denseObjects(b, w, h)) {
                for (int32_t k = 0; k < count; ++k)
                    applyRun(runOf(d.obj(k)), runOf(a.obj(k)), runOf(b.obj(k)), ptrdiff_t(w) * h, op);
                return;
            }
            // Vectors with packed elements are dense and never get here.
            if constexpr (D::kMatrix) withShape<true>(w, h, [&](auto W, auto H) {
                for (int32_t k = 0; k < count; ++k) {
                    if constexpr (W != 0) {
                        applyObject<W, H>(unitCols(d.obj(k)), unitCols(a.obj(k)), unitCols(b.obj(k)), w, h, op);
                    } else {
                        const auto dk = d.obj(k);
                        const auto ak = a.obj(k);
                        const auto bk = b.obj(k);
                        for (int32_t i = 0; i < h; ++i) applyRun(rowRun(dk, i), rowRun(ak, i), rowRun(bk, i), w, op);
                    }
                }
            });
            return;
        }
    }
    withShape<D::kMatrix>(w, h, [&](auto W, auto H) {
        for (int32_t k = 0; k < count; ++k) applyObject<W, H>(d.obj(k), a.obj(k), b.obj(k), w, h, op);
    });
}

// Runs the serial kernel on the calling thread, or through the parallel driver in slices.
template <class Op, class D, class A, class B>
OmkStatus binaryOverObjects(bool parallel, const D& d, const A& a, const B& b, const Dims& s, const Op& op = Op{}) {
    if (!parallel) {
        binarySerial(d, a, b, s.width, s.height, s.count, op);
        return omkStsOk;
    }
    return runOverObjects(s.count, [&](int32_t first, int32_t m, char*) {
        binarySerial(d.from(first), a.from(first), b.from(first), s.width, s.height, m, op);
        return omkStsOk;
    });
}

}  // namespace omk
