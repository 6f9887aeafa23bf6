// Products of matrices and vectors: every member in every description and both element types,
// bit for bit against the rounding order of the kernel its shape and layout select, with the
// dimension rules, the check order, the serial limits and the parallel runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

#include "member_checks.h"
#include "operands.h"
#include "thread_budget_probe.h"

using namespace testing_omk;

namespace {

const std::vector<Member>& members() {
    static const std::vector<Member> all = {
        SINGLE_GROUP(Mul, mm) SINGLE_GROUP(Mul, mt) SINGLE_GROUP(Mul, tm) SINGLE_GROUP(Mul, tt)
        SINGLE_GROUP(Mul, mv) SINGLE_GROUP(Mul, tv)
        ARRAY_GROUP(Mul, mma) ARRAY_GROUP(Mul, mta) ARRAY_GROUP(Mul, tma) ARRAY_GROUP(Mul, tta)
        ARRAY_GROUP(Mul, mam) ARRAY_GROUP(Mul, mat) ARRAY_GROUP(Mul, tam) ARRAY_GROUP(Mul, tat)
        ARRAY_GROUP(Mul, mama) ARRAY_GROUP(Mul, mata) ARRAY_GROUP(Mul, tama) ARRAY_GROUP(Mul, tata)
        ARRAY_GROUP(Mul, mva) ARRAY_GROUP(Mul, tva) ARRAY_GROUP(Mul, mav) ARRAY_GROUP(Mul, tav)
        ARRAY_GROUP(Mul, mava) ARRAY_GROUP(Mul, tava)
    };
    return all;
}

const Member& memberNamed(const std::string& name) {
    for (const Member& m : members())
        if (m.name == name) return m;
    throw std::runtime_error("no member " + name);
}

// ---- shapes ----
// The product as used: A is M x K, B is K x N (N = 1 for a vector).
struct Used { int M, K, N; };
// The sizes as the arguments give them: stored widths and heights (a vector: bw = len, bh = 1).
struct Stored { int aw, ah, bw, bh; };

char kindA(const Member& m) { return m.operands()[0].first; }
char kindB(const Member& m) { return m.operands()[1].first; }

Stored storedOf(const Member& m, Used u) {
    Stored s{};
    if (kindA(m) == 'm') { s.aw = u.K; s.ah = u.M; } else { s.aw = u.M; s.ah = u.K; }
    switch (kindB(m)) {
    case 'm': s.bw = u.N; s.bh = u.K; break;
    case 't': s.bw = u.K; s.bh = u.N; break;
    default: s.bw = u.K; s.bh = 1;
    }
    return s;
}

// The two members that choose orders 3 and 4 by the OR of the four dimensions.
bool orRule(const Member& m) {
    return m.desc == Desc::P && ((m.group == "mm" && m.esize == 4) || (m.group == "tt" && m.esize == 8));
}

// A shape on which the OR rule picks the order-3 or order-4 code without the product being square.
bool orQuirkShape(const Member& m, const Stored& s) {
    const int bits = s.aw | s.ah | s.bw | s.bh;
    const bool square = s.aw == s.ah && s.aw == s.bw && s.bw == s.bh;
    return orRule(m) && (bits == 3 || bits == 4) && !square;
}

enum class Path { Contiguous, Strided, Pointer };

struct MulCase {
    Case c;
    Used u{};
    Stored s{};
    size_t aK = 0, bK = 0;  // argument positions of each source's inner dimension

