// Determinants and inverses: every member in every description, bit for bit against the formulas
// computed here in the library's rounding order (order-3 and order-4 expansions, elimination with
// pivoting, adjugates, minors), the tolerance t = 2*n^3 * (smallest normal number) at its bounds,
// singular matrices and what they leave written, the fixed 4x4 float forms, the check order, the
// serial limits and the parallel runs with their scratch of their own.
#include <gtest/gtest.h>
#include <immintrin.h>

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
        SINGLE_GROUP(Det, m) ARRAY_GROUP(Det, ma) SINGLE_GROUP(Invert, m) ARRAY_GROUP(Invert, ma)
    };
    return all;
}
bool isDet(const Member& m) { return m.op == "Det"; }

// ---- the arithmetic, in the element type ----
template <class T> using Mat = std::vector<T>;  // row-major n x n

template <class T> T tolOf(int n) { return T(int32_t(2 * n * n * n)) * std::numeric_limits<T>::min(); }
template <class T> T fms(T x, T y, T z) { return std::fma(x, y, -z); }

template <class T> Mat<T> minorOf(const Mat<T>& a, int n, int i, int j) {
    Mat<T> m;
    for (int p = 0; p < n; ++p)
        for (int q = 0; q < n; ++q)
            if (p != i && q != j) m.push_back(a[size_t(p) * n + q]);
    return m;
}

// The expansions: order 2 one fms; order 3 along row 0, fma(b02, M02, fms(b00, M00, b01*M01)) over
// the fms minors of rows 1 and 2; order 4 fma(b00, C0, b01*C1) + fma(b02, C2, b03*C3); orders 5
// and 6 t = b00*C0, then t = fma(b0j, Cj, t). Cofactors carry the sign (-1)^(i+j) exactly.
template <class T> T expand(const Mat<T>& b, int n);
template <class T> T cofactor(const Mat<T>& b, int n, int i, int j) {
    const T m = expand(minorOf(b, n, i, j), n - 1);
    return (i + j) % 2 ? -m : m;
}
template <class T> T expand(const Mat<T>& b, int n) {
    auto B = [&](int i, int j) { return b[size_t(i) * n + j]; };
    switch (n) {
    case 1: return B(0, 0);
    case 2: return fms(B(0, 0), B(1, 1), B(0, 1) * B(1, 0));
    case 3: {
        const T m00 = fms(B(1, 1), B(2, 2), B(1, 2) * B(2, 1));
        const T m01 = fms(B(1, 0), B(2, 2), B(1, 2) * B(2, 0));
        const T m02 = fms(B(1, 0), B(2, 1), B(1, 1) * B(2, 0));
        return std::fma(B(0, 2), m02, fms(B(0, 0), m00, B(0, 1) * m01));
    }
    case 4:
        return std::fma(B(0, 0), cofactor(b, 4, 0, 0), B(0, 1) * cofactor(b, 4, 0, 1)) +
               std::fma(B(0, 2), cofactor(b, 4, 0, 2), B(0, 3) * cofactor(b, 4, 0, 3));
    default: {
        T t = B(0, 0) * cofactor(b, n, 0, 0);
        for (int j = 1; j < n; ++j) t = std::fma(B(0, j), cofactor(b, n, 0, j), t);
        return t;
    }
    }
}

// The other orders a result could have been computed in: the bit-exact comparisons prove the
// library's order only on inputs where these give other bits (counted in witnesses()).
enum class Way { Library, Unfused, OtherMultiplier, LastMaximum };

template <class T> T detOrder3(const Mat<T>& a, Way way) {
    auto A = [&](int i, int j) { return a[size_t(i) * 3 + j]; };
    if (way != Way::Library)  // a20*m0 - a21*m1 + a22*m2, every operation rounded
        return A(2, 0) * (A(0, 1) * A(1, 2) - A(0, 2) * A(1, 1)) - A(2, 1) * (A(0, 0) * A(1, 2) - A(0, 2) * A(1, 0)) +
               A(2, 2) * (A(0, 0) * A(1, 1) - A(0, 1) * A(1, 0));
    const T m0 = fms(A(0, 1), A(1, 2), A(0, 2) * A(1, 1));
    const T m1 = fms(A(0, 0), A(1, 2), A(0, 2) * A(1, 0));
    const T m2 = fms(A(0, 0), A(1, 1), A(0, 1) * A(1, 0));
    return std::fma(A(2, 0), m0, fms(A(2, 2), m2, A(2, 1) * m1));
}

