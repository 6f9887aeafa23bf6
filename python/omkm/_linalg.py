"""Factorizations, solvers, determinant, inverse and eigenproblems of stacks of small matrices."""
import ctypes
import math

import numpy as np

from ._core import (COUNT, F32, INT, asarray, batch_of, check_sizes, operand, output,
                    planned, result_type, run)
from . import ufuncs
from ._errors import NotSquareError
from ._lib import fn, raise_status


def _square(name, a):
    x = asarray(a, name)
    if x.ndim < 2 or x.shape[-1] != x.shape[-2]:
        raise NotSquareError(f"{name}: a must hold square matrices (..., n, n), got shape {x.shape}")
    check_sizes(name, x.shape[-1])
    return x, result_type(x), x.shape[-1]


def _outs(name, out, k):
    """`out` as a tuple of k entries (None for each when out is None)."""
    if out is None:
        return (None,) * k
    if not isinstance(out, tuple) or len(out) != k:
        raise TypeError(f"{name}: out must be a tuple of {k} arrays")
    return out


def _scratch(nbytes):
    """A run() piece for a new scratch buffer of nbytes (at least 1)."""
    return output(None, (max(int(nbytes), 1),), np.dtype(np.uint8), 1, "scratch"), "p"


def _rhs(name, f, b, nrow):
    """The right-hand sides: vectors b (..., nrow) against factors f (..., h, w)."""
    y = asarray(b, name)
    if y.ndim < 1 or y.shape[-1] != nrow:
        raise ValueError(f"{name}: b must hold vectors of length {nrow} (..., {nrow}), got shape {y.shape}")
    return y, batch_of(name, f.shape[:-2], y.shape[:-1])


def _solve_args(p, extra, q, o, sizes, arr):
    """Arguments of the BackSubst members: factor, extra (index array or buffer), b, x, sizes."""
    return [(p, "m")] + extra + [(q, "v"), (o, "v")] + sizes + [COUNT] * arr


def _vectors(y, dt, copy, name, batch, p):
    """The right-hand sides as an Operand; one vector against an array of factors is repeated
    for each (the library has no member for that), which is a copy."""
    if p.count > 1 and math.prod(y.shape[:-1]) == 1:
        y = np.broadcast_to(y, batch + y.shape[-1:])
    return operand(y, 1, dt, copy, name + ": b", batch)


def _member(base, p, q, arr):
    return base + ("_mava" if arr and p.count > 1 else "_mva" if arr else "_mv")


# ---- LU ----

@planned
def lu_decomp(a, out=None, *, copy=True):
    """The library's LU decomposition with partial pivoting by rows of each matrix (..., n, n).

    Returns (lu, piv) in the library's layout: rows never move; piv (..., n) of int32 holds the
    row order, and row piv[k] of lu holds U(k, j) for j >= k and the multiplier L(k, j) for j < k
    (the unit diagonal of L is not stored), so a[piv] = L @ U. out: (lu, piv) or None. Raises
    SingularMatrixError when a pivot falls below the library's threshold."""
    name = "lu_decomp"
    x, dt, n = _square(name, a)
    o_lu, o_piv = _outs(name, out, 2)
    o = output(o_lu, x.shape, dt, 2, name, inputs=(x,))
    piv = output(o_piv, x.shape[:-1], INT, 1, name + " (piv)", packed=True, inputs=(x, o.a))
    if o.count == 0:
        return o.a, piv.a
    p = operand(x, 2, dt, copy, name)
    arr = o.count > 1
    run(f"LUDecomp_m{'a' * arr}", dt, [(p, "m"), (piv, "p"), (o, "m"), n] + [COUNT] * arr, o.count)
    return o.a, piv.a


def _lu_run(name, dt, lu, piv, y, batch, n, out, copy, inputs):
    o = output(out, batch + (n,), dt, 1, name, inputs=inputs)
    if o.count == 0:
        return o.a
    p = operand(lu, 2, dt, copy, name + ": lu", batch)
    ip = operand(piv, 1, INT, copy, name + ": piv", batch)
    q = _vectors(y, dt, copy, name, batch, p)
    arr = o.count > 1
    run(_member("LUBackSubst", p, q, arr), dt,
        _solve_args(p, [(ip, "p")], q, o, [n], arr), o.count)
    return o.a