    Path path() const {
        if (c.m->desc == Desc::P) return Path::Pointer;
        const int e = c.m->esize;
        return c.srcs[0].s2 == e && c.srcs[1].s2 == e && c.dst.s2 == e ? Path::Contiguous : Path::Strided;
    }
    // The straight-line order the member takes, 0 for the general loop.
    int order() const {
        if (orRule(*c.m)) {
            const int bits = s.aw | s.ah | s.bw | s.bh;
            if (bits == 3 || bits == 4) return bits;
        }
        const bool square = s.aw == s.ah && s.aw == s.bw && (kindB(*c.m) == 'v' || s.bw == s.bh);
        return square && s.aw >= 3 && s.aw <= 6 ? s.aw : 0;
    }
};

size_t storedOffset(const Operand& o, int k, int r, int col) {
    return o.base + ptrdiff_t(o.array ? k : 0) * o.s0 + ptrdiff_t(r) * o.s1 + ptrdiff_t(col) * o.s2;
}

// Lays out the operands of one product in guarded memory: styles per operand (source 1, source 2,
// destination; the last one repeats), element values from rng, and the argument list of the member.
void buildProduct(MulCase& mc, const Member& m, Used u, int count, const std::vector<Style>& styles,
                  std::mt19937& rng) {
    Case& c = mc.c;
    c.m = &m;
    c.count = count;
    mc.u = u;
    mc.s = storedOf(m, u);
    const auto ops = m.operands();
    auto style = [&](size_t i) { return styles[std::min(i, styles.size() - 1)]; };
    c.srcs.assign(2, Operand{});
    for (int i = 0; i < 2; ++i) {
        Operand& o = c.srcs[i];
        o.kind = ops[i].first;
        o.array = ops[i].second;
        o.rows = i == 0 ? mc.s.ah : mc.s.bh;
        o.cols = i == 0 ? mc.s.aw : mc.s.bw;
        layOut(o, style(i), m.esize);
    }
    c.dst = Operand{};
    c.dst.kind = kindB(m) == 'v' ? 'v' : 'm';
    c.dst.array = m.hasArray();
    c.dst.rows = c.dst.kind == 'v' ? 1 : u.M;
    c.dst.cols = c.dst.kind == 'v' ? u.M : u.N;
    layOut(c.dst, style(2), m.esize);

    c.arena = Arena{};
    for (Operand& o : c.srcs) o.base = c.arena.reserve(extentOf(o, count));
    c.dst.base = c.arena.reserve(extentOf(c.dst, count));
    c.arena.allocate();
    for (const Operand& o : c.srcs)
        for (int k = 0; k < (o.array ? count : 1); ++k)
            for (int r = 0; r < o.rows; ++r)
                for (int col = 0; col < o.cols; ++col) {
                    unsigned char* p = c.arena.at(storedOffset(o, k, r, col));
                    if (m.esize == 4) store<float>(p, float(sourceValue(rng)));
                    else store<double>(p, sourceValue(rng));
                }

    c.tables.clear();
    c.tables.reserve(4);
    ArgList& a = c.args;
    a.args.clear();
    auto arg = [&](ArgKind k, int64_t v) { Arg x{k}; x.i = v; a.args.push_back(x); };
    auto ptr = [&](ArgKind k, void* p) { Arg x{k}; x.ptr = p; a.args.push_back(x); };
    auto operand = [&](Operand& o, ArgKind pk) {
        unsigned char* base = c.arena.at(o.base);
        const bool matrix = o.kind != 'v';
        if (m.desc == Desc::P) {
            c.tables.emplace_back();
            for (int r = 0; r < o.rows; ++r)
                for (int col = 0; col < o.cols; ++col)
                    c.tables.back().push_back(base + ptrdiff_t(r) * o.s1 + ptrdiff_t(col) * o.s2 - o.roi);
            ptr(pk, c.tables.back().data());
            arg(ArgKind::Roi, o.roi);
            if (o.array) arg(ArgKind::Stride, o.s0);
        } else if (m.desc == Desc::L && o.array) {
            c.tables.emplace_back();
            for (int k = 0; k < count; ++k) c.tables.back().push_back(base + ptrdiff_t(k) * o.s0 - o.roi);
            ptr(pk, c.tables.back().data());
            arg(ArgKind::Roi, o.roi);
            if (matrix) arg(ArgKind::Stride, o.s1);
            arg(ArgKind::Stride, o.s2);
        } else {
            ptr(pk, base);
            if (o.array) arg(ArgKind::Stride, o.s0);
            if (matrix) arg(ArgKind::Stride, o.s1);
            arg(ArgKind::Stride, o.s2);
        }
    };
    // Each source: its description, then its sizes.
    operand(c.srcs[0], ArgKind::SrcPtr);
    mc.aK = a.args.size() + (kindA(m) == 'm' ? 0 : 1);
    arg(ArgKind::Width, mc.s.aw);
    arg(ArgKind::Height, mc.s.ah);
    operand(c.srcs[1], ArgKind::SrcPtr);
    mc.bK = a.args.size() + (kindB(m) == 'm' ? 1 : 0);
    if (kindB(m) == 'v') {
        arg(ArgKind::Len, mc.s.bw);
    } else {
        arg(ArgKind::Width, mc.s.bw);
        arg(ArgKind::Height, mc.s.bh);
    }
    operand(c.dst, ArgKind::DstPtr);
    if (m.hasArray()) arg(ArgKind::Count, count);
}

// ---- reference orders, written out from the documented table ----
template <class T>
T orderedSum(Path p, int n, const std::vector<T>& a, const std::vector<T>& b) {
    using std::fma;
    const int K = int(a.size());
    auto chain = [&] {
        T t = a[1] * b[1];
        t = fma(a[0], b[0], t);
        for (int k = 2; k < K; ++k) t = fma(a[k], b[k], t);
        return t;
    };
    if (n != 0) {
        if (p == Path::Contiguous || n == 5) return chain();
        if (n == 3) return fma(a[2], b[2], fma(a[0], b[0], a[1] * b[1]));
        if (n == 4) return fma(a[1], b[1], a[2] * b[2]) + fma(a[0], b[0], a[3] * b[3]);
        return fma(a[1], b[1], fma(a[2], b[2], a[4] * b[4])) + fma(a[0], b[0], fma(a[3], b[3], a[5] * b[5]));
    }
    switch (p) {
    case Path::Strided: {
        T t = 0;
        int k = 0;
        for (; k + 1 < K; k += 2) {
            const T p0 = a[k] * b[k];
            t = t + p0;
            const T p1 = a[k + 1] * b[k + 1];
            t = t + p1;
        }
        if (k < K) t = fma(a[k], b[k], t);
        return t;
    }
    case Path::Pointer: {
        T d = 0;
        for (int k = 0; k < K; ++k) d = fma(a[k], b[k], d);
        return d;
    }
    case Path::Contiguous: {
        T l[8] = {};
        for (int k = 0; k < K; ++k) l[k % 8] = fma(a[k], b[k], l[k % 8]);
        return ((l[0] + l[4]) + (l[2] + l[6])) + ((l[1] + l[5]) + (l[3] + l[7]));
    }
    }
    return 0;
}

template <class T>
T naiveSum(const std::vector<T>& a, const std::vector<T>& b) {
    T t = 0;
    for (size_t k = 0; k < a.size(); ++k) t = t + a[k] * b[k];
    return t;
}

// Elements, per path and straight-line order, whose tabled order gave other bits than a naive sum:
// the results prove the order only where this count is not zero.
std::map<std::pair<Path, int>, int>& orderWitnesses() {
    static std::map<std::pair<Path, int>, int> w;
    return w;
}

template <class T>
T elementOf(Case& c, const Operand& o, int k, int r, int col) {
    return load<T>(c.arena.at(storedOffset(o, k, r, col)));
}

// Destination element (row, col) of object k from the stored sources, in the member's order.
template <class T>
double productElement(MulCase& mc, int k, int row, int col) {
    Case& c = mc.c;
    const Operand &A = c.srcs[0], &B = c.srcs[1];
    std::vector<T> a(mc.u.K), b(mc.u.K);
    for (int t = 0; t < mc.u.K; ++t) {
        a[t] = A.kind == 'm' ? elementOf<T>(c, A, k, row, t) : elementOf<T>(c, A, k, t, row);
        b[t] = B.kind == 'm' ? elementOf<T>(c, B, k, t, col) : elementOf<T>(c, B, k, B.kind == 'v' ? 0 : col, t);
    }
    const T r = orderedSum(mc.path(), mc.order(), a, b);
    if (mc.u.K > 1 && r != naiveSum(a, b)) ++orderWitnesses()[{mc.path(), mc.order()}];
    return double(r);
}

Expected expectedOf(MulCase& mc) {
    return [&mc](Case& c, int k, int i, int j) {
        const int row = c.dst.kind == 'v' ? j : i, col = c.dst.kind == 'v' ? 0 : j;
        return c.m->esize == 4 ? productElement<float>(mc, k, row, col) : productElement<double>(mc, k, row, col);
    };
}

void runProduct(MulCase& mc, OmkStatus want = omkStsOk) { runAndVerify(mc.c, expectedOf(mc), want); }

std::vector<Used> shapesOf(const Member& m) {
    std::vector<Used> out;
    for (int n = 1; n <= 8; ++n) out.push_back({n, n, n});
    const std::vector<Used> others = {{2, 3, 4}, {4, 3, 2}, {3, 5, 1}, {3, 3, 1}, {7, 9, 3}, {5, 4, 5},
                                      {6, 6, 5}, {1, 17, 2}, {5, 16, 3}, {9, 8, 1}, {1, 2, 1}};
    out.insert(out.end(), others.begin(), others.end());
    std::vector<Used> kept;
    std::set<std::tuple<int, int, int>> seen;
    for (Used u : out) {
        if (kindB(m) == 'v') u.N = 1;
        if (!seen.insert({u.M, u.K, u.N}).second) continue;
        if (orQuirkShape(m, storedOf(m, u))) continue;  // tested on its own below
        kept.push_back(u);
    }
    return kept;
}

}  // namespace

