// Mul of matrices and vectors: products of a matrix (or its transpose) with a matrix (or its
// transpose) or a vector, for single objects and arrays, in the standard, pointer (_P) and layout
// (_L) descriptions.
//
// Each source carries its own stored sizes; the destination's follow from the product. The
// exported functions (mul_*_entries.cpp) are one line each: they build the operand views and call
// product with their group and description. Everything that differs between members stands in
// the tables below.
#pragma once
#include <immintrin.h>

#include <cstdint>
#include <type_traits>

#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/parallel_driver.h"
#include "frame/wrapping.h"
#include "products/product_kernels.h"

namespace omk::mul {

enum class Group {
    mm, mt, tm, tt, mv, tv,                  // single objects
    mma, mta, tma, tta,                      // one matrix times each matrix of an array
    mam, mat, tam, tat,                      // each matrix of an array times one matrix
    mama, mata, tama, tata,                  // two arrays of matrices, pairwise
    mva, tva,                                // one matrix times each vector of an array
    mav, tav,                                // each matrix of an array times one vector
    mava, tava,                              // arrays of matrices and of vectors, pairwise
};
enum class Desc { Std, L, P };

// Which operands are arrays.
enum class Arrays { None, Second, First, Both };

struct GroupInfo {
    char a, b;  // kinds: 'm' matrix, 't' transposed matrix, 'v' vector
    Arrays arrays;
};

constexpr GroupInfo infoOf(Group g) {
    switch (g) {
    case Group::mm: return {'m', 'm', Arrays::None};
    case Group::mt: return {'m', 't', Arrays::None};
    case Group::tm: return {'t', 'm', Arrays::None};
    case Group::tt: return {'t', 't', Arrays::None};
    case Group::mv: return {'m', 'v', Arrays::None};
    case Group::tv: return {'t', 'v', Arrays::None};
    case Group::mma: return {'m', 'm', Arrays::Second};
    case Group::mta: return {'m', 't', Arrays::Second};
    case Group::tma: return {'t', 'm', Arrays::Second};
    case Group::tta: return {'t', 't', Arrays::Second};
    case Group::mam: return {'m', 'm', Arrays::First};
    case Group::mat: return {'m', 't', Arrays::First};
    case Group::tam: return {'t', 'm', Arrays::First};
    case Group::tat: return {'t', 't', Arrays::First};
    case Group::mama: return {'m', 'm', Arrays::Both};
    case Group::mata: return {'m', 't', Arrays::Both};
    case Group::tama: return {'t', 'm', Arrays::Both};
    case Group::tata: return {'t', 't', Arrays::Both};
    case Group::mva: return {'m', 'v', Arrays::Second};
    case Group::tva: return {'t', 'v', Arrays::Second};
    case Group::mav: return {'m', 'v', Arrays::First};
    case Group::tav: return {'t', 'v', Arrays::First};
    case Group::mava: return {'m', 'v', Arrays::Both};
    case Group::tava: return {'t', 'v', Arrays::Both};
    }
    return {'m', 'm', Arrays::None};
}

// ---- sizes: as the arguments give them (stored sizes; a vector is bw = len, bh = 1) ----
struct Sizes {
    int32_t aw, ah, bw, bh, count;
};

// The sizes of one member's call, with the size checks of its kinds.
template <Group G>
struct Shape : Sizes {
    static constexpr GroupInfo kInfo = infoOf(G);
    // A as used is M x K, B as used K x N (N = 1 for a vector).
    int32_t M() const { return kInfo.a == 'm' ? ah : aw; }
    int32_t Ka() const { return kInfo.a == 'm' ? aw : ah; }
    int32_t Kb() const { return kInfo.b == 't' ? bw : kInfo.b == 'm' ? bh : bw; }
    int32_t N() const { return kInfo.b == 't' ? bh : kInfo.b == 'm' ? bw : 1; }

