// 3D graphics vector helpers and transform builders: every member bit for bit against its formula
// evaluated here in the documented fused order and grouping, each beside a rival order shown to give
// other bits on some input; the degenerate and edge inputs; guard bytes around every destination.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <functional>
#include <limits>
#include <map>

#include "graphics_cases.h"

using namespace gfx;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// ---- vector helpers ----
using Un = OmkStatus (*)(const Omk32f*, Omk32f*);
using Bin = OmkStatus (*)(const Omk32f*, const Omk32f*, Omk32f*);
using Scale = OmkStatus (*)(const Omk32f*, Omk32f, Omk32f*);
using Bary = OmkStatus (*)(const Omk32f*, const Omk32f*, const Omk32f*, Omk32f, Omk32f, Omk32f*);
using Spline = OmkStatus (*)(const Omk32f*, const Omk32f*, const Omk32f*, const Omk32f*, Omk32f, Omk32f*);
using Lerp = OmkStatus (*)(const Omk32f*, const Omk32f*, Omk32f, Omk32f*);

struct Sized {
    int n;
    Un lenSqr, len, normalize;
    Bin max, min;
    Scale mulC;
    Bary bary;
    Spline hermite, catmullRom;
    Lerp linear;
};
#define OMKM_SIZED(N)                                                                                         \
    Sized {                                                                                                   \
        N, omkmLenSqr_v##N##_32f, omkmLen_v##N##_32f, omkmNormalize_v##N##_32f, omkmMax_v##N##_32f,           \
            omkmMin_v##N##_32f, omkmMulC_v##N##_32f, omkmBaryCentric_v##N##_32f, omkmHermite_v##N##_32f,      \
            omkmInterpolationCatmullRom_v##N##_32f, omkmInterpolationLinear_v##N##_32f                        \
    }
const Sized kSized[] = {OMKM_SIZED(2), OMKM_SIZED(3), OMKM_SIZED(4)};

// Sums of squares: Len/LenSqr grouping, Normalize grouping (they differ only for four components).
float sumSqLen(const float* v, int n) {
    if (n == 2) return fma(v[0], v[0], v[1] * v[1]);
    if (n == 3) return fma(v[2], v[2], fma(v[0], v[0], v[1] * v[1]));
    return fma(v[1], v[1], v[2] * v[2]) + fma(v[0], v[0], v[3] * v[3]);
}
float sumSqNormalize(const float* v, int n) {
    return n < 4 ? sumSqLen(v, n) : fma(v[2], v[2], v[3] * v[3]) + fma(v[1], v[1], v[0] * v[0]);
}
float sumSqPlain(const float* v, int n) {
    float t = v[0] * v[0];
    for (int i = 1; i < n; ++i) t = t + v[i] * v[i];
    return t;
}

struct Coef { float a, b, c; };
Coef hermiteCoef(float s) {  // in double, each rounded once
    const float s2 = s * s, s3 = s * s2;
    const double S = s, S2 = s2, S3 = s3;
    return {float(fma(-S2, 3.0, S3) + S3), float(S3 - S2), float(((S - S2) - S2) + S3)};
}
Coef hermiteCoefFloat(float s) {
    const float s2 = s * s, s3 = s * s2;
    return {fma(-s2, 3.0f, s3) + s3, s3 - s2, ((s - s2) - s2) + s3};
}
void hermite(const float* v1, const float* t1, const float* v2, const float* t2, Coef k, int n, float* o) {
    for (int i = 0; i < n; ++i) o[i] = fma(k.a, v1[i] - v2[i], fma(k.b, t2[i], fma(t1[i], k.c, v1[i])));
}

TEST(VectorHelpers, LengthsAndNormalizeInTheirGroupings) {
    std::mt19937 g(1);
    for (const Sized& z : kSized) {
        Rival plain("LenSqr v" + std::to_string(z.n) + " as a plain sum");
        Rival recip("Normalize v" + std::to_string(z.n) + " by a reciprocal");
        for (int t = 0; t < 3000; ++t) {
            float v[4];
            fill(g, v, z.n, t % 2 ? 4.0f : 1e3f);
            const float q = sumSqLen(v, z.n), qp = sumSqPlain(v, z.n), l = std::sqrt(sumSqNormalize(v, z.n));
            float want[4], byRecip[4];
            for (int i = 0; i < z.n; ++i) want[i] = v[i] / l, byRecip[i] = v[i] * (1.0f / l);
            ASSERT_TRUE(sameFloats(runInto(1, [&](float* d) { return z.lenSqr(v, d); }).data(), &q, 1)) << z.n;
            const float len = std::sqrt(q);
            ASSERT_TRUE(sameFloats(runInto(1, [&](float* d) { return z.len(v, d); }).data(), &len, 1)) << z.n;
            ASSERT_TRUE(sameFloats(runInto(z.n, [&](float* d) { return z.normalize(v, d); }).data(), want, z.n)) << z.n;
            plain.note(&q, &qp, 1);
            recip.note(want, byRecip, z.n);
        }
    }
}

