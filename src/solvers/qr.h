// QR decomposition by Householder reflections of matrices with height >= width, and the solution of
// A*x = b through it (least squares for height > width), single or in arrays, in the standard,
// pointer (_P) and layout (_L) descriptions.
//
// The factor has the source's shape: R on and above the diagonal, below it the Householder vector
// of each reflection k (its leading entry v_k = 1 implied). H_k = I + beta_k*v*v' with
// beta_k = -2 / (v'v). A square matrix has width - 1 reflections, any other width. The exported
// functions (qr_entries.cpp) are one line each.
#pragma once
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/parallel_driver.h"
#include "frame/wrapping.h"
#include "solvers/solver_arrays.h"

namespace omk::qr {

using solve::Desc;
using solve::Group;

// Null pointers, count, sizes, strides, ROI shifts, then width > height: the size agreement comes
// last.
inline constexpr CheckOrder kOrder{Check::Null, Check::Count, Check::Size, Check::Stride, Check::RoiShift,
                                   Check::Agreement};
struct Sizes : Dims {
    bool disagree() const { return width > height; }
};

// ---- serial limit: an array call stays serial while its work is below it, in every member ----
constexpr int32_t kLimit = 2801;

inline int32_t qrWork(Group g, const Dims& d) {
    const Wrap32 w = d.width, h = d.height, c = d.count;
    switch (g) {
    case Group::ma: return (Wrap32(2) * w * h * c).value();
    case Group::mva: return (w * h + (w + h) * c).value();
    case Group::mava: return ((w * (h + 1) + h) * c).value();
    default: return 0;
    }
}

template <class T> constexpr T kEps = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);

inline int reflections(int w, int h) { return w == h ? w - 1 : w; }

// ---- decomposition of one matrix ----
// Copy; then for each reflection k: s = sum over i >= k of a(i, k)^2 (t = t + x*x from 0), below
// eps in magnitude stops with omkStsDivByZero; alpha = sqrt(s) when a(k, k) > 0, else -sqrt(s);
// q = 1/(a(k, k) + alpha); v_k = 1 and v_i = a(i, k)*q in `v`; v'v = 1 + the squares in pairs of
// rounded products, an odd last square fused; beta = -2/(v'v). Every column j >= k:
// t = sum of v_i*a(i, j) from 0 in increasing i, then a(i, j) = fma(beta*t, v_i, a(i, j)). The
// vector then goes below the diagonal.
template <int N, class T, class DO, class SO>
OmkStatus decompObject(const DO& a, const SO& src, T* v, int wArg, int hArg) {
    const int w = N ? N : wArg, h = N ? N : hArg;
    for (int i = 0; i < h; ++i)
        for (int j = 0; j < w; ++j) a.at(i, j) = src.at(i, j);
    const int r = reflections(w, h);
    for (int k = 0; k < r; ++k) {
        T s = T(0);
        for (int i = k; i < h; ++i) {
            const T x = a.at(i, k);
            s = s + x * x;
        }
        if (std::fabs(s) < kEps<T>) return omkStsDivByZero;
        const T akk = a.at(k, k);
        const T alpha = akk > T(0) ? std::sqrt(s) : -std::sqrt(s);
        const T q = T(1) / (akk + alpha);
        v[k] = T(1);
        for (int i = k + 1; i < h; ++i) v[i] = a.at(i, k) * q;
        T vtv = T(1);
        int i = k + 1;
        for (; i + 1 < h; i += 2) {
            vtv = vtv + v[i] * v[i];
            vtv = vtv + v[i + 1] * v[i + 1];
        }
        if (i < h) vtv = std::fma(v[i], v[i], vtv);
        const T beta = T(-2) / vtv;
        for (int j = k; j < w; ++j) {
            T t = T(0);
            for (int q2 = k; q2 < h; ++q2) t = t + v[q2] * a.at(q2, j);
            const T bt = beta * t;
            for (int q2 = k; q2 < h; ++q2) a.at(q2, j) = std::fma(bt, v[q2], a.at(q2, j));
        }
        for (int q2 = k + 1; q2 < h; ++q2) a.at(q2, k) = v[q2];
    }
    return omkStsOk;
}

