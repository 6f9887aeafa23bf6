// Saxpy and LComb: every member in every description and both element types, bit for bit against
// one fused multiply-add (Saxpy) or a rounded first product fused into the second (LComb), with the
// check order, the serial bounds at their exact boundary and the parallel runs.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "reduction_cases.h"

using namespace testing_omk;
using namespace testing_omk::red;

namespace {

const std::vector<Member>& members() {
    static const std::vector<Member> all = {
        SINGLE_GROUP(Saxpy, vv) ARRAY_GROUP(Saxpy, vav) ARRAY_GROUP(Saxpy, vva) ARRAY_GROUP(Saxpy, vava)
        SINGLE_GROUP(LComb, vv) ARRAY_GROUP(LComb, vav) ARRAY_GROUP(LComb, vava)};
    return all;
}

const Member& memberNamed(const std::string& name) {
    for (const Member& m : members())
        if (m.name == name) return m;
    throw std::runtime_error("no member " + name);
}

bool isLComb(const Member& m) { return m.op == "LComb"; }
bool firstIsArray(const Member& m) { return m.group == "vav" || m.group == "vava"; }
bool secondIsArray(const Member& m) { return m.group == "vva" || m.group == "vava"; }

void pushValue(Case& c, double v) {
    Arg a{ArgKind::Value};
    a.f = v;
    c.args.args.push_back(a);
}

// The scalars of a call, in argument order (scale, or scale1 and scale2).
std::vector<Arg*> scaleArgs(Case& c) {
    std::vector<Arg*> out;
    for (Arg& a : c.args.args)
        if (a.kind == ArgKind::Value) out.push_back(&a);
    return out;
}

template <class T>
void setScales(Case& c, T s1, T s2) {
    const auto s = scaleArgs(c);
    s[0]->f = s1;
    if (s.size() > 1) s[1]->f = s2;
}

template <class T>
void setElem(Case& c, const Operand& o, int k, int j, T v) { store<T>(c.arena.at(o.offset(k, 0, j)), v); }

// Every odd element of the second source is set to (nearly) cancel the first term, so that the
// result is the rounding error of a product and tells the rounding orders apart. Where one source
// is a single vector, it cancels object 0 and the other objects come within 2^-12 of it.
template <class T>
void cancelOddElements(Case& c, T s1, T s2) {
    const Operand &A = c.srcs[0], &B = c.srcs[1];
    const bool lcomb = isLComb(*c.m);
    for (int k = 0; k < c.objects(); ++k)
        for (int j = 1; j < c.width; j += 2) {
            const T near = T(1 + std::ldexp(double(k % 7), -12));
            if (!B.array && k > 0) {
                setElem<T>(c, A, k, j, T(elemOf<T>(c, A, 0, 0, j) * near));
                continue;
            }
            const T a = elemOf<T>(c, A, k, 0, j);
            T b = lcomb ? T(-T(s1 * a) / s2) : T(-(s1 * a));
            if (!A.array && k > 0) b = T(b * near);
            setElem<T>(c, B, k, j, b);
        }
}

// A call of `m` on `len`-element vectors and `count` objects. Styles in operand order: src1, src2,
// dst (the last repeats); `shifts` moves operands off their 64-byte boundary. Argument list: src1's
// block, scale (scale1), src2's block, [scale2], dst's block, len, [count].
Case saxpyCase(const Member& m, int len, int count, const std::vector<Style>& st, std::mt19937& rng,
               const std::vector<int>& shifts = {}) {
    Case c;
    c.m = &m;
    c.width = len;
    c.count = m.hasArray() ? count : 1;
    c.srcs = {operandOf('v', firstIsArray(m), 1, len, styleAt(st, 0), m.esize),
              operandOf('v', secondIsArray(m), 1, len, styleAt(st, 1), m.esize)};
    c.dst = operandOf('v', m.hasArray(), 1, len, styleAt(st, 2), m.esize);
    place(c, rng, shifts);
    double s1 = sourceValue(rng), s2 = sourceValue(rng);
    if (m.esize == 4) {
        s1 = float(s1);
        s2 = float(s2);
        cancelOddElements<float>(c, float(s1), float(s2));
    } else {
        cancelOddElements<double>(c, s1, s2);
    }
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    pushValue(c, s1);
    appendOperand(c, c.srcs[1], ArgKind::SrcPtr);
    if (isLComb(m)) pushValue(c, s2);
    appendOperand(c, c.dst, ArgKind::DstPtr);
    pushArg(c, ArgKind::Len, len);
    if (m.hasArray()) pushArg(c, ArgKind::Count, count);
    return c;
}

Witnesses& witnesses() {
    static Witnesses w;
    return w;
}

// Saxpy: fma(scale, src1, src2). LComb: fma(scale2, src2, p) with p = scale1*src1 rounded. The
// suite is built with -ffp-contract=off, so the other orders below are what they say.
template <class T>
T resultOf(Case& c, int k, int j) {
    const T a = elemOf<T>(c, c.srcs[0], k, 0, j), b = elemOf<T>(c, c.srcs[1], k, 0, j);
    const auto s = scaleArgs(c);
    const T s1 = T(s[0]->f);
    const std::string& who = c.m->name;
    if (!isLComb(*c.m)) {
        const T r = std::fma(s1, a, b);
        witnesses().note(who + " unfused", r, T(s1 * a + b));
        return r;
    }
    const T s2 = T(s[1]->f);
    const T p1 = s1 * a, p2 = s2 * b;
    const T r = std::fma(s2, b, p1);
    witnesses().note(who + " second product rounded", r, std::fma(s1, a, p2));
    witnesses().note(who + " both products rounded", r, T(p1 + p2));
    if constexpr (sizeof(T) == 4)
        witnesses().note(who + " fully fused", r, T(std::fma(double(s2), double(b), double(s1) * double(a))));
    return r;
}

double expected(Case& c, int k, int, int j) {
    return c.m->esize == 4 ? double(resultOf<float>(c, k, j)) : resultOf<double>(c, k, j);
}

}  // namespace