// The four-component length and normalisation group their squares differently on purpose.
TEST(VectorHelpers, FourComponentLenAndNormalizeGroupingsDiffer) {
    std::mt19937 g(2);
    int found = 0;
    for (int t = 0; t < 200000 && found < 5; ++t) {
        float v[4];
        fill(g, v, 4);
        const float lenL = std::sqrt(sumSqLen(v, 4)), lenN = std::sqrt(sumSqNormalize(v, 4));
        if (same(lenL, lenN)) continue;
        ++found;
        float ownN[4], otherN[4], sq;
        for (int i = 0; i < 4; ++i) ownN[i] = v[i] / lenN, otherN[i] = v[i] / lenL;
        ASSERT_TRUE(anyDiffer(ownN, otherN, 4));
        const auto len = runInto(1, [&](float* d) { return omkmLen_v4_32f(v, d); });
        EXPECT_TRUE(sameFloats(len.data(), &lenL, 1));
        EXPECT_TRUE(sameFloats(runInto(4, [&](float* d) { return omkmNormalize_v4_32f(v, d); }).data(), ownN, 4));
        sq = sumSqLen(v, 4);
        EXPECT_TRUE(sameFloats(runInto(1, [&](float* d) { return omkmLenSqr_v4_32f(v, d); }).data(), &sq, 1));
    }
    EXPECT_EQ(found, 5);
}

TEST(VectorHelpers, NormalizeOfZeroIsNaNWithOk) {
    const float zero[4] = {0, 0, 0, 0};
    for (const Sized& z : kSized)
        for (float c : runInto(z.n, [&](float* d) { return z.normalize(zero, d); })) EXPECT_TRUE(std::isnan(c)) << z.n;
}

// a > b ? a : b and a < b ? a : b: a failed comparison (NaN, equal zeros) takes the second operand.
TEST(VectorHelpers, MaxMinTakeTheSecondOperandWhenTheComparisonFails) {
    const std::pair<float, float> pairs[] = {{kNaN, 2}, {2, kNaN},  {1, 0},      {0, 1},   {-0.0f, 0.0f}, {0.0f, -0.0f},
                                             {kInf, -kInf}, {3, 3}, {-1, -2},    {kNaN, kNaN}, {-kInf, 5}, {7.5f, 7.25f}};
    const int np = sizeof(pairs) / sizeof(pairs[0]);
    for (const Sized& z : kSized)
        for (int start = 0; start < np; ++start) {
            float a[4], b[4], mx[4], mn[4];
            for (int i = 0; i < z.n; ++i) {
                a[i] = pairs[(start + i) % np].first, b[i] = pairs[(start + i) % np].second;
                mx[i] = a[i] > b[i] ? a[i] : b[i];
                mn[i] = a[i] < b[i] ? a[i] : b[i];
            }
            EXPECT_TRUE(sameFloats(runInto(z.n, [&](float* d) { return z.max(a, b, d); }).data(), mx, z.n)) << z.n;
            EXPECT_TRUE(sameFloats(runInto(z.n, [&](float* d) { return z.min(a, b, d); }).data(), mn, z.n)) << z.n;
        }
    const float a[2] = {kNaN, 1}, b[2] = {2, 0}, want[2] = {2, 1};
    EXPECT_TRUE(sameFloats(runInto(2, [&](float* d) { return omkmMax_v2_32f(a, b, d); }).data(), want, 2));
}

TEST(VectorHelpers, MulCBaryCentricAndLinearInTheirFusedOrders) {
    std::mt19937 g(3);
    for (const Sized& z : kSized) {
        const std::string n = std::to_string(z.n);
        Rival baryRival("BaryCentric v" + n + " with g first"), linRival("InterpolationLinear v" + n + " unfused");
        for (int t = 0; t < 2000; ++t) {
            float v1[4], v2[4], v3[4], mc[4], bc[4], bcR[4], li[4], liR[4];
            fill(g, v1, 4), fill(g, v2, 4), fill(g, v3, 4);
            const float f = uni(g, 1.5f), w = uni(g, 1.5f), s = t % 3 ? uni(g, 1.5f) : float(t % 2);
            for (int i = 0; i < z.n; ++i) {
                mc[i] = f * v1[i];
                bc[i] = fma(v3[i] - v1[i], w, fma(v2[i] - v1[i], f, v1[i]));
                bcR[i] = fma(v2[i] - v1[i], f, fma(v3[i] - v1[i], w, v1[i]));
                li[i] = fma(v2[i] - v1[i], s, v1[i]);
                liR[i] = v1[i] + s * (v2[i] - v1[i]);
            }
            ASSERT_TRUE(sameFloats(runInto(z.n, [&](float* d) { return z.mulC(v1, f, d); }).data(), mc, z.n)) << n;
            ASSERT_TRUE(sameFloats(runInto(z.n, [&](float* d) { return z.bary(v1, v2, v3, f, w, d); }).data(), bc, z.n))
                << n;
            ASSERT_TRUE(sameFloats(runInto(z.n, [&](float* d) { return z.linear(v1, v2, s, d); }).data(), li, z.n)) << n;
            baryRival.note(bc, bcR, z.n);
            linRival.note(li, liR, z.n);
        }
    }
}

