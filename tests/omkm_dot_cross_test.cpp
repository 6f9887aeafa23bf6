// Dot and cross products: every member in every description and both element types, bit for bit
// against the rounding order of the kernel its length and layout select, with the check orders, the
// serial limits, the parallel runs and the fixed-size members.
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <set>

#include "reduction_cases.h"

using namespace testing_omk;
using namespace testing_omk::red;

namespace {

const std::vector<Member>& dotMembers() {
    static const std::vector<Member> all = {
        SINGLE_GROUP(DotProduct, vv) ARRAY_GROUP(DotProduct, vav) ARRAY_GROUP(DotProduct, vava)
    };
    return all;
}

const std::vector<Member>& crossMembers() {
    static const std::vector<Member> all = {
        SINGLE_GROUP(CrossProduct, vv) ARRAY_GROUP(CrossProduct, vav) ARRAY_GROUP(CrossProduct, vva)
        ARRAY_GROUP(CrossProduct, vava)
    };
    return all;
}

// ---- dot products ----

// Sources in name order (vav: an array and one vector), `count` scalar results; operand i starts
// shifts[i] bytes past a 64-byte boundary of the arena.
Case dotCase(const Member& m, int len, int count, const std::vector<Style>& st, std::mt19937& rng,
             const std::vector<int>& shifts = {}) {
    Case c;
    c.m = &m;
    c.width = len;
    c.count = count;
    const bool arr1 = m.group != "vv", arr2 = m.group == "vava";
    c.srcs = {operandOf('v', arr1, 1, len, styleAt(st, 0), m.esize), operandOf('v', arr2, 1, len, styleAt(st, 1), m.esize)};
    c.dst = scalarResults(m.hasArray(), m.esize);
    place(c, rng, shifts);
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    appendOperand(c, c.srcs[1], ArgKind::SrcPtr);
    pushPtr(c, ArgKind::DstPtr, c.arena.at(c.dst.base));
    pushArg(c, ArgKind::Len, len);
    if (m.hasArray()) pushArg(c, ArgKind::Count, count);
    return c;
}

// The contiguous orders: lengths 3 to 6 tabled; other lengths one product at a time up to the
// first element of b on a 32-byte boundary, then blocks of 16 products into 16 lanes (lane q takes
// elements q, q + 16, ...), the lanes folded q + 8, q + 4, q + 2, q + 1, their sum added, then the
// tail one product at a time. `head` is set to the number of leading products (-1 for 3 to 6) and
// `blocks` to whether a block was summed.
template <class T>
T contiguousDot(const std::vector<T>& a, const std::vector<T>& b, uintptr_t bAddr, int& head, bool& blocks) {
    const int n = int(a.size());
    auto p = [&](int k) -> T { return a[k] * b[k]; };
    head = -1;
    blocks = false;
    switch (n) {
    case 3: return (p(0) + p(1)) + p(2);
    case 4: return (p(0) + p(1)) + (p(2) + p(3));
    case 5: return ((p(0) + p(1)) + (p(2) + p(3))) + p(4);
    case 6: return (((p(0) + p(1)) + (p(2) + p(3))) + p(4)) + p(5);
    default: break;
    }
    head = 0;
    while (head < n && (bAddr + head * sizeof(T)) % 32 != 0) ++head;
    T t = 0;
    int k = 0;
    for (; k < head; ++k) t = t + p(k);
    if (n - k >= 16) {
        blocks = true;
        T lane[16] = {};
        for (; k + 16 <= n; k += 16)
            for (int q = 0; q < 16; ++q) lane[q] = lane[q] + p(k + q);
        for (int w = 8; w >= 1; w /= 2)
            for (int q = 0; q < w; ++q) lane[q] = lane[q] + lane[q + w];
        t = t + lane[0];
    }
    for (; k < n; ++k) t = t + p(k);
    return t;
}

// The strided orders (every _P call): lengths 3 to 6 tabled; others t = a0*b0, then fused.
template <class T>
T stridedDot(const std::vector<T>& a, const std::vector<T>& b) {
    using std::fma;
    const int n = int(a.size());
    switch (n) {
    case 3: return fma(a[0], b[0], fma(a[1], b[1], a[2] * b[2]));
    case 4: return fma(a[1], b[1], a[2] * b[2]) + fma(a[3], b[3], a[0] * b[0]);
    case 5: {
        T t = a[2] * b[2];
        for (int k : {4, 3, 0, 1}) t = fma(a[k], b[k], t);
        return t;
    }
    case 6: return fma(a[3], b[3], fma(a[4], b[4], a[1] * b[1])) + fma(a[5], b[5], fma(a[0], b[0], a[2] * b[2]));
    default: break;
    }
    T t = a[0] * b[0];
    for (int k = 1; k < n; ++k) t = fma(a[k], b[k], t);
    return t;
}

template <class T>
T naiveDot(const std::vector<T>& a, const std::vector<T>& b) {
    T t = 0;
    for (size_t k = 0; k < a.size(); ++k) t = t + a[k] * b[k];
    return t;
}

Witnesses& dotWitnesses() {
    static Witnesses w;
    return w;
}
// Leading products before the blocks seen per element size (every alignment of b to 32 bytes).
std::map<int, std::set<int>>& headsSeen() {
    static std::map<int, std::set<int>> h;
    return h;
}

bool contiguousCall(const Case& c) {
    const int e = c.m->esize;
    return c.m->desc != Desc::P && c.srcs[0].s2 == e && c.srcs[1].s2 == e;
}

template <class T>
double dotOf(Case& c, int k) {
    const Operand &A = c.srcs[0], &B = c.srcs[1];
    const int n = c.width;
    std::vector<T> a(n), b(n);
    for (int j = 0; j < n; ++j) {
        a[j] = elemOf<T>(c, A, k, 0, j);
        b[j] = elemOf<T>(c, B, k, 0, j);
    }
    const std::string len = n >= 3 && n <= 6 ? std::to_string(n) : "loop";
    if (!contiguousCall(c)) {
        const T r = stridedDot(a, b);
        dotWitnesses().note("strided " + len, r, naiveDot(a, b));
        return r;
    }
    int head;
    bool blocks;
    const T r = contiguousDot(a, b, uintptr_t(c.arena.at(B.offset(k, 0, 0))), head, blocks);
    if (blocks) headsSeen()[int(sizeof(T))].insert(head);
    // Where the order is the naive one by construction, the fused chain is the other order.
    if (n == 3 || (head >= 0 && !blocks)) dotWitnesses().note("contiguous " + len, r, stridedDot(a, b));
    else dotWitnesses().note(blocks ? std::string("contiguous blocks") : "contiguous " + len, r, naiveDot(a, b));
    return r;
}

double dotExpected(Case& c, int k, int, int) { return c.m->esize == 4 ? dotOf<float>(c, k) : dotOf<double>(c, k); }

// ---- cross products ----

Case crossCase(const Member& m, int count, const std::vector<Style>& st, std::mt19937& rng, int inPlaceOf = -1) {
    Case c;
    c.m = &m;
    c.width = 3;
    c.count = count;
    const bool arr1 = m.group == "vav" || m.group == "vava", arr2 = m.group == "vva" || m.group == "vava";
    c.srcs = {operandOf('v', arr1, 1, 3, styleAt(st, 0), m.esize), operandOf('v', arr2, 1, 3, styleAt(st, 1), m.esize)};
    c.dst = operandOf('v', m.hasArray(), 1, 3, styleAt(st, 2), m.esize);
    place(c, rng);
    if (inPlaceOf >= 0) c.dst = c.srcs[inPlaceOf];  // the destination is that source: same base, same strides
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    appendOperand(c, c.srcs[1], ArgKind::SrcPtr);
    appendOperand(c, c.dst, ArgKind::DstPtr);
    if (m.hasArray()) pushArg(c, ArgKind::Count, count);
    return c;
}

Witnesses& crossWitnesses() {
    static Witnesses w;
    return w;
}

// x*y - z with z already rounded, rounded once.
template <class T> T fms(T x, T y, T z) { return std::fma(x, y, -z); }

template <class T>
double crossOf(Case& c, int k, int j) {
    T a[3], b[3];
    for (int i = 0; i < 3; ++i) {
        a[i] = elemOf<T>(c, c.srcs[0], k, 0, i);
        b[i] = elemOf<T>(c, c.srcs[1], k, 0, i);
    }
    const int u = (j + 1) % 3, v = (j + 2) % 3;  // c_j = a_u*b_v - a_v*b_u
    const T r = fms(a[u], b[v], a[v] * b[u]);
    crossWitnesses().note("cross", r, T(a[u] * b[v] - a[v] * b[u]));
    return r;
}

double crossExpected(Case& c, int k, int, int j) {
    return c.m->esize == 4 ? crossOf<float>(c, k, j) : crossOf<double>(c, k, j);
}

}  // namespace

