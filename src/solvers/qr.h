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
#include "frame/object_lanes.h"
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

// ---- the steps, one body for one object and for a block of objects ----
// X is one element (one object) or a block of lanes, one object per lane (frame/object_lanes.h);
// each lane takes exactly its object's steps, and a test of one object is a test of any lane.

// Decomposition in place of the matrix a(i, j), v holding `h` elements. For each reflection k:
// s = sum over i >= k of a(i, k)^2 (t = t + x*x from 0), below eps in magnitude stops with false
// before anything of reflection k is changed; alpha = sqrt(s) when a(k, k) > 0, else -sqrt(s);
// q = 1/(a(k, k) + alpha); v_k = 1 and v_i = a(i, k)*q; v'v = 1 + the squares in pairs of rounded
// products, an odd last square fused; beta = -2/(v'v). Every column j >= k: t = sum of
// v_i*a(i, j) from 0 in increasing i, then a(i, j) = fma(beta*t, v_i, a(i, j)). The vector then
// goes below the diagonal.
template <class X, class A>
[[gnu::always_inline]] inline bool reflectSteps(A&& a, X* v, int w, int h) {
    using T = typename LaneTraits<X>::T;
    const int r = reflections(w, h);
#pragma GCC unroll 6
    for (int k = 0; k < r; ++k) {
        X s{};
#pragma GCC unroll 6
        for (int i = k; i < h; ++i) {
            const X x = a(i, k);
            s = s + x * x;
        }
        if (anyLane(laneAbs(s) < kEps<T>)) return false;
        const X akk = a(k, k);
        const X root = laneSqrt(s);
        const X alpha = laneSelect(akk > T(0), root, -root);
        const X q = T(1) / (akk + alpha);
        v[k] = X{} + T(1);
#pragma GCC unroll 6
        for (int i = k + 1; i < h; ++i) v[i] = a(i, k) * q;
        X vtv = X{} + T(1);
        int i = k + 1;
#pragma GCC unroll 6
        for (; i + 1 < h; i += 2) {
            vtv = vtv + v[i] * v[i];
            vtv = vtv + v[i + 1] * v[i + 1];
        }
        if (i < h) vtv = fmadd(v[i], v[i], vtv);
        const X beta = T(-2) / vtv;
#pragma GCC unroll 6
        for (int j = k; j < w; ++j) {
            X t{};
#pragma GCC unroll 6
            for (int i2 = k; i2 < h; ++i2) t = t + v[i2] * a(i2, j);
            const X bt = beta * t;
#pragma GCC unroll 6
            for (int i2 = k; i2 < h; ++i2) a(i2, j) = fmadd(bt, v[i2], a(i2, j));
        }
#pragma GCC unroll 6
        for (int i2 = k + 1; i2 < h; ++i2) a(i2, k) = v[i2];
    }
    return true;
}

// Back substitution of the right-hand side y (h elements) through the factor f(i, j), the solution
// into y's first w elements. Each reflection k: beta_k = -2 / (1 + v_i^2 ...) with fused
// accumulation from 1 in increasing i; t = b_k, then t = fma(v_i, b_i, t); b_k = b_k + beta*t
// (beta*t rounded once); b_i = fma(beta*t, v_i, b_i). Then R*x = b from the bottom: t = b_i,
// t = fma(-R(i, j), x_j, t) for j = i+1 ... w-1 in increasing j, x_i = t / R(i, i).
template <class X, class F>
[[gnu::always_inline]] inline void applySteps(const F& f, X* y, int w, int h) {
    using T = typename LaneTraits<X>::T;
    const int r = reflections(w, h);
#pragma GCC unroll 6
    for (int k = 0; k < r; ++k) {
        X vtv = X{} + T(1);
#pragma GCC unroll 6
        for (int i = k + 1; i < h; ++i) {
            const X vi = f(i, k);
            vtv = fmadd(vi, vi, vtv);
        }
        const X beta = T(-2) / vtv;
        X t = y[k];
#pragma GCC unroll 6
        for (int i = k + 1; i < h; ++i) t = fmadd(f(i, k), y[i], t);
        const X bt = beta * t;
        y[k] = y[k] + bt;
#pragma GCC unroll 6
        for (int i = k + 1; i < h; ++i) y[i] = fmadd(bt, f(i, k), y[i]);
    }
#pragma GCC unroll 6
    for (int i = w - 1; i >= 0; --i) {
        X t = y[i];
#pragma GCC unroll 6
        for (int j = i + 1; j < w; ++j) t = fmadd(-f(i, j), y[j], t);
        y[i] = t / f(i, i);
    }
}

// ---- shapes with constant sizes: heights 3 to 6, widths 3 to the height ----
inline bool fixedShape(int w, int h) { return h >= 3 && h <= 6 && w >= 3 && w <= h; }
// Runs f(height, width) with both sizes constants for the fixed shapes, else returns 0.
template <class F>
int32_t forShape(int w, int h, F&& f) {
    return forOrder<3, 6>(h, [&](auto hc) {
        return forOrder<3, decltype(hc)::value>(w, [&](auto wc) { return f(hc, wc); });
    });
}

// ---- one object ----
// A fixed shape is factored in a local copy, written back whole (as far as it got on a failure,
// which is what the in-place loop leaves); any other shape in place in the destination, with `v`
// from the caller's scratch.
template <int H, int W, class T, class DO, class SO>
OmkStatus decompFixed(const DO& a, const SO& src) {
    T m[H][W], v[H];
#pragma GCC unroll 6
    for (int i = 0; i < H; ++i)
#pragma GCC unroll 6
        for (int j = 0; j < W; ++j) m[i][j] = src.at(i, j);
    const bool ok = reflectSteps<T>([&](int i, int j) -> T& { return m[i][j]; }, v, W, H);
#pragma GCC unroll 6
    for (int i = 0; i < H; ++i)
#pragma GCC unroll 6
        for (int j = 0; j < W; ++j) a.at(i, j) = m[i][j];
    return ok ? omkStsOk : omkStsDivByZero;
}

