// Add and Sub: every member in every description, its check order, its serial limit, and its
// parallel runs, against the documented behaviour of each group.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstdlib>
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
        SINGLE_GROUP(Add, mm) SINGLE_GROUP(Add, tm) SINGLE_GROUP(Add, tt) SINGLE_GROUP(Add, vv) SINGLE_GROUP(Add, vc)
        ARRAY_GROUP(Add, mam) ARRAY_GROUP(Add, tam) ARRAY_GROUP(Add, mat) ARRAY_GROUP(Add, tat)
        ARRAY_GROUP(Add, mama) ARRAY_GROUP(Add, tama) ARRAY_GROUP(Add, tata)
        ARRAY_GROUP(Add, vav) ARRAY_GROUP(Add, vava) ARRAY_GROUP(Add, vac) ARRAY_GROUP(Add, vca) ARRAY_GROUP(Add, vaca)
        SINGLE_GROUP(Sub, mm) SINGLE_GROUP(Sub, tm) SINGLE_GROUP(Sub, mt) SINGLE_GROUP(Sub, tt)
        SINGLE_GROUP(Sub, vv) SINGLE_GROUP(Sub, vc) SINGLE_GROUP(Sub, cv)
        ARRAY_GROUP(Sub, mam) ARRAY_GROUP(Sub, tam) ARRAY_GROUP(Sub, mat) ARRAY_GROUP(Sub, tat)
        ARRAY_GROUP(Sub, mma) ARRAY_GROUP(Sub, tma) ARRAY_GROUP(Sub, mta) ARRAY_GROUP(Sub, tta)
        ARRAY_GROUP(Sub, mama) ARRAY_GROUP(Sub, tama) ARRAY_GROUP(Sub, tata) ARRAY_GROUP(Sub, mata)
        ARRAY_GROUP(Sub, vav) ARRAY_GROUP(Sub, vva) ARRAY_GROUP(Sub, vava) ARRAY_GROUP(Sub, vac) ARRAY_GROUP(Sub, cva)
        ARRAY_GROUP(Sub, vca) ARRAY_GROUP(Sub, cav) ARRAY_GROUP(Sub, vaca) ARRAY_GROUP(Sub, cava)
    };
    return all;
}

// Reference result of element (i, j) of object k: one operation in the element type.
double expected(Case& c, int k, int i, int j) {
    const double a = sourceAt(c, c.srcs[0], k, i, j), b = sourceAt(c, c.srcs[1], k, i, j);
    const bool add = c.m->op == "Add";
    if (c.m->esize == 4) return add ? double(float(a) + float(b)) : double(float(a) - float(b));
    return add ? a + b : a - b;
}

const Member& memberNamed(const std::string& name) {
    for (const Member& m : members())
        if (m.name == name) return m;
    throw std::runtime_error("no member " + name);
}

std::vector<const Member*> select(bool (*keep)(const Member&)) {
    std::vector<const Member*> out;
    for (const Member& m : members())
        if (keep(m)) out.push_back(&m);
    return out;
}

}  // namespace

TEST(AddSubMembers, TheListCoversBothFamilies) {
    std::set<std::string> names;
    int add = 0, sub = 0;
    for (const Member& m : members()) {
        names.insert(m.name);
        (m.op == "Add" ? add : sub)++;
    }
    EXPECT_EQ(names.size(), members().size());
    EXPECT_EQ(add, 92);  // the three fixed-length forms are tested on their own
    EXPECT_EQ(sub, 154);
}

// Every member, every description, over shapes that reach the straight-line orders 3 to 6, odd and
// even row lengths, and layouts packed, with padded rows, with gaps between elements, and mixed.
TEST(AddSubResults, EveryMemberEveryLayout) {
    probe::Budget serial(1);
    std::mt19937 rng(7);
    const std::vector<std::pair<int, int>> matrixShapes = {{3, 3}, {4, 4}, {5, 5}, {6, 6}, {1, 1},
                                                           {2, 3}, {7, 5}, {9, 2}, {4, 6}};
    const std::vector<int> lengths = {1, 2, 3, 4, 5, 6, 7, 16, 17, 37};
    const std::vector<std::vector<Style>> styles = {
        {Style::Packed}, {Style::PaddedRows}, {Style::Gapped},
        {Style::Gapped, Style::Packed, Style::PaddedRows}, {Style::Packed, Style::PaddedRows, Style::Packed}};
    for (const Member& m : members()) {
        std::vector<std::pair<int, int>> shapes = matrixShapes;
        if (!m.isMatrix()) {
            shapes.clear();
            for (int n : lengths) shapes.push_back({n, 1});
        }
        for (auto [w, h] : shapes)
            for (const auto& st : styles)
                for (int count : {1, 5}) {
                    if (count > 1 && !m.hasArray()) continue;
                    Case c;
                    c.m = &m;
                    c.width = w;
                    c.height = h;
                    c.count = count;
                    build(c, st, rng);
                    runAndVerify(c, expected);
                    if (HasFatalFailure()) return;
                }
    }
}