// ---- dot products ----

// Every member over lengths 1 to 8 (the tabled orders and the one-at-a-time loop) and 16, 37, 100
// (blocks of 16), with the second source at every element offset from a 32-byte boundary, in
// packed, padded, gapped and mixed layouts; arrays also through objects of varying alignment.
TEST(DotProductResults, EveryMemberEveryLengthLayoutAndAlignment) {
    EXPECT_EQ(dotMembers().size() + 3, 19u);  // with the fixed-size v2, v3, v4
    probe::Budget serial(1);
    std::mt19937 rng(101);
    dotWitnesses().clear();
    headsSeen().clear();
    const std::vector<std::vector<Style>> styles = {
        {Style::Packed}, {Style::PaddedRows}, {Style::Gapped}, {Style::Packed, Style::Gapped}, {Style::Gapped, Style::PaddedRows}};
    for (const Member& m : dotMembers())
        for (int len : {1, 2, 3, 4, 5, 6, 7, 8, 16, 37, 100})
            for (const auto& st : styles) {
                const int lanes = 32 / m.esize;
                for (int s = 0; s < (len >= 16 ? lanes : 2); ++s)
                    for (int count : {1, 4}) {
                        if (count > 1 && !m.hasArray()) continue;
                        const std::vector<int> shifts = {((3 * s + 1) % lanes) * m.esize, s * m.esize};
                        Case c = dotCase(m, len, count, st, rng, shifts);
                        runAndVerify(c, dotExpected);
                        if (HasFatalFailure()) {
                            ADD_FAILURE() << m.name << " len " << len << " count " << count << " shift " << s;
                            return;
                        }
                    }
            }
    dotWitnesses().expectEvery({"contiguous 3", "contiguous 4", "contiguous 5", "contiguous 6", "contiguous loop",
                                "contiguous blocks", "strided 3", "strided 4", "strided 5", "strided 6", "strided loop"});
    for (int e : {4, 8})
        for (int h = 0; h < 32 / e; ++h) EXPECT_EQ(headsSeen()[e].count(h), 1u) << "element size " << e << " head " << h;
}

