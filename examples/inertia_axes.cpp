// The eigenproblems of examples/inertia_axes.c through the C++ interface (omkm.hpp).
// 1. omkm::eigen_sym gives every piece's principal moments (descending, into a std::vector of
//    3-value rows) and its principal axes (the columns of a 3x3 member of the record) in one call
//    (omkmEigenValuesVectorsSym_ma_64f); the layer provides the n*n scratch.
// 2. omkm::eigen finds the modes of a third-order loop in companion form, one real mode and an
//    oscillating pair, with its right eigenvectors (omkmEigenValuesVectorsRight_m_64f); the layer
//    sizes its scratch by omkmEigenValuesVectorsGetBufSize_64f and allocates it.
#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdio>
#include <functional>
#include <vector>

#include "omkm.hpp"

struct Piece {
    const char* name;
    double mass, size[3], turn;  // box sides, and a rotation angle about the axis (1, 2, 2)/3
    double inertia[3][3];
    double axes[3][3];  // column j: axis of moment j
};

int main() {
    std::vector<Piece> pieces = {{"bracket", 2.0, {0.4, 0.1, 0.05}, 0.3, {}, {}},
                                 {"plate", 5.0, {0.6, 0.5, 0.02}, 1.1, {}, {}},
                                 {"shaft", 1.5, {0.04, 0.04, 0.9}, -0.7, {}, {}},
                                 {"block", 8.0, {0.3, 0.2, 0.25}, 2.0, {}, {}}};
    std::vector<std::array<double, 3>> moments(pieces.size()), want(pieces.size());
    const double u[3] = {1.0 / 3, 2.0 / 3, 2.0 / 3};  // axis of the turns; its cross matrix
    const double w[3][3] = {{0, -u[2], u[1]}, {u[2], 0, -u[0]}, {-u[1], u[0], 0}};
    for (std::size_t k = 0; k < pieces.size(); ++k) {
        Piece& p = pieces[k];
        const double c = std::cos(p.turn), s = std::sin(p.turn), *d = p.size;
        const double q[3] = {d[0] * d[0], d[1] * d[1], d[2] * d[2]};
        double r[3][3];  // moments about the box's own axes; rotation about u
        for (int i = 0; i < 3; ++i) want[k][i] = p.mass * (q[(i + 1) % 3] + q[(i + 2) % 3]) / 12;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) r[i][j] = (i == j ? c : 0.0) + (1 - c) * u[i] * u[j] + s * w[i][j];
        for (int i = 0; i < 3; ++i)  // I = R * diag(moments) * R^T
            for (int j = 0; j < 3; ++j) {
                p.inertia[i][j] = 0.0;
                for (int a = 0; a < 3; ++a) p.inertia[i][j] += r[i][a] * want[k][a] * r[j][a];
            }
        std::sort(want[k].begin(), want[k].end(), std::greater<double>());  // the library's order
    }

    // omkm::status::singular comes back when the product of the moments is at most 2^-52 in
    // magnitude, so tensors of very small pieces (or with a zero moment) need scaling first.
    omkm::status st =
        omkm::eigen_sym(omkm::field(pieces, &Piece::inertia), moments, omkm::field(pieces, &Piece::axes));
    if (st != omkm::status::ok) return std::printf("omkm::eigen_sym: %s\n", omkm::to_string(st)), 1;
    for (std::size_t k = 0; k < pieces.size(); ++k) {
        const Piece& p = pieces[k];
        std::printf("%-8s moments %.5f %.5f %.5f kg m^2, major axis (%6.3f %6.3f %6.3f)\n", p.name, moments[k][0],
                    moments[k][1], moments[k][2], p.axes[0][0], p.axes[1][0], p.axes[2][0]);
    }

    // s^3 + 0*s^2 + 1*s - 10: the loop matrix in companion form.
    const double c0 = -10.0, c1 = 1.0, c2 = 0.0;
    const double loop[3][3] = {{0, 1, 0}, {0, 0, 1}, {-c0, -c1, -c2}};
    double vec[3][3];
    std::array<double, 3> re, im;
    st = omkm::eigen(loop, re, im, vec);
    if (st != omkm::status::ok) return std::printf("omkm::eigen: %s\n", omkm::to_string(st)), 1;
    std::printf("loop modes: %.6f%+.6fi  %.6f%+.6fi  %.6f%+.6fi\n", re[0], im[0], re[1], im[1], re[2], im[2]);

    // Self-check in plain C++.
    for (std::size_t k = 0; k < pieces.size(); ++k) {
        const Piece& p = pieces[k];
        const auto& m = moments[k];
        for (int j = 0; j < 3; ++j)
            if (!(std::fabs(m[j] - want[k][j]) <= 1e-12 * want[k][0]))
                return std::printf("FAIL: %s moment %d = %.15g, the box has %.15g\n", p.name, j, m[j], want[k][j]), 1;
        for (int j = 0; j < 3; ++j)
            for (int i = 0; i < 3; ++i) {
                double iv = -m[j] * p.axes[i][j], vv = 0.0;
                for (int q = 0; q < 3; ++q) {
                    iv += p.inertia[i][q] * p.axes[q][j];
                    vv += p.axes[q][i] * p.axes[q][j];
                }
                if (!(std::fabs(iv) <= 1e-12 * m[0]) || !(std::fabs(vv - (i == j)) <= 1e-12))
                    return std::printf("FAIL: %s axis %d: (I*v - l*v)[%d] = %g, v%d.v%d = %g\n", p.name, j, i, iv, i,
                                       j, vv),
                           1;
            }
    }
    int pairs = 0;
    for (int j = 0; j < 3; ++j) {
        if (im[j] > 0 && (j == 2 || re[j + 1] != re[j] || im[j + 1] != -im[j]))
            return std::printf("FAIL: value %d has no conjugate after it\n", j), 1;
        const std::complex<double> l(re[j], im[j]);
        std::complex<double> v[3];  // a pair's vector: column j + i * column j + 1
        for (int i = 0; i < 3; ++i) v[i] = {vec[i][j], im[j] > 0 ? vec[i][j + 1] : 0.0};
        const double poly = std::abs(((l + c2) * l + c1) * l + c0);
        double res = 0.0, norm = 0.0;
        for (int i = 0; i < 3; ++i) {
            res += std::abs(loop[i][0] * v[0] + loop[i][1] * v[1] + loop[i][2] * v[2] - l * v[i]);
            norm += std::norm(v[i]);
        }
        if (!(poly <= 1e-11) || !(res <= 1e-11) || !(std::fabs(norm - 1.0) <= 1e-12))  // entries up to 10
            return std::printf("FAIL: mode %d: |p(l)| = %g, |A v - l v| = %g, |v|^2 = %.15f\n", j, poly, res, norm), 1;
        if (im[j] > 0) {  // the conjugate's vector is the conjugate of this one
            ++pairs;
            ++j;
        }
    }
    if (pairs != 1) return std::printf("FAIL: expected one oscillating pair, found %d\n", pairs), 1;
    std::printf("check passed: box moments found, I*v = l*v, axes orthonormal; modes are roots with A*v = l*v\n");
    return 0;
}
