// Cholesky decomposition with a reciprocal diagonal and its back substitution: every member in
// every description, bit for bit against the factor and the solver computed here in the rounding
// order of the kernels, with the reciprocal square root, the pivot test and what a failing call
// has written, the check order, the serial limits and the parallel runs.
#include <gtest/gtest.h>
#include <immintrin.h>

#include <cstring>
#include <limits>
#include <map>
#include <set>

#include "solver_cases.h"

using namespace testing_omk;

namespace {

const std::vector<Member>& members() {
    static const std::vector<Member> all = {
        SINGLE_GROUP(CholeskyDecomp, m) ARRAY_GROUP(CholeskyDecomp, ma)
        SINGLE_GROUP(CholeskyBackSubst, mv) ARRAY_GROUP(CholeskyBackSubst, mva) ARRAY_GROUP(CholeskyBackSubst, mava)
    };
    return all;
}

bool decomp(const Member& m) { return m.op == "CholeskyDecomp"; }

// Orders 3 to 6 have straight-line kernels with fused chains; every other order runs the general
// loop with rounded products.
bool straight(int n) { return n >= 3 && n <= 6; }

template <class T> bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

// Inputs on which the other rounding order gives other bits, by kind of result and kernel.
std::map<std::string, int>& witnesses() {
    static std::map<std::string, int> w;
    return w;
}
std::string witnessKey(const char* what, int esize, int n) {
    return std::string(what) + (esize == 4 ? " 32f " : " 64f ") + (straight(n) ? "orders 3-6" : "general loop");
}

// 1 / sqrt(d): for 32f the processor's estimate refined by one Newton step, evaluated left to right
// without fusing; for 64f a rounded square root and a rounded division.
float reciprocalRoot(float d) {
    const float r0 = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(d)));
    return (r0 * -0.5f) * ((d * r0) * r0 - 3.0f);
}
double reciprocalRoot(double d) { return 1.0 / std::sqrt(d); }

template <class T> struct Factor {
    std::vector<T> l;  // row-major; (i, j) = L(i, j) for j < i, (i, i) = R(i)
    OmkStatus status;
    int rows;  // rows formed and written
};

// Row by row from the lower triangle of a; fused: each difference a chain of fma(-x, y, s) over
// ascending k; otherwise each product rounded and subtracted in turn. 0 >= d fails (NaN passes).
template <class T>
Factor<T> factorOf(const std::vector<T>& a, int n, bool fused) {
    Factor<T> f{std::vector<T>(size_t(n) * n, T(0)), omkStsOk, 0};
    auto L = [&](int i, int j) -> T& { return f.l[size_t(i) * n + j]; };
    auto minus = [&](T s, T x, T y) { return fused ? std::fma(-x, y, s) : s - x * y; };
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < i; ++j) {
            T s = a[size_t(i) * n + j];
            for (int k = 0; k < j; ++k) s = minus(s, L(i, k), L(j, k));
            L(i, j) = s * L(j, j);
        }
        T d = a[size_t(i) * n + i];
        for (int k = 0; k < i; ++k) d = minus(d, L(i, k), L(i, k));
        if (T(0) >= d) {
            f.status = omkStsNotPosDefinite;
            return f;
        }
        L(i, i) = reciprocalRoot(d);
        f.rows = i + 1;
    }
    return f;
}

// The arena after a call whose slices each stop at their first failing matrix: the lower triangles
// of the rows formed, never the strict upper triangle, never a failing row.
template <class T> OmkStatus expectDecomp(SolverCase& sc, const std::vector<Slice>& slices) {
    expectUnchanged(sc);
    OmkStatus status = omkStsOk;
    const int n = sc.n;
    for (const Slice& s : slices)
        for (int k = s.first; k < s.first + s.count; ++k) {
            const std::vector<T> a = matrixOf<T>(sc, k);
            const Factor<T> f = factorOf(a, n, straight(n));
            for (int i = 0; i < f.rows; ++i)
                for (int j = 0; j <= i; ++j) expectElement<T>(sc, k, i, j, f.l[size_t(i) * n + j]);
            if (f.status != omkStsOk) {
                if (status == omkStsOk) status = f.status;
                break;
            }
            const Factor<T> g = factorOf(a, n, !straight(n));
            if (g.status == omkStsOk && !sameBits(f.l, g.l))
                ++witnesses()[witnessKey("other decomposition order", sc.member().esize, n)];
        }
    return status;
}
OmkStatus expectDecompOver(SolverCase& sc, const std::vector<Slice>& slices) {
    return sc.member().esize == 4 ? expectDecomp<float>(sc, slices) : expectDecomp<double>(sc, slices);
}
OmkStatus expectSerialDecomp(SolverCase& sc) { return expectDecompOver(sc, {{0, sc.matrices()}}); }

