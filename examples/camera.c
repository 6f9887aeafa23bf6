/* A left-handed camera looking at a small point cloud. The view comes from omkmLookAtLH_m4_32f and
 * the projection from omkmPerspectiveFovLH_m4_32f; both are row-major for row vectors (p' = p*M,
 * translation in row 3), so view*projection is the combined camera. The cloud is an array of
 * structs: one call maps every point to normalised device coordinates with the combined matrix,
 * another projects every point to pixels (origin at the top-left corner, depth in [0, 1]). */
#include <math.h>
#include <stdio.h>

#include "omkm.h"

typedef struct CloudPoint {
    int    id;
    Omk32f world[3];
    Omk32f ndc[3];     /* (x, y, z, 1)*view*projection, divided by w */
    Omk32f pixel[3];   /* x right, y down, depth */
} CloudPoint;

enum { kPoints = 7 };

static void unit_cross(const double a[3], const double b[3], double out[3]) {
    out[0] = a[1] * b[2] - a[2] * b[1]; out[1] = a[2] * b[0] - a[0] * b[2]; out[2] = a[0] * b[1] - a[1] * b[0];
    const double n = sqrt(out[0] * out[0] + out[1] * out[1] + out[2] * out[2]);
    for (int i = 0; i < 3; ++i) out[i] /= n;
}

int main(void) {
    const Omk32f eye[3] = {4.0f, 3.0f, -6.0f}, at[3] = {0.0f, 1.0f, 0.0f}, up[3] = {0.0f, 1.0f, 0.0f};
    const Omk32f fovY = 1.0471976f, width = 640.0f, height = 480.0f, zNear = 0.5f, zFar = 100.0f;
    Omk32f view[16], proj[16], viewProj[16], world[16];
    omkmLookAtLH_m4_32f(eye, at, up, view);
    omkmPerspectiveFovLH_m4_32f(fovY, width / height, zNear, zFar, proj);
    int st = omkmMul_mm4x4_32f(view, proj, viewProj);
    omkmIdentity_m4_32f(world);
    if (st != omkStsOk) { printf("omkmMul_mm4x4_32f: status %d\n", st); return 1; }

    /* The camera frame in plain C: forward f, right r = up x f, true up u = f x r. */
    double f[3], r[3], u[3], dist = 0.0;
    const double up64[3] = {up[0], up[1], up[2]};
    for (int i = 0; i < 3; ++i) { f[i] = (double)at[i] - eye[i]; dist += f[i] * f[i]; }
    dist = sqrt(dist);
    for (int i = 0; i < 3; ++i) f[i] /= dist;
    unit_cross(up64, f, r);
    unit_cross(f, r, u);
    const double t = tan(fovY / 2.0), ratio = (double)width / height;
    /* Each point is placed by sx, sy (-1 .. 1 spans the field of view) and its distance along f. */
    const double recipe[kPoints][3] = {{0, 0, dist}, {-0.95, 0.95, 0.6}, {0.95, -0.95, 0.6}, {0.5, 0.25, 20},
                                       {-0.9, -0.6, 60}, {0.95, 0.95, 99}, {1.4, 0, 12}};
    CloudPoint cloud[kPoints];
    for (int k = 0; k < kPoints; ++k) {
        const double sx = recipe[k][0], sy = recipe[k][1], d = recipe[k][2];
        cloud[k].id = k;
        for (int i = 0; i < 3; ++i)
            cloud[k].world[i] = (Omk32f)(eye[i] + d * (f[i] + sx * ratio * t * r[i] + sy * t * u[i]));
    }

    const int stride = (int)sizeof(CloudPoint);
    st = omkmAffineTransformCoord_m4v3a_32f(viewProj, cloud[0].world, stride, cloud[0].ndc, stride, kPoints);
    if (st != omkStsOk) { printf("omkmAffineTransformCoord_m4v3a_32f: status %d\n", st); return 1; }
    /* Argument order: projection, view, world; the point goes through world, view, projection. */
    st = omkmProject_m4v3a_32f(proj, view, world, cloud[0].world, stride, width, height, 0.0f, 1.0f,
                               cloud[0].pixel, stride, kPoints);
    if (st != omkStsOk) { printf("omkmProject_m4v3a_32f: status %d\n", st); return 1; }

    printf("camera at (%.0f %.0f %.0f) looking at (%.0f %.0f %.0f), %.0fx%.0f pixels\n", eye[0], eye[1], eye[2],
           at[0], at[1], at[2], width, height);
    for (int k = 0; k < kPoints; ++k) {
        const CloudPoint* p = &cloud[k];
        const int visible = fabsf(p->ndc[0]) <= 1.0f && fabsf(p->ndc[1]) <= 1.0f && p->ndc[2] >= 0.0f &&
                            p->ndc[2] <= 1.0f;
        printf("point %d (%7.2f %6.2f %7.2f) -> pixel (%7.1f, %6.1f) depth %.5f%s\n", p->id, p->world[0],
               p->world[1], p->world[2], p->pixel[0], p->pixel[1], p->pixel[2], visible ? "" : "  off screen");
    }

    /* Self-check in plain C: a point at sx, sy, distance d lands at ndc (sx, sy, depth) with the
     * depth zFar/(zFar - zNear)*(1 - zNear/d), and at pixel ((1 + sx)*w/2, (1 - sy)*h/2). */
    for (int k = 0; k < kPoints; ++k) {
        const CloudPoint* p = &cloud[k];
        const double sx = recipe[k][0], sy = recipe[k][1], d = recipe[k][2];
        const double depth = zFar / (zFar - (double)zNear) * (1.0 - zNear / d);
        const double ndc[3] = {sx, sy, depth}, pix[3] = {(1 + sx) * width / 2, (1 - sy) * height / 2, depth};
        for (int i = 0; i < 3; ++i)
            if (!(fabs(p->ndc[i] - ndc[i]) <= 2e-4) || !(fabs(p->pixel[i] - pix[i]) <= (i < 2 ? 0.05 : 2e-4))) {
                printf("FAIL: point %d component %d: ndc %.6f (expected %.6f), pixel %.4f (expected %.4f)\n", k,
                       i, p->ndc[i], ndc[i], p->pixel[i], pix[i]);
                return 1;
            }
    }
    printf("check passed: every point lands where the camera geometry puts it\n");
    return 0;
}
