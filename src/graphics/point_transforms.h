// Point transforms: a 4x4 transform (row-major, row vectors on the left) applied to one vector or
// to an array of vectors. Each formula runs on the four lanes of a row at once; the array forms
// run the same lane operations on two vectors per 256-bit step when the destination and its
// stride are multiples of 16 bytes and the source is packed, so both paths give the same bits.
#pragma once
#include <immintrin.h>

#include <cstdint>

#include "omkm.h"
#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/parallel_driver.h"
#include "frame/wrapping.h"
#include "solvers/det_inv.h"

namespace omk::graphics {

// Four lanes for one vector (128 bits) or two vectors side by side (256 bits).
struct L1 {
    using V = __m128;
    static V row(const float* m) { return _mm_loadu_ps(m); }
    static V fma(V a, V b, V c) { return _mm_fmadd_ps(a, b, c); }
    static V mul(V a, V b) { return _mm_mul_ps(a, b); }
    static V add(V a, V b) { return _mm_add_ps(a, b); }
    static V div(V a, V b) { return _mm_div_ps(a, b); }
    static V lane3(V a) { return _mm_permute_ps(a, 0xFF); }
};
struct L2 {
    using V = __m256;
    static V row(const float* m) { return _mm256_broadcast_ps(reinterpret_cast<const __m128*>(m)); }
    static V fma(V a, V b, V c) { return _mm256_fmadd_ps(a, b, c); }
    static V mul(V a, V b) { return _mm256_mul_ps(a, b); }
    static V add(V a, V b) { return _mm256_add_ps(a, b); }
    static V div(V a, V b) { return _mm256_div_ps(a, b); }
    static V lane3(V a) { return _mm256_permute_ps(a, 0xFF); }
};

// The transform's rows in lanes.
template <class L>
struct Rows {
    typename L::V r0, r1, r2, r3;
    explicit Rows(const float* m) : r0(L::row(m)), r1(L::row(m + 4)), r2(L::row(m + 8)), r3(L::row(m + 12)) {}
};

// The formulas, per form: N source components, W components written, and the lane operations on
// the splatted components x, y, z, w.
enum class Form { Affine2, Affine3, Affine4, Coord2, Coord3, Normal2, Normal3 };

constexpr int sourceLength(Form f) {
    return f == Form::Affine2 || f == Form::Coord2 || f == Form::Normal2 ? 2
           : f == Form::Affine4                                          ? 4
                                                                         : 3;
}
constexpr int resultLength(Form f) {
    return f == Form::Affine2 || f == Form::Affine3 || f == Form::Affine4 ? 4 : sourceLength(f);
}

template <Form F, class L, class V = typename L::V>
inline V formula(const Rows<L>& m, V x, V y, V z, V w) {
    switch (F) {
    case Form::Affine2: return L::fma(y, m.r1, L::fma(x, m.r0, m.r3));
    case Form::Affine3: return L::fma(z, m.r2, L::fma(y, m.r1, L::fma(x, m.r0, m.r3)));
    case Form::Affine4: return L::add(L::fma(x, m.r0, L::mul(y, m.r1)), L::fma(z, m.r2, L::mul(w, m.r3)));
    case Form::Coord2: {
        // Lanes 0 and 1 are fma(y, m1j, fma(x, m0j, m3j)), lane 3 is W: all divided by W.
        const V p = L::fma(y, m.r1, L::fma(x, m.r0, m.r3));
        return L::div(p, L::lane3(p));
    }
    case Form::Coord3: {
        const V p = L::fma(x, m.r0, L::fma(y, m.r1, L::fma(z, m.r2, m.r3)));
        return L::div(p, L::lane3(p));
    }
    case Form::Normal2: return L::fma(x, m.r0, L::mul(y, m.r1));
    case Form::Normal3: return L::fma(z, m.r2, L::fma(x, m.r0, L::mul(y, m.r1)));
    }
    return x;
}

// The first `n` lanes of `v` to d.
template <int N>
inline void storeFirst(float* d, __m128 v) {
    if constexpr (N == 4) {
        _mm_storeu_ps(d, v);
    } else {
        _mm_storel_pi(reinterpret_cast<__m64*>(d), v);
        if constexpr (N == 3) _mm_store_ss(d + 2, _mm_movehl_ps(v, v));
    }
}

// One vector: the components are read before anything is written, so pDst may be pSrc.
template <Form F>
inline __m128 one(const Rows<L1>& m, const float* s) {
    constexpr int n = sourceLength(F);
    const __m128 x = _mm_set1_ps(s[0]), y = _mm_set1_ps(s[1]);
    const __m128 z = n > 2 ? _mm_set1_ps(s[2]) : x, w = n > 3 ? _mm_set1_ps(s[3]) : x;
    return formula<F, L1>(m, x, y, z, w);
}

template <Form F>
inline OmkStatus single(const float* matrix, const float* src, float* dst) {
    const Rows<L1> m(matrix);
    storeFirst<resultLength(F)>(dst, one<F>(m, src));
    return omkStsOk;
}

// Two vectors whose components start at s and s + N: each component splatted into its half.
template <Form F>
inline __m256 two(const Rows<L2>& m, const float* s) {
    constexpr int n = sourceLength(F);
    auto splat = [&](int c) { return _mm256_set_m128(_mm_set1_ps(s[n + c]), _mm_set1_ps(s[c])); };
    const __m256 x = splat(0), y = splat(1);
    const __m256 z = n > 2 ? splat(2) : x, w = n > 3 ? splat(3) : x;
    return formula<F, L2>(m, x, y, z, w);
}

// Eight packed 3-vectors (24 floats) through the Affine3 formula, one point per lane: the
// components are gathered into x, y, z registers, each result component j is
// fma(z, M2j, fma(y, M1j, fma(x, M0j, M3j))) as lane j of the four-lane formula computes it, and
// the four result registers are interleaved back into one (x, y, z, w) row per point. The
// results are bit for bit those of the four-lane path; eight points take 12 fused operations
// and 27 other instructions instead of 8 x 7.
struct EightPoints {
    __m256 c[4][4];  // c[i][j]: element (i, j) of the matrix in every lane
    explicit EightPoints(const float* m) {
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) c[i][j] = _mm256_set1_ps(m[4 * i + j]);
    }
    // s: 24 floats; d: the first of eight destinations dStride bytes apart.
    [[gnu::always_inline]] inline void operator()(const float* s, float* d, ptrdiff_t dStride) const {
        const __m256 v0 = _mm256_loadu_ps(s), v1 = _mm256_loadu_ps(s + 8), v2 = _mm256_loadu_ps(s + 16);
        // Component c of point p is float 3p + c: lane l of v0, v1, v2 holds float l, 8 + l, 16 + l.
        // One blend per source picks each point's component into a lane, one permutation orders them.
        const __m256 bx = _mm256_blend_ps(_mm256_blend_ps(v0, v1, 0b10010010), v2, 0b00100100);
        const __m256 by = _mm256_blend_ps(_mm256_blend_ps(v0, v1, 0b00100100), v2, 0b01001001);
        const __m256 bz = _mm256_blend_ps(_mm256_blend_ps(v0, v1, 0b01001001), v2, 0b10010010);
        const __m256 x = _mm256_permutevar8x32_ps(bx, _mm256_setr_epi32(0, 6, 4, 2, 3, 1, 7, 5));
        const __m256 y = _mm256_permutevar8x32_ps(by, _mm256_setr_epi32(1, 7, 5, 3, 4, 2, 0, 6));
        const __m256 z = _mm256_permutevar8x32_ps(bz, _mm256_setr_epi32(2, 0, 6, 4, 5, 3, 1, 7));
        finish(x, y, z, d, dStride);
    }
    // Eight points sStride >= 16 bytes apart, each read as four floats (the fourth lies before the
    // next point, so the caller passes a block followed by another point): points 2q and 2q + 1 in
    // the halves of register q, then one 4x4 transpose per half gives the lane order above.
    [[gnu::always_inline]] inline void operator()(const float* s, ptrdiff_t sStride, float* d, ptrdiff_t dStride) const {
        __m256 q[4];
        for (int i = 0; i < 4; ++i)
            q[i] = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(addBytes(s, 2 * i * sStride))),
                                        _mm_loadu_ps(addBytes(s, (2 * i + 1) * sStride)), 1);
        const __m256 t0 = _mm256_unpacklo_ps(q[0], q[1]), t1 = _mm256_unpackhi_ps(q[0], q[1]);
        const __m256 t2 = _mm256_unpacklo_ps(q[2], q[3]), t3 = _mm256_unpackhi_ps(q[2], q[3]);
        finish(_mm256_shuffle_ps(t0, t2, 0x44), _mm256_shuffle_ps(t0, t2, 0xEE), _mm256_shuffle_ps(t1, t3, 0x44), d, dStride);
    }
    [[gnu::always_inline]] inline void finish(__m256 x, __m256 y, __m256 z, float* d, ptrdiff_t dStride) const {
        __m256 r[4];
        for (int j = 0; j < 4; ++j)
            r[j] = _mm256_fmadd_ps(z, c[2][j], _mm256_fmadd_ps(y, c[1][j], _mm256_fmadd_ps(x, c[0][j], c[3][j])));
        // Lane l of x, y, z holds point 2l for l < 4 and point 2(l - 4) + 1 above, so that the
        // interleaving within halves leaves points (0, 1), (2, 3), (4, 5), (6, 7) in p0..p3.
        const __m256 xy0 = _mm256_unpacklo_ps(r[0], r[1]), xy1 = _mm256_unpackhi_ps(r[0], r[1]);
        const __m256 zw0 = _mm256_unpacklo_ps(r[2], r[3]), zw1 = _mm256_unpackhi_ps(r[2], r[3]);
        const __m256 p[4] = {_mm256_castpd_ps(_mm256_unpacklo_pd(_mm256_castps_pd(xy0), _mm256_castps_pd(zw0))),
                             _mm256_castpd_ps(_mm256_unpackhi_pd(_mm256_castps_pd(xy0), _mm256_castps_pd(zw0))),
                             _mm256_castpd_ps(_mm256_unpacklo_pd(_mm256_castps_pd(xy1), _mm256_castps_pd(zw1))),
                             _mm256_castpd_ps(_mm256_unpackhi_pd(_mm256_castps_pd(xy1), _mm256_castps_pd(zw1)))};
        for (int q = 0; q < 4; ++q) {
            if (dStride == 16) {
                _mm256_storeu_ps(d + 8 * q, p[q]);
            } else {
                _mm_storeu_ps(addBytes(d, 2 * q * dStride), _mm256_castps256_ps128(p[q]));
                _mm_storeu_ps(addBytes(d, (2 * q + 1) * dStride), _mm256_extractf128_ps(p[q], 1));
            }
        }
    }
};