// The same vectors through the contiguous and the strided kernel of one length: both orders are
// observable, and each result is the one of its own path.
TEST(DotProductResults, ContiguousAndStridedOfOneLengthDiffer) {
    std::mt19937 rng(103);
    for (int len : {2, 4, 5, 6, 37}) {
        bool differ = false;
        for (int attempt = 0; attempt < 300 && !differ; ++attempt) {
            alignas(32) float a[100], b[100], ga[200], gb[200];
            for (int k = 0; k < len; ++k) {
                a[k] = ga[2 * k] = float(sourceValue(rng));
                b[k] = gb[2 * k] = float(sourceValue(rng));
            }
            float packed = 0, gapped = 0;
            ASSERT_EQ(omkmDotProduct_vv_32f(a, 4, b, 4, &packed, len), omkStsOk);
            ASSERT_EQ(omkmDotProduct_vv_32f(ga, 8, gb, 8, &gapped, len), omkStsOk);
            const std::vector<float> va(a, a + len), vb(b, b + len);
            int head;
            bool blocks;
            EXPECT_EQ(packed, contiguousDot(va, vb, uintptr_t(b), head, blocks)) << len;
            EXPECT_EQ(gapped, stridedDot(va, vb)) << len;
            differ = packed != gapped;
        }
        EXPECT_TRUE(differ) << "length " << len << ": the two paths never differed";
    }
}