TEST(VectorHelpers, HermiteCoefficientsInDoubleRoundedOnce) {
    std::mt19937 g(4);
    for (const Sized& z : kSized) {
        const std::string n = std::to_string(z.n);
        Rival inFloat("Hermite v" + n + " coefficients in float"), order("Hermite v" + n + " with a before b");
        for (int t = 0; t < 3000; ++t) {
            float v1[4], t1[4], v2[4], t2[4], want[4], rf[4], ro[4];
            fill(g, v1, 4), fill(g, t1, 4), fill(g, v2, 4), fill(g, t2, 4);
            const float s = t % 4 ? std::uniform_real_distribution<float>(0, 1)(g) : uni(g, 2.5f);
            const Coef k = hermiteCoef(s);
            hermite(v1, t1, v2, t2, k, z.n, want);
            hermite(v1, t1, v2, t2, hermiteCoefFloat(s), z.n, rf);
            for (int i = 0; i < z.n; ++i) ro[i] = fma(k.b, t2[i], fma(k.a, v1[i] - v2[i], fma(t1[i], k.c, v1[i])));
            ASSERT_TRUE(sameFloats(runInto(z.n, [&](float* d) { return z.hermite(v1, t1, v2, t2, s, d); }).data(), want,
                                   z.n))
                << n << " s " << s;
            inFloat.note(want, rf, z.n);
            order.note(want, ro, z.n);
        }
    }
}

// Tangents (V2 - V0)*0.5 and (V3 - V1)*0.5: the difference first, so huge points overflow to infinity.
TEST(VectorHelpers, CatmullRomIsHermiteOnHalvedDifferences) {
    std::mt19937 g(5);
    for (const Sized& z : kSized) {
        Rival halvesFirst("CatmullRom v" + std::to_string(z.n) + " halving before subtracting");
        for (int t = 0; t < 2000; ++t) {
            float p[4][4], t1[4], t2[4], h1[4], h2[4], want[4], rival[4];
            for (auto& q : p) fill(g, q, 4);
            if (t % 10 == 0)  // V2 - V0 overflows, its halves do not
                for (int i = 0; i < 4; ++i) p[0][i] = -3e38f, p[2][i] = 3e38f;
            const float s = t % 10 == 0 ? 0.5f : std::uniform_real_distribution<float>(0, 1)(g);
            for (int i = 0; i < z.n; ++i) {
                t1[i] = (p[2][i] - p[0][i]) * 0.5f, t2[i] = (p[3][i] - p[1][i]) * 0.5f;
                h1[i] = p[2][i] * 0.5f - p[0][i] * 0.5f, h2[i] = p[3][i] * 0.5f - p[1][i] * 0.5f;
            }
            hermite(p[1], t1, p[2], t2, hermiteCoef(s), z.n, want);
            hermite(p[1], h1, p[2], h2, hermiteCoef(s), z.n, rival);
            ASSERT_TRUE(sameFloats(
                runInto(z.n, [&](float* d) { return z.catmullRom(p[0], p[1], p[2], p[3], s, d); }).data(), want, z.n))
                << z.n << " s " << s;
            halvesFirst.note(want, rival, z.n);
        }
    }
}

TEST(VectorHelpers, InterpolationEndpoints) {
    std::mt19937 g(6);
    auto near = [](float got, float want, float scale) { return std::fabs(got - want) <= 4 * FLT_EPSILON * scale; };
    for (const Sized& z : kSized)
        for (int t = 0; t < 200; ++t) {
            float p[4][4];
            for (auto& q : p) fill(g, q, 4, 50.0f);
            const auto l0 = runInto(z.n, [&](float* d) { return z.linear(p[1], p[2], 0.0f, d); });
            const auto l1 = runInto(z.n, [&](float* d) { return z.linear(p[1], p[2], 1.0f, d); });
            const auto h0 = runInto(z.n, [&](float* d) { return z.hermite(p[1], p[0], p[2], p[3], 0.0f, d); });
            const auto h1 = runInto(z.n, [&](float* d) { return z.hermite(p[1], p[0], p[2], p[3], 1.0f, d); });
            const auto c0 = runInto(z.n, [&](float* d) { return z.catmullRom(p[0], p[1], p[2], p[3], 0.0f, d); });
            EXPECT_TRUE(sameFloats(l0.data(), p[1], z.n));
            EXPECT_TRUE(sameFloats(h0.data(), p[1], z.n));
            EXPECT_TRUE(sameFloats(c0.data(), p[1], z.n));
            for (int i = 0; i < z.n; ++i) {
                const float scale = std::max(std::fabs(p[1][i]), std::fabs(p[2][i]));
                EXPECT_TRUE(near(l1[i], p[2][i], scale)) << l1[i] << " vs " << p[2][i];
                EXPECT_TRUE(near(h1[i], p[2][i], scale)) << h1[i] << " vs " << p[2][i];
            }
        }
}

