// The Eigen adapter (omkm_eigen.hpp): Eigen fixed-size matrices, vectors, Maps and containers of
// them in both storage orders as operands. Each row of the table runs one operation through the
// adapter, through Eigen, and as the direct C call on packed row-major copies: the adapter's
// result must be the C call's bits (a column-major product included: its sources are read through
// the t members, its destination written as the transpose) and Eigen's values within rounding,
// and the call must reach the export the row names.
#ifdef REJECT
// The reject tests (REJECT 1, 2) compile only the adapter and the rejected call: an Eigen
// expression and a Block are not operands.
#include "omkm_eigen.hpp"

#include <Eigen/Core>
#if REJECT == 1
[[maybe_unused]] omkm::status rejected(const Eigen::Matrix3f& a, Eigen::Matrix3f& d) {
    return omkm::mul(a.transpose(), a, d);
}
#elif REJECT == 2
[[maybe_unused]] omkm::status rejected(const Eigen::Matrix4d& a, double& d) {
    return omkm::det(a.topLeftCorner<3, 3>(), d);
}
#endif
#else
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace rec {
inline std::string last;  // the export the adapter's call reached
}
#define OMKM_HPP_INVOKE(name, fn, ...) (::rec::last = name, fn(__VA_ARGS__))
#include "omkm_eigen.hpp"

#include <Eigen/Dense>