// ---- results ----

// Lengths 1 to 8 and 16, 17, 33 (packed groups with every tail, odd lengths for the strided
// kernel's trailing element); layouts packed, padded between objects (with ROI shifts in _L and
// _P), gapped elements, only one operand gapped, and packed operands off their cache-line boundary.
TEST(SaxpyResults, EveryMemberEveryLengthAndLayout) {
    EXPECT_EQ(members().size(), 38u);
    probe::Budget serial(1);
    std::mt19937 rng(401);
    witnesses().clear();
    const std::vector<std::vector<Style>> layouts = {
        {Style::Packed}, {Style::PaddedRows}, {Style::Gapped}, {Style::Gapped, Style::Packed, Style::Packed},
        {Style::Packed, Style::Gapped, Style::Packed}, {Style::Packed, Style::Packed, Style::Gapped},
        {Style::PaddedRows, Style::Gapped, Style::PaddedRows}};
    for (const Member& m : members())
        for (int len : {1, 2, 3, 4, 5, 6, 7, 8, 16, 17, 33})
            for (int count : {1, 3}) {
                if (count > 1 && !m.hasArray()) continue;
                for (size_t l = 0; l <= layouts.size(); ++l) {
                    const bool shifted = l == layouts.size();
                    const int e = m.esize;
                    Case c = shifted ? saxpyCase(m, len, count, {Style::Packed}, rng, {e, 2 * e, 3 * e})
                                     : saxpyCase(m, len, count, layouts[l], rng);
                    runAndVerify(c, expected);
                    if (HasFatalFailure()) {
                        ADD_FAILURE() << m.name << " len " << len << " count " << count << " layout " << l;
                        return;
                    }
                }
            }
    for (const Member& m : members()) {
        if (isLComb(m)) {
            std::vector<std::string> keys = {m.name + " second product rounded", m.name + " both products rounded"};
            if (m.esize == 4) keys.push_back(m.name + " fully fused");
            witnesses().expectEvery(keys);
        } else {
            witnesses().expectEvery({m.name + " unfused"});
        }
    }
}