// count <= 0 writes nothing. 3-vectors through the Affine3 formula go eight at a time to any
// destination stride, packed or in records of 16 bytes or more. Otherwise the fast path needs
// the destination and its stride to be multiples of 16 bytes and the source packed; it takes two
// vectors per step. What is left goes to the single-vector formula; every path gives the same
// bits.
template <Form F>
inline OmkStatus array(const float* matrix, const float* src, int srcStride0, float* dst, int dstStride0, int count) {
    if (count <= 0) return omkStsOk;
    constexpr int n = sourceLength(F), w = resultLength(F);
    int32_t k = 0;
    if constexpr (F == Form::Affine3) {
        if (srcStride0 == 12) {
            const EightPoints eight(matrix);
            for (; k + 8 <= count; k += 8) eight(src + ptrdiff_t(k) * 3, addBytes(dst, ptrdiff_t(k) * dstStride0), dstStride0);
        } else if (srcStride0 >= 16) {
            // Points in records: a block is taken while another point follows it.
            const EightPoints eight(matrix);
            for (; k + 8 < count; k += 8)
                eight(addBytes(src, ptrdiff_t(k) * srcStride0), srcStride0, addBytes(dst, ptrdiff_t(k) * dstStride0), dstStride0);
        }
    }
    if (srcStride0 == int(n * sizeof(float)) && dstStride0 % 16 == 0 && reinterpret_cast<uintptr_t>(dst) % 16 == 0) {
        const Rows<L2> m2(matrix);
        for (; k + 2 <= count; k += 2) {
            const __m256 r = two<F>(m2, src + ptrdiff_t(k) * n);
            float* d0 = addBytes(dst, ptrdiff_t(k) * dstStride0);
            float* d1 = addBytes(dst, ptrdiff_t(k + 1) * dstStride0);
            if constexpr (w == 4) {
                _mm_store_ps(d0, _mm256_castps256_ps128(r));
                _mm_store_ps(d1, _mm256_extractf128_ps(r, 1));
            } else {
                storeFirst<w>(d0, _mm256_castps256_ps128(r));
                storeFirst<w>(d1, _mm256_extractf128_ps(r, 1));
            }
        }
    }
    const Rows<L1> m(matrix);
    for (; k < count; ++k)
        storeFirst<w>(addBytes(dst, ptrdiff_t(k) * dstStride0), one<F>(m, addBytes(src, ptrdiff_t(k) * srcStride0)));
    return omkStsOk;
}