// Symmetric positive definite: M*M^T + n*I from entries of M in [-1, 1), lower triangle rounded to
// the element type; the upper triangle holds NaN, which the decomposition never reads.
void setSpd(SolverCase& sc, int k, std::mt19937& rng) {
    const int n = sc.n;
    std::uniform_real_distribution<double> u(-1, 1);
    std::vector<double> mm(size_t(n) * n);
    for (double& v : mm) v = u(rng);
    setMatrix(sc, k, [&](int i, int j) {
        if (j > i) return std::numeric_limits<double>::quiet_NaN();
        double s = i == j ? n : 0;
        for (int t = 0; t < n; ++t) s += mm[size_t(i) * n + t] * mm[size_t(j) * n + t];
        return s;
    });
}

OmkStatus prepareDecomp(SolverCase& sc, std::mt19937& rng) {
    for (int k = 0; k < sc.matrices(); ++k) setSpd(sc, k, rng);
    return expectSerialDecomp(sc);
}

// ---- the back substitution ----
// General loop: sums of rounded products over ascending j, subtracted once, times R(i). Orders 3
// to 6: fused chains from the highest index down, times R(i).
template <class T>
std::vector<T> solutionOf(const std::vector<T>& l, const std::vector<T>& b, int n, bool fused) {
    auto L = [&](int i, int j) { return l[size_t(i) * n + j]; };
    std::vector<T> v(b);
    if (fused) {
        for (int i = 0; i < n; ++i) {
            T t = v[i];
            for (int j = i - 1; j >= 0; --j) t = std::fma(-L(i, j), v[j], t);
            v[i] = t * L(i, i);
        }
        for (int i = n - 1; i >= 0; --i) {
            T t = v[i];
            for (int j = n - 1; j > i; --j) t = std::fma(-L(j, i), v[j], t);
            v[i] = t * L(i, i);
        }
        return v;
    }
    for (int i = 0; i < n; ++i) {
        T y = v[i];
        if (i > 0) {
            T s = L(i, 0) * v[0];
            for (int j = 1; j < i; ++j) s = s + L(i, j) * v[j];
            y = y - s;
        }
        v[i] = y * L(i, i);
    }
    for (int i = n - 1; i >= 0; --i) {
        T y = v[i];
        if (i + 1 < n) {
            T s = L(i + 1, i) * v[i + 1];
            for (int j = i + 2; j < n; ++j) s = s + L(j, i) * v[j];
            y = y - s;
        }
        v[i] = y * L(i, i);
    }
    return v;
}

template <class T> void expectSolutions(SolverCase& sc) {
    expectUnchanged(sc);
    for (int k = 0; k < sc.vectors(); ++k) {
        const auto l = matrixOf<T>(sc, sc.matrixFor(k));
        const auto b = rhsOf<T>(sc, k);
        const std::vector<T> x = solutionOf(l, b, sc.n, straight(sc.n));
        for (int i = 0; i < sc.n; ++i) expectElement<T>(sc, k, 0, i, x[i]);
        if (!sameBits(x, solutionOf(l, b, sc.n, !straight(sc.n))))
            ++witnesses()[witnessKey("other solver order", sc.member().esize, sc.n)];
    }
}

