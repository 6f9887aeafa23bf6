// What the decompositions and their back substitutions share: the operand kinds of their names,
// the LU index array as an operand view, the work figures of their arrays, and the loop that runs
// a kernel that can fail over the objects of an array.
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

// Runs run(first, m) over `count` objects: on the calling thread, or over the parallel driver's
// slices, where each slice runs serially and the first non-zero status stored wins. A slice stops
// at its first failing object, so the serial path leaves the objects after a failure untouched.
template <class Run>
OmkStatus overObjects(bool parallel, int32_t count, Run&& run) {
    if (!parallel) return run(int32_t(0), count);
    return runOverObjects(count, [&](int32_t first, int32_t m, char*) { return run(first, m); });
}

// Runs kernel(packed, first, m) serially or over the driver, `packed` a std::bool_constant that
// says whether every element view of the call has packed columns.
template <class... V, class Kernel>
OmkStatus overObjectsPacked(bool parallel, int32_t count, Kernel&& kernel, const V&... views) {
    if constexpr (((V::kLayout == Layout::Strided) && ...)) {
        if ((unitColumns(views) && ...))
            return overObjects(parallel, count, [&](int32_t first, int32_t m) {
                return kernel(std::true_type{}, first, m);
            });
    }
    return overObjects(parallel, count, [&](int32_t first, int32_t m) { return kernel(std::false_type{}, first, m); });
}

}  // namespace omk::solve