// ---- projection to a viewport and back ----

// The row vector p (four lanes) times M, as the 4-vector transform: fma(x, M0, y*M1) + fma(z, M2, w*M3).
inline __m128 times(__m128 p, const Rows<L1>& m) {
    const __m128 x = _mm_permute_ps(p, 0x00), y = _mm_permute_ps(p, 0x55);
    const __m128 z = _mm_permute_ps(p, 0xAA), w = _mm_permute_ps(p, 0xFF);
    return formula<Form::Affine4, L1>(m, x, y, z, w);
}

struct Viewport {
    float width, height, minDepth, maxDepth;
};

// (x, y, z, 1) through World, View and Projection in turn, divided by w, then to the viewport
// with its origin at the top-left corner: x' = fma(Qx, w/2, w/2), y' = fma(Qy, 0 - h/2, h/2),
// z' = fma(Qz, maxDepth - minDepth, minDepth).
struct Projector {
    Rows<L1> projection, view, world;
    __m128 scale, offset;
    Projector(const float* pProjection, const float* pView, const float* pWorld, Viewport v)
        : projection(pProjection), view(pView), world(pWorld) {
        const float hw = 0.5f * v.width, hh = 0.5f * v.height;
        scale = _mm_setr_ps(hw, 0.0f - hh, v.maxDepth - v.minDepth, 0.0f);
        offset = _mm_setr_ps(hw, hh, v.minDepth, 0.0f);
    }
    __m128 operator()(const float* s) const {
        const __m128 p = _mm_setr_ps(s[0], s[1], s[2], 1.0f);
        const __m128 p3 = times(times(times(p, world), view), projection);
        return _mm_fmadd_ps(_mm_div_ps(p3, _mm_permute_ps(p3, 0xFF)), scale, offset);
    }
};

