/* Two everyday solver jobs on small systems.
 * 1. Sensor unmixing: each sensor record holds a 3x3 cross-talk matrix A and its readings b; the
 *    true signals x solve A*x = b. One omkmLUDecomp_ma_64f call factors every matrix (the factor
 *    goes to another field of the record, the row order to a plain int array, 3 per matrix) and
 *    one omkmLUBackSubst_mava_64f call solves every system.
 * 2. Terrain survey: a plane z = a*x + b*y + c fitted in the least-squares sense to survey points
 *    with Householder QR (omkmQRDecomp_m_64f, omkmQRBackSubst_mv_64f); the right-hand side is read
 *    straight out of the array of samples through its stride. */
#include <math.h>
#include <stdio.h>

#include "omkm.h"

typedef struct Sensor {
    int    id;
    Omk64f mix[3][3];
    Omk64f reading[3];
    Omk64f lu[3][3];
    Omk64f signal[3];
} Sensor;

typedef struct Sample { Omk64f x, y, z; } Sample;

enum { kSensors = 6, kSamples = 12 };

int main(void) {
    Sensor s[kSensors];
    int rowOrder[kSensors * 3];
    for (int k = 0; k < kSensors; ++k) {
        s[k].id = 200 + k;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) s[k].mix[i][j] = (i == j) ? 1.0 + 0.1 * k : 0.05 * (i + 2 * j + k);
        s[k].reading[0] = 1.0 + k; s[k].reading[1] = -0.5 * k; s[k].reading[2] = 2.0;
    }
    s[2].mix[0][0] = 0.0;   /* a zero leading entry: the factorisation has to pivot */

    const int rec = (int)sizeof(Sensor), row = (int)sizeof(s[0].mix[0]), el = (int)sizeof(Omk64f);
    int st = omkmLUDecomp_ma_64f(&s[0].mix[0][0], rec, row, el, rowOrder, &s[0].lu[0][0], rec, row, el, 3,
                                 kSensors);
    if (st != omkStsOk) { printf("omkmLUDecomp_ma_64f: status %d\n", st); return 1; }
    st = omkmLUBackSubst_mava_64f(&s[0].lu[0][0], rec, row, el, rowOrder, s[0].reading, rec, el,
                                  s[0].signal, rec, el, 3, kSensors);
    if (st != omkStsOk) { printf("omkmLUBackSubst_mava_64f: status %d\n", st); return 1; }
    for (int k = 0; k < kSensors; ++k)
        printf("sensor %d: signals %9.5f %9.5f %9.5f  (row order %d %d %d)\n", s[k].id, s[k].signal[0],
               s[k].signal[1], s[k].signal[2], rowOrder[3 * k], rowOrder[3 * k + 1], rowOrder[3 * k + 2]);

    /* A sensor whose matrix has two equal rows cannot be unmixed. */
    const Omk64f flat[3][3] = {{1, 2, 3}, {1, 2, 3}, {0, 1, 4}};
    Omk64f flatLu[3][3];
    int flatOrder[3];
    const int singular = omkmLUDecomp_m_64f(&flat[0][0], row, el, flatOrder, &flatLu[0][0], row, el, 3);
    printf("matrix with two equal rows: status %d (omkStsSingular = %d)\n", singular, omkStsSingular);

    /* Survey points near z = 0.3*x - 0.8*y + 5, with a small deterministic error. */
    Sample pts[kSamples];
    Omk64f design[kSamples][3], qr[kSamples][3], scratch[kSamples], plane[3];
    for (int i = 0; i < kSamples; ++i) {
        pts[i].x = (i % 4) * 2.5;
        pts[i].y = (i / 4) * 3.0 - 1.0;
        pts[i].z = 0.3 * pts[i].x - 0.8 * pts[i].y + 5.0 + 0.02 * sin(1.7 * i);
        design[i][0] = pts[i].x; design[i][1] = pts[i].y; design[i][2] = 1.0;
    }
    const int drow = (int)sizeof(design[0]);
    st = omkmQRDecomp_m_64f(&design[0][0], drow, el, scratch, &qr[0][0], drow, el, 3, kSamples);
    if (st != omkStsOk) { printf("omkmQRDecomp_m_64f: status %d\n", st); return 1; }
    st = omkmQRBackSubst_mv_64f(&qr[0][0], drow, el, scratch, &pts[0].z, (int)sizeof(Sample), plane, el, 3,
                                kSamples);
    if (st != omkStsOk) { printf("omkmQRBackSubst_mv_64f: status %d\n", st); return 1; }
    printf("plane fit to %d points: z = %.4f*x %+.4f*y %+.4f\n", kSamples, plane[0], plane[1], plane[2]);

    /* Self-check in plain C. */
    for (int k = 0; k < kSensors; ++k)
        for (int i = 0; i < 3; ++i) {
            double r = -s[k].reading[i], size = fabs(s[k].reading[i]);
            for (int j = 0; j < 3; ++j) {
                r += s[k].mix[i][j] * s[k].signal[j];
                size += fabs(s[k].mix[i][j] * s[k].signal[j]);
            }
            if (!(fabs(r) <= 1e-14 * size)) {
                printf("FAIL: sensor %d, equation %d has residual %g\n", s[k].id, i, r);
                return 1;
            }
        }
    if (singular != omkStsSingular) { printf("FAIL: singular matrix gave status %d\n", singular); return 1; }
    /* Least squares: the residual is orthogonal to every column of the design matrix. */
    for (int j = 0; j < 3; ++j) {
        double g = 0.0, scale = 0.0;
        for (int i = 0; i < kSamples; ++i) {
            const double r = pts[i].z - (plane[0] * pts[i].x + plane[1] * pts[i].y + plane[2]);
            g += design[i][j] * r;
            scale += fabs(design[i][j] * pts[i].z);
        }
        if (!(fabs(g) <= 1e-12 * scale)) { printf("FAIL: column %d: A^T r = %g\n", j, g); return 1; }
    }
    const double truth[3] = {0.3, -0.8, 5.0};
    for (int j = 0; j < 3; ++j)
        if (!(fabs(plane[j] - truth[j]) < 0.05)) {
            printf("FAIL: coefficient %d = %.5f, the points were made with %.2f\n", j, plane[j], truth[j]);
            return 1;
        }
    printf("check passed: every A*x = b holds, singular case reported, fit satisfies A^T r = 0\n");
    return 0;
}