// Factors as the decomposition stores them: L below the diagonal, reciprocals on it, and NaN in
// the strict upper triangle, which the solver never reads.
OmkStatus prepareSolve(SolverCase& sc, std::mt19937& rng) {
    for (int k = 0; k < sc.matrices(); ++k)
        setMatrix(sc, k, [&](int i, int j) {
            if (j > i) return std::numeric_limits<double>::quiet_NaN();
            return i == j ? std::fabs(entry(rng, -1, 0)) : entry(rng, -3, -1);
        });
    for (int k = 0; k < sc.vectors(); ++k) setRhs(sc, k, [&](int) { return entry(rng, -2, 2); });
    if (sc.member().esize == 4) expectSolutions<float>(sc);
    else expectSolutions<double>(sc);
    return omkStsOk;
}
OmkStatus prepareAny(SolverCase& sc, std::mt19937& rng) {
    return decomp(sc.member()) ? prepareDecomp(sc, rng) : prepareSolve(sc, rng);
}

const std::vector<std::vector<Style>>& layouts() {
    static const std::vector<std::vector<Style>> all = {
        {Style::Packed}, {Style::PaddedRows}, {Style::Gapped}, {Style::Gapped, Style::Packed, Style::PaddedRows},
        {Style::Packed, Style::Gapped}, {Style::PaddedRows, Style::Packed, Style::Gapped}};
    return all;
}

}  // namespace

TEST(CholeskyMembers, TheListCoversBothFamilies) {
    std::set<std::string> names;
    int decomps = 0;
    for (const Member& m : members()) names.insert(m.name), decomps += decomp(m);
    EXPECT_EQ(names.size(), 26u);
    EXPECT_EQ(decomps, 10);
}

// Orders 1 to 8 in packed, padded, gapped and mixed layouts: the lower triangle bit for bit, the
// strict upper triangle of the destination and every other byte unchanged.
TEST(CholeskyResults, EveryMemberOrderAndLayout) {
    probe::Budget serial(1);
    std::mt19937 rng(201);
    witnesses().clear();
    for (const Member& m : members())
        for (int n = 1; n <= 8; ++n)
            for (const auto& st : layouts())
                for (int count : {1, 3}) {
                    if (count > 1 && !m.hasArray()) continue;
                    SolverCase sc;
                    buildSolver(sc, m, n, count, st);
                    const OmkStatus status = prepareAny(sc, rng);
                    ASSERT_EQ(status, omkStsOk) << describe(sc);
                    callAndCompare(sc, status);
                    if (HasFatalFailure()) return;
                }
    for (const char* what : {"other decomposition order", "other solver order"})
        for (int esize : {4, 8})
            for (int n : {3, 7}) EXPECT_GT(witnesses()[witnessKey(what, esize, n)], 0) << witnessKey(what, esize, n);
}

// A pivot d with 0 >= d (zero, negative zero or negative) at row r, for every row of orders 1 to
// 8: the rows before r are written, row r and the rows after it keep their bytes.
TEST(CholeskyPivots, NonPositivePivotStopsBeforeItsRow) {
    std::mt19937 rng(203);
    for (const Member& m : members())
        for (int n = 1; decomp(m) && n <= 8; ++n)
            for (int r = 0; r < n; ++r)
                for (double bad : {0.0, -0.0, -1.0})
                    for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                        SolverCase sc;
                        buildSolver(sc, m, n, 1, st);
                        setSpd(sc, 0, rng);
                        // a(r, r) = 0 leaves d = -(L(r, 0)^2 + ...), which is negative after row 0.
                        setElement(sc, sc.matrix(), 0, r, r, bad);
                        ASSERT_EQ(expectSerialDecomp(sc), omkStsNotPosDefinite);
                        callAndCompare(sc, omkStsNotPosDefinite);
                        if (HasFatalFailure()) return;
                    }
}

