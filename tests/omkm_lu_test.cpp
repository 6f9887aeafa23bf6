// LU decomposition with partial pivoting and its back substitution: every member in every
// description, bit for bit against the factorisation and the solver computed here in the rounding
// order of the kernels, with the index array, the absolute singularity tests, what a singular call
// has written, the check order, the serial limits and the parallel runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <numeric>
#include <set>

#include "solver_cases.h"

using namespace testing_omk;

namespace {

const std::vector<Member>& members() {
    static const std::vector<Member> all = {
        SINGLE_GROUP(LUDecomp, m) ARRAY_GROUP(LUDecomp, ma)
        SINGLE_GROUP(LUBackSubst, mv) ARRAY_GROUP(LUBackSubst, mva) ARRAY_GROUP(LUBackSubst, mava)
    };
    return all;
}

bool decomp(const Member& m) { return m.op == "LUDecomp"; }

// Orders 3 to 6 have straight-line kernels; every other order runs the general loop.
bool straight(int n) { return n >= 3 && n <= 6; }

template <class T> bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

// Inputs on which another rounding order gives other bits than the library's, by kind of result:
// the bit-exact comparisons prove the order only where these counts are not zero.
std::map<std::string, int>& witnesses() {
    static std::map<std::string, int> w;
    return w;
}
std::string witnessKey(const char* what, int esize, int n) {
    return std::string(what) + (esize == 4 ? " 32f " : " 64f ") + (straight(n) ? "orders 3-6" : "general loop");
}

// ---- the factorisation, step by step ----
// Library: one reciprocal per column, multipliers times it, updates -LU[p[k]][j]*LU[p[i]][k] +
// LU[p[i]][j] fused. Unfused rounds the product first; Divided forms the multipliers by division.
enum class Arith { Library, Unfused, Divided };

template <class T> struct Factor {
    std::vector<T> lu;  // indexed by source row, row-major
    std::vector<int> p;
    OmkStatus status;
    int done;  // steps finished: rows p[0 .. done-1] are final
};

template <class T> constexpr T kStraightTol = sizeof(T) == 4 ? T(0x1p-125) : T(0x1p-1021);
template <class T> constexpr T kGeneralTol = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);

template <class T>
Factor<T> factorOf(std::vector<T> a, int n, Arith how = Arith::Library) {
    Factor<T> f{std::move(a), std::vector<int>(n), omkStsOk, 0};
    std::vector<int>& p = f.p;
    std::iota(p.begin(), p.end(), 0);
    auto LU = [&](int r, int c) -> T& { return f.lu[size_t(r) * n + c]; };
    // Orders 3 to 6: singular below twice the smallest normal number; others: at most epsilon.
    auto fails = [&](T big) { return straight(n) ? big < kStraightTol<T> : big <= kGeneralTol<T>; };
    for (int k = 0; k + 1 < n; ++k) {
        int best = k;
        T big = std::fabs(LU(p[k], k));
        for (int i = k + 1; i < n; ++i)
            if (std::fabs(LU(p[i], k)) > big) big = std::fabs(LU(p[i], k)), best = i;
        if (fails(big)) {
            f.status = omkStsSingular;
            return f;
        }
        std::swap(p[k], p[best]);
        const int pk = p[k];
        const T r = T(1) / LU(pk, k);
        for (int i = k + 1; i < n; ++i) LU(p[i], k) = how == Arith::Divided ? LU(p[i], k) / LU(pk, k) : LU(p[i], k) * r;
        for (int i = k + 1; i < n; ++i)
            for (int j = k + 1; j < n; ++j)
                LU(p[i], j) = how == Arith::Unfused ? LU(p[i], j) - LU(pk, j) * LU(p[i], k)
                                                    : std::fma(-LU(pk, j), LU(p[i], k), LU(p[i], j));
        f.done = k + 1;
    }
    if (fails(std::fabs(LU(p[n - 1], n - 1)))) f.status = omkStsSingular;
    else f.done = n;
    return f;
}

