// Mul by a constant: a matrix, a transposed matrix or a vector times one scalar, single or in
// arrays, and vectors times an array of constants, in the standard, pointer (_P) and layout (_L)
// descriptions. Every destination element is one product rounded once, so the element-wise
// kernels of the frame serve every path.
//
// A transposed source (tc, tac) is stored as `width` rows of `height` elements: width and height
// are the destination's. The exported functions (scale_entries.cpp) are one line each.
#pragma once
#include <type_traits>

#include "frame/binary_kernels.h"
#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/wrapping.h"

namespace omk::scale {

enum class Group { mc, tc, vc, mac, tac, vac, vaca, vca };
enum class Desc { Std, L, P };

// ---- work figures (signed 32-bit, wrapping) ----
using Work = int32_t (*)(const Dims&);
constexpr int32_t noWork(const Dims&) { return 0; }
constexpr int32_t matrices(const Dims& d) { return (Wrap32(2) * d.width * d.height * d.count).value(); }
constexpr int32_t vectors(const Dims& d) { return (Wrap32(2) * d.width * d.count).value(); }
constexpr int32_t vectorsAndConstants(const Dims& d) { return (Wrap32(d.count) * (Wrap32(2) * d.width + 1)).value(); }
constexpr int32_t vectorAndConstants(const Dims& d) { return (Wrap32(d.width) * (Wrap32(d.count) + 1) + d.count).value(); }

// ---- serial limits: a call stays serial while its work is at most the limit ----
// "Contiguous" means both element strides (source and destination) are the element size.
struct Limits {
    int32_t stdContiguous32, stdContiguous64, stdOther, layoutContiguous, layoutOther32, layoutOther64, pointer;
};
struct Rule {
    Work work;
    Limits limits;
};
//                                            std contiguous  std    _L contiguous  _L other     _P
//                                               32f    64f  other                  32f   64f
constexpr Rule kSingle              {noWork,              {    0,     0,    0,    0,    0,    0,    0}};
constexpr Rule kMatrices            {matrices,            { 3500,  3500, 3500, 3500, 1500, 3500, 1700}};
constexpr Rule kVectors             {vectors,             { 2500,  3600, 1440, 3600, 1440, 1440, 1440}};
// vaca and vca test the work before the contiguity; their limits do not depend on it.
constexpr Rule kVectorsAndConstants {vectorsAndConstants, { 2100,  2100, 2100, 1200, 1200, 1200,  650}};
constexpr Rule kVectorAndConstants  {vectorAndConstants,  { 2100,  2100, 2100, 1200, 1200, 1200,  650}};

constexpr const Rule& ruleOf(Group g) {
    switch (g) {
    case Group::mac: case Group::tac: return kMatrices;
    case Group::vac: return kVectors;
    case Group::vaca: return kVectorsAndConstants;
    case Group::vca: return kVectorAndConstants;
    default: return kSingle;
    }
}

template <class T>
bool goesParallel(const Rule& rule, Desc desc, bool contiguous, const Dims& dims) {
    if (rule.work == noWork) return false;
    const Limits& l = rule.limits;
    const bool is64 = sizeof(T) == 8;
    const int32_t limit = desc == Desc::P ? l.pointer
                        : desc == Desc::L ? (contiguous ? l.layoutContiguous : is64 ? l.layoutOther64 : l.layoutOther32)
                        : contiguous      ? (is64 ? l.stdContiguous64 : l.stdContiguous32)
                                          : l.stdOther;
    return rule.work(dims) > limit;
}

// One exported product with a constant: checks (null, count, size, stride, ROI shift), then the
// serial kernel or the parallel driver.
template <Group G, Desc Dsc, class D, class S, class C>
OmkStatus byConstant(const D& d, const S& src, const C& val, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, src, val, d)) return st;
    using T = std::remove_const_t<typename D::Elem>;
    const bool contiguous = elementsContiguous(d, src);
    return binaryOverObjects<Times>(goesParallel<T>(ruleOf(G), Dsc, contiguous, dims), d, src, val, dims);
}

}  // namespace omk::scale
