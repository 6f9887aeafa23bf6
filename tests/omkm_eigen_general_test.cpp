// General eigenproblem: EigenValues, EigenValuesVectorsLeft, EigenValuesVectorsRight and
// EigenValuesVectors, all forty members, and the four buffer size queries. The check order with
// the destinations tested after the source, order 2 bit for bit, random matrices of known spectrum
// (real, complex and mixed) with residuals of every left and right vector, triangular, defective
// and cyclic inputs, the same bits through every description and family, the serial limits, and
// the parallel slices with their statuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <set>
#include <stdexcept>

#include "member_checks.h"
#include "operands.h"
#include "thread_budget_probe.h"

using namespace testing_omk;

namespace {

using Cx = std::complex<double>;
using Mat = std::vector<double>;  // n x n, row-major, every entry representable in the element type

const std::vector<Member>& members() {
    static const std::vector<Member> all = {
        SINGLE_GROUP(EigenValues, m) ARRAY_GROUP(EigenValues, ma) SINGLE_GROUP(EigenValuesVectorsLeft, m)
            ARRAY_GROUP(EigenValuesVectorsLeft, ma) SINGLE_GROUP(EigenValuesVectorsRight, m)
                ARRAY_GROUP(EigenValuesVectorsRight, ma) SINGLE_GROUP(EigenValuesVectors, m)
                    ARRAY_GROUP(EigenValuesVectors, ma)};
    return all;
}

const Member& memberNamed(const std::string& name) {
    for (const Member& m : members())
        if (m.name == name) return m;
    throw std::runtime_error("no member " + name);
}

// The vector sides a member writes, in argument order: 'L' left, 'R' right.
std::string sidesOf(const Member& m) {
    if (m.op == "EigenValuesVectorsLeft") return "L";
    if (m.op == "EigenValuesVectorsRight") return "R";
    if (m.op == "EigenValuesVectors") return "LR";
    return "";
}
std::string typeOf(const Member& m) { return m.esize == 4 ? "32f" : "64f"; }
double epsOf(int esize) { return esize == 4 ? 0x1p-23 : 0x1p-52; }
double toType(double x, int esize) { return esize == 4 ? double(float(x)) : x; }

int32_t queried(bool vectors, int esize, int n) {
    int32_t bytes = -1;
    const OmkStatus st = vectors ? (esize == 4 ? omkmEigenValuesVectorsGetBufSize_32f(n, &bytes)
                                              : omkmEigenValuesVectorsGetBufSize_64f(n, &bytes))
                                 : (esize == 4 ? omkmEigenValuesGetBufSize_32f(n, &bytes)
                                              : omkmEigenValuesGetBufSize_64f(n, &bytes));
    if (st != omkStsOk) throw std::logic_error("size query failed");
    return bytes;
}

// ---- one call in guarded memory ----
// The source, the vector destinations, the real and imaginary values (n per object) and pBuffer
// (exactly the queried size) are blocks of one arena; every other byte holds the marker.
struct GenCase {
    Case c;  // c.srcs[0] is the source; c.dst is unused
    std::vector<Operand> vecs;
    std::string sides;
    int n = 0;
    size_t re = 0, im = 0, buf = 0, bufBytes = 0;
    size_t firstVecArg = 0, endVecArg = 0;
    std::vector<unsigned char> before;
    std::vector<bool> element;

    int e() const { return c.m->esize; }
    double read(size_t off) const {
        const unsigned char* p = c.arena.bytes.data() + off;
        return e() == 4 ? double(load<float>(p)) : load<double>(p);
    }
    size_t reAt(int k, int i) const { return re + (size_t(k) * n + i) * e(); }
    size_t imAt(int k, int i) const { return im + (size_t(k) * n + i) * e(); }
    Cx value(int k, int i) const { return {read(reAt(k, i)), read(imAt(k, i))}; }
    const Operand& side(char s) const { return vecs.at(sides.find(s)); }
    double vec(char s, int k, int i, int j) const { return read(side(s).offset(k, i, j)); }
    // The vector of value i of object k on side s, as complex numbers (a pair's second position
    // holds the conjugate of the first's vector).
    std::vector<Cx> vector(char s, int k, int i) const {
        std::vector<Cx> v(n);
        const double w = value(k, i).imag();
        for (int r = 0; r < n; ++r) {
            if (w == 0) v[r] = vec(s, k, r, i);
            else if (w > 0) v[r] = {vec(s, k, r, i), vec(s, k, r, i + 1)};
            else v[r] = {vec(s, k, r, i - 1), -vec(s, k, r, i)};
        }
        return v;
    }
    std::vector<size_t> offsets(int k) const {
        std::vector<size_t> o;
        for (int i = 0; i < n; ++i) o.push_back(reAt(k, i)), o.push_back(imAt(k, i));
        for (const Operand& v : vecs)
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) o.push_back(v.offset(k, i, j));
        return o;
    }
    std::vector<unsigned char> result(int k) const {
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
        return std::equal(before.begin() + buf, before.begin() + buf + bufBytes, c.arena.bytes.begin() + buf);
    }
    bool othersUntouched() const {
        for (size_t b = 0; b < before.size(); ++b)
            if (!element[b] && before[b] != c.arena.bytes[b]) return false;
        return true;
    }
};

