// Gaxpy, y = A*x + b: every member in every description and both element types over square orders
// 1 to 8 and non-square shapes, bit for bit against the documented order, with the size rules, the
// check order, the serial limits and the parallel runs.
#include <gtest/gtest.h>

#include "reduction_cases.h"

using namespace testing_omk;
using namespace testing_omk::red;

namespace {

const std::vector<Member>& members() {
    static const std::vector<Member> all = {SINGLE_GROUP(Gaxpy, mv) ARRAY_GROUP(Gaxpy, mva) ARRAY_GROUP(Gaxpy, mvav)};
    return all;
}

// Argument positions of width, height, src2Len and src3Len.
struct SizeArgs {
    size_t at[4];
};

// Styles in operand order: A, x, b, y (the last one repeats). A is `h` rows of `w`; x has w
// elements, b and y h. The argument list: A's block, width, height, x's block, src2Len, b's block,
// src3Len, y's block, count.
Case gaxpyCase(const Member& m, int w, int h, int count, const std::vector<Style>& st, std::mt19937& rng,
               SizeArgs* sizes = nullptr) {
    Case c;
    c.m = &m;
    c.width = w;
    c.height = h;
    c.count = count;
    const bool arrX = m.group != "mv", arrB = m.group == "mva";
    c.srcs = {operandOf('m', false, h, w, styleAt(st, 0), m.esize), operandOf('v', arrX, 1, w, styleAt(st, 1), m.esize),
              operandOf('v', arrB, 1, h, styleAt(st, 2), m.esize)};
    c.dst = operandOf('v', m.hasArray(), 1, h, styleAt(st, 3), m.esize);
    place(c, rng);
    SizeArgs s{};
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    s.at[0] = c.args.args.size();
    pushArg(c, ArgKind::Width, w);
    s.at[1] = c.args.args.size();
    pushArg(c, ArgKind::Height, h);
    appendOperand(c, c.srcs[1], ArgKind::SrcPtr);
    s.at[2] = c.args.args.size();
    pushArg(c, ArgKind::Len, w);
    appendOperand(c, c.srcs[2], ArgKind::SrcPtr);
    s.at[3] = c.args.args.size();
    pushArg(c, ArgKind::Len, h);
    appendOperand(c, c.dst, ArgKind::DstPtr);
    if (m.hasArray()) pushArg(c, ArgKind::Count, count);
    if (sizes) *sizes = s;
    return c;
}

Witnesses& witnesses() {
    static Witnesses w;
    return w;
}

// Row i of object k. Square orders 3 to 6: t = fma(a_i,n-1, x_n-1, b_i), then t = fma(a_ij, x_j, t)
// for j = 0 .. n-2. Every other shape: t = 0, t = t + a_ij*x_j in increasing j, then t + b_i.
template <class T>
double gaxpyOf(Case& c, int k, int i) {
    const Operand &A = c.srcs[0], &X = c.srcs[1], &B = c.srcs[2];
    const int w = c.width, h = c.height;
    auto a = [&](int j) { return elemOf<T>(c, A, 0, i, j); };
    auto x = [&](int j) { return elemOf<T>(c, X, k, 0, j); };
    const T b = elemOf<T>(c, B, k, 0, i);
    T general = 0;
    for (int j = 0; j < w; ++j) general = general + a(j) * x(j);
    general = general + b;
    if (w == h && w >= 3 && w <= 6) {
        T t = std::fma(a(w - 1), x(w - 1), b);
        for (int j = 0; j + 1 < w; ++j) t = std::fma(a(j), x(j), t);
        witnesses().note("square " + std::to_string(w), t, general);
        return t;
    }
    T bFirst = b;  // the other place b could enter
    for (int j = 0; j < w; ++j) bFirst = bFirst + a(j) * x(j);
    witnesses().note("general", general, bFirst);
    return general;
}

double gaxpyExpected(Case& c, int k, int, int j) {
    return c.m->esize == 4 ? gaxpyOf<float>(c, k, j) : gaxpyOf<double>(c, k, j);
}

int64_t workOf(const Member& m, int64_t w, int64_t h, int64_t c) {
    return m.group == "mva" ? (w + 2 * h) * c : w * c + h * (c + 1);
}

}  // namespace

// Layouts: all packed (packed arrays), padded (contiguous elements, gaps between objects), all
// gapped, and mixtures that leave only A, only x, only b or only y strided.
TEST(GaxpyResults, EveryMemberEveryShapeAndLayout) {
    EXPECT_EQ(members().size(), 16u);
    probe::Budget serial(1);
    std::mt19937 rng(307);
    witnesses().clear();
    const std::vector<std::vector<Style>> styles = {
        {Style::Packed}, {Style::PaddedRows}, {Style::Gapped}, {Style::Gapped, Style::Packed},
        {Style::Packed, Style::Gapped, Style::Packed}, {Style::PaddedRows, Style::PaddedRows, Style::Gapped, Style::Packed},
        {Style::Packed, Style::Packed, Style::Packed, Style::Gapped}};
    std::vector<std::pair<int, int>> shapes;
    for (int n = 1; n <= 8; ++n) shapes.push_back({n, n});
    for (auto s : {std::pair<int, int>{3, 2}, {2, 3}, {4, 6}, {6, 4}, {5, 1}, {1, 5}, {7, 3}, {8, 5}}) shapes.push_back(s);
    for (const Member& m : members())
        for (auto [w, h] : shapes)
            for (const auto& st : styles)
                for (int count : {1, 4, 5}) {
                    if (count > 1 && !m.hasArray()) continue;
                    Case c = gaxpyCase(m, w, h, count, st, rng);
                    runAndVerify(c, gaxpyExpected);
                    if (HasFatalFailure()) {
                        ADD_FAILURE() << m.name << " " << w << "x" << h << " count " << count;
                        return;
                    }
                }
    witnesses().expectEvery({"square 3", "square 4", "square 5", "square 6", "general"});
}

