// Euclidean and Frobenius norms and traces: every member in every description and both element
// types, bit for bit against the documented order of its path, with the check order, the serial
// limits and the parallel runs.
#include <gtest/gtest.h>

#include "reduction_cases.h"

using namespace testing_omk;
using namespace testing_omk::red;

namespace {

const std::vector<Member>& l2Members() {
    static const std::vector<Member> all = {SINGLE_GROUP(L2Norm, v) ARRAY_GROUP(L2Norm, va)};
    return all;
}
const std::vector<Member>& frobMembers() {
    static const std::vector<Member> all = {SINGLE_GROUP(FrobNorm, m) ARRAY_GROUP(FrobNorm, ma)};
    return all;
}
const std::vector<Member>& traceMembers() {
    static const std::vector<Member> all = {SINGLE_GROUP(Trace, m) ARRAY_GROUP(Trace, ma)};
    return all;
}

// pSrc block, pDst, len, count.
Case l2Case(const Member& m, int len, int count, const std::vector<Style>& st, std::mt19937& rng) {
    Case c;
    c.m = &m;
    c.width = len;
    c.count = count;
    c.srcs = {operandOf('v', m.hasArray(), 1, len, styleAt(st, 0), m.esize)};
    c.dst = scalarResults(m.hasArray(), m.esize);
    place(c, rng);
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    pushPtr(c, ArgKind::DstPtr, c.arena.at(c.dst.base));
    pushArg(c, ArgKind::Len, len);
    if (m.hasArray()) pushArg(c, ArgKind::Count, count);
    return c;
}

// pSrc block, width, height, pDst, count.
Case frobCase(const Member& m, int w, int h, int count, const std::vector<Style>& st, std::mt19937& rng) {
    Case c;
    c.m = &m;
    c.width = w;
    c.height = h;
    c.count = count;
    c.srcs = {operandOf('m', m.hasArray(), h, w, styleAt(st, 0), m.esize)};
    c.dst = scalarResults(m.hasArray(), m.esize);
    place(c, rng);
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    pushArg(c, ArgKind::Width, w);
    pushArg(c, ArgKind::Height, h);
    pushPtr(c, ArgKind::DstPtr, c.arena.at(c.dst.base));
    if (m.hasArray()) pushArg(c, ArgKind::Count, count);
    return c;
}

// pSrc block, widthHeight, pDst, count.
Case traceCase(const Member& m, int n, int count, const std::vector<Style>& st, std::mt19937& rng) {
    Case c;
    c.m = &m;
    c.width = c.height = n;
    c.count = count;
    c.srcs = {operandOf('m', m.hasArray(), n, n, styleAt(st, 0), m.esize)};
    c.dst = scalarResults(m.hasArray(), m.esize);
    place(c, rng);
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    pushArg(c, ArgKind::Width, n);
    pushPtr(c, ArgKind::DstPtr, c.arena.at(c.dst.base));
    if (m.hasArray()) pushArg(c, ArgKind::Count, count);
    return c;
}

Witnesses& witnesses() {
    static Witnesses w;
    return w;
}

// ---- reference orders ----

// Element stride the element size: s_k = x_k*x_k rounded, lengths 3 to 6 tabled, others t = t + s_k.
template <class T>
T l2Contiguous(const std::vector<T>& x) {
    auto s = [&](int k) -> T { return x[k] * x[k]; };
    switch (x.size()) {
    case 3: return std::sqrt((s(0) + s(1)) + s(2));
    case 4: return std::sqrt((s(0) + s(1)) + (s(2) + s(3)));
    case 5: return std::sqrt(((s(0) + s(1)) + (s(2) + s(3))) + s(4));
    case 6: return std::sqrt(((s(0) + s(1)) + (s(2) + s(3))) + (s(4) + s(5)));
    default: break;
    }
    T t = 0;
    for (size_t k = 0; k < x.size(); ++k) t = t + s(int(k));
    return std::sqrt(t);
}

// Other strides and _P (and every FrobNorm): t = fma(x_k, x_k, t) from t = 0 in increasing index.
template <class T>
T fusedSquares(const std::vector<T>& x) {
    T t = 0;
    for (T v : x) t = std::fma(v, v, t);
    return std::sqrt(t);
}

template <class T>
T naiveSquares(const std::vector<T>& x) {
    T t = 0;
    for (T v : x) t = t + v * v;
    return std::sqrt(t);
}

template <class T>
double l2Of(Case& c, int k) {
    std::vector<T> x(c.width);
    for (int j = 0; j < c.width; ++j) x[j] = elemOf<T>(c, c.srcs[0], k, 0, j);
    const int n = c.width;
    if (c.m->desc == Desc::P || c.srcs[0].s2 != c.m->esize) {
        const T r = fusedSquares(x);
        witnesses().note("l2 strided", r, naiveSquares(x));
        return r;
    }
    const T r = l2Contiguous(x);
    // Lengths 3 and the loop are the naive sum by construction: against the fused order instead.
    if (n >= 4 && n <= 6) witnesses().note("l2 contiguous " + std::to_string(n), r, naiveSquares(x));
    else witnesses().note(n == 3 ? std::string("l2 contiguous 3") : "l2 contiguous loop", r, fusedSquares(x));
    return r;
}

// Rows in order, each row left to right.
template <class T>
double frobOf(Case& c, int k) {
    std::vector<T> x;
    for (int i = 0; i < c.height; ++i)
        for (int j = 0; j < c.width; ++j) x.push_back(elemOf<T>(c, c.srcs[0], k, i, j));
    const T r = fusedSquares(x);
    witnesses().note("frob", r, naiveSquares(x));
    return r;
}

// t = a00, then t = t + a_kk in order; against the same sum taken from the last element.
template <class T>
double traceOf(Case& c, int k) {
    const int n = c.width;
    T t = elemOf<T>(c, c.srcs[0], k, 0, 0);
    for (int i = 1; i < n; ++i) t = t + elemOf<T>(c, c.srcs[0], k, i, i);
    T back = elemOf<T>(c, c.srcs[0], k, n - 1, n - 1);
    for (int i = n - 2; i >= 0; --i) back = back + elemOf<T>(c, c.srcs[0], k, i, i);
    witnesses().note(n >= 3 && n <= 6 ? "trace 3 to 6" : "trace loop", t, back);
    return t;
}

double l2Expected(Case& c, int k, int, int) { return c.m->esize == 4 ? l2Of<float>(c, k) : l2Of<double>(c, k); }
double frobExpected(Case& c, int k, int, int) { return c.m->esize == 4 ? frobOf<float>(c, k) : frobOf<double>(c, k); }
double traceExpected(Case& c, int k, int, int) { return c.m->esize == 4 ? traceOf<float>(c, k) : traceOf<double>(c, k); }

const std::vector<std::vector<Style>>& layouts() {
    static const std::vector<std::vector<Style>> all = {{Style::Packed}, {Style::PaddedRows}, {Style::Gapped}};
    return all;
}

}  // namespace