// Elimination with partial pivoting over row indices: the largest |a(., k)| of rows k .. n-1, a
// strictly greater one replacing (the first maximum wins), an exchange negating the sign; a pivot
// below t stops (after its exchange). Multipliers a(i, k) / pivot or (1/pivot) * a(i, k); updates
// fma(-l, a(k, j), a(i, j)); the product of the pivots of steps 0 .. n-2 in order.
template <class T> struct Elim {
    bool ok;
    T product, last;
    int sign;
};
template <class T> Elim<T> eliminate(Mat<T> w, int n, T t, bool reciprocal, Way way = Way::Library) {
    if (way == Way::OtherMultiplier) reciprocal = !reciprocal;
    std::vector<int> idx(n);
    std::iota(idx.begin(), idx.end(), 0);
    auto W = [&](int r, int c) -> T& { return w[size_t(idx[r]) * n + c]; };
    T product = T(1);
    int sign = 1;
    for (int k = 0; k + 1 < n; ++k) {
        int best = k;
        for (int i = k + 1; i < n; ++i)
            if (way == Way::LastMaximum ? std::fabs(W(i, k)) >= std::fabs(W(best, k))
                                        : std::fabs(W(i, k)) > std::fabs(W(best, k)))
                best = i;
        if (best != k) std::swap(idx[k], idx[best]), sign = -sign;
        const T pivot = W(k, k);
        if (std::fabs(pivot) < t) return {false, product, T(0), sign};
        const T r = T(1) / pivot;
        for (int i = k + 1; i < n; ++i) {
            const T l = reciprocal ? r * W(i, k) : W(i, k) / pivot;
            for (int j = k + 1; j < n; ++j)
                W(i, j) = way == Way::Unfused ? W(i, j) - l * W(k, j) : std::fma(-l, W(k, j), W(i, j));
        }
        product = product * pivot;
    }
    return {true, product, W(n - 1, n - 1), sign};
}

// Determinant: order 3 and 4 closed forms, every other order by elimination with divided
// multipliers, 0 when a pivot falls below t or the last one is not above it, else d*(last*s).
template <class T> T detOf(const Mat<T>& a, int n, Way way = Way::Library) {
    if (n == 3) return detOrder3(a, way);
    if (n == 4) {
        if (way == Way::Library) return expand(a, 4);
        T s = T(0);
        for (int j = 0; j < 4; ++j) s = s + a[j] * cofactor(a, 4, 0, j);
        return s;
    }
    const T t = tolOf<T>(n);
    const Elim<T> e = eliminate(a, n, t, false, way);
    if (!e.ok || !(std::fabs(e.last) > t)) return T(0);
    return e.product * (e.last * T(e.sign));
}

// Inverse: order 1 is 1/a unless |a| <= t; orders 3 to 6 the adjugate, C(i, j) * (1/det) at (j, i)
// with det the expansion of row 0, singular when |det| < t (the other ways: det as a plain sum of
// rounded products, or C(i, j) / det); order 2 and 7 and more the elimination with reciprocal
// multipliers, singular when a pivot falls below t, det = (s*last)*product, singular when
// |det| <= t, then each element r * (its minor's value) with the sign of (-1)^(i+j) times the
// minor's exchange sign, the value t when the minor's elimination fails (order 1 minors are the
// elements themselves, t when not above t).
template <class T> struct Inverse {
    OmkStatus status;
    Mat<T> x;
};
template <class T> Inverse<T> inverseOf(const Mat<T>& a, int n, Way way = Way::Library) {
    Inverse<T> v{omkStsSingular, Mat<T>(size_t(n) * n)};
    const T t = tolOf<T>(n);
    if (n == 1) {
        if (!(std::fabs(a[0]) > t)) return v;
        v.x[0] = T(1) / a[0];
    } else if (n >= 3 && n <= 6) {
        T det = expand(a, n);
        if (way == Way::Unfused) {
            det = T(0);
            for (int j = 0; j < n; ++j) det = det + a[j] * cofactor(a, n, 0, j);
        }
        if (std::fabs(det) < t) return v;
        const T r = T(1) / det;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                const T c = cofactor(a, n, i, j);
                v.x[size_t(j) * n + i] = way == Way::OtherMultiplier ? c / det : c * r;
            }
    } else {
        const Elim<T> e = eliminate(a, n, t, true, way);
        if (!e.ok || std::fabs(e.last) < t) return v;
        const T det = (T(e.sign) * e.last) * e.product;
        if (std::fabs(det) <= t) return v;
        const T r = T(1) / det;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                T value{};
                int sign = 1;
                if (n == 2) {
                    const T el = a[size_t(1 - i) * n + (1 - j)];
                    value = std::fabs(el) > t ? el : t;
                } else {
                    const Elim<T> m = eliminate(minorOf(a, n, i, j), n - 1, t, true, way);
                    value = m.ok && std::fabs(m.last) > t ? m.last * m.product : t;
                    sign = m.sign;
                }
                const T e2 = r * value;
                v.x[size_t(j) * n + i] = ((i + j) % 2 == 0) == (sign > 0) ? e2 : -e2;
            }
    }
    v.status = omkStsOk;
    return v;
}

std::map<std::string, int>& witnesses() {
    static std::map<std::string, int> w;
    return w;
}
bool gCountWitnesses = false;  // set by the results test only (the alternatives cost time)
template <class T> bool differ(T a, T b) { return std::memcmp(&a, &b, sizeof(T)) != 0; }
std::string key(const std::string& what, int esize) { return what + (esize == 4 ? " 32f" : " 64f"); }