void build(GenCase& g, const Member& m, int n, const std::vector<Mat>& mats, Style srcStyle = Style::Packed,
           Style dstStyle = Style::Packed) {
    Case& c = g.c;
    c.m = &m;
    c.width = c.height = n;
    c.count = int(mats.size());
    g.n = n;
    g.sides = sidesOf(m);
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
    g.vecs.assign(g.sides.size(), operand(dstStyle));
    c.arena = Arena{};
    c.srcs[0].base = c.arena.reserve(extentOf(c.srcs[0], c.count));
    for (Operand& v : g.vecs) v.base = c.arena.reserve(extentOf(v, c.count));
    g.re = c.arena.reserve(size_t(n) * c.count * m.esize);
    g.im = c.arena.reserve(size_t(n) * c.count * m.esize);
    g.bufBytes = size_t(queried(!g.sides.empty(), m.esize, n));
    g.buf = c.arena.reserve(g.bufBytes);
    c.arena.allocate();
    for (int k = 0; k < c.count; ++k)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                unsigned char* p = c.arena.at(c.srcs[0].offset(k, i, j));
                if (m.esize == 4) store<float>(p, float(mats[k][i * n + j]));
                else store<double>(p, mats[k][i * n + j]);
            }
    g.element.assign(c.arena.bytes.size(), false);
    std::fill_n(g.element.begin() + g.buf, g.bufBytes, true);
    for (int k = 0; k < c.count; ++k)
        for (size_t off : g.offsets(k)) std::fill_n(g.element.begin() + off, m.esize, true);

    c.tables.clear();
    c.tables.reserve(8);
    ArgList& a = c.args;
    a.args.clear();
    auto arg = [&](ArgKind k, void* p, int64_t i) { Arg x{k}; x.ptr = p; x.i = i; a.args.push_back(x); };
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    g.firstVecArg = a.args.size();
    for (Operand& v : g.vecs) appendOperand(c, v, ArgKind::DstPtr);
    g.endVecArg = a.args.size();
    arg(ArgKind::DstPtr, c.arena.at(g.re), 0);
    arg(ArgKind::DstPtr, c.arena.at(g.im), 0);
    arg(ArgKind::Width, nullptr, n);
    if (m.hasArray()) arg(ArgKind::Count, nullptr, c.count);
    arg(ArgKind::DstPtr, c.arena.at(g.buf), 0);
}

OmkStatus run(GenCase& g) {
    g.before = g.c.arena.bytes;
    return g.c.m->call(g.c.args);
}

void restore(GenCase& g) { std::copy(g.before.begin(), g.before.end(), g.c.arena.bytes.begin()); }

// ---- matrices of known spectrum ----
// A = S*D*S^-1 in double, rounded to the element type: D block diagonal with real values and 2x2
// blocks [[a, b], [-b, a]] (values a +- bi), S = Q*(I + U) with Q orthogonal and U strictly upper
// triangular, so that A is not normal but its values stay well conditioned.
struct Known {
    Mat a;
    std::vector<Cx> values;
};

Mat multiply(const Mat& x, const Mat& y, int n) {
    Mat r(size_t(n) * n, 0.0);
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < n; ++k)
            for (int j = 0; j < n; ++j) r[i * n + j] += x[i * n + k] * y[k * n + j];
    return r;
}

Mat inverse(Mat a, int n) {  // Gauss-Jordan with partial pivoting
    Mat inv(size_t(n) * n, 0.0);
    for (int i = 0; i < n; ++i) inv[i * n + i] = 1;
    for (int col = 0; col < n; ++col) {
        int p = col;
        for (int r = col + 1; r < n; ++r)
            if (std::fabs(a[r * n + col]) > std::fabs(a[p * n + col])) p = r;
        for (int j = 0; j < n; ++j) std::swap(a[col * n + j], a[p * n + j]), std::swap(inv[col * n + j], inv[p * n + j]);
        const double d = a[col * n + col];
        for (int j = 0; j < n; ++j) a[col * n + j] /= d, inv[col * n + j] /= d;
        for (int r = 0; r < n; ++r) {
            if (r == col) continue;
            const double f = a[r * n + col];
            for (int j = 0; j < n; ++j) a[r * n + j] -= f * a[col * n + j], inv[r * n + j] -= f * inv[col * n + j];
        }
    }
    return inv;
}

