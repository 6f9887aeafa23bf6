/* Adds a batch of 3x3 matrices kept inside an array of structs: each body record holds its
 * inertia matrix among other fields, so the matrices lie `sizeof(Body)` bytes apart. One call
 * adds a correction matrix to every body's inertia. */
#include <stddef.h>
#include <stdio.h>

#include "omkm.h"

typedef struct Body {
    int      id;
    Omk32f   mass;
    Omk32f   inertia[3][3];
    Omk32f   position[3];
} Body;

enum { kBodies = 4 };

int main(void) {
    Body bodies[kBodies];
    for (int k = 0; k < kBodies; ++k) {
        bodies[k].id = 100 + k;
        bodies[k].mass = 1.0f + (Omk32f)k;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) bodies[k].inertia[i][j] = (i == j) ? bodies[k].mass : 0.0f;
        bodies[k].position[0] = bodies[k].position[1] = bodies[k].position[2] = (Omk32f)k;
    }
    /* A symmetric correction shared by all bodies. */
    const Omk32f correction[3][3] = {{0.5f, 0.25f, 0.0f}, {0.25f, 0.5f, 0.125f}, {0.0f, 0.125f, 0.5f}};

    const OmkLibraryVersion* v = omkmGetLibVersion();
    printf("%s, version %s\n", v->name, v->version);

    /* Array of matrices (stride0 = one record) plus one matrix, written back in place. */
    const int recordStride = (int)sizeof(Body);
    const int rowStride = (int)sizeof(bodies[0].inertia[0]);
    const int elemStride = (int)sizeof(Omk32f);
    OmkStatus st = omkmAdd_mam_32f(&bodies[0].inertia[0][0], recordStride, rowStride, elemStride,
                                   &correction[0][0], rowStride, elemStride,
                                   &bodies[0].inertia[0][0], recordStride, rowStride, elemStride,
                                   3, 3, kBodies);
    printf("omkmAdd_mam_32f over %d bodies of %d bytes each: status %d\n", kBodies, recordStride, st);
    if (st != omkStsOk) return 1;

    for (int k = 0; k < kBodies; ++k) {
        printf("body %d (mass %.1f) inertia:", bodies[k].id, bodies[k].mass);
        for (int i = 0; i < 3; ++i)
            printf(" [%6.3f %6.3f %6.3f]", bodies[k].inertia[i][0], bodies[k].inertia[i][1], bodies[k].inertia[i][2]);
        printf("  position unchanged: %.0f %.0f %.0f\n", bodies[k].position[0], bodies[k].position[1],
               bodies[k].position[2]);
    }

    /* A bad stride is reported and nothing is written. */
    st = omkmAdd_mam_32f(&bodies[0].inertia[0][0], recordStride, rowStride, 6, &correction[0][0], rowStride,
                         elemStride, &bodies[0].inertia[0][0], recordStride, rowStride, elemStride, 3, 3, kBodies);
    printf("element stride of 6 bytes: status %d (omkStsBadStride = %d)\n", st, omkStsBadStride);
    return st == omkStsBadStride ? 0 : 1;
}