// ---- calls ----
// Det: matrix block, widthHeight, pBuffer, pDst (count consecutive values), count. Invert: matrix
// block, pBuffer, destination block, widthHeight, count. pBuffer: n*n elements and n ints.
void build(SolverCase& sc, const Member& m, int n, int count, const std::vector<Style>& styles,
           Alias alias = Alias::None) {
    buildCall(sc, m, isDet(m) ? "MnBRc" : "MBDnc", n, n, count, styles, size_t(n) * n * m.esize + size_t(n) * 4,
              alias);
    sc.scratchBuffer = true;
}

template <class F> auto byType(const Member& m, F&& f) { return m.esize == 4 ? f(float()) : f(double()); }

// The arena after a call whose slices each stop at their first singular matrix (Det never fails);
// the call's status. Witnesses are counted for the matrices computed.
template <class T> OmkStatus expectOver(SolverCase& sc, const std::vector<Slice>& slices) {
    expectUnchanged(sc);
    const int n = sc.n, e = sc.member().esize;
    OmkStatus status = omkStsOk;
    for (const Slice& s : slices)
        for (int k = s.first; k < s.first + s.count; ++k) {
            const Mat<T> a = matrixOf<T>(sc, k);
            if (isDet(sc.member())) {
                const T d = detOf(a, n);
                expectElement<T>(sc, k, 0, 0, d);
                if (!gCountWitnesses) continue;
                const std::string family = n == 3 ? "det order 3" : n == 4 ? "det order 4" : "det elimination";
                if (differ(d, detOf(a, n, Way::Unfused))) ++witnesses()[key(family + " unfused", e)];
                if (n != 3 && n != 4 && differ(d, detOf(a, n, Way::OtherMultiplier)))
                    ++witnesses()[key(family + " multiplier", e)];
                continue;
            }
            const Inverse<T> v = inverseOf(a, n);
            if (v.status != omkStsOk) {
                if (status == omkStsOk) status = v.status;
                break;
            }
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) expectElement<T>(sc, k, i, j, v.x[size_t(i) * n + j]);
            const std::string family = n >= 3 && n <= 6 ? "inverse adjugate" : "inverse elimination";
            for (Way w : {Way::Unfused, Way::OtherMultiplier})
                if (gCountWitnesses && n != 1 && std::memcmp(inverseOf(a, n, w).x.data(), v.x.data(), v.x.size() * sizeof(T)))
                    ++witnesses()[key(family + (w == Way::Unfused ? " unfused" : " multiplier"), e)];
        }
    return status;
}
OmkStatus expectSerial(SolverCase& sc) {
    return byType(sc.member(), [&](auto z) { return expectOver<decltype(z)>(sc, {{0, sc.matrices()}}); });
}
OmkStatus prepareRandom(SolverCase& sc, std::mt19937& rng) {
    for (int k = 0; k < sc.matrices(); ++k) setMatrix(sc, k, [&](int, int) { return entry(rng); });
    return expectSerial(sc);
}

const std::vector<std::vector<Style>>& layouts() {
    static const std::vector<std::vector<Style>> all = {
        {Style::Packed}, {Style::PaddedRows}, {Style::Gapped}, {Style::Gapped, Style::Packed},
        {Style::Packed, Style::Gapped}, {Style::PaddedRows, Style::Gapped}};
    return all;
}

// Neighbours of a value in the element type.
template <class T> double below(T v) { return double(std::nextafter(v, T(0))); }
template <class T> double above(T v) { return double(std::nextafter(v, std::numeric_limits<T>::infinity())); }

}  // namespace

// Orders 1 to 8 and 10 (the closed forms, the fixed-order kernels, the elimination) in packed,
// padded, gapped and mixed layouts, one matrix and arrays of three, and of 19 up to order 6 (whole
// blocks of 8 floats or 4 doubles side by side, then the rest one by one): results bit for bit,
// Det's values consecutive with nothing after them, nothing else written (pBuffer is scratch).
TEST(DetInvertResults, EveryMemberOrderAndLayout) {
    ASSERT_EQ(members().size(), 20u);
    probe::Budget serial(1);
    std::mt19937 rng(401);
    witnesses().clear();
    gCountWitnesses = true;
    for (const Member& m : members())
        for (int n : {1, 2, 3, 4, 5, 6, 7, 8, 10})
            for (const auto& st : layouts())
                for (int count : {1, 3, 19}) {
                    if ((count > 1 && !m.hasArray()) || (isDet(m) && st.size() > 1) || (count > 3 && n > 6)) continue;
                    SolverCase sc;
                    build(sc, m, n, count, st);
                    ASSERT_EQ(prepareRandom(sc, rng), omkStsOk) << describe(sc) << ": random input was singular";
                    callAndCompare(sc, omkStsOk);
                    if (HasFatalFailure()) return gCountWitnesses = false, void();
                }
    gCountWitnesses = false;
    // Each documented order is told apart on these inputs, in both types, from an unfused
    // evaluation (closed forms: every operation rounded; elimination: rounded updates; adjugate:
    // det as a plain sum) and from the other multiplier (Det reciprocal, Invert division).
    for (const char* what : {"det order 3 unfused", "det order 4 unfused", "det elimination unfused",
                             "det elimination multiplier", "inverse adjugate unfused", "inverse adjugate multiplier",
                             "inverse elimination unfused", "inverse elimination multiplier"})
        for (int e : {4, 8}) EXPECT_GT(witnesses()[key(what, e)], 0) << key(what, e);
}

