// Argument checks: pure steps over the operand views, run in a member's order; the first failing
// step's status is returned before any element is touched.
#pragma once
#include <cstdint>
#include <initializer_list>

#include "omkm.h"
#include "frame/operand_views.h"

namespace omk {

// Agreement is the size-agreement step of families whose operands carry their own sizes.
// Stride tests every stride of every operand. ElementStride and ObjectStride split it for the
// members that test the object strides last, and only when there is more than one object.
enum class Check : uint8_t { Null, Count, Size, Agreement, Stride, RoiShift, ElementStride, ObjectStride };

// The order in which a member runs its checks.
struct CheckOrder {
    Check step[6];
    uint8_t n;
    constexpr CheckOrder(std::initializer_list<Check> steps) : step{}, n(0) {
        for (Check c : steps) step[n++] = c;
    }
};

// The library's rule: null pointers, count, sizes, strides, ROI shifts. Single-object calls have
// count 1, so the count step passes for them.
inline constexpr CheckOrder kDefaultOrder{Check::Null, Check::Count, Check::Size, Check::Stride,
                                          Check::RoiShift};
// Families whose operands carry their own sizes test that they agree right after the sizes.
inline constexpr CheckOrder kAgreementOrder{Check::Null, Check::Count, Check::Size, Check::Agreement,
                                            Check::Stride, Check::RoiShift};

// The element strides and the object stride of an operand, for the split stride checks. Pointer
// descriptions have no element strides; single objects and layout descriptions no object stride.
template <class V> bool elementStridesOk(const V& v) { return v.stridesOk(); }
template <class T, bool A, bool M> bool elementStridesOk(const StdView<T, A, M>& v) {
    return (!M || strideOk<T>(v.s1)) && strideOk<T>(v.s2);
}
template <class T, bool A, bool M> bool elementStridesOk(const PointerView<T, A, M>&) { return true; }
template <class V> bool objectStrideOk(const V&) { return true; }
template <class T, bool A, bool M> bool objectStrideOk(const StdView<T, A, M>& v) { return !A || strideOk<T>(v.s0); }
template <class T, bool A, bool M> bool objectStrideOk(const PointerView<T, A, M>& v) { return !A || strideOk<T>(v.s0); }

// Inlined into each entry point, where the order is a constant: the loop then unrolls into the
// member's sequence of tests. `Sizes` is Dims, or a family's own size record with the same
// `count`, `sizesBad()` and `disagree()`.
template <class Sizes, class... View>
[[gnu::always_inline]] inline OmkStatus firstFailure(const CheckOrder& order, const Sizes& d, const View&... v) {
#pragma GCC unroll 8
    for (uint8_t s = 0; s < order.n; ++s) {
        switch (order.step[s]) {
        case Check::Null:
            if ((v.hasNull() || ...)) return omkStsNullPtr;
            break;
        case Check::Count:
            if (d.count < 1) return omkStsBadCount;
            break;
        case Check::Size:
            if (d.sizesBad()) return omkStsBadSize;
            break;
        case Check::Agreement:
            if (d.disagree()) return omkStsSizeMismatch;
            break;
        case Check::Stride:
            if (!(v.stridesOk() && ...)) return omkStsBadStride;
            break;
        case Check::RoiShift:
            if (!(v.roiOk() && ...)) return omkStsBadRoiShift;
            break;
        case Check::ElementStride:
            if (!(elementStridesOk(v) && ...)) return omkStsBadStride;
            break;
        case Check::ObjectStride:
            if (d.count > 1 && !(objectStrideOk(v) && ...)) return omkStsBadStride;
            break;
        }
    }
    return omkStsOk;
}

}  // namespace omk
