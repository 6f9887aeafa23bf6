/* Moves a batch of rigid bodies by one time step. Each body record holds its pose (a 4x4
 * rotation + translation for row vectors, p_world = p_body * pose, translation in row 3) and its
 * motion over the step. One omkmMul_mama_32f call composes next = pose * step for every body,
 * into another field of the same records (products do not promise to work in place); one
 * omkmMul_tava_32f call then carries each body's marker point to world coordinates at the new pose
 * (p * next equals next^T * p, so the pose is read transposed). */
#include <math.h>
#include <stdio.h>

#include "omkm.h"

typedef struct Body {
    int    id;
    Omk32f pose[4][4];
    Omk32f step[4][4];
    Omk32f next[4][4];     /* pose after the step */
    Omk32f marker[4];      /* (x, y, z, 1) in body coordinates */
    Omk32f markerWorld[4];
} Body;

enum { kBodies = 5 };

/* Rotation by `angle` about z followed by a translation, row-vector convention. */
static void rigid(Omk32f m[4][4], double angle, double tx, double ty, double tz) {
    const double c = cos(angle), s = sin(angle);
    const double v[4][4] = {{c, s, 0, 0}, {-s, c, 0, 0}, {0, 0, 1, 0}, {tx, ty, tz, 1}};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) m[i][j] = (Omk32f)v[i][j];
}

int main(void) {
    Body bodies[kBodies];
    double expected[kBodies][4][4];
    for (int k = 0; k < kBodies; ++k) {
        bodies[k].id = 10 + k;
        rigid(bodies[k].pose, 0.3 * k, 1.0 * k, -2.0, 0.5 * k);
        rigid(bodies[k].step, 0.1 + 0.05 * k, 0.25, 0.1 * k, -0.2);   /* turn, then drift */
        bodies[k].marker[0] = 0.5f; bodies[k].marker[1] = -1.0f;
        bodies[k].marker[2] = 0.25f * (Omk32f)k; bodies[k].marker[3] = 1.0f;
        for (int i = 0; i < 4; ++i)   /* reference product in double, before the call */
            for (int j = 0; j < 4; ++j) {
                double t = 0.0;
                for (int q = 0; q < 4; ++q) t += (double)bodies[k].pose[i][q] * bodies[k].step[q][j];
                expected[k][i][j] = t;
            }
    }

    const int rec = (int)sizeof(Body), row = (int)sizeof(bodies[0].pose[0]), el = (int)sizeof(Omk32f);
    int st = omkmMul_mama_32f(&bodies[0].pose[0][0], rec, row, el, 4, 4,
                              &bodies[0].step[0][0], rec, row, el, 4, 4,
                              &bodies[0].next[0][0], rec, row, el, kBodies);
    printf("omkmMul_mama_32f, %d poses of a %d-byte record: status %d\n", kBodies, rec, st);
    if (st != omkStsOk) return 1;

    st = omkmMul_tava_32f(&bodies[0].next[0][0], rec, row, el, 4, 4,
                          bodies[0].marker, rec, el, 4,
                          bodies[0].markerWorld, rec, el, kBodies);
    printf("omkmMul_tava_32f, markers to world: status %d\n", st);
    if (st != omkStsOk) return 1;

    for (int k = 0; k < kBodies; ++k) {
        const Body* b = &bodies[k];
        printf("body %d: heading %7.2f deg, origin (%6.3f %6.3f %6.3f), marker -> (%6.3f %6.3f %6.3f)\n",
               b->id, atan2(b->next[0][1], b->next[0][0]) * 180.0 / acos(-1.0),
               b->next[3][0], b->next[3][1], b->next[3][2],
               b->markerWorld[0], b->markerWorld[1], b->markerWorld[2]);
    }

    /* Self-check in plain C: the product, the rotation block still orthonormal, the markers. */
    for (int k = 0; k < kBodies; ++k) {
        const Body* b = &bodies[k];
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j)
                if (fabs(b->next[i][j] - expected[k][i][j]) > 1e-5) {
                    printf("FAIL: body %d next[%d][%d] = %.7f, expected %.7f\n", b->id, i, j,
                           b->next[i][j], expected[k][i][j]);
                    return 1;
                }
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                double d = 0.0;
                for (int q = 0; q < 3; ++q) d += (double)b->next[i][q] * b->next[j][q];
                if (fabs(d - (i == j ? 1.0 : 0.0)) > 1e-5) {
                    printf("FAIL: body %d rotation rows %d, %d have dot product %.7f\n", b->id, i, j, d);
                    return 1;
                }
            }
        for (int j = 0; j < 4; ++j) {
            double w = 0.0;
            for (int q = 0; q < 4; ++q) w += (double)b->marker[q] * expected[k][q][j];
            if (fabs(b->markerWorld[j] - w) > 1e-5) {
                printf("FAIL: body %d marker component %d = %.7f, expected %.7f\n", b->id, j,
                       b->markerWorld[j], w);
                return 1;
            }
        }
    }
    printf("check passed: poses match the plain-C product, rotations orthonormal, markers agree\n");
    return 0;
}