TEST(AddSubResults, FixedLengthFormsAddInPlaceWithoutChecks) {
    struct Fixed { OmkStatus (*fn)(const Omk32f*, const Omk32f*, Omk32f*); int n; bool add; };
    const Fixed fixed[] = {{omkmAdd_v2_32f, 2, true}, {omkmAdd_v3_32f, 3, true}, {omkmAdd_v4_32f, 4, true},
                           {omkmSub_v2_32f, 2, false}, {omkmSub_v3_32f, 3, false}, {omkmSub_v4_32f, 4, false}};
    for (const Fixed& f : fixed) {
        const float a0[6] = {1.5f, 1e-8f, -3.25f, 7.0f, 99.0f, 99.0f}, b[5] = {0.1f, 1.0f, 2.5f, -1e7f, 42.0f};
        float a[6], want[4];
        std::copy(a0, a0 + 6, a);
        for (int j = 0; j < f.n; ++j) want[j] = f.add ? a[j] + b[j] : a[j] - b[j];
        // Destination identical to the first source.
        EXPECT_EQ(f.fn(a, b, a), omkStsOk);
        for (int j = 0; j < f.n; ++j) EXPECT_EQ(a[j], want[j]) << f.n << " element " << j;
        for (int j = f.n; j < 6; ++j) EXPECT_EQ(a[j], a0[j]) << "wrote past the fixed length " << f.n;
        // Overlapping first source and destination: the sources are read before anything is stored.
        float x[5] = {1, 2, 3, 4, 5};
        float y[4] = {10, 20, 30, 40};
        float w2[4];
        for (int j = 0; j < f.n; ++j) w2[j] = f.add ? x[j] + y[j] : x[j] - y[j];
        EXPECT_EQ(f.fn(x, y, x + 1), omkStsOk);
        for (int j = 0; j < f.n; ++j) EXPECT_EQ(x[j + 1], w2[j]);
    }
}

TEST(AddSubResults, ConstantMinusVectorIsTheNegativeOfVectorMinusConstant) {
    const float v[5] = {1.0f, -2.5f, 1e-7f, 3e10f, 0.3f};
    float a[5], b[5];
    ASSERT_EQ(omkmSub_cv_32f(v, 4, 0.1f, a, 4, 5), omkStsOk);
    ASSERT_EQ(omkmSub_vc_32f(v, 4, 0.1f, b, 4, 5), omkStsOk);
    for (int j = 0; j < 5; ++j) EXPECT_EQ(a[j], -b[j]);
}

// ---- checks ----
namespace {

// The documented order of each member's checks: N null, C count, S size, T stride, R ROI shift.
std::string checkOrder(const Member& m) {
    if (!m.hasArray()) return "NSTR";
    if (m.desc == Desc::Std && (m.group == "mam" || m.group == "mma")) return "NCTS";
    if (m.group == "vav") return m.desc == Desc::Std ? "NSTC" : m.desc == Desc::L ? "NSTRC" : "NSTCR";
    return "NCSTR";
}

}  // namespace

// Each single fault gives its status; of two faults the one checked first wins; nothing is written.
TEST(AddSubChecks, EveryMemberInItsOrder) {
    std::mt19937 rng(11);
    for (const Member& m : members()) {
        Case c;
        c.m = &m;
        c.width = 3;
        c.height = 2;
        c.count = 3;
        build(c, {Style::Gapped}, rng);
        walkFaults(c, checkOrder(m), faultsOf(c), expected);
        if (HasFatalFailure()) return;
    }
}

