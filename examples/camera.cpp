// A left-handed camera looking at a small point cloud, as examples/camera.c does, through the C++
// interface (omkm.hpp). The builders fill 4x4 transforms for row vectors (p' = p*M, translation in
// row 3): omkm::look_at(omkm::left_handed, ...) the view, omkm::perspective_fov(omkm::left_handed,
// ...) the projection, and omkm::fixed::mul (Mul_mm4x4_32f) their product, the combined camera.
// The cloud is a vector of records: omkm::transform_coords maps every point to normalised device
// coordinates (AffineTransformCoord_m4v3a_32f), omkm::project every point to pixels
// (Project_m4v3a_32f: origin at the top-left corner, depth in [0, 1]); the record stride and the
// count follow from omkm::field.
#include <cmath>
#include <cstdio>
#include <vector>

#include "omkm.hpp"

struct CloudPoint {
    int id;
    float world[3];
    float ndc[3];    // (x, y, z, 1)*view*projection, divided by w
    float pixel[3];  // x right, y down, depth
};

constexpr int kPoints = 7;

static void unit_cross(const double a[3], const double b[3], double out[3]) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
    const double n = std::sqrt(out[0] * out[0] + out[1] * out[1] + out[2] * out[2]);
    for (int i = 0; i < 3; ++i) out[i] /= n;
}

int main() {
    const float eye[3] = {4.0f, 3.0f, -6.0f}, at[3] = {0.0f, 1.0f, 0.0f}, up[3] = {0.0f, 1.0f, 0.0f};
    const float fovY = 1.0471976f, width = 640.0f, height = 480.0f, zNear = 0.5f, zFar = 100.0f;
    float view[4][4], proj[4][4], viewProj[4][4], world[4][4];
    try {
        omkm::look_at_or_throw(omkm::left_handed, eye, at, up, view);
        omkm::perspective_fov_or_throw(omkm::left_handed, fovY, width / height, zNear, zFar, proj);
        omkm::fixed::mul_or_throw(view, proj, viewProj);
        omkm::fixed::identity_or_throw(world);
    } catch (const omkm::error& e) {
        std::printf("camera: %s\n", e.what());
        return 1;
    }

    // The camera frame in plain C++: forward f, right r = up x f, true up u = f x r.
    double f[3], r[3], u[3], dist = 0.0;
    const double up64[3] = {up[0], up[1], up[2]};
    for (int i = 0; i < 3; ++i) {
        f[i] = static_cast<double>(at[i]) - eye[i];
        dist += f[i] * f[i];
    }
    dist = std::sqrt(dist);
    for (int i = 0; i < 3; ++i) f[i] /= dist;
    unit_cross(up64, f, r);
    unit_cross(f, r, u);
    const double t = std::tan(fovY / 2.0), ratio = static_cast<double>(width) / height;
    // Each point is placed by sx, sy (-1 .. 1 spans the field of view) and its distance along f.
    const double recipe[kPoints][3] = {{0, 0, dist},     {-0.95, 0.95, 0.6}, {0.95, -0.95, 0.6}, {0.5, 0.25, 20},
                                       {-0.9, -0.6, 60}, {0.95, 0.95, 99},   {1.4, 0, 12}};
    std::vector<CloudPoint> cloud(kPoints);
    for (int k = 0; k < kPoints; ++k) {
        const double sx = recipe[k][0], sy = recipe[k][1], d = recipe[k][2];
        cloud[k].id = k;
        for (int i = 0; i < 3; ++i)
            cloud[k].world[i] = static_cast<float>(eye[i] + d * (f[i] + sx * ratio * t * r[i] + sy * t * u[i]));
    }

    omkm::status st =
        omkm::transform_coords(viewProj, omkm::field(cloud, &CloudPoint::world), omkm::field(cloud, &CloudPoint::ndc));
    if (st != omkm::status::ok) {
        std::printf("omkm::transform_coords: %s\n", omkm::to_string(st));
        return 1;
    }
    // Argument order as in the export: projection, view, world; the point goes through world, view, projection.
    st = omkm::project(proj, view, world, omkm::field(cloud, &CloudPoint::world),
                       omkm::viewport{width, height, 0.0f, 1.0f}, omkm::field(cloud, &CloudPoint::pixel));
    if (st != omkm::status::ok) {
        std::printf("omkm::project: %s\n", omkm::to_string(st));
        return 1;
    }

    std::printf("camera at (%.0f %.0f %.0f) looking at (%.0f %.0f %.0f), %.0fx%.0f pixels\n", eye[0], eye[1], eye[2],
                at[0], at[1], at[2], width, height);
    for (const CloudPoint& p : cloud) {
        const bool visible =
            std::fabs(p.ndc[0]) <= 1.0f && std::fabs(p.ndc[1]) <= 1.0f && p.ndc[2] >= 0.0f && p.ndc[2] <= 1.0f;
        std::printf("point %d (%7.2f %6.2f %7.2f) -> pixel (%7.1f, %6.1f) depth %.5f%s\n", p.id, p.world[0], p.world[1],
                    p.world[2], p.pixel[0], p.pixel[1], p.pixel[2], visible ? "" : "  off screen");
    }

    // Self-check in plain C++: a point at sx, sy, distance d lands at ndc (sx, sy, depth) with the
    // depth zFar/(zFar - zNear)*(1 - zNear/d), and at pixel ((1 + sx)*w/2, (1 - sy)*h/2).
    for (int k = 0; k < kPoints; ++k) {
        const CloudPoint& p = cloud[k];
        const double sx = recipe[k][0], sy = recipe[k][1], d = recipe[k][2];
        const double depth = zFar / (zFar - static_cast<double>(zNear)) * (1.0 - zNear / d);
        const double ndc[3] = {sx, sy, depth}, pix[3] = {(1 + sx) * width / 2, (1 - sy) * height / 2, depth};
        for (int i = 0; i < 3; ++i)
            if (!(std::fabs(p.ndc[i] - ndc[i]) <= 2e-4) || !(std::fabs(p.pixel[i] - pix[i]) <= (i < 2 ? 0.05 : 2e-4))) {
                std::printf("FAIL: point %d component %d: ndc %.6f (expected %.6f), pixel %.4f (expected %.4f)\n", k, i,
                            p.ndc[i], ndc[i], p.pixel[i], pix[i]);
                return 1;
            }
    }
    std::printf("check passed: every point lands where the camera geometry puts it\n");
    return 0;
}