def lu_backsubst(lu_and_piv, b, out=None, *, copy=True):
    """Solves a x = b from lu_decomp's (lu, piv) for vectors b (..., n) -> x (..., n); one factor
    against a stack of vectors uses LUBackSubst_mva. For a right-hand-side matrix B (n, k), pass
    B.T: its columns are read in place as k vectors, and the result is X.T."""
    name = "lu_backsubst"
    lu, piv = lu_and_piv
    lu, dt, n = _square(name, lu)
    piv = np.asarray(piv)
    if piv.shape != lu.shape[:-1]:
        raise ValueError(f"{name}: piv has shape {piv.shape}, expected {lu.shape[:-1]}")
    if piv.dtype.kind not in "iu" or (piv.size and (piv.min() < 0 or piv.max() >= n)):
        raise ValueError(f"{name}: piv must hold row indices 0 ... {n - 1}")
    if piv.dtype != INT or not piv.flags.c_contiguous:
        if not copy:
            raise ValueError(f"{name}: piv cannot be read in place: the library reads contiguous "
                             f"int32 index arrays (copy=False)")
        piv = np.ascontiguousarray(piv, INT)
    y, batch = _rhs(name, lu, b, n)
    dt = result_type(lu, y)
    return _lu_run(name, dt, lu, piv, y, batch, n, out, copy, (lu, piv, y))


def _b_is_vectors(a, b):
    """How numpy.linalg.solve and scipy.linalg's solvers read b: vectors (..., n) when it has one
    axis fewer than the matrices a (..., n, n), else matrices (..., n, k)."""
    return b.ndim == a.ndim - 1


def lu_factor(a, overwrite_a=False, check_finite=True):
    """scipy.linalg.lu_factor: (lu, piv) of each matrix (..., n, n), P A = L U with lu holding U on
    and above the diagonal and L's multipliers below it, rows in pivot order, and piv (int32)
    LAPACK's interchanges: row i was exchanged with row piv[i], for i = 0, 1, ... in turn (the
    gufunc omkm.ufuncs.lu_factor). SingularMatrixError where the library's absolute pivot
    threshold is met (scipy warns and returns). overwrite_a is accepted; a is never overwritten."""
    x = _matrices("lu_factor", a)
    _finite("lu_factor", check_finite, x)
    return ufuncs.lu_factor(x)


def _factor_and_rhs(name, c, b, check_finite):
    """lu_solve's and cho_solve's factor c (square matrices (..., n, n), _matrices) and right-hand
    sides b as arrays, with check_finite a ValueError when either holds an inf or a NaN; the
    gufuncs then refuse dtypes as numpy.linalg does."""
    f = _matrices(name, c)
    y = b if type(b) is np.ndarray else np.asarray(b)
    _finite(name, check_finite, f, y)
    return f, y


def lu_solve(lu_and_piv, b, trans=0, overwrite_b=False, check_finite=True):
    """scipy.linalg.lu_solve: x with A x = b from lu_factor()'s (lu, piv); b holds vectors (..., n)
    when it has one axis fewer than lu, else matrices (..., n, k) whose columns are solved (the
    gufuncs omkm.ufuncs.lu_solve1 / lu_solve). trans 1 and 2 (A^T x = b, A^H x = b) raise
    NotImplementedError; piv entries outside 0 ... n-1 raise ValueError. overwrite_b is accepted;
    b is never overwritten."""
    if trans not in (0, "N"):
        raise NotImplementedError(f"lu_solve: trans={trans!r} (the library solves A x = b only)")
    lu, piv = lu_and_piv
    f, y = _factor_and_rhs("lu_solve", lu, b, check_finite)
    piv = piv if type(piv) is np.ndarray else np.asarray(piv)
    if piv.shape != f.shape[:-1] or piv.dtype.kind not in "iu":
        raise ValueError(f"lu_solve: piv must hold row numbers 0 ... {f.shape[-1] - 1}, shape {f.shape[:-1]}")
    return (ufuncs.lu_solve1 if _b_is_vectors(f, y) else ufuncs.lu_solve)(f, piv, y)


# ---- Cholesky ----