TEST(SaxpyResults, FusedEdgeCases) {
    const float u = std::ldexp(1.0f, -23);
    float d[2] = {7, 7};
    // (1 + u)(1 - u) - 1 is -u^2 exactly; rounding the product first would give 0.
    const float one[1] = {1 - u}, minus[1] = {-1};
    ASSERT_EQ(omkmSaxpy_vv_32f(one, 4, 1 + u, minus, 4, d, 4, 1), omkStsOk);
    EXPECT_EQ(d[0], -std::ldexp(1.0f, -46));
    EXPECT_EQ(d[1], 7.0f);
    // LComb rounds scale1*src1 to 1 first; exchanged, the same product is the fused one.
    ASSERT_EQ(omkmLComb_vv_32f(one, 4, 1 + u, minus, 4, 1.0f, d, 4, 1), omkStsOk);
    EXPECT_EQ(d[0], 0.0f);
    ASSERT_EQ(omkmLComb_vv_32f(minus, 4, 1.0f, one, 4, 1 + u, d, 4, 1), omkStsOk);
    EXPECT_EQ(d[0], -std::ldexp(1.0f, -46));
    EXPECT_EQ(d[1], 7.0f);
    // Overflow and NaN run through without a status.
    const double big[2] = {4, 1}, nan[2] = {-1, std::numeric_limits<double>::quiet_NaN()};
    double r[2];
    ASSERT_EQ(omkmSaxpy_vv_64f(big, 8, DBL_MAX, nan, 8, r, 8, 2), omkStsOk);
    EXPECT_EQ(r[0], std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(r[1]));
}

// The same cases in every member, description, layout and length: every element has
// src1 = 1 - u, src2 = -1 with scale(1) = 1 + u (u = 2^-23 or 2^-52), and the exchange for LComb.
TEST(SaxpyResults, FusedEdgeCasesInEveryMember) {
    probe::Budget serial(1);
    std::mt19937 rng(409);
    for (const Member& m : members())
        for (int len : {1, 4, 7, 8, 17})
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}})
                for (bool exchanged : {false, true}) {
                    if (exchanged && !isLComb(m)) continue;
                    Case c = saxpyCase(m, len, 3, st, rng);
                    const double u = std::ldexp(1.0, m.esize == 4 ? -23 : -52);
                    const double a = exchanged ? -1 : 1 - u, b = exchanged ? 1 - u : -1;
                    for (int k = 0; k < c.objects(); ++k)
                        for (int j = 0; j < len; ++j) {
                            if (m.esize == 4) {
                                setElem<float>(c, c.srcs[0], k, j, float(a));
                                setElem<float>(c, c.srcs[1], k, j, float(b));
                            } else {
                                setElem<double>(c, c.srcs[0], k, j, a);
                                setElem<double>(c, c.srcs[1], k, j, b);
                            }
                        }
                    if (exchanged) setScales<double>(c, 1, 1 + u);
                    else setScales<double>(c, 1 + u, 1);
                    const double want = isLComb(m) && !exchanged ? 0.0 : -u * u;
                    runAndVerify(c, [want](Case&, int, int, int) { return want; });
                    if (HasFatalFailure()) {
                        ADD_FAILURE() << m.name << " len " << len << (exchanged ? " exchanged" : "");
                        return;
                    }
                }
}

