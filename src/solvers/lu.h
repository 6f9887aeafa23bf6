// LU decomposition with partial pivoting by rows, P*A = L*U, and the solution of A*x = b with it,
// for single objects and arrays in the standard, pointer (_P) and layout (_L) descriptions.
//
// Rows never move in memory: the factorisation keeps each row at its own place and writes the row
// order it chose into the index array p (entry k: the source row chosen as the k-th pivot row).
// Row p[k] of the destination holds U(k, j) for j >= k and the multiplier L(k, j) for j < k; L has
// a unit diagonal that is not stored. The exported functions (lu_entries.cpp) are one line each.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "frame/checks.h"
#include "frame/object_lanes.h"
#include "frame/operand_views.h"
#include "solvers/solver_arrays.h"

namespace omk::lu {

using solve::Desc;
using solve::Group;
using solve::pivots;
using solve::pivotsArr;
using solve::solveSystems;

// ---- serial limits: an array call stays serial while its work is below the limit ----
//                                                 work              parallel from
constexpr int32_t kDecompLimit = 1001;          // n*n*count
constexpr int32_t kSolvePairsLimit = 1201;      // (n + 2)*n*count, mava
constexpr int32_t kSolveOneMatrixLimit = 701;   // (n + 2*count)*n, mva

constexpr int32_t limitOf(Group g) {
    return g == Group::ma ? kDecompLimit : g == Group::mava ? kSolvePairsLimit : kSolveOneMatrixLimit;
}

// ---- singularity tests, absolute ----
// Orders 3 to 6 (straight-line kernels): singular when |pivot| < twice the smallest normal number.
// Every other order (general loop): singular when |pivot| <= the machine epsilon. A NaN pivot
// passes both.
template <class T> constexpr T kStraightTol = sizeof(T) == 4 ? T(0x1p-125) : T(0x1p-1021);
template <class T> constexpr T kGeneralTol = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);

// ---- decomposition, general loop ----
// Copies the source into the destination (in-place use changes nothing there), then factors the
// destination through p: one reciprocal per column, multipliers by that reciprocal, and every
// update one fused multiply-add -LU[p[k]][j] * LU[p[i]][k] + LU[p[i]][j]. On a singular pivot
// it returns at once with the destination and p as far as they got.
template <class T, class DO, class SO>
OmkStatus decompGeneral(const DO& lu, const SO& a, int* p, int n) {
    for (int i = 0; i < n; ++i) p[i] = i;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) lu.at(i, j) = a.at(i, j);
    for (int k = 0; k + 1 < n; ++k) {
        int best = k;
        T big = std::fabs(lu.at(p[k], k));
        for (int i = k + 1; i < n; ++i) {
            const T v = std::fabs(lu.at(p[i], k));
            if (v > big) big = v, best = i;
        }
        if (big <= kGeneralTol<T>) return omkStsSingular;
        std::swap(p[k], p[best]);
        const int pk = p[k];
        const T r = T(1) / lu.at(pk, k);
        for (int i = k + 1; i < n; ++i) lu.at(p[i], k) = lu.at(p[i], k) * r;
        for (int i = k + 1; i < n; ++i) {
            const T m = lu.at(p[i], k);
            for (int j = k + 1; j < n; ++j) lu.at(p[i], j) = std::fma(-lu.at(pk, j), m, lu.at(p[i], j));
        }
    }
    return std::fabs(lu.at(p[n - 1], n - 1)) <= kGeneralTol<T> ? omkStsSingular : omkStsOk;
}