// What factoring matrix k writes: its index slice on every return; the general loop the whole
// destination matrix (the copy, factored up to where it stopped); orders 3 to 6 the rows p[s] of
// the finished steps s.
template <class T> void expectFactor(SolverCase& sc, int k, const Factor<T>& f) {
    const int n = sc.n;
    expectIndex(sc, k, f.p);
    for (int s = 0; s < n; ++s) {
        if (straight(n) && s >= f.done) break;
        const int row = straight(n) ? f.p[s] : s;
        for (int j = 0; j < n; ++j) expectElement<T>(sc, k, row, j, f.lu[size_t(row) * n + j]);
    }
}

// The arena after a call whose slices each stop at their first singular matrix; the status of the
// call (the first failure, or omkStsOk).
template <class T> OmkStatus expectDecomp(SolverCase& sc, const std::vector<Slice>& slices) {
    expectUnchanged(sc);
    OmkStatus status = omkStsOk;
    for (const Slice& s : slices)
        for (int k = s.first; k < s.first + s.count; ++k) {
            const std::vector<T> a = matrixOf<T>(sc, k);
            const Factor<T> f = factorOf(a, sc.n);
            expectFactor(sc, k, f);
            if (f.status != omkStsOk) {
                if (status == omkStsOk) status = f.status;
                break;
            }
            if (!std::is_sorted(f.p.begin(), f.p.end()))
                ++witnesses()[witnessKey("row exchange", sc.member().esize, sc.n)];
            for (Arith other : {Arith::Unfused, Arith::Divided}) {
                const Factor<T> g = factorOf(a, sc.n, other);
                if (!sameBits(f.lu, g.lu) || f.p != g.p)
                    ++witnesses()[witnessKey(other == Arith::Unfused ? "unfused update" : "divided multiplier",
                                             sc.member().esize, sc.n)];
            }
        }
    return status;
}
OmkStatus expectDecompOver(SolverCase& sc, const std::vector<Slice>& slices) {
    return sc.member().esize == 4 ? expectDecomp<float>(sc, slices) : expectDecomp<double>(sc, slices);
}
OmkStatus expectSerialDecomp(SolverCase& sc) { return expectDecompOver(sc, {{0, sc.matrices()}}); }

OmkStatus prepareDecomp(SolverCase& sc, std::mt19937& rng) {
    for (int k = 0; k < sc.matrices(); ++k) setMatrix(sc, k, [&](int, int) { return entry(rng); });
    return expectSerialDecomp(sc);
}

// ---- the back substitution ----
// General loop: sums of rounded products over ascending j, subtracted once, true division by the
// diagonal. Orders 3 to 6: fused chains from the highest index down, then the division.
template <class T>
std::vector<T> solutionOf(const std::vector<T>& lu, const std::vector<int>& p, const std::vector<T>& b, int n,
                          bool fused) {
    auto LU = [&](int r, int c) { return lu[size_t(r) * n + c]; };
    std::vector<T> v(n);
    for (int i = 0; i < n; ++i) v[i] = b[p[i]];
    if (fused) {
        for (int i = 1; i < n; ++i)
            for (int j = i - 1; j >= 0; --j) v[i] = std::fma(-LU(p[i], j), v[j], v[i]);
        for (int i = n - 1; i >= 0; --i) {
            T t = v[i];
            for (int j = n - 1; j > i; --j) t = std::fma(-LU(p[i], j), v[j], t);
            v[i] = t / LU(p[i], i);
        }
        return v;
    }
    for (int i = 1; i < n; ++i) {
        T s = LU(p[i], 0) * v[0];
        for (int j = 1; j < i; ++j) s = s + LU(p[i], j) * v[j];
        v[i] = v[i] - s;
    }
    for (int i = n - 1; i >= 0; --i) {
        T y = v[i];
        if (i + 1 < n) {
            T s = LU(p[i], i + 1) * v[i + 1];
            for (int j = i + 2; j < n; ++j) s = s + LU(p[i], j) * v[j];
            y = y - s;
        }
        v[i] = y / LU(p[i], i);
    }
    return v;
}