TEST(MulMembers, TheListCoversTheProducts) {
    std::set<std::string> names;
    for (const Member& m : members()) names.insert(m.name);
    EXPECT_EQ(names.size(), members().size());
    EXPECT_EQ(members().size(), 132u);  // with omkmMul_mm4x4_32f, tested on its own: 133
}

// Every member, every description, over square orders 1 to 8 and non-square shapes, in layouts
// packed, with padded rows (contiguous elements), with gaps between elements (strided), and mixed.
TEST(MulResults, EveryMemberEveryShapeAndLayout) {
    probe::Budget serial(1);
    std::mt19937 rng(17);
    const std::vector<std::vector<Style>> styles = {
        {Style::Packed}, {Style::PaddedRows}, {Style::Gapped},
        {Style::Gapped, Style::Packed, Style::PaddedRows}, {Style::Packed, Style::PaddedRows, Style::Gapped},
        {Style::PaddedRows, Style::Gapped, Style::Packed}, {Style::PaddedRows, Style::Packed}};
    orderWitnesses().clear();
    for (const Member& m : members())
        for (Used u : shapesOf(m))
            for (const auto& st : styles)
                for (int count : {1, 4}) {
                    if (count > 1 && !m.hasArray()) continue;
                    MulCase mc;
                    buildProduct(mc, m, u, count, st, rng);
                    runProduct(mc);
                    if (HasFatalFailure()) {
                        ADD_FAILURE() << m.name << " " << u.M << "x" << u.K << "x" << u.N << " count " << count;
                        return;
                    }
                }
    // Each order of the table was told apart from a naive sum somewhere in the walk.
    for (Path p : {Path::Contiguous, Path::Strided, Path::Pointer})
        for (int n : {0, 3, 4, 5, 6})
            EXPECT_GT((orderWitnesses()[{p, n}]), 0) << "path " << int(p) << " order " << n;
}