// ---- decomposition, orders 3 to 6: one body for one object and for a block of objects ----
// The steps over a matrix m whose rows stand in pivot order (row k is source row p[k]), so that
// they index it by constants. X is one element (one object) or a block of lanes, one object per
// lane (frame/object_lanes.h); I is the row index of the same width. Each lane takes its own
// object's steps: its own pivot search (first maximum wins), its own exchange under a lane mask.
// The arithmetic is the general loop's, operation for operation; only the singularity test
// differs. rowDone(k) is called once row k is final. Returns false, at once, when a pivot of any
// lane is singular.
template <int N, class X, class I, class RowDone>
[[gnu::always_inline]] inline bool factorSteps(X (&m)[N][N], I (&p)[N], RowDone&& rowDone) {
    using T = typename LaneTraits<X>::T;
#pragma GCC unroll 6
    for (int k = 0; k + 1 < N; ++k) {
        X big = laneAbs(m[k][k]);
        I best = I{} + k;
#pragma GCC unroll 6
        for (int i = k + 1; i < N; ++i) {
            const X v = laneAbs(m[i][k]);
            const auto greater = v > big;
            big = greater ? v : big;
            best = greater ? I{} + i : best;
        }
        if (anyLane(big < kStraightTol<T>)) return false;
#pragma GCC unroll 6
        for (int i = k + 1; i < N; ++i) {
            const auto exchange = best == I{} + i;
            if (!anyLane(exchange)) continue;
            const I pk = p[k];
            p[k] = exchange ? p[i] : pk;
            p[i] = exchange ? pk : p[i];
#pragma GCC unroll 6
            for (int j = 0; j < N; ++j) {
                const X mk = m[k][j];
                m[k][j] = exchange ? m[i][j] : mk;
                m[i][j] = exchange ? mk : m[i][j];
            }
        }
        const X r = T(1) / m[k][k];
#pragma GCC unroll 6
        for (int i = k + 1; i < N; ++i) {
            const X mult = m[i][k] * r;
            m[i][k] = mult;
#pragma GCC unroll 6
            for (int j = k + 1; j < N; ++j) m[i][j] = fmadd(-m[k][j], mult, m[i][j]);
        }
        rowDone(k);
    }
    if (anyLane(laneAbs(m[N - 1][N - 1]) < kStraightTol<T>)) return false;
    rowDone(N - 1);
    return true;
}

// One object: the whole source is read into the local copy first (in-place use changes nothing
// there); row p[k] of the destination is written as soon as step k is final, and p on every
// return.
template <int N, class T, class DO, class SO>
OmkStatus decompFixed(const DO& lu, const SO& a, int* pOut) {
    T m[N][N];
    int p[N];
#pragma GCC unroll 6
    for (int i = 0; i < N; ++i) {
        p[i] = i;
#pragma GCC unroll 6
        for (int j = 0; j < N; ++j) m[i][j] = a.at(i, j);
    }
    const bool ok = factorSteps<N>(m, p, [&](int k) {
#pragma GCC unroll 6
        for (int j = 0; j < N; ++j) lu.at(p[k], j) = m[k][j];
    });
#pragma GCC unroll 6
    for (int i = 0; i < N; ++i) pOut[i] = p[i];
    return ok ? omkStsOk : omkStsSingular;
}

// A block of objects with packed rows: dst(q), src(q) and the index array piv(q) of object q.
// The whole block is read before any of it is written; false, with nothing written, when an object
// of the block is singular (the per-object path then takes the block, and stops where it fails).
template <int N, class T, class Dst, class Src, class Piv>
OMKM_FLATTEN bool decompBlock(const Dst& dst, const Src& src, const Piv& piv) {
    using I = typename BlockLanes<T>::Mask;
    auto a = loadLanes<N, T>(src);
    I p[N];
#pragma GCC unroll 6
    for (int i = 0; i < N; ++i) p[i] = I{} + i;
    if (!factorSteps<N>(a.v, p, [](int) {})) return false;
    constexpr int W = BlockLanes<T>::W;
    using Lane = std::conditional_t<sizeof(T) == 4, int32_t, int64_t>;
    alignas(32) Lane rows[N][W];  // the pivot rows, lane by lane
    std::memcpy(rows, p, sizeof rows);
    const auto out = copyObjects<T>(dst);
#pragma GCC unroll 6
    for (int k = 0; k < N; ++k) rowLanes<false, N>(a.v[k], [&](int q, int) { return out.o[q].row(int(rows[k][q])); }, k);
    for (int q = 0; q < W; ++q) {
        int* pq = piv(q);
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i) pq[i] = int(rows[i][q]);
    }
    return true;
}