// Equal magnitudes keep the upper row (the first maximum wins): column 0 of +-1.5, random
// elsewhere, in the elimination orders; taking the last maximum gives other bits on these inputs.
TEST(DetInvertResults, EqualMagnitudesKeepTheUpperRow) {
    std::mt19937 rng(403);
    std::map<bool, int> differs;
    for (const Member& m : members())
        for (int n : {2, 5, 6, 7, 8}) {
            if (!isDet(m) && n <= 6 && n >= 5) continue;
            SolverCase sc;
            build(sc, m, n, m.hasArray() ? 3 : 1, {Style::PaddedRows});
            for (int k = 0; k < sc.matrices(); ++k)
                setMatrix(sc, k, [&](int i, int j) { return j == 0 ? (i % 3 ? -1.5 : 1.5) : entry(rng); });
            ASSERT_EQ(expectSerial(sc), omkStsOk);
            callAndCompare(sc, omkStsOk);
            if (HasFatalFailure()) return;
            byType(m, [&](auto z) {
                using T = decltype(z);
                for (int k = 0; k < sc.matrices(); ++k) {
                    const Mat<T> a = matrixOf<T>(sc, k);
                    differs[isDet(m)] += isDet(m) ? differ(detOf(a, n), detOf(a, n, Way::LastMaximum))
                                                  : inverseOf(a, n).x != inverseOf(a, n, Way::LastMaximum).x;
                }
                return 0;
            });
        }
    EXPECT_GT(differs[true], 0);
    EXPECT_GT(differs[false], 0);
}

// Det: a pivot just below t gives 0 with omkStsOk, one at t goes on; the last pivot gives 0 at t and
// a value just above it. Diagonal matrices carry the tiny value into the pivot and the product
// exactly, at the first, a middle and the last position. Orders 3 and 4 have no tolerance; 5 and
// 6 eliminate like the general orders.
TEST(DetTolerance, PivotsAtTheBound) {
    for (const Member& m : members()) {
        if (!isDet(m)) continue;
        for (int n : {1, 2, 3, 4, 5, 6, 7, 8, 10})
            byType(m, [&](auto z) {
                using T = decltype(z);
                const T t = tolOf<T>(n);
                for (int at : std::set<int>{0, n / 2, n - 1}) {
                    const bool last = at == n - 1, closed = n == 3 || n == 4;
                    struct Probe { double v; bool zero; };
                    const std::vector<Probe> probes = {{below(t), !closed}, {double(t), last && !closed},
                                                       {above(t), false}, {-double(t), last && !closed}};
                    for (const Probe& p : probes) {
                        SolverCase sc;
                        build(sc, m, n, m.hasArray() ? 2 : 1, {Style::Gapped});
                        for (int k = 0; k < sc.matrices(); ++k)
                            setMatrix(sc, k, [&](int i, int j) { return i != j ? 0.0 : i == at ? p.v : 1.0; });
                        expectSerial(sc);
                        const T want = p.zero ? T(0) : T(p.v);
                        EXPECT_EQ(detOf(matrixOf<T>(sc, 0), n), want) << describe(sc) << " pivot " << p.v;
                        callAndCompare(sc, omkStsOk);  // never omkStsSingular
                        if (HasFatalFailure()) return;
                    }
                }
            });
    }
}

// The tolerance grows with the order: 1500 * m is above t at order 8 (t = 1024 m) and below it at
// order 10 (t = 2000 m), as a middle pivot and as the last one.
TEST(DetTolerance, GrowsWithTheOrder) {
    for (int n : {8, 10})
        for (int at : {4, n - 1}) {
            std::vector<float> a(n * n, 0.0f), buf(n * n + n);
            std::vector<double> ad(n * n, 0.0), bufd(n * n + n);
            for (int i = 0; i < n; ++i) a[i * (n + 1)] = 1, ad[i * (n + 1)] = 1;
            a[at * (n + 1)] = 1500 * std::numeric_limits<float>::min();
            ad[at * (n + 1)] = 1500 * std::numeric_limits<double>::min();
            float d = -1;
            double dd = -1;
            ASSERT_EQ(omkmDet_m_32f(a.data(), 4 * n, 4, n, buf.data(), &d), omkStsOk);
            ASSERT_EQ(omkmDet_m_64f(ad.data(), 8 * n, 8, n, bufd.data(), &dd), omkStsOk);
            EXPECT_EQ(d, n == 8 ? a[at * (n + 1)] : 0.0f) << n << " " << at;
            EXPECT_EQ(dd, n == 8 ? ad[at * (n + 1)] : 0.0) << n << " " << at;
        }
    EXPECT_EQ(tolOf<float>(10), 2000 * 0x1p-126f);
}