// The same 4x4 values through the contiguous path (chain order) and the strided path (pairs of
// fused pairs) round differently: the table's two orders are both observable.
TEST(MulResults, ContiguousAndStrided4x4DifferInTheLastBit) {
    std::mt19937 rng(23);
    for (int attempt = 0; attempt < 200; ++attempt) {
        float a[16], b[16], ga[32], gb[32], packed[16], gapped[32];
        for (int i = 0; i < 16; ++i) {
            a[i] = ga[2 * i] = float(sourceValue(rng));
            b[i] = gb[2 * i] = float(sourceValue(rng));
        }
        ASSERT_EQ(omkmMul_mm_32f(a, 16, 4, 4, 4, b, 16, 4, 4, 4, packed, 16, 4), omkStsOk);
        ASSERT_EQ(omkmMul_mm_32f(ga, 32, 8, 4, 4, gb, 32, 8, 4, 4, gapped, 32, 8), omkStsOk);
        bool differ = false;
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) {
                const float x0 = a[4 * i], x1 = a[4 * i + 1], x2 = a[4 * i + 2], x3 = a[4 * i + 3];
                const float y0 = b[j], y1 = b[4 + j], y2 = b[8 + j], y3 = b[12 + j];
                const float chain = std::fma(x3, y3, std::fma(x2, y2, std::fma(x0, y0, x1 * y1)));
                const float pairs = std::fma(x1, y1, x2 * y2) + std::fma(x0, y0, x3 * y3);
                EXPECT_EQ(packed[4 * i + j], chain);
                EXPECT_EQ(gapped[2 * (4 * i + j)], pairs);
                differ |= chain != pairs;
            }
        if (differ) return;
    }
    FAIL() << "no input told the two orders apart";
}