// Decompositions of orders 3 to 6 of the whole blocks among objects 0 ... count-1; stops before a
// block that holds a singular matrix. Returns how many objects it did.
template <class T, class Dst, class Src, class Piv>
int32_t decompLanes(const Dst& dst, const Src& src, const Piv& piv, int n, int32_t count) {
    return wholeBlocks<3, 6, T>(n, count, [&](auto order, int32_t k) {
        return decompBlock<decltype(order)::value, T>([&](int q) { return dst(k + q); },
                                                      [&](int q) { return src(k + q); },
                                                      [&](int q) { return piv(k + q); });
    });
}

template <class T, class DO, class SO>
OmkStatus decompObject(const DO& lu, const SO& a, int* p, int n) {
    switch (n) {
    case 3: return decompFixed<3, T>(lu, a, p);
    case 4: return decompFixed<4, T>(lu, a, p);
    case 5: return decompFixed<5, T>(lu, a, p);
    case 6: return decompFixed<6, T>(lu, a, p);
    default: return decompGeneral<T>(lu, a, p, n);
    }
}

// ---- back substitution ----
// General loop. Forward with the unit lower factor through p: y[i] = b[p[i]] - s, s the sum of
// LU[p[i]][j]*y[j] over ascending j (each product rounded, added in turn), y stored in the
// destination as it is formed. Backward with U: x[i] = (y[i] - s) / LU[p[i]][i], s over ascending
// j > i, each diagonal applied by a true division.
template <class T, class XO, class LO, class BO>
void solveGeneral(const XO& x, const LO& lu, const int* p, const BO& b, int n) {
    for (int i = 0; i < n; ++i) {
        T y = b.at(p[i], 0);
        if (i > 0) {
            T s = lu.at(p[i], 0) * x.at(0, 0);
            for (int j = 1; j < i; ++j) s = s + lu.at(p[i], j) * x.at(j, 0);
            y = y - s;
        }
        x.at(i, 0) = y;
    }
    for (int i = n - 1; i >= 0; --i) {
        T y = x.at(i, 0);
        if (i + 1 < n) {
            T s = lu.at(p[i], i + 1) * x.at(i + 1, 0);
            for (int j = i + 2; j < n; ++j) s = s + lu.at(p[i], j) * x.at(j, 0);
            y = y - s;
        }
        x.at(i, 0) = y / lu.at(p[i], i);
    }
}

// Orders 3 to 6, one body for one system (X = T) and for a block of systems side by side: the
// factor in pivot order f (row i is LU[p[i]]) and the right-hand side v, already in pivot order,
// into the solution. Each sum is a chain of fused multiply-adds from the highest index down,
// starting at v[i], and x[i] is that chain divided by the diagonal.
template <int N, class X>
[[gnu::always_inline]] inline void substituteSteps(const X (&f)[N][N], X (&v)[N]) {
#pragma GCC unroll 6
    for (int i = 1; i < N; ++i) {
        X t = v[i];
#pragma GCC unroll 6
        for (int j = i - 1; j >= 0; --j) t = fmadd(-f[i][j], v[j], t);
        v[i] = t;
    }
#pragma GCC unroll 6
    for (int i = N - 1; i >= 0; --i) {
        X t = v[i];
#pragma GCC unroll 6
        for (int j = N - 1; j > i; --j) t = fmadd(-f[i][j], v[j], t);
        v[i] = t / f[i][i];
    }
}

// Orders 3 to 6: the factor in pivot order (row i is LU[p[i]]) read once, then for every vector
// each sum is a chain of fused multiply-adds from the highest index down, starting at b[p[i]]
// (forward) or y[i] (backward), and x[i] is that chain divided by the diagonal. The right-hand
// side is read whole before the solution is written.
template <int N, class T>
struct FixedFactor {
    static constexpr int kRows = N, kCols = N;
    T f[N][N];
    int p[N];

