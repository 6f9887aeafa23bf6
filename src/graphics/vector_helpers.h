// Vector helpers on single 2-, 3- and 4-component float vectors: length, normalisation, maximum,
// minimum, scaling and interpolation. No checks; every result has one fixed rounding order.
// Each helper reads all of its sources before it writes, so the destination may be any source.
#pragma once
#include <cmath>

#include "omkm.h"
#include "products/dot_cross.h"

namespace omk::graphics {

// The sum of squares of the length functions is the library's dot product of the vector with
// itself: fma(x, x, y*y); fma(z, z, fma(x, x, y*y)); fma(y, y, z*z) + fma(x, x, w*w).
template <int N>
inline float sumOfSquares(const float* v) {
    float q;
    if constexpr (N == 2) dotcross::dotFixed2(v, v, &q);
    if constexpr (N == 3) dotcross::dotFixed3(v, v, &q);
    if constexpr (N == 4) dotcross::dotFixed4(v, v, &q);
    return q;
}

template <int N>
inline OmkStatus lenSqr(const float* v, float* d) {
    *d = sumOfSquares<N>(v);
    return omkStsOk;
}

template <int N>
inline OmkStatus len(const float* v, float* d) {
    *d = std::sqrt(sumOfSquares<N>(v));
    return omkStsOk;
}

// Each component divided by the length (a division each, not a product with 1/L). The 4-component
// length here groups fma(z, z, w*w) + fma(y, y, x*x), unlike Len's, so the two may differ in the
// last bit. A zero vector gives 0/0 = NaN in every component.
template <int N>
inline OmkStatus normalize(const float* v, float* d) {
    float q;
    if constexpr (N == 4) q = std::fma(v[2], v[2], v[3] * v[3]) + std::fma(v[1], v[1], v[0] * v[0]);
    else q = sumOfSquares<N>(v);
    const float l = std::sqrt(q);
    float r[N];
    for (int i = 0; i < N; ++i) r[i] = v[i] / l;
    for (int i = 0; i < N; ++i) d[i] = r[i];
    return omkStsOk;
}

// a > b ? a : b per component: a failed comparison (either one NaN) takes the second source's.
template <int N>
inline OmkStatus max(const float* a, const float* b, float* d) {
    float r[N];
    for (int i = 0; i < N; ++i) r[i] = a[i] > b[i] ? a[i] : b[i];
    for (int i = 0; i < N; ++i) d[i] = r[i];
    return omkStsOk;
}

template <int N>
inline OmkStatus min(const float* a, const float* b, float* d) {
    float r[N];
    for (int i = 0; i < N; ++i) r[i] = a[i] < b[i] ? a[i] : b[i];
    for (int i = 0; i < N; ++i) d[i] = r[i];
    return omkStsOk;
}

template <int N>
inline OmkStatus mulC(const float* a, float val, float* d) {
    for (int i = 0; i < N; ++i) d[i] = val * a[i];
    return omkStsOk;
}

// fma(V3 - V1, g, fma(V2 - V1, f, V1)) per component.
template <int N>
inline OmkStatus baryCentric(const float* v1, const float* v2, const float* v3, float f, float g, float* d) {
    float r[N];
    for (int i = 0; i < N; ++i) r[i] = std::fma(v3[i] - v1[i], g, std::fma(v2[i] - v1[i], f, v1[i]));
    for (int i = 0; i < N; ++i) d[i] = r[i];
    return omkStsOk;
}

// fma(V2 - V1, s, V1) per component.
template <int N>
inline OmkStatus linear(const float* v1, const float* v2, float s, float* d) {
    float r[N];
    for (int i = 0; i < N; ++i) r[i] = std::fma(v2[i] - v1[i], s, v1[i]);
    for (int i = 0; i < N; ++i) d[i] = r[i];
    return omkStsOk;
}

// The Hermite basis: s^2 and s^3 in float, then each coefficient in double and rounded once:
// a = 2s^3 - 3s^2, b = s^3 - s^2 (tangent 2), c = s^3 - 2s^2 + s (tangent 1). The point terms fold
// into V1 + a*(V1 - V2): per component fma(a, V1 - V2, fma(b, T2, fma(T1, c, V1))).
template <int N>
inline OmkStatus hermite(const float* v1, const float* t1, const float* v2, const float* t2, float s, float* d) {
    const float s2 = s * s, s3 = s * s2;
    const double ds = s, ds2 = s2, ds3 = s3;
    const float a = float(std::fma(-ds2, 3.0, ds3) + ds3);
    const float b = float(ds3 - ds2);
    const float c = float(((ds - ds2) - ds2) + ds3);
    float r[N];
    for (int i = 0; i < N; ++i) r[i] = std::fma(a, v1[i] - v2[i], std::fma(b, t2[i], std::fma(t1[i], c, v1[i])));
    for (int i = 0; i < N; ++i) d[i] = r[i];
    return omkStsOk;
}

// Tangents (V2 - V0)*0.5 and (V3 - V1)*0.5, then the Hermite curve from V1 to V2.
template <int N>
inline OmkStatus catmullRom(const float* v0, const float* v1, const float* v2, const float* v3, float s, float* d) {
    float t1[N], t2[N], p1[N], p2[N];
    for (int i = 0; i < N; ++i) {
        t1[i] = (v2[i] - v0[i]) * 0.5f;
        t2[i] = (v3[i] - v1[i]) * 0.5f;
        p1[i] = v1[i];
        p2[i] = v2[i];
    }
    return hermite<N>(p1, t1, p2, t2, s, d);
}

}  // namespace omk::graphics