// ---- back substitution of one right-hand side ----
// b is copied into `y` (height elements). Each reflection k: beta_k = -2 / (1 + v_i^2 ...) with
// fused accumulation from 1 in increasing i; t = b_k, then t = fma(v_i, b_i, t); b_k = b_k + beta*t
// (beta*t rounded once); b_i = fma(beta*t, v_i, b_i). Then R*x = b from the bottom:
// t = b_i, t = fma(-R(i, j), x_j, t) for j = i+1 ... w-1 in increasing j, x_i = t / R(i, i).
template <int N, class T, class XO, class FO, class BO>
void solveObject(const XO& x, const FO& f, const BO& b, T* y, int wArg, int hArg) {
    const int w = N ? N : wArg, h = N ? N : hArg;
    for (int i = 0; i < h; ++i) y[i] = b.at(i, 0);
    const int r = reflections(w, h);
    for (int k = 0; k < r; ++k) {
        T vtv = T(1);
        for (int i = k + 1; i < h; ++i) {
            const T vi = f.at(i, k);
            vtv = std::fma(vi, vi, vtv);
        }
        const T beta = T(-2) / vtv;
        T t = y[k];
        for (int i = k + 1; i < h; ++i) t = std::fma(T(f.at(i, k)), y[i], t);
        const T bt = beta * t;
        y[k] = y[k] + bt;
        for (int i = k + 1; i < h; ++i) y[i] = std::fma(bt, T(f.at(i, k)), y[i]);
    }
    for (int i = w - 1; i >= 0; --i) {
        T t = y[i];
        for (int j = i + 1; j < w; ++j) t = std::fma(-T(f.at(i, j)), y[j], t);
        y[i] = t / T(f.at(i, i));
    }
    for (int i = 0; i < w; ++i) x.at(i, 0) = y[i];
}

// Square orders 3 to 6 run the same steps at a fixed order, fully unrolled by the compiler.
template <class T, class DO, class SO>
OmkStatus decompAny(const DO& a, const SO& src, T* v, int w, int h) {
    if (w == h) switch (w) {
        case 3: return decompObject<3, T>(a, src, v, 3, 3);
        case 4: return decompObject<4, T>(a, src, v, 4, 4);
        case 5: return decompObject<5, T>(a, src, v, 5, 5);
        case 6: return decompObject<6, T>(a, src, v, 6, 6);
        }
    return decompObject<0, T>(a, src, v, w, h);
}

template <class T, class XO, class FO, class BO>
void solveAny(const XO& x, const FO& f, const BO& b, T* y, int w, int h) {
    if (w == h) switch (w) {
        case 3: return solveObject<3, T>(x, f, b, y, 3, 3);
        case 4: return solveObject<4, T>(x, f, b, y, 4, 4);
        case 5: return solveObject<5, T>(x, f, b, y, 5, 5);
        case 6: return solveObject<6, T>(x, f, b, y, 6, 6);
        }
    solveObject<0, T>(x, f, b, y, w, h);
}

// ---- exported forms ----
// Arrays run on the calling thread with the caller's buffer, or over the driver with `height`
// elements of scratch per thread; a serial array decomposition stops at its first failing matrix.

template <Group G, Desc Dsc, class D, class A, class B>
OmkStatus qrDecomp(const D& d, const A& a, const B& buffer, const Dims& dims) {
    const Sizes s{dims};
    if (const OmkStatus st = firstFailure(kOrder, s, a, buffer, d)) return st;
    using T = std::remove_const_t<typename D::Elem>;
    const bool parallel = G == Group::ma && qrWork(G, s) >= kLimit;
    const size_t scratch = size_t(s.height) * sizeof(T);
    return overObjectsWithScratch(parallel, s.count, buffer.obj(0), scratch, [&](int32_t first, int32_t m, T* v) {
        return overObjectsPacked(false, m, [&](auto packed, int32_t, int32_t cnt) -> OmkStatus {
            constexpr bool P = decltype(packed)::value;
            const D ds = d.from(first);
            const A as = a.from(first);
            for (int32_t k = 0; k < cnt; ++k)
                if (const OmkStatus st = decompAny<T>(objectOf<P>(ds, k), objectOf<P>(as, k), v, s.width, s.height))
                    return st;
            return omkStsOk;
        }, d, a);
    });
}

template <Group G, Desc Dsc, class X, class A, class B, class V>
OmkStatus qrBackSubst(const X& x, const A& a, const B& buffer, const V& b, const Dims& dims) {
    const Sizes s{dims};
    if (const OmkStatus st = firstFailure(kOrder, s, a, buffer, b, x)) return st;
    using T = std::remove_const_t<typename X::Elem>;
    const bool parallel = G != Group::mv && qrWork(G, s) >= kLimit;
    const size_t scratch = size_t(s.height) * sizeof(T);
    return overObjectsWithScratch(parallel, s.count, buffer.obj(0), scratch, [&](int32_t first, int32_t m, T* y) {
        return overObjectsPacked(false, m, [&](auto packed, int32_t, int32_t cnt) -> OmkStatus {
            constexpr bool P = decltype(packed)::value;
            const X xs = x.from(first);
            const A as = a.from(first);
            const V bs = b.from(first);
            for (int32_t k = 0; k < cnt; ++k)
                solveAny<T>(objectOf<P>(xs, k), objectOf<P>(as, k), objectOf<P>(bs, k), y, s.width, s.height);
            return omkStsOk;
        }, x, a, b);
    });
}

}  // namespace omk::qr