@planned
def cholesky_factor(a, out=None, *, copy=True):
    """The library's Cholesky factor A = L L^T of each symmetric positive definite matrix
    (..., n, n): L(i, j) below the diagonal and 1/L(i, i) on it; only the lower triangle of a is
    read and the strict upper triangle of the result is never written (zeros in a new array;
    cho_lower() gives L). Raises NotPosDefiniteError when a pivot is not positive."""
    name = "cholesky_factor"
    x, dt, n = _square(name, a)
    o = output(out, x.shape, dt, 2, name, inputs=(x,), alloc=np.zeros)
    if o.count == 0:
        return o.a
    p = operand(x, 2, dt, copy, name)
    arr = o.count > 1
    run(f"CholeskyDecomp_m{'a' * arr}", dt, [(p, "m"), (o, "m"), n] + [COUNT] * arr, o.count)
    return o.a


def cho_lower(c):
    """L from a cholesky_factor() factor: its strict lower triangle and the reciprocal of its diagonal."""
    c = np.asarray(c)
    low = np.tril(c, -1)
    i = np.arange(c.shape[-1])
    low[..., i, i] = 1 / c[..., i, i]
    return low


@planned
def cholesky_solve(c, b, out=None, *, copy=True):
    """Solves A x = b from a cholesky_factor() factor c (..., n, n) for vectors b (..., n)."""
    name = "cholesky_solve"
    f, _, n = _square(name, c)
    y, batch = _rhs(name, f, b, n)
    dt = result_type(f, y)
    o = output(out, batch + (n,), dt, 1, name, inputs=(f, y))
    if o.count == 0:
        return o.a
    p = operand(f, 2, dt, copy, name + ": c", batch)
    q = _vectors(y, dt, copy, name, batch, p)
    arr = o.count > 1
    run(_member("CholeskyBackSubst", p, q, arr), dt, _solve_args(p, [], q, o, [n], arr), o.count)
    return o.a


def cholesky(a, out=None):
    """numpy.linalg.cholesky: L with A = L L^T and zeros above the diagonal, for each symmetric
    positive definite matrix (..., n, n), from its lower triangle. NotPosDefiniteError (a
    LinAlgError) when a pivot is not positive."""
    x, dt, _ = _square("cholesky", a)
    return ufuncs.cholesky(x.astype(dt, copy=False), out=out)


def _finite(name, check_finite, *arrays):
    """scipy's check_finite: a ValueError when an array holds an inf or a NaN. Small operands are
    summed as Python numbers first: the sum is finite only when every term is, and only a sum that
    is not (an overflow, or a term that is not) is looked at element by element. On one small
    matrix that costs a fifth of numpy's isfinite().all(), whose reduction alone costs about as
    much as the factorization."""
    if not check_finite:
        return
    if (sum(x.size for x in arrays) <= 128 and all(x.dtype.kind in "biuf" for x in arrays)
            and math.isfinite(sum(sum(x.ravel().tolist()) for x in arrays))):
        return
    for x in arrays:
        if not np.isfinite(x).all():
            raise ValueError(f"{name}: array must not contain infs or NaNs")


def cho_factor(a, lower=False, overwrite_a=False, check_finite=True):
    """scipy.linalg.cho_factor: (c, lower), c holding L (lower) or U = L^T (upper, the default) in
    that triangle of each matrix (..., n, n), read from that triangle of a; the other triangle
    holds a's entries (the gufunc omkm.ufuncs.cho_factor; the upper form on transposed views).
    overwrite_a is accepted and a is never overwritten."""
    x = _matrices("cho_factor", a)
    _finite("cho_factor", check_finite, x)
    if lower:
        return ufuncs.cho_factor(x), True
    return ufuncs.cho_factor(x, axes=[(-1, -2), (-1, -2)]), False     # on a^T, written transposed


def cho_solve(c_and_lower, b, overwrite_b=False, check_finite=True):
    """scipy.linalg.cho_solve: x with A x = b from cho_factor()'s (c, lower); b holds vectors
    (..., n) when it has one axis fewer than c, else matrices (..., n, k) whose columns are solved
    (the gufuncs omkm.ufuncs.cho_solve1 / cho_solve, which read L from c's lower triangle: c itself
    when lower, else its transposed view). Only c's factor triangle is read. overwrite_b is
    accepted; b is never overwritten."""
    c, lower = c_and_lower
    f, y = _factor_and_rhs("cho_solve", c, b, check_finite)
    return (ufuncs.cho_solve1 if _b_is_vectors(f, y) else ufuncs.cho_solve)(f if lower else f.swapaxes(-1, -2), y)


# ---- QR ----