TEST(VectorHelpers, DestinationMayBeASource) {
    std::mt19937 g(7);
    float v[4][4], want[4], buf[4];
    for (auto& q : v) fill(g, q, 4);
    const float s = 0.37f;
    const float l = std::sqrt(sumSqNormalize(v[0], 3));
    for (int i = 0; i < 3; ++i) want[i] = v[0][i] / l;
    std::copy(v[0], v[0] + 4, buf);
    ASSERT_EQ(omkmNormalize_v3_32f(buf, buf), omkStsOk);
    EXPECT_TRUE(sameFloats(buf, want, 3));
    hermite(v[0], v[1], v[2], v[3], hermiteCoef(s), 4, want);
    std::copy(v[2], v[2] + 4, buf);
    ASSERT_EQ(omkmHermite_v4_32f(v[0], v[1], buf, v[3], s, buf), omkStsOk);
    EXPECT_TRUE(sameFloats(buf, want, 4));
    for (int i = 0; i < 2; ++i) want[i] = fma(v[2][i] - v[0][i], 0.25f, fma(v[1][i] - v[0][i], s, v[0][i]));
    std::copy(v[0], v[0] + 4, buf);
    ASSERT_EQ(omkmBaryCentric_v2_32f(buf, v[1], v[2], s, 0.25f, buf), omkStsOk);
    EXPECT_TRUE(sameFloats(buf, want, 2));
}

// ---- transform builders ----
using M4 = std::array<float, 16>;

