// Gaxpy: y = A*x + b with A of `height` rows and `width` columns, for one x and b (mv), arrays of x
// and b (mva), or an array of x with one b (mvav), in the standard, pointer (_P) and layout (_L)
// descriptions. The matrix is one operand in every member; vectors are read and written as
// columns. The exported functions (gaxpy_entries.cpp) are one line each.
#pragma once
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/parallel_driver.h"
#include "frame/wrapping.h"
#include "products/product_kernels.h"

namespace omk::gaxpy {

enum class Group { mv, mva, mvav };
enum class Desc { Std, L, P };

// The sizes of a call: the matrix's width and height, the lengths of x and b.
struct Sizes {
    int32_t width, height, xLen, bLen, count;
    bool sizesBad() const { return width < 1 || height < 1 || xLen < 1 || bLen < 1; }
    bool disagree() const { return width != xLen || height != bLen; }
};

// ---- work figures and serial limits: an array stays serial while its work is at most the limit ----
// The matrix is not counted: mva (xLen + 2*bLen)*count, mvav xLen*count + bLen*(count + 1).
//                                                  every element stride      other
//                                                  the element size
constexpr int32_t kStd32Contiguous = 7000, kStd32 = 5000;
constexpr int32_t kStd64 = 5000;
constexpr int32_t kLayoutContiguous = 7000, kLayout = 500;  // 500: deliberately low
constexpr int32_t kPointer = 4500;

inline int32_t workOf(Group g, const Sizes& s) {
    if (g == Group::mva) return ((Wrap32(s.xLen) + Wrap32(2) * s.bLen) * s.count).value();
    return (Wrap32(s.xLen) * s.count + Wrap32(s.bLen) * (Wrap32(s.count) + 1)).value();
}

template <class T>
int32_t limitOf(Desc desc, bool contiguous) {
    switch (desc) {
    case Desc::P: return kPointer;
    case Desc::L: return contiguous ? kLayoutContiguous : kLayout;
    default: return sizeof(T) == 8 ? kStd64 : contiguous ? kStd32Contiguous : kStd32;
    }
}

// ---- kernels ----

// Square orders 3 to 6: the fused chain starts from b_i with the last column,
// t = fma(a_i,n-1, x_n-1, b_i), then t = fma(a_ik, x_k, t) for k = 0 ... n-2. x is read whole
// first.
template <int N, class T, class YO, class AO, class XO, class BO>
void gaxpyFixed(const YO& y, const AO& a, const XO& x, const BO& b) {
    T xv[N];
#pragma GCC unroll 6
    for (int k = 0; k < N; ++k) xv[k] = x.at(k, 0);
#pragma GCC unroll 6
    for (int i = 0; i < N; ++i) {
        T t = std::fma(T(a.at(i, N - 1)), xv[N - 1], T(b.at(i, 0)));
#pragma GCC unroll 6
        for (int k = 0; k + 1 < N; ++k) t = std::fma(T(a.at(i, k)), xv[k], t);
        y.at(i, 0) = t;
    }
}

// Every other shape: t = 0, t = t + a_ik*x_k in increasing k (each product rounded), then b_i.
template <class T, class YO, class AO, class XO, class BO>
void gaxpyGeneral(const YO& y, const AO& a, const XO& x, const BO& b, int w, int h) {
    for (int i = 0; i < h; ++i) {
        T t = T(0);
        for (int k = 0; k < w; ++k) t = t + T(a.at(i, k)) * T(x.at(k, 0));
        y.at(i, 0) = t + T(b.at(i, 0));
    }
}

// Square orders 3 to 6 with x, b and y each contiguous: lane i of one register is row i, so the
// chain fma(a_i,n-1, x_n-1, b_i), fma(a_i0, x0, t), ... runs in all rows at once, lane for lane
// the order of gaxpyFixed. The matrix's columns are gathered once per call.
template <int N, class T, class Y, class A, class X, class B>
void gaxpyColumns(const Y& y, const A& a, const X& x, const B& b, int32_t count) {
    using R = mul::Row<T, N>;
    typename R::V col[N];
    const auto ak = a.obj(0);
    for (int k = 0; k < N; ++k) {
        T c[N];
        for (int i = 0; i < N; ++i) c[i] = ak.at(i, k);
        col[k] = R::load(c);
    }
    int32_t k = 0;
    if constexpr (std::is_same_v<T, float> && N == 4) {
        // Two objects per 256-bit register, one in each half; the element broadcasts stay within
        // each half, so every lane runs the same chain as above.
        __m256 col2[4];
        for (int j = 0; j < 4; ++j) col2[j] = _mm256_set_m128(col[j], col[j]);
        for (; k + 1 < count; k += 2) {
            const __m256 xx = _mm256_loadu2_m128(x.obj(k + 1).p, x.obj(k).p);
            __m256 t = _mm256_fmadd_ps(col2[3], _mm256_permute_ps(xx, 0xFF),
                                       _mm256_loadu2_m128(b.obj(k + 1).p, b.obj(k).p));
            t = _mm256_fmadd_ps(col2[0], _mm256_permute_ps(xx, 0x00), t);
            t = _mm256_fmadd_ps(col2[1], _mm256_permute_ps(xx, 0x55), t);
            t = _mm256_fmadd_ps(col2[2], _mm256_permute_ps(xx, 0xAA), t);
            _mm256_storeu2_m128(y.obj(k + 1).p, y.obj(k).p, t);
        }
    }
    for (; k < count; ++k) {
        const T* xk = x.obj(k).p;
        auto t = R::fma(col[N - 1], R::splat(xk[N - 1]), R::load(b.obj(k).p));
#pragma GCC unroll 6
        for (int j = 0; j + 1 < N; ++j) t = R::fma(col[j], R::splat(xk[j]), t);
        R::store(y.obj(k).p, t);
    }
}

template <bool P, class T, class Y, class A, class X, class B>
void gaxpyObjects(const Y& y, const A& a, const X& x, const B& b, int w, int h, int32_t count) {
    const auto ak = objectOf<P>(a, 0);
    const int n = w == h && w >= 3 && w <= 6 ? w : 0;
    for (int32_t k = 0; k < count; ++k) {
        const auto yk = objectOf<P>(y, k);
        const auto xk = objectOf<P>(x, k);
        const auto bk = objectOf<P>(b, k);
        switch (n) {
        case 3: gaxpyFixed<3, T>(yk, ak, xk, bk); break;
        case 4: gaxpyFixed<4, T>(yk, ak, xk, bk); break;
        case 5: gaxpyFixed<5, T>(yk, ak, xk, bk); break;
        case 6: gaxpyFixed<6, T>(yk, ak, xk, bk); break;
        default: gaxpyGeneral<T>(yk, ak, xk, bk, w, h);
        }
    }
}

// Null pointers, count, sizes, width = src2Len and height = src3Len, strides, ROI shifts; then the
// objects, serially or over the driver.
template <Group G, Desc Dsc, class Y, class A, class X, class B>
OmkStatus axPlusB(const Y& y, const A& a, const X& x, const B& b, const Sizes& s) {
    if (const OmkStatus st = firstFailure(kAgreementOrder, s, a, x, b, y)) return st;
    using T = std::remove_const_t<typename Y::Elem>;
    const bool contiguous = elementsContiguous(a, x, b, y);
    const bool parallel = G != Group::mv && workOf(G, s) > limitOf<T>(Dsc, contiguous);
    if constexpr (Dsc != Desc::P) {
        const int n = s.width == s.height && s.width >= 3 && s.width <= 6 ? s.width : 0;
        if (n != 0 && elementsContiguous(x, b, y))
            return overObjects(parallel, s.count, [&](int32_t first, int32_t m) {
                const Y ys = y.from(first);
                const X xs = x.from(first);
                const B bs = b.from(first);
                switch (n) {
                case 3: gaxpyColumns<3, T>(ys, a, xs, bs, m); break;
                case 4: gaxpyColumns<4, T>(ys, a, xs, bs, m); break;
                case 5: gaxpyColumns<5, T>(ys, a, xs, bs, m); break;
                default: gaxpyColumns<6, T>(ys, a, xs, bs, m); break;
                }
                return omkStsOk;
            });
    }
    return overObjectsPacked(parallel, s.count, [&](auto packed, int32_t first, int32_t m) {
        gaxpyObjects<decltype(packed)::value, T>(y.from(first), a, x.from(first), b.from(first), s.width, s.height, m);
        return omkStsOk;
    }, y, a, x, b);
}

}  // namespace omk::gaxpy