template <class T> void expectSolutions(SolverCase& sc) {
    expectUnchanged(sc);
    for (int k = 0; k < sc.vectors(); ++k) {
        const int mk = sc.matrixFor(k);
        const auto lu = matrixOf<T>(sc, mk);
        const auto p = indexOf(sc, mk);
        const auto b = rhsOf<T>(sc, k);
        const std::vector<T> x = solutionOf(lu, p, b, sc.n, straight(sc.n));
        for (int i = 0; i < sc.n; ++i) expectElement<T>(sc, k, 0, i, x[i]);
        if (!sameBits(x, solutionOf(lu, p, b, sc.n, !straight(sc.n))))
            ++witnesses()[witnessKey("other solver order", sc.member().esize, sc.n)];
    }
}

// Factors as the decomposition leaves them: pivot-order row i (stored at row p[i]) with a diagonal
// of magnitude 1 to 4 and smaller entries elsewhere; p a random permutation (or the identity).
OmkStatus prepareSolve(SolverCase& sc, std::mt19937& rng, bool identity) {
    const int n = sc.n;
    for (int k = 0; k < sc.matrices(); ++k) {
        std::vector<int> p(n);
        std::iota(p.begin(), p.end(), 0);
        if (!identity) std::shuffle(p.begin(), p.end(), rng);
        setIndex(sc, k, p);
        std::vector<double> rows(size_t(n) * n);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) rows[size_t(p[i]) * n + j] = i == j ? entry(rng, 0, 1) : entry(rng, -3, -1);
        setMatrix(sc, k, [&](int i, int j) { return rows[size_t(i) * n + j]; });
    }
    for (int k = 0; k < sc.vectors(); ++k) setRhs(sc, k, [&](int) { return entry(rng, -2, 2); });
    if (sc.member().esize == 4) expectSolutions<float>(sc);
    else expectSolutions<double>(sc);
    return omkStsOk;
}
OmkStatus prepareAny(SolverCase& sc, std::mt19937& rng) {
    return decomp(sc.member()) ? prepareDecomp(sc, rng) : prepareSolve(sc, rng, false);
}

const std::vector<std::vector<Style>>& layouts() {
    static const std::vector<std::vector<Style>> all = {
        {Style::Packed}, {Style::PaddedRows}, {Style::Gapped}, {Style::Gapped, Style::Packed, Style::PaddedRows},
        {Style::Packed, Style::Gapped}, {Style::PaddedRows, Style::Packed, Style::Gapped}};
    return all;
}

}  // namespace

TEST(LUMembers, TheListCoversBothFamilies) {
    std::set<std::string> names;
    int decomps = 0;
    for (const Member& m : members()) names.insert(m.name), decomps += decomp(m);
    EXPECT_EQ(names.size(), 26u);
    EXPECT_EQ(decomps, 10);
}

// Orders 1 to 8 (the general loop and the straight-line kernels) in packed, padded, gapped and
// mixed layouts: destination and index array bit for bit, nothing else written.
TEST(LUResults, EveryMemberOrderAndLayout) {
    probe::Budget serial(1);
    std::mt19937 rng(101);
    witnesses().clear();
    for (const Member& m : members())
        for (int n = 1; n <= 8; ++n)
            for (const auto& st : layouts())
                for (int count : {1, 3}) {
                    if (count > 1 && !m.hasArray()) continue;
                    SolverCase sc;
                    buildSolver(sc, m, n, count, st);
                    const OmkStatus status = prepareAny(sc, rng);
                    ASSERT_EQ(status, omkStsOk) << describe(sc) << ": random input was singular";
                    callAndCompare(sc, status);
                    if (HasFatalFailure()) return;
                }
    // The inputs exchange rows, and a fused update, a reciprocal multiplier and each solver order
    // are told apart from the alternatives on them, for both types and both kinds of kernel.
    for (const char* what : {"row exchange", "unfused update", "divided multiplier", "other solver order"})
        for (int esize : {4, 8})
            for (int n : {3, 7}) EXPECT_GT(witnesses()[witnessKey(what, esize, n)], 0) << witnessKey(what, esize, n);
}