// The inverse of World*View*Projection from the library's 4x4 inverse. The two products are
// formed row by row as the 4-vector transform (row i of A times B). The viewport is undone first:
// x -> 2x/width - 1, y -> 1 - 2y/height, z -> (z - minDepth)/(maxDepth - minDepth).
struct Unprojector {
    alignas(16) float inv[16];
    bool ok;
    Viewport v;
    Unprojector(const float* pProjection, const float* pView, const float* pWorld, Viewport vp) : v(vp) {
        const Rows<L1> projection(pProjection), view(pView);
        alignas(16) float combined[16];
        for (int i = 0; i < 4; ++i)
            _mm_store_ps(combined + 4 * i, times(times(_mm_loadu_ps(pWorld + 4 * i), view), projection));
        ok = detinv::inverse4(combined, nullptr, inv) == omkStsOk;
    }
    __m128 operator()(const float* s) const {
        const float x = (s[0] + s[0]) / v.width - 1.0f;
        const float y = 1.0f - (s[1] + s[1]) / v.height;
        const float z = (s[2] - v.minDepth) / (v.maxDepth - v.minDepth);
        const __m128 p = times(_mm_setr_ps(x, y, z, 1.0f), Rows<L1>(inv));
        return _mm_div_ps(p, _mm_permute_ps(p, 0xFF));
    }
};