TEST(CholeskyResults, DocumentedCases) {
    // [[4, 2], [2, 5]]: pivots 4 and 4.
    const double a[4] = {4, 2, 2, 5};
    double l[4] = {-7, -7, -7, -7};
    ASSERT_EQ(omkmCholeskyDecomp_m_64f(a, 16, 8, l, 16, 8, 2), omkStsOk);
    EXPECT_EQ(l[0], 0.5);
    EXPECT_EQ(l[2], 1.0);
    EXPECT_EQ(l[3], 0.5);
    EXPECT_EQ(l[1], -7.0);  // strict upper triangle
    // The identity: exactly 1 on the diagonal in 64f, the refined estimate in 32f.
    const double id[4] = {1, 0, 0, 1};
    ASSERT_EQ(omkmCholeskyDecomp_m_64f(id, 16, 8, l, 16, 8, 2), omkStsOk);
    EXPECT_EQ(l[0], 1.0);
    EXPECT_EQ(l[2], 0.0);
    EXPECT_EQ(l[3], 1.0);
    const float idf[4] = {1, 0, 0, 1};
    float lf[4] = {-7, -7, -7, -7};
    ASSERT_EQ(omkmCholeskyDecomp_m_32f(idf, 8, 4, lf, 8, 4, 2), omkStsOk);
    EXPECT_EQ(lf[0], reciprocalRoot(1.0f));
    EXPECT_NEAR(lf[0], 1.0f, 0x1p-21f);
    EXPECT_EQ(lf[2], 0.0f);
    EXPECT_EQ(lf[3], lf[0]);
    // a(0, 0) = 0: nothing written; a negative second pivot: row 0 written, row 1 not.
    const float zero[4] = {0, 1, 1, 1}, second[4] = {1, 9, 2, 1};
    std::fill_n(lf, 4, -7.0f);
    EXPECT_EQ(omkmCholeskyDecomp_m_32f(zero, 8, 4, lf, 8, 4, 2), omkStsNotPosDefinite);
    for (float v : lf) EXPECT_EQ(v, -7.0f);
    EXPECT_EQ(omkmCholeskyDecomp_m_32f(second, 8, 4, lf, 8, 4, 2), omkStsNotPosDefinite);
    EXPECT_EQ(lf[0], reciprocalRoot(1.0f));
    EXPECT_EQ(lf[1], -7.0f);
    EXPECT_EQ(lf[2], -7.0f);
    EXPECT_EQ(lf[3], -7.0f);
    // A NaN pivot passes: the factor is NaN from that row on and the call succeeds.
    for (int n : {1, 3, 7}) {
        std::vector<double> s(n * n, 0.0), d(n * n, -7.0);
        for (int i = 0; i < n; ++i) s[i * n + i] = 2;
        s[(n - 1) * n + n - 1] = std::numeric_limits<double>::quiet_NaN();
        EXPECT_EQ(omkmCholeskyDecomp_m_64f(s.data(), 8 * n, 8, d.data(), 8 * n, 8, n), omkStsOk) << n;
        EXPECT_TRUE(std::isnan(d[n * n - 1])) << n;
        if (n > 1) EXPECT_EQ(d[0], 1 / std::sqrt(2.0));
    }
}

// Order 1 stores R(a) alone: over a wide range of pivots the 32f value is the Newton-refined
// estimate, within 2^-21 of 1/sqrt(d), and the 64f value 1/sqrt(d) rounded twice.
TEST(CholeskyResults, ReciprocalSquareRoot) {
    std::mt19937 rng(207);
    std::uniform_real_distribution<double> mant(1, 4);
    std::uniform_int_distribution<int> ex(-60, 60);
    for (int t = 0; t < 2000; ++t) {
        const double d = std::ldexp(mant(rng), ex(rng));
        const float df = float(d);
        float rf = 0;
        ASSERT_EQ(omkmCholeskyDecomp_m_32f(&df, 4, 4, &rf, 4, 4, 1), omkStsOk);
        EXPECT_EQ(rf, reciprocalRoot(df)) << df;
        EXPECT_LE(std::fabs(double(rf) * std::sqrt(double(df)) - 1), 0x1p-21) << df;
        double rd = 0;
        ASSERT_EQ(omkmCholeskyDecomp_m_64f(&d, 8, 8, &rd, 8, 8, 1), omkStsOk);
        EXPECT_EQ(rd, 1.0 / std::sqrt(d)) << d;
    }
}

