// The eigenproblems' own cases beside the shared walk of their rows (families/eigen.cpp): accuracy against Eigen's
// solvers in double, the closed form of order 2, and the documented rules of the iterations.
#include <gtest/gtest.h>

#include <complex>
#include <eigen3/Eigen/Dense>
#include <numeric>

#include "families.h"

using namespace omkt;

namespace {

using Mat = std::vector<double>;  // row-major n x n
using Cx = std::complex<double>;
using RowMajor = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

int orderOf(const Mat& a) { return int(std::lround(std::sqrt(double(a.size())))); }
bool f32(const std::string& name) { return parseName(name).esize() == 4; }
double epsOf(const std::string& name) { return f32(name) ? 0x1p-23 : 0x1p-52; }
double inType(const std::string& name, double x) { return f32(name) ? double(float(x)) : x; }
Eigen::MatrixXd eigenOf(Mat a) { return Eigen::Map<RowMajor>(a.data(), orderOf(a), orderOf(a)); }

// The members of a family that take a matrix.
std::vector<std::string> membersOf(const std::string& family) {
    std::vector<std::string> out;
    for (const Export& e : exportTable()) {
        const Name n = parseName(e.name);
        if (const Family* f = e.call ? familyOf(n) : nullptr; f && f->name == family && !n.group.empty())
            out.push_back(e.name);
    }
    return out;
}

// A call of `name` on the matrix `a` (count 1); its `want` holds the inputs.
Call callOn(const std::string& name, const Mat& a) {
    Shape s;
    s.n = orderOf(a);
    s.count = 1;
    s.styles = {kGapped};
    Call c = layCall(name, s);
    c.fill(c["Src"], [&](int, int i, int j) { return a[size_t(i * s.n + j)]; });
    c.expectInputs();
    return c;
}

void check(Call& c, OmkStatus st) {
    EXPECT_EQ(c.run(), st) << c.ex->name;
    const std::string diff = firstDifference(c);
    EXPECT_TRUE(diff.empty()) << diff;
}

Mat diagonal(const std::vector<double>& d) {
    const size_t n = d.size();
    Mat a(n * n, 0.0);
    for (size_t i = 0; i < n; ++i) a[i * n + i] = d[i];
    return a;
}

// The closed form of order 2 (the family's reference) at its branches and boundaries: the trace at 0 and +-eps, a - d
// at +-eps and within, |2b| at eps and 0, |det| at and above eps. The element below the diagonal is never read.
TEST(EigenSym, OrderTwoAtEveryBranchAndBoundary) {
    for (const std::string& name : membersOf("EigenSym")) {
        const double e = epsOf(name), nan = std::nan("");
        const double abd[][3] = {
            {1, .25, -1},        {1, .5, e - 1}, {-1, .5, 1 - e}, {1, .5, 2 * e - 1}, {1, .75, 1 - e}, {1 - e, .75, 1},
            {1 - e / 2, .25, 1}, {3, .25, 3},    {-3, -1.5, -3},  {2, e / 2, 2},      {2, 0, 2},       {-2, 0, -2},
            {5, 0, 2},           {2, 0, 5},      {-5, 0, -2},     {-2, 0, -5},        {-3, 0, -1},     {1, 0, 2 * e},
            {1, 0, e},           {-1, 0, e},     {1, 1, 1}};
        for (const auto& x : abd) {
            Call c = callOn(name, {x[0], x[1], nan, x[2]});
            check(c, expectSerial(*familyOf(c.name), c));
        }
    }
}

// A diagonal matrix's results: its values (sorted descending by a selection sort that takes a later value only when
// strictly larger, the unit vectors moving with them) or as they stand.
void expectDiagonal(Call& c, std::vector<double> d, bool sort) {
    const int n = int(d.size());
    std::vector<int> col(d.size());
    std::iota(col.begin(), col.end(), 0);
    for (int i = 0; sort && i + 1 < n; ++i) {
        const auto j = std::max_element(d.begin() + i, d.end()) - d.begin();  // the first of the largest
        std::swap(d[size_t(i)], d[size_t(j)]);
        std::swap(col[size_t(i)], col[size_t(j)]);
    }
    for (int j = 0; j < n; ++j) {
        c.expectValue(c["DstValues"], 0, 0, j, d[size_t(j)]);
        for (int i = 0; c.hasRegion("DstVectors") && i < n; ++i)
            c.expectValue(c["DstVectors"], 0, i, j, i == col[size_t(j)] ? 1 : 0);
    }
}

// Inputs whose results are those of a diagonal: values descending with equal ones in their order (also when their
// product overflows, which is not singular); omkStsSingular from order 3 when the product of the values is at most eps
// in magnitude, the values left as the steps left them: diag(1, eps, 1), subnormals ascending (QL) and descending (QR).
// A column whose reflection would have h = v'v <= eps is left as it is, the iteration reading only the diagonal and
// first subdiagonal: A(2,0) = A(0,2) = 2^-12 (32f) or 2^-27 (64f) is never seen and diag(1, 2, 1) comes back exactly.
TEST(EigenSym, DiagonalResultsSortSingularAndSkippedReflections) {
    for (const std::string& name : membersOf("EigenSym")) {
        const double e = epsOf(name), big = f32(name) ? 0x1p120 : 0x1p1000, low = f32(name) ? 0x1p-140 : 0x1p-1060;
        const double x = f32(name) ? 0x1p-12 : 0x1p-27;
        const std::vector<std::pair<std::vector<double>, OmkStatus>> cases = {
            {{1, 2, 3}, omkStsOk},
            {{2, 5, 2, 5}, omkStsOk},
            {{-1, 4, -1, 4, 0.5}, omkStsOk},
            {{3, 1, 3, 7, 1, 7, 2, 2, 5}, omkStsOk},
            {{-2, 6, 6, -2, 1, 1, 6, -2, 9, 6}, omkStsOk},
            {{big, 3 * big, 2 * big, 3 * big}, omkStsOk},
            {{1, e, 1}, omkStsSingular},
            {{1, 2 * e, 1}, omkStsOk},
            {{1, 1, 1, 1, 1, 1, 1, 1, e}, omkStsSingular},
            {{low, 2 * low, 4 * low, 8 * low}, omkStsSingular},
            {{8 * low, 4 * low, 2 * low, low, low}, omkStsSingular}};
        for (const auto& [d, st] : cases) {
            Call c = callOn(name, diagonal(d));
            expectDiagonal(c, d, st == omkStsOk);
            check(c, st);
        }
        Call c = callOn(name, {1, 0, x, 0, 2, 0, x, 0, 1});
        expectDiagonal(c, {1, 2, 1}, true);
        check(c, omkStsOk);
    }
}

// The iteration runs QL when |d[n-1]| > |d[0]| in the tridiagonal form, else QR: the QL steps on the rows in reverse
// order. A tridiagonal matrix with power-of-two couplings reduces exactly (sign flips of its inner rows), and so does
// its reversal J*A*J, which then runs QR as the mirror image of the QL steps on A: the same values bit for bit, each
// vector's rows reversed (the two directions differ in the last bits here).
TEST(EigenSym, QRIsTheMirrorImageOfQL) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> diag(6, 12);  // values of at least 2: never singular
    for (const char* type : {"32f", "64f"})
        for (int n = 3; n <= 10; ++n)
            for (int rep = 0; rep < 4; ++rep) {
                const std::string name = std::string("omkmEigenValuesVectorsSym_m_") + type;
                Mat a(size_t(n * n), 0.0), r(size_t(n * n));
                for (int i = 0; i < n; ++i) a[size_t(i * n + i)] = inType(name, diag(rng));
                if (a[0] > a.back()) std::swap(a[0], a.back());
                for (int i = 0; i + 1 < n; ++i)
                    a[size_t(i * n + i + 1)] = a[size_t(i * n + n + i)] =
                        std::ldexp(rng() & 1 ? -1 : 1, int(rng() % 3) - 1);
                for (int i = 0; i < n * n; ++i) r[size_t(i)] = a[size_t(n * n - 1 - i)];
                Call ql = callOn(name, a), qr = callOn(name, r);
                ASSERT_EQ(ql.run(), omkStsOk);
                ASSERT_EQ(qr.run(), omkStsOk);
                for (int j = 0; j < n; ++j) {
                    EXPECT_EQ(ql.value(ql["DstValues"], 0, 0, j), qr.value(qr["DstValues"], 0, 0, j)) << n;
                    for (int i = 0; i < n; ++i)
                        EXPECT_EQ(ql.value(ql["DstVectors"], 0, i, j), qr.value(qr["DstVectors"], 0, n - 1 - i, j))
                            << n;
                }
            }
}