// kind 0: real values only; 1: as many pairs as fit; 2: mixed.
Known known(int n, int kind, std::mt19937& rng, int esize) {
    std::uniform_real_distribution<double> mag(0.5, 3.0), re(-2.0, 2.0), off(-0.5, 0.5);
    std::normal_distribution<double> gauss;
    Known k;
    Mat d(size_t(n) * n, 0.0);
    for (int i = 0; i < n;) {
        const bool pair = i + 1 < n && (kind == 1 || (kind == 2 && (rng() & 1)));
        if (pair) {
            const double a = re(rng), b = mag(rng);
            d[i * n + i] = d[(i + 1) * n + i + 1] = a;
            d[i * n + i + 1] = b;
            d[(i + 1) * n + i] = -b;
            k.values.push_back({a, b});
            k.values.push_back({a, -b});
            i += 2;
        } else {
            const double l = (rng() & 1 ? -1 : 1) * mag(rng);
            d[i * n + i] = l;
            k.values.push_back(l);
            i += 1;
        }
    }
    Mat q(size_t(n) * n);
    for (double& x : q) x = gauss(rng);
    for (int j = 0; j < n; ++j) {
        for (int p = 0; p < j; ++p) {
            double s = 0;
            for (int i = 0; i < n; ++i) s += q[i * n + j] * q[i * n + p];
            for (int i = 0; i < n; ++i) q[i * n + j] -= s * q[i * n + p];
        }
        double s = 0;
        for (int i = 0; i < n; ++i) s += q[i * n + j] * q[i * n + j];
        for (int i = 0; i < n; ++i) q[i * n + j] /= std::sqrt(s);
    }
    Mat u(size_t(n) * n, 0.0);
    for (int i = 0; i < n; ++i) {
        u[i * n + i] = 1;
        for (int j = i + 1; j < n; ++j) u[i * n + j] = off(rng);
    }
    const Mat s = multiply(q, u, n);
    k.a = multiply(multiply(s, d, n), inverse(s, n), n);
    for (double& x : k.a) x = toType(x, esize);
    return k;
}

std::vector<Mat> knownMats(int n, int count, int esize, std::mt19937& rng, int kind, std::vector<Known>* out = nullptr) {
    std::vector<Mat> mats;
    for (int i = 0; i < count; ++i) {
        Known k = known(n, kind < 0 ? i % 3 : kind, rng, esize);
        mats.push_back(k.a);
        if (out) out->push_back(k);
    }
    return mats;
}

double frobenius(const Mat& a) {
    double s = 0;
    for (double x : a) s += x * x;
    return std::sqrt(s);
}

// ---- what every result must satisfy ----
// Pairs in consecutive positions (equal real parts, opposite imaginary parts, the positive one
// first); with vectors: norm 1, the component of largest modulus real (exactly) and positive, and
// the residual |A v - l v| (right) or |u^H A - l u^H| (left) within `tol`. Returns the largest
// residual relative to |A|.
double expectStructure(const GenCase& g, int k, const Mat& a, double tol) {
    const int n = g.n;
    const double eps = epsOf(g.e()), norm = frobenius(a);
    double worst = 0;
    for (int i = 0; i < n; ++i) {
        const Cx l = g.value(k, i);
        if (l.imag() > 0) {
            EXPECT_LT(i + 1, n) << g.c.m->name << " pair starts at the last position";
            if (i + 1 >= n) return 1;
            EXPECT_EQ(g.value(k, i + 1), std::conj(l)) << g.c.m->name << " pair at " << i;
        } else if (l.imag() < 0) {
            EXPECT_TRUE(i > 0 && g.value(k, i - 1) == std::conj(l)) << g.c.m->name << " lone negative part at " << i;
        }
    }
    for (char s : g.sides)
        for (int i = 0; i < n; ++i) {
            const Cx l = g.value(k, i);
            if (l.imag() < 0) continue;
            const std::vector<Cx> v = g.vector(s, k, i);
            double len = 0, top = -1;
            int at = 0;
            for (int r = 0; r < n; ++r) {
                len += std::norm(v[r]);
                if (std::norm(v[r]) > top) top = std::norm(v[r]), at = r;
            }
            EXPECT_NEAR(std::sqrt(len), 1.0, 8 * n * eps) << g.c.m->name << " side " << s << " vector " << i;
            // The largest component (within rounding of the largest, for vectors whose components
            // have equal moduli) is real and positive.
            bool real = false;
            for (int r = 0; r < n; ++r)
                real = real || (v[r].imag() == 0 && v[r].real() > 0 && std::norm(v[r]) >= top * (1 - 16 * n * eps));
            EXPECT_TRUE(real) << g.c.m->name << " side " << s << " vector " << i << ": largest " << v[at];
            double res = 0;
            for (int r = 0; r < n; ++r) {
                Cx t = 0;
                for (int j = 0; j < n; ++j)
                    t += s == 'R' ? a[r * n + j] * v[j] : std::conj(v[j]) * a[j * n + r];
                t -= l * (s == 'R' ? v[r] : std::conj(v[r]));
                res += std::norm(t);
            }
            res = std::sqrt(res);
            EXPECT_LE(res, tol) << g.c.m->name << " side " << s << " residual of vector " << i << " n " << n;
            worst = std::max(worst, norm > 0 ? res / norm : res);
        }
    return worst;
}