TEST(AddSubChecks, DocumentedCases) {
    float buf[64] = {};
    // Strides before sizes in mam, sizes first in mat.
    EXPECT_EQ(omkmAdd_mam_32f(buf, 64, 16, 3, buf, 16, 4, buf, 64, 16, 4, 0, 4, 2), omkStsBadStride);
    EXPECT_EQ(omkmAdd_mat_32f(buf, 64, 16, 3, buf, 16, 4, buf, 64, 16, 4, 0, 4, 2), omkStsBadSize);
    // vav: size before stride before count.
    EXPECT_EQ(omkmAdd_vav_32f(buf, 16, 4, buf, 4, buf, 16, 4, 0, 0), omkStsBadSize);
    EXPECT_EQ(omkmAdd_vav_32f(buf, 16, 6, buf, 4, buf, 16, 4, 4, 0), omkStsBadStride);
    // A null pointer outranks a zero count; a zero count with good pointers is a bad count.
    EXPECT_EQ(omkmAdd_mama_32f(nullptr, 64, 16, 4, buf, 64, 16, 4, buf, 64, 16, 4, 4, 4, 0), omkStsNullPtr);
    EXPECT_EQ(omkmAdd_mama_32f(buf, 64, 16, 4, buf, 64, 16, 4, buf, 64, 16, 4, 4, 4, 0), omkStsBadCount);
    // Stride validity per element type: 4 is good for 32f and bad for 64f.
    double dbuf[64] = {};
    EXPECT_EQ(omkmAdd_vv_32f(buf, 4, buf, 4, buf, 4, 3), omkStsOk);
    EXPECT_EQ(omkmAdd_vv_64f(dbuf, 4, dbuf, 8, dbuf, 8, 3), omkStsBadStride);
    EXPECT_EQ(omkmAdd_vv_64f(dbuf, 12, dbuf, 8, dbuf, 8, 3), omkStsBadStride);
    EXPECT_EQ(omkmAdd_vv_64f(dbuf, 16, dbuf, 8, dbuf, 8, 3), omkStsOk);
    // A stride of a constant array is checked even with one object; a ROI shift of 0 is valid.
    EXPECT_EQ(omkmAdd_vca_32f(buf, 4, buf, 0, buf, 16, 4, 4, 1), omkStsBadStride);
    EXPECT_EQ(omkmAdd_vaca_32f(buf, 16, 4, buf, 4, buf, 16, 4, 4, 1), omkStsOk);
    // An object stride is checked even when count is 1.
    EXPECT_EQ(omkmAdd_vava_32f(buf, 0, 4, buf, 16, 4, buf, 16, 4, 4, 1), omkStsBadStride);
}

TEST(AddSubChecks, PointerTableEntriesAreNotChecked) {
    // A _P call with a null entry in its table fails only when it reads that entry, so a call whose
    // checks fail for another reason returns that reason.
    float x = 1;
    const float* table[4] = {&x, nullptr, &x, &x};
    float* dtable[4] = {&x, &x, &x, &x};
    EXPECT_EQ(omkmAdd_vv_32f_P(table, 0, table, 0, dtable, 0, 0), omkStsBadSize);
    EXPECT_EQ(omkmAdd_vv_32f_P(table, 2, table, 0, dtable, 0, 4), omkStsBadRoiShift);
}

