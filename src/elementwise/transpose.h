// Transpose: dst(j, i) = src(i, j) for a source of `height` rows of `width` elements, single or in
// arrays, on the calling thread. Elements move as raw words.
//
// Per object, when both element strides are the element size the contiguous kernel runs (bands of
// source rows, each writing the matching band of destination columns), otherwise an element-by-
// element kernel. The 32-bit contiguous kernel decides from the largest cache whether a matrix is
// "large": large matrices are written with non-temporal stores (their destination would only evict
// the source from the cache), others with ordinary ones; both give the same bits.
#pragma once
#include <immintrin.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/register_transpose.h"
#include "omkcore.h"
#include "omkm.h"

namespace omk::transposition {

using C = Check;
// Single matrices: null, size, strides (_P: ROI shifts for strides). Arrays: null, count, size,
// strides, then ROI shifts for _P and _L.
inline constexpr CheckOrder kSingleOrder{C::Null, C::Size, C::Stride, C::RoiShift};
inline constexpr CheckOrder kArrayOrder{C::Null, C::Count, C::Size, C::Stride, C::RoiShift};

// Calls up to 0x20000 bytes of traffic (read plus write) never ask for the cache size.
constexpr int64_t kSmallTraffic = 0x20000;
// Matrices whose smaller side is below this are never large on their own.
constexpr int32_t kLargeSide = 129;
constexpr int32_t kBand = 64;

inline int32_t maxCacheBytes() {
    int size = 0;
    if (omkGetMaxCacheSizeB(&size) != omkStsOk) return 0;
    return size;
}

// One element's bits to p; NT with a non-temporal store (movnti, which needs no alignment).
template <bool NT, class T>
inline void put(T* p, T v) {
    if constexpr (!NT) {
        *p = v;
    } else if constexpr (sizeof(T) == 4) {
        int32_t bits;
        std::memcpy(&bits, &v, 4);
        _mm_stream_si32(reinterpret_cast<int*>(p), bits);
    } else {
        long long bits;
        std::memcpy(&bits, &v, 8);
        _mm_stream_si64(reinterpret_cast<long long*>(p), bits);
    }
}

// One band of source rows [r0, r1) of a packed-row matrix into destination columns [r0, r1):
// 32-bit elements in 8x8 blocks through registers, the edges (and 64-bit elements) one by one.
// NT writes with non-temporal stores: whole aligned 32-byte block rows with vmovntps, everything
// else with movnti, which needs no alignment.
template <bool NT, class T>
void band(const StridedObject<const T>& s, const StridedObject<T>& d, int32_t r0, int32_t r1, int32_t w) {
    int32_t j = 0;
    if constexpr (sizeof(T) == 4) {
        for (; j + 8 <= w; j += 8) {
            int32_t i = r0;
            for (; i + 8 <= r1; i += 8) {
                __m256 r[8];
                for (int q = 0; q < 8; ++q) r[q] = _mm256_loadu_ps(reinterpret_cast<const float*>(s.row(i + q) + j));
                transpose8x8(r);
                for (int q = 0; q < 8; ++q) {
                    float* out = reinterpret_cast<float*>(d.row(j + q) + i);
                    if (NT && reinterpret_cast<uintptr_t>(out) % 32 == 0) {
                        _mm256_stream_ps(out, r[q]);
                    } else if (NT) {
                        alignas(32) float lanes[8];
                        _mm256_store_ps(lanes, r[q]);
                        for (int e = 0; e < 8; ++e) put<true>(reinterpret_cast<T*>(out) + e, T(lanes[e]));
                    } else {
                        _mm256_storeu_ps(out, r[q]);
                    }
                }
            }
            for (; i < r1; ++i)
                for (int32_t q = j; q < j + 8; ++q) put<NT>(d.row(q) + i, s.row(i)[q]);
        }
    }
    for (; j < w; ++j)
        for (int32_t i = r0; i < r1; ++i) put<NT>(d.row(j) + i, s.row(i)[j]);
}

// The bands: the whole height when it is at most 64, or when the matrix is large and its width is
// not a multiple of 16; otherwise 64 rows, the last band taking what remains.
template <class T>
void contiguous(const StridedObject<const T>& s, const StridedObject<T>& d, int32_t w, int32_t h, bool large) {
    const int32_t rows = h <= kBand || (large && w % 16 != 0) ? h : kBand;
    for (int32_t r0 = 0; r0 < h; r0 += rows) {
        const int32_t r1 = h - r0 < rows ? h : r0 + rows;
        if (large) band<true>(s, d, r0, r1, w);
        else band<false>(s, d, r0, r1, w);
    }
    if (large) _mm_sfence();
}

template <class SO, class DO>
void elementwise(const SO& s, const DO& d, int32_t w, int32_t h) {
    for (int32_t i = 0; i < h; ++i)
        for (int32_t j = 0; j < w; ++j) std::memcpy(&d.at(j, i), &s.at(i, j), sizeof(s.at(i, j)));
}

// Every object of the call. `large` is the call's own marking (32-bit contiguous arrays); the
// per-object 32-bit kernel may still mark one matrix large by the cache size.
template <class D, class S>
void objects(const D& d, const S& s, int32_t w, int32_t h, int32_t count, bool large) {
    using T = std::remove_const_t<typename S::Elem>;
    for (int32_t k = 0; k < count; ++k) {
        const auto sk = s.obj(k);
        const auto dk = d.obj(k);
        if constexpr (D::kLayout == Layout::Strided && S::kLayout == Layout::Strided) {
            if (sk.colStep == ptrdiff_t(sizeof(T)) && dk.colStep == ptrdiff_t(sizeof(T))) {
                bool big = large;
                if (sizeof(T) == 4 && !big && (w < h ? w : h) >= kLargeSide) {
                    const int32_t cache = maxCacheBytes();
                    big = cache != 0 && int64_t(cache) < int64_t(8) * w * h;
                }
                contiguous<T>({sk.p, sk.rowStep, sk.colStep}, {dk.p, dk.rowStep, dk.colStep}, w, h, big);
                continue;
            }
        }
        elementwise(sk, dk, w, h);
    }
}

// The call's marking: 32-bit arrays whose element strides are all the element size, with more than
// 0x20000 bytes of traffic, are large when the traffic passes three quarters of the largest cache.
template <class D, class S>
bool largeCall(const D& d, const S& s, const Dims& dims) {
    using T = std::remove_const_t<typename S::Elem>;
    if constexpr (sizeof(T) != 4 || !S::kArray || D::kLayout != Layout::Strided || S::kLayout != Layout::Strided) {
        return false;
    } else {
        if (!elementsContiguous(d, s)) return false;
        const int64_t traffic = int64_t(8) * dims.width * dims.height * dims.count;
        if (traffic <= kSmallTraffic) return false;
        const int32_t cache = maxCacheBytes();
        return cache != 0 && traffic > int64_t(cache - cache / 4);
    }
}

template <class D, class S>
[[gnu::always_inline]] inline OmkStatus transpose(const D& d, const S& s, const Dims& dims) {
    if (const OmkStatus st = firstFailure(S::kArray ? kArrayOrder : kSingleOrder, dims, s, d)) return st;
    objects(d, s, dims.width, dims.height, dims.count, largeCall(d, s, dims));
    return omkStsOk;
}

// 16 contiguous floats, no checks; both read before any store, so pDst may be pSrc.
inline OmkStatus transpose4(const float* src, float* dst) {
    __m128 a = _mm_loadu_ps(src), b = _mm_loadu_ps(src + 4), c = _mm_loadu_ps(src + 8), e = _mm_loadu_ps(src + 12);
    _MM_TRANSPOSE4_PS(a, b, c, e);
    _mm_storeu_ps(dst, a);
    _mm_storeu_ps(dst + 4, b);
    _mm_storeu_ps(dst + 8, c);
    _mm_storeu_ps(dst + 12, e);
    return omkStsOk;
}

}  // namespace omk::transposition
