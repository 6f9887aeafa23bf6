// Adds a correction to the inertia matrix of every body record, as examples/batch_add.c does,
// through the C++ interface (omkm.hpp): omkm::field names the member of every record, and the
// record stride, the row and element strides, the sizes, the count and the export
// (omkmAdd_mam_32f) follow from the types.
#include <array>
#include <cstdio>
#include <vector>

#include "omkm.hpp"

struct Body {
    int id;
    float mass;
    float inertia[3][3];
    float position[3];
};

int main() {
    std::vector<Body> bodies(4);
    for (int k = 0; k < 4; ++k) {
        Body& b = bodies[k];
        b.id = 100 + k;
        b.mass = 1.0f + static_cast<float>(k);
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) b.inertia[i][j] = (i == j) ? b.mass : 0.0f;
        b.position[0] = b.position[1] = b.position[2] = static_cast<float>(k);
    }
    // A symmetric correction shared by all bodies: one matrix against an array of them.
    const float correction[3][3] = {{0.5f, 0.25f, 0.0f}, {0.25f, 0.5f, 0.125f}, {0.0f, 0.125f, 0.5f}};

    // Written back in place: the element-wise families allow a destination equal to a source.
    const auto inertia = omkm::field(bodies, &Body::inertia);
    omkm::status st = omkm::add(inertia, correction, inertia);
    std::printf("omkm::add (omkmAdd_mam_32f) over %d bodies of %d bytes each: %s\n", static_cast<int>(bodies.size()),
                static_cast<int>(sizeof(Body)), omkm::to_string(st));
    if (st != omkm::status::ok) return 1;

    for (const Body& b : bodies) {
        std::printf("body %d (mass %.1f) inertia:", b.id, b.mass);
        for (const auto& row : b.inertia) std::printf(" [%6.3f %6.3f %6.3f]", row[0], row[1], row[2]);
        std::printf("  position unchanged: %.0f %.0f %.0f\n", b.position[0], b.position[1], b.position[2]);
    }

    // Self-check: the diagonal is mass + correction, the rest the correction, other members untouched.
    for (int k = 0; k < 4; ++k) {
        const Body& b = bodies[k];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                if (b.inertia[i][j] != (i == j ? b.mass : 0.0f) + correction[i][j]) {
                    std::printf("FAIL: body %d inertia[%d][%d] = %g\n", b.id, i, j, b.inertia[i][j]);
                    return 1;
                }
        if (b.position[0] != static_cast<float>(k) || b.id != 100 + k) {
            std::printf("FAIL: body %d: a member beside the inertia changed\n", b.id);
            return 1;
        }
    }

    // The throwing form, for code that prefers exceptions: a container of corrections whose count
    // differs from the bodies' is refused before the C call, and nothing is written.
    std::vector<std::array<std::array<float, 3>, 3>> per_body(3);
    try {
        omkm::add_or_throw(inertia, per_body, inertia);
        std::printf("FAIL: three corrections for four bodies were accepted\n");
        return 1;
    } catch (const omkm::error& e) {
        std::printf("three corrections for four bodies: omkm::error \"%s\"\n", e.what());
        if (e.code() != omkm::status::size_mismatch) return 1;
    }
    std::printf("check passed: every inertia corrected in place, the records' other members unchanged\n");
    return 0;
}
