// Symmetric eigenproblem: EigenValuesSym and EigenValuesVectorsSym, all twenty members. The check
// order, the closed forms of orders 1 and 2 bit for bit, the iteration bit for bit on inputs whose
// tridiagonal form is exact, random matrices against a double-precision Jacobi solver, the same
// bits through every description, the serial limits, and the parallel slices with their statuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <stdexcept>

#include "member_checks.h"
#include "operands.h"
#include "thread_budget_probe.h"

using namespace testing_omk;

namespace {

const std::vector<Member>& members() {
    static const std::vector<Member> all = {SINGLE_GROUP(EigenValuesSym, m) ARRAY_GROUP(EigenValuesSym, ma)
                                                SINGLE_GROUP(EigenValuesVectorsSym, m)
                                                    ARRAY_GROUP(EigenValuesVectorsSym, ma)};
    return all;
}

const Member& memberNamed(const std::string& name) {
    for (const Member& m : members())
        if (m.name == name) return m;
    throw std::runtime_error("no member " + name);
}

bool hasVectors(const Member& m) { return m.op.find("Vectors") != std::string::npos; }
std::string typeOf(const Member& m) { return m.esize == 4 ? "32f" : "64f"; }
// The standard single-matrix member of the same family and type.
const Member& plainOf(const Member& m) { return memberNamed("omkm" + m.op + "_m_" + typeOf(m)); }

template <class T> constexpr T kEps = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);
double epsOf(int esize) { return esize == 4 ? 0x1p-23 : 0x1p-52; }
double toType(double x, int esize) { return esize == 4 ? double(float(x)) : x; }

using Mat = std::vector<double>;  // n x n, row-major, every entry representable in the element type

// ---- one call in guarded memory ----
// The source (array or single), pBuffer (n*n elements), the vector matrices (vector members) and
// pDstValues (n per object) are blocks of one arena; every other byte holds the marker.
struct EigCase {
    Case c;
    int n = 0;
    size_t buf = 0, vals = 0;
    std::vector<unsigned char> before;
    std::vector<bool> element;  // bytes of values, vector elements and the buffer

    int e() const { return c.m->esize; }
    bool vectors() const { return hasVectors(*c.m); }
    double read(size_t off) const {
        const unsigned char* p = c.arena.bytes.data() + off;
        return e() == 4 ? double(load<float>(p)) : load<double>(p);
    }
    size_t valueAt(int k, int i) const { return vals + (size_t(k) * n + i) * e(); }
    double value(int k, int i) const { return read(valueAt(k, i)); }
    double vec(int k, int i, int j) const { return read(c.dst.offset(k, i, j)); }
    std::vector<double> values(int k) const {
        std::vector<double> v(n);
        for (int i = 0; i < n; ++i) v[i] = value(k, i);
        return v;
    }
    // Object k's values, then its vector elements.
    std::vector<size_t> offsets(int k) const {
        std::vector<size_t> o;
        for (int i = 0; i < n; ++i) o.push_back(valueAt(k, i));
        if (vectors())
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) o.push_back(c.dst.offset(k, i, j));
        return o;
    }
    std::vector<unsigned char> result(int k) const {  // raw bytes
        std::vector<unsigned char> out;
        for (size_t off : offsets(k)) out.insert(out.end(), &c.arena.bytes[off], &c.arena.bytes[off] + e());
        return out;
    }
    bool objectUntouched(int k) const {
        for (size_t off : offsets(k))
            if (std::memcmp(&before[off], &c.arena.bytes[off], e()) != 0) return false;
        return true;
    }
    bool bufferUntouched() const {
        return std::equal(before.begin() + buf, before.begin() + buf + size_t(n) * n * e(), c.arena.bytes.begin() + buf);
    }
    // The source, the gaps and the guards.
    bool othersUntouched() const {
        for (size_t b = 0; b < before.size(); ++b)
            if (!element[b] && before[b] != c.arena.bytes[b]) return false;
        return true;
    }
};

// Lays out one call of member m on the matrices `mats` (one for _m members).
void build(EigCase& e, const Member& m, int n, const std::vector<Mat>& mats, Style srcStyle = Style::Packed,
           Style dstStyle = Style::Packed) {
    Case& c = e.c;
    c.m = &m;
    c.width = c.height = n;
    c.count = int(mats.size());
    e.n = n;
    if (!m.hasArray() && mats.size() != 1) throw std::logic_error("one matrix per single-object call");
    auto operand = [&](Style st) {
        Operand o;
        o.kind = 'm';
        o.array = m.hasArray();
        o.rows = o.cols = n;
        layOut(o, st, m.esize);
        return o;
    };
    c.srcs = {operand(srcStyle)};
    c.dst = operand(dstStyle);
    c.arena = Arena{};
    c.srcs[0].base = c.arena.reserve(extentOf(c.srcs[0], c.count));
    e.buf = c.arena.reserve(size_t(n) * n * m.esize);
    if (hasVectors(m)) c.dst.base = c.arena.reserve(extentOf(c.dst, c.count));
    e.vals = c.arena.reserve(size_t(n) * c.count * m.esize);
    c.arena.allocate();
    for (int k = 0; k < c.count; ++k)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                unsigned char* p = c.arena.at(c.srcs[0].offset(k, i, j));
                if (m.esize == 4) store<float>(p, float(mats[k][i * n + j]));
                else store<double>(p, mats[k][i * n + j]);
            }

    e.element.assign(c.arena.bytes.size(), false);
    std::fill_n(e.element.begin() + e.buf, size_t(n) * n * m.esize, true);
    for (int k = 0; k < c.count; ++k)
        for (size_t off : e.offsets(k)) std::fill_n(e.element.begin() + off, m.esize, true);

    c.tables.clear();
    c.tables.reserve(4);
    ArgList& a = c.args;
    a.args.clear();
    auto arg = [&](ArgKind k, void* p, int64_t i) { Arg x{k}; x.ptr = p; x.i = i; a.args.push_back(x); };
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    arg(ArgKind::DstPtr, c.arena.at(e.buf), 0);
    if (hasVectors(m)) appendOperand(c, c.dst, ArgKind::DstPtr);
    arg(ArgKind::DstPtr, c.arena.at(e.vals), 0);
    arg(ArgKind::Width, nullptr, n);
    if (m.hasArray()) arg(ArgKind::Count, nullptr, c.count);
}

OmkStatus run(EigCase& e) {
    e.before = e.c.arena.bytes;
    return e.c.m->call(e.c.args);
}

// Puts the arena back as it was before the last call.
void restore(EigCase& e) { std::copy(e.before.begin(), e.before.end(), e.c.arena.bytes.begin()); }

// ---- matrices ----
// A Q diag(lambda) Q' with Q orthogonal (Gram-Schmidt of a Gaussian matrix), rounded to the type.
Mat spectral(const std::vector<double>& lambda, std::mt19937& rng, int esize) {
    const int n = int(lambda.size());
    std::normal_distribution<double> g;
    std::vector<double> q(size_t(n) * n);
    for (double& x : q) x = g(rng);
    for (int j = 0; j < n; ++j) {  // columns
        for (int p = 0; p < j; ++p) {
            double d = 0;
            for (int i = 0; i < n; ++i) d += q[i * n + j] * q[i * n + p];
            for (int i = 0; i < n; ++i) q[i * n + j] -= d * q[i * n + p];
        }
        double s = 0;
        for (int i = 0; i < n; ++i) s += q[i * n + j] * q[i * n + j];
        for (int i = 0; i < n; ++i) q[i * n + j] /= std::sqrt(s);
    }
    Mat a(size_t(n) * n);
    for (int i = 0; i < n; ++i)
        for (int j = i; j < n; ++j) {
            double s = 0;
            for (int k = 0; k < n; ++k) s += q[i * n + k] * lambda[k] * q[j * n + k];
            a[i * n + j] = a[j * n + i] = toType(s, esize);
        }
    return a;
}