// Every reference value matched by a distinct computed one within tol.
void expectValues(const GenCase& g, int k, const std::vector<Cx>& want, double tol) {
    std::vector<bool> used(g.n, false);
    for (const Cx& w : want) {
        int best = -1;
        for (int i = 0; i < g.n; ++i)
            if (!used[i] && (best < 0 || std::abs(g.value(k, i) - w) < std::abs(g.value(k, best) - w))) best = i;
        ASSERT_GE(best, 0);
        used[best] = true;
        EXPECT_LE(std::abs(g.value(k, best) - w), tol) << g.c.m->name << " n " << g.n << " value " << w;
    }
}

// ---- size queries ----

TEST(EigenGeneralBuffer, QueriesGiveTheTabledBytesAndCheckInOrder) {
    EXPECT_EQ(queried(false, 4, 3), 96);
    EXPECT_EQ(queried(true, 8, 3), 336);
    for (int n = 1; n <= 40; ++n)
        for (int e : {4, 8}) {
            EXPECT_EQ(queried(false, e, n), n * (n + 5) * e);
            EXPECT_EQ(queried(true, e, n), n * (3 * n + 5) * e);
        }
    using Query = OmkStatus (*)(int, int*);
    for (Query q : {omkmEigenValuesGetBufSize_32f, omkmEigenValuesGetBufSize_64f, omkmEigenValuesVectorsGetBufSize_32f,
                    omkmEigenValuesVectorsGetBufSize_64f}) {
        int bytes = 12345;
        EXPECT_EQ(q(0, &bytes), omkStsBadSize);
        EXPECT_EQ(q(-1, &bytes), omkStsBadSize);
        EXPECT_EQ(bytes, 12345) << "a failed query stored a size";
        EXPECT_EQ(q(0, nullptr), omkStsNullPtr) << "the null pointer is tested before the size";
        EXPECT_EQ(q(3, nullptr), omkStsNullPtr);
    }
}

// ---- checks ----
// Null pointers, size, count, the source's ROI shift and strides, then the destinations' ROI
// shifts and strides ('r' and 't'): a bad destination ROI shift is reported after a bad source
// stride.
TEST(EigenGeneralChecks, EveryMemberInItsOrder) {
    probe::Budget serial(1);
    std::mt19937 rng(5);
    const Expected none = [](Case&, int, int, int) { return 0.0; };
    for (const Member& m : members()) {
        GenCase g;
        build(g, m, 3, knownMats(3, m.hasArray() ? 2 : 1, m.esize, rng, 2), Style::Gapped, Style::Gapped);
        std::vector<Fault> faults = faultsOf(g.c);
        for (Fault& f : faults)
            if (f.arg >= g.firstVecArg && f.arg < g.endVecArg && f.step != 'N') f.step = char(std::tolower(f.step));
        walkFaults(g.c, "NSCRTrt", faults, none);
        if (HasFatalFailure()) return;
        ASSERT_EQ(run(g), omkStsOk) << m.name << " with every argument good";
    }
}

// ---- orders 1 and 2 ----