// The fixed-size members take contiguous floats at any alignment and return omkStsOk; they write
// their one result and nothing else.
TEST(DotProductFixed, V2V3V4InTheirOrders) {
    std::mt19937 rng(107);
    int differs[3] = {};
    for (int attempt = 0; attempt < 400; ++attempt) {
        float buf[24], d[4];
        for (float& x : buf) x = float(sourceValue(rng));
        const int off = attempt % 8;
        const float* a = buf + off;
        const float* b = buf + 8 + off;
        using std::fma;
        const float want[3] = {fma(a[0], b[0], a[1] * b[1]), fma(a[2], b[2], fma(a[0], b[0], a[1] * b[1])),
                               fma(a[1], b[1], a[2] * b[2]) + fma(a[0], b[0], a[3] * b[3])};
        OmkStatus (*fns[3])(const float*, const float*, float*) = {omkmDotProduct_v2_32f, omkmDotProduct_v3_32f,
                                                                   omkmDotProduct_v4_32f};
        for (int f = 0; f < 3; ++f) {
            std::fill_n(d, 4, -3.5f);
            ASSERT_EQ(fns[f](a, b, d + 1), omkStsOk);
            ASSERT_EQ(d[1], want[f]) << "v" << f + 2;
            EXPECT_EQ(d[0], -3.5f);
            EXPECT_EQ(d[2], -3.5f);
            float naive = 0;
            for (int k = 0; k < f + 2; ++k) naive = naive + a[k] * b[k];
            differs[f] += naive != want[f];
        }
    }
    for (int f = 0; f < 3; ++f) EXPECT_GT(differs[f], 0) << "v" << f + 2;
}

// Null, count, size, stride, ROI shift: each fault alone writes nothing and gives its status; of two
// faults the earlier step wins.
TEST(DotProductChecks, EveryMemberInItsOrder) {
    std::mt19937 rng(109);
    for (const Member& m : dotMembers()) {
        Case c = dotCase(m, 5, 3, {Style::Gapped}, rng);
        walkFaults(c, m.hasArray() ? "NCSTR" : "NSTR", faultsOf(c), dotExpected);
        if (HasFatalFailure()) return;
    }
    float v[8] = {}, d = 9;
    EXPECT_EQ(omkmDotProduct_vav_32f(v, 8, 6, v, 4, &d, 2, 0), omkStsBadCount);  // count before stride
    EXPECT_EQ(omkmDotProduct_vav_32f(v, 8, 6, v, 4, &d, 0, 1), omkStsBadSize);   // size before stride
    EXPECT_EQ(omkmDotProduct_vv_32f(v, 4, nullptr, 4, &d, 0), omkStsNullPtr);
    EXPECT_EQ(d, 9.0f);
}

// Contiguous (both element strides the element size): 5000 for the standard and _L members;
// otherwise 2620; every _P call 2400.
TEST(DotProductLimits, EveryArrayMemberAtItsExactBoundary) {
    std::mt19937 rng(113);
    for (const Member& m : dotMembers()) {
        if (!m.hasArray()) continue;
        const WorkFn work = m.group == "vav" ? WorkFn([](int64_t n, int64_t, int64_t c) { return (c + 1) * n; })
                                             : WorkFn([](int64_t n, int64_t, int64_t c) { return 2 * n * c; });
        struct Variant { std::vector<Style> styles; int limit; };
        const std::vector<Variant> variants =
            m.desc == Desc::P ? std::vector<Variant>{{{Style::Packed}, 2400}, {{Style::Gapped}, 2400}}
                              : std::vector<Variant>{{{Style::Packed}, 5000}, {{Style::PaddedRows}, 5000},
                                                     {{Style::Gapped}, 2620}, {{Style::PaddedRows, Style::Gapped}, 2620}};
        for (const Variant& v : variants) {
            expectBoundary([&](const LimitShape& s) { return dotCase(m, s.w, s.c, v.styles, rng); }, dotExpected, work,
                           v.limit, false, m.name);
            if (HasFatalFailure()) return;
        }
    }
}

