// Products with a constant: every member in every description and both element types, one rounded
// product per element, with the check order, the serial limits and the parallel runs.
#include <gtest/gtest.h>

#include <set>

#include "member_checks.h"
#include "operands.h"
#include "thread_budget_probe.h"

using namespace testing_omk;

namespace {

const std::vector<Member>& members() {
    static const std::vector<Member> all = {
        SINGLE_GROUP(Mul, mc) SINGLE_GROUP(Mul, tc) SINGLE_GROUP(Mul, vc)
        ARRAY_GROUP(Mul, mac) ARRAY_GROUP(Mul, tac) ARRAY_GROUP(Mul, vac) ARRAY_GROUP(Mul, vaca) ARRAY_GROUP(Mul, vca)
    };
    return all;
}

// Source element times the constant of its object, rounded once in the element type.
double scaled(Case& c, int k, int i, int j) {
    const double a = sourceAt(c, c.srcs[0], k, i, j), v = sourceAt(c, c.srcs[1], k, i, j);
    return c.m->esize == 4 ? double(float(a) * float(v)) : a * v;
}

Case scaleCase(const Member& m, int w, int h, int count, const std::vector<Style>& styles, std::mt19937& rng) {
    Case c;
    c.m = &m;
    c.width = w;
    c.height = m.isMatrix() ? h : 1;
    c.count = count;
    build(c, styles, rng);
    return c;
}

}  // namespace

TEST(ScaleMembers, TheListCoversTheConstantProducts) {
    std::set<std::string> names;
    for (const Member& m : members()) names.insert(m.name);
    EXPECT_EQ(names.size(), 42u);
}

// Every member over shapes with odd and even element counts (the strided kernels take two elements
// a step) in packed, padded, gapped and mixed layouts; tc and tac read the source transposed.
TEST(ScaleResults, EveryMemberEveryLayout) {
    probe::Budget serial(1);
    std::mt19937 rng(53);
    const std::vector<std::vector<Style>> styles = {
        {Style::Packed}, {Style::PaddedRows}, {Style::Gapped},
        {Style::Gapped, Style::Packed, Style::PaddedRows}, {Style::Packed, Style::PaddedRows, Style::Gapped}};
    for (const Member& m : members()) {
        const std::vector<std::pair<int, int>> shapes =
            m.isMatrix() ? std::vector<std::pair<int, int>>{{1, 1}, {3, 2}, {2, 3}, {4, 4}, {5, 7}, {9, 1}}
                         : std::vector<std::pair<int, int>>{{1, 1}, {2, 1}, {3, 1}, {8, 1}, {17, 1}};
        for (auto [w, h] : shapes)
            for (const auto& st : styles)
                for (int count : {1, 4}) {
                    if (count > 1 && !m.hasArray()) continue;
                    Case c = scaleCase(m, w, h, count, st, rng);
                    runAndVerify(c, scaled);
                    if (HasFatalFailure()) return;
                }
    }
}

TEST(ScaleResults, DocumentedCases) {
    // tc, width 3 and height 2: the source has 3 rows of 2, the destination 2 rows of 3.
    const float src[6] = {1, 2, 3, 4, 5, 6};  // rows (1 2) (3 4) (5 6)
    float d[8];
    std::fill_n(d, 8, -1.0f);
    ASSERT_EQ(omkmMul_tc_32f(src, 8, 4, 2.0f, d, 12, 4, 3, 2), omkStsOk);
    const float want[6] = {2, 6, 10, 4, 8, 12};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(d[i], want[i]) << i;
    EXPECT_EQ(d[6], -1.0f);
    // m and v in place (same base and strides) give the out-of-place result.
    float m[12], copy[12], out[12];
    for (int i = 0; i < 12; ++i) m[i] = copy[i] = 0.1f * float(i + 1);
    ASSERT_EQ(omkmMul_mc_32f(copy, 24, 8, 3.3f, out, 24, 8, 3, 2), omkStsOk);
    ASSERT_EQ(omkmMul_mc_32f(m, 24, 8, 3.3f, m, 24, 8, 3, 2), omkStsOk);
    for (int i = 0; i < 12; i += 2) EXPECT_EQ(m[i], out[i]);
    ASSERT_EQ(omkmMul_vc_32f(copy, 4, 3.3f, copy, 4, 12), omkStsOk);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(copy[i], float(0.1f * float(i + 1)) * 3.3f);
    // No numeric condition is reported: infinities and NaN follow IEEE rules.
    double big[2] = {1e300, -0.0}, r[2];
    ASSERT_EQ(omkmMul_vc_64f(big, 8, 1e10, r, 8, 2), omkStsOk);
    EXPECT_TRUE(std::isinf(r[0]));
    EXPECT_TRUE(std::signbit(r[1]));
}

// ---- checks ----

// Null (including the constants' pointer), count, size, stride (including valStride0), ROI shift
// (including valRoiShift); each fault alone and every pair.
TEST(ScaleChecks, EveryMemberInItsOrder) {
    std::mt19937 rng(59);
    for (const Member& m : members()) {
        Case c = scaleCase(m, 3, 2, 3, {Style::Gapped}, rng);
        walkFaults(c, m.hasArray() ? "NCSTR" : "NSTR", faultsOf(c), scaled);
        if (HasFatalFailure()) return;
    }
}

