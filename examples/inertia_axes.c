/* Principal axes of rigid pieces, and the modes of a feedback loop.
 * 1. Each piece record holds the inertia tensor of a box turned by some rotation. One call of
 *    omkmEigenValuesVectorsSym_ma_64f gives every piece's principal moments (descending, n values
 *    per piece in one contiguous array) and its principal axes (the columns of a 3x3 field of the
 *    record).
 * 2. The state matrix of a third-order loop, in companion form of s^3 + c2*s^2 + c1*s + c0, has
 *    one real mode and an oscillating pair; omkmEigenValuesVectorsRight_m_64f finds them, with
 *    scratch sized by omkmEigenValuesVectorsGetBufSize_64f. */
#include <complex.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "omkm.h"

typedef struct Piece {
    const char* name;
    Omk64f      mass, size[3], turn;   /* box sides, and a rotation angle about the axis (1, 2, 2)/3 */
    Omk64f      inertia[3][3];
    Omk64f      axes[3][3];            /* column j: axis of moment j */
} Piece;

enum { kPieces = 4 };

int main(void) {
    Piece pieces[kPieces] = {{"bracket", 2.0, {0.4, 0.1, 0.05}, 0.3, {{0}}, {{0}}},
                            {"plate", 5.0, {0.6, 0.5, 0.02}, 1.1, {{0}}, {{0}}},
                            {"shaft", 1.5, {0.04, 0.04, 0.9}, -0.7, {{0}}, {{0}}},
                            {"block", 8.0, {0.3, 0.2, 0.25}, 2.0, {{0}}, {{0}}}};
    Omk64f moments[kPieces][3], want[kPieces][3], scratch[3 * 3];
    const double u[3] = {1.0 / 3, 2.0 / 3, 2.0 / 3};   /* axis of the turns; its cross matrix */
    const double w[3][3] = {{0, -u[2], u[1]}, {u[2], 0, -u[0]}, {-u[1], u[0], 0}};
    for (int k = 0; k < kPieces; ++k) {
        Piece* p = &pieces[k];
        const double c = cos(p->turn), s = sin(p->turn), *d = p->size;
        const double q[3] = {d[0] * d[0], d[1] * d[1], d[2] * d[2]};
        double* body = want[k], r[3][3];   /* moments about the box's own axes; rotation about u */
        for (int i = 0; i < 3; ++i) body[i] = p->mass * (q[(i + 1) % 3] + q[(i + 2) % 3]) / 12;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) r[i][j] = (i == j ? c : 0.0) + (1 - c) * u[i] * u[j] + s * w[i][j];
        for (int i = 0; i < 3; ++i)   /* I = R * diag(body) * R^T */
            for (int j = 0; j < 3; ++j) {
                p->inertia[i][j] = 0.0;
                for (int a = 0; a < 3; ++a) p->inertia[i][j] += r[i][a] * body[a] * r[j][a];
            }
        for (int a = 0; a < 2; ++a)   /* descending, to compare with the library's order */
            for (int b = a + 1; b < 3; ++b)
                if (body[b] > body[a]) { const double t = body[a]; body[a] = body[b]; body[b] = t; }
    }

    /* omkStsSingular comes back when the product of the moments is at most 2^-52 in magnitude, so
     * tensors of very small pieces (or with a zero moment) need scaling before the call. */
    const int rec = (int)sizeof(Piece), row = (int)sizeof(pieces[0].inertia[0]), el = (int)sizeof(Omk64f);
    int st = omkmEigenValuesVectorsSym_ma_64f(&pieces[0].inertia[0][0], rec, row, el, scratch,
                                              &pieces[0].axes[0][0], rec, row, el, &moments[0][0], 3, kPieces);
    if (st != omkStsOk) { printf("omkmEigenValuesVectorsSym_ma_64f: status %d\n", st); return 1; }
    for (int k = 0; k < kPieces; ++k) {
        const Piece* p = &pieces[k];
        printf("%-8s moments %.5f %.5f %.5f kg m^2, major axis (%6.3f %6.3f %6.3f)\n", p->name, moments[k][0],
               moments[k][1], moments[k][2], p->axes[0][0], p->axes[1][0], p->axes[2][0]);
    }

    /* s^3 + 0*s^2 + 1*s - 10: the loop matrix in companion form. */
    const double c0 = -10.0, c1 = 1.0, c2 = 0.0;
    const Omk64f loop[3][3] = {{0, 1, 0}, {0, 0, 1}, {-c0, -c1, -c2}};
    Omk64f vec[3][3], re[3], im[3];
    int bytes = 0;
    st = omkmEigenValuesVectorsGetBufSize_64f(3, &bytes);
    Omk64f* buffer = malloc((size_t)(bytes > 0 ? bytes : 1));
    if (st != omkStsOk || buffer == NULL) { printf("buffer query: status %d\n", st); return 1; }
    st = omkmEigenValuesVectorsRight_m_64f(&loop[0][0], row, el, &vec[0][0], row, el, re, im, 3, buffer);
    free(buffer);
    if (st != omkStsOk) { printf("omkmEigenValuesVectorsRight_m_64f: status %d\n", st); return 1; }
    printf("loop modes (scratch %d bytes): %.6f%+.6fi  %.6f%+.6fi  %.6f%+.6fi\n", bytes, re[0], im[0], re[1],
           im[1], re[2], im[2]);

    /* Self-check in plain C. */
    for (int k = 0; k < kPieces; ++k) {
        const Piece* p = &pieces[k];
        const double* m = moments[k];
        for (int j = 0; j < 3; ++j)
            if (!(fabs(m[j] - want[k][j]) <= 1e-12 * want[k][0])) {
                printf("FAIL: %s moment %d = %.15g, the box has %.15g\n", p->name, j, m[j], want[k][j]);
                return 1;
            }
        for (int j = 0; j < 3; ++j)
            for (int i = 0; i < 3; ++i) {
                double iv = -m[j] * p->axes[i][j], vv = 0.0;
                for (int q = 0; q < 3; ++q) {
                    iv += p->inertia[i][q] * p->axes[q][j];
                    vv += p->axes[q][i] * p->axes[q][j];
                }
                if (!(fabs(iv) <= 1e-12 * m[0]) || !(fabs(vv - (i == j)) <= 1e-12)) {
                    printf("FAIL: %s axis %d: (I*v - l*v)[%d] = %g, v%d.v%d = %g\n", p->name, j, i, iv, i, j,
                           vv);
                    return 1;
                }
            }
    }
    int pairs = 0;
    for (int j = 0; j < 3; ++j) {
        if (im[j] > 0 && (j == 2 || re[j + 1] != re[j] || im[j + 1] != -im[j])) {
            printf("FAIL: value %d has no conjugate after it\n", j);
            return 1;
        }
        const double complex l = re[j] + im[j] * I;
        double complex v[3];   /* a pair's vector: column j + i * column j + 1 */
        for (int i = 0; i < 3; ++i) v[i] = vec[i][j] + (im[j] > 0 ? vec[i][j + 1] : 0.0) * I;
        const double poly = cabs(((l + c2) * l + c1) * l + c0);
        double res = 0.0, norm = 0.0;
        for (int i = 0; i < 3; ++i) {
            res += cabs(loop[i][0] * v[0] + loop[i][1] * v[1] + loop[i][2] * v[2] - l * v[i]);
            norm += creal(v[i] * conj(v[i]));
        }
        if (!(poly <= 1e-11) || !(res <= 1e-11) || !(fabs(norm - 1.0) <= 1e-12)) {   /* entries up to 10 */
            printf("FAIL: mode %d: |p(l)| = %g, |A v - l v| = %g, |v|^2 = %.15f\n", j, poly, res, norm);
            return 1;
        }
        if (im[j] > 0) { ++pairs; ++j; }   /* the conjugate's vector is the conjugate of this one */
    }
    if (pairs != 1) { printf("FAIL: expected one oscillating pair, found %d\n", pairs); return 1; }
    printf("check passed: box moments found, I*v = l*v, axes orthonormal; modes are roots with A*v = l*v\n");
    return 0;
}
