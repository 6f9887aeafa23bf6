/* The public headers as users compile them: this file is built as C99, as C11 and as C++17 with
 * every warning an error, and calls one function of each family (and of the core library) with
 * the argument types a caller naturally has: arrays of `const Omk32f*` for source pointer tables,
 * `Omk32f*` for destination tables, `sizeof` for strides. Every call must succeed. */
#include <stdio.h>

#include "omkcore.h"
#include "omkm.h"

static int failures = 0;

static void expectOk(OmkStatus st, const char* what) {
    if (st != omkStsOk) {
        printf("%s: status %d\n", what, st);
        ++failures;
    }
}

#define CALL(call) expectOk(call, #call)

int main(void) {
    const int f = (int)sizeof(Omk32f), d = (int)sizeof(Omk64f);
    Omk32f a[2][2] = {{4, 1}, {1, 3}}, b[2][2] = {{1, 0}, {0, 1}}, c[2][2];
    Omk64f a64[2][2] = {{4, 1}, {1, 3}}, b64[2][2], c64[2][2], v64[2] = {1, 2}, w64[2], s64;
    Omk32f v[3] = {1, 2, 3}, w[3] = {3, 2, 1}, u[3], s;
    Omk32f buf32[64];
    Omk64f buf64[64];
    int index[2];

    /* Pointer tables: sources as const pointers, destinations as plain ones. */
    const Omk32f* src[4] = {&a[0][0], &a[0][1], &a[1][0], &a[1][1]};
    Omk32f* dst[4] = {&c[0][0], &c[0][1], &c[1][0], &c[1][1]};

    CALL(omkmAdd_mm_32f(&a[0][0], 2 * f, f, &b[0][0], 2 * f, f, &c[0][0], 2 * f, f, 2, 2));
    CALL(omkmSub_vc_32f(v, f, 1.0f, u, f, 3));
    CALL(omkmSaxpy_vv_32f(v, f, 2.0f, w, f, u, f, 3));
    CALL(omkmLComb_vv_32f(v, f, 2.0f, w, f, 0.5f, u, f, 3));
    CALL(omkmCopy_ma_32f_PS(src, 0, 0, &c[0][0], 4 * f, 2 * f, f, 2, 2, 1));
    CALL(omkmExtract_m_32f(&a[0][0], 2 * f, f, &c[0][0], 2, 2));
    CALL(omkmLoadIdentity_ma_32f(&c[0][0], 4 * f, 2 * f, f, 2, 2, 1));
    CALL(omkmTranspose_m_32f_P(src, 0, 2, 2, dst, 0));
    CALL(omkmMul_mm_64f(&a64[0][0], 2 * d, d, 2, 2, &a64[0][0], 2 * d, d, 2, 2, &c64[0][0], 2 * d, d));
    CALL(omkmMul_mc_64f(&a64[0][0], 2 * d, d, 0.5, &c64[0][0], 2 * d, d, 2, 2));
    CALL(omkmDotProduct_vv_64f(v64, d, v64, d, &s64, 2));
    CALL(omkmCrossProduct_vv_32f(v, f, w, f, u, f));
    CALL(omkmL2Norm_v_32f(v, f, &s, 3));
    CALL(omkmFrobNorm_m_64f(&a64[0][0], 2 * d, d, 2, 2, &s64));
    CALL(omkmTrace_m_32f(&a[0][0], 2 * f, f, 2, &s));
    CALL(omkmGaxpy_mv_64f(&a64[0][0], 2 * d, d, 2, 2, v64, d, 2, v64, d, 2, w64, d));
    CALL(omkmLUDecomp_m_64f(&a64[0][0], 2 * d, d, index, &b64[0][0], 2 * d, d, 2));
    CALL(omkmLUBackSubst_mv_64f(&b64[0][0], 2 * d, d, index, v64, d, w64, d, 2));
    CALL(omkmCholeskyDecomp_m_64f(&a64[0][0], 2 * d, d, &b64[0][0], 2 * d, d, 2));
    CALL(omkmQRDecomp_m_64f(&a64[0][0], 2 * d, d, buf64, &b64[0][0], 2 * d, d, 2, 2));
    CALL(omkmDet_m_64f(&a64[0][0], 2 * d, d, 2, buf64, &s64));
    CALL(omkmInvert_m_32f(&a[0][0], 2 * f, f, buf32, &c[0][0], 2 * f, f, 2));
    CALL(omkmEigenValuesSym_m_64f(&a64[0][0], 2 * d, d, buf64, w64, 2));
    CALL(omkmEigenValues_m_32f_P(src, 0, u, w, 2, buf32));
    CALL(omkmLen_v3_32f(v, &s));
    {
        const Omk32f eye[3] = {0, 0, -5}, at[3] = {0, 0, 0}, up[3] = {0, 1, 0};
        Omk32f view[16], points[2][3] = {{1, 2, 3}, {4, 5, 6}}, moved[2][4]; /* x, y, z, w out */
        CALL(omkmLookAtRH_m4_32f(eye, at, up, view));
        CALL(omkmAffineTransform_m4v3a_32f(view, &points[0][0], 3 * f, &moved[0][0], 4 * f, 2));
    }
    {
        int threads = 0, cache = 0;
        CALL(omkSetNumThreads(1));
        CALL(omkGetNumThreads(&threads));
        CALL(omkGetMaxCacheSizeB(&cache));
        if (threads != 1) {
            printf("thread budget %d after setting 1\n", threads);
            ++failures;
        }
        (void)omkGetEnabledCpuFeatures();
    }
    printf("%d failures\n", failures);
    return failures != 0;
}