// The work figure is a signed 32-bit product: 2*32767*32767 is just below 2^31 and goes to the
// driver, 2*32768*32768 wraps to a negative figure and stays serial. The objects overlap (object
// stride one element), so the sources stay small; a single dot product never asks at all.
TEST(DotProductLimits, WrappedWorkStaysSerial) {
    std::mt19937 rng(167);
    std::vector<float> a(2 * 32768), b(2 * 32768);
    for (size_t i = 0; i < a.size(); ++i) {
        a[i] = float(std::ldexp(sourceValue(rng), -6));
        b[i] = float(std::ldexp(sourceValue(rng), -6));
    }
    for (int n : {32767, 32768}) {
        std::vector<float> d(n + 1, -9.0f);
        probe::Budget two(2);
        ASSERT_EQ(omkmDotProduct_vava_32f(a.data(), 4, 4, b.data(), 4, 4, d.data(), n, n), omkStsOk);
        EXPECT_EQ(probe::calls() > 0, n == 32767) << "len and count " << n;
        for (int k : {0, 1, 2, 3, 5, 6, 7, 8, n / 2, n - 1}) {
            const std::vector<float> x(a.begin() + k, a.begin() + k + n), y(b.begin() + k, b.begin() + k + n);
            int head;
            bool blocks;
            EXPECT_EQ(d[k], contiguousDot(x, y, uintptr_t(b.data() + k), head, blocks)) << "object " << k;
        }
        EXPECT_EQ(d[n], -9.0f);
    }
    probe::Budget two(2);
    float d = 0;
    ASSERT_EQ(omkmDotProduct_vv_32f(a.data(), 4, b.data(), 4, &d, 65536), omkStsOk);
    EXPECT_EQ(probe::calls(), 0);
}

TEST(DotProductParallel, BitIdenticalToSerialForEveryArrayMember) {
    for (const Member& m : dotMembers()) {
        if (!m.hasArray()) continue;
        for (int len : {4, 37})
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                expectParallelMatchesSerial([&] {
                    std::mt19937 rng(127);
                    return dotCase(m, len, 2503, st, rng);
                }, dotExpected);
                if (HasFatalFailure()) return;
            }
    }
}

// ---- cross products ----

TEST(CrossProductResults, EveryMemberEveryLayout) {
    EXPECT_EQ(crossMembers().size() + 3, 25u);  // with the fixed-size v2, v3, v4
    probe::Budget serial(1);
    std::mt19937 rng(131);
    crossWitnesses().clear();
    const std::vector<std::vector<Style>> styles = {
        {Style::Packed}, {Style::PaddedRows}, {Style::Gapped}, {Style::Packed, Style::Packed, Style::Gapped},
        {Style::Gapped, Style::Packed, Style::Packed}, {Style::PaddedRows, Style::Gapped}};
    for (const Member& m : crossMembers())
        for (const auto& st : styles)
            for (int count : {1, 4, 5}) {
                if (count > 1 && !m.hasArray()) continue;
                Case c = crossCase(m, count, st, rng);
                runAndVerify(c, crossExpected);
                if (HasFatalFailure()) return;
            }
    crossWitnesses().expectEvery({"cross"});
}

// Both sources are read before the destination is written: a destination that is one of the
// sources (same base and strides) gets the result of separate buffers.
TEST(CrossProductResults, InPlaceOverEitherSource) {
    probe::Budget serial(1);
    for (const Member& m : crossMembers())
        for (int src : {0, 1}) {
            const bool arr1 = m.group == "vav" || m.group == "vava", arr2 = m.group == "vva" || m.group == "vava";
            const bool srcArray = src == 0 ? arr1 : arr2;
            if (srcArray != m.hasArray()) continue;  // the destination must have the source's shape
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                std::mt19937 r1(137), r2(137);
                Case separate = crossCase(m, 5, st, r1);
                Case inPlace = crossCase(m, 5, st, r2, src);
                Case before = inPlace;  // the sources as they were before the call
                runAndVerify(separate, crossExpected);
                runAndVerify(inPlace, [&before](Case&, int k, int, int j) { return crossExpected(before, k, 0, j); });
                for (int k = 0; k < inPlace.objects(); ++k)
                    for (int j = 0; j < 3; ++j)
                        ASSERT_EQ(0, std::memcmp(separate.arena.at(separate.dst.offset(k, 0, j)),
                                                 inPlace.arena.at(inPlace.dst.offset(k, 0, j)), m.esize))
                            << m.name << " over source " << src + 1 << " object " << k;
                if (HasFatalFailure()) return;
            }
        }
}