// mm_32f_P and tt_64f_P: a 1x2 by 2x1 product has dimensions whose OR is 3 and takes the order-3
// code, which reads nine entries of each table with that operand's own width as row pitch; its
// first destination entry is the strided order-3 sum over entries 0, 1, 2 of both tables.
TEST(MulResults, OrRuleTakesTheOrder3CodeForSmallerOperands) {
    float fa[9], fb[9], fd[9];
    double da[9], db[9], dd[9];
    std::mt19937 rng(29);
    for (int i = 0; i < 9; ++i) {
        fa[i] = float(sourceValue(rng)); fb[i] = float(sourceValue(rng));
        da[i] = sourceValue(rng); db[i] = sourceValue(rng);
        fd[i] = -7.0f; dd[i] = -7.0;
    }
    const float* fpa[9]; const float* fpb[9]; float* fpd[9];
    const double* dpa[9]; const double* dpb[9]; double* dpd[9];
    for (int i = 0; i < 9; ++i) {
        fpa[i] = &fa[i]; fpb[i] = &fb[i]; fpd[i] = &fd[i];
        dpa[i] = &da[i]; dpb[i] = &db[i]; dpd[i] = &dd[i];
    }
    ASSERT_EQ(omkmMul_mm_32f_P(fpa, 0, 2, 1, fpb, 0, 1, 2, fpd, 0), omkStsOk);
    EXPECT_EQ(fd[0], std::fma(fa[2], fb[2], std::fma(fa[0], fb[0], fa[1] * fb[1])));
    // The destination has width 1: entries i*1 + j for i, j < 3 reach index 4 and no further.
    for (int i = 5; i < 9; ++i) EXPECT_EQ(fd[i], -7.0f);
    // tt: stored 2x1 and 1x2 (used 1x2 and 2x1).
    ASSERT_EQ(omkmMul_tt_64f_P(dpa, 0, 1, 2, dpb, 0, 2, 1, dpd, 0), omkStsOk);
    // Element (0, 0) of the order-3 code reads A(0, k) = stored (k, 0) at entry k*1 and
    // B(k, 0) = stored (0, k) at entry k.
    EXPECT_EQ(dd[0], std::fma(da[2], db[2], std::fma(da[0], db[0], da[1] * db[1])));
    for (int i = 5; i < 9; ++i) EXPECT_EQ(dd[i], -7.0);
    // Every other member computes the 1x1 result alone from two terms.
    ASSERT_EQ(omkmMul_mm_64f_P(dpa, 0, 2, 1, dpb, 0, 1, 2, dpd, 0), omkStsOk);
    EXPECT_EQ(dd[0], std::fma(da[1], db[1], std::fma(da[0], db[0], 0.0)));
    // OR = 2 (2x2 by 2x2) is not an order of the straight-line code: the general pointer loop.
    ASSERT_EQ(omkmMul_mm_32f_P(fpa, 0, 2, 2, fpb, 0, 2, 2, fpd, 0), omkStsOk);
    EXPECT_EQ(fd[0], std::fma(fa[1], fb[2], std::fma(fa[0], fb[0], 0.0f)));
    EXPECT_EQ(fd[3], std::fma(fa[3], fb[3], std::fma(fa[2], fb[1], 0.0f)));
}