// The destination may be the first or the second source (when both have the same shape); each
// element is read before its result is stored.
TEST(SaxpyResults, InPlaceOnEitherSource) {
    probe::Budget serial(1);
    std::mt19937 rng(419);
    for (const Member& m : members())
        for (int which : {0, 1}) {
            if (m.hasArray() && (which == 0 ? !firstIsArray(m) : !secondIsArray(m))) continue;
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                Case c = saxpyCase(m, 17, 5, st, rng);
                std::vector<unsigned char> want = c.arena.bytes;
                const Operand& src = c.srcs[which];
                for (int k = 0; k < c.objects(); ++k)
                    for (int j = 0; j < c.width; ++j) {
                        unsigned char* p = want.data() + src.offset(k, 0, j);
                        if (m.esize == 4) store<float>(p, resultOf<float>(c, k, j));
                        else store<double>(p, resultOf<double>(c, k, j));
                    }
                // Point the destination's pointer (or pointer table) at the source's.
                void* srcPtr = nullptr;
                int seen = 0;
                for (Arg& a : c.args.args) {
                    if (a.kind == ArgKind::SrcPtr && seen++ == which) srcPtr = a.ptr;
                    if (a.kind == ArgKind::DstPtr) a.ptr = srcPtr;
                }
                ASSERT_EQ(m.call(c.args), omkStsOk) << m.name;
                ASSERT_TRUE(c.arena.bytes == want) << m.name << " in place on source " << which + 1;
            }
        }
}

// ---- checks ----

// Null, count, len, strides (object strides of standard and _P arrays included), ROI shifts;
// vv members have no count. Each single fault writes nothing; of two, the earlier step wins.
TEST(SaxpyChecks, EveryMemberInItsOrder) {
    std::mt19937 rng(421);
    for (const Member& m : members())
        for (const auto& st : {std::vector<Style>{Style::Gapped}, std::vector<Style>{Style::Packed, Style::PaddedRows}}) {
            Case c = saxpyCase(m, 3, 3, st, rng);
            walkFaults(c, m.hasArray() ? "NCSTR" : "NSTR", faultsOf(c), expected);
            if (HasFatalFailure()) return;
        }
}

TEST(SaxpyChecks, DocumentedCases) {
    float f[64];
    double g[64];
    std::fill_n(f, 64, 3.0f);
    std::fill_n(g, 64, 3.0);
    // A zero count is a bad count, unless a pointer is null; a zero len with a zero count is a bad count.
    EXPECT_EQ(omkmSaxpy_vav_32f(f, 16, 4, 2.0f, f, 4, f + 32, 16, 4, 4, 0), omkStsBadCount);
    EXPECT_EQ(omkmSaxpy_vav_32f(f, 16, 4, 2.0f, nullptr, 4, f + 32, 16, 4, 4, 0), omkStsNullPtr);
    EXPECT_EQ(omkmLComb_vava_32f(f, 16, 4, 2.0f, f, 16, 4, 1.0f, f + 32, 16, 4, 0, 0), omkStsBadCount);
    // len before strides; strides before ROI shifts.
    EXPECT_EQ(omkmSaxpy_vva_64f(g, 6, 2.0, g, 32, 8, g + 32, 32, 8, 0, 2), omkStsBadSize);
    const float* t1[4] = {f, f + 1, f + 2, f + 3};
    float* td[4] = {f + 32, f + 33, f + 34, f + 35};
    EXPECT_EQ(omkmSaxpy_vav_32f_P(t1, 2, 6, 2.0f, t1, 0, td, 0, 16, 4, 2), omkStsBadStride);
    EXPECT_EQ(omkmSaxpy_vav_32f_P(t1, 2, 16, 2.0f, t1, 0, td, 0, 16, 4, 2), omkStsBadRoiShift);
    EXPECT_EQ(omkmLComb_vv_32f_P(t1, 0, 2.0f, t1, -4, 1.0f, td, 0, 4), omkStsBadRoiShift);
    // Strides per element type: 6 and 0 and -4 rejected for 32f; 4 and 12 rejected for 64f.
    EXPECT_EQ(omkmSaxpy_vv_32f(f, 6, 2.0f, f, 4, f + 32, 4, 3), omkStsBadStride);
    EXPECT_EQ(omkmSaxpy_vv_32f(f, 4, 2.0f, f, 0, f + 32, 4, 3), omkStsBadStride);
    EXPECT_EQ(omkmLComb_vv_32f(f, 4, 2.0f, f, 4, 1.0f, f + 32, -4, 3), omkStsBadStride);
    EXPECT_EQ(omkmLComb_vv_64f(g, 4, 2.0, g, 8, 1.0, g + 32, 8, 3), omkStsBadStride);
    EXPECT_EQ(omkmLComb_vv_64f(g, 12, 2.0, g, 8, 1.0, g + 32, 8, 3), omkStsBadStride);
    // An object stride is a stride even with one object.
    EXPECT_EQ(omkmSaxpy_vava_32f(f, 0, 4, 2.0f, f, 16, 4, f + 32, 16, 4, 4, 1), omkStsBadStride);
    EXPECT_EQ(omkmLComb_vav_64f_P((const double**)nullptr, 0, 0, 2.0, (const double**)nullptr, 0, 1.0,
                                  (double**)nullptr, 0, 0, 0, 0),
              omkStsNullPtr);
    for (int i = 32; i < 64; ++i) ASSERT_EQ(f[i], 3.0f) << i;
    for (int i = 32; i < 64; ++i) ASSERT_EQ(g[i], 3.0) << i;
    // Good arguments with a ROI shift of 0 and 16-byte 64f strides run.
    EXPECT_EQ(omkmSaxpy_vav_32f_P(t1, 0, 16, 2.0f, t1, 0, td, 0, 16, 4, 1), omkStsOk);
    EXPECT_EQ(omkmLComb_vv_64f(g, 16, 2.0, g, 8, 1.0, g + 32, 16, 3), omkStsOk);
    EXPECT_EQ(g[32], 9.0);
    EXPECT_EQ(g[34], 9.0);
    EXPECT_EQ(g[33], 3.0);
}