// pSrc equal to pDst with equal strides gives the result of separate buffers.
TEST(LUResults, DecompositionInPlace) {
    std::mt19937 rng(103);
    for (const Member& m : members())
        for (int n = 1; decomp(m) && n <= 8; ++n)
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                SolverCase sc;
                buildSolver(sc, m, n, m.hasArray() ? 3 : 1, st, Alias::DstOnMatrix);
                callAndCompare(sc, prepareDecomp(sc, rng));
                if (HasFatalFailure()) return;
            }
}

// The solution may overwrite the right-hand side for orders 3 to 6 (read whole first), and for
// the other orders when p is the identity.
TEST(LUResults, SolutionOverTheRightHandSide) {
    std::mt19937 rng(107);
    for (const Member& m : members())
        for (int n = 1; !decomp(m) && n <= 8; ++n) {
            SolverCase sc;
            buildSolver(sc, m, n, m.hasArray() ? 3 : 1, {Style::Gapped, Style::Packed}, Alias::DstOnVector);
            callAndCompare(sc, prepareSolve(sc, rng, !straight(n)));
            if (HasFatalFailure()) return;
        }
}

// The absolute tests at their exact bounds, with the tiny pivot first, in the middle and last:
// orders 3 to 6 pass 2^-125 (2^-1021) and fail the next number below; the other orders fail 2^-23
// (2^-52) and pass the next number above. Diagonal matrices carry the value into the pivot exactly.
TEST(LUSingular, ToleranceBoundaries) {
    for (const Member& m : members()) {
        if (!decomp(m)) continue;
        const bool f32 = m.esize == 4;
        for (int n = 1; n <= 8; ++n) {
            const double tol = straight(n) ? (f32 ? 0x1p-125 : 0x1p-1021) : (f32 ? 0x1p-23 : 0x1p-52);
            // The neighbour of the bound in the element type, toward 0 or toward 1.
            auto next = [&](double to) {
                return f32 ? double(std::nextafter(float(tol), float(to))) : std::nextafter(tol, to);
            };
            struct Probe { double value; OmkStatus status; };
            const OmkStatus atBound = straight(n) ? omkStsOk : omkStsSingular;
            const Probe beyond = straight(n) ? Probe{next(0), omkStsSingular} : Probe{next(1), omkStsOk};
            const std::vector<Probe> probes = {{tol, atBound}, {-tol, atBound}, beyond};
            for (const Probe& pr : probes)
                for (int at : std::set<int>{0, n / 2, n - 1}) {
                    SolverCase sc;
                    buildSolver(sc, m, n, 1, {Style::Gapped, Style::Packed});
                    setMatrix(sc, 0, [&](int i, int j) { return i != j ? 0.0 : i == at ? pr.value : 1.0; });
                    ASSERT_EQ(expectSerialDecomp(sc), pr.status) << describe(sc) << " pivot " << pr.value;
                    callAndCompare(sc, pr.status);
                    if (HasFatalFailure()) return;
                }
        }
    }
}

TEST(LUSingular, PivotsNear1e10PassOrder3AndFailOrder7) {
    for (const Member& m : members()) {
        if (!decomp(m) || m.esize != 4) continue;
        for (int n : {3, 7}) {
            SolverCase sc;
            buildSolver(sc, m, n, 1, {Style::Packed});
            setMatrix(sc, 0, [](int i, int j) { return i == j ? 4e-10 : std::abs(i - j) == 1 ? 1e-10 : 0.0; });
            const OmkStatus want = n == 3 ? omkStsOk : omkStsSingular;
            ASSERT_EQ(expectSerialDecomp(sc), want);
            callAndCompare(sc, want);
            // Order 7 stops at its first column: the copy is written and p is the identity.
            if (n == 7) EXPECT_EQ(indexOf(sc, 0), std::vector<int>({0, 1, 2, 3, 4, 5, 6}));
        }
    }
}