// In an array, the first failing matrix ends a call on the calling thread: the matrices after it
// keep their bytes. Above the limit each slice stops at its own first failure, the other slices
// are computed, and the call returns omkStsNotPosDefinite.
TEST(CholeskyArrays, FailuresStopTheirSlice) {
    std::mt19937 rng(211);
    struct Run { int n, count, budget; std::vector<int> failing; };
    const std::vector<Run> runs = {{3, 5, 1, {2}}, {7, 5, 2, {2}},  // below the limit: serial
                                   {5, 301, 2, {170}}, {5, 301, 3, {120, 250}}, {8, 118, 2, {60}}};
    for (const Member& m : members()) {
        if (!decomp(m) || !m.hasArray()) continue;
        for (const Run& r : runs) {
            SolverCase sc;
            buildSolver(sc, m, r.n, r.count, {Style::PaddedRows, Style::Gapped});
            for (int k = 0; k < r.count; ++k) {
                setSpd(sc, k, rng);
                if (std::find(r.failing.begin(), r.failing.end(), k) != r.failing.end())
                    setElement(sc, sc.matrix(), k, 2, 2, -1.0);
            }
            const bool parallel = r.n * r.n * r.count >= 7501;
            const std::vector<Slice> slices =
                parallel ? driverSlices(r.count, teamFor(r.budget)) : std::vector<Slice>{{0, r.count}};
            ASSERT_EQ(expectDecompOver(sc, slices), omkStsNotPosDefinite);
            probe::Budget b(r.budget);
            callAndCompare(sc, omkStsNotPosDefinite);
            EXPECT_EQ(probe::calls(), parallel ? 2 : 0);
            if (HasFatalFailure()) return;
        }
    }
}

// Symmetric systems diagonally dominant by rows (|a_ii| >= 2 * the other entries of row i): the
// factor and the two substitutions perturb A and b by a few roundings per entry along each of the
// n steps, and every reciprocal diagonal, applied twice to its component, carries its own relative
// error r (r <= 2^-21 = 8u for the 32f estimate, about 2u for 64f). So the relative error of the
// solution in the max norm stays below (4*n*u + 2*r)*kappa (u the unit roundoff), with kappa
// bounded by ||A|| / min_i(|a_ii| - the others of row i). The reference is solved in long double.
namespace {
template <class T, class Decomp, class Solve>
void solveDominantSystems(Decomp decompFn, Solve solveFn, std::mt19937& rng) {
    const long double u = std::numeric_limits<T>::epsilon() / 2;
    const int e = int(sizeof(T));
    for (int n = 1; n <= 8; ++n)
        for (int trial = 0; trial < 50; ++trial) {
            std::vector<T> a(n * n), b(n), l(n * n), x(n);
            std::uniform_real_distribution<double> off(-1, 1), extra(0.5, 2);
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < i; ++j) a[i * n + j] = a[j * n + i] = T(off(rng));
            for (int i = 0; i < n; ++i) {
                double row = 0;
                for (int j = 0; j < n; ++j) if (j != i) row += std::fabs(a[i * n + j]);
                a[i * n + i] = T(2 * row + extra(rng));
                b[i] = T(off(rng) * 10);
            }
            long double norm = 0, margin = INFINITY;
            for (int i = 0; i < n; ++i) {
                long double row = 0;
                for (int j = 0; j < n; ++j) row += std::fabs((long double)a[i * n + j]);
                norm = std::max(norm, row);
                margin = std::min(margin, 2 * (long double)a[i * n + i] - row);
            }
            // Reference: Gaussian elimination without exchanges (the matrix is dominant) in long double.
            std::vector<long double> A(a.begin(), a.end()), y(b.begin(), b.end());
            for (int k = 0; k < n; ++k)
                for (int i = k + 1; i < n; ++i) {
                    const long double f = A[i * n + k] / A[k * n + k];
                    for (int j = k; j < n; ++j) A[i * n + j] -= f * A[k * n + j];
                    y[i] -= f * y[k];
                }
            for (int i = n - 1; i >= 0; --i) {
                for (int j = i + 1; j < n; ++j) y[i] -= A[i * n + j] * y[j];
                y[i] /= A[i * n + i];
            }
            ASSERT_EQ(decompFn(a.data(), n * e, e, l.data(), n * e, e, n), omkStsOk);
            ASSERT_EQ(solveFn(l.data(), n * e, e, b.data(), e, x.data(), e, n), omkStsOk);
            long double err = 0, size = 0;
            for (int i = 0; i < n; ++i) {
                err = std::max(err, std::fabs(x[i] - y[i]));
                size = std::max(size, std::fabs(y[i]));
            }
            const long double kappa = norm / margin, r = sizeof(T) == 4 ? 8 * u : 2 * u;
            EXPECT_LE(err / size, (4 * n * u + 2 * r) * kappa)
                << "order " << n << " trial " << trial << " kappa " << double(kappa);
        }
}
}  // namespace

