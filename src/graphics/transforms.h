// 4x4 transform builders: row-major, row vectors multiplied on the left (p' = p*M), so the
// translation is row 3. Every builder writes all 16 entries (the unlisted ones +0.0), evaluates
// each entry exactly as its formula is written (0 - d is a negation by subtraction, so a zero gives
// +0.0) and checks nothing. Sines and cosines come from sincosf, one call per angle.
#pragma once
#include <immintrin.h>

#include <cmath>
#include <cstdint>

#include "omkm.h"
#include "graphics/vector_helpers.h"
#include "products/dot_cross.h"

namespace omk::graphics {

// A 4x4 transform assembled in registers of the builder and stored in one go.
struct M4 {
    float m[16] = {};
    float& operator()(int i, int j) { return m[4 * i + j]; }
    OmkStatus store(float* d) const {
        for (int k = 0; k < 16; ++k) d[k] = m[k];
        return omkStsOk;
    }
};

inline void sinCos(float angle, float* s, float* c) { ::sincosf(angle, s, c); }

inline OmkStatus identity(float* d) {
    M4 r;
    r(0, 0) = r(1, 1) = r(2, 2) = r(3, 3) = 1.0f;
    return r.store(d);
}

// 0 unless m00 == 1; then 1 when at least one column equals the identity's column (floating-point
// equality, so -0.0 matches 0.0 and a NaN never matches). Deliberately weaker than full equality.
inline OmkStatus isIdentity(const float* a, int* result) {
    if (!(a[0] == 1.0f)) {
        *result = 0;
        return omkStsOk;
    }
    bool any = false;
    for (int j = 0; j < 4; ++j) {
        bool column = true;
        for (int i = 0; i < 4; ++i) column = column && a[4 * i + j] == (i == j ? 1.0f : 0.0f);
        any = any || column;
    }
    *result = any ? 1 : 0;
    return omkStsOk;
}

// z = normalize(at - eye) (left-handed) or normalize(eye - at) (right-handed); x = normalize(up x z);
// y = z x x. x, y and z are the columns of the upper 3x3 part; row 3 is 0 - dot(axis, eye).
template <bool RightHanded>
inline OmkStatus lookAt(const float* eye, const float* at, const float* up, float* d) {
    float dir[3], z[3], upz[3], x[3], y[3], ex, ey, ez;
    for (int i = 0; i < 3; ++i) dir[i] = RightHanded ? eye[i] - at[i] : at[i] - eye[i];
    normalize<3>(dir, z);
    dotcross::crossFixed3(up, z, upz);
    normalize<3>(upz, x);
    dotcross::crossFixed3(z, x, y);
    dotcross::dotFixed3(x, eye, &ex);
    dotcross::dotFixed3(y, eye, &ey);
    dotcross::dotFixed3(z, eye, &ez);
    M4 r;
    for (int i = 0; i < 3; ++i) r(i, 0) = x[i], r(i, 1) = y[i], r(i, 2) = z[i];
    r(3, 0) = 0.0f - ex, r(3, 1) = 0.0f - ey, r(3, 2) = 0.0f - ez, r(3, 3) = 1.0f;
    return r.store(d);
}

// The depth entries m22, m32 and m33 of the orthographic builders.
template <bool RightHanded>
inline void orthoDepth(M4& r, float n, float f) {
    if (RightHanded) {
        r(2, 2) = 1.0f / (n - f);
        r(3, 2) = n / (n - f);
    } else {
        r(2, 2) = 1.0f / (f - n);
        r(3, 2) = n / (0.0f - (f - n));
    }
    r(3, 3) = 1.0f;
}

template <bool RightHanded>
inline OmkStatus ortho(float w, float h, float n, float f, float* d) {
    M4 r;
    r(0, 0) = 2.0f / w;
    r(1, 1) = 2.0f / h;
    orthoDepth<RightHanded>(r, n, f);
    return r.store(d);
}

template <bool RightHanded>
inline OmkStatus orthoOffCenter(float l, float rt, float b, float t, float n, float f, float* d) {
    M4 r;
    r(0, 0) = 2.0f / (rt - l);
    r(1, 1) = 2.0f / (t - b);
    r(3, 0) = (l + rt) / (0.0f - (rt - l));
    r(3, 1) = (b + t) / (0.0f - (t - b));
    orthoDepth<RightHanded>(r, n, f);
    return r.store(d);
}

// The depth entries m22, m23 and m32 shared by the perspective builders that write m32 as
// n*f/(0 - (f - n)) (left-handed) or n*f/(n - f) (right-handed).
template <bool RightHanded>
inline void perspectiveDepth(M4& r, float n, float f) {
    if (RightHanded) {
        r(2, 2) = f / (n - f);
        r(2, 3) = -1.0f;
        r(3, 2) = n * f / (n - f);
    } else {
        r(2, 2) = f / (f - n);
        r(2, 3) = 1.0f;
        r(3, 2) = n * f / (0.0f - (f - n));
    }
}

template <bool RightHanded>
inline OmkStatus perspective(float w, float h, float n, float f, float* d) {
    M4 r;
    r(0, 0) = (n + n) / w;
    r(1, 1) = (n + n) / h;
    perspectiveDepth<RightHanded>(r, n, f);
    return r.store(d);
}

// c = cos(fovY/2) / sin(fovY/2) from one sincosf call (not 1/tan). The left-handed m32 is
// (0 - n*f)/(f - n), unlike the other left-handed builders.
template <bool RightHanded>
inline OmkStatus perspectiveFov(float fovY, float aspect, float n, float f, float* d) {
    float s, c;
    sinCos(fovY * 0.5f, &s, &c);
    const float cot = c / s;
    M4 r;
    r(0, 0) = cot / aspect;
    r(1, 1) = cot;
    perspectiveDepth<RightHanded>(r, n, f);
    if (!RightHanded) r(3, 2) = (0.0f - n * f) / (f - n);
    return r.store(d);
}

template <bool RightHanded>
inline OmkStatus perspectiveOffCenter(float l, float rt, float b, float t, float n, float f, float* d) {
    M4 r;
    r(0, 0) = (n + n) / (rt - l);
    r(1, 1) = (n + n) / (t - b);
    if (RightHanded) {
        r(2, 0) = (l + rt) / (rt - l);
        r(2, 1) = (b + t) / (t - b);
    } else {
        r(2, 0) = (l + rt) / (0.0f - (rt - l));
        r(2, 1) = (b + t) / (0.0f - (t - b));
    }
    perspectiveDepth<RightHanded>(r, n, f);
    return r.store(d);
}

// Rotation about coordinate axis Axis (0 = x, 1 = y, 2 = z) for row vectors: with the other two
// axes i < j (for y: j = 0, i = 2, so that m02 = 0 - s and m20 = s), mii = mjj = c, mij = s,
// mji = 0 - s.
template <int Axis>
inline OmkStatus rotation(float angle, float* d) {
    float s, c;
    sinCos(angle, &s, &c);
    constexpr int i = Axis == 0 ? 1 : Axis == 1 ? 2 : 0;
    constexpr int j = Axis == 0 ? 2 : Axis == 1 ? 0 : 1;
    M4 r;
    r(Axis, Axis) = 1.0f;
    r(i, i) = c, r(j, j) = c;
    r(i, j) = s;
    r(j, i) = 0.0f - s;
    r(3, 3) = 1.0f;
    return r.store(d);
}

// The axis is normalised by division (length as in the 3-vector normalisation); X = x - x*c etc.
// are one fused negative multiply-add each.
inline OmkStatus rotationAxis(const float* axis, float angle, float* d) {
    float s, c;
    sinCos(angle, &s, &c);
    const float l = std::sqrt(sumOfSquares<3>(axis));
    const float x = axis[0] / l, y = axis[1] / l, z = axis[2] / l;
    const float X = std::fma(-x, c, x), Y = std::fma(-y, c, y), Z = std::fma(-z, c, z);
    M4 r;
    r(0, 0) = std::fma(X, x, c), r(0, 1) = std::fma(Y, x, s * z), r(0, 2) = std::fma(Z, x, -(s * y));
    r(1, 0) = std::fma(X, y, -(s * z)), r(1, 1) = std::fma(Y, y, c), r(1, 2) = std::fma(Z, y, s * x);
    r(2, 0) = std::fma(X, z, s * y), r(2, 1) = std::fma(Y, z, -(s * x)), r(2, 2) = std::fma(Z, z, c);
    r(3, 3) = 1.0f;
    return r.store(d);
}

// Roll about z, then pitch about x, then yaw about y (row vectors); sincosf of yaw, pitch, roll in
// that order.
inline OmkStatus rotationYawPitchRoll(float yaw, float pitch, float roll, float* d) {
    float sy, cy, sp, cp, sr, cr;
    sinCos(yaw, &sy, &cy);
    sinCos(pitch, &sp, &cp);
    sinCos(roll, &sr, &cr);
    M4 r;
    r(0, 0) = std::fma(sy * sp, sr, cy * cr), r(0, 1) = sr * cp, r(0, 2) = std::fma(sp * cy, sr, -(sy * cr));
    r(1, 0) = std::fma(sy * sp, cr, -(cy * sr)), r(1, 1) = cr * cp, r(1, 2) = std::fma(sy, sr, cr * (sp * cy));
    r(2, 0) = sy * cp, r(2, 1) = 0.0f - sp, r(2, 2) = cy * cp;
    r(3, 3) = 1.0f;
    return r.store(d);
}

inline OmkStatus scaling(float x, float y, float z, float* d) {
    M4 r;
    r(0, 0) = x, r(1, 1) = y, r(2, 2) = z, r(3, 3) = 1.0f;
    return r.store(d);
}

inline OmkStatus translation(float x, float y, float z, float* d) {
    M4 r;
    r(0, 0) = r(1, 1) = r(2, 2) = r(3, 3) = 1.0f;
    r(3, 0) = x, r(3, 1) = y, r(3, 2) = z;
    return r.store(d);
}

// Row i of P = A*B as fma(ai3, B3, fma(ai2, B2, fma(ai0, B0, ai1*B1))) on whole rows of B (column 1's
// product first: this order fixes the rounding); Pt is stored. Both sources are in registers
// before the first store, so pDst may be either source.
inline OmkStatus mulTranspose(const float* a, const float* b, float* d) {
    const __m128 b0 = _mm_loadu_ps(b), b1 = _mm_loadu_ps(b + 4), b2 = _mm_loadu_ps(b + 8), b3 = _mm_loadu_ps(b + 12);
    __m128 p[4];
    for (int i = 0; i < 4; ++i) {
        const float* ai = a + 4 * i;
        __m128 t = _mm_mul_ps(_mm_set1_ps(ai[1]), b1);
        t = _mm_fmadd_ps(_mm_set1_ps(ai[0]), b0, t);
        t = _mm_fmadd_ps(_mm_set1_ps(ai[2]), b2, t);
        p[i] = _mm_fmadd_ps(_mm_set1_ps(ai[3]), b3, t);
    }
    _MM_TRANSPOSE4_PS(p[0], p[1], p[2], p[3]);
    for (int i = 0; i < 4; ++i) _mm_storeu_ps(d + 4 * i, p[i]);
    return omkStsOk;
}

}  // namespace omk::graphics