// A zero column c stays exactly zero through the updates, so step c finds a zero pivot after
// earlier steps that exchanged rows: orders 3 to 6 have written p and the rows of steps 0 .. c-1,
// the other orders the whole copy factored up to column c.
TEST(LUSingular, ZeroColumnStopsAtItsStep) {
    std::mt19937 rng(109);
    for (const Member& m : members())
        for (int n = 1; decomp(m) && n <= 8; ++n)
            for (int col = 0; col < n; ++col)
                for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                    SolverCase sc;
                    buildSolver(sc, m, n, 1, st);
                    setMatrix(sc, 0, [&](int, int j) { return j == col ? 0.0 : entry(rng); });
                    ASSERT_EQ(expectSerialDecomp(sc), omkStsSingular);
                    callAndCompare(sc, omkStsSingular);
                    if (HasFatalFailure()) return;
                }
}

TEST(LUResults, DocumentedCases) {
    // Equal magnitudes keep the upper row: a lower triangle of ones is a tie at every step.
    for (const Member& m : members())
        for (int n = 1; decomp(m) && n <= 8; ++n) {
            SolverCase sc;
            buildSolver(sc, m, n, 1, {Style::Packed});
            setMatrix(sc, 0, [](int i, int j) { return j <= i ? (i % 2 ? -1.0 : 1.0) : 0.0; });
            ASSERT_EQ(expectSerialDecomp(sc), omkStsOk);
            callAndCompare(sc, omkStsOk);
            std::vector<int> identity(n);
            std::iota(identity.begin(), identity.end(), 0);
            EXPECT_EQ(indexOf(sc, 0), identity) << describe(sc);
        }
    // [[0, 1], [1, 0]]: p = {1, 0}, row 1 holds U's first row in place.
    {
        const float a[4] = {0, 1, 1, 0};
        float lu[4];
        int p[2] = {-1, -1};
        ASSERT_EQ(omkmLUDecomp_m_32f(a, 8, 4, p, lu, 8, 4, 2), omkStsOk);
        EXPECT_EQ(p[0], 1);
        EXPECT_EQ(p[1], 0);
        EXPECT_EQ(std::vector<float>(lu, lu + 4), std::vector<float>({0, 1, 1, 0}));
        const float b[2] = {2, 3};
        float x[2];
        ASSERT_EQ(omkmLUBackSubst_mv_32f(lu, 8, 4, p, b, 4, x, 4, 2), omkStsOk);
        EXPECT_EQ(x[0], 3.0f);
        EXPECT_EQ(x[1], 2.0f);
    }
    // Order 1: the copy, p = {0}, singular when |a| <= epsilon; the solver gives b / a.
    {
        int p = -1;
        float lf = 0;
        const float ef = 0x1p-23f, af = std::nextafter(ef, 1.0f);
        EXPECT_EQ(omkmLUDecomp_m_32f(&ef, 4, 4, &p, &lf, 4, 4, 1), omkStsSingular);
        EXPECT_EQ(p, 0);
        EXPECT_EQ(lf, ef);
        EXPECT_EQ(omkmLUDecomp_m_32f(&af, 4, 4, &p, &lf, 4, 4, 1), omkStsOk);
        double ld = 0;
        const double ed = -0x1p-52, ad = 3.0, bd = 1.0;
        EXPECT_EQ(omkmLUDecomp_m_64f(&ed, 8, 8, &p, &ld, 8, 8, 1), omkStsSingular);
        EXPECT_EQ(ld, ed);
        EXPECT_EQ(omkmLUDecomp_m_64f(&ad, 8, 8, &p, &ld, 8, 8, 1), omkStsOk);
        double xd = 0;
        EXPECT_EQ(omkmLUBackSubst_mv_64f(&ld, 8, 8, &p, &bd, 8, &xd, 8, 1), omkStsOk);
        EXPECT_EQ(xd, 1.0 / 3.0);
    }
    // A NaN pivot passes every test and is never exchanged: NaN factors, omkStsOk, p the identity.
    for (int n : {1, 3, 7}) {
        std::vector<double> a(n * n, 0.5), lu(n * n, 0);
        a[0] = std::numeric_limits<double>::quiet_NaN();
        std::vector<int> p(n, -1);
        EXPECT_EQ(omkmLUDecomp_m_64f(a.data(), 8 * n, 8, p.data(), lu.data(), 8 * n, 8, n), omkStsOk) << n;
        for (int i = 0; i < n; ++i) EXPECT_EQ(p[i], i);
        EXPECT_TRUE(std::isnan(lu[n * n - 1])) << n;
    }
}