TEST(EigenGeneralEdges, OrderOneIsTheElementWithVectorOne) {
    for (const Member& m : members()) {
        GenCase g;
        build(g, m, 1, {{m.esize == 4 ? -2.5 : 1e-300}}, Style::Gapped, Style::PaddedRows);
        ASSERT_EQ(run(g), omkStsOk) << m.name;
        EXPECT_EQ(g.value(0, 0), Cx(m.esize == 4 ? -2.5 : 1e-300, 0.0)) << m.name;
        for (char s : g.sides) EXPECT_EQ(g.vec(s, 0, 0, 0), 1.0) << m.name;
        EXPECT_TRUE(g.othersUntouched()) << m.name;
    }
}

TEST(EigenGeneralEdges, RotationGivesZeroPlusMinusI) {
    for (const Member& m : members()) {
        GenCase g;
        build(g, m, 2, {{0, -1, 1, 0}});
        ASSERT_EQ(run(g), omkStsOk) << m.name;
        EXPECT_EQ(g.value(0, 0), Cx(0, 1)) << m.name;
        EXPECT_EQ(g.value(0, 1), Cx(0, -1)) << m.name;
        expectStructure(g, 0, {0, -1, 1, 0}, 8 * epsOf(m.esize));
    }
}

// Order 2 is one deflation step: with x = a11, y = a00, w = a10*a01, p = (y - x)/2 and q = p*p + w,
// two real values x + z and x - w/z for z = p + sign(p)*sqrt(q), or the pair (x + p) +- i*sqrt(-q);
// when |a10| <= eps*(|a00| + |a11|) the matrix deflates at once and the diagonal is the values.
template <class T>
void orderTwoWalk() {
    const int es = int(sizeof(T));
    const T eps = es == 4 ? T(0x1p-23) : T(0x1p-52);
    std::mt19937 rng(es == 4 ? 41 : 43);
    std::uniform_real_distribution<double> mant(1.0, 2.0);
    std::uniform_int_distribution<int> ex(-4, 4);
    auto val = [&] { return T((rng() & 1 ? -1 : 1) * std::ldexp(mant(rng), ex(rng))); };
    int fusedWitness = 0, otherRootWitness = 0, pairs = 0, reals = 0, deflated = 0;
    for (int t = 0; t < 400; ++t) {
        T a00 = val(), a01 = val(), a10 = val(), a11 = val();
        if (t % 7 == 0) a10 = T(eps * (std::fabs(a00) + std::fabs(a11)));  // at the deflation bound
        if (t % 7 == 1) a10 = T(2) * eps * (std::fabs(a00) + std::fabs(a11));
        T wr[2], wi[2] = {0, 0};
        if (std::fabs(a10) <= eps * (std::fabs(a00) + std::fabs(a11))) {
            wr[0] = a00, wr[1] = a11, ++deflated;
        } else {
            const T x = a11, y = a00, w = a10 * a01, p = (y - x) * T(0.5), q = p * p + w;
            const T z = std::sqrt(std::fabs(q));
            if (q >= 0) {
                const T zz = p + std::copysign(z, p);
                wr[0] = x + zz, wr[1] = x - w / zz, ++reals;
                otherRootWitness += (y + x - wr[0]) != wr[1];
            } else {
                wr[0] = wr[1] = x + p, wi[0] = z, wi[1] = -z, ++pairs;
            }
            fusedWitness += std::fma(p, p, w) != q;
        }
        for (const Member& m : members()) {
            if (m.esize != es) continue;
            GenCase g;
            build(g, m, 2, {{double(a00), double(a01), double(a10), double(a11)}}, Style::Gapped, Style::PaddedRows);
            ASSERT_EQ(run(g), omkStsOk) << m.name;
            for (int i = 0; i < 2; ++i) {
                const T gr = T(g.value(0, i).real()), gi = T(g.value(0, i).imag());
                ASSERT_EQ(0, std::memcmp(&gr, &wr[i], sizeof gr)) << m.name << " re " << i << ": " << gr << " vs " << wr[i];
                ASSERT_EQ(0, std::memcmp(&gi, &wi[i], sizeof gi)) << m.name << " im " << i << ": " << gi << " vs " << wi[i];
            }
            ASSERT_TRUE(g.othersUntouched()) << m.name;
        }
    }
    EXPECT_GT(pairs, 20);
    EXPECT_GT(reals, 20);
    EXPECT_GT(deflated, 20);
    EXPECT_GT(fusedWitness, 0) << "no input told p*p + w from its fused form";
    EXPECT_GT(otherRootWitness, 0) << "no input told x - w/z from the trace minus the first root";
}

TEST(EigenGeneralEdges, OrderTwoBitExact32f) { orderTwoWalk<float>(); }
TEST(EigenGeneralEdges, OrderTwoBitExact64f) { orderTwoWalk<double>(); }