// Spectra with every |lambda| >= 1: 0 spread with random signs, 1 a value repeated n-2 times,
// 2 pairs of opposite values.
std::vector<double> spectrum(int kind, int n, std::mt19937& rng) {
    std::uniform_real_distribution<double> mag(1.0, 10.0);
    std::vector<double> l(n);
    for (int i = 0; i < n; ++i) {
        if (kind == 0) l[i] = (rng() & 1 ? -1 : 1) * mag(rng);
        else if (kind == 1) l[i] = i == 0 ? -4.0 : i == n - 1 ? 7.5 : 3.0;
        else l[i] = (i % 2 ? -1 : 1) * (1.0 + i / 2);
    }
    if (n == 1) l[0] = mag(rng);
    return l;
}

std::vector<Mat> randomMats(int n, int count, int esize, std::mt19937& rng, int kind = 0) {
    std::vector<Mat> out;
    for (int k = 0; k < count; ++k) out.push_back(spectral(spectrum(kind, n, rng), rng, esize));
    return out;
}

Mat diagonal(const std::vector<double>& d) {
    const int n = int(d.size());
    Mat a(size_t(n) * n, 0.0);
    for (int i = 0; i < n; ++i) a[i * n + i] = d[i];
    return a;
}

double frobenius(const Mat& a) {
    double s = 0;
    for (double x : a) s += x * x;
    return std::sqrt(s);
}

// Cyclic Jacobi rotations in double until the off-diagonal part vanishes; values descending.
std::vector<double> jacobiValues(Mat a, int n) {
    for (int sweep = 0; sweep < 100; ++sweep) {
        double off = 0;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                if (i != j) off += a[i * n + j] * a[i * n + j];
        if (off <= 1e-40 * (1 + frobenius(a) * frobenius(a))) break;
        for (int p = 0; p < n; ++p)
            for (int q = p + 1; q < n; ++q) {
                if (a[p * n + q] == 0) continue;
                const double theta = (a[q * n + q] - a[p * n + p]) / (2 * a[p * n + q]);
                const double t = (theta >= 0 ? 1 : -1) / (std::fabs(theta) + std::sqrt(theta * theta + 1));
                const double c = 1 / std::sqrt(t * t + 1), s = t * c;
                for (int k = 0; k < n; ++k) {
                    const double kp = a[k * n + p], kq = a[k * n + q];
                    a[k * n + p] = c * kp - s * kq;
                    a[k * n + q] = s * kp + c * kq;
                }
                for (int k = 0; k < n; ++k) {
                    const double pk = a[p * n + k], qk = a[q * n + k];
                    a[p * n + k] = c * pk - s * qk;
                    a[q * n + k] = s * pk + c * qk;
                }
            }
    }
    std::vector<double> w(n);
    for (int i = 0; i < n; ++i) w[i] = a[i * n + i];
    std::sort(w.rbegin(), w.rend());
    return w;
}

// Values within 64*n*eps*|A| of the reference and descending; with vectors, |A v - lambda v| within
// the same bound and V'V within 64*n*eps of the identity.
void expectEigenpairs(const EigCase& e, int k, const Mat& a, bool sorted = true) {
    const int n = e.n;
    const double eps = epsOf(e.e()), norm = frobenius(a), tol = 64.0 * n * eps * norm;
    std::vector<double> got = e.values(k), want = jacobiValues(a, n);
    if (sorted)
        for (int i = 0; i + 1 < n; ++i) EXPECT_GE(got[i], got[i + 1]) << e.c.m->name << " n " << n << " at " << i;
    std::vector<double> g = got;
    std::sort(g.rbegin(), g.rend());
    for (int i = 0; i < n; ++i) EXPECT_NEAR(g[i], want[i], tol) << e.c.m->name << " n " << n << " value " << i;
    if (!e.vectors()) return;
    for (int j = 0; j < n; ++j) {
        double r = 0;
        for (int i = 0; i < n; ++i) {
            double av = 0;
            for (int t = 0; t < n; ++t) av += a[i * n + t] * e.vec(k, t, j);
            r += (av - got[j] * e.vec(k, i, j)) * (av - got[j] * e.vec(k, i, j));
        }
        EXPECT_LE(std::sqrt(r), tol) << e.c.m->name << " n " << n << " residual of column " << j;
        for (int p = 0; p < n; ++p) {
            double d = 0;
            for (int i = 0; i < n; ++i) d += e.vec(k, i, j) * e.vec(k, i, p);
            EXPECT_NEAR(d, p == j ? 1.0 : 0.0, 64.0 * n * eps) << e.c.m->name << " n " << n << " columns " << j << "," << p;
        }
    }
}

// ---- order 2 in closed form ----
enum class Variant { Exact, NoFmaDet, ScaleInElementType, SquareInDouble };

template <class T>
struct Two {
    OmkStatus st = omkStsOk;
    T v[2] = {};
    T V[4] = {};  // rows
    int tBranch = 0, dBranch = 0, uBranch = 0;
    bool sigmasEqual = false;
};

template <class T>
Two<T> closedForm(T a, T b, T d, Variant var = Variant::Exact) {
    const T eps = kEps<T>;
    Two<T> r;
    const T det = var == Variant::NoFmaDet ? a * d - b * b : std::fma(a, d, -(b * b));
    if (std::fabs(det) <= eps) { r.st = omkStsSingular; return r; }
    const T t = a + d, delta = a - d, b2 = T(2) * b;
    const T D = std::sqrt(delta * delta + b2 * b2);
    if (t > eps) r.tBranch = 0, r.v[0] = T(0.5) * (t + D), r.v[1] = det / r.v[0];
    else if (t < -eps) r.tBranch = 1, r.v[0] = T(0.5) * (t - D), r.v[1] = det / r.v[0];
    else r.tBranch = 2, r.v[0] = T(0.5) * D, r.v[1] = T(-0.5) * D;
    const int s1 = t < -eps ? -1 : 1;
    int s2 = 1;
    T u;
    if (delta >= eps) r.dBranch = 0, u = delta + D;
    else if (delta < -eps) r.dBranch = 1, u = delta - D, s2 = -1;
    else r.dBranch = 2, u = delta + D;
    auto unit = [&](T q) -> T {
        if (var == Variant::ScaleInElementType) return T(1) / std::sqrt(q * q + T(1));
        if (var == Variant::SquareInDouble) return T(1.0 / std::sqrt(double(q) * double(q) + 1.0));
        return T(1.0 / std::sqrt(double(q * q + T(1))));
    };
    T x, y;
    if (std::fabs(u) > std::fabs(b2)) {
        r.uBranch = 0;
        const T q = -b2 / u, c = unit(q);
        x = c, y = q * c;
    } else if (std::fabs(b2) <= eps) {
        r.uBranch = 1, x = T(0), y = T(1);
    } else {
        r.uBranch = 2;
        const T q = -u / b2, c = unit(q);
        x = q * c, y = c;
    }
    r.sigmasEqual = s1 == s2;
    if (s1 != s2) r.V[0] = y, r.V[1] = -x, r.V[2] = x, r.V[3] = y;
    else r.V[0] = -x, r.V[1] = -y, r.V[2] = y, r.V[3] = -x;
    return r;
}

template <class T>
bool differs(const Two<T>& p, const Two<T>& q) {
    return p.st != q.st || std::memcmp(p.v, q.v, sizeof p.v) != 0 || std::memcmp(p.V, q.V, sizeof p.V) != 0;
}