TEST(MulResults, Mm4x4BothAlignmentsAndInPlace) {
    alignas(32) float buf[3 * 16 + 8];
    std::mt19937 rng(31);
    for (int shift : {0, 1, 2, 3}) {  // 0: every operand 16-byte aligned
        float* a = buf + shift;
        float* b = buf + 16 + shift;
        float* d = buf + 32 + shift;
        for (int i = 0; i < 16; ++i) { a[i] = float(sourceValue(rng)); b[i] = float(sourceValue(rng)); }
        float want[16];
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) {
                float t = a[4 * i + 1] * b[4 + j];
                t = std::fma(a[4 * i], b[j], t);
                t = std::fma(a[4 * i + 2], b[8 + j], t);
                want[4 * i + j] = std::fma(a[4 * i + 3], b[12 + j], t);
            }
        ASSERT_EQ(omkmMul_mm4x4_32f(a, b, d), omkStsOk);
        for (int i = 0; i < 16; ++i) EXPECT_EQ(d[i], want[i]) << "shift " << shift << " element " << i;
        // In place over either source: both are read whole first.
        float a2[16], b2[16];
        std::copy(a, a + 16, a2);
        std::copy(b, b + 16, b2);
        ASSERT_EQ(omkmMul_mm4x4_32f(a2, b, a2), omkStsOk);
        ASSERT_EQ(omkmMul_mm4x4_32f(a, b2, b2), omkStsOk);
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(a2[i], want[i]);
            EXPECT_EQ(b2[i], want[i]);
        }
    }
    // Only null pointers are checked; nothing is written on failure.
    float a[16] = {}, d[16];
    std::fill_n(d, 16, 3.0f);
    EXPECT_EQ(omkmMul_mm4x4_32f(nullptr, a, d), omkStsNullPtr);
    EXPECT_EQ(omkmMul_mm4x4_32f(a, nullptr, d), omkStsNullPtr);
    EXPECT_EQ(omkmMul_mm4x4_32f(a, a, nullptr), omkStsNullPtr);
    for (float x : d) EXPECT_EQ(x, 3.0f);
}

// ---- checks ----

// Null, count, size, size agreement, stride, ROI shift; each fault alone and every pair of faults.
TEST(MulChecks, EveryMemberInItsOrder) {
    std::mt19937 rng(37);
    for (const Member& m : members()) {
        MulCase mc;
        buildProduct(mc, m, {2, 3, 2}, 3, {Style::Gapped}, rng);
        std::vector<Fault> faults = faultsOf(mc.c);
        // A disagreeing inner dimension on either side, with every size still valid.
        for (size_t at : {mc.aK, mc.bK}) {
            Arg x = mc.c.args.args[at];
            ++x.i;
            faults.push_back({at, x, 'A'});
        }
        walkFaults(mc.c, m.hasArray() ? "NCSATR" : "NSATR", faults, expectedOf(mc));
        if (HasFatalFailure()) return;
    }
}

