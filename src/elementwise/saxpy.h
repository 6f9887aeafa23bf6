// Saxpy and LComb: scaled sums of vectors, single or in arrays, in the standard, pointer (_P) and
// layout (_L) descriptions, on the element-wise kernels of Add and Sub.
//
//   Saxpy  dst = fma(scale, src1, src2)                   one rounding
//   LComb  dst = fma(scale2, src2, round(scale1 * src1))  the first product rounded, the second fused
//
// The LComb asymmetry is kept on purpose: exchanging the operands with their scales can change the
// last bit.
#pragma once
#include <immintrin.h>

#include <cmath>
#include <type_traits>

#include "elementwise/add_sub.h"
#include "frame/binary_kernels.h"
#include "frame/checks.h"
#include "frame/operand_views.h"

namespace omk::saxpy {

using addsub::Desc;
enum class Group { vv, vav, vva, vava };
enum class Family { Saxpy, LComb };

template <class T> inline __m256 fmaLanes(__m256 a, __m256 b, __m256 c) { return _mm256_fmadd_ps(a, b, c); }
template <class T> inline __m256d fmaLanes(__m256d a, __m256d b, __m256d c) { return _mm256_fmadd_pd(a, b, c); }

template <class T>
struct ScaledSum {
    T scale;
    T apply(T a, T b) const { return std::fma(scale, a, b); }
    template <class U>
    typename Simd<T>::V packed(typename Simd<T>::V a, typename Simd<T>::V b) const {
        return fmaLanes<T>(Simd<T>::splat(scale), a, b);
    }
};

template <class T>
struct Combination {
    T scale1, scale2;
    T apply(T a, T b) const { return std::fma(scale2, b, scale1 * a); }
    template <class U>
    typename Simd<T>::V packed(typename Simd<T>::V a, typename Simd<T>::V b) const {
        return fmaLanes<T>(Simd<T>::splat(scale2), b, Simd<T>::mul(Simd<T>::splat(scale1), a));
    }
};

// ---- work figures (signed 32-bit, wrapping) and serial bounds ----
// vav and vva (2*count + 1)*len, vava 3*count*len; vv never goes parallel. A call stays serial while
// its work is at most the bound.
constexpr int32_t workOf(Group g, const Dims& d) {
    switch (g) {
    case Group::vav: case Group::vva: return addsub::vectorAndArray(d);
    case Group::vava: return addsub::twoVectorArrays(d);
    default: return 0;
    }
}

struct Bounds {
    int32_t contiguous, strided;
};
template <class T>
constexpr Bounds boundsOf(Family f, Group g, Desc d) {
    constexpr bool f32 = std::is_same_v<T, float>;
    if (f == Family::LComb) return d == Desc::L && f32 ? Bounds{4500, 3750} : Bounds{4500, 4500};
    switch (d) {
    case Desc::P: return {1200, 1200};
    case Desc::L: return !f32 ? Bounds{1000, 1000} : g == Group::vva ? Bounds{1500, 1500} : Bounds{1500, 1000};
    default: return f32 ? Bounds{3000, 2000} : Bounds{3000, 1200};
    }
}

// Checks in the library's order (null, count, size, stride, ROI shift; a single vector call has
// count 1), then the serial kernel or the driver. Contiguous: all three element strides are the
// element size.
template <Family F, Group G, Desc Dsc, class D, class A, class B, class Op>
OmkStatus scaledSum(const D& d, const A& a, const B& b, const Dims& dims, const Op& op) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, a, b, d)) return st;
    using T = std::remove_const_t<typename D::Elem>;
    const Bounds bounds = boundsOf<T>(F, G, Dsc);
    const bool parallel =
        G != Group::vv && workOf(G, dims) > (elementsContiguous(d, a, b) ? bounds.contiguous : bounds.strided);
    return binaryOverObjects(parallel, d, a, b, dims, op);
}

template <Group G, Desc Dsc, class D, class A, class B, class T>
OmkStatus axpy(const D& d, const A& a, T scale, const B& b, const Dims& dims) {
    return scaledSum<Family::Saxpy, G, Dsc>(d, a, b, dims, ScaledSum<T>{scale});
}

template <Group G, Desc Dsc, class D, class A, class B, class T>
OmkStatus linearCombination(const D& d, const A& a, T scale1, const B& b, T scale2, const Dims& dims) {
    return scaledSum<Family::LComb, G, Dsc>(d, a, b, dims, Combination<T>{scale1, scale2});
}

}  // namespace omk::saxpy