// Singular matrices: 7x7 with two equal rows gives 0 and omkStsOk; a rank-2 3x3 in floats gives
// the closed form's rounded value, not 0.
TEST(DetResults, SingularMatrices) {
    std::mt19937 rng(409);
    for (const Member& m : members()) {
        if (!isDet(m)) continue;
        SolverCase sc;
        build(sc, m, 7, 1, {Style::PaddedRows});
        std::vector<double> row(7);
        for (double& v : row) v = entry(rng);
        setMatrix(sc, 0, [&](int i, int j) { return i == 5 ? row[j] : i == 2 ? row[j] : entry(rng); });
        ASSERT_EQ(expectSerial(sc), omkStsOk);
        byType(m, [&](auto z) { EXPECT_EQ(detOf(matrixOf<decltype(z)>(sc, 0), 7), decltype(z)(0)); return 0; });
        callAndCompare(sc, omkStsOk);

        build(sc, m, 3, 1, {Style::Packed});
        setMatrix(sc, 0, [&](int i, int j) { return m.esize == 4 ? double(float(0.1 * (3 * i + j + 1))) : 0.1 * (3 * i + j + 1); });
        ASSERT_EQ(expectSerial(sc), omkStsOk);
        byType(m, [&](auto z) { EXPECT_NE(detOf(matrixOf<decltype(z)>(sc, 0), 3), decltype(z)(0)) << m.name; return 0; });
        callAndCompare(sc, omkStsOk);
        if (HasFatalFailure()) return;
    }
}

// omkmDet_m4_32f: the order-4 expansion bit for bit, one value written, no tolerance, no checks.
TEST(DetM4, ExpansionBitForBit) {
    std::mt19937 rng(419);
    int unfused = 0;
    for (int trial = 0; trial < 400; ++trial) {
        float a[16], out[3] = {7, 7, 7};
        for (float& v : a) v = float(entry(rng));
        if (trial == 0) std::fill(a, a + 16, 0.0f);
        if (trial == 1) a[5] = std::numeric_limits<float>::quiet_NaN();
        const Mat<float> am(a, a + 16);
        const float want = expand(am, 4);
        ASSERT_EQ(omkmDet_m4_32f(a, out + 1), omkStsOk);
        ASSERT_EQ(std::memcmp(&out[1], &want, 4), 0) << trial << ": " << out[1] << " vs " << want;
        ASSERT_EQ(out[0], 7.0f);
        ASSERT_EQ(out[2], 7.0f);
        if (trial > 1) unfused += differ(detOf(am, 4, Way::Unfused), want);
    }
    EXPECT_GT(unfused, 0);
}

// Inverse entries whose minors fail the tolerance take the value t: a permutation matrix's inverse
// is its transpose, and its zeros come out as +-r*t. Order 2's minors are single elements, each its
// own last pivot, so a zero element gives t too: [[2, 0], [0, 4]] inverts to [[0.5, -t/8],
// [-t/8, 0.25]] and [[1, 0], [3, 2]] to [[1, -t/2], [-1.5, 0.5]], written here as literals, in every
// description, single objects and arrays.
TEST(InvertResults, MinorsBelowTheToleranceTakeItsValue) {
    for (const Member& m : members()) {
        if (isDet(m)) continue;
        for (int n : {2, 7, 8}) {
            SolverCase sc;
            build(sc, m, n, 1, {Style::Gapped, Style::Packed});
            setMatrix(sc, 0, [&](int i, int j) { return j == (i * 3 + 1) % n ? (i % 2 ? -2.0 : 0.5) : 0.0; });
            ASSERT_EQ(expectSerial(sc), omkStsOk);
            callAndCompare(sc, omkStsOk);
            byType(m, [&](auto z) {
                using T = decltype(z);
                const Inverse<T> v = inverseOf(matrixOf<T>(sc, 0), n);
                int tiny = 0;
                for (T x : v.x) tiny += x != 0 && std::fabs(x) < 1e-20;
                EXPECT_EQ(tiny, n * n - n) << describe(sc);
                return 0;
            });
            if (HasFatalFailure()) return;
        }
        byType(m, [&](auto z) {
            using T = decltype(z);
            const T t = tolOf<T>(2);
            const std::vector<std::pair<Mat<T>, Mat<T>>> examples = {
                {{2, 0, 0, 4}, {T(0.5), -t / 8, -t / 8, T(0.25)}}, {{1, 0, 3, 2}, {1, -t / 2, T(-1.5), T(0.5)}}};
            for (const auto& [a, inverse] : examples) {
                SolverCase sc;
                build(sc, m, 2, m.hasArray() ? 3 : 1, {Style::Gapped});
                for (int k = 0; k < sc.matrices(); ++k) setMatrix(sc, k, [&](int i, int j) { return a[i * 2 + j]; });
                expectUnchanged(sc);
                for (int k = 0; k < sc.matrices(); ++k)
                    for (int e = 0; e < 4; ++e) expectElement<T>(sc, k, e / 2, e % 2, inverse[e]);
                callAndCompare(sc, omkStsOk);
                if (HasFatalFailure()) return 0;
            }
            return 0;
        });
        if (HasFatalFailure()) return;
    }
}