inline OmkStatus project(const float* pProjection, const float* pView, const float* pWorld, const float* src,
                         Viewport v, float* dst) {
    storeFirst<3>(dst, Projector(pProjection, pView, pWorld, v)(src));
    return omkStsOk;
}

inline OmkStatus unproject(const float* pProjection, const float* pView, const float* pWorld, const float* src,
                           Viewport v, float* dst) {
    const Unprojector u(pProjection, pView, pWorld, v);
    if (!u.ok) return omkStsSingular;
    storeFirst<3>(dst, u(src));
    return omkStsOk;
}

template <class Map>
inline void overVectors(const Map& map, const float* src, int srcStride0, float* dst, int dstStride0, int count) {
    for (int32_t k = 0; k < count; ++k)
        storeFirst<3>(addBytes(dst, ptrdiff_t(k) * dstStride0), map(addBytes(src, ptrdiff_t(k) * srcStride0)));
}

inline OmkStatus projectArray(const float* pProjection, const float* pView, const float* pWorld, const float* src,
                              int srcStride0, Viewport v, float* dst, int dstStride0, int count) {
    if (count <= 0) return omkStsOk;
    overVectors(Projector(pProjection, pView, pWorld, v), src, srcStride0, dst, dstStride0, count);
    return omkStsOk;
}

inline OmkStatus unprojectArray(const float* pProjection, const float* pView, const float* pWorld, const float* src,
                                int srcStride0, Viewport v, float* dst, int dstStride0, int count) {
    if (count <= 0) return omkStsOk;
    const Unprojector u(pProjection, pView, pWorld, v);
    if (!u.ok) return omkStsSingular;
    overVectors(u, src, srcStride0, dst, dstStride0, count);
    return omkStsOk;
}

// ---- homogeneous vectors in the standard description ----

// Checks null pointers, count, strides (positive multiples of 4); the work 6*count above 784 runs
// over the parallel driver. Each vector (x, y, z, w) becomes fma(x, M0, y*M1) + fma(z, M2, w*M3).
constexpr int32_t kHomogeneousLimit = 784;
inline constexpr CheckOrder kHomogeneousOrder{Check::Null, Check::Count, Check::Stride};

template <class M, class S, class D>
OmkStatus homogeneous(const M& a, const S& x, const D& y, int32_t count) {
    if (const OmkStatus st = firstFailure(kHomogeneousOrder, Dims{4, 4, count}, a, x, y)) return st;
    const bool parallel = (Wrap32(6) * count).value() > kHomogeneousLimit;
    // The matrix gathered once into contiguous rows; the element strides of the vectors decide
    // between the contiguous kernel and the general one, which compute the same lanes.
    alignas(16) float rows[16];
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) rows[4 * i + j] = a.obj(0).at(i, j);
    const Rows<L1> m(rows);
    const bool contiguous = elementsContiguous(a, x, y);
    return overObjects(parallel, count, [&](int32_t first, int32_t n) {
        if (contiguous) {
            for (int32_t k = first; k < first + n; ++k)
                _mm_storeu_ps(y.obj(k).p, one<Form::Affine4>(m, x.obj(k).p));
        } else {
            for (int32_t k = first; k < first + n; ++k) {
                const auto xk = x.obj(k);
                const float v[4] = {xk.at(0, 0), xk.at(1, 0), xk.at(2, 0), xk.at(3, 0)};
                alignas(16) float r[4];
                _mm_store_ps(r, one<Form::Affine4>(m, v));
                const auto yk = y.obj(k);
                for (int i = 0; i < 4; ++i) yk.at(i, 0) = r[i];
            }
        }
        return omkStsOk;
    });
}

}  // namespace omk::graphics