// No size: null, stride, then count, then ROI shift.
TEST(CrossProductChecks, EveryMemberInItsOrder) {
    std::mt19937 rng(139);
    for (const Member& m : crossMembers()) {
        Case c = crossCase(m, 3, {Style::Gapped}, rng);
        walkFaults(c, m.hasArray() ? "NTCR" : "NTR", faultsOf(c), crossExpected);
        if (HasFatalFailure()) return;
    }
    float v[16] = {}, d[16];
    std::fill_n(d, 16, 2.0f);
    const float* pv[3] = {v, v + 1, v + 2};
    float* pd[3] = {d, d + 1, d + 2};
    EXPECT_EQ(omkmCrossProduct_vav_32f(v, 12, 2, v, 4, d, 12, 4, 0), omkStsBadStride);
    EXPECT_EQ(omkmCrossProduct_vav_32f(v, 12, 4, v, 4, d, 12, 4, 0), omkStsBadCount);
    EXPECT_EQ(omkmCrossProduct_vav_32f_P(pv, 2, 12, pv, 0, pd, 0, 12, 0), omkStsBadCount);  // count before ROI
    EXPECT_EQ(omkmCrossProduct_vav_32f_P(pv, 2, 12, pv, 0, pd, 0, 12, 1), omkStsBadRoiShift);
    for (float x : d) EXPECT_EQ(x, 2.0f);
}

// vav and vva: serial while 2*count is at most 2999 (count 1499), parallel from count 1500; vava:
// 3*count at most 3000 (count 1000), parallel from 1001; in every description and layout.
TEST(CrossProductLimits, EveryArrayMemberAtItsExactBoundary) {
    std::mt19937 rng(149);
    for (const Member& m : crossMembers()) {
        if (!m.hasArray()) continue;
        const bool two = m.group == "vava";
        const WorkFn work = two ? WorkFn([](int64_t, int64_t, int64_t c) { return 3 * c; })
                                : WorkFn([](int64_t, int64_t, int64_t c) { return 2 * c; });
        for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
            expectBoundary([&](const LimitShape& s) { return crossCase(m, int(s.c), st, rng); }, crossExpected, work,
                           two ? 3000 : 2999, false, m.name, two);
            if (HasFatalFailure()) return;
        }
    }
}

TEST(CrossProductParallel, BitIdenticalToSerialForEveryArrayMember) {
    for (const Member& m : crossMembers()) {
        if (!m.hasArray()) continue;
        for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
            expectParallelMatchesSerial([&] {
                std::mt19937 rng(151);
                return crossCase(m, 2503, st, rng);
            }, crossExpected);
            if (HasFatalFailure()) return;
        }
    }
}

TEST(CrossProductFixed, V2AndV3InTheirOrders) {
    std::mt19937 rng(157);
    int differs = 0;
    for (int attempt = 0; attempt < 300; ++attempt) {
        float buf[16], d[5];
        for (float& x : buf) x = float(sourceValue(rng));
        const float* a = buf + attempt % 5;
        const float* b = buf + 8 + attempt % 3;
        std::fill_n(d, 5, 7.25f);
        ASSERT_EQ(omkmCrossProduct_v2_32f(a, b, d + 1), omkStsOk);
        EXPECT_EQ(d[1], fms(a[0], b[1], a[1] * b[0]));
        EXPECT_EQ(d[0], 7.25f);
        EXPECT_EQ(d[2], 7.25f);
        std::fill_n(d, 5, 7.25f);
        ASSERT_EQ(omkmCrossProduct_v3_32f(a, b, d + 1), omkStsOk);
        EXPECT_EQ(d[1], fms(a[1], b[2], a[2] * b[1]));
        EXPECT_EQ(d[2], fms(a[2], b[0], a[0] * b[2]));
        EXPECT_EQ(d[3], fms(a[0], b[1], a[1] * b[0]));
        EXPECT_EQ(d[0], 7.25f);
        EXPECT_EQ(d[4], 7.25f);
        differs += d[3] != a[0] * b[1] - a[1] * b[0];
        // In place over either source.
        float x[3] = {a[0], a[1], a[2]}, y[3] = {b[0], b[1], b[2]};
        ASSERT_EQ(omkmCrossProduct_v3_32f(x, b, x), omkStsOk);
        ASSERT_EQ(omkmCrossProduct_v3_32f(a, y, y), omkStsOk);
        for (int j = 0; j < 3; ++j) {
            EXPECT_EQ(x[j], d[1 + j]);
            EXPECT_EQ(y[j], d[1 + j]);
        }
    }
    EXPECT_GT(differs, 0);
}