// Random symmetric matrices against Eigen: values descending; values and orthonormal vectors within 64*n*eps*|A|.
TEST(EigenSym, RandomMatricesAgainstEigen) {
    std::mt19937 rng(11);
    for (const std::string type : {"32f", "64f"})
        for (int n : {2, 3, 4, 5, 6, 7, 8, 9, 10, 16})
            for (int rep = 0; rep < 8; ++rep) {
                const std::string name = "omkmEigenValuesVectorsSym_m_" + type;
                Mat a(size_t(n * n));
                for (int i = 0; i < n; ++i)
                    for (int j = i; j < n; ++j) a[size_t(i * n + j)] = a[size_t(j * n + i)] = inType(name, entry(rng));
                Call c = callOn(name, a);
                ASSERT_EQ(c.run(), omkStsOk);
                const Eigen::MatrixXd A = eigenOf(a);
                const Eigen::VectorXd want = Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(A).eigenvalues();
                const double tol = 64 * n * epsOf(name) * A.norm();
                Eigen::MatrixXd V(n, n);
                Eigen::VectorXd w(n);
                for (int j = 0; j < n; ++j) {
                    w[j] = c.value(c["DstValues"], 0, 0, j);
                    EXPECT_GE(w[j > 0 && n > 2 ? j - 1 : j], w[j]) << name << " n " << n;  // order 2: its formula's
                    for (int i = 0; i < n; ++i) V(i, j) = c.value(c["DstVectors"], 0, i, j);
                }
                Eigen::VectorXd sorted = w;
                std::sort(sorted.data(), sorted.data() + n);
                EXPECT_LE((sorted - want).cwiseAbs().maxCoeff(), tol) << name << " n " << n;
                EXPECT_LE((A * V - V * w.asDiagonal()).norm(), tol) << name << " n " << n;
                EXPECT_LE((V.transpose() * V - Eigen::MatrixXd::Identity(n, n)).norm(), tol / A.norm());
            }
}

