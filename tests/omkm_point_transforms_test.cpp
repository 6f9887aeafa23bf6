// Point transforms: the single-vector forms bit for bit against their fused lane formulas (each
// beside a rival order shown to differ), the array forms against the single forms on the fast and the
// general paths, projection through three transforms and a viewport, unprojection and its singular
// case, and the checked homogeneous array transform with its check order, serial limit and threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <functional>
#include <limits>

#include "graphics_cases.h"
#include "thread_budget_probe.h"

using namespace gfx;

namespace {

using Single = OmkStatus (*)(const Omk32f*, const Omk32f*, Omk32f*);
using Array = OmkStatus (*)(const Omk32f*, const Omk32f*, int, Omk32f*, int, int);
// Lane j of each form's row product; `rival` takes the same terms in another order.
float lane(int form, const float* m, const float* v, int j, bool rival) {
    const float x = v[0], y = v[1], z = v[2], w = v[3], a = m[j], b = m[4 + j], c = m[8 + j], d = m[12 + j];
    switch (form) {
    case 2: return rival ? fma(x, a, fma(y, b, d)) : fma(y, b, fma(x, a, d));                      // m4v2
    case 3: return rival ? fma(x, a, fma(y, b, fma(z, c, d))) : fma(z, c, fma(y, b, fma(x, a, d)));  // m4v3
    case 4: return rival ? fma(y, b, x * a) + fma(w, d, z * c) : fma(x, a, y * b) + fma(z, c, w * d);  // m4v4
    case 5: return rival ? fma(z, c, fma(y, b, fma(x, a, d))) : fma(x, a, fma(y, b, fma(z, c, d)));  // Coord m4v3
    case 6: return rival ? fma(y, b, x * a) : fma(x, a, y * b);                                      // Normal m4v2
    default: return rival ? fma(x, a, fma(y, b, z * c)) : fma(z, c, fma(x, a, y * b));               // Normal m4v3
    }
}

struct PointMember {
    const char* name;
    Single single;
    Array array;
    int in, out, form;
    bool divide;  // Coord: the lanes divided by lane 3
    void ref(const float* m, const float* v, float* o, bool rival = false) const {
        float p[4];
        for (int j = 0; j < 4; ++j) p[j] = lane(form, m, v, j, rival);
        for (int j = 0; j < out; ++j) o[j] = divide ? p[j] / p[3] : p[j];
    }
};
#define OMKM_POINT(N, IN, OUT, FORM, DIV) {#N, omkm##N##_32f, omkm##N##a_32f, IN, OUT, FORM, DIV}
const PointMember kMembers[] = {
    OMKM_POINT(AffineTransform_m4v2, 2, 4, 2, false),      OMKM_POINT(AffineTransform_m4v3, 3, 4, 3, false),
    OMKM_POINT(AffineTransform_m4v4, 4, 4, 4, false),      OMKM_POINT(AffineTransformCoord_m4v2, 2, 2, 2, true),
    OMKM_POINT(AffineTransformCoord_m4v3, 3, 3, 5, true),  OMKM_POINT(AffineTransformNormal_m4v2, 2, 2, 6, false),
    OMKM_POINT(AffineTransformNormal_m4v3, 3, 3, 7, false),
};

TEST(PointTransforms, SingleFormsInTheirFusedOrders) {
    std::mt19937 g(21);
    for (const PointMember& pm : kMembers) {
        Rival rival(std::string(pm.name) + " in another order");
        for (int t = 0; t < 2000; ++t) {
            float m[16], v[4], want[4], other[4];
            fill(g, m, 16), fill(g, v, 4);
            pm.ref(m, v, want);
            pm.ref(m, v, other, true);
            ASSERT_TRUE(sameFloats(runInto(pm.out, [&](float* d) { return pm.single(m, v, d); }).data(), want, pm.out))
                << pm.name;
            rival.note(want, other, pm.out);
        }
    }
}

// Where the output is no larger than the input, the destination may be the source.
TEST(PointTransforms, SingleFormsInPlace) {
    std::mt19937 g(22);
    for (const PointMember& pm : kMembers) {
        if (pm.out > pm.in) continue;
        float m[16], v[4], want[4], buf[4];
        fill(g, m, 16), fill(g, v, 4);
        pm.ref(m, v, want);
        std::copy(v, v + 4, buf);
        ASSERT_EQ(pm.single(m, buf, buf), omkStsOk);
        EXPECT_TRUE(sameFloats(buf, want, pm.out)) << pm.name;
    }
}

TEST(PointTransforms, CoordWithIdentityAndWithZeroColumnThree) {
    float id[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}, flat[16];
    std::copy(id, id + 16, flat);
    flat[15] = 0.0f;  // column 3 all zero: W = 0
    const float p[3] = {1.25f, -3.5f, 0.0625f};
    EXPECT_TRUE(sameFloats(runInto(3, [&](float* d) { return omkmAffineTransformCoord_m4v3_32f(id, p, d); }).data(), p, 3));
    EXPECT_TRUE(sameFloats(runInto(2, [&](float* d) { return omkmAffineTransformCoord_m4v2_32f(id, p, d); }).data(), p, 2));
    for (float c : runInto(3, [&](float* d) { return omkmAffineTransformCoord_m4v3_32f(flat, p, d); }))
        EXPECT_TRUE(std::isinf(c) || std::isnan(c)) << c;
    for (float c : runInto(2, [&](float* d) { return omkmAffineTransformCoord_m4v2_32f(flat, p, d); }))
        EXPECT_TRUE(std::isinf(c) || std::isnan(c)) << c;
}

// ---- array forms ----
using ArrayCall = std::function<OmkStatus(const float* src, int srcStride, float* dst, int dstStride, int count)>;
using SingleCall = std::function<OmkStatus(const float* src, float* dst)>;

// Every vector of the array equals the single form's result, bit for bit, and no other destination
// byte changes. Layouts: {source offset, source padding, destination offset, destination stride};
// a destination stride of 0 here stands for 16 bytes (fast path with a packed source and a 16-byte
// aligned destination), -1 for the packed output size.
void walkArrayPaths(const char* name, int in, int out, const ArrayCall& array, const SingleCall& single) {
    struct Layout { int srcOff, srcPad, dstOff, dstStride; };
    const Layout layouts[] = {{0, 0, 0, 0},  {0, 0, 0, 32},  {4, 0, 16, 0}, {0, 0, 4, 0},
                              {0, 4, 0, 0},  {8, 8, 12, -1}, {0, 0, 0, -1}, {0, 0, 0, 20}};
    std::mt19937 g(23);
    for (const Layout& l : layouts)
        for (int count : {1, 2, 3, 4, 5, 8, 17, 0, -1}) {
            const int srcStride = 4 * in + l.srcPad;
            const int dstStride = l.dstStride == 0 ? 16 : l.dstStride < 0 ? 4 * out : l.dstStride;
            const int n = std::max(count, 1);
            Arena src(size_t(l.srcOff + n * srcStride)), dst(size_t(l.dstOff + n * dstStride + 16));
            for (int k = 0; k < n; ++k) fill(g, src.f(size_t(l.srcOff + k * srcStride)), in);
            src.snapshot(), dst.snapshot();
            SCOPED_TRACE(std::string(name) + " srcStride " + std::to_string(srcStride) + " dstStride " +
                         std::to_string(dstStride) + " dst offset " + std::to_string(l.dstOff) + " count " +
                         std::to_string(count));
            ASSERT_EQ(array(src.f(size_t(l.srcOff)), srcStride, dst.f(size_t(l.dstOff)), dstStride, count), omkStsOk);
            ASSERT_TRUE(src.unchanged());
            if (count <= 0) {
                ASSERT_TRUE(dst.unchanged());
                continue;
            }
            std::vector<std::pair<size_t, size_t>> ranges;
            for (int k = 0; k < count; ++k) {
                const size_t at = size_t(l.dstOff + k * dstStride);
                ranges.push_back({at, at + size_t(4 * out)});
                float want[4];
                ASSERT_EQ(single(src.f(size_t(l.srcOff + k * srcStride)), want), omkStsOk);
                ASSERT_TRUE(sameFloats(dst.f(at), want, out)) << "vector " << k;
            }
            ASSERT_TRUE(dst.changedOnlyIn(ranges));
        }
}

TEST(PointTransforms, ArrayFormsEqualSingleFormsOnEveryPath) {
    std::mt19937 g(24);
    float m[16];
    fill(g, m, 16);
    for (const PointMember& pm : kMembers)
        walkArrayPaths(
            pm.name, pm.in, pm.out,
            [&](const float* s, int ss, float* d, int ds, int c) { return pm.array(m, s, ss, d, ds, c); },
            [&](const float* s, float* d) { return pm.single(m, s, d); });
}

// ---- projection ----
struct View {
    float proj[16], view[16], world[16];
    float width, height, minDepth, maxDepth;
};

// rival 1: the viewport unfused; rival 2: the products paired otherwise.
void project(const View& v, const float* p, float* o, int rival = 0) {
    const float p0[4] = {p[0], p[1], p[2], 1.0f};
    float p1[4], p2[4], p3[4], q[4];
    auto times = [&](const float* a, const float* m, float* r) {
        for (int j = 0; j < 4; ++j) r[j] = lane(4, m, a, j, rival == 2);
    };
    times(p0, v.world, p1);
    times(p1, v.view, p2);
    times(p2, v.proj, p3);
    for (int j = 0; j < 4; ++j) q[j] = p3[j] / p3[3];
    const float hw = v.width / 2, hh = v.height / 2, depth = v.maxDepth - v.minDepth;
    if (rival != 1) {
        o[0] = fma(q[0], hw, hw), o[1] = fma(q[1], 0.0f - hh, hh), o[2] = fma(q[2], depth, v.minDepth);
    } else {
        o[0] = q[0] * hw + hw, o[1] = q[1] * (0.0f - hh) + hh, o[2] = q[2] * depth + v.minDepth;
    }
}
OmkStatus projectCall(const View& v, const float* p, float* d) {
    return omkmProject_m4v3_32f(v.proj, v.view, v.world, p, v.width, v.height, v.minDepth, v.maxDepth, d);
}
OmkStatus unprojectCall(const View& v, const float* p, float* d) {
    return omkmUnproject_m4v3_32f(v.proj, v.view, v.world, p, v.width, v.height, v.minDepth, v.maxDepth, d);
}

// A camera: a rotated and moved world, a look-at view and a perspective projection, all from the builders.
View camera(std::mt19937& g) {
    View v;
    const float axis[3] = {uni(g), uni(g), uni(g)}, eye[3] = {uni(g, 2), uni(g, 2), -10.0f}, at[3] = {0, 0, 0},
                up[3] = {0, 1, 0};
    omkmRotationAxis_v3m4_32f(axis, uni(g, 3), v.world);
    for (int j = 0; j < 3; ++j) v.world[12 + j] = uni(g, 1);  // then a move
    omkmLookAtLH_m4_32f(eye, at, up, v.view);
    omkmPerspectiveFovLH_m4_32f(0.9f, 4.0f / 3, 0.5f, 60.0f, v.proj);
    v.width = 800, v.height = 600, v.minDepth = 0.2f, v.maxDepth = 0.9f;
    return v;
}

TEST(PointTransforms, ProjectOfIdentities640x480) {
    View v{};
    for (float* m : {v.proj, v.view, v.world}) m[0] = m[5] = m[10] = m[15] = 1.0f;
    v.width = 640, v.height = 480, v.minDepth = 0, v.maxDepth = 1;
    const float a[3] = {0, 0, 0}, b[3] = {1, 1, 1}, wantA[3] = {320, 240, 0}, wantB[3] = {640, 0, 1};
    EXPECT_TRUE(sameFloats(runInto(3, [&](float* d) { return projectCall(v, a, d); }).data(), wantA, 3));
    EXPECT_TRUE(sameFloats(runInto(3, [&](float* d) { return projectCall(v, b, d); }).data(), wantB, 3));
}

TEST(PointTransforms, ProjectThroughWorldViewProjectionBitExact) {
    std::mt19937 g(25);
    Rival unfused("Project with an unfused viewport"), paired("Project with the products paired otherwise");
    for (int t = 0; t < 2000; ++t) {
        View v;
        if (t % 2) {
            v = camera(g);
        } else {
            fill(g, v.proj, 16), fill(g, v.view, 16), fill(g, v.world, 16);
            v.width = uni(g, 1000), v.height = uni(g, 1000), v.minDepth = uni(g, 1), v.maxDepth = uni(g, 1);
        }
        float p[3], want[3], other[3], other2[3];
        fill(g, p, 3, 5.0f);
        project(v, p, want);
        project(v, p, other, 1);
        project(v, p, other2, 2);
        ASSERT_TRUE(sameFloats(runInto(3, [&](float* d) { return projectCall(v, p, d); }).data(), want, 3)) << t;
        unfused.note(want, other, 3);
        paired.note(want, other2, 3);
    }
}

TEST(PointTransforms, ProjectAndUnprojectArraysEqualSingleForms) {
    std::mt19937 g(26);
    const View v = camera(g);
    walkArrayPaths(
        "Project", 3, 3,
        [&](const float* s, int ss, float* d, int ds, int c) {
            return omkmProject_m4v3a_32f(v.proj, v.view, v.world, s, ss, v.width, v.height, v.minDepth, v.maxDepth, d,
                                         ds, c);
        },
        [&](const float* s, float* d) { return projectCall(v, s, d); });
    walkArrayPaths(
        "Unproject", 3, 3,
        [&](const float* s, int ss, float* d, int ds, int c) {
            return omkmUnproject_m4v3a_32f(v.proj, v.view, v.world, s, ss, v.width, v.height, v.minDepth, v.maxDepth,
                                           d, ds, c);
        },
        [&](const float* s, float* d) { return unprojectCall(v, s, d); });
}

// Project then Unproject returns the point; Unproject then Project returns the viewport point,
// anywhere in the viewport and over the whole depth range.
TEST(PointTransforms, UnprojectInvertsProject) {
    std::mt19937 g(27);
    auto in = [&](float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(g); };
    for (int t = 0; t < 500; ++t) {
        const View v = camera(g);
        const float p[3] = {uni(g, 2), uni(g, 2), uni(g, 2)};
        const float s[3] = {in(0, v.width), in(0, v.height), in(v.minDepth, v.maxDepth)};
        float screen[3], world[3];
        ASSERT_EQ(projectCall(v, p, screen), omkStsOk);
        const auto back = runInto(3, [&](float* d) { return unprojectCall(v, screen, d); });
        ASSERT_EQ(unprojectCall(v, s, world), omkStsOk);
        ASSERT_EQ(projectCall(v, world, screen), omkStsOk);
        for (int j = 0; j < 3; ++j) {
            ASSERT_NEAR(back[j], p[j], 2e-4 * (1 + std::fabs(p[j]))) << t << " component " << j;
            ASSERT_NEAR(screen[j], s[j], 2e-5 * (j < 2 ? v.width : 1.0f)) << t << " component " << j;
        }
    }
}

// Singular exactly when the 4x4 inverse of the combined matrix is: then omkStsSingular and nothing
// written, by the array form too (decided before any vector); count <= 0 returns omkStsOk first.
TEST(PointTransforms, UnprojectOfASingularCombination) {
    // 2^-39: not singular, but the inverse's reciprocal step overflows, so only the status is fixed.
    struct Row { float k; bool singular, finite; };
    for (const Row& r : {Row{0.0f, true, false}, Row{0x1p-40f, true, false}, Row{0x1p-39f, false, false},
                         Row{0x1p-20f, false, true}, Row{1.0f, false, true}}) {
        View v{};
        for (float* m : {v.proj, v.view}) m[0] = m[5] = m[10] = m[15] = 1.0f;
        v.world[0] = v.world[5] = v.world[10] = r.k, v.world[15] = 1.0f;  // det k^3: 2^-120 is below 2^-119
        v.width = 640, v.height = 480, v.minDepth = 0, v.maxDepth = 1;
        float inv[16];
        ASSERT_EQ(omkmInvert_m4_32f(v.world, nullptr, inv), r.singular ? omkStsSingular : omkStsOk) << r.k;
        const float s[9] = {480, 120, 0.75f, 0, 0, 0, 640, 480, 1};
        Arena dst(64);
        const OmkStatus want = r.singular ? omkStsSingular : omkStsOk;
        ASSERT_EQ(unprojectCall(v, s, dst.f()), want);
        if (r.singular) {
            ASSERT_TRUE(dst.unchanged());
        } else {
            ASSERT_TRUE(dst.changedOnlyIn({{0, 12}}));
            ASSERT_FALSE(dst.unchanged());
        }
        if (r.finite) {
            const float ndc[3] = {0.5f, 0.5f, 0.75f};  // divided by k in x, y, z
            for (int j = 0; j < 3; ++j) EXPECT_NEAR(dst.f()[j] * r.k, ndc[j], 1e-6f) << j;
        }
        for (int count : {3, 0, -1}) {
            Arena a(64);
            const OmkStatus st = omkmUnproject_m4v3a_32f(v.proj, v.view, v.world, s, 12, v.width, v.height, v.minDepth,
                                                         v.maxDepth, a.f(), 16, count);
            ASSERT_EQ(st, count > 0 ? want : omkStsOk) << count;
            if (r.singular || count <= 0) {
                ASSERT_TRUE(a.unchanged()) << count;
            }
        }
    }
}

// ---- homogeneous array transform, standard description ----
struct Desc3DH { int m1, m2, s0, s2, d0, d2; };
const Desc3DH kContiguous = {16, 4, 16, 4, 16, 4};
const Desc3DH kGapped = {40, 8, 36, 8, 40, 8};

struct Call3DH {
    Desc3DH ds;
    int count;
    Arena mat, src, dst;
    Call3DH(const Desc3DH& d, int n, std::mt19937& g)
        : ds(d), count(n), mat(size_t(3 * d.m1 + 3 * d.m2 + 4)), src(size_t(std::max(n, 1) * d.s0 + 3 * d.s2 + 4)),
          dst(size_t(std::max(n, 1) * d.d0 + 3 * d.d2 + 4)) {
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) *mat.f(size_t(i * d.m1 + j * d.m2)) = uni(g);
        for (int k = 0; k < std::max(n, 1); ++k)
            for (int c = 0; c < 4; ++c) *src.f(size_t(k * d.s0 + c * d.s2)) = uni(g);
        dst.snapshot();
    }
    OmkStatus run(const Desc3DH& d, int n, bool nullMat = false, bool nullSrc = false, bool nullDst = false) {
        return omkmAffineTransform3DH_mva_32f(nullMat ? nullptr : mat.f(), d.m1, d.m2, nullSrc ? nullptr : src.f(),
                                              d.s0, d.s2, nullDst ? nullptr : dst.f(), d.d0, d.d2, n);
    }
    // Each vector as the row times the matrix, fma(x, M0, y*M1) + fma(z, M2, w*M3); rival: the other pairing.
    void verify(Rival* rival = nullptr) {
        float m[16];
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) m[4 * i + j] = *mat.f(size_t(i * ds.m1 + j * ds.m2));
        std::vector<std::pair<size_t, size_t>> written;
        for (int k = 0; k < count; ++k) {
            float v[4], want[4], other[4], got[4];
            for (int c = 0; c < 4; ++c) {
                v[c] = *src.f(size_t(k * ds.s0 + c * ds.s2));
                got[c] = *dst.f(size_t(k * ds.d0 + c * ds.d2));
                written.push_back({size_t(k * ds.d0 + c * ds.d2), size_t(k * ds.d0 + c * ds.d2 + 4)});
            }
            rowTimes4(v, m, want);
            for (int j = 0; j < 4; ++j) other[j] = lane(4, m, v, j, true);
            ASSERT_TRUE(sameFloats(got, want, 4)) << "vector " << k;
            if (rival) rival->note(want, other, 4);
        }
        ASSERT_TRUE(dst.changedOnlyIn(written));
    }
};