// Singular inverses write nothing to the destination: order 1 when |a| <= t; orders 3 to 6 when
// |det| < t (det = t passes); orders 2, 7 and 8 when a pivot falls below t (pBuffer[0] then 0) or
// when |det| <= t with every pivot passing (det = t, and t*t; a last pivot of t passes, so
// pBuffer[0] keeps the copy's first element, 1).
TEST(InvertSingular, NothingWrittenAtTheBounds) {
    for (const Member& m : members()) {
        if (isDet(m)) continue;
        for (int n = 1; n <= 8; ++n)
            byType(m, [&](auto z) {
                using T = decltype(z);
                const T t = tolOf<T>(n);
                struct Probe { double d0, d1; OmkStatus status; double first = -1; };  // pBuffer[0], -1 unchecked
                std::vector<Probe> probes;
                if (n == 1) probes = {{0, 0, omkStsSingular}, {double(t), 0, omkStsSingular},
                                      {-double(t), 0, omkStsSingular}, {above(t), 0, omkStsOk}};
                else if (n <= 6 && n >= 3) probes = {{below(t), 1, omkStsSingular}, {double(t), 1, omkStsOk},
                                                     {-below(t), 1, omkStsSingular}};
                else probes = {{below(t), 1, omkStsSingular, 0}, {1, below(t), omkStsSingular, 0},
                               {1, double(t), omkStsSingular, 1}, {double(t), 1, omkStsSingular},
                               {double(t), double(t), omkStsSingular}, {double(t), 2, omkStsOk}};
                for (const Probe& p : probes) {
                    SolverCase sc;
                    build(sc, m, n, 1, {Style::PaddedRows});
                    setMatrix(sc, 0, [&](int i, int j) { return i != j ? 0.0 : i == 0 ? p.d0 : i == n - 1 ? p.d1 : 1.0; });
                    ASSERT_EQ(expectSerial(sc), p.status) << describe(sc) << " " << p.d0 << " " << p.d1;
                    callAndCompare(sc, p.status);
                    if (p.first >= 0) {
                        EXPECT_EQ(bufferAt<T>(sc, 0), T(p.first)) << describe(sc);
                    }
                    if (HasFatalFailure()) return;
                }
            });
    }
    float x = 7, buf[2];
    const float zero = 0, two = 2;
    EXPECT_EQ(omkmInvert_m_32f(&zero, 4, 4, buf, &x, 4, 4, 1), omkStsSingular);
    EXPECT_EQ(x, 7.0f);
    EXPECT_EQ(omkmInvert_m_32f(&two, 4, 4, buf, &x, 4, 4, 1), omkStsOk);
    EXPECT_EQ(x, 0.5f);
}

// Orders 3 to 6 read the source whole before writing (arrays: each block of objects side by side
// whole): pSrc == pDst gives the inverse of separate buffers.
TEST(InvertResults, InPlaceForOrders3To6) {
    std::mt19937 rng(431);
    for (const Member& m : members())
        for (int n = 3; !isDet(m) && n <= 6; ++n)
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}})
                for (int count : {1, 3, 19}) {
                    if (count > 1 && !m.hasArray()) continue;
                    SolverCase sc;
                    build(sc, m, n, count, st, Alias::DstOnMatrix);
                    ASSERT_EQ(prepareRandom(sc, rng), omkStsOk);
                    callAndCompare(sc, omkStsOk);
                    if (HasFatalFailure()) return;
                }
}

