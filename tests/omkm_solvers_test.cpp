// The solvers' own cases. Every call is compared over its whole arena with the family's reference
// (families/solvers.cpp); the statuses and the values the header gives are asserted here from the documented rules.
#include <gtest/gtest.h>

#include "families.h"

using namespace omkt;

namespace {

std::vector<const Export*> members(const std::string& op) {
    std::vector<const Export*> out;
    for (const Export& e : exportTable())
        if (e.call && parseName(e.name).op == op) out.push_back(&e);
    return out;
}
bool f32(const Export& ex) { return parseName(ex.name).type == "32f"; }
bool fixed(const Export& ex) { return parseName(ex.name).group == "m4"; }

// Order n (QR: width x height), arrays of `count`.
Shape shapeOf(const Export& ex, int n, int count = 3, std::vector<Style> styles = {kGapped, kPacked}, int h = 0) {
    Shape s;
    s.sizes = {{"widthHeight", n}, {"width", n}, {"height", h ? h : n}};
    s.count = parseName(ex.name).array() ? count : 1;
    s.styles = std::move(styles);
    return s;
}

// A call laid out and filled by its family, edited, run on the calling thread and compared over
// its whole arena with the reference; the call as it returned and its status.
struct Checked {
    Call c;
    OmkStatus status;
};
Checked check(const Export& ex, const Shape& s, const std::function<void(Call&)>& edit) {
    const Family& f = *familyOf(parseName(ex.name));
    std::mt19937 rng(s.count);
    Checked r{prepared(f, ex, s, rng), omkStsOk};
    if (edit) edit(r.c);
    const OmkStatus want = expectSerial(f, r.c);
    r.status = r.c.run();
    EXPECT_EQ(r.status, want) << ex.name;
    EXPECT_EQ(firstDifference(r.c), "") << ex.name << " order " << s.size("widthHeight") << " x " << s.size("height");
    return r;
}

// Every element of every source matrix from v(i, j) (fixed-size forms: 4 x 4).
std::function<void(Call&)> matrix(std::function<double(int, int)> v) {
    return [v](Call& c) {
        Region& a = c["Src"];
        for (int k = 0; k < c.objects(a); ++k)
            for (int p = 0; p < (a.kind == Region::Fixed ? 16 : a.rows * a.cols); ++p) {
                const int cols = a.kind == Region::Fixed ? 4 : a.cols;
                c.set(a, k, p / cols, p % cols, v(p / cols, p % cols));
            }
    };
}
// Diagonals carry a value into a pivot exactly: v0 at (0, 0) (or (at, at)), v1 at (n-1, n-1), ones elsewhere.
std::function<void(Call&)> diagonal(double v0, int at = 0, double v1 = 1) {
    return [=](Call& c) {
        const int n = c["Src"].kind == Region::Fixed ? 4 : c["Src"].rows;
        matrix([=](int i, int j) { return i != j ? 0.0 : i == at ? v0 : i == n - 1 ? v1 : 1.0; })(c);
    };
}
// Source line `line` zero: a column, or for Cholesky row `line` up to the diagonal.
std::function<void(Call&)> zeroLine(int line) {
    return [line](Call& c) {
        const Region& a = c["Src"];
        const bool row = c.name.op[0] == 'C';
        for (int k = 0; k < c.objects(a); ++k)
            for (int q = 0; q < (row ? line + 1 : a.rows); ++q) c.set(a, k, row ? line : q, row ? q : line, 0);
    };
}

double tolOf(int n, bool single) {
    return single ? double(float(2 * n * n * n) * std::numeric_limits<float>::min())
                  : 2 * n * n * n * std::numeric_limits<double>::min();
}
double next(double v, double to, bool single) {
    return single ? double(std::nextafter(float(v), float(to))) : std::nextafter(v, to);
}

}  // namespace