// ---- results ----

// Lengths 1 to 8 (the tabled 3 to 6 and the loop) and 17, 37; packed arrays take the packed kernel,
// padded ones the contiguous kernel per object, gapped ones the strided kernel.
TEST(L2NormResults, EveryMemberEveryLengthAndLayout) {
    probe::Budget serial(1);
    std::mt19937 rng(211);
    witnesses().clear();
    for (const Member& m : l2Members())
        for (int len : {1, 2, 3, 4, 5, 6, 7, 8, 17, 37})
            for (const auto& st : layouts())
                for (int count : {1, 4, 5}) {
                    if (count > 1 && !m.hasArray()) continue;
                    Case c = l2Case(m, len, count, st, rng);
                    runAndVerify(c, l2Expected);
                    if (HasFatalFailure()) {
                        ADD_FAILURE() << m.name << " len " << len << " count " << count;
                        return;
                    }
                }
    witnesses().expectEvery({"l2 contiguous 3", "l2 contiguous 4", "l2 contiguous 5", "l2 contiguous 6",
                             "l2 contiguous loop", "l2 strided"});
}

TEST(L2NormResults, DocumentedCasesAndPathsDiffer) {
    float v[4] = {3, 4, 0, 0}, d = 0;
    ASSERT_EQ(omkmL2Norm_v_32f(v, 4, &d, 2), omkStsOk);
    EXPECT_EQ(d, 5.0f);
    ASSERT_EQ(omkmL2Norm_v_32f(v, 8, &d, 2), omkStsOk);  // 3 and 0 through the strided kernel
    EXPECT_EQ(d, 3.0f);
    const float* pv[2] = {v, v + 1};
    ASSERT_EQ(omkmL2Norm_v_32f_P(pv, 0, &d, 2), omkStsOk);
    EXPECT_EQ(d, 5.0f);
    double w[2] = {3, 4}, dd = 0;
    ASSERT_EQ(omkmL2Norm_v_64f(w, 8, &dd, 2), omkStsOk);
    EXPECT_EQ(dd, 5.0);
    // Huge elements overflow to infinity: no scaling.
    float big[2] = {3e20f, 4e20f};
    ASSERT_EQ(omkmL2Norm_v_32f(big, 4, &d, 2), omkStsOk);
    EXPECT_TRUE(std::isinf(d));
    // The contiguous and the strided kernel of one length both show.
    std::mt19937 rng(223);
    for (int len : {4, 6, 9}) {
        bool differ = false;
        for (int attempt = 0; attempt < 400 && !differ; ++attempt) {
            float x[9], gx[18], packed, gapped;
            for (int k = 0; k < len; ++k) x[k] = gx[2 * k] = float(sourceValue(rng));
            ASSERT_EQ(omkmL2Norm_v_32f(x, 4, &packed, len), omkStsOk);
            ASSERT_EQ(omkmL2Norm_v_32f(gx, 8, &gapped, len), omkStsOk);
            const std::vector<float> vx(x, x + len);
            EXPECT_EQ(packed, l2Contiguous(vx));
            EXPECT_EQ(gapped, fusedSquares(vx));
            differ = packed != gapped;
        }
        EXPECT_TRUE(differ) << "length " << len;
    }
}