namespace {

using Eigen::ColMajor;
using Eigen::RowMajor;
template <class S, int R, int C, int Order = ColMajor>
using Mat = Eigen::Matrix<S, R, C, Order>;
template <class X>
using aligned_vector = std::vector<X, Eigen::aligned_allocator<X>>;

std::mt19937 rng(7);

// Random elements in [-1, 1], plus `diag` on the diagonal of a square matrix (well conditioned).
template <class M>
M random(double diag = 0) {
    std::uniform_real_distribution<double> u(-1, 1);
    M m;
    for (int i = 0; i < m.rows(); ++i)
        for (int j = 0; j < m.cols(); ++j) m(i, j) = static_cast<typename M::Scalar>(u(rng) + (i == j ? diag : 0));
    return m;
}
template <class M>
M symmetric() {
    M m = random<M>(4);  // eigenvalues in [1, 7]
    return M((m + m.transpose()) / 2);
}
// A packed row-major copy, the C call's operand.
template <class M>
Mat<typename M::Scalar, M::RowsAtCompileTime, M::ColsAtCompileTime, M::ColsAtCompileTime == 1 ? ColMajor : RowMajor>
packed(const M& m) {
    return m;
}

// One row's three results, each flattened row by row as doubles (a float widens exactly); Eigen's
// may stop short, where Eigen has no like result.
struct Outcome {
    std::vector<double> got, eigen, c;
    double tol = 1e-10;
    std::string expected_export;
};
template <class M>
void put(std::vector<double>& v, const M& m) {
    for (int i = 0; i < m.rows(); ++i)
        for (int j = 0; j < m.cols(); ++j) v.push_back(static_cast<double>(m(i, j)));
}
template <class S>
void put_raw(std::vector<double>& v, const S* p, int n) {
    for (int k = 0; k < n; ++k) v.push_back(static_cast<double>(p[k]));
}
#define EXPECT_OK(call) EXPECT_EQ(static_cast<int>(call), 0)

struct Row {
    const char* name;
    std::function<void(Outcome&)> run;
};

// a * b for single matrices of the given storage orders: the adapter, Eigen, Mul_mm on packed copies.
template <class S, int M, int K, int N, int OA, int OB, int OD>
Row product(const char* name, const char* expected) {
    return {name, [=](Outcome& o) {
                Mat<S, M, K, OA> a = random<Mat<S, M, K, OA>>();
                Mat<S, K, N, OB> b = random<Mat<S, K, N, OB>>();
                Mat<S, M, N, OD> d;
                EXPECT_OK(omkm::mul(a, b, d));
                o.expected_export = expected;
                o.tol = sizeof(S) == 4 ? 1e-5 : 1e-13;
                put(o.got, d);
                put(o.eigen, Mat<S, M, N>(a * b));
                auto pa = packed(a);
                auto pb = packed(b);
                decltype(packed(d)) pd;
                constexpr int e = sizeof(S);
                if constexpr (sizeof(S) == 4)
                    EXPECT_OK(omkmMul_mm_32f(pa.data(), K * e, e, K, M, pb.data(), N * e, e, N, K, pd.data(), N * e, e));
                else
                    EXPECT_OK(omkmMul_mm_64f(pa.data(), K * e, e, K, M, pb.data(), N * e, e, N, K, pd.data(), N * e, e));
                put(o.c, pd);
            }};
}

struct Body {
    Eigen::Matrix3d inertia;  // column-major
    double mass;
    Eigen::Matrix3d inverse;
};

const std::vector<Row>& rows() {
    static const std::vector<Row> table = {
        // Products: column-major sources through the t members, and a column-major destination
        // as the transpose b' a' of the product, packed throughout.
        product<float, 4, 4, 4, ColMajor, ColMajor, ColMajor>("mul 4x4f col col -> col", "omkmMul_mm_32f"),
        product<float, 4, 4, 4, ColMajor, ColMajor, RowMajor>("mul 4x4f col col -> row", "omkmMul_tt_32f"),
        product<float, 4, 4, 4, RowMajor, ColMajor, RowMajor>("mul 4x4f row col -> row", "omkmMul_mt_32f"),
        product<double, 6, 6, 6, ColMajor, RowMajor, ColMajor>("mul 6x6d col row -> col", "omkmMul_tm_64f"),
        product<double, 3, 5, 2, ColMajor, ColMajor, ColMajor>("mul 3x5 by 5x2 d col", "omkmMul_mm_64f"),
        product<float, 2, 7, 3, RowMajor, ColMajor, ColMajor>("mul 2x7 by 7x3 f row col -> col", "omkmMul_mt_32f"),
        {"mul transposed(4x4d col) by 4x4d col -> row",
         [](Outcome& o) {
             const Eigen::Matrix4d a = random<Eigen::Matrix4d>(), b = random<Eigen::Matrix4d>();
             Mat<double, 4, 4, RowMajor> d, pd;
             EXPECT_OK(omkm::mul(omkm::transposed(a), b, d));
             o.expected_export = "omkmMul_mt_64f";
             put(o.got, d);
             put(o.eigen, Eigen::Matrix4d(a.transpose() * b));
             const auto pa = packed(Eigen::Matrix4d(a.transpose()));
             const auto pb = packed(b);
             EXPECT_OK(omkmMul_mm_64f(pa.data(), 32, 8, 4, 4, pb.data(), 32, 8, 4, 4, pd.data(), 32, 8));
             put(o.c, pd);
         }},
        {"mul array of 4x4f col by 4x4f col -> col (aligned vector)",
         [](Outcome& o) {
             aligned_vector<Eigen::Matrix4f> a(5), d(5);
             for (auto& x : a) x = random<Eigen::Matrix4f>();
             const Eigen::Matrix4f b = random<Eigen::Matrix4f>();
             EXPECT_OK(omkm::mul(a, b, d));
             o.expected_export = "omkmMul_mma_32f";
             o.tol = 1e-5;
             std::vector<float> pa, pd(16 * 5);
             for (int k = 0; k < 5; ++k) {
                 const auto p = packed(a[k]);
                 pa.insert(pa.end(), p.data(), p.data() + 16);
                 put(o.got, d[k]);
                 put(o.eigen, Eigen::Matrix4f(a[k] * b));
             }
             const auto pb = packed(b);
             EXPECT_OK(omkmMul_mam_32f(pa.data(), 64, 16, 4, 4, 4, pb.data(), 16, 4, 4, 4, pd.data(), 64, 16, 4, 5));
             put_raw(o.c, pd.data(), 16 * 5);
         }},
        {"mul std::array of 3x3d col by std::array of Vector3d",
         [](Outcome& o) {
             std::array<Eigen::Matrix3d, 4> a;
             std::array<Eigen::Vector3d, 4> v, d;
             for (int k = 0; k < 4; ++k) a[k] = random<Eigen::Matrix3d>(), v[k] = random<Eigen::Vector3d>();
             EXPECT_OK(omkm::mul(a, v, d));
             o.expected_export = "omkmMul_tava_64f";
             std::vector<double> pa, pd(12);
             for (int k = 0; k < 4; ++k) {
                 const auto p = packed(a[k]);
                 pa.insert(pa.end(), p.data(), p.data() + 9);
                 put(o.got, d[k]);
                 put(o.eigen, Eigen::Vector3d(a[k] * v[k]));
             }
             EXPECT_OK(omkmMul_mava_64f(pa.data(), 72, 24, 8, 3, 3, v[0].data(), 24, 8, 3, pd.data(), 24, 8, 4));
             put_raw(o.c, pd.data(), 12);
         }},
        {"mul Map<const Matrix4f> col by Matrix4f row -> Map<Matrix4f> col",
         [](Outcome& o) {
             std::array<float, 16> abuf, dbuf;
             Eigen::Map<Eigen::Matrix4f>(abuf.data()) = random<Eigen::Matrix4f>();
             const Eigen::Map<const Eigen::Matrix4f> a(abuf.data());
             const Mat<float, 4, 4, RowMajor> b = random<Mat<float, 4, 4, RowMajor>>();
             Eigen::Map<Eigen::Matrix4f> d(dbuf.data());
             EXPECT_OK(omkm::mul(a, b, d));
             o.expected_export = "omkmMul_tm_32f";
             o.tol = 1e-5;
             put(o.got, d);
             put(o.eigen, Eigen::Matrix4f(a * b));
             const auto pa = packed(Eigen::Matrix4f(a));
             Mat<float, 4, 4, RowMajor> pd;
             EXPECT_OK(omkmMul_mm_32f(pa.data(), 16, 4, 4, 4, b.data(), 16, 4, 4, 4, pd.data(), 16, 4));
             put(o.c, pd);
         }},
        // Elementwise: by strides, one rounding per element either way.
        {"add 3x3f col + row -> col",
         [](Outcome& o) {
             const Eigen::Matrix3f a = random<Eigen::Matrix3f>();
             const Mat<float, 3, 3, RowMajor> b = random<Mat<float, 3, 3, RowMajor>>();
             Eigen::Matrix3f d;
             EXPECT_OK(omkm::add(a, b, d));
             o.expected_export = "omkmAdd_mm_32f";
             o.tol = 1e-6;
             put(o.got, d);
             put(o.eigen, Eigen::Matrix3f(a + b));
             const auto pa = packed(a);
             Mat<float, 3, 3, RowMajor> pd;
             EXPECT_OK(omkmAdd_mm_32f(pa.data(), 12, 4, b.data(), 12, 4, pd.data(), 12, 4, 3, 3));
             put(o.c, pd);
         }},
        {"sub C array of 2x3d row - 2x3d col -> C array col",
         [](Outcome& o) {
             Mat<double, 2, 3, RowMajor> a[3];
             Mat<double, 2, 3> d[3];
             for (auto& x : a) x = random<Mat<double, 2, 3, RowMajor>>();
             const Mat<double, 2, 3> b = random<Mat<double, 2, 3>>();
             EXPECT_OK(omkm::sub(a, b, d));
             o.expected_export = "omkmSub_mam_64f";
             std::array<double, 18> pd;
             const auto pb = packed(b);
             EXPECT_OK(omkmSub_mam_64f(a[0].data(), 48, 24, 8, pb.data(), 24, 8, pd.data(), 48, 24, 8, 3, 2, 3));
             put_raw(o.c, pd.data(), 18);
             for (int k = 0; k < 3; ++k) put(o.got, d[k]), put(o.eigen, Mat<double, 2, 3>(a[k] - b));
         }},
        // Families without t members: the column-major matrix by strides.
        {"invert 4x4d col -> col",
         [](Outcome& o) {
             const Eigen::Matrix4d a = random<Eigen::Matrix4d>(3);
             Eigen::Matrix4d d;
             EXPECT_OK(omkm::invert(a, d));
             o.expected_export = "omkmInvert_m_64f";
             put(o.got, d);
             put(o.eigen, Eigen::Matrix4d(a.inverse()));
             const auto pa = packed(a);
             Mat<double, 4, 4, RowMajor> pd;
             std::array<double, 32> buf;
             EXPECT_OK(omkmInvert_m_64f(pa.data(), 32, 8, buf.data(), pd.data(), 32, 8, 4));
             put(o.c, pd);
         }},
        {"invert aligned vector of 4x4f col -> row",
         [](Outcome& o) {
             aligned_vector<Eigen::Matrix4f> a(6);
             aligned_vector<Mat<float, 4, 4, RowMajor>> d(6);
             for (auto& x : a) x = random<Eigen::Matrix4f>(3);
             EXPECT_OK(omkm::invert(a, d));
             o.expected_export = "omkmInvert_ma_32f";
             o.tol = 1e-5;
             std::vector<float> pa, pd(96), buf(32);
             for (auto& x : a) {
                 const auto p = packed(x);
                 pa.insert(pa.end(), p.data(), p.data() + 16);
             }
             EXPECT_OK(omkmInvert_ma_32f(pa.data(), 64, 16, 4, buf.data(), pd.data(), 64, 16, 4, 4, 6));
             put_raw(o.c, pd.data(), 96);
             for (int k = 0; k < 6; ++k) put(o.got, d[k]), put(o.eigen, Eigen::Matrix4f(a[k].inverse()));
         }},
        {"det 5x5d col, and of a std::array of 3x3f col into a VectorXf",
         [](Outcome& o) {
             const Mat<double, 5, 5> a = random<Mat<double, 5, 5>>(1);
             double got = 0, c = 0;
             EXPECT_OK(omkm::det(a, got));
             const auto pa = packed(a);
             std::array<double, 40> buf;
             EXPECT_OK(omkmDet_m_64f(pa.data(), 40, 8, 5, buf.data(), &c));
             std::array<Eigen::Matrix3f, 4> f;
             for (auto& x : f) x = random<Eigen::Matrix3f>(1);
             Eigen::VectorXf fgot(4);
             EXPECT_OK(omkm::det(f, fgot));
             o.expected_export = "omkmDet_ma_32f";
             o.tol = 1e-5;
             std::vector<float> pf, fc(4), fbuf(16);
             for (auto& x : f) {
                 const auto p = packed(x);
                 pf.insert(pf.end(), p.data(), p.data() + 9);
             }
             EXPECT_OK(omkmDet_ma_32f(pf.data(), 36, 12, 4, 3, fbuf.data(), fc.data(), 4));
             o.got = {got};
             o.c = {c};
             o.eigen = {a.determinant()};
             put(o.got, fgot);
             put_raw(o.c, fc.data(), 4);
             for (auto& x : f) o.eigen.push_back(x.determinant());
         }},
        {"lu_decomp 4x4d col -> col, lu_solve with Vector4d",
         [](Outcome& o) {
             const Eigen::Matrix4d a = random<Eigen::Matrix4d>();
             const Eigen::Vector4d b = random<Eigen::Vector4d>();
             Eigen::Matrix4d lu;
             Eigen::Vector4d x;
             std::array<int, 4> piv, cpiv;
             EXPECT_OK(omkm::lu_decomp(a, piv, lu));
             EXPECT_OK(omkm::lu_solve(lu, piv, b, x));
             o.expected_export = "omkmLUBackSubst_mv_64f";
             const auto pa = packed(a);
             Mat<double, 4, 4, RowMajor> plu;
             Eigen::Vector4d cx;
             EXPECT_OK(omkmLUDecomp_m_64f(pa.data(), 32, 8, cpiv.data(), plu.data(), 32, 8, 4));
             EXPECT_OK(omkmLUBackSubst_mv_64f(plu.data(), 32, 8, cpiv.data(), b.data(), 8, cx.data(), 8, 4));
             EXPECT_EQ(piv, cpiv);
             put(o.got, x);
             put(o.c, cx);
             put(o.eigen, Eigen::Vector4d(a.partialPivLu().solve(b)));
             // The factor, written column-major by strides: the C call's bits (its arrangement of
             // L, U and the pivots is the library's own, not Eigen's).
             put(o.got, lu);
             put(o.c, plu);
         }},
        {"cholesky, cholesky_solve 4x4d col; qr, qr_solve 5x3d col (least squares)",
         [](Outcome& o) {
             const Eigen::Matrix4d a = symmetric<Eigen::Matrix4d>();
             const Eigen::Vector4d b = random<Eigen::Vector4d>();
             const Mat<double, 5, 3> q = random<Mat<double, 5, 3>>(2);
             const Mat<double, 5, 1> qb = random<Mat<double, 5, 1>>();
             Eigen::Matrix4d l = Eigen::Matrix4d::Zero();  // the factors' untouched triangles stay zero
             Mat<double, 5, 3> r = Mat<double, 5, 3>::Zero();
             Eigen::Vector4d x, cx;
             Eigen::Vector3d qx, cqx;
             EXPECT_OK(omkm::cholesky(a, l));
             EXPECT_OK(omkm::cholesky_solve(l, b, x));
             EXPECT_OK(omkm::qr(q, r));
             EXPECT_OK(omkm::qr_solve(r, qb, qx));
             o.expected_export = "omkmQRBackSubst_mv_64f";
             const auto pa = packed(a);
             const auto pq = packed(q);
             Mat<double, 4, 4, RowMajor> pl = Mat<double, 4, 4, RowMajor>::Zero();
             Mat<double, 5, 3, RowMajor> pr = Mat<double, 5, 3, RowMajor>::Zero();
             std::array<double, 5> buf;
             EXPECT_OK(omkmCholeskyDecomp_m_64f(pa.data(), 32, 8, pl.data(), 32, 8, 4));
             EXPECT_OK(omkmCholeskyBackSubst_mv_64f(pl.data(), 32, 8, b.data(), 8, cx.data(), 8, 4));
             EXPECT_OK(omkmQRDecomp_m_64f(pq.data(), 24, 8, buf.data(), pr.data(), 24, 8, 3, 5));
             EXPECT_OK(omkmQRBackSubst_mv_64f(pr.data(), 24, 8, buf.data(), qb.data(), 8, cqx.data(), 8, 3, 5));
             put(o.got, x), put(o.c, cx), put(o.eigen, Eigen::Vector4d(a.llt().solve(b)));
             put(o.got, qx), put(o.c, cqx), put(o.eigen, Eigen::Vector3d(q.householderQr().solve(qb)));
             put(o.got, l), put(o.c, pl);  // the factors: bits only
             put(o.got, r), put(o.c, pr);
         }},
        {"eigen_sym 4x4d col -> values Vector4d, vectors col",
         [](Outcome& o) {
             const Eigen::Matrix4d a = symmetric<Eigen::Matrix4d>();
             Eigen::Vector4d values, cvalues;
             Eigen::Matrix4d vectors;
             EXPECT_OK(omkm::eigen_sym(a, values, vectors));
             o.expected_export = "omkmEigenValuesVectorsSym_m_64f";
             o.tol = 1e-12;
             const auto pa = packed(a);
             Mat<double, 4, 4, RowMajor> cvectors;
             std::array<double, 16> buf;
             EXPECT_OK(omkmEigenValuesVectorsSym_m_64f(pa.data(), 32, 8, buf.data(), cvectors.data(), 32, 8,
                                                       cvalues.data(), 4));
             put(o.got, values);
             put(o.c, cvalues);
             Eigen::Vector4d ev = Eigen::SelfAdjointEigenSolver<Eigen::Matrix4d>(a).eigenvalues();
             std::sort(ev.data(), ev.data() + 4, [](double p, double q) { return p > q; });  // descending
             put(o.eigen, ev);
             // Each eigenvector column: the C call's bits, and a v / lambda = v.
             put(o.got, vectors);
             put(o.c, cvectors);
             put(o.eigen, Eigen::Matrix4d(a * vectors * values.cwiseInverse().asDiagonal()));
         }},
        // A record member through omkm::field: the Eigen member by strides, one record apart.
        {"invert field(bodies, &Body::inertia) -> field(bodies, &Body::inverse)",
         [](Outcome& o) {
             std::vector<Body> bodies(3);
             for (auto& b : bodies) b.inertia = symmetric<Eigen::Matrix3d>(), b.mass = 1;
             EXPECT_OK(omkm::invert(omkm::field(bodies, &Body::inertia), omkm::field(bodies, &Body::inverse)));
             o.expected_export = "omkmInvert_ma_64f";
             std::vector<double> pa, pd(27), buf(18);
             for (auto& b : bodies) {
                 const auto p = packed(b.inertia);
                 pa.insert(pa.end(), p.data(), p.data() + 9);
                 put(o.got, b.inverse);
                 put(o.eigen, Eigen::Matrix3d(b.inertia.inverse()));
             }
             EXPECT_OK(omkmInvert_ma_64f(pa.data(), 72, 24, 8, buf.data(), pd.data(), 72, 24, 8, 3, 3));
             put_raw(o.c, pd.data(), 27);
         }},
    };
    return table;
}

TEST(EigenAdapter, EachOperationGivesTheCCallsBitsAndEigensValues) {
    for (const Row& row : rows()) {
        SCOPED_TRACE(row.name);
        Outcome o;
        rec::last.clear();
        row.run(o);
        EXPECT_EQ(rec::last, o.expected_export);
        ASSERT_FALSE(o.got.empty());
        ASSERT_EQ(o.got.size(), o.c.size());
        ASSERT_LE(o.eigen.size(), o.got.size());
        for (std::size_t k = 0; k < o.got.size(); ++k) {
            EXPECT_EQ(std::memcmp(&o.got[k], &o.c[k], sizeof(double)), 0)
                << "element " << k << ": " << o.got[k] << " vs the C call's " << o.c[k];
            if (k < o.eigen.size()) {
                EXPECT_NEAR(o.got[k], o.eigen[k], o.tol * (1 + std::abs(o.eigen[k]))) << "element " << k;
            }
        }
    }
}


}  // namespace
#endif