M4 ident() {
    M4 m{};
    m[0] = m[5] = m[10] = m[15] = 1.0f;
    return m;
}
void cross3(const float* a, const float* b, float* o, bool fused) {
    if (fused) {
        o[0] = fma(a[1], b[2], -(a[2] * b[1]));
        o[1] = fma(a[2], b[0], -(a[0] * b[2]));
        o[2] = fma(a[0], b[1], -(a[1] * b[0]));
    } else {
        o[0] = a[1] * b[2] - a[2] * b[1];
        o[1] = a[2] * b[0] - a[0] * b[2];
        o[2] = a[0] * b[1] - a[1] * b[0];
    }
}
float dot3(const float* a, const float* b) { return fma(a[2], b[2], fma(a[0], b[0], a[1] * b[1])); }
void normalize3(const float* v, float* o) {
    const float l = std::sqrt(fma(v[2], v[2], fma(v[0], v[0], v[1] * v[1])));
    for (int i = 0; i < 3; ++i) o[i] = v[i] / l;
}
// fusedCross false and zeroMinus false are the rivals.
M4 lookAt(const float* eye, const float* at, const float* up, bool rh, bool fusedCross = true, bool zeroMinus = true) {
    float d[3], x[3], y[3], z[3], c[3];
    for (int i = 0; i < 3; ++i) d[i] = rh ? eye[i] - at[i] : at[i] - eye[i];
    normalize3(d, z);
    cross3(up, z, c, fusedCross);
    normalize3(c, x);
    cross3(z, x, y, fusedCross);
    M4 m{};
    for (int i = 0; i < 3; ++i) m[4 * i] = x[i], m[4 * i + 1] = y[i], m[4 * i + 2] = z[i];
    const float* axes[3] = {x, y, z};
    for (int j = 0; j < 3; ++j) m[12 + j] = zeroMinus ? 0.0f - dot3(axes[j], eye) : -dot3(axes[j], eye);
    m[15] = 1.0f;
    return m;
}
M4 ortho(float w, float h, float n, float f, bool rh) {
    M4 m{};
    m[0] = 2.0f / w, m[5] = 2.0f / h;
    m[10] = rh ? 1.0f / (n - f) : 1.0f / (f - n);
    m[14] = rh ? n / (n - f) : n / (0.0f - (f - n));
    m[15] = 1.0f;
    return m;
}
M4 orthoOff(float l, float r, float b, float t, float n, float f, bool rh) {
    M4 m = ortho(r - l, t - b, n, f, rh);
    m[0] = 2.0f / (r - l), m[5] = 2.0f / (t - b);
    m[12] = (l + r) / (0.0f - (r - l)), m[13] = (b + t) / (0.0f - (t - b));
    return m;
}
M4 persp(float m00, float m11, float n, float f, bool rh) {  // the shared entries
    M4 m{};
    m[0] = m00, m[5] = m11;
    m[10] = rh ? f / (n - f) : f / (f - n);
    m[11] = rh ? -1.0f : 1.0f;
    m[14] = rh ? n * f / (n - f) : n * f / (0.0f - (f - n));
    return m;
}
M4 perspOff(float l, float r, float b, float t, float n, float f, bool rh) {
    M4 m = persp((n + n) / (r - l), (n + n) / (t - b), n, f, rh);
    m[8] = rh ? (l + r) / (r - l) : (l + r) / (0.0f - (r - l));
    m[9] = rh ? (b + t) / (t - b) : (b + t) / (0.0f - (t - b));
    return m;
}
M4 perspFov(float fov, float aspect, float n, float f, bool rh, bool byTan = false) {
    float s, c;
    ::sincosf(fov * 0.5f, &s, &c);
    const float ct = byTan ? 1.0f / std::tan(fov * 0.5f) : c / s;
    M4 m = persp(ct / aspect, ct, n, f, rh);
    if (!rh) m[14] = (0.0f - n * f) / (f - n);
    return m;
}
M4 rotation(int axis, float angle) {
    float s, c;
    ::sincosf(angle, &s, &c);
    M4 m{};
    const int p = axis == 0 ? 1 : axis == 1 ? 2 : 0, q = axis == 0 ? 2 : axis == 1 ? 0 : 1;  // rotated plane
    m[5 * axis] = 1.0f, m[15] = 1.0f;
    m[5 * p] = c, m[5 * q] = c;
    m[4 * p + q] = s, m[4 * q + p] = 0.0f - s;
    return m;
}
M4 rotationAxis(const float* ax, float angle, bool fused = true) {
    float s, c;
    ::sincosf(angle, &s, &c);
    const float l = std::sqrt(fma(ax[2], ax[2], fma(ax[0], ax[0], ax[1] * ax[1])));
    const float x = ax[0] / l, y = ax[1] / l, z = ax[2] / l;
    auto less = [&](float u) { return fused ? fma(-u, c, u) : u - u * c; };
    const float X = less(x), Y = less(y), Z = less(z);
    M4 m{};
    m[0] = fma(X, x, c), m[1] = fma(Y, x, s * z), m[2] = fma(Z, x, -(s * y));
    m[4] = fma(X, y, -(s * z)), m[5] = fma(Y, y, c), m[6] = fma(Z, y, s * x);
    m[8] = fma(X, z, s * y), m[9] = fma(Y, z, -(s * x)), m[10] = fma(Z, z, c);
    m[15] = 1.0f;
    return m;
}
M4 yawPitchRoll(float yaw, float pitch, float roll, bool fused = true) {
    float sy, cy, sp, cp, sr, cr;
    ::sincosf(yaw, &sy, &cy);
    ::sincosf(pitch, &sp, &cp);
    ::sincosf(roll, &sr, &cr);
    auto F = [&](float a, float b, float c) { return fused ? fma(a, b, c) : a * b + c; };
    M4 m{};
    m[0] = F(sy * sp, sr, cy * cr), m[1] = sr * cp, m[2] = F(sp * cy, sr, -(sy * cr));
    m[4] = F(sy * sp, cr, -(cy * sr)), m[5] = cr * cp, m[6] = F(sy, sr, cr * (sp * cy));
    m[8] = sy * cp, m[9] = 0.0f - sp, m[10] = cy * cp;
    m[15] = 1.0f;
    return m;
}
M4 mulTranspose(const M4& a, const M4& b, bool documented = true) {
    M4 p{}, out{};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) {
            const float* r = &a[4 * i];
            p[4 * i + j] = documented ? fma(r[3], b[12 + j], fma(r[2], b[8 + j], fma(r[0], b[j], r[1] * b[4 + j])))
                                      : fma(r[3], b[12 + j], fma(r[2], b[8 + j], fma(r[1], b[4 + j], r[0] * b[j])));
        }
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) out[4 * j + i] = p[4 * i + j];
    return out;
}

struct BuilderCase {
    std::string label;
    std::function<OmkStatus(float*)> call;
    M4 want;
    std::string rivalName;  // empty: no rival
    M4 rival;
};

