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
// N null, S sizes, C count, T strides, R ROI shifts; Copy splits the strides into element strides
// and object strides, the latter tested last and only when count > 1.
enum class Op : uint8_t { Copy, Extract, LoadIdentity };
enum class Kind : uint8_t { m, t, v, ma, ta, va };
// A member: its family, operand kind, element type and description (for Copy, of the source; the
// destination's is `copyDst`).
struct Member {
    Op op;
    Kind kind;
    bool f32;
    Desc desc, copyDst;
    constexpr bool operator==(const Member& o) const {
        return op == o.op && kind == o.kind && f32 == o.f32 && desc == o.desc && copyDst == o.copyDst;
    }
};

// The families' rules. Copy: N S C T(elements) R T(objects), where the SS members' ROI step passes.
// Extract single objects: N S T (_P: N S R); arrays N S C T (_P, _L: N S C R T). LoadIdentity:
// N S C T (_L: N S C T R, _P: N S C R T).
constexpr CheckOrder regularOrder(const Member& m) {
    const bool array = m.kind == Kind::ma || m.kind == Kind::ta || m.kind == Kind::va;
    switch (m.op) {
    case Op::Copy: return {C::Null, C::Size, C::Count, C::ElementStride, C::RoiShift, C::ObjectStride};
    case Op::Extract:
        if (!array)
            return m.desc == Desc::S ? CheckOrder{C::Null, C::Size, C::Stride} : CheckOrder{C::Null, C::Size, C::RoiShift};
        return m.desc == Desc::S ? CheckOrder{C::Null, C::Size, C::Count, C::Stride}
                                 : CheckOrder{C::Null, C::Size, C::Count, C::RoiShift, C::Stride};
    default:
        return m.desc == Desc::S   ? CheckOrder{C::Null, C::Size, C::Count, C::Stride}
               : m.desc == Desc::L ? CheckOrder{C::Null, C::Size, C::Count, C::Stride, C::RoiShift}
                                   : CheckOrder{C::Null, C::Size, C::Count, C::RoiShift, C::Stride};
    }
}

// The members that depart from their family's rule, one line each.
struct OrderException {
    Member member;
    CheckOrder order;
};
inline constexpr CheckOrder kCopyRoiFirst{C::Null, C::Size, C::Count, C::RoiShift, C::ElementStride, C::ObjectStride};
inline constexpr CheckOrder kSizeBeforeNull{C::Size, C::Null, C::RoiShift};
constexpr OrderException kOrderExceptions[] = {
    {{Op::Copy, Kind::ma, true, Desc::P, Desc::P}, kCopyRoiFirst},
    {{Op::Copy, Kind::ma, false, Desc::P, Desc::P}, kCopyRoiFirst},
    {{Op::Copy, Kind::va, true, Desc::P, Desc::P}, kCopyRoiFirst},
    {{Op::Copy, Kind::va, false, Desc::P, Desc::P}, kCopyRoiFirst},
    {{Op::Copy, Kind::va, true, Desc::L, Desc::P}, kCopyRoiFirst},
    {{Op::Copy, Kind::va, true, Desc::S, Desc::P}, kCopyRoiFirst},
    {{Op::Extract, Kind::m, true, Desc::P, Desc::S}, kSizeBeforeNull},
    {{Op::Extract, Kind::m, false, Desc::P, Desc::S}, kSizeBeforeNull},
    {{Op::Extract, Kind::t, true, Desc::P, Desc::S}, kSizeBeforeNull},
    {{Op::Extract, Kind::t, false, Desc::P, Desc::S}, kSizeBeforeNull},
    {{Op::Extract, Kind::v, false, Desc::P, Desc::S}, kSizeBeforeNull},
    {{Op::LoadIdentity, Kind::ma, true, Desc::P, Desc::S}, {C::Null, C::Size, C::RoiShift, C::Count, C::Stride}},
};

constexpr CheckOrder orderOf(const Member& m) {
    for (const OrderException& e : kOrderExceptions)
        if (e.member == m) return e.order;
    return regularOrder(m);
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