    bool sizesBad() const { return aw < 1 || ah < 1 || bw < 1 || bh < 1; }
    // mm: src1Width = src2Height, mt: src1Width = src2Width, tm: src1Height = src2Height,
    // tt: src1Height = src2Width, mv: src1Width = src2Len, tv: src1Height = src2Len.
    bool disagree() const { return Ka() != Kb(); }
    // Every dimension of both operands equal to n.
    int squareOrder() const {
        const bool square = aw == ah && aw == bw && (kInfo.b == 'v' || bw == bh);
        return square ? aw : 0;
    }
};

// ---- work figures (signed 32-bit, wrapping) ----
// e(X): stored width * height of a source (its length for a vector); e(dst): one result.
template <Group G>
int32_t workOf(const Shape<G>& s) {
    const Wrap32 e1 = Wrap32(s.aw) * s.ah, e2 = Wrap32(s.bw) * s.bh, ed = Wrap32(s.M()) * s.N();
    switch (Shape<G>::kInfo.arrays) {
    case Arrays::Second: return (e1 + Wrap32(s.count) * (e2 + ed)).value();  // one matrix by an array
    case Arrays::First: return (e2 + Wrap32(s.count) * (e1 + ed)).value();   // an array by one operand
    case Arrays::Both: return (Wrap32(s.count) * (e1 + e2 + ed)).value();
    case Arrays::None: break;
    }
    return 0;
}

// ---- serial limits: a call stays serial while its work is at most the limit ----
struct Limits {
    int32_t std32Contiguous, std64Contiguous, layoutContiguous, otherStrides, pointer;
};
constexpr Limits kLimits{2500, 3600, 3600, 1440, 1440};

template <class T>
constexpr int32_t serialLimit(Desc desc, bool contiguous) {
    if (desc == Desc::P) return kLimits.pointer;
    if (!contiguous) return kLimits.otherStrides;
    if (desc == Desc::L) return kLimits.layoutContiguous;
    return sizeof(T) == 4 ? kLimits.std32Contiguous : kLimits.std64Contiguous;
}

// ---- choice of the straight-line order ----
// omkmMul_mm_32f_P and omkmMul_tt_64f_P choose orders 3 and 4 by the bitwise OR of the four
// dimensions: OR = 3 takes the order-3 code (so 1x2 times 2x1 does too, addressing nine pointers
// of each table with that operand's own row pitch), OR = 4 the order-4 code. Every other member,
// and orders 5 and 6 of those two, choose by equality of all dimensions.
template <Group G, Desc D, class T>
constexpr bool kOrRule = D == Desc::P && ((G == Group::mm && sizeof(T) == 4) || (G == Group::tt && sizeof(T) == 8));

template <Group G, bool OrRule>
int straightLineOrder(const Shape<G>& s) {
    if constexpr (OrRule) {
        const int32_t bits = s.aw | s.ah | s.bw | s.bh;
        if (bits == 3 || bits == 4) return bits;
    }
    const int n = s.squareOrder();
    return n >= 3 && n <= 6 ? n : 0;
}

// ---- serial kernel over objects 0..count-1 ----

// One object of order N whose three operands have packed rows (unit column step): whole
// destination rows at once, A's elements read at fixed offsets from its rows. With Dense the rows
// of B and of the destination follow each other without a gap.
template <int N, bool Dense, class T>
[[gnu::always_inline]] inline void packedRowObject(T* d, ptrdiff_t dRow, const T* a, ptrdiff_t aRow, const T* b,
                                                   ptrdiff_t bRow) {
    if constexpr (N == 4 && sizeof(T) == 4) rowPairs4x4(d, dRow, a, aRow, b, bRow);
    else chainRows<N, Dense>(d, dRow, StridedObject<const T, true>{a, aRow, ptrdiff_t(sizeof(T))}, b, bRow);
}

// Objects of order N whose B and destination rows are packed: whole destination rows at once.
// The views are copied so that their fields stay in registers across the objects.
template <int N, bool Dense, class D, class A, class B>
[[gnu::always_inline]] inline void packedRowObjects(const D& dv, const A& av, const B& bv, int32_t count) {
    using T = std::remove_const_t<typename D::Elem>;
    const D d = dv;
    const A a = av;
    const B b = bv;
    constexpr ptrdiff_t e = sizeof(T), rowBytes = N * e;
    if (A::kMatrix && a.colStep() == e) {
        if (Dense && a.rowStep() == rowBytes) {
            // Every object is one run of N*N elements: all offsets inside an object are constants.
            auto object = [](T* dk, const T* ak, const T* bk) {
                if constexpr (N == 3) rows3x3(dk, ak, bk);
                else packedRowObject<N, true>(dk, rowBytes, ak, rowBytes, bk, rowBytes);
            };
            if (linearObjects(d, count) && linearObjects(a, count) && linearObjects(b, count)) {
                T* dp = d.obj(0).p;
                const T* ap = a.obj(0).p;
                const T* bp = b.obj(0).p;
                const ptrdiff_t ds = objectBytes(d), as = objectBytes(a), bs = objectBytes(b);
                int32_t k = 0;
                // B's objects lie at least a whole object apart in ascending order: every one but
                // the last is followed by readable memory of the caller's array.
                if constexpr (N == 3) {
                    if (bs >= rowBytes * N)
#pragma GCC unroll 2
                        for (; k + 1 < count; ++k, dp = addBytes(dp, ds), ap = addBytes(ap, as), bp = addBytes(bp, bs))
                            rows3x3<true>(dp, ap, bp);
                }
                for (; k < count; ++k, dp = addBytes(dp, ds), ap = addBytes(ap, as), bp = addBytes(bp, bs))
                    object(dp, ap, bp);
                return;
            }
            for (int32_t k = 0; k < count; ++k) object(d.obj(k).p, a.obj(k).p, b.obj(k).p);
            return;
        }
        for (int32_t k = 0; k < count; ++k) {
            const auto dk = d.obj(k);
            const auto ak = a.obj(k);
            const auto bk = b.obj(k);
            packedRowObject<N, Dense>(dk.p, dk.rowStep, ak.p, ak.rowStep, bk.p, bk.rowStep);
        }
        return;
    }
    for (int32_t k = 0; k < count; ++k) {
        const auto dk = d.obj(k);
        const auto bk = b.obj(k);
        chainRows<N, Dense>(dk.p, dk.rowStep, a.obj(k), bk.p, bk.rowStep);
    }
}

template <Path P, int N, class D, class A, class B>
inline void objectsOfOrder(const D& d, const A& a, const B& b, int M, int K, int Ncols, int32_t count) {
    using T = std::remove_const_t<typename D::Elem>;
    if constexpr (P == Path::Contiguous && N != 0 && B::kMatrix) {
        // B and the destination have packed rows here (element strides are the element size and
        // neither is read transposed), so whole destination rows are formed at once.
        constexpr ptrdiff_t e = sizeof(T), rowBytes = N * e;
        if (b.colStep() == e && d.colStep() == e) {
            if (b.rowStep() == rowBytes && d.rowStep() == rowBytes) return packedRowObjects<N, true>(d, a, b, count);
            return packedRowObjects<N, false>(d, a, b, count);
        }
    }
    for (int32_t k = 0; k < count; ++k) productObject<P, N>(d.obj(k), a.obj(k), b.obj(k), M, K, Ncols);
}

template <Path P, Group G, bool OrRule, class D, class A, class B>
void productSerial(const D& d, const A& a, const B& b, const Shape<G>& s, int32_t count) {
    const int n = straightLineOrder<G, OrRule>(s);
    // A straight-line object has n rows, n inner terms and n columns (one for a vector).
    const int cols = Shape<G>::kInfo.b == 'v' ? 1 : n;
    switch (n) {
    case 3: return objectsOfOrder<P, 3>(d, a, b, 3, 3, cols, count);
    case 4: return objectsOfOrder<P, 4>(d, a, b, 4, 4, cols, count);
    case 5: return objectsOfOrder<P, 5>(d, a, b, 5, 5, cols, count);
    case 6: return objectsOfOrder<P, 6>(d, a, b, 6, 6, cols, count);
    default: return objectsOfOrder<P, 0>(d, a, b, s.M(), s.Ka(), s.N(), count);
    }
}

// The kernel path of a product whose arguments have passed their checks, then the serial kernel
// or the parallel driver. Kept out of line, so that the exported function's own frame stays that
// of the checks and the single-object kernel below.
template <Group G, Desc Dsc, class D, class A, class B>
[[gnu::noinline]] OmkStatus productChecked(const D& d, const A& a, const B& b, const Shape<G>& s) {
    using T = std::remove_const_t<typename D::Elem>;
    constexpr bool orRule = kOrRule<G, Dsc, T>;

    auto run = [&](auto path, const D& dd, const A& aa, const B& bb, int32_t count) {
        productSerial<decltype(path)::value, G, orRule>(dd, aa, bb, s, count);
        return omkStsOk;
    };
    auto onPath = [&](auto path) -> OmkStatus {
        if (Shape<G>::kInfo.arrays == Arrays::None || workOf(s) <= serialLimit<T>(Dsc, path == Path::Contiguous))
            return run(path, d, a, b, s.count);
        return runOverObjects(s.count, [&](int32_t first, int32_t m, char*) {
            return run(path, d.from(first), a.from(first), b.from(first), m);
        });
    };
    if constexpr (Dsc == Desc::P) {
        return onPath(std::integral_constant<Path, Path::Pointer>{});
    } else {
        if (elementsContiguous(a, b, d)) return onPath(std::integral_constant<Path, Path::Contiguous>{});
        return onPath(std::integral_constant<Path, Path::Strided>{});
    }
}

// One exported product: checks (null, count, size, size agreement, stride, ROI shift), then a
// single square product of order 3 to 6 whose operands all have packed rows straight to its
// kernel (the per-call cost matters most there), everything else through productChecked.
template <Group G, Desc Dsc, class D, class A, class B>
[[gnu::always_inline]] inline OmkStatus product(const D& d, const A& a, const B& b, const Sizes& sizes) {
    const Shape<G> s{sizes};
    if (const OmkStatus st = firstFailure(kAgreementOrder, s, a, b, d)) return st;
    if constexpr (Dsc != Desc::P && Shape<G>::kInfo.arrays == Arrays::None && B::kMatrix) {
        using T = std::remove_const_t<typename D::Elem>;
        constexpr ptrdiff_t e = sizeof(T);
        const int n = straightLineOrder<G, kOrRule<G, Dsc, T>>(s);
        if (n != 0 && a.contiguous() && b.contiguous() && d.contiguous() && a.colStep() == e && b.colStep() == e &&
            d.colStep() == e) {
            const auto dk = d.obj(0);
            const auto ak = a.obj(0);
            const auto bk = b.obj(0);
            switch (n) {
            case 3: packedRowObject<3, false>(dk.p, dk.rowStep, ak.p, ak.rowStep, bk.p, bk.rowStep); break;
            case 4: packedRowObject<4, false>(dk.p, dk.rowStep, ak.p, ak.rowStep, bk.p, bk.rowStep); break;
            case 5: packedRowObject<5, false>(dk.p, dk.rowStep, ak.p, ak.rowStep, bk.p, bk.rowStep); break;
            default: packedRowObject<6, false>(dk.p, dk.rowStep, ak.p, ak.rowStep, bk.p, bk.rowStep); break;
            }
            return omkStsOk;
        }
    }
    return productChecked<G, Dsc>(d, a, b, s);
}

// omkmMul_mm4x4_32f: 16 contiguous row-major floats per matrix; only null pointers are checked.
// Both sources are read whole before the destination is written, so it may coincide with either.
// The two paths (all three 16-byte aligned, or not) differ only in their loads and stores.
OmkStatus mm4x4(const float* a, const float* b, float* d);

}  // namespace omk::mul