@planned
def qr_packed(a, out=None, *, copy=True):
    """The library's Householder QR of each matrix (..., h, w), h >= w: R on and above the diagonal,
    the Householder vectors below it (leading 1 implied); w - 1 reflections for a square matrix, w
    otherwise. Raises DivByZeroError for a column of negligible norm."""
    name = "qr_packed"
    x = asarray(a, name)
    if x.ndim < 2 or x.shape[-2] < x.shape[-1]:
        raise ValueError(f"{name}: a must hold matrices (..., h, w) with h >= w, got shape {x.shape}")
    h, w = x.shape[-2:]
    check_sizes(name, h, w)
    dt = result_type(x)
    o = output(out, x.shape, dt, 2, name, inputs=(x,))
    if o.count == 0:
        return o.a
    p = operand(x, 2, dt, copy, name)
    buf = _scratch(h * dt.itemsize)
    arr = o.count > 1
    run(f"QRDecomp_m{'a' * arr}", dt, [(p, "m"), buf, (o, "m"), w, h] + [COUNT] * arr, o.count)
    return o.a


def qr(a, mode="reduced"):
    """numpy.linalg.qr: (Q, R) with A = Q R for each matrix (..., m, n); mode 'reduced' (Q m x k,
    R k x n, k = min(m, n)), 'complete' (Q m x m, R m x n) or 'r' (R alone), by the gufuncs
    qr_reduced / qr_complete / qr_r: Q is the library's Householder reflections (qr_packed's) applied
    to the identity, and a wide matrix (m < n) is factored on its first m columns, R's other
    columns being Q^T times a's. mode 'raw' (LAPACK's own Householder form) raises
    NotImplementedError: qr_packed() gives the library's."""
    if mode not in ("reduced", "complete", "r", "raw"):
        raise ValueError(f"qr: unrecognized mode {mode!r}")
    if mode == "raw":
        raise NotImplementedError("qr: mode='raw' (LAPACK's Householder form); qr_packed() gives the library's")
    x = a if type(a) is np.ndarray else np.asarray(a)
    if x.ndim < 2:
        raise np.linalg.LinAlgError(f"qr: {x.ndim}-dimensional array given; it must have at least two axes")
    tall = x.shape[-2] >= x.shape[-1]
    if mode == "complete" or not tall:
        q, r = ufuncs.qr_complete(x)
        return r if mode == "r" else (q, r)
    return ufuncs.qr_r(x) if mode == "r" else ufuncs.qr_reduced(x)


@planned
def qr_solve(f, b, out=None, *, copy=True):
    """The least-squares solution x (..., w) of a x = b from a qr() factor f (..., h, w) and
    vectors b (..., h)."""
    name = "qr_solve"
    fa = asarray(f, name)
    if fa.ndim < 2 or fa.shape[-2] < fa.shape[-1]:
        raise ValueError(f"{name}: f must hold qr() factors (..., h, w) with h >= w, got shape {fa.shape}")
    h, w = fa.shape[-2:]
    check_sizes(name, h, w)
    y, batch = _rhs(name, fa, b, h)
    dt = result_type(fa, y)
    o = output(out, batch + (w,), dt, 1, name, inputs=(fa, y))
    if o.count == 0:
        return o.a
    p = operand(fa, 2, dt, copy, name + ": f", batch)
    q = _vectors(y, dt, copy, name, batch, p)
    buf = _scratch(h * dt.itemsize)
    arr = o.count > 1
    run(_member("QRBackSubst", p, q, arr), dt, _solve_args(p, [buf], q, o, [w, h], arr), o.count)
    return o.a


# ---- determinant and inverse: numpy.linalg's, the compiled gufuncs behind a check of the shape ----

def _matrices(name, a):
    """a as an array of square matrices (..., n, n), else NotSquareError (a LinAlgError, as
    numpy.linalg raises); the gufuncs then cast and refuse dtypes as numpy.linalg does."""
    x = a if type(a) is np.ndarray else np.asarray(a)
    if x.ndim < 2 or x.shape[-1] != x.shape[-2]:
        raise NotSquareError(f"{name}: a must hold square matrices (..., n, n), got shape {x.shape}")
    return x


def det(a, out=None):
    """numpy.linalg.det: the determinant of each matrix (..., n, n) -> (...). Never raises for a
    singular matrix (orders above 4 give 0 when a pivot falls below 2 n^3 times the smallest
    normal number)."""
    return ufuncs.det(_matrices("det", a), out=out)