// ---- structured inputs ----

// Upper triangular input is already in Schur form: every value is its diagonal element, at its own
// row, not sorted, and the vectors still satisfy their equations.
TEST(EigenGeneralEdges, TriangularInputGivesItsDiagonalInPlace) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-4, 4);
    for (const Member& m : members()) {
        for (int n : {3, 5, 8}) {
            Mat a(size_t(n) * n, 0.0);
            for (int i = 0; i < n; ++i)
                for (int j = i; j < n; ++j) a[i * n + j] = toType(u(rng), m.esize);
            GenCase g;
            build(g, m, n, {a}, Style::PaddedRows, Style::Gapped);
            ASSERT_EQ(run(g), omkStsOk) << m.name;
            for (int i = 0; i < n; ++i) EXPECT_EQ(g.value(0, i), Cx(a[i * n + i], 0)) << m.name << " n " << n << " at " << i;
            expectStructure(g, 0, a, 1e3 * n * epsOf(m.esize) * frobenius(a));
        }
    }
}

// A Jordan block has one value of multiplicity n and one eigenvector: the values come within
// eps^(1/n) of it, and every returned vector is finite, of norm 1 and nearly that eigenvector.
TEST(EigenGeneralEdges, DefectiveMatricesGiveFiniteVectors) {
    for (const Member& m : members()) {
        for (int n : {2, 3, 4}) {
            Mat a(size_t(n) * n, 0.0);
            for (int i = 0; i < n; ++i) {
                a[i * n + i] = 2;
                if (i + 1 < n) a[i * n + i + 1] = 1;
            }
            // A similarity with a Householder-friendly orthogonal matrix hides the structure.
            Mat h(size_t(n) * n);
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) h[i * n + j] = (i == j ? 1.0 : 0.0) - 2.0 / n;
            const Mat b = multiply(multiply(h, a, n), h, n);
            GenCase g;
            build(g, m, n, {b});
            ASSERT_EQ(run(g), omkStsOk) << m.name;
            const double tol = 4 * std::pow(epsOf(m.esize), 1.0 / n) * 4;
            for (int i = 0; i < n; ++i) EXPECT_LE(std::abs(g.value(0, i) - 2.0), tol) << m.name << " n " << n;
            for (char s : g.sides)
                for (int i = 0; i < n; ++i) {
                    if (g.value(0, i).imag() < 0) continue;
                    for (const Cx& x : g.vector(s, 0, i)) ASSERT_TRUE(std::isfinite(std::abs(x))) << m.name;
                }
            expectStructure(g, 0, b, 8 * tol * frobenius(b));
        }
    }
}

// The cyclic permutation is a fixed point of the standard shifts (they never change it); only the
// exceptional shifts of the 10th step make it converge, to the n-th roots of unity.
TEST(EigenGeneralEdges, CyclicPermutationNeedsTheExceptionalShifts) {
    for (const Member& m : members()) {
        for (int n : {3, 4, 5}) {
            Mat a(size_t(n) * n, 0.0);
            for (int i = 0; i < n; ++i) a[((i + 1) % n) * n + i] = 1;
            std::vector<Cx> roots;
            for (int k = 0; k < n; ++k) roots.push_back(std::polar(1.0, 2 * M_PI * k / n));
            GenCase g;
            build(g, m, n, {a});
            ASSERT_EQ(run(g), omkStsOk) << m.name << " n " << n;
            expectValues(g, 0, roots, 64 * epsOf(m.esize));
            expectStructure(g, 0, a, 64 * n * epsOf(m.esize));
        }
    }
}

// NaN never deflates: the iteration stops at its limit with omkStsNotConverged and the vector
// destinations untouched.
TEST(EigenGeneralEdges, NaNStopsAtTheIterationLimit) {
    for (const Member& m : members()) {
        for (int n : {3, 6}) {
            Mat a(size_t(n) * n, 1.0);
            a[n] = std::numeric_limits<double>::quiet_NaN();
            GenCase g;
            build(g, m, n, {a});
            ASSERT_EQ(run(g), omkStsNotConverged) << m.name;
            for (const Operand& v : g.vecs)
                for (int i = 0; i < n; ++i)
                    for (int j = 0; j < n; ++j)
                        EXPECT_EQ(0, std::memcmp(&g.before[v.offset(0, i, j)], &g.c.arena.bytes[v.offset(0, i, j)], g.e()));
            EXPECT_TRUE(g.othersUntouched()) << m.name;
        }
    }
}

// ---- random matrices of known spectrum ----