// The 4-vector orthogonal to a, b and c: minors m_ij = fms(b_i, c_j, b_j*c_i); r0 = fma(a3, m12,
// fms(a1, m23, a2*m13)), r1 = 0 - fma(a3, m02, fms(a0, m23, a2*m03)), r2 = fma(a3, m01, fms(a0,
// m13, a1*m03)), r3 = 0 - fma(a2, m01, fms(a0, m12, a1*m02)). The result is orthogonal to each
// input within the rounding of its terms.
TEST(CrossProductFixed, V4IsTheDocumentedExpansionAndOrthogonal) {
    std::mt19937 rng(163);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    int naiveDiffers = 0;
    for (int attempt = 0; attempt < 600; ++attempt) {
        const bool wide = attempt % 2 == 0;  // widely spread magnitudes, or values in [-1, 1]
        float buf[20], d[6];
        for (float& x : buf) x = wide ? float(sourceValue(rng)) : unit(rng);
        const float* a = buf + attempt % 3;
        const float* b = buf + 5 + attempt % 2;
        const float* c = buf + 11 + attempt % 5;
        auto m = [&](int i, int j) { return fms(b[i], c[j], b[j] * c[i]); };
        const float r[4] = {
            std::fma(a[3], m(1, 2), fms(a[1], m(2, 3), a[2] * m(1, 3))),
            0.0f - std::fma(a[3], m(0, 2), fms(a[0], m(2, 3), a[2] * m(0, 3))),
            std::fma(a[3], m(0, 1), fms(a[0], m(1, 3), a[1] * m(0, 3))),
            0.0f - std::fma(a[2], m(0, 1), fms(a[0], m(1, 2), a[1] * m(0, 2)))};
        std::fill_n(d, 6, -1.5f);
        ASSERT_EQ(omkmCrossProduct_v4_32f(a, b, c, d + 1), omkStsOk);
        for (int j = 0; j < 4; ++j) ASSERT_EQ(d[1 + j], r[j]) << "attempt " << attempt << " element " << j;
        EXPECT_EQ(d[0], -1.5f);
        EXPECT_EQ(d[5], -1.5f);
        const float n0 = a[1] * (b[2] * c[3] - b[3] * c[2]) - a[2] * (b[1] * c[3] - b[3] * c[1]) +
                         a[3] * (b[1] * c[2] - b[2] * c[1]);
        naiveDiffers += n0 != r[0];
        if (wide) continue;
        double l1[3] = {}, ortho[3] = {};
        const float* in[3] = {a, b, c};
        for (int v = 0; v < 3; ++v)
            for (int i = 0; i < 4; ++i) {
                l1[v] += std::fabs(double(in[v][i]));
                ortho[v] += double(d[1 + i]) * in[v][i];
            }
        const double bound = 16 * double(FLT_EPSILON) * l1[0] * l1[1] * l1[2];
        for (int v = 0; v < 3; ++v) EXPECT_LE(std::fabs(ortho[v]), bound * l1[v]) << "attempt " << attempt << " input " << v;
    }
    EXPECT_GT(naiveDiffers, 0);
    // The same call over its own first source: all sources are read first.
    float a[4] = {1, 2, 3, 4}, b[4] = {0.5f, -1, 2, 0.25f}, c[4] = {3, 1, -2, 1}, d[4];
    ASSERT_EQ(omkmCrossProduct_v4_32f(a, b, c, d), omkStsOk);
    ASSERT_EQ(omkmCrossProduct_v4_32f(a, b, c, a), omkStsOk);
    for (int j = 0; j < 4; ++j) EXPECT_EQ(a[j], d[j]);
}