// Contiguous and general-stride kernels alike give the formula's bits.
TEST(PointTransforms3DH, EveryDescriptionInTheFusedOrder) {
    std::mt19937 g(31);
    Rival rival("AffineTransform3DH with the other pairing");
    const Desc3DH descs[] = {kContiguous, {20, 4, 24, 4, 20, 4}, {4, 16, 16, 4, 16, 4}, kGapped, {16, 4, 32, 8, 16, 4},
                             {16, 4, 16, 4, 48, 12}};
    for (const Desc3DH& d : descs)
        for (int count : {1, 2, 3, 7, 64, 130}) {
            Call3DH c(d, count, g);
            ASSERT_EQ(c.run(d, count), omkStsOk);
            c.verify(&rival);
            if (HasFatalFailure()) FAIL() << "strides " << d.m1 << "," << d.m2 << " count " << count;
        }
}

// Null pointers, then count, then strides (positive multiples of 4); a failed check writes nothing.
TEST(PointTransforms3DH, ChecksInOrderWriteNothing) {
    std::mt19937 g(32);
    Call3DH c(kContiguous, 3, g);
    struct Fault { char step; std::function<OmkStatus()> call; };
    std::vector<Fault> faults;
    for (int p = 0; p < 3; ++p)
        faults.push_back({'N', [&, p] { return c.run(kContiguous, 3, p == 0, p == 1, p == 2); }});
    for (int n : {0, -1}) faults.push_back({'C', [&, n] { return c.run(kContiguous, n); }});
    for (int s = 0; s < 6; ++s)
        for (int bad : {0, -4, 2, 6, -16}) {
            Desc3DH d = kContiguous;
            int* const field[6] = {&d.m1, &d.m2, &d.s0, &d.s2, &d.d0, &d.d2};
            *field[s] = bad;
            faults.push_back({'T', [&, d] { return c.run(d, 3); }});
        }
    auto statusOf = [](char s) { return s == 'N' ? omkStsNullPtr : s == 'C' ? omkStsBadCount : omkStsBadStride; };
    for (size_t i = 0; i < faults.size(); ++i) {
        ASSERT_EQ(faults[i].call(), statusOf(faults[i].step)) << "fault " << i;
        ASSERT_TRUE(c.dst.unchanged()) << "fault " << i;
    }
    // Two faults: the earlier step wins.
    Desc3DH bad = kContiguous;
    bad.s2 = 2;
    EXPECT_EQ(c.run(kContiguous, 0, true), omkStsNullPtr);
    EXPECT_EQ(c.run(bad, 3, false, false, true), omkStsNullPtr);
    EXPECT_EQ(c.run(bad, 0), omkStsBadCount);
    EXPECT_EQ(c.run(bad, -1), omkStsBadCount);
    EXPECT_TRUE(c.dst.unchanged());
}

