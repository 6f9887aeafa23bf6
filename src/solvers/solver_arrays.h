// What the decompositions and their back substitutions share: the operand kinds of their names,
// the LU index array as an operand view and the work figures of their arrays.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "frame/object_lanes.h"
#include "frame/operand_views.h"
#include "frame/parallel_driver.h"
#include "frame/wrapping.h"
#include "omkm.h"

namespace omk::solve {

// m: one matrix; ma: an array of matrices; mv: one matrix and one vector; mva: one matrix for each
// vector of an array; mava: matrix k with vector k.
enum class Group { m, ma, mv, mva, mava };
enum class Desc { Std, L, P };

// The LU index array: widthHeight plain contiguous int entries per matrix in every description.
// Matrix k of an array owns entries k*n to k*n + n - 1; a single matrix (also the one matrix of
// mva) owns the first n.
template <class I> RunView<I, false> pivots(I* p, int32_t n) { return elems(p, n); }
template <class I> RunView<I, true> pivotsArr(I* p, int32_t n) { return elemsArr(p, n); }

// Factorisations without an index array (Cholesky) pass NoPivots: its object is a tag the kernels
// take and ignore, so one loop serves both.
struct NoPivots {
    struct Tag {};
    Tag obj(int32_t) const { return {}; }
    NoPivots from(int32_t) const { return *this; }
};

// The back substitutions of count systems: orders 3 to 6 by Factor<N, T> (load the factored matrix
// and its indices, then solve), where one matrix for every vector (mva) is loaded once; other
// orders by general(x, factor, indices, b) per system.
template <template <int, class> class Factor, bool Packed, class T, class X, class A, class I, class B, class General>
void solveSystems(const X& x, const A& a, const I& p, const B& b, int n, int32_t count, const General& general) {
    auto fixed = [&](auto order) {
        Factor<decltype(order)::value, T> f;
        if (!A::kArray) f.load(objectOf<Packed>(a, 0), p.obj(0));
        for (int32_t k = 0; k < count; ++k) {
            if (A::kArray) f.load(objectOf<Packed>(a, k), p.obj(k));
            f.solve(objectOf<Packed>(x, k), objectOf<Packed>(b, k));
        }
    };
    switch (n) {
    case 3: fixed(std::integral_constant<int, 3>{}); break;
    case 4: fixed(std::integral_constant<int, 4>{}); break;
    case 5: fixed(std::integral_constant<int, 5>{}); break;
    case 6: fixed(std::integral_constant<int, 6>{}); break;
    default:
        for (int32_t k = 0; k < count; ++k)
            general(objectOf<Packed>(x, k), objectOf<Packed>(a, k), p.obj(k), objectOf<Packed>(b, k));
    }
}

// Blocks of systems side by side, one per lane (frame/object_lanes.h), for arrays of vectors whose
// views all have packed columns: the factor of each lane's own matrix (mava) or the one factor in
// every lane (mva), the right-hand sides gathered in the factor's row order, the solutions
// scattered back. F gives the factor's shape (kRows right-hand side elements, kCols solution
// elements), its rows (loadLanes), the right-hand side's row order (rhsRow) and the steps, the same
// as for one system. Every right-hand side of a block is read before any solution is written.
// Returns how many systems it did: the whole blocks among 0 ... count-1.
template <class F, class T, class X, class A, class I, class B>
int32_t solveBlocks(const X& x, const A& a, const I& piv, const B& b, int32_t count) {
    using V = typename BlockLanes<T>::X;
    constexpr int W = BlockLanes<T>::W, R = F::kRows, C = F::kCols;
    V f[R][C];
    auto pivOf = [&](int32_t k) { return piv.obj(A::kArray ? k : 0); };
    auto load = [&](int32_t k) {
        const auto as = copyObjects<T>([&](int q) { return objectOf<true>(a, A::kArray ? k + q : 0); });
        F::loadLanes(f, [&](int q, int r) { return as.o[q].row(r); }, [&](int q) { return pivOf(k + q); });
    };
    if constexpr (!A::kArray) load(0);
    return blockRun<T>(count, [&](int32_t k) {
        if constexpr (A::kArray) load(k);
        alignas(32) T lanes[R][W];
        for (int q = 0; q < W; ++q) {
            const auto bq = objectOf<true>(b, k + q);
            const auto pq = pivOf(k + q);
#pragma GCC unroll 6
            for (int i = 0; i < R; ++i) lanes[i][q] = bq.at(F::rhsRow(pq, i), 0);
        }
        V v[R];
        std::memcpy(v, lanes, sizeof v);
        F::steps(f, v);
        std::memcpy(lanes, v, sizeof v);
        for (int q = 0; q < W; ++q) {
            const auto xq = objectOf<true>(x, k + q);
#pragma GCC unroll 6
            for (int i = 0; i < C; ++i) xq.at(i, 0) = lanes[i][q];
        }
        return true;
    });
}

// solveBlocks for square factors of orders 3 to 6, Factor<N, T>; 0 systems done for other orders.
template <template <int, class> class Factor, class T, class X, class A, class I, class B>
int32_t solveLanes(const X& x, const A& a, const I& piv, const B& b, int n, int32_t count) {
    return forOrder<3, 6>(n, [&](auto order) {
        return solveBlocks<Factor<decltype(order)::value, T>, T>(x, a, piv, b, count);
    });
}

// ---- work figures (signed 32-bit, wrapping) ----
// Decompositions: n*n*count; back substitutions with a matrix per vector: (n + 2)*n*count; with
// one matrix for every vector: (n + 2*count)*n. Single objects never go parallel.
constexpr int32_t workOf(Group g, const Dims& d) {
    switch (g) {
    case Group::ma: return (Wrap32(d.width) * d.width * d.count).value();
    case Group::mava: return ((Wrap32(d.width) + 2) * d.width * d.count).value();
    case Group::mva: return ((Wrap32(d.width) + Wrap32(2) * d.count) * d.width).value();
    default: return 0;
    }
}

}  // namespace omk::solve