TEST(MulChecks, DocumentedCases) {
    float a[64] = {}, b[64] = {}, d[64];
    std::fill_n(d, 64, 5.0f);
    // Two 3-wide, 2-high sources: mm needs src1Width = src2Height, mt src1Width = src2Width.
    EXPECT_EQ(omkmMul_mm_32f(a, 12, 4, 3, 2, b, 12, 4, 3, 2, d, 8, 4), omkStsSizeMismatch);
    EXPECT_EQ(int(omkStsSizeMismatch), -204);
    for (float x : d) EXPECT_EQ(x, 5.0f);
    EXPECT_EQ(omkmMul_mt_32f(a, 12, 4, 3, 2, b, 12, 4, 3, 2, d, 8, 4), omkStsOk);
    EXPECT_EQ(d[0], 0.0f);
    EXPECT_EQ(d[3], 0.0f);
    EXPECT_EQ(d[4], 5.0f);  // 2x2 result
    // A mismatch is reported before a bad stride.
    EXPECT_EQ(omkmMul_mm_32f(a, 12, 3, 3, 2, b, 12, 4, 3, 2, d, 8, 4), omkStsSizeMismatch);
    EXPECT_EQ(omkmMul_mm_32f(a, 12, 3, 3, 2, b, 12, 4, 2, 3, d, 8, 4), omkStsBadStride);
    // A zero count before any size is looked at; null pointers before the count.
    EXPECT_EQ(omkmMul_mama_32f(a, 64, 16, 4, 0, 4, b, 64, 16, 4, 4, 4, d, 64, 16, 4, 0), omkStsBadCount);
    EXPECT_EQ(int(omkStsBadCount), -203);
    EXPECT_EQ(omkmMul_mama_32f(nullptr, 64, 16, 4, 4, 4, b, 64, 16, 4, 4, 4, d, 64, 16, 4, 0), omkStsNullPtr);
    // mv and tv: the vector's length against the matrix's width or height.
    EXPECT_EQ(omkmMul_mv_32f(a, 12, 4, 3, 2, b, 4, 2, d, 4), omkStsSizeMismatch);
    EXPECT_EQ(omkmMul_tv_32f(a, 12, 4, 3, 2, b, 4, 2, d, 4), omkStsOk);
    // The _P object stride is checked; the single operand of an _L member is standard.
    const float* pa[16];
    float* pd[16];
    for (int i = 0; i < 16; ++i) { pa[i] = a + i; pd[i] = d + i; }
    EXPECT_EQ(omkmMul_mama_32f_P(pa, 0, 6, 2, 2, pa, 0, 4, 2, 2, pd, 0, 16, 1), omkStsBadStride);
    const float* la[1] = {a};
    float* ld[1] = {d};
    EXPECT_EQ(omkmMul_mam_32f_L(la, 0, 8, 4, 2, 2, b, 8, 6, 2, 2, ld, 0, 8, 4, 1), omkStsBadStride);
    EXPECT_EQ(omkmMul_mam_32f_L(la, 2, 8, 4, 2, 2, b, 8, 4, 2, 2, ld, 0, 8, 4, 1), omkStsBadRoiShift);
}

