/*
 * omkm._ufuncs: numpy generalized ufuncs over libomkm, float32 ('f') and float64 ('d') loops.
 *
 * Every gufunc comes from one row of OPS (name, core signature, operand roles, one run function
 * per element type, docstring). One inner loop, `loop`, serves them all:
 *
 *   - numpy hands it the number of objects (dimensions[0]), the core sizes, and per operand its
 *     outer step and core-axis steps in bytes. Steps that are positive multiples of the element
 *     size and fit an int, on an aligned pointer, are the library's standard description as they
 *     are (stride0, stride1, stride2): the whole outer loop is one array call (split only where
 *     k*stride0 would pass 2^31-1, which the library forms in 32 bits).
 *   - An input whose outer step is 0 (one object broadcast against a stack) goes to the
 *     single-operand member of the family where it has one (Mul_mma, Mul_mva, CrossProduct_vva,
 *     LUBackSubst_mva, ...); when every input is such a single object, one object is computed and
 *     copied to every output object.
 *   - Any other operand (negative, zero or unaligned steps, too large, or a packed result the
 *     library writes as consecutive values) goes through a contiguous copy per block of objects,
 *     the results copied back.
 *
 * Operands are of the loop's float type, except those flagged INT32 (lu_factor's interchanges,
 * lu_solve's piv: the loop checks every row number of the call before anything runs) or CPLX
 * (eig's values and vectors, complex of the loop's precision), which the run functions read or
 * write themselves; the copies above go by each operand's own element size. A zero core size calls no library function: the outputs get numpy's results
 * (fill_empty). numpy passes a missing flexible dimension (matmul's m? and p?, a 1-D operand) as
 * size 1 with step 0, which is an ordinary matrix of one row or column here.
 *
 * The library's status ends the loop: the package's LinAlgError subclasses (omkm._errors) are
 * raised with the status, the export that returned it and, for families whose test is an absolute
 * threshold, the threshold. A block whose call failed is not copied back and not post-processed
 * (eigenvalue order, Cholesky diagonal), so an output holds at most what the library wrote.
 */
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#define NPY_NO_DEPRECATED_API NPY_1_7_API_VERSION
#include <numpy/arrayobject.h>
#include <numpy/ufuncobject.h>

#include <limits.h>
#include <stddef.h>
#include <fenv.h>
#include <float.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "omkm.h"

#define MAXOPS 4       /* operands of a gufunc (inputs and outputs) */
#define MAXDIMS 3      /* distinct core dimensions of a signature */
#define NO_MEMORY 1    /* a run function's status when its scratch could not be allocated */
#define BLOCK_BYTES (256 * 1024)   /* copies of the copy path, per block of objects */

/* An operand as the library takes it: pointer and byte strides. s0 == 0 marks one object read for
 * every object of the call (the single-operand members); s1 is the row stride of a matrix, s2 the
 * element stride of a matrix row or a vector. */
typedef struct {
    char* p;
    int s0, s1, s2;
} Desc;

/* sz: the core sizes in signature order. On failure *fname is the export that returned it. */
typedef int (*RunFn)(Desc* d, const int* sz, int count, const char** fname);

/* Operand flags. */
enum {
    SINGLE = 1,     /* an input the family has a single-operand member for */
    PACKED_CORE = 2,/* the library reads or writes the object as contiguous elements */
    PACKED = 6,     /* ... and consecutive objects (count values one after another) */
    INT32 = 8,      /* int32 row interchanges (lu_factor's output, lu_solve's input), whatever the
                       loop's float type */
    CPLX = 16,      /* a complex output: complex64 in the float32 loop, complex128 in float64 */
    EMPTY_ONE = 32, /* for a zero core size, 1 (the empty product) rather than 0 */
    EMPTY_EYE = 64  /* for a zero core size, the identity rather than zeros */
};

/* Operation flags. */
enum {
    TALL = 1,       /* the first core dimension (rows) must be at least the second (columns) */
    BLOCKED = 2,    /* the run function allocates scratch per object: calls take at most
                       BLOCK_BYTES of operands, so that scratch stays of that order */
    ROWS = 4        /* the second input holds row numbers 0 ... m-1 (int32 interchanges), all of
                       the call's checked before anything is computed or written */
};

typedef struct {
    const char* name;
    const char* signature;
    int nin, nout;
    int ndim[MAXOPS];          /* core axes per operand (0, 1 or 2) */
    int dim[MAXOPS][2];        /* which core dimension each core axis is */
    int flags[MAXOPS];
    RunFn run32, run64;        /* run64 NULL: a float32 loop only */
    const char* family;        /* for the error message: which thresholds apply */
    int own_flags;             /* 1: the family raises floating-point flags of its own on correct
                                  results, which the loop puts back; 0: a flag means the caller's
                                  values overflowed or were invalid, and numpy reports it */
    int opflags;               /* TALL, BLOCKED, ROWS */
    const char* doc;
} OpDef;

typedef struct {
    const OpDef* op;
    RunFn run;
    int esize;
    int ndims;                 /* distinct core dimensions of the signature */
    int esz[MAXOPS];           /* per operand: bytes of one element (float, complex or int32) */
    int al[MAXOPS];            /* ... and the unit it is read in (alignment and strides) */
} LoopData;

static PyObject* status_error; /* omkm._errors.status_error: the exception for a status */
static int last_loop_held_gil = -1;

/* ---- run functions: one per operation and element type ---- */

/* E(Mul_mm) is omkmMul_mm_32f while SFX is 32f. */
#define E3(name, s) omkm##name##_##s
#define E2(name, s) E3(name, s)
#define E(name) E2(name, SFX)

/* A transposed view as the t members read it: the stored matrix under it, whose rows are the
 * view's columns (strides exchanged, width and height exchanged). 1 when x is such a view. */
static int stored(Desc* x, int* w, int* h, int esize)
{
    if (x->s1 != esize || x->s2 == esize) return 0;
    int t = x->s1; x->s1 = x->s2; x->s2 = t;
    t = *w; *w = *h; *h = t;
    return 1;
}

/* The vector forms of the solvers (solve1, lu_solve1, cho_solve1): a vector right-hand side and
 * solution are the matrix form's one column, the element stride standing as the row stride. e gets
 * the nargs operands with those two (the last two) so described, s the sizes (m, 1). */
static void one_column(const Desc* d, int nargs, const int* sz, Desc* e, int* s)
{
    for (int i = 0; i < nargs; i++) e[i] = d[i];
    e[nargs - 2].s1 = d[nargs - 2].s2;
    e[nargs - 1].s1 = d[nargs - 1].s2;
    s[0] = sz[0];
    s[1] = 1;
}

/* Cholesky: the library's factor holds 1/L(i,i) on its diagonal and leaves the strict upper
 * triangle unwritten; numpy's factor is L with zeros above the diagonal. */
#define DEFINE_RUNS(T, SFX)                                                                          \
/* A transposed view (a column's elements consecutive, rows apart) is read through the matrix        \
 * stored under it by the t members: the same packed-row kernels as a C-contiguous matrix, hence     \
 * the same bits and speed. stored() turns the operand into that stored matrix (strides exchanged,   \
 * width and height the view's height and width) and says whether it did. Members are indexed by     \
 * the form (0: two single objects; 1: the first single; 2: the second single; 3: two arrays) and    \
 * by t-or-m of each matrix (2 * first + second). */                                                 \