    template <class LO>
    void load(const LO& lu, const int* pIn) {
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i) {
            p[i] = pIn[i];
#pragma GCC unroll 6
            for (int j = 0; j < N; ++j) f[i][j] = lu.at(p[i], j);
        }
    }
    template <class XO, class BO>
    void solve(const XO& x, const BO& b) const {
        T v[N];
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i) v[i] = b.at(p[i], 0);
        substituteSteps<N>(f, v);
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i) x.at(i, 0) = v[i];
    }

    // The same for blocks of systems (solve::solveLanes): row i of lane q's factor is row piv(q)[i]
    // of its matrix, and the right-hand side is read in that order.
    template <class V, class Row, class Piv>
    static void loadLanes(V (&fl)[N][N], const Row& row, const Piv& piv) {
#pragma GCC unroll 6
        for (int i = 0; i < N; ++i) rowLanes<true, N>(fl[i], [&](int q, int) { return row(q, piv(q)[i]); }, i);
    }
    static int rhsRow(const int* pk, int i) { return pk[i]; }
    template <class V>
    static void steps(const V (&fl)[N][N], V (&v)[N]) { substituteSteps<N>(fl, v); }
};

// ---- objects of an array ----

template <bool Packed, class T, class D, class A, class I>
OmkStatus decompObjects(const D& d, const A& a, const I& p, int n, int32_t count) {
    int32_t k = 0;
    if constexpr (Packed)
        k = decompLanes<T>([&](int32_t q) { return objectOf<Packed>(d, q); },
                           [&](int32_t q) { return objectOf<Packed>(a, q); }, [&](int32_t q) { return p.obj(q); }, n,
                           count);
    for (; k < count; ++k)
        if (const OmkStatus st = decompObject<T>(objectOf<Packed>(d, k), objectOf<Packed>(a, k), p.obj(k), n))
            return st;
    return omkStsOk;
}

template <bool Packed, class T, class X, class A, class I, class B>
OmkStatus solveObjects(const X& x, const A& a, const I& p, const B& b, int n, int32_t count) {
    int32_t k = 0;
    if constexpr (Packed)
        if (X::kArray) k = solve::solveLanes<FixedFactor, T>(x, a, p, b, n, count);
    solveSystems<FixedFactor, Packed, T>(x.from(k), a.from(k), p.from(k), b.from(k), n, count - k,
                                         [n](const auto& xk, const auto& lu, const int* pk, const auto& bk) {
                                             solveGeneral<T>(xk, lu, pk, bk, n);
                                         });
    return omkStsOk;
}

// ---- exported forms ----

inline bool goesParallel(Group g, const Dims& dims) {
    return g != Group::m && g != Group::mv && solve::workOf(g, dims) >= limitOf(g);
}

// LUDecomp: checks (null including the index array, count, size, stride, ROI shift), then each
// matrix; the first singular matrix ends its slice.
template <Group G, Desc Dsc, class D, class A, class I>
OmkStatus luDecomp(const D& d, const A& a, const I& p, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, a, p, d)) return st;
    using T = std::remove_const_t<typename D::Elem>;
    return overObjectsPacked(goesParallel(G, dims), dims.count, [&](auto packed, int32_t first, int32_t m) {
        return decompObjects<decltype(packed)::value, T>(d.from(first), a.from(first), p.from(first), dims.width, m);
    }, d, a);
}

// LUBackSubst: checks as above, then each system; no test of the diagonal is made.
template <Group G, Desc Dsc, class X, class A, class I, class B>
OmkStatus luBackSubst(const X& x, const A& a, const I& p, const B& b, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, a, p, b, x)) return st;
    using T = std::remove_const_t<typename X::Elem>;
    return overObjectsPacked(goesParallel(G, dims), dims.count, [&](auto packed, int32_t first, int32_t m) {
        return solveObjects<decltype(packed)::value, T>(x.from(first), a.from(first), p.from(first), b.from(first),
                                                       dims.width, m);
    }, x, a, b);
}

}  // namespace omk::lu