std::vector<BuilderCase> builderCases() {
    std::vector<BuilderCase> cs;
    auto add = [&](std::string l, std::function<OmkStatus(float*)> c, M4 w, std::string rn = "", M4 r = {}) {
        cs.push_back({std::move(l), std::move(c), w, std::move(rn), r});
    };
    add("Identity", omkmIdentity_m4_32f, ident());
    for (const auto& s : std::vector<std::array<float, 3>>{{2, -3, 0.5f}, {0, -0.0f, 1}, {1e-3f, 7e5f, -kInf}}) {
        M4 sc{}, tr = ident();
        sc[0] = s[0], sc[5] = s[1], sc[10] = s[2], sc[15] = 1.0f;
        tr[12] = s[0], tr[13] = s[1], tr[14] = s[2];
        add("Scaling", [=](float* d) { return omkmScaling_m4_32f(s[0], s[1], s[2], d); }, sc);
        add("Translation", [=](float* d) { return omkmTranslation_m4_32f(s[0], s[1], s[2], d); }, tr);
    }
    // w, h, n, f; the last has n = f (infinite entries; "0 - (f - n)" is +0, so m32 is +inf).
    for (const auto& p : std::vector<std::array<float, 4>>{{2, 2, 0.1f, 100}, {1.7f, 0.9f, 1, 10}, {640, 480, 0.5f, 1000.3f},
                                                          {3, 4, -1, 1}, {2, 2, 2, 2}}) {
        const float w = p[0], h = p[1], n = p[2], f = p[3];
        M4 rivalOrtho = ortho(w, h, n, f, false), rivalPersp = persp((n + n) / w, (n + n) / h, n, f, false);
        rivalOrtho[14] = n / -(f - n), rivalPersp[14] = n * f / -(f - n);
        add("OrthoLH", [=](float* d) { return omkmOrthoLH_m4_32f(w, h, n, f, d); }, ortho(w, h, n, f, false),
            "OrthoLH m32 with a negation", rivalOrtho);
        add("OrthoRH", [=](float* d) { return omkmOrthoRH_m4_32f(w, h, n, f, d); }, ortho(w, h, n, f, true));
        add("PerspectiveLH", [=](float* d) { return omkmPerspectiveLH_m4_32f(w, h, n, f, d); },
            persp((n + n) / w, (n + n) / h, n, f, false), "PerspectiveLH m32 with a negation", rivalPersp);
        add("PerspectiveRH", [=](float* d) { return omkmPerspectiveRH_m4_32f(w, h, n, f, d); },
            persp((n + n) / w, (n + n) / h, n, f, true));
    }
    // l, r, b, t, n, f; the last two are degenerate (l = r, b = t, n = f).
    for (const auto& p : std::vector<std::array<float, 6>>{{-1, 1, -1, 1, 0.1f, 100}, {-3.1f, 1.7f, -0.4f, 2.2f, 0.7f, 50},
                                                          {2, 5, 1, 3, 1.3f, 7.9f}, {-2, 2, -1.5f, 1.5f, 1, 10},
                                                          {1, 1, 2, 2, 3, 3}, {-1, -1, 0.5f, 0.5f, 0, 0}}) {
        const float l = p[0], r = p[1], b = p[2], t = p[3], n = p[4], f = p[5];
        M4 rival = orthoOff(l, r, b, t, n, f, false);
        rival[12] = (l + r) / -(r - l), rival[13] = (b + t) / -(t - b);
        add("OrthoOffCenterLH", [=](float* d) { return omkmOrthoOffCenterLH_m4_32f(l, r, b, t, n, f, d); },
            orthoOff(l, r, b, t, n, f, false), "OrthoOffCenterLH m30 with a negation", rival);
        add("OrthoOffCenterRH", [=](float* d) { return omkmOrthoOffCenterRH_m4_32f(l, r, b, t, n, f, d); },
            orthoOff(l, r, b, t, n, f, true));
        add("PerspectiveOffCenterLH",
            [=](float* d) { return omkmPerspectiveOffCenterLH_m4_32f(l, r, b, t, n, f, d); },
            perspOff(l, r, b, t, n, f, false));
        add("PerspectiveOffCenterRH",
            [=](float* d) { return omkmPerspectiveOffCenterRH_m4_32f(l, r, b, t, n, f, d); },
            perspOff(l, r, b, t, n, f, true));
    }
    std::mt19937 g(11);
    // fovY, aspect, n, f; n = 0 makes "(0 - n*f)" +0 in the left-handed m32.
    std::vector<std::array<float, 4>> fovs = {{1.5707964f, 1.5f, 0.1f, 100}, {1.0f, 4.0f / 3, 1, 10}, {2.5f, 1, 0, 5}};
    for (int k = 0; k < 300; ++k)
        fovs.push_back({std::uniform_real_distribution<float>(0.05f, 3.0f)(g), 1.25f, 0.5f, 20});
    for (const auto& p : fovs) {
        const float fov = p[0], a = p[1], n = p[2], f = p[3];
        M4 negated = perspFov(fov, a, n, f, false);
        negated[14] = -(n * f) / (f - n);
        add("PerspectiveFovLH", [=](float* d) { return omkmPerspectiveFovLH_m4_32f(fov, a, n, f, d); },
            perspFov(fov, a, n, f, false), "PerspectiveFovLH m32 with a negation", negated);
        add("PerspectiveFovRH", [=](float* d) { return omkmPerspectiveFovRH_m4_32f(fov, a, n, f, d); },
            perspFov(fov, a, n, f, true), "PerspectiveFov by 1/tan", perspFov(fov, a, n, f, true, true));
    }
    // Angle 0: "0 - s" is +0 where a negation would leave -0.
    std::vector<float> angles = {0.0f, -0.0f, 0.3f, 1.0f, 1.5707964f, -2.5f, 3.1415927f, 10.0f, 12345.6f};
    for (int k = 0; k < 100; ++k) angles.push_back(uni(g, 7.0f));
    OmkStatus (*const rot[3])(Omk32f, Omk32f*) = {omkmRotationX_m4_32f, omkmRotationY_m4_32f, omkmRotationZ_m4_32f};
    for (float a : angles)
        for (int ax = 0; ax < 3; ++ax) {
            float s, c;
            ::sincosf(a, &s, &c);
            M4 negated = rotation(ax, a);
            negated[ax == 0 ? 9 : ax == 1 ? 2 : 4] = -s;  // m21, m02, m10
            add("Rotation" + std::string(1, char('X' + ax)), [=](float* d) { return rot[ax](a, d); }, rotation(ax, a),
                "Rotation " + std::to_string(ax) + " with a negation", negated);
        }
    std::vector<std::array<float, 3>> axes = {{1, 0, 0}, {0, 0, 2}, {1, 2, 3}, {-0.3f, 0.8f, -2.2f}, {1e-3f, 5, 0.2f}};
    for (int k = 0; k < 60; ++k) axes.push_back({uni(g), uni(g), uni(g)});
    for (size_t k = 0; k < axes.size(); ++k) {
        const auto axis = axes[k];
        const float a = angles[k % angles.size()];
        add("RotationAxis", [=](float* d) { return omkmRotationAxis_v3m4_32f(axis.data(), a, d); },
            rotationAxis(axis.data(), a), "RotationAxis unfused", rotationAxis(axis.data(), a, false));
        const float y = uni(g, 4), p = uni(g, 4), r = uni(g, 4);
        add("RotationYawPitchRoll", [=](float* d) { return omkmRotationYawPitchRoll_m4_32f(y, p, r, d); },
            yawPitchRoll(y, p, r), "YawPitchRoll unfused", yawPitchRoll(y, p, r, false));
    }
    add("RotationYawPitchRoll", [=](float* d) { return omkmRotationYawPitchRoll_m4_32f(0, 0, 0, d); },
        yawPitchRoll(0, 0, 0));
    // Look-at; an eye at the origin gives "0 - dot" = +0 where a negation gives -0.
    for (int k = 0; k < 80; ++k) {
        std::array<float, 3> eye{}, at, up;
        if (k % 4) eye = {uni(g, 10), uni(g, 10), uni(g, 10)};
        at = {uni(g, 10), uni(g, 10), uni(g, 10)};
        up = {uni(g, 0.3f), 1.0f, uni(g, 0.3f)};
        add("LookAtLH", [=](float* d) { return omkmLookAtLH_m4_32f(eye.data(), at.data(), up.data(), d); },
            lookAt(eye.data(), at.data(), up.data(), false), "LookAt unfused cross",
            lookAt(eye.data(), at.data(), up.data(), false, false));
        add("LookAtRH", [=](float* d) { return omkmLookAtRH_m4_32f(eye.data(), at.data(), up.data(), d); },
            lookAt(eye.data(), at.data(), up.data(), true), "LookAt negated dot",
            lookAt(eye.data(), at.data(), up.data(), true, true, false));
    }
    for (int k = 0; k < 100; ++k) {
        M4 a, b;
        fill(g, a.data(), 16), fill(g, b.data(), 16);
        add("MulTranspose", [=](float* d) { return omkmMulTranspose_m4_32f(a.data(), b.data(), d); },
            mulTranspose(a, b), "MulTranspose with column 0 first", mulTranspose(a, b, false));
    }
    return cs;
}