TEST(EigenGeneralResults, RandomMatricesAgainstTheirSpectrum) {
    double worst[2] = {0, 0};
    for (const char* type : {"32f", "64f"}) {
        for (const char* fam : {"EigenValues", "EigenValuesVectors"}) {
            const Member& m = memberNamed(std::string("omkm") + fam + "_ma_" + type);
            const double eps = epsOf(m.esize);
            for (int n = 1; n <= 10; ++n)
                for (int kind = 0; kind < 3; ++kind) {
                    std::mt19937 rng(1000 + 10 * n + kind);
                    std::vector<Known> ks;
                    const std::vector<Mat> mats = knownMats(n, 40, m.esize, rng, kind, &ks);
                    GenCase g;
                    build(g, m, n, mats, Style::Gapped, Style::PaddedRows);
                    ASSERT_EQ(run(g), omkStsOk) << m.name << " n " << n;
                    for (int k = 0; k < 40; ++k) {
                        const double norm = frobenius(mats[k]);
                        expectValues(g, k, ks[k].values, 200 * n * eps * norm);
                        const double r = expectStructure(g, k, mats[k], 16 * n * eps * norm);
                        worst[m.esize == 8] = std::max(worst[m.esize == 8], r);
                        if (HasFailure()) return;
                    }
                }
        }
    }
    std::printf("largest residual / |A|: 32f %.3g, 64f %.3g\n", worst[0], worst[1]);
}

// ---- descriptions and families ----
// Every member of every family gives, for the same matrix, the bits of the standard single-matrix
// member of its family; the values are the same bits in all four families, and the two sets of
// EigenValuesVectors are those of EigenValuesVectorsLeft and EigenValuesVectorsRight.
TEST(EigenGeneralResults, EveryDescriptionAndFamilyGivesTheSameBits) {
    for (int n : {2, 3, 4, 6, 7, 9}) {
        std::mt19937 rng(300 + n);
        for (const char* type : {"32f", "64f"}) {
            const int es = std::string(type) == "32f" ? 4 : 8;
            const std::vector<Mat> mats = knownMats(n, 5, es, rng, -1);
            std::vector<std::vector<unsigned char>> values;   // per object, from EigenValues
            std::map<char, std::vector<std::vector<double>>> side;  // per side, object: vector elements
            for (const char* fam : {"EigenValues", "EigenValuesVectorsLeft", "EigenValuesVectorsRight", "EigenValuesVectors"}) {
                const Member& plain = memberNamed(std::string("omkm") + fam + "_m_" + type);
                std::vector<std::vector<unsigned char>> ref;
                for (const Mat& a : mats) {
                    GenCase g;
                    build(g, plain, n, {a});
                    ASSERT_EQ(run(g), omkStsOk) << plain.name;
                    ref.push_back(g.result(0));
                    std::vector<unsigned char> vals(ref.back().begin(), ref.back().begin() + 2 * n * es);
                    if (values.size() < mats.size()) values.push_back(vals);
                    else EXPECT_EQ(vals, values[&a - &mats[0]]) << plain.name << ": values differ from EigenValues";
                    for (char s : g.sides) {
                        std::vector<double> v;
                        for (int i = 0; i < n; ++i)
                            for (int j = 0; j < n; ++j) v.push_back(g.vec(s, 0, i, j));
                        auto& bySide = side[s];
                        if (std::string(fam) == "EigenValuesVectors") EXPECT_EQ(v, bySide[&a - &mats[0]]) << plain.name << " side " << s;
                        else bySide.push_back(v);
                    }
                }
                for (const Member& m : members()) {
                    if (m.op != fam || typeOf(m) != type) continue;
                    for (Style st : {Style::Packed, Style::Gapped}) {
                        GenCase g;
                        if (m.hasArray()) build(g, m, n, mats, st, Style::PaddedRows);
                        for (size_t k = 0; k < mats.size(); ++k) {
                            if (!m.hasArray()) build(g, m, n, {mats[k]}, st, Style::Gapped);
                            if (!m.hasArray() || k == 0) {
                                probe::Budget one(1);
                                ASSERT_EQ(run(g), omkStsOk) << m.name;
                                EXPECT_TRUE(g.othersUntouched()) << m.name;
                            }
                            EXPECT_EQ(g.result(m.hasArray() ? int(k) : 0), ref[k]) << m.name << " n " << n << " object " << k;
                        }
                    }
                }
            }
        }
    }
}

