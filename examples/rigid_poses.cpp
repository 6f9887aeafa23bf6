// Moves a batch of rigid bodies by one time step, as examples/rigid_poses.c does, through the C++
// interface (omkm.hpp): the operands are named by the members of the records, and the strides,
// sizes, count and the export (Mul_mama_32f, then Mul_tava_32f) follow from their types.
//
// Each body record holds its pose (a 4x4 rotation + translation for row vectors, p_world = p_body *
// pose, translation in row 3) and its motion over the step. omkm::mul composes next = pose * step
// for every body into another member of the same records (products do not promise to work in
// place); a second omkm::mul carries each body's marker point to world coordinates at the new pose
// (p * next equals next^T * p, so the pose is read transposed).
#include <cmath>
#include <cstdio>
#include <vector>

#include "omkm.hpp"

struct Body {
    int id;
    float pose[4][4];
    float step[4][4];
    float next[4][4];  // pose after the step
    float marker[4];   // (x, y, z, 1) in body coordinates
    float markerWorld[4];
};

constexpr int kBodies = 5;

// Rotation by `angle` about z followed by a translation, row-vector convention.
static void rigid(float m[4][4], double angle, double tx, double ty, double tz) {
    const double c = std::cos(angle), s = std::sin(angle);
    const double v[4][4] = {{c, s, 0, 0}, {-s, c, 0, 0}, {0, 0, 1, 0}, {tx, ty, tz, 1}};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) m[i][j] = static_cast<float>(v[i][j]);
}

int main() {
    std::vector<Body> bodies(kBodies);
    double expected[kBodies][4][4];
    for (int k = 0; k < kBodies; ++k) {
        Body& b = bodies[k];
        b.id = 10 + k;
        rigid(b.pose, 0.3 * k, 1.0 * k, -2.0, 0.5 * k);
        rigid(b.step, 0.1 + 0.05 * k, 0.25, 0.1 * k, -0.2);  // turn, then drift
        b.marker[0] = 0.5f;
        b.marker[1] = -1.0f;
        b.marker[2] = 0.25f * static_cast<float>(k);
        b.marker[3] = 1.0f;
        for (int i = 0; i < 4; ++i)  // reference product in double, before the call
            for (int j = 0; j < 4; ++j) {
                double t = 0.0;
                for (int q = 0; q < 4; ++q) t += static_cast<double>(b.pose[i][q]) * b.step[q][j];
                expected[k][i][j] = t;
            }
    }

    omkm::status st =
        omkm::mul(omkm::field(bodies, &Body::pose), omkm::field(bodies, &Body::step), omkm::field(bodies, &Body::next));
    std::printf("omkmMul_mama_32f, %d poses of a %d-byte record: status %d\n", kBodies, static_cast<int>(sizeof(Body)),
                static_cast<int>(st));
    if (st != omkm::status::ok) return 1;

    st = omkm::mul(omkm::transposed(omkm::field(bodies, &Body::next)), omkm::field(bodies, &Body::marker),
                   omkm::field(bodies, &Body::markerWorld));
    std::printf("omkmMul_tava_32f, markers to world: status %d\n", static_cast<int>(st));
    if (st != omkm::status::ok) return 1;

    for (const Body& b : bodies)
        std::printf("body %d: heading %7.2f deg, origin (%6.3f %6.3f %6.3f), marker -> (%6.3f %6.3f %6.3f)\n", b.id,
                    std::atan2(b.next[0][1], b.next[0][0]) * 180.0 / std::acos(-1.0), b.next[3][0], b.next[3][1],
                    b.next[3][2], b.markerWorld[0], b.markerWorld[1], b.markerWorld[2]);

    // Self-check in plain C++: the product, the rotation block still orthonormal, the markers.
    for (int k = 0; k < kBodies; ++k) {
        const Body& b = bodies[k];
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j)
                if (std::fabs(b.next[i][j] - expected[k][i][j]) > 1e-5) {
                    std::printf("FAIL: body %d next[%d][%d] = %.7f, expected %.7f\n", b.id, i, j, b.next[i][j],
                                expected[k][i][j]);
                    return 1;
                }
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                double d = 0.0;
                for (int q = 0; q < 3; ++q) d += static_cast<double>(b.next[i][q]) * b.next[j][q];
                if (std::fabs(d - (i == j ? 1.0 : 0.0)) > 1e-5) {
                    std::printf("FAIL: body %d rotation rows %d, %d have dot product %.7f\n", b.id, i, j, d);
                    return 1;
                }
            }
        for (int j = 0; j < 4; ++j) {
            double w = 0.0;
            for (int q = 0; q < 4; ++q) w += static_cast<double>(b.marker[q]) * expected[k][q][j];
            if (std::fabs(b.markerWorld[j] - w) > 1e-5) {
                std::printf("FAIL: body %d marker component %d = %.7f, expected %.7f\n", b.id, j, b.markerWorld[j], w);
                return 1;
            }
        }
    }
    std::printf("check passed: poses match the plain-C product, rotations orthonormal, markers agree\n");
    return 0;
}
