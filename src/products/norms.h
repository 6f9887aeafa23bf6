// Euclidean norms of vectors, Frobenius norms of matrices and traces of square matrices, single or
// in arrays, in the standard, pointer (_P) and layout (_L) descriptions. Results go to `count`
// consecutive elements of pDst; sums and roots are taken in the element type. The exported
// functions (norm_entries.cpp) are one line each.
#pragma once
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/parallel_driver.h"
#include "frame/wrapping.h"

namespace omk::norms {

enum class Desc { Std, L, P };

// ---- serial limits: an array stays serial while its work is at most the limit ----
constexpr int32_t kL2Limit = 1500;             // len*count
constexpr int32_t kFrobContiguousLimit = 2500; // width*height*count, element stride = element size
constexpr int32_t kFrobLimit = 1800;           // other strides and _P
constexpr int32_t kTraceLimit = 3600;          // widthHeight*count

// Runs object(result slot, object k) over the objects of a call, serially or over the driver.
template <class R, class S, class Object>
OmkStatus eachObject(bool parallel, const R& result, const S& src, int32_t count, Object&& object) {
    return overObjectsPacked(parallel, count, [&](auto packed, int32_t first, int32_t m) {
        constexpr bool P = decltype(packed)::value;
        const S ss = src.from(first);
        auto* out = result.from(first).obj(0);
        for (int32_t k = 0; k < m; ++k) out[k] = object(objectOf<P>(ss, k));
        return omkStsOk;
    }, src);
}

// ---- L2Norm ----
// Element stride the element size: s_k = x_k*x_k rounded, length 3 sqrt((s0 + s1) + s2), 4
// sqrt((s0 + s1) + (s2 + s3)), 5 sqrt(S4 + s4), 6 sqrt(S4 + (s4 + s5)) with S4 the length-4 sum,
// other lengths t = t + s_k from t = 0. Other strides and _P: t = fma(x_k, x_k, t) from t = 0.
template <class T, class XO>
T l2Contiguous(const XO& x, int n) {
    auto s = [&](int k) -> T { const T v = x.at(0, k); return v * v; };
    switch (n) {
    case 3: return std::sqrt((s(0) + s(1)) + s(2));
    case 4: return std::sqrt((s(0) + s(1)) + (s(2) + s(3)));
    case 5: return std::sqrt(((s(0) + s(1)) + (s(2) + s(3))) + s(4));
    case 6: return std::sqrt(((s(0) + s(1)) + (s(2) + s(3))) + (s(4) + s(5)));
    default: {
        T t = T(0);
        for (int k = 0; k < n; ++k) t = t + s(k);
        return std::sqrt(t);
    }
    }
}

template <class T, class XO>
T l2Strided(const XO& x, int n) {
    T t = T(0);
    for (int k = 0; k < n; ++k) {
        const T v = x.at(0, k);
        t = std::fma(v, v, t);
    }
    return std::sqrt(t);
}

// Packed arrays: element offsets known to the compiler, vectorised across objects.
template <int N, class T>
void l2Packed(const T* x, T* out, int32_t m) {
    for (int32_t k = 0; k < m; ++k) out[k] = l2Contiguous<T>(StridedObject<const T, true>{x + ptrdiff_t(k) * N, 0, 1}, N);
}

template <Desc Dsc, class R, class S>
OmkStatus l2Norm(const R& result, const S& src, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, src, result)) return st;
    using T = std::remove_const_t<typename S::Elem>;
    const int n = dims.width;
    const bool parallel = S::kArray && (Wrap32(n) * dims.count).value() > kL2Limit;
    const bool contiguous = src.contiguous();
    if constexpr (Dsc == Desc::Std && S::kArray) {
        if (contiguous && src.packed(n, 1) && n >= 3 && n <= 6)
            return overObjects(parallel, dims.count, [&](int32_t first, int32_t m) {
                const T* x = src.from(first).obj(0).p;
                T* out = result.from(first).obj(0);
                switch (n) {
                case 3: l2Packed<3>(x, out, m); break;
                case 4: l2Packed<4>(x, out, m); break;
                case 5: l2Packed<5>(x, out, m); break;
                default: l2Packed<6>(x, out, m); break;
                }
                return omkStsOk;
            });
    }
    if (contiguous) return eachObject(parallel, result, src, dims.count, [n](const auto& x) { return l2Contiguous<T>(x, n); });
    return eachObject(parallel, result, src, dims.count, [n](const auto& x) { return l2Strided<T>(x, n); });
}

// ---- FrobNorm: t = fma(x, x, t) from t = 0 over the rows in order, then the root ----
template <Desc Dsc, class R, class S>
OmkStatus frobNorm(const R& result, const S& src, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, src, result)) return st;
    using T = std::remove_const_t<typename S::Elem>;
    const int w = dims.width, h = dims.height;
    const bool contiguous = src.contiguous();
    const bool parallel =
        S::kArray && (Wrap32(w) * h * dims.count).value() > (contiguous ? kFrobContiguousLimit : kFrobLimit);
    return eachObject(parallel, result, src, dims.count, [w, h](const auto& x) {
        T t = T(0);
        for (int i = 0; i < h; ++i)
            for (int j = 0; j < w; ++j) {
                const T v = x.at(i, j);
                t = std::fma(v, v, t);
            }
        return std::sqrt(t);
    });
}

// ---- Trace: t = a00, then t = t + a_kk in order; orders 3 to 6 unrolled ----
template <int N, class T, class XO>
T traceFixed(const XO& x) {
    T t = x.at(0, 0);
#pragma GCC unroll 6
    for (int k = 1; k < N; ++k) t = t + T(x.at(k, k));
    return t;
}

template <Desc Dsc, class R, class S>
OmkStatus trace(const R& result, const S& src, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kDefaultOrder, dims, src, result)) return st;
    using T = std::remove_const_t<typename S::Elem>;
    const int n = dims.width;
    const bool parallel = S::kArray && (Wrap32(n) * dims.count).value() > kTraceLimit;
    return eachObject(parallel, result, src, dims.count, [n](const auto& x) -> T {
        switch (n) {
        case 3: return traceFixed<3, T>(x);
        case 4: return traceFixed<4, T>(x);
        case 5: return traceFixed<5, T>(x);
        case 6: return traceFixed<6, T>(x);
        default: {
            T t = x.at(0, 0);
            for (int k = 1; k < n; ++k) t = t + T(x.at(k, k));
            return t;
        }
        }
    });
}

}  // namespace omk::norms