// Matrices diagonally dominant by rows (|a_ii| >= 2 * the rest of the row): the residual
// max |A*X - I| (in long double) stays below 4*n*u*kappa, kappa = ||A|| * ||A^-1|| in the max-row
// norm and u the unit roundoff.
namespace {
template <class T, class Fn> void residuals(Fn invert, std::mt19937& rng) {
    const long double u = std::numeric_limits<T>::epsilon() / 2;
    for (int n : {1, 2, 3, 4, 5, 6, 7, 8, 10})
        for (int trial = 0; trial < 30; ++trial) {
            std::vector<T> a(n * n), x(n * n), buf(n * n + n);
            std::uniform_real_distribution<double> off(-1, 1), extra(0.5, 2);
            for (T& v : a) v = T(off(rng));
            for (int i = 0; i < n; ++i) {
                double row = 0;
                for (int j = 0; j < n; ++j) row += j != i ? std::fabs(a[i * n + j]) : 0;
                a[i * n + i] = T((trial % 2 ? -1 : 1) * (2 * row + extra(rng)));
            }
            ASSERT_EQ(invert(a.data(), n * int(sizeof(T)), int(sizeof(T)), buf.data(), x.data(), n * int(sizeof(T)),
                             int(sizeof(T)), n), omkStsOk);
            // kappa from an inverse by Gauss-Jordan in long double
            std::vector<long double> A(a.begin(), a.end()), I(n * n, 0);
            for (int i = 0; i < n; ++i) I[i * n + i] = 1;
            for (int k = 0; k < n; ++k)
                for (int i = 0; i < n; ++i) {
                    if (i == k) continue;
                    const long double f = A[i * n + k] / A[k * n + k];
                    for (int j = 0; j < n; ++j) A[i * n + j] -= f * A[k * n + j], I[i * n + j] -= f * I[k * n + j];
                }
            long double na = 0, ni = 0, res = 0;
            for (int i = 0; i < n; ++i) {
                long double ra = 0, ri = 0;
                for (int j = 0; j < n; ++j) {
                    ra += std::fabs((long double)a[i * n + j]);
                    ri += std::fabs(I[i * n + j] / A[i * n + i]);
                    long double r = i == j ? -1 : 0;
                    for (int q = 0; q < n; ++q) r += (long double)a[i * n + q] * x[q * n + j];
                    res = std::max(res, std::fabs(r));
                }
                na = std::max(na, ra), ni = std::max(ni, ri);
            }
            EXPECT_LE(res, 4 * n * u * na * ni) << "order " << n << " trial " << trial;
        }
}
}  // namespace

TEST(InvertResults, ResidualOfWellConditionedMatrices) {
    std::mt19937 rng(433);
    residuals<float>(omkmInvert_m_32f, rng);
    residuals<double>(omkmInvert_m_64f, rng);
}

// omkmInvert_m4_32f: the adjugate times r = (r0 + r0) - det*(r0*r0), r0 the processor's reciprocal
// estimate; *pDet = det; pDet may be null. |det| < 2^-119 is singular: *pDet = 0, nothing else
// written; 2^-119 itself passes.
TEST(InvertM4, AdjugateWithTheRefinedReciprocal) {
    std::mt19937 rng(439);
    int refinedDiffers = 0;
    for (int trial = 0; trial < 300; ++trial) {
        float a[16];
        for (float& v : a) v = float(entry(rng));
        if (trial < 4) {  // diagonal at the bound
            std::fill(a, a + 16, 0.0f);
            for (int i = 0; i < 4; ++i) a[i * 5] = 1;
            a[trial * 5] = trial % 2 ? 0x1p-119f : -0x1p-119f;
        }
        const Mat<float> am(a, a + 16);
        const float det = expand(am, 4);
        const float r0 = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(det)));
        const float r = (r0 + r0) - det * (r0 * r0);
        float want[18], got[18], d = 9;
        std::fill(want, want + 18, 3.0f);
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) want[1 + j * 4 + i] = cofactor(am, 4, i, j) * r;
        refinedDiffers += r != 1.0f / det;
        for (float* pDet : {&d, (float*)nullptr}) {
            std::fill(got, got + 18, 3.0f);
            ASSERT_EQ(omkmInvert_m4_32f(a, pDet, got + 1), omkStsOk) << trial;
            ASSERT_EQ(std::memcmp(got, want, sizeof got), 0) << trial;
        }
        EXPECT_EQ(std::memcmp(&d, &det, 4), 0) << trial;
    }
    EXPECT_GT(refinedDiffers, 0);
    for (float v : {std::nextafter(0x1p-119f, 0.0f), -std::nextafter(0x1p-119f, 0.0f), 0.0f}) {
        float a[16] = {v, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}, got[16], d = 9;
        std::fill(got, got + 16, 3.0f);
        EXPECT_EQ(omkmInvert_m4_32f(a, &d, got), omkStsSingular);
        EXPECT_EQ(d, 0.0f);
        EXPECT_EQ(omkmInvert_m4_32f(a, nullptr, got), omkStsSingular);
        for (float g : got) EXPECT_EQ(g, 3.0f);
    }
}

// ---- checks, limits, threads ----

// Null (pBuffer and Det's result included), count, size, stride, ROI shift: each fault alone
// writes nothing (pBuffer guarded too); of two faults the earlier step wins.
TEST(DetInvertChecks, EveryMemberInItsOrder) {
    std::mt19937 rng(443);
    const Expected unused = [](Case&, int, int, int) { return 0.0; };
    for (const Member& m : members()) {
        SolverCase sc;
        build(sc, m, 3, 3, {Style::Gapped});
        prepareRandom(sc, rng);
        walkFaults(sc.c, "NCSTR", faultsOf(sc.c), unused);
        if (HasFatalFailure()) return;
    }
}