// Every entry, the unlisted ones as +0.0, bit for bit; nothing outside the 16 floats is written.
TEST(TransformBuilders, EveryBuilderWritesAllSixteenEntriesAsDocumented) {
    std::map<std::string, int> rivals, seen;
    for (const BuilderCase& c : builderCases()) {
        SCOPED_TRACE(c.label);
        const auto got = runInto(16, c.call);
        ASSERT_TRUE(sameFloats(got.data(), c.want.data(), 16));
        if (c.rivalName.empty()) continue;
        ++seen[c.rivalName];
        rivals[c.rivalName] += anyDiffer(c.want.data(), c.rival.data(), 16);
    }
    EXPECT_GE(seen.size(), 11u);
    for (const auto& r : seen) EXPECT_GT(rivals[r.first], 0) << r.first << " is never separated";
}

TEST(TransformBuilders, SignsOfZeroAndInfinities) {
    float m[16];
    ASSERT_EQ(omkmRotationX_m4_32f(0.0f, m), omkStsOk);
    EXPECT_EQ(bitsOf(m[9]), 0u) << "m21 of RotationX(0) must be +0.0";
    ASSERT_EQ(omkmOrthoLH_m4_32f(2, 2, 1.5f, 1.5f, m), omkStsOk);
    EXPECT_TRUE(std::isinf(m[10]) && std::isinf(m[14])) << m[10] << " " << m[14];
    EXPECT_EQ(m[14], kInf);
    ASSERT_EQ(omkmPerspectiveFovLH_m4_32f(1.0f, 1.0f, 0.0f, 10.0f, m), omkStsOk);
    EXPECT_EQ(bitsOf(m[14]), 0u) << "(0 - n*f)/(f - n) with n = 0 must be +0.0";
    for (int i : {1, 2, 3, 4, 6, 7, 8, 9, 12, 13, 15}) EXPECT_EQ(bitsOf(m[i]), 0u) << i;
}