// Work 6*count: serial up to 784 (count 130 gives 780), the parallel driver from count 131 (786),
// which asks for the budget once with a budget of one thread and twice with two.
TEST(PointTransforms3DH, SerialLimitAtItsExactBoundary) {
    std::mt19937 g(33);
    for (const Desc3DH& d : {kContiguous, kGapped})
        for (int count : {129, 130, 131, 132})
            for (int budget : {1, 2}) {
                Call3DH c(d, count, g);
                probe::Budget b(budget);
                ASSERT_EQ(c.run(d, count), omkStsOk);
                const int want = count <= 130 ? 0 : budget;
                EXPECT_EQ(probe::calls(), want) << "count " << count << " budget " << budget << " stride " << d.m2;
                c.verify();
            }
}

TEST(PointTransforms3DH, ThreadsGiveTheSerialBits) {
    for (const Desc3DH& d : {kContiguous, kGapped}) {
        std::mt19937 g1(34);
        Call3DH serial(d, 2503, g1);
        {
            probe::Budget one(1);
            ASSERT_EQ(serial.run(d, 2503), omkStsOk);
            EXPECT_EQ(probe::calls(), 1);
        }
        serial.verify();
        for (int budget : {2, 3}) {
            std::mt19937 g2(34);
            Call3DH par(d, 2503, g2);
            probe::Budget b(budget);
            ASSERT_EQ(par.run(d, 2503), omkStsOk);
            EXPECT_EQ(probe::calls(), 2);
            EXPECT_TRUE(std::equal(par.dst.bytes(), par.dst.bytes() + par.dst.size, serial.dst.bytes())) << budget;
            par.verify();
        }
    }
}

}  // namespace