// ---- serial limits ----
namespace {

struct Limit {
    int64_t (*work)(int64_t w, int64_t h, int64_t c);
    int std32, std32Strided, std64, L, P;
    bool atLimitParallel;
};

// The documented work figures and limits, by group.
Limit limitOf(const std::string& g) {
    static const std::map<std::string, Limit> rows = [] {
        const Limit matrixAndArray{[](int64_t w, int64_t h, int64_t c) { return w * h * (2 * c + 1); }, 3000, 2000, 2000, 2000, 2000, true};
        const Limit twoMatrixArrays{[](int64_t w, int64_t h, int64_t c) { return 3 * c * w * h; }, 3000, 2000, 2000, 2000, 2000, true};
        const Limit vectorAndArray{[](int64_t n, int64_t, int64_t c) { return (2 * c + 1) * n; }, 4800, 4800, 1400, 2500, 1500, false};
        const Limit twoVectorArrays{[](int64_t n, int64_t, int64_t c) { return 3 * c * n; }, 4800, 4800, 1400, 2500, 1500, false};
        const Limit vectorAndConstArray{[](int64_t n, int64_t, int64_t c) { return n * (c + 1) + c; }, 4800, 4800, 1400, 2500, 1500, false};
        const Limit arrayAndConstArray{[](int64_t n, int64_t, int64_t c) { return c * (2 * n + 1); }, 4800, 4800, 1400, 2500, 1500, false};
        const Limit constAndArray{[](int64_t, int64_t, int64_t c) { return 2 * c; }, 4799, 4799, 1399, 2499, 1499, false};
        std::map<std::string, Limit> r;
        for (auto g : {"mam", "tam", "mat", "tat", "mma", "tma", "mta", "tta"}) r.emplace(g, matrixAndArray);
        for (auto g : {"mama", "tama", "tata", "mata"}) r.emplace(g, twoMatrixArrays);
        for (auto g : {"vav", "vva", "vac"}) r.emplace(g, vectorAndArray);
        r.emplace("vava", twoVectorArrays);
        for (auto g : {"vca", "cav"}) r.emplace(g, vectorAndConstArray);
        for (auto g : {"vaca", "cava"}) r.emplace(g, arrayAndConstArray);
        r.emplace("cva", constAndArray);
        return r;
    }();
    return rows.at(g);
}

}  // namespace

// With a budget of one thread, a call that passes its limit asks for the budget once (and then runs
// serially); a call within its limit never asks.
TEST(AddSubLimits, EveryArrayMemberAtItsExactBoundary) {
    probe::Budget one(1);
    std::mt19937 rng(3);
    for (const Member* m : select([](const Member& m) { return m.hasArray(); })) {
        const Limit l = limitOf(m->group);
        struct Variant { std::vector<Style> styles; int limit; };
        std::vector<Variant> variants;
        const int layoutLimit = m->desc == Desc::L ? l.L : m->desc == Desc::P ? l.P : m->esize == 8 ? l.std64 : -1;
        if (layoutLimit >= 0) {
            variants = {{{Style::Packed}, layoutLimit}, {{Style::Gapped}, layoutLimit}};
        } else {
            // 32-bit standard: contiguous when every element stride is 4 bytes.
            variants = {{{Style::Packed}, l.std32},
                        {{Style::PaddedRows}, l.std32},
                        {{Style::Gapped}, l.std32Strided},
                        {{Style::Packed, Style::Gapped, Style::Packed}, m->isMatrix() ? l.std32Strided : l.std32}};
        }
        for (const Variant& v : variants)
            for (const LimitShape& s : aroundLimit(l.work, v.limit, m->isMatrix())) {
                Case c;
                c.m = m;
                c.width = s.w;
                c.height = s.h;
                c.count = s.c;
                build(c, v.styles, rng);
                probe::resetCalls();
                runAndVerify(c, expected);
                const bool parallel = l.atLimitParallel ? s.work >= v.limit : s.work > v.limit;
                ASSERT_EQ(probe::calls(), parallel ? 1 : 0)
                    << m->name << " " << s.w << "x" << s.h << " count " << s.c << " work " << s.work << " limit "
                    << v.limit;
            }
    }
}

TEST(AddSubLimits, DocumentedCases) {
    probe::Budget one(1);
    std::vector<float> a(4 * 4 * 200 * 2, 1.0f), d(a.size());
    auto mam = [&](int count, int elemStride) {
        probe::resetCalls();
        EXPECT_EQ(omkmAdd_mam_32f(a.data(), 16 * elemStride, 4 * elemStride, elemStride, a.data(), 4 * elemStride,
                                  elemStride, d.data(), 16 * elemStride, 4 * elemStride, elemStride, 4, 4, count),
                  omkStsOk);
        return probe::calls();
    };
    EXPECT_EQ(mam(93, 4), 0);  // work 2992
    EXPECT_EQ(mam(94, 4), 1);  // work 3024
    EXPECT_EQ(mam(61, 8), 0);  // work 1968
    EXPECT_EQ(mam(62, 8), 1);  // work 2000: the limit itself runs in parallel
    // cva counts objects only: 2 * 2400 > 4799.
    std::vector<float> v(2400 * 3, 2.0f), r(v.size());
    for (int len : {1, 3}) {
        probe::resetCalls();
        EXPECT_EQ(omkmSub_cva_32f(v.data(), 4 * len, 4, 1.0f, r.data(), 4 * len, 4, len, 2400), omkStsOk);
        EXPECT_EQ(probe::calls(), 1) << len;
        probe::resetCalls();
        EXPECT_EQ(omkmSub_cva_32f(v.data(), 4 * len, 4, 1.0f, r.data(), 4 * len, 4, len, 2399), omkStsOk);
        EXPECT_EQ(probe::calls(), 0) << len;
    }
    // Single-object members never ask.
    probe::resetCalls();
    EXPECT_EQ(omkmAdd_mm_32f(a.data(), 400, 4, a.data(), 400, 4, d.data(), 400, 4, 100, 30), omkStsOk);
    EXPECT_EQ(probe::calls(), 0);
}

