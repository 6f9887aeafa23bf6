// The two solver jobs of examples/small_solves.c through the C++ interface (omkm.hpp).
// 1. Sensor unmixing: omkm::lu_decomp factors the 3x3 cross-talk matrix of every sensor record into
//    another member of the record (omkmLUDecomp_ma_64f; the row order, 3 ints per matrix, goes to a
//    std::vector of rows), and omkm::lu_solve solves every A*x = b (omkmLUBackSubst_mava_64f).
// 2. Terrain survey: a plane z = a*x + b*y + c fitted in the least-squares sense by Householder QR
//    (omkm::qr, omkm::qr_solve on one tall matrix; the layer provides the scratch); the right-hand
//    side is read out of the array of samples with its stride (omkm::strided_vector).
#include <array>
#include <cmath>
#include <cstdio>
#include <vector>

#include "omkm.hpp"

struct Sensor {
    int id;
    double mix[3][3];
    double reading[3];
    double lu[3][3];
    double signal[3];
};

struct Sample {
    double x, y, z;
};

constexpr int kSamples = 12;

int main() {
    std::vector<Sensor> s(6);
    for (int k = 0; k < 6; ++k) {
        s[k].id = 200 + k;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) s[k].mix[i][j] = (i == j) ? 1.0 + 0.1 * k : 0.05 * (i + 2 * j + k);
        s[k].reading[0] = 1.0 + k;
        s[k].reading[1] = -0.5 * k;
        s[k].reading[2] = 2.0;
    }
    s[2].mix[0][0] = 0.0;  // a zero leading entry: the factorisation has to pivot

    std::vector<std::array<int, 3>> rowOrder(s.size());
    omkm::status st = omkm::lu_decomp(omkm::field(s, &Sensor::mix), rowOrder, omkm::field(s, &Sensor::lu));
    if (st != omkm::status::ok) return std::printf("omkm::lu_decomp: %s\n", omkm::to_string(st)), 1;
    st = omkm::lu_solve(omkm::field(s, &Sensor::lu), rowOrder, omkm::field(s, &Sensor::reading),
                        omkm::field(s, &Sensor::signal));
    if (st != omkm::status::ok) return std::printf("omkm::lu_solve: %s\n", omkm::to_string(st)), 1;
    for (std::size_t k = 0; k < s.size(); ++k)
        std::printf("sensor %d: signals %9.5f %9.5f %9.5f  (row order %d %d %d)\n", s[k].id, s[k].signal[0],
                    s[k].signal[1], s[k].signal[2], rowOrder[k][0], rowOrder[k][1], rowOrder[k][2]);

    // A sensor whose matrix has two equal rows cannot be unmixed.
    const double flat[3][3] = {{1, 2, 3}, {1, 2, 3}, {0, 1, 4}};
    double flatLu[3][3];
    int flatOrder[3];
    const omkm::status singular = omkm::lu_decomp(flat, flatOrder, flatLu);
    std::printf("matrix with two equal rows: %s\n", omkm::to_string(singular));

    // Survey points near z = 0.3*x - 0.8*y + 5, with a small deterministic error.
    std::array<Sample, kSamples> pts;
    double design[kSamples][3], qr[kSamples][3], plane[3];
    for (int i = 0; i < kSamples; ++i) {
        pts[i].x = (i % 4) * 2.5;
        pts[i].y = (i / 4) * 3.0 - 1.0;
        pts[i].z = 0.3 * pts[i].x - 0.8 * pts[i].y + 5.0 + 0.02 * std::sin(1.7 * i);
        design[i][0] = pts[i].x;
        design[i][1] = pts[i].y;
        design[i][2] = 1.0;
    }
    st = omkm::qr(design, qr);
    if (st != omkm::status::ok) return std::printf("omkm::qr: %s\n", omkm::to_string(st)), 1;
    st = omkm::qr_solve(qr, omkm::strided_vector(&pts[0].z, kSamples, sizeof(Sample)), plane);
    if (st != omkm::status::ok) return std::printf("omkm::qr_solve: %s\n", omkm::to_string(st)), 1;
    std::printf("plane fit to %d points: z = %.4f*x %+.4f*y %+.4f\n", kSamples, plane[0], plane[1], plane[2]);

    // Self-check in plain C++.
    for (const Sensor& e : s)
        for (int i = 0; i < 3; ++i) {
            double r = -e.reading[i], size = std::fabs(e.reading[i]);
            for (int j = 0; j < 3; ++j) {
                r += e.mix[i][j] * e.signal[j];
                size += std::fabs(e.mix[i][j] * e.signal[j]);
            }
            if (!(std::fabs(r) <= 1e-14 * size))
                return std::printf("FAIL: sensor %d, equation %d has residual %g\n", e.id, i, r), 1;
        }
    if (singular != omkm::status::singular)
        return std::printf("FAIL: singular matrix gave %s\n", omkm::to_string(singular)), 1;
    for (int j = 0; j < 3; ++j) {  // least squares: the residual is orthogonal to every column
        double g = 0.0, scale = 0.0;
        for (int i = 0; i < kSamples; ++i) {
            const double r = pts[i].z - (plane[0] * pts[i].x + plane[1] * pts[i].y + plane[2]);
            g += design[i][j] * r;
            scale += std::fabs(design[i][j] * pts[i].z);
        }
        if (!(std::fabs(g) <= 1e-12 * scale)) return std::printf("FAIL: column %d: A^T r = %g\n", j, g), 1;
    }
    const double truth[3] = {0.3, -0.8, 5.0};
    for (int j = 0; j < 3; ++j)
        if (!(std::fabs(plane[j] - truth[j]) < 0.05))
            return std::printf("FAIL: coefficient %d = %.5f, the points were made with %.2f\n", j, plane[j], truth[j]),
                   1;
    std::printf("check passed: every A*x = b holds, singular case reported, fit satisfies A^T r = 0\n");
    return 0;
}