// (a, b, d) triples reaching every branch and boundary, then random ones of mixed magnitudes.
template <class T>
std::vector<std::array<T, 3>> orderTwoInputs(std::mt19937& rng) {
    const T e = kEps<T>;
    std::vector<std::array<T, 3>> in = {
        // t = 0, t = eps exactly (the middle case), t = -eps, t = 2 eps
        {1, T(0.25), -1}, {1, T(0.5), -(1 - e)}, {-1, T(0.5), 1 - e}, {1, T(0.5), -(1 - 2 * e)},
        // delta = eps exactly (the first case), delta = -eps, |delta| < eps with |u| < |2b|
        {1, T(0.75), 1 - e}, {1 - e, T(0.75), 1}, {1 - e / 2, T(0.25), 1},
        // delta = 0: |u| = |2b|; |2b| = eps; b = 0
        {3, T(0.25), 3}, {-3, T(-1.5), -3}, {2, e / 2, 2}, {2, 0, 2}, {-2, 0, -2},
        {5, 0, 2}, {2, 0, 5}, {-5, 0, -2}, {-2, 0, -5}, {-3, 0, -1},
        // |det| just above and at eps, and zero
        {1, 0, 2 * e}, {1, 0, e}, {-1, 0, e}, {1, 1, 1},
    };
    std::uniform_real_distribution<double> mant(1.0, 2.0);
    std::uniform_int_distribution<int> ex(-3, 3);
    auto val = [&] { return T((rng() & 1 ? -1 : 1) * std::ldexp(mant(rng), ex(rng))); };
    for (int i = 0; i < 300; ++i) {
        const T a = val(), b = val();
        switch (i % 5) {
        case 0: in.push_back({a, b, -a}); break;     // zero trace
        case 1: in.push_back({a, b, a}); break;      // zero delta
        case 2: in.push_back({a, T(0), val()}); break;
        default: in.push_back({a, b, val()});
        }
    }
    return in;
}

template <class T>
void orderTwoWalk() {
    std::mt19937 rng(sizeof(T) == 4 ? 101 : 103);
    const int es = sizeof(T);
    std::set<int> tB, dB, uB, sig;
    int fmaWitness = 0, scaleWitness = 0, squareWitness = 0, singular = 0;
    for (const auto& in : orderTwoInputs<T>(rng)) {
        const T a = in[0], b = in[1], d = in[2];
        const Two<T> want = closedForm(a, b, d);
        fmaWitness += differs(want, closedForm(a, b, d, Variant::NoFmaDet));
        scaleWitness += differs(want, closedForm(a, b, d, Variant::ScaleInElementType));
        squareWitness += differs(want, closedForm(a, b, d, Variant::SquareInDouble));
        singular += want.st == omkStsSingular;
        if (want.st == omkStsOk) tB.insert(want.tBranch), dB.insert(want.dBranch), uB.insert(want.uBranch),
            sig.insert(want.sigmasEqual);
        // The element below the diagonal is never read.
        const Mat m = {double(a), double(b), std::numeric_limits<double>::quiet_NaN(), double(d)};
        for (const Member& mem : members()) {
            if (mem.esize != es) continue;
            EigCase e;
            build(e, mem, 2, {m}, Style::Gapped, Style::PaddedRows);
            ASSERT_EQ(run(e), want.st) << mem.name << " " << a << " " << b << " " << d;
            ASSERT_TRUE(e.othersUntouched()) << mem.name;
            if (want.st != omkStsOk) {
                ASSERT_TRUE(e.objectUntouched(0)) << mem.name << ": written on singular " << a << " " << b << " " << d;
                continue;
            }
            for (int i = 0; i < 2; ++i)
                ASSERT_EQ(T(e.value(0, i)), want.v[i]) << mem.name << " value " << i << " of " << a << " " << b << " " << d;
            if (!e.vectors()) continue;
            for (int i = 0; i < 4; ++i) {
                const T got = T(e.vec(0, i / 2, i % 2));
                ASSERT_EQ(0, std::memcmp(&got, &want.V[i], sizeof got))
                    << mem.name << " V(" << i / 2 << "," << i % 2 << ") " << got << " vs " << want.V[i] << " of " << a
                    << " " << b << " " << d;
            }
            // The closed form's columns are eigenvectors of [[a, b], [b, d]].
            expectEigenpairs(e, 0, {double(a), double(b), double(b), double(d)}, false);
        }
    }
    EXPECT_TRUE(tB.size() == 3 && dB.size() == 3 && uB.size() == 3 && sig.size() == 2) << "a branch was missed";
    EXPECT_GE(singular, 3);
    EXPECT_GT(fmaWitness, 0) << "no input told the fused determinant from a plain one";
    if (sizeof(T) == 4) {
        EXPECT_GT(scaleWitness, 0) << "no input told a float root from a double one";
        EXPECT_GT(squareWitness, 0) << "no input told q*q + 1 in float from q*q + 1 in double";
    }
}

// ---- the iteration, bit for bit, on tridiagonal inputs with couplings that are powers of two ----
// For such inputs every reflection of the reduction is exact (it flips the sign of one row and
// column), so the tridiagonal form, and with it every later rounding, is known. The vector matrix
// starts as the product of those reflections (exact too) and takes each rotation with its four
// products rounded apart: zj' = s*zi + c*zj, zi' = c*zi - s*zj.
template <class T>
struct Steps {
    OmkStatus st = omkStsOk;
    bool qr = false;
    std::vector<T> values;
    std::vector<T> Z;  // n x n, row-major
    int fusedWitness = 0;  // rotations whose columns a fused multiply-add(-subtract) would change
    int restarts = 0;      // sweeps cut short by a rotation with |r| <= eps
};

// A product rounded to the type and held there: volatile keeps the compiler from fusing it into
// the sum that uses it.
template <class T> T rounded(T x) {
    volatile T v = x;
    return v;
}