// ---- parallel runs ----

// Budgets 2, 3 and 4 give the same bits as the serial run, and ask for the budget twice.
TEST(AddSubParallel, BitIdenticalToSerialForEveryArrayMember) {
    for (const Member* m : select([](const Member& m) { return m.hasArray(); })) {
        for (const auto& styles : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
            Case serial = largeCase(*m, 5, styles);
            {
                probe::Budget one(1);
                runAndVerify(serial, expected);
                ASSERT_EQ(probe::calls(), 1) << m->name;
            }
            for (int budget : {2, 3, 4}) {
                Case par = largeCase(*m, 5, styles);
                probe::Budget b(budget);
                ASSERT_EQ(m->call(par.args), omkStsOk);
                ASSERT_EQ(probe::calls(), 2) << m->name << " budget " << budget;
                ASSERT_TRUE(par.arena.bytes == serial.arena.bytes) << m->name << " budget " << budget;
            }
        }
    }
}

TEST(AddSubParallel, FewerObjectsThanThreadsRunSerially) {
    // 64x64 matrices: three objects are far above the limit, but fewer than a budget of 4.
    const Member& m = memberNamed("omkmAdd_mama_64f");
    std::mt19937 rng(9);
    Case c;
    c.m = &m;
    c.width = c.height = 64;
    c.count = 3;
    build(c, {Style::Packed}, rng);
    probe::Budget four(4);
    runAndVerify(c, expected);
    EXPECT_EQ(probe::calls(), 1);
}

TEST(AddSubParallel, CallsFromInsideAParallelRegionRunAsATeamOfOne) {
    const Member& m = memberNamed("omkmSub_tama_32f_L");
    probe::Budget four(4);
    std::vector<Case> cases(4);
    for (int t = 0; t < 4; ++t) cases[t] = largeCase(m, 20 + t, {Style::Gapped});
    std::vector<std::vector<unsigned char>> before(4);
    for (int t = 0; t < 4; ++t) before[t] = cases[t].arena.bytes;
    int failures = 0;
#pragma omp parallel for num_threads(2) reduction(+ : failures)
    for (int t = 0; t < 4; ++t) failures += m.call(cases[t].args) != omkStsOk;
    EXPECT_EQ(failures, 0);
    // Same results as a serial call on fresh copies.
    for (int t = 0; t < 4; ++t) {
        Case ref = largeCase(m, 20 + t, {Style::Gapped});
        probe::Budget one(1);
        ASSERT_EQ(m.call(ref.args), omkStsOk);
        EXPECT_TRUE(ref.arena.bytes == cases[t].arena.bytes) << t;
    }
}

// Run by CTest with OMP_THREAD_LIMIT=2: the runtime grants fewer threads than the budget asks for,
// and the split over the team it grants still covers every object.
TEST(AddSubParallel, TeamSmallerThanRequested) {
    if (omp_get_thread_limit() > 2) GTEST_SKIP() << "needs OMP_THREAD_LIMIT=2";
    for (const char* name : {"omkmAdd_mama_32f", "omkmSub_vaca_64f_P", "omkmSub_cva_32f_L"}) {
        Case c = largeCase(memberNamed(name), 31, {Style::PaddedRows});
        probe::Budget four(4);
        runAndVerify(c, expected);
        EXPECT_EQ(probe::calls(), 2);
    }
}