Cx valueOf(Call& c, int k, int j) { return {c.value(c["DstValues"], k, 0, j), c.value(c["DstValuesIm"], k, 0, j)}; }

// Every value of `want` matched by a distinct computed one within tol.
void expectValues(Call& c, int k, const Eigen::VectorXcd& want, double tol) {
    std::vector<bool> used(size_t(want.size()), false);
    for (const Cx& w : want) {
        size_t best = 0;
        for (size_t j = 0; j < used.size(); ++j)
            if (used[best] ||
                (!used[j] && std::abs(valueOf(c, k, int(j)) - w) < std::abs(valueOf(c, k, int(best)) - w)))
                best = j;
        used[best] = true;
        EXPECT_LE(std::abs(valueOf(c, k, int(best)) - w), tol) << c.ex->name << " value " << w;
    }
}

// A pair in two consecutive positions, the positive imaginary part first; each vector of norm 1, its component of
// largest modulus real and positive, and A*v = l*v (right) or u^H*A = l*u^H (left) within tol.
void expectStructure(Call& c, int k, const Eigen::MatrixXd& a, double tol) {
    const int n = int(a.rows());
    const double eps = c.esize == 4 ? 0x1p-23 : 0x1p-52;
    for (int j = 0; j < n; ++j) {
        const bool pair = valueOf(c, k, j).imag() > 0 && j + 1 < n;
        EXPECT_TRUE(pair ? valueOf(c, k, j + 1) == std::conj(valueOf(c, k, j)) : valueOf(c, k, j).imag() == 0)
            << c.ex->name << " value " << j;
        j += pair;
    }
    for (const char* side : {"DstVectorsLeft", "DstVectorsRight"}) {
        if (!c.hasRegion(side)) continue;
        for (int j = 0; j < n; ++j) {
            const Cx l = valueOf(c, k, j);
            Eigen::VectorXcd v(n);
            for (int i = 0; i < n; ++i)
                v[i] = {c.value(c[side], k, i, j), l.imag() > 0 ? c.value(c[side], k, i, j + 1) : 0};
            const double residual =
                side[10] == 'L' ? (v.adjoint() * a - l * v.adjoint()).norm() : (a * v - l * v).norm();
            EXPECT_LE(residual, tol) << c.ex->name << " " << side << " vector " << j;
            EXPECT_NEAR(v.norm(), 1.0, 8 * n * eps) << c.ex->name << " " << side << " vector " << j;
            // The largest modulus (up to rounding) on a real and positive component.
            double top = 0;
            for (int i = 0; i < n; ++i) top = std::max(top, std::norm(v[i]));
            bool real = false;
            for (int i = 0; i < n; ++i)
                real = real || (std::norm(v[i]) >= top * (1 - 16 * n * eps) && v[i].imag() == 0 && v[i].real() > 0);
            EXPECT_TRUE(real) << c.ex->name << " " << side << " vector " << j;
            j += l.imag() > 0;
        }
    }
}

