// Cholesky decomposition A = L*L^T of symmetric positive definite matrices, and the solution of
// A*x = b with it, for single objects and arrays in the standard, pointer (_P) and layout (_L)
// descriptions.
//
// Only the lower triangle of the source is read. The destination holds L(i, j) at (i, j) for j < i
// and the reciprocal 1 / L(i, i) on the diagonal, so that the solver multiplies and never divides;
// its strict upper triangle is never written. The exported functions (cholesky_entries.cpp) are
// one line each.
#pragma once
#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "frame/checks.h"
#include "frame/object_lanes.h"
#include "frame/operand_views.h"
#include "solvers/solver_arrays.h"

namespace omk::cholesky {

using solve::Desc;
using solve::Group;
using solve::NoPivots;
using solve::solveSystems;

// ---- serial limits: an array call stays serial while its work is below the limit ----
//                                                    work              parallel from
constexpr int32_t kDecompLimit = 7501;             // n*n*count
constexpr int32_t kSolvePairsPackedLimit = 2051;   // (n + 2)*n*count, mava, every element stride packed
constexpr int32_t kSolvePairsLimit = 1701;         // (n + 2)*n*count, mava, other strides and _P
constexpr int32_t kSolveOneMatrixLimit = 1201;     // (n + 2*count)*n, mva

// "Packed" means the standard or layout description with every element stride (srcStride2,
// src2Stride2, dstStride2) equal to the element size; the pointer description never is.
constexpr int32_t limitOf(Group g, bool packed) {
    switch (g) {
    case Group::ma: return kDecompLimit;
    case Group::mava: return packed ? kSolvePairsPackedLimit : kSolvePairsLimit;
    default: return kSolveOneMatrixLimit;
    }
}

// ---- the reciprocal diagonal R = 1 / sqrt(d) ----
// 32-bit: the processor's approximate reciprocal square root r0, refined by one Newton step
// evaluated left to right as (r0 * -0.5) * ((d * r0) * r0 - 3). 64-bit: a correctly rounded square
// root and one division.
template <class X> X newtonStep(X d, X r0) { return (r0 * -0.5f) * ((d * r0) * r0 - 3.0f); }
inline float reciprocalRoot(float d) { return newtonStep(d, _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(d)))); }
inline double reciprocalRoot(double d) { return 1.0 / std::sqrt(d); }
// The same lane by lane: the packed approximation gives every lane the bits of the scalar one.
inline Block8f reciprocalRoot(Block8f d) { return newtonStep(d, (Block8f)_mm256_rsqrt_ps((__m256)d)); }
inline Block4d reciprocalRoot(Block4d d) { return 1.0 / BlockLanes<double>::sqrt(d); }
template <class X> Twin<X> reciprocalRoot(Twin<X> d) { return {reciprocalRoot(d.a), reciprocalRoot(d.b)}; }

// A pivot fails when 0 >= d, so a NaN pivot passes (lane by lane for a block).
template <class X> auto notPositive(X d) { return d <= typename LaneTraits<X>::T(0); }

// ---- decomposition, general loop ----
// Row by row: L(i, j) = (a(i, j) - L(i, 0)*L(j, 0) - ... - L(i, j-1)*L(j, j-1)) * R(j), each
// product rounded and subtracted in turn; the pivot d = a(i, i) - L(i, 0)^2 - ... likewise. Row i
// is formed in a local row and written only after its pivot passes, so a failing row keeps its
// previous contents; orders above kLocalRow form the row in the destination itself.
constexpr int kLocalRow = 64;

template <class T, class DO, class SO>
OmkStatus decompGeneral(const DO& l, const SO& a, int n) {
    T local[kLocalRow];
    for (int i = 0; i < n; ++i) {
        const bool inPlace = n > kLocalRow;
        auto row = [&](int j) -> T& { return inPlace ? l.at(i, j) : local[j]; };
        for (int j = 0; j < i; ++j) {
            T s = a.at(i, j);
            for (int k = 0; k < j; ++k) s = s - row(k) * l.at(j, k);
            row(j) = s * l.at(j, j);
        }
        T d = a.at(i, i);
        for (int k = 0; k < i; ++k) d = d - row(k) * row(k);
        if (notPositive(d)) return omkStsNotPosDefinite;
        if (!inPlace)
            for (int j = 0; j < i; ++j) l.at(i, j) = local[j];
        l.at(i, i) = reciprocalRoot(d);
    }
    return omkStsOk;
}