template <class T>
Steps<T> referenceSteps(const Mat& a, int n, int direction /* -1: by the ends, 0: QL, 1: QR */) {
    const T eps = kEps<T>;
    std::vector<T> W(size_t(n) * n), Z(size_t(n) * n, T(0));
    for (size_t i = 0; i < W.size(); ++i) W[i] = T(a[i]);
    for (int i = 0; i < n; ++i) Z[i * n + i] = 1;
    for (int k = 0; k + 2 < n; ++k) {
        const int m = n - k - 1;
        std::vector<T> v(m);
        T s = 0;
        for (int i = 0; i < m; ++i) s = s + W[(k + 1 + i) * n + k] * W[(k + 1 + i) * n + k];
        const T alpha = std::sqrt(s), x0 = W[(k + 1) * n + k];
        T h;
        if (x0 > eps) v[0] = x0 + alpha, h = T(2) * (alpha * x0 + s);
        else if (x0 < -eps) v[0] = x0 - alpha, h = T(2) * (s - alpha * x0);
        else v[0] = alpha, h = T(2) * s;
        for (int i = 1; i < m; ++i) v[i] = W[(k + 1 + i) * n + k];
        if (h <= eps) continue;
        std::vector<T> H(size_t(n) * n, T(0)), HW(size_t(n) * n, T(0));
        for (int i = 0; i < n; ++i) H[i * n + i] = 1;
        for (int i = 0; i < m; ++i)
            for (int j = 0; j < m; ++j) H[(k + 1 + i) * n + k + 1 + j] -= (T(2) / h) * v[i] * v[j];
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                for (int t = 0; t < n; ++t) HW[i * n + j] += H[i * n + t] * W[t * n + j];
        std::fill(W.begin(), W.end(), T(0));
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                for (int t = 0; t < n; ++t) W[i * n + j] += HW[i * n + t] * H[t * n + j];
        std::vector<T> ZH(size_t(n) * n, T(0));
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                for (int t = 0; t < n; ++t) ZH[i * n + j] += Z[i * n + t] * H[t * n + j];
        Z = ZH;
    }
    std::vector<T> d(n), e(n, T(0));
    for (int i = 0; i < n; ++i) d[i] = W[i * n + i];
    for (int i = 0; i + 1 < n; ++i) e[i] = W[(i + 1) * n + i];  // coupling of rows i and i+1
    Steps<T> out;
    out.qr = direction < 0 ? !(std::fabs(d[n - 1]) > std::fabs(d[0])) : direction == 1;
    out.values.assign(n, T(0));
    // QR: the QL steps on the reversed diagonal and couplings; step index p is row n-1-p.
    if (out.qr) std::reverse(d.begin(), d.end()), std::reverse(e.begin(), e.begin() + (n - 1));
    auto row = [&](int p) { return out.qr ? n - 1 - p : p; };
    T P = 1;
    for (int l = 0; l < n; ++l)
        for (int sweeps = 0;;) {
            int m = l;
            while (m < n - 1 && !(std::fabs(0.5 * double(e[m])) <= double(eps))) ++m;
            if (out.qr && row(m) >= 1) out.values[row(m)] = d[m], P = P * d[m];
            if (m == l) break;
            if (sweeps == 30) { out.st = omkStsNotConverged; return out; }
            ++sweeps;
            T g = (d[l + 1] - d[l]) / (T(2) * e[l]);
            T r = std::sqrt(std::fma(g, g, T(1)));
            g = (d[m] - d[l]) + e[l] / (g > eps ? g + r : g - r);
            T s = 1, c = 1, p = 0;
            bool restart = false;
            for (int i = m - 1; i >= l; --i) {
                const T f = s * e[i], b = c * e[i];
                r = std::sqrt(std::fma(f, f, g * g));
                if (i != m - 1) e[i + 1] = r;
                if (std::fabs(r) <= eps) { d[i + 1] = d[i + 1] - p; e[m] = 0; restart = true; ++out.restarts; break; }
                s = f / r;
                c = g / r;
                g = d[i + 1] - p;
                r = std::fma(s, d[i] - g, b * (T(2) * c));
                p = s * r;
                d[i + 1] = g + p;
                g = std::fma(r, c, -b);
                for (int k = 0; k < n; ++k) {
                    T& zi = Z[k * n + row(i)];
                    T& zj = Z[k * n + row(i + 1)];
                    const T nj = rounded(s * zi) + rounded(c * zj), ni = rounded(c * zi) - rounded(s * zj);
                    out.fusedWitness += std::fma(s, zi, rounded(c * zj)) != nj || std::fma(c, zi, -rounded(s * zj)) != ni;
                    zj = nj;
                    zi = ni;
                }
            }
            if (restart || (std::fabs(r) <= eps && l >= 1)) continue;
            d[l] = d[l] - p;
            e[l] = g;
            e[m] = 0;
        }
    if (out.qr) {
        out.values[0] = d[n - 1], P = P * d[n - 1];
    } else {
        for (int i = 0; i < n; ++i) out.values[i] = d[i], P = P * d[i];
    }
    out.Z = Z;
    if (std::fabs(P) <= eps) { out.st = omkStsSingular; return out; }
    for (int i = 0; i + 1 < n; ++i) {
        int j = i;
        for (int q = i + 1; q < n; ++q)
            if (out.values[q] > out.values[j]) j = q;
        std::swap(out.values[i], out.values[j]);
        if (j != i)
            for (int r = 0; r < n; ++r) std::swap(out.Z[r * n + i], out.Z[r * n + j]);
    }
    return out;
}

int orderOf(const Mat& a) { return int(std::lround(std::sqrt(double(a.size())))); }

Mat tridiagonal(const std::vector<double>& d, const std::vector<double>& e) {
    const int n = int(d.size());
    Mat a = diagonal(d);
    for (int i = 0; i + 1 < n; ++i) a[(i + 1) * n + i] = a[i * n + i + 1] = e[i];
    return a;
}

// Matrices whose tridiagonal form is exact, each with the direction its ends call for (0 QL, 1 QR):
// random ones of orders 3 to 12 in both directions, and the edges of the steps.
template <class T>
std::vector<std::pair<Mat, int>> directionCases() {
    std::mt19937 rng(sizeof(T) == 4 ? 211 : 223);
    std::uniform_real_distribution<double> mag(0.5, 8.0);
    std::uniform_int_distribution<int> ex(-1, 1);
    std::vector<std::pair<Mat, int>> cases;
    for (int n : {3, 4, 5, 7, 9, 12})
        for (int kind = 0; kind < 3; ++kind)  // 0: |d[n-1]| > |d[0]|, 1: below, 2: equal
            for (int rep = 0; rep < 8; ++rep) {
                std::vector<double> d(n), e(n - 1);
                for (double& x : d) x = toType((rng() & 1 ? -1 : 1) * mag(rng), sizeof(T));
                for (double& x : e) x = (rng() & 1 ? -1 : 1) * std::ldexp(1.0, ex(rng));
                if ((kind == 0) != (std::fabs(d[n - 1]) > std::fabs(d[0]))) std::swap(d[0], d[n - 1]);
                if (kind == 2) d[n - 1] = -d[0];
                if (kind == 1 && std::fabs(d[n - 1]) == std::fabs(d[0])) d[0] *= 2;
                cases.push_back({tridiagonal(d, e), kind == 0 ? 0 : 1});
            }
    // Rank 2, in both directions: the values come back as the steps left them.
    cases.push_back({tridiagonal({0.125, 0.1875, 0.25}, {0.125, 0.125}), 0});
    cases.push_back({tridiagonal({0.25, 0.1875, 0.125}, {0.125, 0.125}), 1});
    cases.push_back({tridiagonal({0.125, 0.25, 0.125}, {0.125, 0.125}), 1});
    // The first shift with 0 < g <= eps: g is compared with +eps, not with zero.
    const double eps = kEps<T>;
    for (double s : {-0.5, 0.5}) {
        cases.push_back({tridiagonal({1, 1 + eps, 3}, {s, 1}), 0});
        cases.push_back({tridiagonal({1, 1 + eps, 2, 3}, {s, 1, -1}), 0});
        cases.push_back({tridiagonal({3, 1 + eps, 1}, {1, s}), 1});
        cases.push_back({tridiagonal({3, -2, 1 + eps, 1}, {1, -1, s}), 1});
    }
    // x0 = eps takes the middle case of the reduction: v = (alpha, x1) = (1, 1), h = 2 s = 2, and
    // H swaps rows 1 and 2 with a sign, exactly (a first component x0 + alpha = 1 + eps would not).
    cases.push_back({Mat{1.5, eps, 1, eps, 4, 0.5, 1, 0.5, -2}, 0});
    cases.push_back({Mat{5, eps, 1, eps, 1, 0.5, 1, 0.5, 2}, 1});
    // A coupling of 2 eps is negligible (|0.5 e| <= eps): 1 and 1 stay apart; one of 4 eps is not.
    cases.push_back({tridiagonal({1, 1, 3}, {2 * eps, 2 * eps}), 0});
    cases.push_back({tridiagonal({1, 1, 3}, {4 * eps, 4 * eps}), 0});
    cases.push_back({tridiagonal({3, 1, 1}, {2 * eps, 2 * eps}), 1});
    return cases;
}