// In an array each matrix has its own index slice; the first singular matrix ends a call that
// runs on the calling thread (budget 1, or any budget below the limit): the matrices before it are
// factored, the ones after it and their index slices keep their bytes.
TEST(LUArrays, SerialCallStopsAtTheFirstSingularMatrix) {
    std::mt19937 rng(113);
    for (const Member& m : members()) {
        if (!decomp(m) || !m.hasArray()) continue;
        for (int n : {3, 7})
            for (int budget : {1, 2}) {
                SolverCase sc;
                buildSolver(sc, m, n, 5, {Style::PaddedRows});
                for (int k = 0; k < 5; ++k)
                    setMatrix(sc, k, [&](int, int j) { return k == 2 && j == 1 ? 0.0 : entry(rng); });
                ASSERT_EQ(expectSerialDecomp(sc), omkStsSingular);
                probe::Budget b(budget);
                callAndCompare(sc, omkStsSingular);
                EXPECT_EQ(probe::calls(), 0);
                if (HasFatalFailure()) return;
            }
    }
}

// Above the limit each thread's slice stops at its own first singular matrix while the other
// slices are computed, and the call returns omkStsSingular from whichever slice failed.
TEST(LUArrays, ParallelSlicesStopAtTheirOwnFailure) {
    std::mt19937 rng(127);
    struct Run { int n, count, budget; std::vector<int> singular; };
    const std::vector<Run> runs = {{4, 70, 2, {40}}, {4, 70, 3, {30, 50}}, {7, 21, 2, {13}}, {7, 21, 3, {20}}};
    for (const Member& m : members()) {
        if (!decomp(m) || !m.hasArray()) continue;
        for (const Run& r : runs) {
            SolverCase sc;
            buildSolver(sc, m, r.n, r.count, {Style::Packed});
            for (int k = 0; k < r.count; ++k) {
                const bool bad = std::find(r.singular.begin(), r.singular.end(), k) != r.singular.end();
                setMatrix(sc, k, [&](int, int j) { return bad && j == 2 ? 0.0 : entry(rng); });
            }
            ASSERT_EQ(expectDecompOver(sc, driverSlices(r.count, teamFor(r.budget))), omkStsSingular);
            probe::Budget b(r.budget);
            callAndCompare(sc, omkStsSingular);
            EXPECT_EQ(probe::calls(), 2);
            if (HasFatalFailure()) return;
        }
    }
}