def inv(a, out=None):
    """numpy.linalg.inv: the inverse of each matrix (..., n, n). Raises SingularMatrixError when
    |det| is below 2 n^3 times the smallest normal number (an absolute threshold)."""
    return ufuncs.inv(_matrices("inv", a), out=out)


# ---- symmetric eigenproblem ----

@planned
def eigen_sym_values(a, out=None, *, copy=True):
    """The library's form of eigvalsh: eigenvalues of each symmetric matrix (..., n, n) -> (..., n),
    in DESCENDING order (n >= 3; n = 2 in the order of its closed form). Raises SingularMatrixError when the product of the
    values is at most eps in magnitude (n >= 3; n = 2: |det| <= eps), NotConvergedError (the
    iteration's test of a negligible coupling is absolute, so a few random float32 matrices in
    100,000 reach the sweep limit; float64 converges on them)."""
    return _eigsym("eigen_sym_values", a, (out, None), copy, False)[0]


@planned
def eigen_sym(a, out=None, *, copy=True):
    """The library's form of eigh: (w, v), eigenvalues (..., n) descending and eigenvectors as the
    columns of v (..., n, n), a v[..., :, j] = w[..., j] v[..., :, j]. out: (w, v) or None. Errors
    as eigen_sym_values()."""
    return _eigsym("eigen_sym", a, _outs("eigen_sym", out, 2), copy, True)


# ---- numpy.linalg's names, with numpy's meaning, through the compiled gufuncs ----

def _triangle(name, a, UPLO):
    """What the gufuncs read for numpy.linalg.eigh's UPLO: their lower triangle is a's ('L') or
    a's transpose's, a view ('U')."""
    if UPLO not in ("L", "U"):
        raise ValueError(f"{name}: UPLO argument must be 'L' or 'U', got {UPLO!r}")
    x = _matrices(name, a)
    return x if UPLO == "L" else np.swapaxes(x, -1, -2)


def eigvalsh(a, UPLO="L", out=None):
    """numpy.linalg.eigvalsh: the eigenvalues of each symmetric matrix (..., n, n) -> (..., n),
    ascending, from its UPLO triangle. The library's singularity test is absolute: a matrix whose
    eigenvalues multiply to at most eps (2^-23, 2^-52) raises SingularMatrixError (n >= 3)."""
    return ufuncs.eigvalsh(_triangle("eigvalsh", a, UPLO), out=out)


def eigh(a, UPLO="L", out=None):
    """numpy.linalg.eigh: (w, v), eigenvalues ascending (..., n) and the eigenvectors as the columns
    of v (..., n, n), from the UPLO triangle of each symmetric matrix. out: (w, v) or None. Errors
    as eigvalsh()."""
    return ufuncs.eigh(_triangle("eigh", a, UPLO), out=_outs("eigh", out, 2))


def solve(a, b, out=None):
    """numpy.linalg.solve: x with a x = b for each matrix a (..., n, n); b holds vectors (..., n)
    when it has one axis fewer than a, else matrices (..., n, k), as numpy 1.x reads it. One LU
    decomposition per matrix (once for a matrix broadcast over b), then its back substitutions."""
    x, dt, n = _square("solve", a)
    y = asarray(b, "solve")
    dt = result_type(x, y)
    f = ufuncs.solve1 if _b_is_vectors(x, y) else ufuncs.solve
    return f(x.astype(dt, copy=False), y.astype(dt, copy=False), out=out)


def _eigsym(name, a, outs, copy, vectors):
    x, dt, n = _square(name, a)
    w = output(outs[0], x.shape[:-1], dt, 1, name + " (w)", packed=True, inputs=(x,))
    v = output(outs[1], x.shape, dt, 2, name + " (v)", inputs=(x, w.a)) if vectors else None
    if w.count == 0:
        return w.a, v and v.a
    p = operand(x, 2, dt, copy, name)
    buf = _scratch(n * n * dt.itemsize)
    arr = w.count > 1
    a_ = "a" * arr
    if vectors:
        run(f"EigenValuesVectorsSym_m{a_}", dt, [(p, "m"), buf, (v, "m"), (w, "p"), n] + [COUNT] * arr,
            w.count)
        return w.a, v.a
    run(f"EigenValuesSym_m{a_}", dt, [(p, "m"), buf, (w, "p"), n] + [COUNT] * arr, w.count)
    return w.a, None


# ---- general eigenproblem ----

_bufsize = {}