typedef OmkStatus (*MulMM0_##SFX)(const T*, int, int, int, int, const T*, int, int, int, int, T*, int, int); \
typedef OmkStatus (*MulMM1_##SFX)(const T*, int, int, int, int, const T*, int, int, int, int, int, T*, int, \
                                  int, int, int);                                                    \
typedef OmkStatus (*MulMM2_##SFX)(const T*, int, int, int, int, int, const T*, int, int, int, int, T*, int, \
                                  int, int, int);                                                    \
typedef OmkStatus (*MulMM3_##SFX)(const T*, int, int, int, int, int, const T*, int, int, int, int, int, T*, \
                                  int, int, int, int);                                               \
static int matmul_##SFX(Desc* d, const int* sz, int count, const char** fname)                       \
{                                                                                                    \
    static const MulMM0_##SFX f0[4] = {E(Mul_mm), E(Mul_mt), E(Mul_tm), E(Mul_tt)};                  \
    static const MulMM1_##SFX f1[4] = {E(Mul_mma), E(Mul_mta), E(Mul_tma), E(Mul_tta)};              \
    static const MulMM2_##SFX f2[4] = {E(Mul_mam), E(Mul_mat), E(Mul_tam), E(Mul_tat)};              \
    static const MulMM3_##SFX f3[4] = {E(Mul_mama), E(Mul_mata), E(Mul_tama), E(Mul_tata)};          \
    static const char* names[4][4] = {                                                               \
        {#SFX "Mul_mm", #SFX "Mul_mt", #SFX "Mul_tm", #SFX "Mul_tt"},                                \
        {#SFX "Mul_mma", #SFX "Mul_mta", #SFX "Mul_tma", #SFX "Mul_tta"},                            \
        {#SFX "Mul_mam", #SFX "Mul_mat", #SFX "Mul_tam", #SFX "Mul_tat"},                            \
        {#SFX "Mul_mama", #SFX "Mul_mata", #SFX "Mul_tama", #SFX "Mul_tata"}};                       \
    int m = sz[0], n = sz[1], p = sz[2];                                                             \
    Desc a = d[0], b = d[1], c = d[2];                                                               \
    int aw = n, ah = m, bw = p, bh = n;                                                              \
    int k = 2 * stored(&a, &aw, &ah, sizeof(T)) + stored(&b, &bw, &bh, sizeof(T));                   \
    int form = count == 1 ? 0 : a.s0 == 0 ? 1 : b.s0 == 0 ? 2 : 3;                                   \
    *fname = names[form][k];                                                                         \
    switch (form) {                                                                                  \
    case 0:                                                                                          \
        return f0[k]((T*)a.p, a.s1, a.s2, aw, ah, (T*)b.p, b.s1, b.s2, bw, bh, (T*)c.p, c.s1, c.s2); \
    case 1:                                                                                          \
        return f1[k]((T*)a.p, a.s1, a.s2, aw, ah, (T*)b.p, b.s0, b.s1, b.s2, bw, bh,                 \
                     (T*)c.p, c.s0, c.s1, c.s2, count);                                              \
    case 2:                                                                                          \
        return f2[k]((T*)a.p, a.s0, a.s1, a.s2, aw, ah, (T*)b.p, b.s1, b.s2, bw, bh,                 \
                     (T*)c.p, c.s0, c.s1, c.s2, count);                                              \
    default:                                                                                         \
        return f3[k]((T*)a.p, a.s0, a.s1, a.s2, aw, ah, (T*)b.p, b.s0, b.s1, b.s2, bw, bh,           \
                     (T*)c.p, c.s0, c.s1, c.s2, count);                                              \
    }                                                                                                \
}                                                                                                    \
typedef OmkStatus (*MulMV0_##SFX)(const T*, int, int, int, int, const T*, int, int, T*, int);        \
typedef OmkStatus (*MulMV1_##SFX)(const T*, int, int, int, int, const T*, int, int, int, T*, int, int, int); \
typedef OmkStatus (*MulMV2_##SFX)(const T*, int, int, int, int, int, const T*, int, int, T*, int, int, int); \
typedef OmkStatus (*MulMV3_##SFX)(const T*, int, int, int, int, int, const T*, int, int, int, T*, int, int, \
                                  int);                                                              \
static int matvec_##SFX(Desc* d, const int* sz, int count, const char** fname)                       \
{                                                                                                    \
    static const MulMV0_##SFX f0[2] = {E(Mul_mv), E(Mul_tv)};                                        \
    static const MulMV1_##SFX f1[2] = {E(Mul_mva), E(Mul_tva)};                                      \
    static const MulMV2_##SFX f2[2] = {E(Mul_mav), E(Mul_tav)};                                      \
    static const MulMV3_##SFX f3[2] = {E(Mul_mava), E(Mul_tava)};                                    \
    static const char* names[4][2] = {{#SFX "Mul_mv", #SFX "Mul_tv"}, {#SFX "Mul_mva", #SFX "Mul_tva"}, \
                                      {#SFX "Mul_mav", #SFX "Mul_tav"}, {#SFX "Mul_mava", #SFX "Mul_tava"}}; \
    int m = sz[0], n = sz[1];                                                                        \
    Desc a = d[0], x = d[1], y = d[2];                                                               \
    int aw = n, ah = m;                                                                              \
    int k = stored(&a, &aw, &ah, sizeof(T));                                                         \
    int form = count == 1 ? 0 : a.s0 == 0 ? 1 : x.s0 == 0 ? 2 : 3;                                   \
    *fname = names[form][k];                                                                         \
    switch (form) {                                                                                  \
    case 0:                                                                                          \
        return f0[k]((T*)a.p, a.s1, a.s2, aw, ah, (T*)x.p, x.s2, n, (T*)y.p, y.s2);                  \
    case 1:                                                                                          \
        return f1[k]((T*)a.p, a.s1, a.s2, aw, ah, (T*)x.p, x.s0, x.s2, n, (T*)y.p, y.s0, y.s2, count); \
    case 2:                                                                                          \
        return f2[k]((T*)a.p, a.s0, a.s1, a.s2, aw, ah, (T*)x.p, x.s2, n, (T*)y.p, y.s0, y.s2, count); \
    default:                                                                                         \
        return f3[k]((T*)a.p, a.s0, a.s1, a.s2, aw, ah, (T*)x.p, x.s0, x.s2, n, (T*)y.p, y.s0, y.s2, \
                     count);                                                                         \
    }                                                                                                \
}                                                                                                    \
/* The family has no member with a single first vector: it takes the vav member with the         \
 * operands exchanged. Each product a_k*b_k is the same rounding either way; for lengths above 6  \
 * the contiguous kernel's summation blocks follow the second vector's alignment, so the last bit \
 * can differ from a pairwise call on the same values. */                                        \
static int vecdot_##SFX(Desc* d, const int* sz, int count, const char** fname)                       \
{                                                                                                    \
    int n = sz[0];                                                                                   \
    Desc a = d[0], b = d[1];                                                                         \
    if (count == 1) {                                                                                \
        *fname = #SFX "DotProduct_vv";                                                               \
        return E(DotProduct_vv)((T*)a.p, a.s2, (T*)b.p, b.s2, (T*)d[2].p, n);                        \
    }                                                                                                \
    if (a.s0 == 0) { Desc t = a; a = b; b = t; }                                                     \
    if (b.s0 == 0) {                                                                                 \
        *fname = #SFX "DotProduct_vav";                                                              \
        return E(DotProduct_vav)((T*)a.p, a.s0, a.s2, (T*)b.p, b.s2, (T*)d[2].p, n, count);          \
    }                                                                                                \
    *fname = #SFX "DotProduct_vava";                                                                 \
    return E(DotProduct_vava)((T*)a.p, a.s0, a.s2, (T*)b.p, b.s0, b.s2, (T*)d[2].p, n, count);       \
}                                                                                                    \
static int cross_##SFX(Desc* d, const int* sz, int count, const char** fname)                        \
{                                                                                                    \
    (void)sz;                                                                                        \
    Desc a = d[0], b = d[1], c = d[2];                                                               \
    if (count == 1) {                                                                                \
        *fname = #SFX "CrossProduct_vv";                                                             \
        return E(CrossProduct_vv)((T*)a.p, a.s2, (T*)b.p, b.s2, (T*)c.p, c.s2);                      \
    }                                                                                                \
    if (a.s0 == 0) {                                                                                 \
        *fname = #SFX "CrossProduct_vva";                                                            \
        return E(CrossProduct_vva)((T*)a.p, a.s2, (T*)b.p, b.s0, b.s2, (T*)c.p, c.s0, c.s2, count);  \
    }                                                                                                \
    if (b.s0 == 0) {                                                                                 \
        *fname = #SFX "CrossProduct_vav";                                                            \
        return E(CrossProduct_vav)((T*)a.p, a.s0, a.s2, (T*)b.p, b.s2, (T*)c.p, c.s0, c.s2, count);  \
    }                                                                                                \
    *fname = #SFX "CrossProduct_vava";                                                               \
    return E(CrossProduct_vava)((T*)a.p, a.s0, a.s2, (T*)b.p, b.s0, b.s2, (T*)c.p, c.s0, c.s2,       \
                                count);                                                              \
}                                                                                                    \
static int vector_norm_##SFX(Desc* d, const int* sz, int count, const char** fname)                  \
{                                                                                                    \
    if (count == 1) {                                                                                \
        *fname = #SFX "L2Norm_v";                                                                    \
        return E(L2Norm_v)((T*)d[0].p, d[0].s2, (T*)d[1].p, sz[0]);                                  \
    }                                                                                                \
    *fname = #SFX "L2Norm_va";                                                                       \
    return E(L2Norm_va)((T*)d[0].p, d[0].s0, d[0].s2, (T*)d[1].p, sz[0], count);                     \
}                                                                                                    \
static int trace_##SFX(Desc* d, const int* sz, int count, const char** fname)                        \
{                                                                                                    \
    if (count == 1) {                                                                                \
        *fname = #SFX "Trace_m";                                                                     \
        return E(Trace_m)((T*)d[0].p, d[0].s1, d[0].s2, sz[0], (T*)d[1].p);                          \
    }                                                                                                \
    *fname = #SFX "Trace_ma";                                                                        \
    return E(Trace_ma)((T*)d[0].p, d[0].s0, d[0].s1, d[0].s2, sz[0], (T*)d[1].p, count);             \
}                                                                                                    \
/* Det and Invert: n*n elements of scratch followed by n ints (which fit in n elements). */         \
static int det_##SFX(Desc* d, const int* sz, int count, const char** fname)                          \
{                                                                                                    \
    int n = sz[0], st;                                                                               \
    T* buf = malloc(sizeof(T) * ((size_t)n * n + n));                                                \
    if (!buf) return NO_MEMORY;                                                                      \
    if (count == 1) {                                                                                \
        *fname = #SFX "Det_m";                                                                       \
        st = E(Det_m)((T*)d[0].p, d[0].s1, d[0].s2, n, buf, (T*)d[1].p);                             \
    } else {                                                                                         \
        *fname = #SFX "Det_ma";                                                                      \
        st = E(Det_ma)((T*)d[0].p, d[0].s0, d[0].s1, d[0].s2, n, buf, (T*)d[1].p, count);            \
    }                                                                                                \
    free(buf);                                                                                       \
    return st;                                                                                       \
}                                                                                                    \
static int inv_##SFX(Desc* d, const int* sz, int count, const char** fname)                          \
{                                                                                                    \
    int n = sz[0], st;                                                                               \
    Desc a = d[0], c = d[1];                                                                         \
    T* buf = malloc(sizeof(T) * ((size_t)n * n + n));                                                \
    if (!buf) return NO_MEMORY;                                                                      \
    if (count == 1) {                                                                                \
        *fname = #SFX "Invert_m";                                                                    \
        st = E(Invert_m)((T*)a.p, a.s1, a.s2, buf, (T*)c.p, c.s1, c.s2, n);                          \
    } else {                                                                                         \
        *fname = #SFX "Invert_ma";                                                                   \
        st = E(Invert_ma)((T*)a.p, a.s0, a.s1, a.s2, buf, (T*)c.p, c.s0, c.s1, c.s2, n, count);      \
    }                                                                                                \
    free(buf);                                                                                       \
    return st;                                                                                       \
}                                                                                                    \
/* Back substitutions of the k columns of b into x's against LU factors (f0 == 0: one factor for  \
 * every object) with the index array idx (m ints per factor); a column is a vector whose element  \
 * stride is the row stride. x may be b when idx is the identity (the library allows it then).     */ \
static int lu_columns_##SFX(const char* f, int f0, int f1, int f2, const int* idx, Desc b, Desc x, int m, \
                            int k, int count, const char** fname)                                    \
{                                                                                                    \
    int st = 0;                                                                                      \
    for (int j = 0; j < k && st == 0; j++) {                                                         \
        T* bj = (T*)(b.p + (ptrdiff_t)j * b.s2);                                                     \
        T* xj = (T*)(x.p + (ptrdiff_t)j * x.s2);                                                     \
        if (count == 1) {                                                                            \
            *fname = #SFX "LUBackSubst_mv";                                                          \
            st = E(LUBackSubst_mv)((const T*)f, f1, f2, idx, bj, b.s1, xj, x.s1, m);                 \
        } else if (f0 == 0) {                                                                        \
            *fname = #SFX "LUBackSubst_mva";                                                         \
            st = E(LUBackSubst_mva)((const T*)f, f1, f2, idx, bj, b.s0, b.s1, xj, x.s0, x.s1, m, count); \
        } else {                                                                                     \
            *fname = #SFX "LUBackSubst_mava";                                                        \
            st = E(LUBackSubst_mava)((const T*)f, f0, f1, f2, idx, bj, b.s0, b.s1, xj, x.s0, x.s1, m,  \
                                     count);                                                         \
        }                                                                                            \
    }                                                                                                \
    return st;                                                                                       \
}                                                                                                    \
/* solve: LU of each matrix into scratch (one factor when the matrix is single), then its          \
 * back substitutions column by column.                                                            */ \
static int solve_##SFX(Desc* d, const int* sz, int count, const char** fname)                        \
{                                                                                                    \
    int m = sz[0], k = sz[1], st;                                                                    \
    Desc a = d[0], b = d[1], x = d[2];                                                               \
    int nf = (count == 1 || a.s0 == 0) ? 1 : count;                                                  \
    int fs0 = (int)sizeof(T) * m * m, fs1 = (int)sizeof(T) * m, fs2 = (int)sizeof(T);                \
    T* lu = malloc((size_t)fs0 * nf);                                                                \
    int* piv = malloc(sizeof(int) * (size_t)m * nf);                                                 \
    if (!lu || !piv) { free(lu); free(piv); return NO_MEMORY; }                                      \
    if (nf == 1) {                                                                                   \
        *fname = #SFX "LUDecomp_m";                                                                  \
        st = E(LUDecomp_m)((T*)a.p, a.s1, a.s2, piv, lu, fs1, fs2, m);                               \
    } else {                                                                                         \
        *fname = #SFX "LUDecomp_ma";                                                                 \
        st = E(LUDecomp_ma)((T*)a.p, a.s0, a.s1, a.s2, piv, lu, fs0, fs1, fs2, m, count);            \
    }                                                                                                \
    if (st == 0)                                                                                     \
        st = lu_columns_##SFX((char*)lu, nf == 1 ? 0 : fs0, fs1, fs2, piv, b, x, m, k, count, fname); \
    free(lu);                                                                                        \
    free(piv);                                                                                       \
    return st;                                                                                       \
}                                                                                                    \
/* solve1: a vector right-hand side is solve's one column, its element stride s2. */               \
static int solve1_##SFX(Desc* d, const int* sz, int count, const char** fname)                       \
{                                                                                                    \
    Desc e[3];                                                                                       \
    int s[2];                                                                                        \
    one_column(d, 3, sz, e, s);                                                                      \
    return solve_##SFX(e, s, count, fname);                                                          \
}                                                                                                    \
/* lu_solve: scipy's lu holds its rows in pivot order, so the row order the library's solver takes  \
 * is the identity, and P^T b is formed in x: b's rows, then the interchanges in turn (row i with   \
 * row piv[i], i = 0, 1, ...), as LAPACK's getrs does. x is then solved in place, which the library \
 * allows with the identity order. The loop has checked every piv entry (ROWS).                    */ \
static int lu_solve_##SFX(Desc* d, const int* sz, int count, const char** fname)                     \
{                                                                                                    \
    int m = sz[0], k = sz[1], st;                                                                    \
    Desc lu = d[0], pv = d[1], b = d[2], x = d[3];                                                   \
    int nf = (count == 1 || lu.s0 == 0) ? 1 : count, small[64] = {0};                                \
    size_t ni = (size_t)m * nf;                                                                      \
    int* idx = ni <= 64 ? small : malloc(sizeof(int) * ni);                                          \
    if (!idx) return NO_MEMORY;                                                                      \
    for (int f = 0; f < nf; f++)                                                                     \
        for (int i = 0; i < m; i++) idx[(size_t)f * m + i] = i;                                      \
    for (int c = 0; c < count; c++) {                                                                \
        char* xc = x.p + (ptrdiff_t)c * x.s0;                                                        \
        const char* bc = b.p + (ptrdiff_t)c * b.s0;                                                  \
        const char* pc = pv.p + (ptrdiff_t)c * pv.s0;                                                \
        for (int i = 0; i < m; i++)                                                                  \
            for (int j = 0; j < k; j++) AT(T, xc, x.s1, x.s2, i, j) = AT(const T, bc, b.s1, b.s2, i, j); \
        for (int i = 0; i < m; i++) {   /* the interchanges in turn */                               \
            int r = *(const int*)(pc + (ptrdiff_t)i * pv.s2);                                        \
            if (r != i) swap_rows(xc, i, r, x.s1, x.s2, k, (int)sizeof(T));                          \
        }                                                                                            \
    }                                                                                                \
    st = lu_columns_##SFX(lu.p, nf == 1 ? 0 : lu.s0, lu.s1, lu.s2, idx, x, x, m, k, count, fname);   \
    if (idx != small) free(idx);                                                                     \
    return st;                                                                                       \
}                                                                                                    \
static int lu_solve1_##SFX(Desc* d, const int* sz, int count, const char** fname)                    \
{                                                                                                    \
    Desc e[4];                                                                                       \
    int s[2];                                                                                        \
    one_column(d, 4, sz, e, s);                                                                      \
    return lu_solve_##SFX(e, s, count, fname);                                                       \
}                                                                                                    \
/* cho_solve: the library's factor (L below the diagonal, 1/L(i,i) on it) is formed per matrix     \
 * in packed scratch from c's lower triangle alone, whatever c holds above it (scipy's cho_factor   \
 * leaves a's entries there; the upper form is this on c's transposed view); the scratch's upper    \
 * triangle is zeros. One factor when c is a single matrix; the loop keeps calls to blocks          \
 * (BLOCKED). Then the back substitutions column by column, as solve's.                            */ \
static int cho_solve_##SFX(Desc* d, const int* sz, int count, const char** fname)                    \
{                                                                                                    \
    int m = sz[0], k = sz[1], st = 0;                                                                \
    Desc c = d[0], b = d[1], x = d[2];                                                               \
    int nf = (count == 1 || c.s0 == 0) ? 1 : count;                                                  \
    int f2 = (int)sizeof(T), f1 = m * f2, f0 = m * f1;                                               \
    char* f = malloc((size_t)f0 * nf);                                                               \
    if (!f) return NO_MEMORY;                                                                        \
    for (int q = 0; q < nf; q++) {                                                                   \
        const char* cq = c.p + (ptrdiff_t)q * c.s0;                                                  \
        char* fq = f + (size_t)q * f0;                                                               \
        for (int i = 0; i < m; i++) {                                                                \
            for (int j = 0; j < i; j++) AT(T, fq, f1, f2, i, j) = AT(const T, cq, c.s1, c.s2, i, j); \
            AT(T, fq, f1, f2, i, i) = (T)1 / AT(const T, cq, c.s1, c.s2, i, i);                      \
            for (int j = i + 1; j < m; j++) AT(T, fq, f1, f2, i, j) = 0;                             \
        }                                                                                            \
    }                                                                                                \
    for (int j = 0; j < k && st == 0; j++) {                                                         \
        T* bj = (T*)(b.p + (ptrdiff_t)j * b.s2);                                                     \
        T* xj = (T*)(x.p + (ptrdiff_t)j * x.s2);                                                     \
        if (count == 1) {                                                                            \
            *fname = #SFX "CholeskyBackSubst_mv";                                                    \
            st = E(CholeskyBackSubst_mv)((T*)f, f1, f2, bj, b.s1, xj, x.s1, m);                      \
        } else if (nf == 1) {                                                                        \
            *fname = #SFX "CholeskyBackSubst_mva";                                                   \
            st = E(CholeskyBackSubst_mva)((T*)f, f1, f2, bj, b.s0, b.s1, xj, x.s0, x.s1, m, count);  \
        } else {                                                                                     \
            *fname = #SFX "CholeskyBackSubst_mava";                                                  \
            st = E(CholeskyBackSubst_mava)((T*)f, f0, f1, f2, bj, b.s0, b.s1, xj, x.s0, x.s1, m, count); \
        }                                                                                            \
    }                                                                                                \
    free(f);                                                                                         \
    return st;                                                                                       \
}                                                                                                    \
static int cho_solve1_##SFX(Desc* d, const int* sz, int count, const char** fname)                   \
{                                                                                                    \
    Desc e[3];                                                                                       \
    int s[2];                                                                                        \
    one_column(d, 3, sz, e, s);                                                                      \
    return cho_solve_##SFX(e, s, count, fname);                                                      \
}                                                                                                    \
/* Values ascending with the vector columns to match: the library sorts them descending (for      \
 * n >= 3; n = 2 in the order of its formula), so an insertion sort of the reversed values is one  \
 * pass over a sorted list. */                                                                     \
static void ascending_##SFX(T* w, Desc* v, int n, int count, int ws0)                                \
{                                                                                                    \
    for (int k = 0; k < count; k++) {                                                                \
        T* x = (T*)((char*)w + (ptrdiff_t)k * ws0);                                                  \
        char* vk = v ? v->p + (ptrdiff_t)k * v->s0 : NULL;                                           \
        for (int i = 0, j = n - 1; i < j; i++, j--) {                                                \
            T t = x[i]; x[i] = x[j]; x[j] = t;                                                       \
            for (int r = 0; vk && r < n; r++) {                                                      \
                T* row = (T*)(vk + (ptrdiff_t)r * v->s1);                                            \
                T* pi = (T*)((char*)row + (ptrdiff_t)i * v->s2);                                     \
                T* pj = (T*)((char*)row + (ptrdiff_t)j * v->s2);                                     \
                T u = *pi; *pi = *pj; *pj = u;                                                       \
            }                                                                                        \
        }                                                                                            \
        for (int i = 1; i < n; i++) {                                                                \
            for (int j = i; j > 0 && x[j - 1] > x[j]; j--) {                                         \
                T t = x[j]; x[j] = x[j - 1]; x[j - 1] = t;                                           \
                for (int r = 0; vk && r < n; r++) {                                                  \
                    T* row = (T*)(vk + (ptrdiff_t)r * v->s1);                                        \
                    T* pa = (T*)((char*)row + (ptrdiff_t)j * v->s2);                                 \
                    T* pb = (T*)((char*)row + (ptrdiff_t)(j - 1) * v->s2);                           \
                    T u = *pa; *pa = *pb; *pb = u;                                                   \
                }                                                                                    \
            }                                                                                        \
        }                                                                                            \
    }                                                                                                \
}                                                                                                    \
/* numpy.linalg's eigvalsh and eigh read the lower triangle alone (UPLO 'L'; the package passes the  \
 * transposed view for 'U'). The symmetric matrices are formed from it in scratch, packed, with      \
 * n*n elements of the library's own scratch after them; the loop keeps calls to blocks (BLOCKED).  */ \
static T* lower_##SFX(const Desc* a, int n, int count)                                               \
{                                                                                                    \
    T* sym = malloc(sizeof(T) * ((size_t)n * n * count + (size_t)n * n));                            \
    if (!sym) return NULL;                                                                           \
    for (int k = 0; k < count; k++) {                                                                \
        const char* ak = a->p + (ptrdiff_t)k * a->s0;                                                \
        T* sk = sym + (size_t)k * n * n;                                                             \
        for (int r = 0; r < n; r++)                                                                  \
            for (int c = 0; c <= r; c++)                                                             \
                sk[r * n + c] = sk[c * n + r] = *(const T*)(ak + (ptrdiff_t)r * a->s1 + (ptrdiff_t)c * a->s2); \
    }                                                                                                \
    return sym;                                                                                      \
}                                                                                                    \
static int eigvalsh_##SFX(Desc* d, const int* sz, int count, const char** fname)                     \
{                                                                                                    \
    int n = sz[0], st, s1 = n * (int)sizeof(T);                                                      \
    T* sym = lower_##SFX(&d[0], n, count);                                                           \
    if (!sym) return NO_MEMORY;                                                                      \
    T* buf = sym + (size_t)n * n * count;                                                            \
    if (count == 1) {                                                                                \
        *fname = #SFX "EigenValuesSym_m";                                                            \
        st = E(EigenValuesSym_m)(sym, s1, (int)sizeof(T), buf, (T*)d[1].p, n);                       \
    } else {                                                                                         \
        *fname = #SFX "EigenValuesSym_ma";                                                           \
        st = E(EigenValuesSym_ma)(sym, n * s1, s1, (int)sizeof(T), buf, (T*)d[1].p, n, count);       \
    }                                                                                                \
    free(sym);                                                                                       \
    if (st == 0) ascending_##SFX((T*)d[1].p, NULL, n, count, n * (int)sizeof(T));                    \
    return st;                                                                                       \
}                                                                                                    \
static int eigh_##SFX(Desc* d, const int* sz, int count, const char** fname)                         \
{                                                                                                    \
    int n = sz[0], st, s1 = n * (int)sizeof(T);                                                      \
    Desc v = d[2];                                                                                   \
    T* sym = lower_##SFX(&d[0], n, count);                                                           \
    if (!sym) return NO_MEMORY;                                                                      \
    T* buf = sym + (size_t)n * n * count;                                                            \
    if (count == 1) {                                                                                \
        *fname = #SFX "EigenValuesVectorsSym_m";                                                     \
        st = E(EigenValuesVectorsSym_m)(sym, s1, (int)sizeof(T), buf, (T*)v.p, v.s1, v.s2, (T*)d[1].p, n); \
    } else {                                                                                         \
        *fname = #SFX "EigenValuesVectorsSym_ma";                                                    \
        st = E(EigenValuesVectorsSym_ma)(sym, n * s1, s1, (int)sizeof(T), buf, (T*)v.p, v.s0, v.s1, v.s2, \
                                         (T*)d[1].p, n, count);                                      \
    }                                                                                                \
    free(sym);                                                                                       \
    if (st == 0) ascending_##SFX((T*)d[1].p, &v, n, count, n * (int)sizeof(T));                      \
    return st;                                                                                       \
}                                                                                                    \
/* The library's factor leaves the strict upper triangle unwritten and holds 1/L(i,i) on the         \
 * diagonal. numpy's L has zeros above the diagonal (cholesky); scipy's cho_factor leaves a's own    \
 * entries there (cho_factor; its upper form is this one on transposed views of a and c).           */ \
static int chol_##SFX(Desc* d, const int* sz, int count, const char** fname, int keep_a)             \
{                                                                                                    \
    int n = sz[0], st;                                                                               \
    Desc a = d[0], c = d[1];                                                                         \
    if (count == 1) {                                                                                \
        *fname = #SFX "CholeskyDecomp_m";                                                            \
        st = E(CholeskyDecomp_m)((T*)a.p, a.s1, a.s2, (T*)c.p, c.s1, c.s2, n);                       \
    } else {                                                                                         \
        *fname = #SFX "CholeskyDecomp_ma";                                                           \
        st = E(CholeskyDecomp_ma)((T*)a.p, a.s0, a.s1, a.s2, (T*)c.p, c.s0, c.s1, c.s2, n, count);   \
    }                                                                                                \
    if (st) return st;                                                                               \
    for (int k = 0; k < count; k++)                                                                  \
        for (int i = 0; i < n; i++) {                                                                \
            char* row = c.p + (ptrdiff_t)k * c.s0 + (ptrdiff_t)i * c.s1;                             \
            const char* arow = a.p + (ptrdiff_t)k * a.s0 + (ptrdiff_t)i * a.s1;                      \
            T* dii = (T*)(row + (ptrdiff_t)i * c.s2);                                                \
            *dii = (T)1 / *dii;                                                                      \
            for (int j = i + 1; j < n; j++)                                                          \
                *(T*)(row + (ptrdiff_t)j * c.s2) = keep_a ? *(const T*)(arow + (ptrdiff_t)j * a.s2) : 0; \
        }                                                                                            \
    return 0;                                                                                        \
}                                                                                                    \
static int cholesky_##SFX(Desc* d, const int* sz, int count, const char** fname)                     \
{                                                                                                    \
    return chol_##SFX(d, sz, count, fname, 0);                                                       \
}                                                                                                    \
static int cho_factor_##SFX(Desc* d, const int* sz, int count, const char** fname)                   \
{                                                                                                    \
    return chol_##SFX(d, sz, count, fname, 1);                                                       \
}

/* The element (i, j) of a matrix at p with byte strides s1, s2. */
#define AT(T, p, s1, s2, i, j) (*(T*)((char*)(p) + (ptrdiff_t)(i) * (s1) + (ptrdiff_t)(j) * (s2)))
/* The number of reflections of the library's QR factor of m rows and n columns. */
#define REFLECTIONS(m, n) ((n) == (m) ? (n) - 1 : (n))

static void swap_rows(char* m, int i, int j, int s1, int s2, int n, int esize)
{
    char t[8];
    for (int c = 0; c < n; c++) {
        char* x = m + (ptrdiff_t)i * s1 + (ptrdiff_t)c * s2;
        char* y = m + (ptrdiff_t)j * s1 + (ptrdiff_t)c * s2;
        memcpy(t, x, esize);
        memcpy(x, y, esize);
        memcpy(y, t, esize);
    }
}

/* The operations added to numpy.linalg's core set: Frobenius norm, vecmat, scipy's lu_factor,
 * numpy's qr modes and the general eigenproblem. */
#define DEFINE_MORE_RUNS(T, SFX)                                                                     \
static int matrix_norm_##SFX(Desc* d, const int* sz, int count, const char** fname)                  \
{                                                                                                    \
    if (count == 1) {                                                                                \
        *fname = #SFX "FrobNorm_m";                                                                  \
        return E(FrobNorm_m)((T*)d[0].p, d[0].s1, d[0].s2, sz[1], sz[0], (T*)d[1].p);                \
    }                                                                                                \
    *fname = #SFX "FrobNorm_ma";                                                                     \
    return E(FrobNorm_ma)((T*)d[0].p, d[0].s0, d[0].s1, d[0].s2, sz[1], sz[0], (T*)d[1].p, count);   \
}                                                                                                    \
/* vecmat: x @ a is a^T x, matvec's product with a read transposed (its row and element strides      \
 * exchanged) and the operands in matvec's order. */                                                 \
static int vecmat_##SFX(Desc* d, const int* sz, int count, const char** fname)                       \
{                                                                                                    \
    Desc e[3] = {d[1], d[0], d[2]};                                                                  \
    int s[2] = {sz[1], sz[0]};                                                                       \
    e[0].s1 = d[1].s2;                                                                               \
    e[0].s2 = d[1].s1;                                                                               \
    return matvec_##SFX(e, s, count, fname);                                                         \
}                                                                                                    \
/* lu_factor: the library's factor goes straight into lu, rows in place and their order in an        \
 * index array. The interchanges that bring 0 ... n-1 into that order (LAPACK's piv: row i           \
 * exchanged with row piv[i], i = 0, 1, ... in turn) are found per matrix, rows[] holding the row    \
 * at each position and where[] the position of each row, and applied to lu's rows, which leaves     \
 * them in pivot order. */                                                                           \
static int lu_factor_##SFX(Desc* d, const int* sz, int count, const char** fname)                    \
{                                                                                                    \
    int n = sz[0], st;                                                                               \
    Desc a = d[0], lu = d[1], pv = d[2];                                                             \
    int* order = malloc(sizeof(int) * ((size_t)n * count + 2 * (size_t)n));                          \
    if (!order) return NO_MEMORY;                                                                    \
    int *rows = order + (size_t)n * count, *where = rows + n;                                        \
    if (count == 1) {                                                                                \
        *fname = #SFX "LUDecomp_m";                                                                  \
        st = E(LUDecomp_m)((T*)a.p, a.s1, a.s2, order, (T*)lu.p, lu.s1, lu.s2, n);                   \
    } else {                                                                                         \
        *fname = #SFX "LUDecomp_ma";                                                                 \
        st = E(LUDecomp_ma)((T*)a.p, a.s0, a.s1, a.s2, order, (T*)lu.p, lu.s0, lu.s1, lu.s2, n, count); \
    }                                                                                                \
    for (int k = 0; k < count && st == 0; k++) {                                                     \
        const int* ord = order + (size_t)k * n;                                                      \
        char* m = lu.p + (ptrdiff_t)k * lu.s0;                                                       \
        char* pk = pv.p + (ptrdiff_t)k * pv.s0;                                                      \
        for (int r = 0; r < n; r++) rows[r] = where[r] = r;                                          \
        for (int i = 0; i < n; i++) {                                                                \
            int r = ord[i], j = where[r], ri = rows[i];                                              \
            *(int*)(pk + (ptrdiff_t)i * pv.s2) = j;                                                  \
            rows[i] = r;                                                                             \
            rows[j] = ri;                                                                            \
            where[r] = i;                                                                            \
            where[ri] = j;                                                                           \
            if (j != i) swap_rows(m, i, j, lu.s1, lu.s2, n, (int)sizeof(T));                         \
        }                                                                                            \
    }                                                                                                \
    free(order);                                                                                     \
    return st;                                                                                       \
}                                                                                                    \
/* The library's Householder QR of a's first n columns (m >= n rows) into f. */                      \
static int qr_factor_##SFX(const Desc* a, const Desc* f, int m, int n, int count, const char** fname) \
{                                                                                                    \
    int st;                                                                                          \
    T* buf = malloc(sizeof(T) * (size_t)m);                                                          \
    if (!buf) return NO_MEMORY;                                                                      \
    if (count == 1) {                                                                                \
        *fname = #SFX "QRDecomp_m";                                                                  \
        st = E(QRDecomp_m)((T*)a->p, a->s1, a->s2, buf, (T*)f->p, f->s1, f->s2, n, m);               \
    } else {                                                                                         \
        *fname = #SFX "QRDecomp_ma";                                                                 \
        st = E(QRDecomp_ma)((T*)a->p, a->s0, a->s1, a->s2, buf, (T*)f->p, f->s0, f->s1, f->s2, n, m, \
                            count);                                                                  \
    }                                                                                                \
    free(buf);                                                                                       \
    return st;                                                                                       \
}                                                                                                    \
/* Q (m x cols) from the library's factor f: reflection j's vector is v = (1, f(j+1, j), ...,        \
 * f(m-1, j)) and H_j = I - beta v v^T with beta = 2 / (v^T v), as the library's own solver forms    \
 * it; Q = H_0 H_1 ... H_{r-1} applied to the identity's first cols columns. Built backwards a       \
 * column at a time, as LAPACK's dorg2r: at step j, rows 0 ... j of the columns right of j are       \
 * still the identity's (zeros), so H_j touches rows j ... m-1 of those columns only, and column     \
 * j itself is H_j e_j = e_j - beta v. Column j of f is read before column j of q is written, so     \
 * q may be f itself (R copied out first). */                                                        \
static void build_q_##SFX(char* f, int fs1, int fs2, int m, int r, char* q, int qs1, int qs2, int cols) \
{                                                                                                    \
    for (int c = r; c < cols; c++)                                                                   \
        for (int i = 0; i < m; i++) AT(T, q, qs1, qs2, i, c) = (T)(i == c);                          \
    for (int j = r - 1; j >= 0; j--) {                                                               \
        T vv = 1;                                                                                    \
        for (int i = j + 1; i < m; i++) vv += AT(T, f, fs1, fs2, i, j) * AT(T, f, fs1, fs2, i, j);   \
        T beta = 2 / vv;                                                                             \
        for (int c = j + 1; c < cols; c++) {                                                         \
            T s = AT(T, q, qs1, qs2, j, c);                                                          \
            for (int i = j + 1; i < m; i++) s += AT(T, f, fs1, fs2, i, j) * AT(T, q, qs1, qs2, i, c); \
            s *= beta;                                                                               \
            AT(T, q, qs1, qs2, j, c) -= s;                                                           \
            for (int i = j + 1; i < m; i++) AT(T, q, qs1, qs2, i, c) -= s * AT(T, f, fs1, fs2, i, j); \
        }                                                                                            \
        for (int i = 0; i < j; i++) AT(T, q, qs1, qs2, i, j) = 0;                                    \
        AT(T, q, qs1, qs2, j, j) = 1 - beta;                                                         \
        for (int i = j + 1; i < m; i++) AT(T, q, qs1, qs2, i, j) = -beta * AT(T, f, fs1, fs2, i, j); \
    }                                                                                                \
}                                                                                                    \
/* R (h x w) from f: its upper triangle, zeros below. r may be f. */                                 \
static void upper_##SFX(const char* f, int fs1, int fs2, char* r, int rs1, int rs2, int h, int w)    \
{                                                                                                    \
    for (int i = 0; i < h; i++)                                                                      \
        for (int j = 0; j < w; j++)                                                                  \
            AT(T, r, rs1, rs2, i, j) = j >= i ? AT(T, f, fs1, fs2, i, j) : 0;                        \
}                                                                                                    \
/* The number of reflections of the library's factor of m rows and n columns. */                     \
/* qr_reduced (m >= n): the factor goes into Q's place (same shape), R is copied out of it, then     \
 * Q is built over it. */                                                                            \
static int qr_reduced_##SFX(Desc* d, const int* sz, int count, const char** fname)                   \
{                                                                                                    \
    int m = sz[0], n = sz[1];                                                                        \
    Desc q = d[1], r = d[2];                                                                         \
    int st = qr_factor_##SFX(&d[0], &q, m, n, count, fname);                                         \
    for (int k = 0; k < count && st == 0; k++) {                                                     \
        char* f = q.p + (ptrdiff_t)k * q.s0;                                                         \
        upper_##SFX(f, q.s1, q.s2, r.p + (ptrdiff_t)k * r.s0, r.s1, r.s2, n, n);                     \
        build_q_##SFX(f, q.s1, q.s2, m, REFLECTIONS(m, n), f, q.s1, q.s2, n);                        \
    }                                                                                                \
    return st;                                                                                       \
}                                                                                                    \
/* qr_r (m >= n): R alone, the factor in scratch (the loop keeps blocks small: BLOCKED). */          \
static int qr_r_##SFX(Desc* d, const int* sz, int count, const char** fname)                         \
{                                                                                                    \
    int m = sz[0], n = sz[1], fs2 = (int)sizeof(T), fs1 = n * fs2;                                   \
    Desc f = {malloc((size_t)fs1 * m * count), fs1 * m, fs1, fs2}, r = d[1];                         \
    if (!f.p) return NO_MEMORY;                                                                      \
    int st = qr_factor_##SFX(&d[0], &f, m, n, count, fname);                                         \
    for (int k = 0; k < count && st == 0; k++)                                                       \
        upper_##SFX(f.p + (ptrdiff_t)k * f.s0, fs1, fs2, r.p + (ptrdiff_t)k * r.s0, r.s1, r.s2, n, n); \
    free(f.p);                                                                                       \
    return st;                                                                                       \
}                                                                                                    \
/* qr_complete, any shape: the factor of a's first w = min(m, n) columns goes into R's first w       \
 * columns, Q (m x m) is built from it, then R's part below the diagonal is cleared. A wide matrix   \
 * (m < n) factors its square m x m part; R's other columns are Q^T a[:, m:], by the library's       \
 * product with Q read transposed. */                                                                \
static int qr_complete_##SFX(Desc* d, const int* sz, int count, const char** fname)                  \
{                                                                                                    \
    int m = sz[0], n = sz[1], w = n < m ? n : m;                                                     \
    Desc a = d[0], q = d[1], r = d[2];                                                               \
    int st = qr_factor_##SFX(&a, &r, m, w, count, fname);                                            \
    for (int k = 0; k < count && st == 0; k++) {                                                     \
        char* f = r.p + (ptrdiff_t)k * r.s0;                                                         \
        build_q_##SFX(f, r.s1, r.s2, m, REFLECTIONS(m, w), q.p + (ptrdiff_t)k * q.s0, q.s1, q.s2, m); \
        upper_##SFX(f, r.s1, r.s2, f, r.s1, r.s2, m, w);                                             \
    }                                                                                                \
    if (st || n <= m) return st;                                                                     \
    char* b = a.p + (ptrdiff_t)m * a.s2;                                                             \
    char* c = r.p + (ptrdiff_t)m * r.s2;                                                             \
    if (count == 1) {                                                                                \
        *fname = #SFX "Mul_mm";                                                                      \
        return E(Mul_mm)((T*)q.p, q.s2, q.s1, m, m, (T*)b, a.s1, a.s2, n - m, m, (T*)c, r.s1, r.s2); \
    }                                                                                                \
    *fname = #SFX "Mul_mama";                                                                        \
    return E(Mul_mama)((T*)q.p, q.s0, q.s2, q.s1, m, m, (T*)b, a.s0, a.s1, a.s2, n - m, m,           \
                       (T*)c, r.s0, r.s1, r.s2, count);                                              \
}                                                                                                    \
/* eig and eigvals: the library's values (real and imaginary parts) and right vectors (its real      \
 * layout) in scratch, written to the complex outputs. The real layout: a real value's vector in     \
 * its column; a pair's vector, of the value with the positive imaginary part which comes first,     \
 * with its real parts in the first column and imaginary parts in the second; the second value's     \
 * vector is its conjugate. */                                                                       \
static int eig_run_##SFX(Desc* d, const int* sz, int count, int vectors, const char** fname)         \
{                                                                                                    \
    int n = sz[0], st, nb = 0;                                                                       \
    Desc a = d[0], w = d[1], v = d[2];                                                               \
    *fname = vectors ? #SFX "EigenValuesVectorsGetBufSize" : #SFX "EigenValuesGetBufSize";           \
    st = vectors ? E(EigenValuesVectorsGetBufSize)(n, &nb) : E(EigenValuesGetBufSize)(n, &nb);       \
    if (st) return st;                                                                               \
    size_t off = ((size_t)nb + 63) / 64 * 64, nw = (size_t)n * count;                                \
    size_t nv = vectors ? (size_t)n * n * count : 0;                                                 \
    char* s = malloc(off + sizeof(T) * (nv + 2 * nw));                                               \
    if (!s) return NO_MEMORY;                                                                        \
    T *buf = (T*)s, *V = (T*)(s + off), *re = V + nv, *im = re + nw;                                 \
    int vs2 = (int)sizeof(T), vs1 = n * vs2;                                                         \
    if (vectors && count == 1) {                                                                     \
        *fname = #SFX "EigenValuesVectorsRight_m";                                                   \
        st = E(EigenValuesVectorsRight_m)((T*)a.p, a.s1, a.s2, V, vs1, vs2, re, im, n, buf);         \
    } else if (vectors) {                                                                            \
        *fname = #SFX "EigenValuesVectorsRight_ma";                                                  \
        st = E(EigenValuesVectorsRight_ma)((T*)a.p, a.s0, a.s1, a.s2, V, vs1 * n, vs1, vs2, re, im, n, \
                                           count, buf);                                              \
    } else if (count == 1) {                                                                         \
        *fname = #SFX "EigenValues_m";                                                               \
        st = E(EigenValues_m)((T*)a.p, a.s1, a.s2, re, im, n, buf);                                  \
    } else {                                                                                         \
        *fname = #SFX "EigenValues_ma";                                                              \
        st = E(EigenValues_ma)((T*)a.p, a.s0, a.s1, a.s2, re, im, n, count, buf);                    \
    }                                                                                                \
    for (int k = 0; k < count && st == 0; k++) {                                                     \
        const T *rk = re + (size_t)k * n, *ik = im + (size_t)k * n;                                  \
        char* wk = w.p + (ptrdiff_t)k * w.s0;                                                        \
        for (int j = 0; j < n; j++) {                                                                \
            T* z = (T*)(wk + (ptrdiff_t)j * w.s2);                                                   \
            z[0] = rk[j];                                                                            \
            z[1] = ik[j];                                                                            \
        }                                                                                            \
        if (!vectors) continue;                                                                      \
        const char* Vk = (const char*)(V + (size_t)k * n * n);                                       \
        char* vk = v.p + (ptrdiff_t)k * v.s0;                                                        \
        for (int j = 0; j < n; j++) {                                                                \
            int first = ik[j] > 0 && j + 1 < n, second = ik[j] < 0 && j > 0;                         \
            int cr = second ? j - 1 : j, ci = first ? j + 1 : j;                                     \
            T sign = second ? -1 : 1;                                                                \
            for (int i = 0; i < n; i++) {                                                            \
                T* z = &AT(T, vk, v.s1, v.s2, i, j);                                                 \
                z[0] = AT(const T, Vk, vs1, vs2, i, cr);                                             \
                z[1] = first || second ? sign * AT(const T, Vk, vs1, vs2, i, ci) : 0;                \
            }                                                                                        \
        }                                                                                            \
    }                                                                                                \
    free(s);                                                                                         \
    return st;                                                                                       \
}                                                                                                    \
static int eig_##SFX(Desc* d, const int* sz, int count, const char** fname)                          \
{                                                                                                    \
    return eig_run_##SFX(d, sz, count, 1, fname);                                                    \
}                                                                                                    \
static int eigvals_##SFX(Desc* d, const int* sz, int count, const char** fname)                      \
{                                                                                                    \
    return eig_run_##SFX(d, sz, count, 0, fname);                                                    \
}

#define SFX 32f
DEFINE_RUNS(Omk32f, 32f)
DEFINE_MORE_RUNS(Omk32f, 32f)
#undef SFX
#define SFX 64f
DEFINE_RUNS(Omk64f, 64f)
DEFINE_MORE_RUNS(Omk64f, 64f)
#undef SFX

/* (x, y, z, 1) M divided by w, float32 only (the library's point transforms are float only). The
 * matrix is 16 contiguous floats and each point 3 contiguous floats (PACKED_CORE). One matrix for
 * the stack is one array call; a matrix per point, one call per point. */
static int transform_points_32f(Desc* d, const int* sz, int count, const char** fname)
{
    (void)sz;
    Desc m = d[0], p = d[1], o = d[2];
    if (count == 1 || m.s0 != 0) {
        *fname = "32fAffineTransformCoord_m4v3";
        for (int k = 0; k < count; k++) {
            int st = omkmAffineTransformCoord_m4v3_32f((Omk32f*)(m.p + (ptrdiff_t)k * m.s0),
                                                       (Omk32f*)(p.p + (ptrdiff_t)k * p.s0),
                                                       (Omk32f*)(o.p + (ptrdiff_t)k * o.s0));
            if (st) return st;
        }
        return 0;
    }
    *fname = "32fAffineTransformCoord_m4v3a";
    return omkmAffineTransformCoord_m4v3a_32f((Omk32f*)m.p, (Omk32f*)p.p, p.s0, (Omk32f*)o.p, o.s0,
                                              count);
}

/* ---- the table ---- */

#define RUNS(name) name##_32f, name##_64f

static const OpDef OPS[] = {
    {"matmul", "(m?,n),(n,p?)->(m?,p?)", 2, 1, {2, 2, 2}, {{0, 1}, {1, 2}, {0, 2}},
     {SINGLE, SINGLE, 0}, RUNS(matmul), "mul", 0, 0,
     "matmul(a, b, /, out=None, **kwargs)\n\nMatrix products of stacks (m,n),(n,p)->(m,p) by omkmMul_mama "
     "(Mul_mma / Mul_mam when one operand is a single matrix broadcast over the stack). A 1-D operand is "
     "a row on the left and a column on the right, its axis dropped from the result, as numpy.matmul."},
    {"matvec", "(m,n),(n)->(m)", 2, 1, {2, 1, 1}, {{0, 1}, {1, 0}, {0, 0}},
     {SINGLE, SINGLE, 0}, RUNS(matvec), "mul", 0, 0,
     "matvec(a, x, /, out=None, **kwargs)\n\nMatrix times vector (m,n),(n)->(m) by omkmMul_mava "
     "(Mul_mva / Mul_mav for a single matrix or vector)."},
    {"vecdot", "(n),(n)->()", 2, 1, {1, 1, 0}, {{0, 0}, {0, 0}, {0, 0}},
     {SINGLE, SINGLE, PACKED}, RUNS(vecdot), "dot", 0, 0,
     "vecdot(a, b, /, out=None, **kwargs)\n\nDot product of vectors (n),(n)->() by omkmDotProduct_vava."},
    {"cross", "(3),(3)->(3)", 2, 1, {1, 1, 1}, {{0, 0}, {0, 0}, {0, 0}},
     {SINGLE, SINGLE, 0}, RUNS(cross), "cross", 0, 0,
     "cross(a, b, /, out=None, **kwargs)\n\nCross product of 3-vectors (3),(3)->(3) by omkmCrossProduct_vava."},
    {"vector_norm", "(n)->()", 1, 1, {1, 0}, {{0, 0}, {0, 0}},
     {0, PACKED}, RUNS(vector_norm), "norm", 0, 0,
     "vector_norm(x, /, out=None, **kwargs)\n\nEuclidean norm of vectors (n)->() by omkmL2Norm_va."},
    {"trace", "(m,m)->()", 1, 1, {2, 0}, {{0, 0}, {0, 0}},
     {0, PACKED}, RUNS(trace), "trace", 0, 0,
     "trace(a, /, out=None, **kwargs)\n\nSum of the diagonal of square matrices (m,m)->() over the last "
     "two axes (numpy.linalg.trace of numpy 2), by omkmTrace_ma."},
    {"det", "(m,m)->()", 1, 1, {2, 0}, {{0, 0}, {0, 0}},
     {0, PACKED | EMPTY_ONE}, RUNS(det), "det", 1, 0,
     "det(a, /, out=None, **kwargs)\n\nDeterminant of square matrices (m,m)->() by omkmDet_ma. Never "
     "raises: orders above 4 give 0 when a pivot falls below 2*m^3 times the smallest normal number."},
    {"inv", "(m,m)->(m,m)", 1, 1, {2, 2}, {{0, 0}, {0, 0}},
     {0, 0}, RUNS(inv), "inv", 1, 0,
     "inv(a, /, out=None, **kwargs)\n\nInverse of square matrices (m,m)->(m,m) by omkmInvert_ma. Raises "
     "omkm.SingularMatrixError when |det| is below 2*m^3 times the smallest normal number (an absolute "
     "threshold)."},
    {"solve", "(m,m),(m,n)->(m,n)", 2, 1, {2, 2, 2}, {{0, 0}, {0, 1}, {0, 1}},
     {SINGLE, 0, 0}, RUNS(solve), "lu", 1, 0,
     "solve(a, b, /, out=None, **kwargs)\n\nx with a @ x = b for matrices a (m,m) and right-hand sides b "
     "(m,n), as numpy.linalg.solve, by omkmLUDecomp_ma and omkmLUBackSubst_mava per column (one factor "
     "when a is a single matrix). Raises omkm.SingularMatrixError for a pivot below the library's "
     "absolute threshold."},
    {"solve1", "(m,m),(m)->(m)", 2, 1, {2, 1, 1}, {{0, 0}, {0, 0}, {0, 0}},
     {SINGLE, 0, 0}, RUNS(solve1), "lu", 1, 0,
     "solve1(a, b, /, out=None, **kwargs)\n\nx with a @ x = b for matrices a (m,m) and vectors b (m), as "
     "numpy.linalg.solve(a, b[..., None])[..., 0]. Raises omkm.SingularMatrixError."},
    {"lu_solve", "(m,m),(m),(m,n)->(m,n)", 3, 1, {2, 1, 2, 2}, {{0, 0}, {0, 0}, {0, 1}, {0, 1}},
     {SINGLE, SINGLE | INT32, SINGLE, 0}, RUNS(lu_solve), "lu", 1, ROWS | BLOCKED,
     "lu_solve(lu, piv, b, /, out=None, **kwargs)\n\nx with A @ x = b from scipy.linalg.lu_factor's (lu, "
     "piv) of A (lu (m,m) in pivot order, piv (m) int32 LAPACK interchanges) for right-hand sides b (m,n), "
     "as scipy.linalg.lu_solve: b's rows interchanged in turn, then omkmLUBackSubst_mava per column with "
     "the identity row order (LUBackSubst_mva when lu is a single matrix). ValueError, before anything is "
     "written, when a piv entry is outside 0 ... m-1; no test of the diagonal."},
    {"lu_solve1", "(m,m),(m),(m)->(m)", 3, 1, {2, 1, 1, 1}, {{0, 0}, {0, 0}, {0, 0}, {0, 0}},
     {SINGLE, SINGLE | INT32, SINGLE, 0}, RUNS(lu_solve1), "lu", 1, ROWS | BLOCKED,
     "lu_solve1(lu, piv, b, /, out=None, **kwargs)\n\nlu_solve for vectors b (m): "
     "lu_solve(lu, piv, b[..., None])[..., 0]."},
    {"cho_solve", "(m,m),(m,n)->(m,n)", 2, 1, {2, 2, 2}, {{0, 0}, {0, 1}, {0, 1}},
     {SINGLE, 0, 0}, RUNS(cho_solve), "cholesky", 1, BLOCKED,
     "cho_solve(c, b, /, out=None, **kwargs)\n\nx with L @ L.T @ x = b for L in the lower triangle of c "
     "(m,m) (scipy.linalg.cho_factor's c with lower=True; the strict upper triangle is not read; pass c's "
     "transposed view for lower=False) and right-hand sides b (m,n), as scipy.linalg.cho_solve, by "
     "omkmCholeskyBackSubst_mava per column on the library's factor form made in scratch "
     "(CholeskyBackSubst_mva when c is a single matrix). No test of the diagonal."},
    {"cho_solve1", "(m,m),(m)->(m)", 2, 1, {2, 1, 1}, {{0, 0}, {0, 0}, {0, 0}},
     {SINGLE, 0, 0}, RUNS(cho_solve1), "cholesky", 1, BLOCKED,
     "cho_solve1(c, b, /, out=None, **kwargs)\n\ncho_solve for vectors b (m): "
     "cho_solve(c, b[..., None])[..., 0]."},
    {"eigvalsh", "(m,m)->(m)", 1, 1, {2, 1}, {{0, 0}, {0, 0}},
     {0, PACKED}, RUNS(eigvalsh), "eigsym", 1, BLOCKED,
     "eigvalsh(a, /, out=None, **kwargs)\n\nEigenvalues of symmetric matrices (m,m)->(m), ascending as "
     "numpy.linalg.eigvalsh, from the lower triangle of a (pass a's transpose for the upper), by "
     "omkmEigenValuesSym_ma. Raises omkm.SingularMatrixError when the product "
     "of the values is at most eps in magnitude (an absolute threshold), omkm.NotConvergedError."},
    {"eigh", "(m,m)->(m),(m,m)", 1, 2, {2, 1, 2}, {{0, 0}, {0, 0}, {0, 0}},
     {0, PACKED, 0}, RUNS(eigh), "eigsym", 1, BLOCKED,
     "eigh(a, /, out=(None, None), **kwargs)\n\n(w, v): eigenvalues ascending (m) and eigenvectors as "
     "the columns of v (m,m) of symmetric matrices, as numpy.linalg.eigh, from the lower triangle, by "
     "omkmEigenValuesVectorsSym_ma. Errors as eigvalsh."},
    {"cholesky", "(m,m)->(m,m)", 1, 1, {2, 2}, {{0, 0}, {0, 0}},
     {0, 0}, RUNS(cholesky), "cholesky", 1, 0,
     "cholesky(a, /, out=None, **kwargs)\n\nLower Cholesky factor L (zeros above the diagonal) of "
     "symmetric positive definite matrices (m,m)->(m,m), as numpy.linalg.cholesky, by "
     "omkmCholeskyDecomp_ma; only the lower triangle of a is read. Raises omkm.NotPosDefiniteError."},
    {"cho_factor", "(m,m)->(m,m)", 1, 1, {2, 2}, {{0, 0}, {0, 0}},
     {0, 0}, RUNS(cho_factor), "cholesky", 1, 0,
     "cho_factor(a, /, out=None, **kwargs)\n\nscipy.linalg.cho_factor's c with lower=True: L in the lower "
     "triangle (from a's lower triangle) and a's own entries above the diagonal, by omkmCholeskyDecomp_ma; "
     "its upper form is this gufunc on transposed views of a and c. Raises omkm.NotPosDefiniteError."},
    {"matrix_norm", "(m,n)->()", 1, 1, {2, 0}, {{0, 1}, {0, 0}},
     {0, PACKED}, RUNS(matrix_norm), "norm", 0, 0,
     "matrix_norm(a, /, out=None, **kwargs)\n\nFrobenius norm of matrices (m,n)->() (numpy.linalg.norm "
     "over the last two axes, numpy.linalg.matrix_norm of numpy 2), by omkmFrobNorm_ma."},
    {"vecmat", "(n),(n,m)->(m)", 2, 1, {1, 2, 1}, {{0, 0}, {0, 1}, {1, 0}},
     {SINGLE, SINGLE, 0}, RUNS(vecmat), "mul", 0, 0,
     "vecmat(x, a, /, out=None, **kwargs)\n\nVector times matrix (n),(n,m)->(m), x @ a (numpy 2's "
     "vecmat for real operands), by omkmMul_mava with a read transposed."},
    {"lu_factor", "(m,m)->(m,m),(m)", 1, 2, {2, 2, 1}, {{0, 0}, {0, 0}, {0, 0}},
     {0, 0, INT32}, RUNS(lu_factor), "lu", 1, 0,
     "lu_factor(a, /, out=(None, None), **kwargs)\n\n(lu, piv) of square matrices as "
     "scipy.linalg.lu_factor: P A = L U, lu (m,m) holding U on and above the diagonal and L's "
     "multipliers below it, rows in pivot order; piv (m) int32, LAPACK's interchanges (row i was "
     "exchanged with row piv[i], for i = 0, 1, ... in turn). By omkmLUDecomp_ma. Raises "
     "omkm.SingularMatrixError for a pivot below the library's absolute threshold (scipy warns)."},
    {"qr_reduced", "(m,n)->(m,n),(n,n)", 1, 2, {2, 2, 2}, {{0, 1}, {0, 1}, {1, 1}},
     {0, 0, 0}, RUNS(qr_reduced), "qr", 1, TALL,
     "qr_reduced(a, /, out=(None, None), **kwargs)\n\n(q, r) of matrices (m,n) with m >= n as "
     "numpy.linalg.qr(a, 'reduced'): q (m,n) with orthonormal columns, r (n,n) upper triangular, signs "
     "as numpy's. From omkmQRDecomp_ma's Householder factor. ValueError for m < n (qr_complete takes "
     "any shape); omkm.DivByZeroError for a column of norm below eps (an absolute threshold)."},
    {"qr_complete", "(m,n)->(m,m),(m,n)", 1, 2, {2, 2, 2}, {{0, 1}, {0, 0}, {0, 1}},
     {0, EMPTY_EYE, 0}, RUNS(qr_complete), "qr", 1, 0,
     "qr_complete(a, /, out=(None, None), **kwargs)\n\n(q, r) of matrices (m,n), any shape, as "
     "numpy.linalg.qr(a, 'complete'): q (m,m) orthogonal, r (m,n) upper triangular. A wide matrix "
     "(m < n) is factored on its first m columns, r's other columns being q^T a[:, m:]. Errors as "
     "qr_reduced."},
    {"qr_r", "(m,n)->(n,n)", 1, 1, {2, 2}, {{0, 1}, {1, 1}},
     {0, 0}, RUNS(qr_r), "qr", 1, TALL | BLOCKED,
     "qr_r(a, /, out=None, **kwargs)\n\nr (n,n) of matrices (m,n) with m >= n, as "
     "numpy.linalg.qr(a, 'r'), without forming q. Errors as qr_reduced."},
    {"eig", "(m,m)->(m),(m,m)", 1, 2, {2, 1, 2}, {{0, 0}, {0, 0}, {0, 0}},
     {0, CPLX, CPLX}, RUNS(eig), "eig", 1, BLOCKED,
     "eig(a, /, out=(None, None), **kwargs)\n\n(w, v): eigenvalues (m) and right eigenvectors as the "
     "columns of v (m,m) of general matrices, a @ v[:, j] = w[j] v[:, j], complex (complex64 for "
     "float32) whatever the values. Values in the order the library finds them, a conjugate pair "
     "consecutive with the positive imaginary part first; each vector of norm 1 with its largest "
     "component real and positive. By omkmEigenValuesVectorsRight_ma. Raises omkm.NotConvergedError."},
    {"eigvals", "(m,m)->(m)", 1, 1, {2, 1}, {{0, 0}, {0, 0}},
     {0, CPLX}, RUNS(eigvals), "eig", 1, BLOCKED,
     "eigvals(a, /, out=None, **kwargs)\n\nEigenvalues of general matrices (m,m)->(m), complex, in "
     "eig's order, by omkmEigenValues_ma. Raises omkm.NotConvergedError."},
    {"transform_points", "(4,4),(3)->(3)", 2, 1, {2, 1, 1}, {{0, 0}, {1, 0}, {1, 0}},
     {SINGLE | PACKED_CORE, SINGLE | PACKED_CORE, PACKED_CORE}, transform_points_32f, NULL, "graphics", 0, 0,
     "transform_points(m, p, /, out=None, **kwargs)\n\nPoints p (3) as row vectors (x, y, z, 1) @ m "
     "(4,4), divided by their w (omkm.transform_points with kind='coord'), by "
     "omkmAffineTransformCoord_m4v3a_32f. float32 only: the library's point transforms are float only."},
};
#define NOPS ((int)(sizeof(OPS) / sizeof(OPS[0])))

/* ---- errors ---- */

/* Called with the GIL held: sets the package's exception for status st of export fname. */
static void set_status_error(const OpDef* op, int st, const char* fname, int n)
{
    if (st == NO_MEMORY) {
        PyErr_NoMemory();
        return;
    }
    char msg[160];
    snprintf(msg, sizeof msg, "%s: omkm%s_%.3s", op->name, fname + 3, fname);
    /* omkm._errors.status_error builds the exception, with what the family's failing test is. */
    PyObject* exc = PyObject_CallFunction(status_error, "iszii", st, msg, op->family, fname[0] == '6', n);
    if (exc) {
        PyErr_SetObject((PyObject*)Py_TYPE(exc), exc);
        Py_DECREF(exc);
    }
}

/* ---- the inner loop ---- */

enum { DIRECT, COPY };

typedef struct {
    int mode;          /* DIRECT: the caller's memory; COPY: a contiguous block copy */
    int single;        /* one object for all (s0 = 0 to the library) */
    npy_intp step;     /* numpy's outer step */
    npy_intp cs[2];    /* numpy's core steps (rows, elements) */
    npy_intp shape[2]; /* core sizes (1 for a missing axis) */
    int esz;           /* bytes of one element: the loop's float, a complex pair of them, an int32 */
    int al;            /* the unit its elements are read in (alignment and strides) */
    Desc d;            /* the standard description of a direct operand */
    char* buf;         /* the block copy */
    npy_intp obj;      /* bytes of one packed object */
} Operand;

/* unit: an element or its component, 4 or 8 bytes; a mask, not a division (the loop's setup is a
 * noticeable part of a call on one small object). */
static int fits(npy_intp s, int unit) { return s > 0 && (s & (unit - 1)) == 0 && s <= INT_MAX; }

/* The core layout of operand o (shape and steps) as the library's s1 and s2, or -1 when it cannot
 * take it in place. A size-1 axis takes the packed value, as any value serves there (numpy gives
 * a missing flexible dimension, matmul's m? and p?, size 1 and step 0). */
static int core_layout(Operand* o, int packed)
{
    npy_intp w = o->shape[1], h = o->shape[0];
    npy_intp s2 = w > 1 ? o->cs[1] : o->esz, s1 = h > 1 ? o->cs[0] : o->esz * w;
    if (packed && (s2 != o->esz || s1 != o->esz * w)) return -1;
    if (!fits(s2, o->al) || !fits(s1, o->al)) return -1;
    o->d.s1 = (int)s1;
    o->d.s2 = (int)s2;
    return 0;
}

static void copy_object(char* dst, npy_intp ds1, npy_intp ds2, const char* src, npy_intp ss1, npy_intp ss2,
                        npy_intp h, npy_intp w, int esize)
{
    for (npy_intp i = 0; i < h; i++)
        for (npy_intp j = 0; j < w; j++)
            memcpy(dst + i * ds1 + j * ds2, src + i * ss1 + j * ss2, esize);
}

/* A zero core size: numpy's results without a library call. An output with elements is zeros (a
 * matmul over an empty inner dimension, the trace or a norm of nothing), the identity for
 * EMPTY_EYE (qr's complete Q of a matrix without columns) or 1 for EMPTY_ONE (the determinant
 * of a 0x0 matrix); every other output has no elements. */
static void fill_empty(const OpDef* op, const Operand* o, char** args, npy_intp n, int esize)
{
    for (int i = op->nin; i < op->nin + op->nout; i++) {
        const Operand* q = &o[i];
        for (npy_intp k = 0; k < n; k++)
            for (npy_intp r = 0; r < q->shape[0]; r++)
                for (npy_intp c = 0; c < q->shape[1]; c++) {
                    char* e = args[i] + k * q->step + r * q->cs[0] + c * q->cs[1];
                    int one = (op->flags[i] & EMPTY_ONE) || ((op->flags[i] & EMPTY_EYE) && r == c);
                    memset(e, 0, q->esz);
                    if (one && esize == 4) *(float*)e = 1;
                    else if (one) *(double*)e = 1;
                }
    }
}

static void value_error(const char* fmt, const char* name, Py_ssize_t a, Py_ssize_t b)
{
    NPY_ALLOW_C_API_DEF
    NPY_ALLOW_C_API
    PyErr_Format(PyExc_ValueError, fmt, name, a, b);
    NPY_DISABLE_C_API
}

/* One object whose every operand the library takes in place (a call on single small matrices,
 * where the loop's setup is a noticeable part of the cost): d gets their descriptions, as the
 * general path below would make them, and 1 is returned; 0 when an operand needs a copy. */
static int in_place(const LoopData* ld, char** args, const npy_intp* cst, const int* sz, Desc* d)
{
    const OpDef* op = ld->op;
    for (int i = 0; i < op->nin + op->nout; i++) {
        Operand q;
        int nd = op->ndim[i];
        q.shape[0] = nd == 2 ? sz[op->dim[i][0]] : 1;
        q.shape[1] = nd >= 1 ? sz[op->dim[i][nd - 1]] : 1;
        q.cs[0] = nd == 2 ? cst[0] : 0;
        q.cs[1] = nd >= 1 ? cst[nd - 1] : 0;
        cst += nd;
        q.esz = ld->esz[i];
        q.al = ld->al[i];
        if (((uintptr_t)args[i] & (q.al - 1)) || core_layout(&q, (op->flags[i] & PACKED_CORE) != 0))
            return 0;
        npy_intp obj = q.esz * q.shape[0] * q.shape[1];
        d[i] = (Desc){args[i], obj > INT_MAX ? INT_MAX : (int)obj, q.d.s1, q.d.s2};
    }
    return 1;
}

static void loop(char** args, npy_intp const* dimensions, npy_intp const* steps, void* data)
{
    const LoopData* ld = data;
    const OpDef* op = ld->op;
    const int esize = ld->esize, nargs = op->nin + op->nout;
    npy_intp N = dimensions[0];
    int sz[MAXDIMS] = {1, 1, 1};
    Operand o[MAXOPS];  /* every field set below: no zeroing of the whole array per call */
    const npy_intp* cst = steps + nargs;
    int i, all_single = 1, any_copy = 0, st = 0, empty = 0;
    const char* fname = "";

    for (i = 0; i < ld->ndims; i++) {
        if (dimensions[1 + i] > INT_MAX) {
            value_error("%s: core sizes must be at most 2**31-1, got %zd (dimension %zd)", op->name,
                        (Py_ssize_t)dimensions[1 + i], i);
            return;
        }
        sz[i] = (int)dimensions[1 + i];
        empty |= sz[i] == 0;
    }
    if ((op->opflags & TALL) && sz[0] < sz[1]) {
        value_error("%s: needs matrices (m, n) with m >= n, got (%zd, %zd) (qr_complete takes any shape)",
                    op->name, sz[0], sz[1]);
        return;
    }
    if (N == 0) return;
    if (op->opflags & ROWS) {
        /* every object's row numbers, before any is used: an error leaves the outputs untouched */
        const npy_intp ps = steps[1], pc = cst[op->ndim[0]];
        const int m = sz[op->dim[1][0]];
        for (npy_intp k = 0; k < N; k++)
            for (int r = 0; r < m; r++) {
                int v;
                memcpy(&v, args[1] + k * ps + r * pc, sizeof v);
                if (v < 0 || v >= m) {
                    value_error("%s: piv must hold row numbers 0 ... %zd, got %zd", op->name, m - 1, v);
                    return;
                }
            }
    }
    if (N == 1 && !empty) {
        Desc d[MAXOPS];
        if (in_place(ld, args, cst, sz, d)) {
            fexcept_t flags;   /* as in the general path below */
            if (op->own_flags) fegetexceptflag(&flags, FE_ALL_EXCEPT);
            last_loop_held_gil = PyGILState_Check();
            st = ld->run(d, sz, 1, &fname);
            if (op->own_flags) fesetexceptflag(&flags, FE_ALL_EXCEPT);
            goto done;
        }
    }
    for (i = 0; i < nargs; i++) {
        Operand* q = &o[i];
        int nd = op->ndim[i];
        q->mode = DIRECT;
        q->buf = NULL;
        q->d.s0 = q->d.s1 = q->d.s2 = 0;
        q->step = steps[i];
        q->shape[0] = nd == 2 ? sz[op->dim[i][0]] : 1;
        q->shape[1] = nd >= 1 ? sz[op->dim[i][nd - 1]] : 1;
        q->cs[0] = nd == 2 ? cst[0] : 0;
        q->cs[1] = nd >= 1 ? cst[nd - 1] : 0;
        cst += nd;
        q->esz = ld->esz[i];
        q->al = ld->al[i];
        q->obj = q->esz * q->shape[0] * q->shape[1];
        q->d.p = args[i];
        q->single = i < op->nin && (N == 1 || q->step == 0);
        if (i < op->nin && !q->single) all_single = 0;
    }
    if (empty) {
        fill_empty(op, o, args, N, esize);
        return;
    }
    if (all_single) N = 1;          /* one object, copied to every output object below */
    npy_intp Nall = dimensions[0];
    for (i = 0; i < nargs; i++) {
        Operand* q = &o[i];
        int packed = (op->flags[i] & PACKED_CORE) != 0;
        int ok = ((uintptr_t)q->d.p & (q->al - 1)) == 0 && core_layout(q, packed) == 0;
        if (N == 1) {
            q->d.s0 = q->obj > INT_MAX ? INT_MAX : (int)q->obj;
        } else if (q->single) {
            /* a broadcast input: the single member, or a copy repeated per object */
            ok = ok && (op->flags[i] & SINGLE);
            q->d.s0 = 0;
            if (!ok && (op->flags[i] & SINGLE)) q->mode = COPY;
        } else {
            ok = ok && fits(q->step, q->al) &&
                 (!((op->flags[i] & PACKED) == PACKED) || q->step == q->obj);
            q->d.s0 = ok ? (int)q->step : 0;
        }
        if (!ok) {
            q->mode = COPY;
            if (q->single && N > 1 && !(op->flags[i] & SINGLE)) q->single = 0;
        }
        any_copy |= q->mode == COPY;
    }

    /* Objects per library call: the copies' block, and k*stride0 within 2^31-1. */
    npy_intp per = N, copy_bytes = 0, all_bytes = 0;
    for (i = 0; i < nargs; i++) {
        Operand* q = &o[i];
        all_bytes += q->single ? 0 : q->obj;
        if (per > 1 && q->mode == DIRECT && !q->single && q->d.s0 > 0) {
            npy_intp lim = INT_MAX / q->d.s0 + 1;
            if (lim < per) per = lim;
        }
        if (q->mode == COPY) copy_bytes += q->single ? 0 : q->obj;
    }
    if ((op->opflags & BLOCKED) && all_bytes && BLOCK_BYTES / all_bytes < per)
        per = BLOCK_BYTES / all_bytes > 0 ? BLOCK_BYTES / all_bytes : 1;
    if (any_copy) {
        npy_intp lim = copy_bytes ? BLOCK_BYTES / copy_bytes : per;
        if (lim < 1) lim = 1;
        if (lim < per) per = lim;
        for (i = 0; i < nargs; i++) {
            Operand* q = &o[i];
            if (q->mode != COPY) continue;
            q->buf = malloc(q->obj * (q->single ? 1 : per));
            if (!q->buf) { st = NO_MEMORY; goto done; }
            q->d.s1 = (int)(q->esz * q->shape[1]);
            q->d.s2 = q->esz;
            if (!q->single) q->d.s0 = (int)q->obj;
            if (q->single)  /* the one object, copied once */
                copy_object(q->buf, q->d.s1, q->d.s2, args[i], q->cs[0], q->cs[1], q->shape[0], q->shape[1],
                            q->esz);
        }
    }

    {
        /* The solver and eigen families raise floating-point flags of their own on correct results
         * (a division by zero in the symmetric eigenproblem's lanes, say), which numpy would report
         * as warnings of the call: their flags are put back (OpDef.own_flags), and the library's
         * statuses report their failures. */
        const int own_flags = op->own_flags;
        fexcept_t flags;
        if (own_flags) fegetexceptflag(&flags, FE_ALL_EXCEPT);
        /* numpy releases the GIL around the loop (its loops here need no C API) once the
         * problem passes its size threshold, and keeps it for small ones. */
        last_loop_held_gil = PyGILState_Check();
        for (npy_intp k0 = 0; k0 < N && st == 0; k0 += per) {
            npy_intp cnt = N - k0 < per ? N - k0 : per;
            Desc d[MAXOPS];
            for (i = 0; i < nargs; i++) {
                Operand* q = &o[i];
                d[i] = q->d;
                char* base = args[i] + (q->single ? 0 : k0 * q->step);
                if (q->mode == DIRECT) {
                    d[i].p = base;
                    continue;
                }
                d[i].p = q->buf;
                if (i < op->nin && !q->single)
                    for (npy_intp k = 0; k < cnt; k++)
                        copy_object(q->buf + k * q->obj, d[i].s1, d[i].s2, base + k * q->step, q->cs[0],
                                    q->cs[1], q->shape[0], q->shape[1], q->esz);
            }
            st = ld->run(d, sz, (int)cnt, &fname);
            if (st) break;
            for (i = op->nin; i < nargs; i++) {
                Operand* q = &o[i];
                if (q->mode != COPY) continue;
                char* base = args[i] + k0 * q->step;
                for (npy_intp k = 0; k < cnt; k++)
                    copy_object(base + k * q->step, q->cs[0], q->cs[1], q->buf + k * q->obj, q->d.s1, q->d.s2,
                                q->shape[0], q->shape[1], q->esz);
            }
        }
        /* Every input one object: the one result goes to every output object. */
        if (st == 0 && Nall > N)
            for (i = op->nin; i < nargs; i++)
                for (npy_intp k = 1; k < Nall; k++)
                    copy_object(args[i] + k * o[i].step, o[i].cs[0], o[i].cs[1], args[i], o[i].cs[0],
                                o[i].cs[1], o[i].shape[0], o[i].shape[1], o[i].esz);
        if (own_flags) fesetexceptflag(&flags, FE_ALL_EXCEPT);
    }

done:
    for (i = 0; any_copy && i < nargs; i++) free(o[i].buf);
    if (st) {
        NPY_ALLOW_C_API_DEF
        NPY_ALLOW_C_API
        set_status_error(op, st, fname, sz[0]);
        NPY_DISABLE_C_API
    }
}

/* ---- the module ---- */

static PyObject* gil_state(PyObject* self, PyObject* args)
{
    (void)self;
    (void)args;
    return PyLong_FromLong(last_loop_held_gil);
}

static PyMethodDef methods[] = {
    {"_last_loop_held_gil", gil_state, METH_NOARGS,
     "1 if the library calls of the last inner loop ran holding the GIL, 0 if numpy had released it, -1 "
     "before any loop."},
    {NULL, NULL, 0, NULL}};

static struct PyModuleDef moddef = {PyModuleDef_HEAD_INIT, "_ufuncs",
                                    "numpy generalized ufuncs over libomkm (float32 and float64 loops).", -1,
                                    methods, NULL, NULL, NULL, NULL};

static PyUFuncGenericFunction funcs[NOPS][2];
static void* datas[NOPS][2];
static char types[NOPS][2 * MAXOPS];
static LoopData loopdata[NOPS][2];

/* ---- dtypes: numpy.linalg's rule ---- */

/* numpy's own resolver, kept for calls that name their loop (dtype= or signature=). */
static PyUFunc_TypeResolutionFunc* default_resolver;

/* Which row of OPS a ufunc is: its loop data's OpDef. */
static const OpDef* op_of(PyUFuncObject* uf) { return ((const LoopData*)uf->data[0])->op; }

/* numpy calls this when the inputs' dtypes match no loop exactly (float32 and float64 inputs go
 * straight to their loop without it). The package computes as numpy.linalg does: float32 when
 * every input is float32, else float64, integers and booleans included (numpy's own safe casts
 * would send int8 or bool to the float32 loop). float16, long double, complex and every other
 * dtype raise TypeError naming it, rather than computing in another precision. */
static int resolve_types(PyUFuncObject* uf, NPY_CASTING casting, PyArrayObject** ops, PyObject* type_tup,
                         PyArray_Descr** out)
{
    const OpDef* op = op_of(uf);
    if (type_tup != NULL) return default_resolver(uf, casting, ops, type_tup, out);
    int f64 = 0;
    for (int i = 0; i < op->nin; i++) {
        PyArray_Descr* d = PyArray_DESCR(ops[i]);
        if (op->flags[i] & INT32) {      /* row numbers: any integers, cast to int32; not a value */
            if (d->kind == 'i' || d->kind == 'u') continue;
            PyErr_Format(PyExc_TypeError, "%s: operand %d holds row numbers (integers), got %S", op->name, i,
                         (PyObject*)d);
            return -1;
        }
        if (d->kind == 'f' && (d->elsize == 4 || d->elsize == 8)) {
            f64 |= d->elsize == 8;
        } else if (d->kind == 'b' || d->kind == 'i' || d->kind == 'u') {
            f64 = 1;
        } else {
            PyErr_Format(PyExc_TypeError, "%s: unsupported dtype %S (float32 and float64, or integers computed in "
                         "float64)", op->name, (PyObject*)d);
            return -1;
        }
    }
    if (f64 && !op->run64) {
        PyErr_Format(PyExc_TypeError, "%s: float32 only (the library has no float64 member), got %S", op->name,
                     (PyObject*)PyArray_DESCR(ops[0]));
        return -1;
    }
    for (int i = 0; i < op->nin + op->nout; i++) {
        out[i] = PyArray_DescrFromType((op->flags[i] & INT32) ? NPY_INT32
                                       : (op->flags[i] & CPLX) ? (f64 ? NPY_CDOUBLE : NPY_CFLOAT)
                                       : f64 ? NPY_DOUBLE : NPY_FLOAT);
    }
    return 0;
}

PyMODINIT_FUNC PyInit__ufuncs(void)
{
    import_array();
    import_umath();
    PyObject* errors = PyImport_ImportModule("omkm._errors");
    if (!errors) return NULL;
    status_error = PyObject_GetAttrString(errors, "status_error");
    Py_DECREF(errors);
    if (!status_error) return NULL;
    PyObject* m = PyModule_Create(&moddef);
    if (!m) return NULL;
    for (int k = 0; k < NOPS; k++) {
        const OpDef* op = &OPS[k];
        int ntypes = op->run64 ? 2 : 1;
        RunFn runs[2] = {op->run32, op->run64};
        for (int t = 0; t < ntypes; t++) {
            LoopData* ld = &loopdata[k][t];
            *ld = (LoopData){op, runs[t], t ? 8 : 4, 0, {0}, {0}};
            funcs[k][t] = loop;
            datas[k][t] = ld;
            for (int a = 0; a < op->nin + op->nout; a++) {
                ld->esz[a] = (op->flags[a] & INT32) ? 4 : (op->flags[a] & CPLX) ? 2 * ld->esize : ld->esize;
                ld->al[a] = (op->flags[a] & INT32) ? 4 : ld->esize;
                for (int x = 0; x < op->ndim[a]; x++)
                    if (op->dim[a][x] + 1 > ld->ndims) ld->ndims = op->dim[a][x] + 1;
            }
            for (int a = 0; a < op->nin + op->nout; a++)
                types[k][t * (op->nin + op->nout) + a] = (op->flags[a] & INT32) ? NPY_INT32
                                                       : (op->flags[a] & CPLX) ? (t ? NPY_CDOUBLE : NPY_CFLOAT)
                                                       : t ? NPY_DOUBLE : NPY_FLOAT;
        }
        PyObject* uf = PyUFunc_FromFuncAndDataAndSignature(funcs[k], datas[k], types[k], ntypes, op->nin,
                                                           op->nout, PyUFunc_None, op->name, op->doc, 0,
                                                           op->signature);
        if (uf) {
            default_resolver = ((PyUFuncObject*)uf)->type_resolver;
            ((PyUFuncObject*)uf)->type_resolver = resolve_types;
        }
        if (!uf || PyModule_AddObject(m, op->name, uf) < 0) {
            Py_XDECREF(uf);
            Py_DECREF(m);
            return NULL;
        }
    }
    return m;
}
