// Add and Sub: element-wise sums and differences of matrices, transposed matrices, vectors and
// constants, single or in arrays, in the standard, pointer (_P) and layout (_L) descriptions.
//
// The exported functions (add_entries.cpp, sub_entries.cpp) are one line each: they build the
// operand views and call addSub with their group and description. Everything that differs between
// members stands in the tables below.
#pragma once
#include <type_traits>

#include "frame/binary_kernels.h"
#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/wrapping.h"

namespace omk::addsub {

enum class Group {
    mm, tm, mt, tt,                         // two single matrices
    mam, tam, mat, tat, mma, tma, mta, tta, // one matrix array, one single matrix
    mama, tama, tata, mata,                 // two matrix arrays
    vv, vc, cv,                             // single vectors
    vav, vva, vac,                          // one vector array, one single operand
    vava,                                   // two vector arrays
    vca, cav,                               // one constant array, one single vector
    vaca, cava,                             // one constant array, one vector array
    cva,                                    // one constant, one vector array
};
enum class Desc { Std, L, P };

// ---- work figures (signed 32-bit, wrapping) ----
using Work = int32_t (*)(const Dims&);
constexpr int32_t noWork(const Dims&) { return 0; }
constexpr int32_t matrixAndArray(const Dims& d) { return (Wrap32(d.width) * d.height * (Wrap32(2) * d.count + 1)).value(); }
constexpr int32_t twoMatrixArrays(const Dims& d) { return (Wrap32(3) * d.count * d.width * d.height).value(); }
constexpr int32_t vectorAndArray(const Dims& d) { return ((Wrap32(2) * d.count + 1) * d.width).value(); }
constexpr int32_t twoVectorArrays(const Dims& d) { return (Wrap32(3) * d.count * d.width).value(); }
constexpr int32_t vectorAndConstArray(const Dims& d) { return (Wrap32(d.width) * (Wrap32(d.count) + 1) + d.count).value(); }
constexpr int32_t arrayAndConstArray(const Dims& d) { return (Wrap32(d.count) * (Wrap32(2) * d.width + 1)).value(); }
constexpr int32_t constAndArray(const Dims& d) { return (Wrap32(2) * d.count).value(); }

// ---- serial limits ----
// A call goes to the parallel driver when its work reaches the limit (atLimitParallel) or passes it.
// std32 applies to 32-bit standard calls whose element strides all equal 4 (contiguous); the strided
// 32-bit standard calls use std32Strided; _L and _P limits hold for both element types.
struct Limits {
    int32_t std32, std32Strided, std64, L, P;
    bool atLimitParallel;
};

struct Rule {
    Work work;
    Limits limits;
};

//                                     work figure            std32  std32s  std64    _L    _P  at limit
constexpr Rule kSingle               {noWork,               {    0,     0,     0,    0,    0, false}};
constexpr Rule kMatrixAndArray       {matrixAndArray,       { 3000,  2000,  2000, 2000, 2000, true }};
constexpr Rule kTwoMatrixArrays      {twoMatrixArrays,      { 3000,  2000,  2000, 2000, 2000, true }};
constexpr Rule kVectorAndArray       {vectorAndArray,       { 4800,  4800,  1400, 2500, 1500, false}};
constexpr Rule kTwoVectorArrays      {twoVectorArrays,      { 4800,  4800,  1400, 2500, 1500, false}};
constexpr Rule kVectorAndConstArray  {vectorAndConstArray,  { 4800,  4800,  1400, 2500, 1500, false}};
constexpr Rule kArrayAndConstArray   {arrayAndConstArray,   { 4800,  4800,  1400, 2500, 1500, false}};
// cva counts only the objects, and its limits are one lower than the other vector groups'.
constexpr Rule kConstAndArray        {constAndArray,        { 4799,  4799,  1399, 2499, 1499, false}};

constexpr const Rule& ruleOf(Group g) {
    switch (g) {
    case Group::mam: case Group::tam: case Group::mat: case Group::tat:
    case Group::mma: case Group::tma: case Group::mta: case Group::tta: return kMatrixAndArray;
    case Group::mama: case Group::tama: case Group::tata: case Group::mata: return kTwoMatrixArrays;
    case Group::vav: case Group::vva: case Group::vac: return kVectorAndArray;
    case Group::vava: return kTwoVectorArrays;
    case Group::vca: case Group::cav: return kVectorAndConstArray;
    case Group::vaca: case Group::cava: return kArrayAndConstArray;
    case Group::cva: return kConstAndArray;
    default: return kSingle;
    }
}

// ---- check orders ----
// Members not listed check in the library's order: null, count, size, stride, ROI shift.
struct OrderException {
    Group group;
    Desc desc;
    CheckOrder order;
};
using C = Check;
constexpr OrderException kOrderExceptions[] = {
    {Group::mam, Desc::Std, {C::Null, C::Count, C::Stride, C::Size}},
    {Group::mma, Desc::Std, {C::Null, C::Count, C::Stride, C::Size}},
    {Group::vav, Desc::Std, {C::Null, C::Size, C::Stride, C::Count}},
    {Group::vav, Desc::L,   {C::Null, C::Size, C::Stride, C::RoiShift, C::Count}},
    {Group::vav, Desc::P,   {C::Null, C::Size, C::Stride, C::Count, C::RoiShift}},
};

constexpr CheckOrder orderOf(Group g, Desc d) {
    for (const OrderException& e : kOrderExceptions)
        if (e.group == g && e.desc == d) return e.order;
    return kDefaultOrder;
}

// Whether a checked call goes to the parallel driver. Only arrays ever do.
template <class T>
bool goesParallel(const Rule& rule, Desc desc, bool contiguous, const Dims& dims) {
    const Limits& l = rule.limits;
    if (rule.work == noWork) return false;
    const int32_t limit = desc == Desc::L ? l.L
                        : desc == Desc::P ? l.P
                        : sizeof(T) == 8  ? l.std64
                        : contiguous      ? l.std32
                                          : l.std32Strided;
    const int32_t work = rule.work(dims);
    return l.atLimitParallel ? work >= limit : work > limit;
}

// One exported Add or Sub: checks in the member's order, then the serial kernel or the driver.
// a and b are the operands in name order (a - b for Sub); d is the destination.
template <class Op, Group G, Desc Dsc, class D, class A, class B>
OmkStatus addSub(const D& d, const A& a, const B& b, const Dims& dims) {
    constexpr CheckOrder order = orderOf(G, Dsc);
    if (const OmkStatus st = firstFailure(order, dims, a, b, d)) return st;
    using T = std::remove_const_t<typename D::Elem>;
    if constexpr (&ruleOf(G) == &kSingle && D::kLayout == Layout::Strided && A::kLayout != Layout::Scattered &&
                  B::kLayout != Layout::Scattered) {
        // One square matrix or vector of order 3 or 4 with packed rows goes straight to its
        // unrolled kernel, inlined into the exported function: the call costs the checks and the
        // arithmetic, as the operation written inline would. Both operands are read whole before
        // the destination is written, so a destination equal to an operand gives the same result.
        const int32_t w = dims.width, h = dims.height;
        if ((D::kMatrix ? w == h : h == 1) && (w == 3 || w == 4) && unitColumns(d) && unitColumns(a) &&
            unitColumns(b)) {
            const auto da = unitCols(d.obj(0));
            const auto aa = unitCols(a.obj(0));
            const auto ba = unitCols(b.obj(0));
            if (w == 3) applyObjectReadFirst<3, D::kMatrix ? 3 : 1>(da, aa, ba, Op{});
            else applyObjectReadFirst<4, D::kMatrix ? 4 : 1>(da, aa, ba, Op{});
            return omkStsOk;
        }
    }
    const bool contiguous = elementsContiguous(d, a, b);
    return binaryOverObjects<Op>(goesParallel<T>(ruleOf(G), Dsc, contiguous, dims), d, a, b, dims);
}

// The fixed-length forms: no checks, always omkStsOk.
template <class Op, int N>
OmkStatus fixedLength(const Omk32f* pSrc1, const Omk32f* pSrc2, Omk32f* pDst) {
    Omk32f r[N];
    for (int j = 0; j < N; ++j) r[j] = Op::apply(pSrc1[j], pSrc2[j]);
    for (int j = 0; j < N; ++j) pDst[j] = r[j];
    return omkStsOk;
}

}  // namespace omk::addsub