def _eig_buffer(dt, n, vectors):
    key = (dt, n, vectors)
    nbytes = _bufsize.get(key)
    if nbytes is None:
        size = ctypes.c_int(0)
        f = fn("EigenValuesVectorsGetBufSize" if vectors else "EigenValuesGetBufSize", dt)
        st = f(n, ctypes.addressof(size))
        if st:
            raise_status(st, f.__name__)
        nbytes = _bufsize[key] = size.value
    return _scratch(nbytes)


def _complex_vectors(v, im, dst):
    """dst (complex) from the library's real layout: a real value's vector in its column, a
    pair's vector with its real values in the first column and imaginary values in the second; the
    second value of a pair (negative imaginary component) takes the conjugate."""
    pos = (im > 0)[..., None, :]
    neg = (im < 0)[..., None, :]
    nxt = np.roll(v, -1, axis=-1)
    prv = np.roll(v, 1, axis=-1)
    dst.real[...] = np.where(neg, prv, v)
    dst.imag[...] = np.where(pos, nxt, np.where(neg, -v, 0))
    return dst


def eigvals(a, out=None):
    """numpy.linalg.eigvals: eigenvalues of each general matrix (..., n, n) -> (..., n), complex
    (complex64 for float32) unless every value of the call is real (then real, as numpy casts),
    in the order the library finds them (not sorted; a conjugate pair consecutive, positive
    imaginary component first). out (complex) keeps them complex. Raises NotConvergedError."""
    w = ufuncs.eigvals(_matrices("eigvals", a), out=out)
    return w if out is not None or w.imag.any() else w.real.copy()


def eig(a, left=False, right=True, out=None):
    """numpy.linalg.eig: (w, v), eigenvalues (..., n) and right eigenvectors as the columns of v
    (..., n, n), a v[..., :, j] = w[j] v[..., :, j], each of norm 1 with its largest component
    real and positive; complex (complex64 for float32) unless every value of the call is real,
    when they are real arrays, as numpy casts them. out, a tuple of complex arrays, keeps them
    complex. As scipy.linalg.eig, left=True adds the left vectors (w, vl, vr; vl^H a = w vl^H)
    and right=False leaves out the right ones. Raises NotConvergedError."""
    x = _matrices("eig", a)
    if left:
        return _eig_left(x, right, out)
    if not right:
        return eigvals(x, out=out)
    w, v = ufuncs.eig(x, out=_outs("eig", out, 2))
    if out is not None or w.imag.any():
        return w, v
    return w.real.copy(), v.real.copy()


def _eig_left(a, right, out):
    """eig with left vectors, which the gufuncs do not compute: the library's array members."""
    name = "eig"
    x, dt, n = _square(name, a)
    cdt = np.dtype(np.complex64 if dt == F32 else np.complex128)
    k = 2 + bool(right)
    outs = _outs(name, out, k)
    shapes = [x.shape[:-1]] + [x.shape] * (k - 1)
    res = []
    for o, shape in zip(outs, shapes):
        if o is None:
            o = np.empty(shape, cdt)
        elif not isinstance(o, np.ndarray) or o.dtype != cdt:
            raise TypeError(f"{name}: out arrays must be {cdt} numpy arrays")
        elif o.shape != shape:
            raise ValueError(f"{name}: out has shape {o.shape}, the result has {shape}")
        elif not o.flags.writeable or np.may_share_memory(o, x):
            raise ValueError(f"{name}: out must be writeable and not overlap a")
        res.append(o)
    re = output(None, x.shape[:-1], dt, 1, name)
    im = output(None, x.shape[:-1], dt, 1, name)
    vs = [output(None, x.shape, dt, 2, name) for _ in range(k - 1)]
    if re.count:
        p = operand(x, 2, dt, True, name)
        buf = _eig_buffer(dt, n, True)
        arr = re.count > 1
        member = "EigenValuesVectors" if right else "EigenValuesVectorsLeft"
        run(f"{member}_m{'a' * arr}", dt,
            [(p, "m")] + [(v, "m") for v in vs] + [(re, "p"), (im, "p"), n] + [COUNT] * arr + [buf],
            re.count)
    if out is None and not np.any(im.a):        # all values real: real arrays, as numpy.linalg.eig gives
        return (re.a,) + tuple(v.a for v in vs)
    res[0].real[...] = re.a
    res[0].imag[...] = im.a
    for v, dst in zip(vs, res[1:]):
        _complex_vectors(v.a, im.a[..., :], dst)
    return tuple(res)
