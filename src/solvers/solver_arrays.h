// What the decompositions and their back substitutions share: the operand kinds of their names,
// the LU index array as an operand view and the work figures of their arrays.
#pragma once
#include <cmath>
#include <cstdint>
#include <type_traits>

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