template <class T>
void tridiagonalWalk() {
    const std::string type = sizeof(T) == 4 ? "32f" : "64f";
    const Member& values = memberNamed("omkmEigenValuesSym_m_" + type);
    const Member& vectors = memberNamed("omkmEigenValuesVectorsSym_m_" + type);
    int witness[2] = {0, 0}, taken[2] = {0, 0}, singular = 0, fused = 0;
    const double eps = kEps<T>;
    {
        const Steps<T> apart = referenceSteps<T>(tridiagonal({1, 1, 3}, {2 * eps, 2 * eps}), 3, -1);
        const Steps<T> split = referenceSteps<T>(tridiagonal({1, 1, 3}, {4 * eps, 4 * eps}), 3, -1);
        EXPECT_EQ(apart.values, (std::vector<T>{3, 1, 1}));
        EXPECT_NE(split.values, (std::vector<T>{3, 1, 1}));
    }
    for (const auto& [a, dir] : directionCases<T>()) {
        const int n = orderOf(a);
        const Steps<T> want = referenceSteps<T>(a, n, -1);
        ASSERT_EQ(int(want.qr), dir) << "the reduction moved an end of the diagonal";
        const Steps<T> other = referenceSteps<T>(a, n, dir == 0 ? 1 : 0);
        witness[dir] += other.st != want.st || other.values != want.values;
        ++taken[dir];
        singular += want.st == omkStsSingular;
        fused += want.fusedWitness > 0;
        for (const Member* m : {&values, &vectors}) {
            EigCase e;
            build(e, *m, n, {a});
            ASSERT_EQ(run(e), want.st) << m->name << " n " << n << (dir ? " QR" : " QL");
            if (want.st == omkStsNotConverged) continue;
            for (int i = 0; i < n; ++i)
                ASSERT_EQ(T(e.value(0, i)), want.values[i]) << m->name << " n " << n << (dir ? " QR" : " QL") << " value " << i;
            if (e.vectors())
                for (int i = 0; i < n * n; ++i)
                    ASSERT_EQ(T(e.vec(0, i / n, i % n)), want.Z[i]) << m->name << " n " << n << (dir ? " QR" : " QL") << " vector element " << i;
            expectEigenpairs(e, 0, a, want.st == omkStsOk);
        }
    }
    EXPECT_GE(singular, 3);
    EXPECT_GT(fused, 10) << "no rotation told separately rounded products from fused ones";
    for (int dir : {0, 1}) {
        EXPECT_GT(taken[dir], 40);
        EXPECT_GT(witness[dir], 0) << "the two directions never gave different bits (" << (dir ? "QR" : "QL") << ")";
    }
}

// The calls that put `mats` through member m: one per matrix, or one array call.
std::vector<std::vector<Mat>> callsFor(const Member& m, const std::vector<Mat>& mats) {
    if (m.hasArray()) return {mats};
    std::vector<std::vector<Mat>> out;
    for (const Mat& a : mats) out.push_back({a});
    return out;
}

const Mat kNanMatrix = {1, std::numeric_limits<double>::quiet_NaN(), 0.5, std::numeric_limits<double>::quiet_NaN(),
                        2, 0.25, 0.5, 0.25, 3};


// Matrices of order n for arrays that run side by side: the direction cases of that order that
// converge, random ones of every spectrum, diagonal ones (every value found at once, with ties),
// columns whose reflection is skipped (h <= eps), scaled ones, and at order 3 sweeps cut short by a
// rotation with |r| <= eps; shuffled so that every block mixes them.
template <class T>
std::vector<Mat> laneMix(int n, std::mt19937& rng) {
    const int es = sizeof(T);
    const double eps = kEps<T>;
    std::vector<Mat> mats;
    for (const auto& [a, dir] : directionCases<T>())
        if (orderOf(a) == n) mats.push_back(a);
    for (int kind = 0; kind < 3; ++kind)
        for (const Mat& a : randomMats(n, n == 3 ? 12 : 24, es, rng, kind)) mats.push_back(a);
    std::vector<double> ties(n), spread(n);
    for (int i = 0; i < n; ++i) ties[i] = i % 2 ? -3 : 2, spread[i] = (i % 2 ? -1 : 1) * (1 + 2 * i);
    mats.push_back(diagonal(ties));
    mats.push_back(diagonal(spread));
    // One coupling of 1 among negligible ones: the only sweeps start at l = t, in both directions.
    for (int t = 0; t + 1 < n; ++t)
        for (int dir : {0, 1}) {
            std::vector<double> d(n), e(n - 1, eps / 4);
            for (int i = 0; i < n; ++i) d[i] = dir ? n - i : i + 1;
            e[dir ? n - 2 - t : t] = 1;
            mats.push_back(tridiagonal(d, e));
        }
    if (n == 3)
        for (double x : {0x1p-30, 0x1p-20, 0x1p-12}) {
            mats.push_back(tridiagonal({-2, -2, -1}, {-1, x}));
            mats.push_back(tridiagonal({-2, -2, 3}, {x, x}));
        }
    for (double below : {0.0, eps / 4}) {  // column 0 under the diagonal
        Mat a = randomMats(n, 1, es, rng)[0];
        for (int i = 1; i < n; ++i) a[i * n] = a[i] = i == 1 ? below : 0.0;
        mats.push_back(a);
    }
    for (double scale : {0x1p-4, 0x1p6}) {
        Mat a = randomMats(n, 1, es, rng)[0];
        for (double& x : a) x = toType(x * scale, es);
        mats.push_back(a);
    }
    std::shuffle(mats.begin(), mats.end(), rng);
    return mats;
}

template <class T>
void lanesWalk(int n) {
    std::mt19937 rng((sizeof(T) == 4 ? 307 : 311) + n);
    const std::string type = sizeof(T) == 4 ? "32f" : "64f";
    const size_t width = sizeof(T) == 4 ? 8 : 4;  // matrices side by side
    const double eps = kEps<T>;
    const std::vector<Mat> mix = laneMix<T>(n, rng);
    for (const std::string op : {"EigenValuesSym", "EigenValuesVectorsSym"}) {
        const Member& single = memberNamed("omkm" + op + "_m_" + type);
        auto alone = [&](const Mat& a, OmkStatus want) {
            EigCase r;
            build(r, single, n, {a});
            return run(r) == want ? r.result(0) : std::vector<unsigned char>{};
        };
        std::vector<Mat> mats;
        std::vector<std::vector<unsigned char>> want;
        int directions[2] = {0, 0}, restarts = 0;
        for (const Mat& a : mix)
            if (auto bits = alone(a, omkStsOk); !bits.empty()) {
                mats.push_back(a);
                want.push_back(bits);
                const Steps<T> steps = referenceSteps<T>(a, n, -1);
                ++directions[steps.qr];
                restarts += steps.restarts > 0;
            }
        if (n == 3) ASSERT_GE(restarts, 2) << "no sweep in the mix was cut short";
        ASSERT_GT(mats.size(), 8 * width);
        if (mats.size() % width == 0) mats.pop_back(), want.pop_back();  // a tail after the last block
        ASSERT_GT(directions[0], int(2 * width));
        ASSERT_GT(directions[1], int(2 * width));

        // A failing matrix in the fourth block, after two of its neighbours.
        const size_t at = 3 * width + 2;
        // QR (equal ends) with P = 4 * (eps/32) * 4 = eps/2: singular only if every value enters P
        // where the QR search says, and row 0 only at the end.
        std::vector<double> product(n, 1.0), zero(n, 1.0);
        product[0] = product[n - 1] = 4, product[1] = eps / 32;
        zero[n / 2] = 0;
        Mat nan = randomMats(n, 1, sizeof(T), rng)[0];
        nan[1] = nan[n] = std::numeric_limits<double>::quiet_NaN();
        std::vector<std::pair<Mat, OmkStatus>> failing = {
            {diagonal(product), omkStsSingular}, {diagonal(zero), omkStsSingular}, {nan, omkStsNotConverged}};
        if (n == 3) {  // rank 2, unsorted values, in both directions
            failing.push_back({tridiagonal({0.125, 0.1875, 0.25}, {0.125, 0.125}), omkStsSingular});
            failing.push_back({tridiagonal({0.25, 0.1875, 0.125}, {0.125, 0.125}), omkStsSingular});
        }

        for (const Member& m : members()) {
            if (m.op != op || typeOf(m) != type || !m.hasArray()) continue;
            for (const auto& [ss, ds] : std::vector<std::pair<Style, Style>>{
                     {Style::Packed, Style::Packed}, {Style::PaddedRows, Style::Packed}, {Style::Packed, Style::PaddedRows}}) {
                probe::Budget serial(1);
                EigCase e;
                build(e, m, n, mats, ss, ds);
                ASSERT_EQ(run(e), omkStsOk) << m.name;
                EXPECT_TRUE(e.othersUntouched()) << m.name;
                for (size_t k = 0; k < mats.size(); ++k)
                    ASSERT_EQ(e.result(int(k)), want[k]) << m.name << " n " << n << " styles " << int(ss) << int(ds) << " object " << k;
            }
            // Each matrix in a block of its own copies: a block with a failing matrix is redone one
            // matrix at a time, so in a mixed block a lane that fails where its matrix does not
            // would go unseen.
            for (size_t k = 0; k < mats.size(); ++k) {
                probe::Budget serial(1);
                EigCase e;
                build(e, m, n, std::vector<Mat>(width, mats[k]));
                ASSERT_EQ(run(e), omkStsOk) << m.name << " n " << n << " matrix " << k << " in a block of copies";
                for (size_t q = 0; q < width; ++q)
                    ASSERT_EQ(e.result(int(q)), want[k]) << m.name << " n " << n << " matrix " << k << " lane " << q;
            }
            for (const auto& [bad, st] : failing) {
                probe::Budget serial(1);
                const std::vector<unsigned char> badBits = alone(bad, st);
                ASSERT_FALSE(badBits.empty());
                std::vector<Mat> with = mats;
                with[at] = bad;
                EigCase e;
                build(e, m, n, with);
                ASSERT_EQ(run(e), st) << m.name << " n " << n;
                EXPECT_TRUE(e.othersUntouched()) << m.name;
                for (size_t k = 0; k < at; ++k) ASSERT_EQ(e.result(int(k)), want[k]) << m.name << " object " << k;
                EXPECT_EQ(e.result(int(at)), badBits) << m.name << ": the failing matrix as one alone leaves it";
                for (size_t k = at + 1; k < mats.size(); ++k)
                    EXPECT_TRUE(e.objectUntouched(int(k))) << m.name << ": object " << k << " after the failure";
            }
        }
    }
}
}  // namespace