// LU: orders 3 to 6 pass a pivot of 2^-125 (2^-1021) and fail the next number below; the other orders fail epsilon and
// pass the next number above. Det: a pivot below t gives 0, one at t goes on, the last one gives 0 at t (orders 3 and 4
// have no tolerance), never omkStsSingular. Invert: order 1 singular when |a| <= t; orders 3 to 6 when |det| < t;
// orders 2, 7 and 8 when a pivot falls below t or |det| <= t; the m4 form when |det| < 2^-119. Cholesky fails a pivot
// with 0 >= d. QR stops on a column whose sum of squares is below eps; eps itself and 1.5 eps pass.
TEST(SolverTolerances, ExactBounds) {
    for (const Export* ex : members("LUDecomp"))
        for (int n = 1; n <= 8; ++n) {
            const bool fx = n >= 3 && n <= 6, s = f32(*ex);
            const double tol = fx ? (s ? 0x1p-125 : 0x1p-1021) : (s ? 0x1p-23 : 0x1p-52);
            for (int at : {0, n / 2, n - 1})
                for (double v : {tol, -tol, next(tol, fx ? 0 : 1, s)})
                    EXPECT_EQ(check(*ex, shapeOf(*ex, n), diagonal(v, at)).status,
                              fx == (std::fabs(v) == tol) ? omkStsOk : omkStsSingular) << ex->name << " " << n;
        }
    for (const Export* ex : members("Det"))
        for (int n : {1, 2, 3, 4, 5, 6, 7, 8, 10}) {
            const bool closed = n == 3 || n == 4 || fixed(*ex), s = f32(*ex);
            const double t = tolOf(n, s);
            for (int at : {0, n / 2, n - 1})
                for (double v : {next(t, 0, s), t, -t, next(t, 1, s)}) {
                    Checked r = check(*ex, shapeOf(*ex, n), diagonal(v, at));
                    const bool zero = !closed && (std::fabs(v) < t || (at == n - 1 && std::fabs(v) == t));
                    EXPECT_EQ(r.status, omkStsOk);
                    EXPECT_EQ(r.c.value(r.c["Dst"], 0, 0, 0), zero ? 0 : v) << ex->name << " order " << n;
                }
            if (fixed(*ex)) break;
        }
    for (const Export* ex : members("Invert"))
        for (int n = 1; n <= 8; ++n) {
            const bool s = f32(*ex), fx = fixed(*ex);
            const double t = fx ? 0x1p-119 : tolOf(n, s), below = next(t, 0, s);
            std::vector<std::tuple<double, double, OmkStatus>> probes = {
                {below, 1, omkStsSingular}, {t, 1, omkStsOk}, {-below, 1, omkStsSingular}, {0, 1, omkStsSingular}};
            if (n == 1 && !fx)
                probes = {{0, 0, omkStsSingular}, {t, 0, omkStsSingular}, {-t, 0, omkStsSingular},
                          {next(t, 1, s), 0, omkStsOk}};
            if (!fx && (n == 2 || n >= 7))
                probes = {{below, 1, omkStsSingular}, {1, below, omkStsSingular}, {1, t, omkStsSingular},
                          {t, 1, omkStsSingular}, {t, t, omkStsSingular}, {t, 2, omkStsOk}};
            for (auto [v0, v1, status] : probes)
                EXPECT_EQ(check(*ex, shapeOf(*ex, n), diagonal(v0, 0, v1)).status, status) << ex->name << " " << n;
            if (fx) break;
        }
    for (const Export* ex : members("CholeskyDecomp"))
        for (int n = 1; n <= 8; ++n)
            for (int at = 0; at < n; ++at)
                for (double d : {0.0, -0.0, -1.0, next(0, 1, f32(*ex)), double(NAN)})
                    EXPECT_EQ(check(*ex, shapeOf(*ex, n), diagonal(d, at)).status,
                              d > 0 || std::isnan(d) ? omkStsOk : omkStsNotPosDefinite);
    for (const Export* ex : members("QRDecomp")) {
        // Column 0 of a 2 x 6 matrix holds `terms` entries x, exactly x*x = eps/2 (32f) or eps/4.
        const int unit = f32(*ex) ? 1 : 2;
        for (int terms : {unit, 2 * unit, 3 * unit}) {
            const auto column = [&](Call& c) {
                const Region& a = c["Src"];
                for (int k = 0; k < c.objects(a); ++k)
                    for (int i = 0; i < a.rows; ++i) c.set(a, k, i, 0, i >= terms ? 0 : unit == 1 ? 0x1p-12 : 0x1p-27);
            };
            EXPECT_EQ(check(*ex, shapeOf(*ex, 2, 3, {kPadded}, 6), column).status,
                      terms == unit ? omkStsDivByZero : omkStsOk) << ex->name << " " << terms;
        }
    }
}