TEST(CholeskyResults, SolvesDiagonallyDominantSystems) {
    std::mt19937 rng(213);
    solveDominantSystems<float>(omkmCholeskyDecomp_m_32f, omkmCholeskyBackSubst_mv_32f, rng);
    solveDominantSystems<double>(omkmCholeskyDecomp_m_64f, omkmCholeskyBackSubst_mv_64f, rng);
}

// ---- checks, limits, threads ----

TEST(CholeskyChecks, EveryMemberInItsOrder) {
    for (const Member& m : members()) {
        walkSolverFaults(m, prepareAny);
        if (HasFatalFailure()) return;
    }
}

// CholeskyBackSubst_mava has the higher limit only when every element stride is the element size
// in the standard or layout description; a gap in any one operand, or the pointer description,
// gives the lower one.
TEST(CholeskyLimits, EveryArrayMemberAtItsBoundary) {
    using Work = std::function<int64_t(int64_t, int64_t)>;
    const Work decompWork = [](int64_t n, int64_t c) { return n * n * c; };
    const Work pairsWork = [](int64_t n, int64_t c) { return (n + 2) * n * c; };
    const Work oneMatrixWork = [](int64_t n, int64_t c) { return (n + 2 * c) * n; };
    const std::vector<std::vector<Style>> packed = {{Style::Packed}, {Style::PaddedRows}};
    const std::vector<std::vector<Style>> gapped = {
        {Style::Gapped}, {Style::Gapped, Style::Packed}, {Style::Packed, Style::Gapped, Style::Packed},
        {Style::Packed, Style::Packed, Style::Gapped}};
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        for (const bool contiguous : {true, false})
            for (const auto& st : contiguous ? packed : gapped) {
                if (m.group == "ma") expectSerialLimit(m, prepareAny, decompWork, 7501, st);
                else if (m.group == "mva") expectSerialLimit(m, prepareAny, oneMatrixWork, 1201, st);
                else expectSerialLimit(m, prepareAny, pairsWork, contiguous && m.desc != Desc::P ? 2051 : 1701, st);
                if (HasFatalFailure()) return;
            }
    }
    std::mt19937 rng(217);
    for (const Member& m : members()) {
        if (m.hasArray()) continue;
        SolverCase sc;
        buildSolver(sc, m, 40, 1, {Style::Packed});
        const OmkStatus status = prepareAny(sc, rng);
        probe::Budget two(2);
        callAndCompare(sc, status);
        EXPECT_EQ(probe::calls(), 0) << m.name;
    }
}

TEST(CholeskyParallel, BitIdenticalToSerialForEveryArrayMember) {
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        const std::vector<std::pair<int, int>> shapes =
            m.group == "ma" ? std::vector<std::pair<int, int>>{{5, 401}, {8, 131}}
            : m.group == "mava" ? std::vector<std::pair<int, int>>{{4, 203}, {7, 101}}
                                : std::vector<std::pair<int, int>>{{3, 601}, {8, 101}};
        for (auto [n, count] : shapes)
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                expectParallelIdentical(m, prepareAny, n, count, st);
                if (HasFatalFailure()) return;
            }
    }
}