template <class T, class DO, class SO>
OmkStatus decompObject(const DO& a, const SO& src, T* v, int w, int h) {
    if (fixedShape(w, h))
        return forShape(w, h, [&](auto hc, auto wc) { return decompFixed<hc.value, wc.value, T>(a, src); });
    for (int i = 0; i < h; ++i)
        for (int j = 0; j < w; ++j) a.at(i, j) = src.at(i, j);
    return reflectSteps<T>([&](int i, int j) -> T& { return a.at(i, j); }, v, w, h) ? omkStsOk : omkStsDivByZero;
}

// The right-hand side is copied into `y` (height elements) before the solution is written.
template <class T, class XO, class FO, class BO>
void solveObject(const XO& x, const FO& f, const BO& b, T* y, int w, int h) {
    // Sizes as std::integral_constant for the fixed shapes, so that each shape's loops unroll.
    auto run = [&](auto wc, auto hc) {
        for (int i = 0; i < int(hc); ++i) y[i] = b.at(i, 0);
        applySteps<T>([&](int i, int j) { return T(f.at(i, j)); }, y, int(wc), int(hc));
        for (int i = 0; i < int(wc); ++i) x.at(i, 0) = y[i];
        return 0;
    };
    if (fixedShape(w, h)) forShape(w, h, [&](auto hc, auto wc) { return run(wc, hc); });
    else run(w, h);
}

// ---- blocks of objects with packed rows ----
// One block (B = 1) or two (B = 2): every block is read before any of it is written; false, with
// nothing written, when a column of an object is negligible (the per-object path then takes the
// blocks, and stops where it fails).
template <int H, int W, class T, int B, class Dst, class Src>
OMKM_FLATTEN bool decompBlocks(const Dst& dst, const Src& src) {
    using S = BlockSet<T, B>;
    using V = typename S::V;
    V m[H][W], v[H];
    S::load(m, src, [](auto& part, const auto& in) {
#pragma GCC unroll 6
        for (int i = 0; i < H; ++i) rowLanes<true, W>(part[i], [&](int q, int r) { return in.o[q].row(r); }, i);
    });
    if (!reflectSteps<V>([&](int i, int j) -> V& { return m[i][j]; }, v, W, H)) return false;
    S::store(m, dst, [](auto& part, const auto& out) {
#pragma GCC unroll 6
        for (int i = 0; i < H; ++i) rowLanes<false, W>(part[i], [&](int q, int r) { return out.o[q].row(r); }, i);
    });
    return true;
}

// Every fixed shape runs two blocks at a time: one block's square roots and divisions then overlap
// the other's (QR 4x4 33 -> 18 ns, 6x4 52 -> 29 ns per object in doubles).
constexpr bool kTwoBlocks = true;

// Decompositions of the fixed shapes of the whole blocks among objects 0 ... count-1; stops before
// blocks with a negligible column. Returns how many objects it did (0 for other shapes).
template <class T, class Dst, class Src>
int32_t decompLanes(const Dst& dst, const Src& src, int w, int h, int32_t count) {
    return forShape(w, h, [&](auto hc, auto wc) {
        return blockSetRun<T, kTwoBlocks>(count, [&](auto blocks, int32_t k) {
            return decompBlocks<hc.value, wc.value, T, blocks.value>([&](int q) { return dst(k + q); },
                                                                    [&](int q) { return src(k + q); });
        });
    });
}

// The factor of a fixed shape for solve::solveBlocks: height right-hand side elements in their own
// order, width solution elements.
template <int H, int W, class T>
struct BlockFactor {
    static constexpr int kRows = H, kCols = W;
    template <class V, class Row, class Piv>
    static void loadLanes(V (&f)[H][W], const Row& row, const Piv&) {
#pragma GCC unroll 6
        for (int i = 0; i < H; ++i) rowLanes<true, W>(f[i], [&](int q, int) { return row(q, i); }, i);
    }
    static int rhsRow(solve::NoPivots::Tag, int i) { return i; }
    template <class V>
    static void steps(const V (&f)[H][W], V (&y)[H]) {
        applySteps<V>([&](int i, int j) { return f[i][j]; }, y, W, H);
    }
};

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
            int32_t k = 0;
            if constexpr (P)
                k = decompLanes<T>([&](int q) { return objectOf<P>(ds, q); }, [&](int q) { return objectOf<P>(as, q); },
                                   s.width, s.height, cnt);
            for (; k < cnt; ++k)
                if (const OmkStatus st = decompObject<T>(objectOf<P>(ds, k), objectOf<P>(as, k), v, s.width, s.height))
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
            int32_t k = 0;
            if constexpr (P)
                if (X::kArray)
                    k = forShape(s.width, s.height, [&](auto hc, auto wc) {
                        return solve::solveBlocks<BlockFactor<hc.value, wc.value, T>, T>(xs, as, solve::NoPivots{}, bs,
                                                                                          cnt);
                    });
            for (; k < cnt; ++k)
                solveObject<T>(objectOf<P>(xs, k), objectOf<P>(as, k), objectOf<P>(bs, k), y, s.width, s.height);
            return omkStsOk;
        }, x, a, b);
    });
}

}  // namespace omk::qr
