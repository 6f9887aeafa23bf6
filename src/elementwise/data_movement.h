// Copy, Extract and LoadIdentity: elements moved between descriptions and layouts as raw 32- or
// 64-bit words (every bit pattern kept: NaN payloads, signed zeros), on the calling thread.
//
// Each member checks in the order of its row below; the deliberate differences between like members
// (Extract _P testing sizes before null pointers, the ROI step's place in some Copy and LoadIdentity
// members, Copy testing object strides last and only for more than one object) are kept.
#pragma once
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "frame/checks.h"
#include "frame/operand_views.h"
#include "omkm.h"

namespace omk::move {

enum class Desc { S, P, L };
using C = Check;

// ---- check orders ----
// Copy: null, size, count, element strides, ROI shifts, object strides (only when count > 1).
inline constexpr CheckOrder kCopyOrder{C::Null, C::Size, C::Count, C::ElementStride, C::RoiShift, C::ObjectStride};
// Copy_ma PP (both types), Copy_va PP (both types), Copy_va_32f LP and SP: the ROI shifts first.
inline constexpr CheckOrder kCopyRoiFirst{C::Null, C::Size, C::Count, C::RoiShift, C::ElementStride,
                                          C::ObjectStride};

constexpr CheckOrder copyOrder(bool vector, bool f32, Desc src, Desc dst) {
    if (src == Desc::P && dst == Desc::P) return kCopyRoiFirst;
    if (vector && f32 && dst == Desc::P && (src == Desc::L || src == Desc::S)) return kCopyRoiFirst;
    return kCopyOrder;  // the SS members have no ROI shift, so the step passes
}

// Extract: single objects null, size, strides (_P: size, null, ROI; but v_32f_P null, size, ROI);
// arrays null, size, count, strides (_P, _L: ROI before strides).
constexpr CheckOrder extractOrder(bool array, bool vector, bool f32, Desc d) {
    if (!array) {
        if (d == Desc::S) return {C::Null, C::Size, C::Stride};
        if (vector && f32) return {C::Null, C::Size, C::RoiShift};
        return {C::Size, C::Null, C::RoiShift};
    }
    if (d == Desc::S) return {C::Null, C::Size, C::Count, C::Stride};
    return {C::Null, C::Size, C::Count, C::RoiShift, C::Stride};
}

// LoadIdentity: null, size, count, strides; _L then ROI; _P 32f ROI before count, _P 64f ROI before
// strides.
constexpr CheckOrder identityOrder(bool f32, Desc d) {
    switch (d) {
    case Desc::L: return {C::Null, C::Size, C::Count, C::Stride, C::RoiShift};
    case Desc::P:
        return f32 ? CheckOrder{C::Null, C::Size, C::RoiShift, C::Count, C::Stride}
                   : CheckOrder{C::Null, C::Size, C::Count, C::RoiShift, C::Stride};
    default: return {C::Null, C::Size, C::Count, C::Stride};
    }
}

// ---- kernels ----

// One element's bits.
template <class T>
inline void moveBits(T& d, const T& s) {
    std::memmove(&d, &s, sizeof(T));
}

// Objects 0..count-1 of s to d. Runs of packed elements move with memmove (a whole packed array at
// once, or object by object, or row by row); other layouts element by element, the element loop
// unrolled by two with a trailing element. Source and destination may be the same memory; other
// overlaps are not supported.
template <class D, class S>
void copyObjects(const D& d, const S& s, int32_t w, int32_t h, int32_t count) {
    using T = std::remove_const_t<typename S::Elem>;
    if constexpr (D::kLayout == Layout::Strided && S::kLayout == Layout::Strided) {
        if (unitColumns(d) && unitColumns(s)) {
            if (d.packed(w, h) && s.packed(w, h)) {
                std::memmove(d.obj(0).p, s.obj(0).p, size_t(count) * size_t(w) * size_t(h) * sizeof(T));
                return;
            }
            const bool dense = d.denseObjects(w, h) && s.denseObjects(w, h);
            for (int32_t k = 0; k < count; ++k) {
                const auto dk = d.obj(k);
                const auto sk = s.obj(k);
                if (dense) std::memmove(dk.p, sk.p, size_t(w) * size_t(h) * sizeof(T));
                else
                    for (int32_t i = 0; i < h; ++i) std::memmove(dk.row(i), sk.row(i), size_t(w) * sizeof(T));
            }
            return;
        }
    }
    for (int32_t k = 0; k < count; ++k) {
        const auto dk = d.obj(k);
        const auto sk = s.obj(k);
        for (int32_t i = 0; i < h; ++i) {
            int32_t j = 0;
            for (; j + 1 < w; j += 2) {
                moveBits<T>(dk.at(i, j), sk.at(i, j));
                moveBits<T>(dk.at(i, j + 1), sk.at(i, j + 1));
            }
            if (j < w) moveBits<T>(dk.at(i, j), sk.at(i, j));
        }
    }
}

// ---- exported forms ----

// Copy between any two descriptions: checks in the member's order, then every element.
template <class D, class S>
[[gnu::always_inline]] inline OmkStatus copy(const CheckOrder& order, const D& d, const S& s, const Dims& dims) {
    if (const OmkStatus st = firstFailure(order, dims, s, d)) return st;
    copyObjects(d, s, dims.width, dims.height, dims.count);
    return omkStsOk;
}

// The operand as used (a t operand transposed), densely: object k at element k*width*height, rows
// of width elements. pDst has no strides; its view only carries the null test.
template <class S, class T>
[[gnu::always_inline]] inline OmkStatus extract(const CheckOrder& order, T* pDst, const S& s, const Dims& dims) {
    if (const OmkStatus st = firstFailure(order, dims, s, elems(pDst, 0))) return st;
    const int32_t e = int32_t(sizeof(T));
    const auto dense = StdView<T, true, true>{{dims.width * e, e, false}, pDst, dims.width * dims.height * e};
    copyObjects(dense, s, dims.width, dims.height, dims.count);
    return omkStsOk;
}

// Zeros, then ones on the diagonal of the leading square part (rows i < min(width, height)).
template <class D>
[[gnu::always_inline]] inline OmkStatus loadIdentity(const CheckOrder& order, const D& d, const Dims& dims) {
    if (const OmkStatus st = firstFailure(order, dims, d)) return st;
    using T = std::remove_const_t<typename D::Elem>;
    const int32_t n = dims.width < dims.height ? dims.width : dims.height;
    for (int32_t k = 0; k < dims.count; ++k) {
        const auto dk = d.obj(k);
        for (int32_t i = 0; i < dims.height; ++i)
            for (int32_t j = 0; j < dims.width; ++j) dk.at(i, j) = T(0);
        for (int32_t i = 0; i < n; ++i) dk.at(i, i) = T(1);
    }
    return omkStsOk;
}

}  // namespace omk::move