// ---- serial bounds ----
namespace {

struct Bounds {
    int contiguous, strided;
};

// Work at most the bound runs on the calling thread; contiguous = all three element strides are
// the element size.
Bounds boundsOf(const Member& m) {
    if (isLComb(m)) return m.desc == Desc::L && m.esize == 4 ? Bounds{4500, 3750} : Bounds{4500, 4500};
    if (m.desc == Desc::P) return {1200, 1200};
    if (m.desc == Desc::L) {
        if (m.esize == 8) return {1000, 1000};
        return m.group == "vva" ? Bounds{1500, 1500} : Bounds{1500, 1000};
    }
    return m.esize == 4 ? Bounds{3000, 2000} : Bounds{3000, 1200};
}

int64_t workOf(const Member& m, int64_t len, int64_t count) {
    return m.group == "vava" ? 3 * count * len : (2 * count + 1) * len;
}

// With a budget of two threads: a call within the bound never asks for the budget; one above asks
// twice (decision and region) when it has two objects or more, else once and runs serially.
// The shapes: the largest work below the bound, the bound itself where some shape gives it, and
// the smallest work above it; every one gives the reference bits.
void expectBoundsAt(const Member& m, const std::vector<Style>& st, int bound, std::mt19937& rng) {
    bool sawAt = false, sawAbove = false;
    const auto work = [&m](int64_t len, int64_t, int64_t count) { return workOf(m, len, count); };
    for (const LimitShape& s : aroundLimit(work, bound, false)) {
        Case c = saxpyCase(m, s.w, s.c, st, rng);
        probe::Budget two(2);
        runAndVerify(c, expected);
        if (testing::Test::HasFatalFailure()) {
            ADD_FAILURE() << m.name << " len " << s.w << " count " << s.c;
            return;
        }
        sawAt |= s.work == bound;
        sawAbove |= s.work > bound;
        const int want = s.work <= bound ? 0 : s.c >= 2 ? 2 : 1;
        EXPECT_EQ(probe::calls(), want) << m.name << " len " << s.w << " count " << s.c << " work " << s.work
                                        << " bound " << bound;
    }
    EXPECT_TRUE(sawAbove) << m.name;
    // 3*count*len never equals a bound that 3 does not divide.
    EXPECT_EQ(sawAt, m.group != "vava" || bound % 3 == 0) << m.name << " bound " << bound;
}

}  // namespace