// Random matrices of orders 1 to 10 against Eigen via EigenValuesVectors (the family rows tie the rest to it).
TEST(EigenGeneral, RandomMatricesAgainstEigen) {
    std::mt19937 rng(17);
    for (const std::string type : {"32f", "64f"})
        for (int n = 1; n <= 10; ++n)
            for (int rep = 0; rep < 8; ++rep) {
                const std::string name = "omkmEigenValuesVectors_m_" + type;
                Mat a(size_t(n * n));
                for (double& x : a) x = inType(name, entry(rng));
                Call c = callOn(name, a);
                ASSERT_EQ(c.run(), omkStsOk) << name << " n " << n;
                const Eigen::MatrixXd A = eigenOf(a);
                const double tol = n * epsOf(name) * A.norm();
                expectValues(c, 0, Eigen::EigenSolver<Eigen::MatrixXd>(A, false).eigenvalues(), 200 * tol);
                expectStructure(c, 0, A, 16 * tol);
            }
}

// The rotation [[0, -1], [1, 0]] gives 0 +- i, its vectors' components tie exactly in modulus and the first is made
// real; cyclic permutations, a fixed point of the standard shifts, converge through the exceptional ones to the n-th
// roots of unity; a Jordan block hidden by an orthogonal similarity gives values within 16*eps^(1/n) and finite vectors
// of norm 1 that nearly satisfy it.
TEST(EigenGeneral, RotationCyclicAndDefectiveMatrices) {
    for (const std::string& name : membersOf("EigenGeneral"))
        for (int n = 2; n <= 5; ++n)
            for (bool jordan : {false, true}) {
                Mat a(size_t(n * n), 0.0);
                Eigen::VectorXcd want(n);
                for (int i = 0; i < n; ++i) {
                    a[size_t((i + 1) % n * n + i)] = i + 1 < n ? 1 : n == 2 ? -1 : 1;
                    want[i] = jordan ? Cx(2) : std::polar(1.0, (n == 2 ? M_PI / 2 : 0) + M_PI * 2 * i / n);
                }
                if (jordan) {  // H*J*H for the Jordan block J of 2 and H = I - 2/n*ones
                    const Eigen::MatrixXd h =
                        Eigen::MatrixXd::Identity(n, n) - Eigen::MatrixXd::Constant(n, n, 2.0 / n);
                    Eigen::MatrixXd j = 2 * Eigen::MatrixXd::Identity(n, n);
                    for (int i = 0; i + 1 < n; ++i) j(i, i + 1) = 1;
                    const RowMajor b = h * j * h;
                    for (int i = 0; i < n * n; ++i) a[size_t(i)] = inType(name, b.data()[i]);
                }
                Call c = callOn(name, a);
                ASSERT_EQ(c.run(), omkStsOk) << name << " n " << n;
                const double eps = epsOf(name), tol = jordan ? 16 * std::pow(eps, 1.0 / n) : 64 * n * eps;
                expectValues(c, 0, want, tol);
                expectStructure(c, 0, eigenOf(a), jordan ? 8 * tol * eigenOf(a).norm() : tol);
                const double r = f32(name) ? double(1 / std::sqrt(2.0f)) : 1 / std::sqrt(2.0);
                for (const char* side : {"DstVectorsLeft", "DstVectorsRight"})  // both (r, -i*r)
                    for (int i = 0; n == 2 && !jordan && c.hasRegion(side) && i < 4; ++i)
                        EXPECT_EQ(c.value(c[side], 0, i / 2, i % 2), i % 3 ? 0 : i ? -r : r) << name << " " << side;
            }
}

// Upper triangular input is in Schur form: values its diagonal, unsorted, imaginary parts 0, at every scale.
TEST(EigenGeneral, TriangularInputGivesItsDiagonalInPlace) {
    for (const std::string& name : membersOf("EigenGeneral"))
        for (int n : {2, 3, 6, 9})
            for (double scale : {1.0, f32(name) ? 0x1p-140 : 0x1p-1060, f32(name) ? 0x1p121 : 0x1p1017}) {
                Mat a(size_t(n * n), 0.0);
                for (int i = 0; i < n; ++i)
                    for (int j = i; j < n; ++j) a[size_t(i * n + j)] = scale * (j > i ? 1 : 1 + i * (n - 1) % n);
                Call c = callOn(name, a);
                ASSERT_EQ(c.run(), omkStsOk) << name;
                for (int j = 0; j < n; ++j) EXPECT_EQ(valueOf(c, 0, j), Cx(a[size_t(j * n + j)])) << name << " n " << n;
                if (scale == 1) expectStructure(c, 0, eigenOf(a), 64 * n * epsOf(name) * eigenOf(a).norm());
            }
}

}  // namespace