// A zero column stops LU at its step (orders 3 to 6 have written p and the rows of the steps before, the others the
// whole copy factored up to there), Invert with nothing written, QR at its reflection (the earlier ones applied); a
// zero row stops Cholesky there, the rows before written. A column the first reflection leaves negligible stops QR at
// step 1. On one thread an array stops at its first failing object, also inside a block of objects side by side.
TEST(SolverFailures, WhatAFailingCallHasWritten) {
    const std::map<std::string, OmkStatus> failures = {{"LUDecomp", omkStsSingular},
                                                       {"Invert", omkStsSingular},
                                                       {"CholeskyDecomp", omkStsNotPosDefinite},
                                                       {"QRDecomp", omkStsDivByZero}};
    for (const auto& [op, status] : failures)
        for (const Export* ex : members(op)) {
            if (fixed(*ex)) continue;
            const bool qr = op[0] == 'Q';
            for (int n = 1; n <= 8; ++n)
                for (int h = n; h <= (qr ? std::min(n + 2, 8) : n); ++h)
                    for (int line = 0; line < (qr && n == h ? n - 1 : n); ++line)
                        EXPECT_EQ(check(*ex, shapeOf(*ex, n, 3, {kPadded}, h), zeroLine(line)).status, status)
                            << ex->name;
            if (qr)
                EXPECT_EQ(check(*ex, shapeOf(*ex, 3), matrix([](int i, int j) {
                              return j == 2 ? 1 + 2 * (i == 1) : (i + 1.0) * (j + 1);
                          })).status,
                          status);
            for (auto [n, count, bad] : {std::tuple{3, 5, 2}, {3, 19, 10}, {4, 19, 10}, {7, 5, 1}})
                if (parseName(ex->name).array())
                    EXPECT_EQ(
                        check(*ex, shapeOf(*ex, n, count, {kPacked}), [&](Call& c) { familyOf(c.name)->spoil(c, bad); })
                            .status,
                        status);
        }
}

// The closed forms of orders 3 and 4 keep a subnormal determinant of normal diagonals: 2^-120 * 2^-10 (2^-1000 *
// 2^-60), exactly. (Special values through every solver: the shared walk.)
TEST(SolverSpecialInputs, ClosedFormsKeepASubnormalDeterminant) {
    for (const Export* ex : members("Det"))
        for (int n : {3, 4}) {
            const bool s = f32(*ex);
            Checked r = check(*ex, shapeOf(*ex, n), diagonal(s ? 0x1p-120 : 0x1p-1000, 0, s ? 0x1p-10 : 0x1p-60));
            EXPECT_EQ(r.c.value(r.c["Dst"], 0, 0, 0), s ? 0x1p-130 : 0x1p-1060) << ex->name;
        }
}