// fovY = pi/2 gives m11 = 1 and m00 = 1/aspect to rounding; the axis (0, 0, 2) gives RotationZ.
TEST(TransformBuilders, QuarterTurnFieldOfViewAndScaledZAxis) {
    float m[16], z[16];
    for (float aspect : {1.0f, 1.5f, 0.75f, 16.0f / 9}) {
        ASSERT_EQ(omkmPerspectiveFovLH_m4_32f(1.5707964f, aspect, 0.1f, 100.0f, m), omkStsOk);
        EXPECT_NEAR(m[5], 1.0f, 2 * FLT_EPSILON);
        EXPECT_NEAR(m[0], 1.0f / aspect, 4 * FLT_EPSILON);
    }
    const float axis[3] = {0, 0, 2};
    for (float a : {0.0f, 0.4f, -1.3f, 2.9f, 7.0f}) {
        ASSERT_EQ(omkmRotationAxis_v3m4_32f(axis, a, m), omkStsOk);
        ASSERT_EQ(omkmRotationZ_m4_32f(a, z), omkStsOk);
        for (int i = 0; i < 16; ++i) EXPECT_NEAR(m[i], z[i], 2e-7f) << "angle " << a << " entry " << i;
    }
}

// The weak test: m00 == 1 and at least one whole column equal to the identity's.
TEST(TransformBuilders, IsIdentityIsTheWeakColumnTest) {
    auto with = [](std::initializer_list<std::pair<int, float>> changes) {
        M4 m = ident();
        for (const auto& c : changes) m[c.first] = c.second;
        return m;
    };
    const std::vector<std::pair<M4, int>> table = {
        {ident(), 1},
        {with({{6, -0.0f}}), 1},
        {with({{11, -0.0f}, {14, -0.0f}}), 1},
        {with({{6, 5.0f}}), 1},                                 // m12 = 5: columns 0, 1, 3 still match
        {with({{0, 2.0f}}), 0},                                 // m00 != 1
        {with({{4, 7}, {1, 7}, {6, 7}, {3, 7}}), 0},            // no column left whole
        {with({{12, 7}}), 1},                                   // column 0 broken, others whole
        {with({{12, 7}, {1, 7}, {2, 7}, {3, 7}}), 0},
        {with({{12, 7}, {1, 7}, {2, 7}}), 1},                   // only column 3 whole
        {with({{4, kNaN}, {1, kNaN}, {14, kNaN}, {3, kNaN}}), 0},  // a NaN never matches
        {with({{0, kNaN}}), 0},
        {M4{}, 0},
    };
    for (size_t k = 0; k < table.size(); ++k) {
        int r = 42;
        ASSERT_EQ(omkmIsIdentity_m4_32f(table[k].first.data(), &r), omkStsOk);
        EXPECT_EQ(r, table[k].second) << "row " << k;
    }
    // Each column independently whole or broken, m00 = 1 or not.
    std::mt19937 g(12);
    for (int t = 0; t < 400; ++t) {
        M4 m = ident();
        int want = 0;
        for (int j = 0; j < 4; ++j) {
            const bool broken = g() % 2;
            int i = int(g() % 4);
            if (i == 0 && j == 0) i = 2;
            if (broken) m[4 * i + j] += 3.0f;
            want |= !broken;
        }
        if (g() % 5 == 0) m[0] = 1.0f + FLT_EPSILON, want = 0;
        int r = 42;
        ASSERT_EQ(omkmIsIdentity_m4_32f(m.data(), &r), omkStsOk);
        ASSERT_EQ(r, want) << t;
    }
}

TEST(TransformBuilders, MulTransposeMayAliasEitherSource) {
    std::mt19937 g(13);
    M4 a, b;
    fill(g, a.data(), 16), fill(g, b.data(), 16);
    const M4 want = mulTranspose(a, b), square = mulTranspose(a, a);
    M4 d = a;
    ASSERT_EQ(omkmMulTranspose_m4_32f(d.data(), b.data(), d.data()), omkStsOk);
    EXPECT_TRUE(sameFloats(d.data(), want.data(), 16));
    d = b;
    ASSERT_EQ(omkmMulTranspose_m4_32f(a.data(), d.data(), d.data()), omkStsOk);
    EXPECT_TRUE(sameFloats(d.data(), want.data(), 16));
    d = a;
    ASSERT_EQ(omkmMulTranspose_m4_32f(d.data(), d.data(), d.data()), omkStsOk);
    EXPECT_TRUE(sameFloats(d.data(), square.data(), 16));
}

}  // namespace