// ---- checks ----

// Null pointers, widthHeight, count, ROI shifts, strides: each fault alone gives its status and
// writes nothing (buffer and values included); of two faults in different steps the earlier wins.
TEST(EigenSymChecks, EveryMemberInItsOrder) {
    probe::Budget serial(1);
    std::mt19937 rng(5);
    const Expected none = [](Case&, int, int, int) { return 0.0; };
    for (const Member& m : members()) {
        EigCase e;
        build(e, m, 3, randomMats(3, m.hasArray() ? 2 : 1, m.esize, rng), Style::Gapped, Style::Gapped);
        std::vector<Fault> faults = faultsOf(e.c);
        walkFaults(e.c, m.hasArray() ? "NSCRT" : "NSRT", faults, none);
        if (HasFatalFailure()) return;
        ASSERT_EQ(run(e), omkStsOk) << m.name << " with every argument good";
    }
}

// ---- orders 1 and 2 ----

TEST(EigenSymEdges, OrderOneIsTheElementAndNeverTouchesTheBuffer) {
    probe::Budget serial(1);
    const std::vector<Mat> mats = {{0.0}, {-0.0}, {-2.5}, {std::numeric_limits<double>::quiet_NaN()}};
    for (const Member& m : members()) {
        for (const auto& call : callsFor(m, mats)) {
            EigCase e;
            build(e, m, 1, call, Style::Gapped, Style::Gapped);
            ASSERT_EQ(run(e), omkStsOk) << m.name;
            EXPECT_TRUE(e.bufferUntouched()) << m.name;
            EXPECT_TRUE(e.othersUntouched()) << m.name;
            for (int k = 0; k < e.c.count; ++k) {
                EXPECT_EQ(0, std::memcmp(&e.c.arena.bytes[e.valueAt(k, 0)], &e.c.arena.bytes[e.c.srcs[0].offset(k, 0, 0)], m.esize))
                    << m.name << " object " << k;
                if (e.vectors()) EXPECT_EQ(e.vec(k, 0, 0), 1.0) << m.name;
            }
        }
    }
}

// |a*d - b*b| <= eps (fused) is singular and writes nothing; an array stops at that object.
TEST(EigenSymEdges, OrderTwoSingularWritesNothing) {
    probe::Budget serial(1);
    for (const Member& m : members()) {
        const double eps = epsOf(m.esize);
        const Mat good = {3, 1, 1, 2};
        for (const Mat& bad : {Mat{1, 1, 1, 1}, Mat{1, 0, 0, eps}, Mat{-1, 0, 0, eps}, Mat{0.25, 0.5, 0.5, 1}}) {
            EigCase e;
            if (m.hasArray()) build(e, m, 2, {good, bad, good});
            else build(e, m, 2, {bad});
            ASSERT_EQ(run(e), omkStsSingular) << m.name << " " << bad[0] << " " << bad[1] << " " << bad[3];
            EXPECT_TRUE(e.othersUntouched()) << m.name;
            if (!m.hasArray()) { EXPECT_TRUE(e.objectUntouched(0)) << m.name; continue; }
            EXPECT_TRUE(e.objectUntouched(1)) << m.name;
            EXPECT_TRUE(e.objectUntouched(2)) << m.name << ": the object after the failure was computed";
            // The object before the failure is computed.
            const double v0 = m.esize == 4 ? double(closedForm<float>(3, 1, 2).v[0]) : closedForm<double>(3, 1, 2).v[0];
            const double v1 = m.esize == 4 ? double(closedForm<float>(3, 1, 2).v[1]) : closedForm<double>(3, 1, 2).v[1];
            EXPECT_EQ(e.value(0, 0), v0) << m.name;
            EXPECT_EQ(e.value(0, 1), v1) << m.name;
        }
    }
}

// Every branch and boundary of the closed form, bit for bit, values and vectors.
TEST(EigenSymEdges, OrderTwoClosedFormBitExact) {
    orderTwoWalk<float>();
    orderTwoWalk<double>();
}

// ---- diagonal inputs: the sort ----

// Values come back descending; the sort is a selection sort that swaps only for a strictly larger
// value, so equal values keep the first position and vector columns move with their values.
TEST(EigenSymEdges, DiagonalInputsSortAndTies) {
    probe::Budget serial(1);
    const std::vector<std::vector<double>> diags = {
        {1, 2, 3}, {3, 1, 2}, {3, 2, 1}, {1, 1, 1}, {2, 5, 2, 5}, {-1, 4, -1, 4, 0.5},
        {3, 1, 3, 7, 1, 7, 2, 2, 5}, {-2, 6, 6, -2, 1, 1, 6, -2, 9, 6}};
    // The permutation expected for a diagonal d, from the selection sort.
    auto permutation = [](std::vector<double> d) {
        std::vector<int> col(d.size());
        for (size_t i = 0; i < d.size(); ++i) col[i] = int(i);
        for (size_t i = 0; i + 1 < d.size(); ++i) {
            size_t j = i;
            for (size_t q = i + 1; q < d.size(); ++q)
                if (d[q] > d[j]) j = q;
            std::swap(d[i], d[j]);
            std::swap(col[i], col[j]);
        }
        return col;
    };
    // Spelled out for two of them: diag(1, 2, 3) and diag(2, 5, 2, 5).
    ASSERT_EQ(permutation({1, 2, 3}), (std::vector<int>{2, 1, 0}));
    ASSERT_EQ(permutation({2, 5, 2, 5}), (std::vector<int>{1, 3, 2, 0}));
    for (const Member& m : members())
        for (const auto& d : diags) {
            const int n = int(d.size());
            EigCase e;
            build(e, m, n, {diagonal(d)}, Style::PaddedRows, Style::Gapped);
            ASSERT_EQ(run(e), omkStsOk) << m.name << " n " << n;
            EXPECT_TRUE(e.othersUntouched());
            const std::vector<int> col = permutation(d);
            for (int j = 0; j < n; ++j) {
                EXPECT_EQ(e.value(0, j), d[col[j]]) << m.name << " n " << n << " value " << j;
                if (e.vectors())
                    for (int i = 0; i < n; ++i)
                        EXPECT_EQ(e.vec(0, i, j), i == col[j] ? 1.0 : 0.0) << m.name << " n " << n << " V(" << i << "," << j << ")";
            }
        }
    // Order 2 keeps its formula's order: a clearly negative trace puts the larger magnitude first.
    for (const Member& m : members()) {
        EigCase e;
        build(e, m, 2, {diagonal({-3, -1})});
        ASSERT_EQ(run(e), omkStsOk);
        EXPECT_EQ(e.value(0, 0), -3.0) << m.name;
        EXPECT_EQ(e.value(0, 1), -1.0) << m.name;
        if (e.vectors()) EXPECT_EQ(std::fabs(e.vec(0, 0, 0)), 1.0) << m.name;
    }
}