TEST(SaxpyLimits, EveryArrayMemberAtItsExactBoundary) {
    std::mt19937 rng(431);
    const std::vector<Style> packed = {Style::Packed}, padded = {Style::PaddedRows}, gapped = {Style::Gapped},
                             only1 = {Style::Gapped, Style::Packed, Style::Packed},
                             only2 = {Style::Packed, Style::Gapped, Style::Packed},
                             onlyDst = {Style::PaddedRows, Style::PaddedRows, Style::Gapped};
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        const Bounds b = boundsOf(m);
        std::vector<std::pair<std::vector<Style>, int>> variants;
        if (m.desc == Desc::P) variants = {{packed, b.contiguous}, {gapped, b.strided}};
        else variants = {{packed, b.contiguous}, {padded, b.contiguous}, {gapped, b.strided},
                         {only1, b.strided}, {only2, b.strided}, {onlyDst, b.strided}};
        for (const auto& [st, bound] : variants) {
            expectBoundsAt(m, st, bound, rng);
            if (HasFatalFailure()) return;
        }
    }
}

TEST(SaxpyLimits, DocumentedCases) {
    std::mt19937 rng(433);
    auto calls = [&](const char* name, int len, int count, const std::vector<Style>& st) {
        Case c = saxpyCase(memberNamed(name), len, count, st, rng);
        probe::Budget two(2);
        runAndVerify(c, expected);
        return probe::calls();
    };
    // len 1000: one object is work 3000 and stays serial; two are work 5000.
    EXPECT_EQ(calls("omkmSaxpy_vav_32f", 1000, 1, {Style::Packed}), 0);
    EXPECT_EQ(calls("omkmSaxpy_vav_32f", 1000, 2, {Style::Packed}), 2);
    // Work 3751 (11 elements, 170 objects): strided goes to the driver, contiguous does not; work
    // 4500 (4 elements, 562 objects) still serial when contiguous.
    EXPECT_EQ(calls("omkmLComb_vav_32f_L", 11, 170, {Style::Gapped}), 2);
    EXPECT_EQ(calls("omkmLComb_vav_32f_L", 11, 170, {Style::Packed}), 0);
    EXPECT_EQ(calls("omkmLComb_vav_32f_L", 4, 562, {Style::Packed}), 0);
    EXPECT_EQ(calls("omkmLComb_vav_32f_L", 4, 563, {Style::Packed}), 2);
    // A budget of one thread above the bound asks once and runs serially.
    {
        Case c = saxpyCase(memberNamed("omkmSaxpy_vava_64f_P"), 16, 300, {Style::Gapped}, rng);
        probe::Budget one(1);
        runAndVerify(c, expected);
        EXPECT_EQ(probe::calls(), 1);
    }
}

TEST(SaxpyLimits, SingleVectorsNeverAskForThreads) {
    std::mt19937 rng(439);
    for (const Member& m : members()) {
        if (m.hasArray()) continue;
        for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
            Case c = saxpyCase(m, 20001, 1, st, rng);
            probe::Budget two(2);
            runAndVerify(c, expected);
            EXPECT_EQ(probe::calls(), 0) << m.name;
        }
    }
}

// ---- parallel runs ----

// 2503 objects (not a multiple of 2 or 3) of 16 or 7 elements, packed, gapped, and with only the
// second source gapped: budgets 2 and 3 give every byte of the serial run.
TEST(SaxpyParallel, BitIdenticalToSerialForEveryArrayMember) {
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        for (int len : {16, 7})
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped},
                                   std::vector<Style>{Style::Packed, Style::Gapped, Style::Packed}}) {
                expectParallelMatchesSerial([&] {
                    std::mt19937 rng(443);
                    return saxpyCase(m, len, 2503, st, rng);
                }, expected);
                if (HasFatalFailure()) {
                    ADD_FAILURE() << m.name << " len " << len;
                    return;
                }
            }
    }
}