TEST(FrobNormResults, EveryMemberEveryShapeAndLayout) {
    probe::Budget serial(1);
    std::mt19937 rng(227);
    witnesses().clear();
    const std::vector<std::pair<int, int>> shapes = {{1, 1}, {2, 3}, {3, 2}, {3, 5}, {4, 4}, {5, 7}, {9, 1}, {1, 9}, {8, 8}};
    for (const Member& m : frobMembers())
        for (auto [w, h] : shapes)
            for (const auto& st : layouts())
                for (int count : {1, 4}) {
                    if (count > 1 && !m.hasArray()) continue;
                    Case c = frobCase(m, w, h, count, st, rng);
                    runAndVerify(c, frobExpected);
                    if (HasFatalFailure()) {
                        ADD_FAILURE() << m.name << " " << w << "x" << h << " count " << count;
                        return;
                    }
                }
    witnesses().expectEvery({"frob"});
}

TEST(TraceResults, EveryMemberEveryOrderAndLayout) {
    probe::Budget serial(1);
    std::mt19937 rng(229);
    witnesses().clear();
    for (const Member& m : traceMembers())
        for (int n = 1; n <= 8; ++n)
            for (const auto& st : layouts())
                for (int count : {1, 4}) {
                    if (count > 1 && !m.hasArray()) continue;
                    Case c = traceCase(m, n, count, st, rng);
                    runAndVerify(c, traceExpected);
                    if (HasFatalFailure()) {
                        ADD_FAILURE() << m.name << " order " << n << " count " << count;
                        return;
                    }
                }
    witnesses().expectEvery({"trace 3 to 6", "trace loop"});
    // Order 1: the element itself.
    float a = -2.75f, d = 0;
    ASSERT_EQ(omkmTrace_m_32f(&a, 4, 4, 1, &d), omkStsOk);
    EXPECT_EQ(d, -2.75f);
    double b = 1e-300, dd = 0;
    const double* pb[1] = {&b};
    ASSERT_EQ(omkmTrace_m_64f_P(pb, 0, 1, &dd), omkStsOk);
    EXPECT_EQ(dd, 1e-300);
}

// ---- checks ----