// ---- orders from 3 on ----

// Rank 2: omkStsSingular with the values as the steps left them. A zero row keeps its zero value
// in place (a sorted result would put 3 first) and its unit vector; a small dense rank-2 matrix
// has a product of values far below eps.
TEST(EigenSymEdges, SingularOrderThreeLeavesValuesUnsorted) {
    probe::Budget serial(1);
    for (const Member& m : members()) {
        const Mat zeroRow = {0, 0, 0, 0, 2, 1, 0, 1, 2};
        EigCase e;
        build(e, m, 3, {zeroRow}, Style::Gapped, Style::PaddedRows);
        ASSERT_EQ(run(e), omkStsSingular) << m.name;
        EXPECT_TRUE(e.othersUntouched());
        EXPECT_EQ(e.value(0, 0), 0.0) << m.name;
        expectEigenpairs(e, 0, zeroRow, false);
        if (e.vectors())
            for (int i = 0; i < 3; ++i) EXPECT_EQ(e.vec(0, i, 0), i == 0 ? 1.0 : 0.0) << m.name;
        // u u' + w w' / 64 with u = (1, 2, 3)/8, w = (2, -1, 1)/8.
        Mat dense(9);
        const double u[3] = {1, 2, 3}, w[3] = {2, -1, 1};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) dense[i * 3 + j] = (u[i] * u[j] + w[i] * w[j]) / 64.0;
        EigCase f;
        build(f, m, 3, {dense});
        ASSERT_EQ(run(f), omkStsSingular) << m.name;
        expectEigenpairs(f, 0, dense, false);
    }
}

// Product of the values at most eps: singular, values as they stand (diag(1, eps, 1) is not
// sorted); 2 eps passes and is sorted.
TEST(EigenSymEdges, SingularThresholdOnTheProductOfValues) {
    probe::Budget serial(1);
    for (const Member& m : members()) {
        const double eps = epsOf(m.esize);
        for (int n : {3, 9}) {
            for (double f : {1.0, 2.0}) {
                std::vector<double> d(n, 1.0);
                d[1] = f * eps;
                EigCase e;
                build(e, m, n, {diagonal(d)});
                ASSERT_EQ(run(e), f == 1 ? omkStsSingular : omkStsOk) << m.name << " n " << n;
                if (f == 2) std::rotate(d.begin() + 1, d.begin() + 2, d.end());
                EXPECT_EQ(e.values(0), d) << m.name << " n " << n;
            }
        }
    }
}

// A column whose reflection would have h = v'v <= eps is left as it is, and the iteration reads only
// the diagonal and the first subdiagonal: the coupling A(2, 0) = A(0, 2) = 2^-12 (float) or 2^-27
// (double) is not seen, and diag(1, 2, 1) comes back exactly.
TEST(EigenSymEdges, ReflectionWithTinyNormIsSkipped) {
    probe::Budget serial(1);
    for (const Member& m : members()) {
        const double delta = m.esize == 4 ? 0x1p-12 : 0x1p-27;
        EigCase e;
        build(e, m, 3, {Mat{1, 0, delta, 0, 2, 0, delta, 0, 1}});
        ASSERT_EQ(run(e), omkStsOk) << m.name;
        EXPECT_EQ(e.values(0), (std::vector<double>{2, 1, 1})) << m.name;
    }
}

// The iteration runs in the QL direction when |d[n-1]| > |d[0]| and in the QR direction otherwise
// (ties included); values and statuses match referenceSteps, the library's steps written out
// above, bit for bit in both.
TEST(EigenSymIteration, TridiagonalInputsBitExactInBothDirections) {
    probe::Budget serial(1);
    tridiagonalWalk<float>();
    tridiagonalWalk<double>();
}

// A NaN coupling is never negligible: after 30 sweeps the call reports omkStsNotConverged, and an
// array stops at that object.
TEST(EigenSymIteration, NotConvergedAfterTheSweepLimit) {
    probe::Budget serial(1);
    std::mt19937 rng(7);
    for (int n : {3, 9}) {
        Mat nan = kNanMatrix;
        if (n == 9) {
            nan = randomMats(9, 1, 8, rng)[0];
            nan[1] = nan[9] = std::numeric_limits<double>::quiet_NaN();
        }
        ASSERT_EQ(referenceSteps<double>(nan, n, -1).st, omkStsNotConverged);
        for (const Member& m : members()) {
            const std::vector<Mat> good = randomMats(n, 2, m.esize, rng);
            EigCase e;
            if (m.hasArray()) build(e, m, n, {good[0], nan, good[1]}, Style::Gapped, Style::Gapped);
            else build(e, m, n, {nan}, Style::Gapped, Style::Gapped);
            ASSERT_EQ(run(e), omkStsNotConverged) << m.name << " n " << n;
            EXPECT_TRUE(e.othersUntouched()) << m.name;
            if (!m.hasArray()) continue;
            EXPECT_TRUE(e.objectUntouched(2)) << m.name << ": the object after the failure was computed";
            EigCase one;
            build(one, plainOf(m), n, {good[0]});
            ASSERT_EQ(run(one), omkStsOk);
            EXPECT_EQ(e.result(0), one.result(0)) << m.name;
        }
    }
}

// Random symmetric matrices of orders 3 to 10 (and 16): values within 64*n*eps*|A|_F of a Jacobi
// solver in double, descending, columns orthonormal eigenvectors.
TEST(EigenSymResults, RandomMatricesWithinTolerance) {
    probe::Budget serial(1);
    std::mt19937 rng(11);
    for (const std::string type : {"32f", "64f"})
        for (int n : {3, 4, 5, 6, 7, 8, 9, 10, 16})
            for (int kind = 0; kind < 3; ++kind)
                for (int rep = 0; rep < 3; ++rep) {
                    const int es = type == "32f" ? 4 : 8;
                    const std::vector<double> lambda = spectrum(kind, n, rng);
                    const Mat a = spectral(lambda, rng, es);
                    // The reference finds the spectrum the matrix was made from (up to its rounding).
                    std::vector<double> sorted = lambda, ref = jacobiValues(a, n);
                    std::sort(sorted.rbegin(), sorted.rend());
                    for (int i = 0; i < n; ++i) ASSERT_NEAR(ref[i], sorted[i], 1e-5 * n * 10);
                    EigCase e;
                    build(e, memberNamed("omkmEigenValuesVectorsSym_m_" + type), n, {a});
                    ASSERT_EQ(run(e), omkStsOk) << type << " n " << n << " kind " << kind;
                    expectEigenpairs(e, 0, a);
                    EXPECT_TRUE(e.othersUntouched());
                }
}