// ---- decomposition, orders 3 to 6: one body for one object and for a block of objects ----
// The steps over the lower triangle m, X one element or a block of lanes (frame/object_lanes.h).
// Each difference is a chain of fused multiply-adds over ascending k: s = fma(-L(i, k), L(j, k), s)
// from s = a(i, j), then L(i, j) = s * R(j); the pivot is fma(-L(i, k), L(i, k), d) from
// d = a(i, i). rowDone(i) is called once row i is final; returns false, at once, when a pivot of
// any lane is not positive.
template <int N, class X, class RowDone>
[[gnu::always_inline]] inline bool factorSteps(X (&m)[N][N], RowDone&& rowDone) {
#pragma GCC unroll 6
    for (int i = 0; i < N; ++i) {
#pragma GCC unroll 6
        for (int j = 0; j < i; ++j) {
            X s = m[i][j];
#pragma GCC unroll 6
            for (int k = 0; k < j; ++k) s = fmadd(-m[i][k], m[j][k], s);
            m[i][j] = s * m[j][j];
        }
        X d = m[i][i];
#pragma GCC unroll 6
        for (int k = 0; k < i; ++k) d = fmadd(-m[i][k], m[i][k], d);
        if (anyLane(notPositive(d))) return false;
        m[i][i] = reciprocalRoot(d);
        rowDone(i);
    }
    return true;
}

// One object: the lower triangle is read into a local copy first; row i is written as soon as its
// pivot passes.
template <int N, class T, class DO, class SO>
OmkStatus decompFixed(const DO& l, const SO& a) {
    T m[N][N];
#pragma GCC unroll 6
    for (int i = 0; i < N; ++i)
#pragma GCC unroll 6
        for (int j = 0; j <= i; ++j) m[i][j] = a.at(i, j);
    const bool ok = factorSteps<N>(m, [&](int i) {
#pragma GCC unroll 6
        for (int j = 0; j <= i; ++j) l.at(i, j) = m[i][j];
    });
    return ok ? omkStsOk : omkStsNotPosDefinite;
}

// One block (B = 1) or two (B = 2) of objects with packed rows, dst(q) and src(q) of object q:
// every block is read before any of it is written; false, with nothing written, when an object has
// a pivot that is not positive (the per-object path then takes the blocks, and stops where it fails).
template <int N, class T, int B, class Dst, class Src>
OMKM_FLATTEN bool decompBlocks(const Dst& dst, const Src& src) {
    using S = BlockSet<T, B>;
    typename S::V m[N][N];
    S::load(m, src, [](auto& part, const auto& in) {
        lowerLanes<true, N>(part, [&](int q, int r) { return in.o[q].row(r); });
    });
    if (!factorSteps<N>(m, [](int) {})) return false;
    S::store(m, dst, [](auto& part, const auto& out) {
        lowerLanes<false, N>(part, [&](int q, int r) { return out.o[q].row(r); });
    });
    return true;
}

// Orders that run two blocks at a time, so that one block's roots and divisions overlap the
// other's: 3 and 4 gain from it; 5 and 6 measured none (their chains already overlap within a block).
template <int N> constexpr bool kTwoBlocks = N <= 4;

// Decompositions of orders 3 to 6 of the whole blocks among objects 0 ... count-1; stops before
// blocks that hold a failing matrix. Returns how many objects it did.
template <class T, class Dst, class Src>
int32_t decompLanes(const Dst& dst, const Src& src, int n, int32_t count) {
    return forOrder<3, 6>(n, [&](auto order) {
        constexpr int N = decltype(order)::value;
        return blockSetRun<T, kTwoBlocks<N>>(count, [&](auto blocks, int32_t k) {
            return decompBlocks<N, T, blocks.value>([&](int q) { return dst(k + q); },
                                                    [&](int q) { return src(k + q); });
        });
    });
}

template <class T, class DO, class SO>
OmkStatus decompObject(const DO& l, const SO& a, int n) {
    switch (n) {
    case 3: return decompFixed<3, T>(l, a);
    case 4: return decompFixed<4, T>(l, a);
    case 5: return decompFixed<5, T>(l, a);
    case 6: return decompFixed<6, T>(l, a);
    default: return decompGeneral<T>(l, a, n);
    }
}

// ---- back substitution ----
// General loop. Forward: y(i) = (b(i) - s) * R(i), s the sum of L(i, j)*y(j) over ascending j < i
// (each product rounded, added in turn), y stored in the destination as it is formed. Backward
// with L^T: x(i) = (y(i) - s) * R(i), s the sum of L(j, i)*x(j) over ascending j > i.
template <class T, class XO, class LO, class BO>
void solveGeneral(const XO& x, const LO& l, const BO& b, int n) {
    for (int i = 0; i < n; ++i) {
        T y = b.at(i, 0);
        if (i > 0) {
            T s = l.at(i, 0) * x.at(0, 0);
            for (int j = 1; j < i; ++j) s = s + l.at(i, j) * x.at(j, 0);
            y = y - s;
        }
        x.at(i, 0) = y * l.at(i, i);
    }
    for (int i = n - 1; i >= 0; --i) {
        T y = x.at(i, 0);
        if (i + 1 < n) {
            T s = l.at(i + 1, i) * x.at(i + 1, 0);
            for (int j = i + 2; j < n; ++j) s = s + l.at(j, i) * x.at(j, 0);
            y = y - s;
        }
        x.at(i, 0) = y * l.at(i, i);
    }
}