// ---- serial limits ----
namespace {

int64_t workOf(const Member& m, const Stored& s, int64_t count) {
    const int64_t e1 = int64_t(s.aw) * s.ah, e2 = int64_t(s.bw) * s.bh;
    const int64_t ed = int64_t(kindA(m) == 'm' ? s.ah : s.aw) *
                       (kindB(m) == 'v' ? 1 : kindB(m) == 'm' ? s.bw : s.bh);
    const auto ops = m.operands();
    if (ops[0].second && ops[1].second) return count * (e1 + e2 + ed);
    if (ops[1].second) return e1 + count * (e2 + ed);
    return e2 + count * (e1 + ed);
}

// A shape and a count whose work is exactly `target`, searched over small products.
bool shapeWithWork(const Member& m, int64_t target, Used& u, int& count) {
    for (int M = 1; M <= 16; ++M)
        for (int K = 1; K <= 64; ++K)
            for (int N = 1; N <= (kindB(m) == 'v' ? 1 : 16); ++N) {
                const Used t{M, K, N};
                const Stored s = storedOf(m, t);
                if (orQuirkShape(m, s)) continue;
                const int64_t w1 = workOf(m, s, 1), w0 = workOf(m, s, 0), per = w1 - w0;
                if ((target - w0) % per == 0 && target - w0 >= per) {
                    u = t;
                    count = int((target - w0) / per);
                    return true;
                }
            }
    return false;
}

}  // namespace

// With a budget of one thread, a call whose work passes its limit asks for the budget once; a
// call whose work is the limit itself stays serial and never asks.
TEST(MulLimits, EveryArrayMemberAtItsExactBoundary) {
    probe::Budget one(1);
    std::mt19937 rng(41);
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        struct Variant { std::vector<Style> styles; int limit; };
        std::vector<Variant> variants;
        if (m.desc == Desc::P) {
            variants = {{{Style::Packed}, 1440}, {{Style::Gapped}, 1440}};
        } else {
            const int contiguous = m.desc == Desc::L ? 3600 : m.esize == 4 ? 2500 : 3600;
            variants = {{{Style::Packed}, contiguous},
                        {{Style::PaddedRows}, contiguous},
                        {{Style::Gapped}, 1440},
                        {{Style::Packed, Style::Packed, Style::Gapped}, 1440}};
        }
        for (const Variant& v : variants)
            for (int64_t target : {int64_t(v.limit), int64_t(v.limit) + 1}) {
                Used u;
                int count;
                ASSERT_TRUE(shapeWithWork(m, target, u, count)) << m.name << " work " << target;
                MulCase mc;
                buildProduct(mc, m, u, count, v.styles, rng);
                probe::resetCalls();
                runProduct(mc);
                ASSERT_EQ(probe::calls(), target > v.limit ? 1 : 0)
                    << m.name << " " << u.M << "x" << u.K << "x" << u.N << " count " << count << " work " << target;
            }
    }
}

TEST(MulLimits, SingleObjectsNeverAsk) {
    probe::Budget one(1);
    std::vector<float> a(64 * 64, 1.0f), d(a.size());
    probe::resetCalls();
    EXPECT_EQ(omkmMul_mm_32f(a.data(), 256, 4, 64, 64, a.data(), 256, 4, 64, 64, d.data(), 256, 4), omkStsOk);
    EXPECT_EQ(d[0], 64.0f);
    EXPECT_EQ(probe::calls(), 0);
}

// ---- parallel runs ----

// Budgets 2, 3 and 4 give the same bits as the serial run, and ask for the budget twice.
TEST(MulParallel, BitIdenticalToSerialForEveryArrayMember) {
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        for (Used u : {Used{3, 3, 3}, Used{2, 5, 3}})
            for (const auto& styles : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                std::mt19937 rng(43);
                MulCase serial;
                buildProduct(serial, m, u, 1003, styles, rng);
                {
                    probe::Budget one(1);
                    runProduct(serial);
                    ASSERT_EQ(probe::calls(), 1) << m.name;
                }
                for (int budget : {2, 3, 4}) {
                    std::mt19937 again(43);
                    MulCase par;
                    buildProduct(par, m, u, 1003, styles, again);
                    probe::Budget b(budget);
                    ASSERT_EQ(m.call(par.c.args), omkStsOk);
                    ASSERT_EQ(probe::calls(), 2) << m.name << " budget " << budget;
                    ASSERT_TRUE(par.c.arena.bytes == serial.c.arena.bytes) << m.name << " budget " << budget;
                }
            }
    }
}