// In place: LU decompositions, Invert of orders 3 to 6, LU solutions over the right-hand side (p identity off 3 to 6).
TEST(SolverInPlace, OverTheSourcesThatMayBeOverwritten) {
    for (const char* op : {"LUDecomp", "LUBackSubst", "Invert"})
        for (const Export* ex : members(op))
            for (int n = 1; n <= 8 && !fixed(*ex); ++n)
                for (int count : {1, 3, 19})
                    for (const auto& styles : {std::vector<Style>{kPacked}, std::vector<Style>{kGapped}}) {
                        if ((op[0] == 'I' && (n < 3 || n > 6)) || (count == 19 && op[0] != 'I')) continue;
                        Shape s = shapeOf(*ex, n, count, styles);
                        s.alias = op[2] == 'B' ? "Src2" : "Src";
                        check(*ex, s, [n](Call& c) {
                            if (c.name.op[2] == 'B' && (n < 3 || n > 6))
                                c.fill(c["SrcIndex"], [](int, int, int j) { return j; });
                        });
                    }
}

// omkmInvert_m4_32f with a null pDet gives the same inverse, or for a singular matrix its status with nothing written.
TEST(SolverFixedSize, InvertM4WithoutDet) {
    const std::vector<const Export*> inverts = members("Invert");
    const Export& ex = **std::find_if(inverts.begin(), inverts.end(), [](auto e) { return fixed(*e); });
    for (double d0 : {1.0, 0.0})
        for (int trial = 0; trial < 20; ++trial) {
            std::mt19937 rng(trial);
            const Family& f = *familyOf(parseName(ex.name));
            Call c = prepared(f, ex, Shape{}, rng);
            if (d0 == 0) diagonal(0)(c);
            EXPECT_EQ(expectSerial(f, c), d0 ? omkStsOk : omkStsSingular);
            std::copy_n(c.pristine.begin() + ptrdiff_t(c["Det"].off), 4, c.want.begin() + ptrdiff_t(c["Det"].off));
            c.args.args[size_t(c.argIndex("pDet"))].ptr = nullptr;
            EXPECT_EQ(c.run(), d0 ? omkStsOk : omkStsSingular);
            EXPECT_EQ(firstDifference(c), "");
        }
}

// The header's order-2 inverses: a minor element not above t counts as t, so source zeros give -+r*t: [[2, 0], [0, 4]]
// inverts to [[0.5, -t/8], [-t/8, 0.25]], [[1, 0], [3, 2]] to [[1, -t/2], [-1.5, 0.5]]; a permutation matrix of order
// 2, 7 or 8 gives its transpose, every zero a tiny +-r*t.
TEST(InvertExamples, MinorsNotAboveTheToleranceTakeIt) {
    for (const Export* ex : members("Invert")) {
        if (fixed(*ex)) continue;
        const double t = tolOf(2, f32(*ex));
        const std::vector<std::pair<std::vector<double>, std::vector<double>>> examples = {
            {{2, 0, 0, 4}, {0.5, -t / 8, -t / 8, 0.25}}, {{1, 0, 3, 2}, {1, -t / 2, -1.5, 0.5}}};
        for (const auto& [a, inverse] : examples) {
            Checked r = check(*ex, shapeOf(*ex, 2), matrix([&](int i, int j) { return a[size_t(i * 2 + j)]; }));
            for (int k = 0; k < r.c.objects(r.c["Dst"]); ++k)
                for (int e = 0; e < 4; ++e)
                    EXPECT_EQ(r.c.value(r.c["Dst"], k, e / 2, e % 2), inverse[size_t(e)]) << ex->name;
        }
        for (int n : {2, 7, 8}) {
            Checked r = check(*ex, shapeOf(*ex, n),
                              matrix([&](int i, int j) { return j == (i * 3 + 1) % n ? (i % 2 ? -2 : 0.5) : 0; }));
            int tiny = 0;
            for (int p = 0; p < n * n; ++p) {
                const double x = r.c.value(r.c["Dst"], 0, p / n, p % n);
                tiny += x != 0 && std::fabs(x) < 1e-20;
            }
            EXPECT_EQ(tiny, n * n - n) << ex->name;
        }
    }
}