TEST(ScaleChecks, DocumentedCases) {
    float v[8] = {}, val[4] = {1, 1, 1, 1}, d[8];
    const float* pv[4] = {val, val, val, val};
    float* pd[4] = {d, d, d, d};
    EXPECT_EQ(omkmMul_vaca_32f(v, 8, 4, val, 4, d, 8, 4, 0, 0), omkStsBadCount);
    EXPECT_EQ(omkmMul_vaca_32f(v, 8, 4, val, 4, d, 8, 4, 0, 1), omkStsBadSize);
    EXPECT_EQ(omkmMul_vaca_32f(v, 8, 4, val, 6, d, 8, 4, 2, 1), omkStsBadStride);
    EXPECT_EQ(omkmMul_vca_32f_L(v, 4, pv, -4, pd, 0, 4, 2, 1), omkStsBadRoiShift);
    EXPECT_EQ(omkmMul_vca_32f_L(v, 4, nullptr, 0, pd, 0, 4, 2, 1), omkStsNullPtr);
}

// ---- serial limits ----
namespace {

struct ScaleLimit {
    std::function<int64_t(int64_t, int64_t, int64_t)> work;
    int stdContiguous32, stdContiguous64, stdOther, layoutContiguous, layoutOther32, layoutOther64, pointer;
};

// The documented work figures and limits ("up to": the limit itself stays serial).
ScaleLimit limitOf(const std::string& g) {
    if (g == "mac" || g == "tac")
        return {[](int64_t w, int64_t h, int64_t c) { return 2 * w * h * c; }, 3500, 3500, 3500, 3500, 1500, 3500, 1700};
    if (g == "vac")
        return {[](int64_t n, int64_t, int64_t c) { return 2 * n * c; }, 2500, 3600, 1440, 3600, 1440, 1440, 1440};
    if (g == "vaca")
        return {[](int64_t n, int64_t, int64_t c) { return c * (2 * n + 1); }, 2100, 2100, 2100, 1200, 1200, 1200, 650};
    return {[](int64_t n, int64_t, int64_t c) { return n * (c + 1) + c; }, 2100, 2100, 2100, 1200, 1200, 1200, 650};
}

}  // namespace

// With a budget of one thread, a call above its limit asks once; at or below it never asks.
// vaca and vca test the work before the contiguity, so their limits hold for every layout.
TEST(ScaleLimits, EveryArrayMemberAtItsExactBoundary) {
    probe::Budget one(1);
    std::mt19937 rng(61);
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        const ScaleLimit l = limitOf(m.group);
        const bool is64 = m.esize == 8;
        struct Variant { std::vector<Style> styles; int limit; };
        std::vector<Variant> variants;
        if (m.desc == Desc::P) {
            variants = {{{Style::Packed}, l.pointer}, {{Style::Gapped}, l.pointer}};
        } else if (m.desc == Desc::L) {
            variants = {{{Style::Packed}, l.layoutContiguous}, {{Style::PaddedRows}, l.layoutContiguous},
                        {{Style::Gapped}, is64 ? l.layoutOther64 : l.layoutOther32},
                        {{Style::Gapped, Style::Packed}, is64 ? l.layoutOther64 : l.layoutOther32}};
        } else {
            const int contiguous = is64 ? l.stdContiguous64 : l.stdContiguous32;
            variants = {{{Style::Packed}, contiguous}, {{Style::PaddedRows}, contiguous},
                        {{Style::Gapped}, l.stdOther}, {{Style::Packed, Style::Gapped}, l.stdOther}};
        }
        for (const Variant& v : variants)
            for (const LimitShape& s : aroundLimit(l.work, v.limit, m.isMatrix())) {
                Case c = scaleCase(m, s.w, s.h, s.c, v.styles, rng);
                probe::resetCalls();
                runAndVerify(c, scaled);
                ASSERT_EQ(probe::calls(), s.work > v.limit ? 1 : 0)
                    << m.name << " " << s.w << "x" << s.h << " count " << s.c << " work " << s.work << " limit " << v.limit;
            }
    }
}

// ---- parallel runs ----

// Budgets 2, 3 and 4 give the same bits as the serial run, and ask for the budget twice.
TEST(ScaleParallel, BitIdenticalToSerialForEveryArrayMember) {
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        for (const auto& styles : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
            Case serial = largeCase(m, 67, styles);
            {
                probe::Budget one(1);
                runAndVerify(serial, scaled);
                ASSERT_EQ(probe::calls(), 1) << m.name;
            }
            for (int budget : {2, 3, 4}) {
                Case par = largeCase(m, 67, styles);
                probe::Budget b(budget);
                ASSERT_EQ(m.call(par.args), omkStsOk);
                ASSERT_EQ(probe::calls(), 2) << m.name << " budget " << budget;
                ASSERT_TRUE(par.arena.bytes == serial.arena.bytes) << m.name << " budget " << budget;
            }
        }
    }
}