TEST(TraceAndNormChecks, EveryMemberInItsOrder) {
    std::mt19937 rng(233);
    for (const Member& m : l2Members()) {
        Case c = l2Case(m, 5, 3, {Style::Gapped}, rng);
        walkFaults(c, m.hasArray() ? "NCSTR" : "NSTR", faultsOf(c), l2Expected);
        if (HasFatalFailure()) return;
    }
    for (const Member& m : frobMembers()) {
        Case c = frobCase(m, 3, 2, 3, {Style::Gapped}, rng);
        walkFaults(c, m.hasArray() ? "NCSTR" : "NSTR", faultsOf(c), frobExpected);
        if (HasFatalFailure()) return;
    }
    for (const Member& m : traceMembers()) {
        Case c = traceCase(m, 3, 3, {Style::Gapped}, rng);
        walkFaults(c, m.hasArray() ? "NCSTR" : "NSTR", faultsOf(c), traceExpected);
        if (HasFatalFailure()) return;
    }
    double a[16] = {}, d = 4;
    EXPECT_EQ(omkmTrace_ma_64f(a, 24, 12, 8, 0, &d, 0), omkStsBadCount);  // count before size and stride
    EXPECT_EQ(omkmFrobNorm_ma_64f(a, 32, 12, 8, 0, 2, &d, 1), omkStsBadSize);
    EXPECT_EQ(d, 4.0);
}

// ---- serial limits ----

// L2Norm len*count up to 1500 in every layout; FrobNorm width*height*count up to 2500 when the
// element stride is the element size (standard and _L), otherwise and for _P up to 1800; Trace
// widthHeight*count up to 3600 in every layout.
TEST(TraceAndNormLimits, EveryArrayMemberAtItsExactBoundary) {
    std::mt19937 rng(239);
    const WorkFn perElement = [](int64_t w, int64_t h, int64_t c) { return w * h * c; };
    for (const Member& m : l2Members()) {
        if (!m.hasArray()) continue;
        for (const auto& st : layouts()) {
            expectBoundary([&](const LimitShape& s) { return l2Case(m, s.w, s.c, st, rng); }, l2Expected, perElement,
                           1500, false, m.name);
            if (HasFatalFailure()) return;
        }
    }
    for (const Member& m : frobMembers()) {
        if (!m.hasArray()) continue;
        for (const auto& st : layouts()) {
            const int limit = m.desc != Desc::P && st[0] != Style::Gapped ? 2500 : 1800;
            expectBoundary([&](const LimitShape& s) { return frobCase(m, s.w, s.h, s.c, st, rng); }, frobExpected,
                           perElement, limit, true, m.name);
            if (HasFatalFailure()) return;
        }
    }
    for (const Member& m : traceMembers()) {
        if (!m.hasArray()) continue;
        for (const auto& st : layouts()) {
            expectBoundary([&](const LimitShape& s) { return traceCase(m, s.w, s.c, st, rng); }, traceExpected,
                           perElement, 3600, false, m.name);
            if (HasFatalFailure()) return;
        }
        // A larger order at the same boundary: 4 x 900 stays serial, 4 x 901 does not.
        for (int count : {900, 901}) {
            Case c = traceCase(m, 4, count, {Style::PaddedRows}, rng);
            probe::Budget two(2);
            runAndVerify(c, traceExpected);
            EXPECT_EQ(probe::calls() > 0, count == 901) << m.name << " count " << count;
        }
    }
}

// ---- parallel runs ----

TEST(TraceAndNormParallel, BitIdenticalToSerialForEveryArrayMember) {
    for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
        for (const Member& m : l2Members())
            for (int len : {5, 16}) {
                if (!m.hasArray()) continue;
                expectParallelMatchesSerial([&] { std::mt19937 rng(241); return l2Case(m, len, 2503, st, rng); }, l2Expected);
                if (HasFatalFailure()) return;
            }
        for (const Member& m : frobMembers())
            for (auto [w, h] : {std::pair<int, int>{4, 3}, {3, 3}}) {
                if (!m.hasArray()) continue;
                expectParallelMatchesSerial([&] { std::mt19937 rng(251); return frobCase(m, w, h, 2503, st, rng); },
                                            frobExpected);
                if (HasFatalFailure()) return;
            }
        for (const Member& m : traceMembers())
            for (int n : {4, 7}) {
                if (!m.hasArray()) continue;
                expectParallelMatchesSerial([&] { std::mt19937 rng(257); return traceCase(m, n, 2503, st, rng); },
                                            traceExpected);
                if (HasFatalFailure()) return;
            }
    }
}