// The same matrices through the contiguous, padded and strided standard descriptions, _P and _L,
// single and array members: the same bits for values and vectors.
TEST(EigenSymResults, EveryDescriptionGivesTheSameBits) {
    probe::Budget serial(1);
    const std::vector<std::pair<Style, Style>> styles = {{Style::Packed, Style::Packed},
                                                         {Style::PaddedRows, Style::Gapped},
                                                         {Style::Gapped, Style::PaddedRows},
                                                         {Style::Gapped, Style::Gapped}};
    for (const std::string type : {"32f", "64f"})
        for (int n : {1, 2, 3, 4, 5, 6, 7, 8, 9, 12}) {
            const int es = type == "32f" ? 4 : 8;
            std::mt19937 rng(13 + n);
            std::vector<Mat> mats;
            for (int kind = 0; kind < 3; ++kind) mats.push_back(randomMats(n, 1, es, rng, kind)[0]);
            std::vector<std::vector<unsigned char>> want0;  // results of the value members
            for (const std::string op : {"EigenValuesSym", "EigenValuesVectorsSym"}) {
                std::vector<std::vector<unsigned char>> want;
                for (size_t k = 0; k < mats.size(); ++k) {
                    EigCase r;
                    build(r, memberNamed("omkm" + op + "_m_" + type), n, {mats[k]});
                    ASSERT_EQ(run(r), omkStsOk);
                    want.push_back(r.result(0));
                    // The vector members compute the values of the value members.
                    if (op != "EigenValuesSym")
                        EXPECT_TRUE(std::equal(want[k].begin(), want[k].begin() + n * es, want0[k].begin())) << n;
                    else want0.push_back(want[k]);
                }
                for (const Member& m : members()) {
                    if (m.op != op || typeOf(m) != type) continue;
                    for (const auto& [ss, ds] : styles) {
                        const auto calls = callsFor(m, mats);
                        for (size_t c = 0; c < calls.size(); ++c) {
                            EigCase e;
                            build(e, m, n, calls[c], ss, ds);
                            ASSERT_EQ(run(e), omkStsOk) << m.name;
                            EXPECT_TRUE(e.othersUntouched()) << m.name;
                            for (int k = 0; k < e.c.count; ++k)
                                EXPECT_EQ(e.result(k), want[m.hasArray() ? k : c])
                                    << m.name << " n " << n << " styles " << int(ss) << int(ds) << " object " << k;
                        }
                    }
                }
            }
        }
}

// Arrays of orders 3 to 8 with packed rows run 8 floats or 4 doubles side by side: every matrix
// gets the bits of the single-matrix member whatever the others of its block do, and a failing
// matrix stops the array at itself, as one matrix at a time does.
TEST(EigenSymLanes, EveryMatrixOfABlockGetsItsOwnBits) {
    for (int n = 3; n <= 8; ++n) {
        lanesWalk<float>(n);
        lanesWalk<double>(n);
    }
}

// ---- serial limits ----

// Values: parallel from n*(n+1)*count >= 1001; values and vectors: from n*(2n+1)*count >= 701. No
// shape reaches either limit exactly (1001 = 7*11*13 is odd, 701 is prime), so the boundary is
// work 1000 / 700 (serial: the budget is never asked) against 1002 / 702 (the driver asks twice).
TEST(EigenSymLimits, EveryArrayMemberAtItsBoundary) {
    std::mt19937 rng(17);
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        const bool vec = hasVectors(m);
        const int64_t limit = vec ? 701 : 1001;
        auto work = [&](int64_t n, int64_t c) { return n * (vec ? 2 * n + 1 : n + 1) * c; };
        std::set<int64_t> below, above;
        for (int n = 1; n <= 10; ++n) {
            int cb = int((limit - 1) / work(n, 1)), ca = cb + 1;
            for (int c : {cb, ca}) {
                if (c < 1) continue;
                const bool parallel = work(n, c) >= limit;
                (parallel ? above : below).insert(work(n, c));
                EigCase e;
                build(e, m, n, randomMats(n, c, m.esize, rng));
                probe::Budget two(2);
                ASSERT_EQ(run(e), omkStsOk) << m.name << " n " << n << " count " << c;
                EXPECT_EQ(probe::calls(), parallel ? 2 : 0) << m.name << " n " << n << " count " << c << " work " << work(n, c);
            }
        }
        EXPECT_EQ(*below.rbegin(), limit - 1) << m.name;
        EXPECT_EQ(*above.begin(), limit + 1) << m.name;
    }
}

// One matrix far above the limit stays on the calling thread (fewer objects than threads) and gives
// the single-matrix result; single-matrix members never ask for the budget.
TEST(EigenSymLimits, OneObjectStaysSerial) {
    std::mt19937 rng(19);
    for (const Member& m : members()) {
        const Mat a = randomMats(40, 1, m.esize, rng)[0];
        EigCase r;
        build(r, plainOf(m), 40, {a});
        EigCase e;
        build(e, m, 40, {a}, Style::Gapped, Style::PaddedRows);
        probe::Budget two(2);
        ASSERT_EQ(run(e), omkStsOk) << m.name;
        EXPECT_EQ(probe::calls(), m.hasArray() ? 1 : 0) << m.name;
        ASSERT_EQ(run(r), omkStsOk);
        EXPECT_EQ(e.result(0), r.result(0)) << m.name;
    }
}

// ---- parallel runs ----

// Budgets 2 and 3 give the bits of budget 1 for every array member, and leave pBuffer alone: each
// thread takes its own scratch (from order 9 on the serial run works in pBuffer).
TEST(EigenSymParallel, BitIdenticalToSerial) {
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        for (auto [n, count] : {std::pair{3, 90}, std::pair{5, 37}, std::pair{9, 13}}) {
            std::mt19937 rng(23 + n);
            EigCase e;
            build(e, m, n, randomMats(n, count, m.esize, rng), Style::Gapped, Style::PaddedRows);
            std::vector<std::vector<unsigned char>> serial;
            {
                probe::Budget one(1);
                ASSERT_EQ(run(e), omkStsOk) << m.name;
                EXPECT_EQ(probe::calls(), 1) << m.name;
                if (n == 9) EXPECT_FALSE(e.bufferUntouched()) << m.name << ": the serial run works in pBuffer";
                for (int k = 0; k < count; ++k) serial.push_back(e.result(k));
            }
            for (int budget : {2, 3}) {
                restore(e);
                probe::Budget b(budget);
                ASSERT_EQ(run(e), omkStsOk) << m.name << " budget " << budget;
                EXPECT_EQ(probe::calls(), 2) << m.name << " budget " << budget;
                EXPECT_TRUE(e.bufferUntouched()) << m.name << " budget " << budget;
                EXPECT_TRUE(e.othersUntouched()) << m.name << " budget " << budget;
                for (int k = 0; k < count; ++k)
                    ASSERT_EQ(e.result(k), serial[k]) << m.name << " n " << n << " budget " << budget << " object " << k;
            }
        }
    }
}

// A singular object stops its own slice only: the call returns omkStsSingular, every other slice
// is computed, and the objects after the failure in its slice are untouched.
TEST(EigenSymParallel, FailingObjectStopsOnlyItsSlice) {
    struct Variant { int n, count; Mat bad; std::vector<int> at; };
    const std::vector<Variant> variants = {{4, 61, Mat(16, 0.0), {5, 40}}, {2, 181, Mat(4, 1.0), {5, 100}}};
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        for (const Variant& v : variants) {
            std::mt19937 rng(29);
            const std::vector<Mat> clean = randomMats(v.n, v.count, m.esize, rng);
            EigCase ref;
            build(ref, m, v.n, clean);
            {
                probe::Budget one(1);
                ASSERT_EQ(run(ref), omkStsOk);
            }
            for (int at : v.at) {
                std::vector<Mat> mats = clean;
                mats[at] = v.bad;
                EigCase e;
                build(e, m, v.n, mats, Style::Gapped, Style::Gapped);
                for (int budget : {1, 2, 3}) {
                    if (budget > 1) restore(e);
                    probe::Budget b(budget);
                    ASSERT_EQ(run(e), omkStsSingular) << m.name << " budget " << budget << " at " << at;
                    EXPECT_EQ(probe::calls(), budget == 1 ? 1 : 2);
                    EXPECT_TRUE(e.othersUntouched()) << m.name;
                    const auto [first, len] = sliceOf(v.count, budget, at);
                    if (v.n == 2) EXPECT_TRUE(e.objectUntouched(at)) << m.name << ": order 2 singular wrote";
                    for (int k = 0; k < v.count; ++k) {
                        if (k == at) continue;
                        if (k > at && k < first + len)
                            EXPECT_TRUE(e.objectUntouched(k)) << m.name << " budget " << budget << " object " << k;
                        else
                            ASSERT_EQ(e.result(k), ref.result(k)) << m.name << " budget " << budget << " object " << k;
                    }
                }
            }
        }
    }
}