// Budget 2: below the limit nothing asks for the budget; at or above it the driver asks twice and
// pBuffer is left alone. Det: serial while n*count < 14401. Invert: while 2*n*count <= 3600 when
// source and destination elements are packed (s2 = the element size), else and for _P <= 2500;
// the figure is even, so 3602 and 2502 are the nearest figures above.
TEST(DetInvertLimits, EveryArrayMemberAtItsBoundary) {
    struct Shape { int n, count; bool parallel; };
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        for (const auto& st : {std::vector<Style>{Style::PaddedRows}, std::vector<Style>{Style::Gapped},
                               std::vector<Style>{Style::Packed, Style::Gapped}}) {
            const bool packed = m.desc != Desc::P && st.back() != Style::Gapped;
            std::vector<Shape> shapes;
            if (isDet(m)) shapes = {{12, 1200, false}, {1, 14401, true}, {7, 2057, false}, {2, 7201, true}};
            else if (packed) shapes = {{6, 300, false}, {1, 1801, true}, {2, 900, false}, {2, 901, true}};
            else shapes = {{5, 250, false}, {9, 139, true}, {1, 1250, false}, {3, 417, true}};
            if (isDet(m) && st.size() > 1) continue;
            std::mt19937 rng(449);
            for (const Shape& s : shapes) {
                SolverCase sc;
                build(sc, m, s.n, s.count, st);
                ASSERT_EQ(prepareRandom(sc, rng), omkStsOk);
                sc.scratchBuffer = !s.parallel;
                probe::Budget two(2);
                callAndCompare(sc, omkStsOk);
                ASSERT_EQ(probe::calls(), s.parallel ? 2 : 0) << describe(sc) << " style " << int(st.back());
            }
        }
    }
    // Single matrices never ask.
    std::mt19937 rng(457);
    for (const Member& m : members()) {
        if (m.hasArray()) continue;
        SolverCase sc;
        build(sc, m, 12, 1, {Style::Packed});
        ASSERT_EQ(prepareRandom(sc, rng), omkStsOk);
        probe::Budget two(2);
        callAndCompare(sc, omkStsOk);
        EXPECT_EQ(probe::calls(), 0) << m.name;
    }
}

// Budgets 2 and 3 give the bits of budget 1 far above the limits, and the threads work in scratch
// of their own: the caller's pBuffer keeps its bytes.
TEST(DetInvertParallel, BitIdenticalToSerialWithTheBufferUntouched) {
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        const std::vector<std::pair<int, int>> shapes =
            isDet(m) ? std::vector<std::pair<int, int>>{{4, 3607}, {7, 2063}, {5, 2903}}
                     : std::vector<std::pair<int, int>>{{3, 607}, {7, 263}, {2, 1001}};
        for (auto [n, count] : shapes)
            for (const auto& st : {std::vector<Style>{Style::Packed}, std::vector<Style>{Style::Gapped}}) {
                expectParallelIdentical(m, prepareRandom, n, count, st,
                                        [](SolverCase& sc, const Member& mm, int nn, int cc, const auto& ss) {
                                            build(sc, mm, nn, cc, ss);
                                        });
                if (HasFatalFailure()) return;
            }
    }
}

// A serial array call stops at its first singular matrix (the ones after it keep their bytes),
// also when it lies inside a block of objects run side by side (objects 8 ... 15 in floats, 8 ...
// 11 in doubles: the ones before it in the block are written);
// over threads each slice stops at its own, the other slices are computed, and the call returns
// omkStsSingular when only a later slice fails.
TEST(InvertParallel, SlicesStopAtTheirOwnFailure) {
    std::mt19937 rng(461);
    struct Run { int n, count, budget; std::vector<int> singular; };
    const std::vector<Run> runs = {{4, 5, 1, {2}},        {3, 19, 1, {10}},        {4, 19, 1, {10}},
                                   {7, 5, 2, {1}},          {4, 1001, 2, {700}},
                                   {4, 1001, 3, {400}},   {7, 263, 2, {200, 250}}, {7, 263, 3, {100, 260}},
                                   {2, 1001, 3, {1000}}};
    for (const Member& m : members()) {
        if (isDet(m) || !m.hasArray()) continue;
        for (const Run& r : runs) {
            SolverCase sc;
            build(sc, m, r.n, r.count, {Style::Packed});
            for (int k = 0; k < r.count; ++k) {
                const bool bad = std::find(r.singular.begin(), r.singular.end(), k) != r.singular.end();
                setMatrix(sc, k, [&](int, int j) { return bad && j == 1 ? 0.0 : entry(rng); });
            }
            const bool parallel = 2 * r.n * r.count > 3600;
            const auto slices = parallel ? driverSlices(r.count, teamFor(r.budget)) : std::vector<Slice>{{0, r.count}};
            const OmkStatus want =
                byType(m, [&](auto z) { return expectOver<decltype(z)>(sc, slices); });
            ASSERT_EQ(want, omkStsSingular);
            sc.scratchBuffer = !parallel;
            probe::Budget b(r.budget);
            callAndCompare(sc, omkStsSingular);
            EXPECT_EQ(probe::calls(), parallel ? 2 : 0);
            if (HasFatalFailure()) return;
        }
    }
}