// Orders 3 to 6: the lower triangle read once, then for every vector each sum is a chain of fused
// multiply-adds from the highest index down, starting at b(i) (forward) or y(i) (backward), times
// R(i). The right-hand side is read whole before the solution is written.
template <int N, class T>
struct FixedFactor {
    static constexpr int kRows = N, kCols = N;
    T f[N][N];

    template <class LO>
    void load(const LO& l, NoPivots::Tag) {
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i)
#pragma GCC unroll 6
            for (int j = 0; j <= i; ++j) f[i][j] = l.at(i, j);
    }
    template <class XO, class BO>
    void solve(const XO& x, const BO& b) const {
        T v[N];
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i) v[i] = b.at(i, 0);
        steps(f, v);
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i) x.at(i, 0) = v[i];
    }

    // The steps, for one system (V = T) and for blocks of systems side by side (solve::solveLanes).
    template <class V>
    [[gnu::always_inline]] static void steps(const V (&fl)[N][N], V (&v)[N]) {
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i) {
            V t = v[i];
#pragma GCC unroll 6
            for (int j = i - 1; j >= 0; --j) t = fmadd(-fl[i][j], v[j], t);
            v[i] = t * fl[i][i];
        }
#pragma GCC unroll 6
        for (int i = N - 1; i >= 0; --i) {
            V t = v[i];
#pragma GCC unroll 6
            for (int j = N - 1; j > i; --j) t = fmadd(-fl[j][i], v[j], t);
            v[i] = t * fl[i][i];
        }
    }
    template <class V, class Row, class Piv>
    static void loadLanes(V (&fl)[N][N], const Row& row, const Piv&) {
        lowerLanes<true, N>(fl, row);
    }
    static int rhsRow(NoPivots::Tag, int i) { return i; }
};

// ---- objects of an array ----

template <bool Packed, class T, class D, class A>
OmkStatus decompObjects(const D& d, const A& a, int n, int32_t count) {
    int32_t k = 0;
    if constexpr (Packed)
        k = decompLanes<T>([&](int32_t q) { return objectOf<Packed>(d, q); },
                           [&](int32_t q) { return objectOf<Packed>(a, q); }, n, count);
    for (; k < count; ++k)
        if (const OmkStatus st = decompObject<T>(objectOf<Packed>(d, k), objectOf<Packed>(a, k), n)) return st;
    return omkStsOk;
}

template <bool Packed, class T, class X, class A, class B>
OmkStatus solveObjects(const X& x, const A& a, const B& b, int n, int32_t count) {
    int32_t k = 0;
    if constexpr (Packed)
        if (X::kArray) k = solve::solveLanes<FixedFactor, T>(x, a, NoPivots{}, b, n, count);
    solveSystems<FixedFactor, Packed, T>(x.from(k), a.from(k), NoPivots{}, b.from(k), n, count - k,
                                         [n](const auto& xk, const auto& l, NoPivots::Tag, const auto& bk) {
                                             solveGeneral<T>(xk, l, bk, n);
                                         });
    return omkStsOk;
}

// ---- exported forms ----

template <class... V>
bool goesParallel(Group g, const Dims& dims, const V&... views) {
    return g != Group::m && g != Group::mv && solve::workOf(g, dims) >= limitOf(g, elementsContiguous(views...));
}

// CholeskyDecomp: checks (null, count, size, stride, ROI shift), then each matrix; the first
// matrix with a non-positive pivot ends its slice.
template <Group G, Desc Dsc, class D, class A>
OmkStatus choleskyDecomp(const D& d, const A& a, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, a, d)) return st;
    using T = std::remove_const_t<typename D::Elem>;
    return overObjectsPacked(goesParallel(G, dims, d, a), dims.count, [&](auto packed, int32_t first, int32_t m) {
        return decompObjects<decltype(packed)::value, T>(d.from(first), a.from(first), dims.width, m);
    }, d, a);
}

// CholeskyBackSubst: checks as above, then each system; no test is made.
template <Group G, Desc Dsc, class X, class A, class B>
OmkStatus choleskyBackSubst(const X& x, const A& a, const B& b, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, a, b, x)) return st;
    using T = std::remove_const_t<typename X::Elem>;
    return overObjectsPacked(goesParallel(G, dims, x, a, b), dims.count, [&](auto packed, int32_t first, int32_t m) {
        return solveObjects<decltype(packed)::value, T>(x.from(first), a.from(first), b.from(first), dims.width, m);
    }, x, a, b);
}

}  // namespace omk::cholesky