// Systems diagonally dominant by rows and columns (|a_ii| >= 2 * the other entries of its row and
// of its column): no row is exchanged, multipliers stay below 1/2 and the growth factor below 2,
// so the elimination and the two substitutions perturb A and b by a few roundings per entry along
// each of the n steps, and the relative error of the solution in the max norm stays below
// 4*n*u*kappa (u the unit roundoff), with kappa bounded by ||A|| / min_i(|a_ii| - the others of
// row i). The reference is solved in long double.
namespace {
template <class T, class Decomp, class Solve>
void solveDominantSystems(Decomp decompFn, Solve solveFn, std::mt19937& rng) {
    const long double u = std::numeric_limits<T>::epsilon() / 2;
    for (int n = 1; n <= 8; ++n)
        for (int trial = 0; trial < 50; ++trial) {
            std::vector<T> a(n * n), b(n), lu(n * n), x(n);
            std::vector<int> p(n);
            std::uniform_real_distribution<double> off(-1, 1), extra(0.5, 2);
            for (T& v : a) v = T(off(rng));
            for (int i = 0; i < n; ++i) {
                double row = 0, col = 0;
                for (int j = 0; j < n; ++j) if (j != i) row += std::fabs(a[i * n + j]), col += std::fabs(a[j * n + i]);
                a[i * n + i] = T((trial % 2 ? -1 : 1) * (2 * std::max(row, col) + extra(rng)));
                b[i] = T(off(rng) * 10);
            }
            long double norm = 0, margin = INFINITY;
            for (int i = 0; i < n; ++i) {
                long double row = 0;
                for (int j = 0; j < n; ++j) row += std::fabs((long double)a[i * n + j]);
                norm = std::max(norm, row);
                margin = std::min(margin, 2 * std::fabs((long double)a[i * n + i]) - row);
            }
            // Reference: Gaussian elimination with partial pivoting in long double.
            std::vector<long double> A(a.begin(), a.end()), y(b.begin(), b.end());
            for (int k = 0; k < n; ++k) {
                int best = k;
                for (int i = k + 1; i < n; ++i) if (std::fabs(A[i * n + k]) > std::fabs(A[best * n + k])) best = i;
                for (int j = 0; j < n; ++j) std::swap(A[k * n + j], A[best * n + j]);
                std::swap(y[k], y[best]);
                for (int i = k + 1; i < n; ++i) {
                    const long double f = A[i * n + k] / A[k * n + k];
                    for (int j = k; j < n; ++j) A[i * n + j] -= f * A[k * n + j];
                    y[i] -= f * y[k];
                }
            }
            for (int i = n - 1; i >= 0; --i) {
                for (int j = i + 1; j < n; ++j) y[i] -= A[i * n + j] * y[j];
                y[i] /= A[i * n + i];
            }
            ASSERT_EQ(decompFn(a.data(), n * int(sizeof(T)), int(sizeof(T)), p.data(), lu.data(), n * int(sizeof(T)),
                               int(sizeof(T)), n), omkStsOk);
            ASSERT_EQ(solveFn(lu.data(), n * int(sizeof(T)), int(sizeof(T)), p.data(), b.data(), int(sizeof(T)),
                              x.data(), int(sizeof(T)), n), omkStsOk);
            long double err = 0, size = 0;
            for (int i = 0; i < n; ++i) {
                err = std::max(err, std::fabs(x[i] - y[i]));
                size = std::max(size, std::fabs(y[i]));
            }
            const long double kappa = norm / margin;
            EXPECT_LE(err / size, 4 * n * u * kappa)
                << "order " << n << " trial " << trial << " kappa " << double(kappa);
        }
}
}  // namespace

TEST(LUResults, SolvesDiagonallyDominantSystems) {
    std::mt19937 rng(131);
    solveDominantSystems<float>(omkmLUDecomp_m_32f, omkmLUBackSubst_mv_32f, rng);
    solveDominantSystems<double>(omkmLUDecomp_m_64f, omkmLUBackSubst_mv_64f, rng);
}

// ---- checks, limits, threads ----

TEST(LUChecks, EveryMemberInItsOrder) {
    for (const Member& m : members()) {
        walkSolverFaults(m, prepareAny);
        if (HasFatalFailure()) return;
    }
}

TEST(LULimits, EveryArrayMemberAtItsBoundary) {
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        std::function<int64_t(int64_t, int64_t)> work = [](int64_t n, int64_t c) { return (n + 2 * c) * n; };
        int64_t limit = 701;  // mva
        if (m.group == "ma") {
            work = [](int64_t n, int64_t c) { return n * n * c; };
            limit = 1001;
        } else if (m.group == "mava") {
            work = [](int64_t n, int64_t c) { return (n + 2) * n * c; };
            limit = 1201;
        }
        for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
            expectSerialLimit(m, prepareAny, work, limit, st);
            if (HasFatalFailure()) return;
        }
    }
    // Single objects never ask, whatever their order.
    std::mt19937 rng(137);
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

TEST(LUParallel, BitIdenticalToSerialForEveryArrayMember) {
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        const std::vector<std::pair<int, int>> shapes =
            m.group == "ma" ? std::vector<std::pair<int, int>>{{4, 301}, {7, 101}}
            : m.group == "mava" ? std::vector<std::pair<int, int>>{{5, 203}, {8, 101}}
                                : std::vector<std::pair<int, int>>{{3, 601}, {8, 101}};
        for (auto [n, count] : shapes)
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                expectParallelIdentical(m, prepareAny, n, count, st);
                if (HasFatalFailure()) return;
            }
    }
}