// ---- checks ----

// Null, count, sizes, agreement of width with src2Len and height with src3Len, strides, ROI shifts.
TEST(GaxpyChecks, EveryMemberInItsOrder) {
    std::mt19937 rng(311);
    for (const Member& m : members()) {
        SizeArgs sizes;
        Case c = gaxpyCase(m, 3, 2, 3, {Style::Gapped}, rng, &sizes);
        std::vector<Fault> faults = faultsOf(c);
        for (size_t at : sizes.at) {  // one size one larger than its partner, every size still valid
            Arg x = c.args.args[at];
            ++x.i;
            faults.push_back({at, x, 'A'});
        }
        walkFaults(c, m.hasArray() ? "NCSATR" : "NSATR", faults, gaxpyExpected);
        if (HasFatalFailure()) return;
    }
}

TEST(GaxpyChecks, DocumentedCases) {
    float a[64] = {}, d[16];
    std::fill_n(d, 16, 6.0f);
    // A 3x3 matrix with src2Len 3 and src3Len 2.
    EXPECT_EQ(omkmGaxpy_mv_32f(a, 12, 4, 3, 3, a, 4, 3, a, 4, 2, d, 4), omkStsSizeMismatch);
    // A mismatch before a bad stride; a bad size before a mismatch.
    EXPECT_EQ(omkmGaxpy_mv_32f(a, 12, 4, 3, 3, a, 6, 4, a, 4, 3, d, 4), omkStsSizeMismatch);
    EXPECT_EQ(omkmGaxpy_mv_32f(a, 12, 4, 3, 3, a, 4, 3, a, 4, 0, d, 4), omkStsBadSize);
    // mva with count 0 before any size is looked at; null pointers before the count.
    EXPECT_EQ(omkmGaxpy_mva_32f(a, 12, 4, 0, 3, a, 12, 4, 3, a, 12, 4, 3, d, 12, 4, 0), omkStsBadCount);
    EXPECT_EQ(omkmGaxpy_mva_32f(a, 12, 4, 0, 3, a, 12, 4, 3, nullptr, 12, 4, 3, d, 12, 4, 0), omkStsNullPtr);
    for (float x : d) EXPECT_EQ(x, 6.0f);
    // The same 3x2 matrix (3 wide, 2 high) with the right lengths runs: y = A*x + b.
    const float m[6] = {1, 2, 3, 4, 5, 6}, x[3] = {1, 1, 2}, b[2] = {0.5f, -1};
    ASSERT_EQ(omkmGaxpy_mv_32f(m, 12, 4, 3, 2, x, 4, 3, b, 4, 2, d, 4), omkStsOk);
    EXPECT_EQ(d[0], 9.5f);
    EXPECT_EQ(d[1], 20.0f);
    EXPECT_EQ(d[2], 6.0f);
}

// ---- serial limits ----

// mva (src2Len + 2*src3Len)*count, mvav src2Len*count + src3Len*(count + 1). Standard 32f: 7000
// when every element stride is 4, else 5000; standard 64f: 5000; _L: 7000 when every element
// stride is the element size, else 500; _P: 4500.
TEST(GaxpyLimits, EveryArrayMemberAtItsExactBoundary) {
    std::mt19937 rng(313);
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        const WorkFn work = [&m](int64_t w, int64_t h, int64_t c) { return workOf(m, w, h, c); };
        const std::vector<Style> packed = {Style::Packed}, padded = {Style::PaddedRows}, gapped = {Style::Gapped},
                                 onlyA = {Style::Gapped, Style::Packed}, onlyB = {Style::Packed, Style::Packed, Style::Gapped, Style::Packed},
                                 onlyY = {Style::Packed, Style::Packed, Style::Packed, Style::Gapped};
        struct Variant { std::vector<Style> styles; int limit; };
        std::vector<Variant> variants;
        if (m.desc == Desc::P) {
            variants = {{packed, 4500}, {gapped, 4500}};
        } else {
            const int contiguous = m.desc == Desc::L || m.esize == 4 ? 7000 : 5000;
            const int other = m.desc == Desc::L ? 500 : 5000;
            variants = {{packed, contiguous}, {padded, contiguous}, {gapped, other}, {onlyA, other}, {onlyB, other}, {onlyY, other}};
        }
        for (const Variant& v : variants) {
            expectBoundary([&](const LimitShape& s) { return gaxpyCase(m, s.w, s.h, s.c, v.styles, rng); }, gaxpyExpected,
                           work, v.limit, true, m.name);
            if (HasFatalFailure()) return;
        }
    }
}

// ---- parallel runs ----

TEST(GaxpyParallel, BitIdenticalToSerialForEveryArrayMember) {
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        for (auto [w, h] : {std::pair<int, int>{4, 4}, {5, 3}})
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                expectParallelMatchesSerial([&] {
                    std::mt19937 rng(317);
                    return gaxpyCase(m, w, h, 2503, st, rng);
                }, gaxpyExpected);
                if (HasFatalFailure()) return;
            }
    }
}