// ---- serial limits ----
// Values: serial while n*(n+1)*count < 251; vectors: while n*(3n+1)*count < 501.
TEST(EigenGeneralLimits, EveryArrayMemberAtItsBoundary) {
    std::mt19937 rng(17);
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        const bool vec = !sidesOf(m).empty();
        const int64_t limit = vec ? 501 : 251;
        auto work = [&](int64_t n, int64_t c) { return n * (vec ? 3 * n + 1 : n + 1) * c; };
        std::set<int64_t> below, above;
        for (int n = 1; n <= 8; ++n) {
            const int cb = int((limit - 1) / work(n, 1)), ca = cb + 1;
            for (int c : {cb, ca}) {
                if (c < 1) continue;
                const bool parallel = work(n, c) >= limit;
                (parallel ? above : below).insert(work(n, c));
                GenCase g;
                build(g, m, n, knownMats(n, c, m.esize, rng, -1));
                probe::Budget two(2);
                ASSERT_EQ(run(g), omkStsOk) << m.name << " n " << n << " count " << c;
                EXPECT_EQ(probe::calls(), parallel ? (c >= 2 ? 2 : 1) : 0)
                    << m.name << " n " << n << " count " << c << " work " << work(n, c);
            }
        }
        EXPECT_EQ(*below.rbegin(), limit - 1) << m.name << ": no shape just below the limit";
        EXPECT_EQ(*above.begin(), limit + (vec ? 3 : 1)) << m.name;
    }
}

// ---- parallel runs ----

TEST(EigenGeneralParallel, BitIdenticalToSerialAndOffTheCallersBuffer) {
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        for (auto [n, count] : {std::pair{4, 101}, std::pair{9, 13}}) {
            std::mt19937 rng(23 + n);
            GenCase g;
            build(g, m, n, knownMats(n, count, m.esize, rng, -1), Style::Gapped, Style::PaddedRows);
            std::vector<std::vector<unsigned char>> serial;
            {
                probe::Budget one(1);
                ASSERT_EQ(run(g), omkStsOk) << m.name;
                EXPECT_EQ(probe::calls(), 1) << m.name;
                if (n == 9) EXPECT_FALSE(g.bufferUntouched()) << m.name << ": the serial run works in pBuffer";
                for (int k = 0; k < count; ++k) serial.push_back(g.result(k));
            }
            for (int budget : {2, 3}) {
                restore(g);
                probe::Budget b(budget);
                ASSERT_EQ(run(g), omkStsOk) << m.name << " budget " << budget;
                EXPECT_EQ(probe::calls(), 2) << m.name << " budget " << budget;
                EXPECT_TRUE(g.bufferUntouched()) << m.name << " budget " << budget;
                EXPECT_TRUE(g.othersUntouched()) << m.name << " budget " << budget;
                for (int k = 0; k < count; ++k)
                    ASSERT_EQ(g.result(k), serial[k]) << m.name << " n " << n << " budget " << budget << " object " << k;
            }
        }
    }
}

// A matrix that does not converge stops its own slice there: later objects of that slice stay
// untouched, every other slice is complete, and the status reaches the caller.
TEST(EigenGeneralParallel, FailingObjectStopsOnlyItsSlice) {
    const int n = 4, count = 61;
    Mat bad(size_t(n) * n, 1.0);
    bad[5] = std::numeric_limits<double>::quiet_NaN();
    for (const Member& m : members()) {
        if (!m.hasArray()) continue;
        std::mt19937 rng(29);
        const std::vector<Mat> clean = knownMats(n, count, m.esize, rng, -1);
        GenCase ref;
        build(ref, m, n, clean);
        {
            probe::Budget one(1);
            ASSERT_EQ(run(ref), omkStsOk);
        }
        for (int at : {5, 40}) {
            std::vector<Mat> mats = clean;
            mats[at] = bad;
            GenCase g;
            build(g, m, n, mats, Style::Gapped, Style::Gapped);
            for (int budget : {1, 2, 3}) {
                if (budget > 1) restore(g);
                probe::Budget b(budget);
                ASSERT_EQ(run(g), omkStsNotConverged) << m.name << " budget " << budget << " at " << at;
                EXPECT_EQ(probe::calls(), budget == 1 ? 1 : 2);
                EXPECT_TRUE(g.othersUntouched()) << m.name;
                const auto [first, len] = sliceOf(count, budget, at);
                for (int k = 0; k < count; ++k) {
                    if (k == at) continue;
                    if (k > at && k < first + len)
                        EXPECT_TRUE(g.objectUntouched(k)) << m.name << " budget " << budget << " object " << k;
                    else
                        ASSERT_EQ(g.result(k), ref.result(k)) << m.name << " budget " << budget << " object " << k;
                }
            }
        }
    }
}

}  // namespace
