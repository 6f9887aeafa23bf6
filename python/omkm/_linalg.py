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


def _by_columns(name, y, f, n, vectors):
    """The solutions for right-hand sides y against factors f (..., n, n), read as _b_is_vectors
    says: vectors(False, y) for vectors; for matrices, vectors(True, columns) with the columns as
    vectors (..., k, n) (f then needs an axis for k), the result turned back to (..., n, k)."""
    if _b_is_vectors(f, y):
        return vectors(False, y)
    if y.ndim < 2 or y.shape[-2] != n:
        raise ValueError(f"{name}: b must hold vectors (..., {n}) or matrices (..., {n}, k), got shape {y.shape}")
    return np.swapaxes(vectors(True, np.swapaxes(y, -1, -2)), -1, -2)


def lu_factor(a, overwrite_a=False, check_finite=True):
    """scipy.linalg.lu_factor: (lu, piv) of each matrix (..., n, n), P A = L U with lu holding U on
    and above the diagonal and L's multipliers below it, rows in pivot order, and piv (int32)
    LAPACK's interchanges: row i was exchanged with row piv[i], for i = 0, 1, ... in turn. From
    lu_decomp, whose rows stay in place. SingularMatrixError where the library's absolute pivot
    threshold is met (scipy warns and returns). overwrite_a is accepted; a is never overwritten."""
    x, dt, n = _square("lu_factor", a)
    _finite("lu_factor", check_finite, x)
    lu, order = lu_decomp(x)
    lu = np.take_along_axis(lu, order[..., :, None].astype(np.intp), axis=-2)
    # The interchanges that take 0 ... n-1 to the library's row order.
    rows = np.broadcast_to(np.arange(n), order.shape).copy()
    where = rows.copy()                           # where[r]: the position of row r in `rows`
    piv = np.empty(order.shape, np.int32)
    for i in range(n):
        j = np.take_along_axis(where, order[..., i:i + 1].astype(np.intp), axis=-1)[..., 0]
        piv[..., i] = j
        ri = rows[..., i].copy()
        rj = np.take_along_axis(rows, j[..., None], axis=-1)[..., 0]
        rows[..., i] = rj
        np.put_along_axis(rows, j[..., None], ri[..., None], axis=-1)
        np.put_along_axis(where, rj[..., None], i, axis=-1)
        np.put_along_axis(where, ri[..., None], j[..., None], axis=-1)
    return lu, piv


def lu_solve(lu_and_piv, b, trans=0, overwrite_b=False, check_finite=True):
    """scipy.linalg.lu_solve: x with A x = b from lu_factor()'s (lu, piv); b holds vectors (..., n)
    when it has one axis fewer than lu, else matrices (..., n, k) whose columns are solved.
    trans 1 and 2 (A^T x = b, A^H x = b) raise NotImplementedError."""
    if trans not in (0, "N"):
        raise NotImplementedError(f"lu_solve: trans={trans!r} (the library solves A x = b only)")
    lu, piv = lu_and_piv
    f, dt, n = _square("lu_solve", lu)
    y = asarray(b, "lu_solve")
    _finite("lu_solve", check_finite, f, y)
    piv = np.asarray(piv)
    if piv.shape != f.shape[:-1] or piv.dtype.kind not in "iu" or (piv.size and (piv.min() < 0 or piv.max() >= n)):
        raise ValueError(f"lu_solve: piv must hold row numbers 0 ... {n - 1}, shape {f.shape[:-1]}")
    # The row order P gives: the interchanges applied in turn to 0 ... n-1.
    order = np.broadcast_to(np.arange(n), piv.shape).copy()
    for i in range(n):
        j = piv[..., i:i + 1].astype(np.intp)
        oi, oj = order[..., i:i + 1].copy(), np.take_along_axis(order, j, axis=-1)
        order[..., i:i + 1] = oj
        np.put_along_axis(order, j, oi, axis=-1)
    identity = np.broadcast_to(np.arange(n, dtype=INT), piv.shape)

    def vectors(cols, v):                         # P b, then the library's solve with rows in order
        ax = (slice(None),) * (f.ndim - 2) + (None,) * cols
        pb = np.take_along_axis(v, order[ax].astype(np.intp), axis=-1)
        return lu_backsubst((f[ax], identity[ax]), pb)

    return _by_columns("lu_solve", y, f, n, vectors)


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
    if check_finite and not all(np.isfinite(x).all() for x in arrays):
        raise ValueError(f"{name}: array must not contain infs or NaNs")


def cho_factor(a, lower=False, overwrite_a=False, check_finite=True):
    """scipy.linalg.cho_factor: (c, lower), c holding L (lower) or U = L^T (upper, the default) in
    that triangle of each matrix (..., n, n), read from that triangle of a; the other triangle
    holds a's entries. overwrite_a is accepted and a is never overwritten."""
    x, dt, n = _square("cho_factor", a)
    _finite("cho_factor", check_finite, x)
    x = x.astype(dt, copy=False)
    low = np.tri(n, dtype=bool)
    if lower:
        c = np.where(low, ufuncs.cholesky(x), x)
    else:
        c = np.where(low.T, np.swapaxes(ufuncs.cholesky(np.swapaxes(x, -1, -2)), -1, -2), x)
    return c, bool(lower)


def cho_solve(c_and_lower, b, overwrite_b=False, check_finite=True):
    """scipy.linalg.cho_solve: x with A x = b from cho_factor()'s (c, lower); b holds vectors
    (..., n) when it has one axis fewer than c, else matrices (..., n, k) whose columns are solved."""
    c, lower = c_and_lower
    f, dt, n = _square("cho_solve", c)
    y = asarray(b, "cho_solve")
    _finite("cho_solve", check_finite, f, y)
    dt = result_type(f, y)
    f = f.astype(dt, copy=False)
    factor = np.tril(f) if lower else np.swapaxes(np.triu(f), -1, -2)
    i = np.arange(n)
    factor[..., i, i] = 1 / factor[..., i, i]       # the library's factor holds 1/L(i, i)
    return _by_columns("cho_solve", y.astype(dt, copy=False), f, n,
                       lambda cols, v: cholesky_solve(factor[..., None, :, :] if cols else factor, v))


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
    R k x n, k = min(m, n)), 'complete' (Q m x m, R m x n) or 'r' (R alone). From the library's
    Householder factor (qr_packed): Q is its reflections applied to the identity, each
    H = I - beta v v^T with beta = 2 / (v^T v) as the library's solver forms it. A wide matrix
    (m < n) is factored on its first m columns, R's other columns being Q^T times a's. mode 'raw'
    (LAPACK's own Householder form) raises NotImplementedError: qr_packed is the library's."""
    if mode not in ("reduced", "complete", "r", "raw"):
        raise ValueError(f"qr: unrecognized mode {mode!r}")
    if mode == "raw":
        raise NotImplementedError("qr: mode='raw' (LAPACK's Householder form); qr_packed() gives the library's")
    x = asarray(a, "qr")
    if x.ndim < 2:
        raise np.linalg.LinAlgError(f"qr: {x.ndim}-dimensional array given; it must have at least two axes")
    dt = result_type(x)
    x = x.astype(dt, copy=False)
    m, n = x.shape[-2:]
    k = min(m, n)
    f = qr_packed(x[..., :, :k] if m < n else x)
    r = np.triu(f if mode == "complete" else f[..., :k, :])
    if m < n:
        r = np.concatenate([r, np.zeros(r.shape[:-1] + (n - k,), dt)], axis=-1)
    if mode == "r" and m >= n:
        return r
    cols = m if mode == "complete" else k
    q = np.zeros(x.shape[:-2] + (m, cols), dt)
    q[..., np.arange(cols), np.arange(cols)] = 1
    for j in reversed(range(k - 1 if k == m else k)):       # H_0 (H_1 (... H_last I))
        v = f[..., j:, j].copy()
        v[..., 0] = 1
        beta = 2 / np.sum(v * v, axis=-1)
        q[..., j:, :] -= (beta[..., None] * v)[..., :, None] * (v[..., None, :] @ q[..., j:, :])
    if m < n:
        r[..., :, k:] = np.swapaxes(q, -1, -2) @ x[..., :, k:]
        if mode == "r":
            return r
    return q, r


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


# ---- determinant and inverse ----

@planned
def det(a, out=None, *, copy=True):
    """The determinant of each matrix (..., n, n) -> (...); out must be C-contiguous. Never
    raises for a singular matrix (orders above 4 give 0 below the library's tolerance)."""
    name = "det"
    x, dt, n = _square(name, a)
    o = output(out, x.shape[:-2], dt, 0, name, packed=True, inputs=(x,))
    if o.count == 0:
        return o.a
    p = operand(x, 2, dt, copy, name)
    buf = _scratch(n * n * dt.itemsize + 4 * n)
    arr = o.count > 1
    run(f"Det_m{'a' * arr}", dt, [(p, "m"), n, buf, (o, "p")] + [COUNT] * arr, o.count)
    return o.a if out is not None or o.a.ndim else o.a[()]


@planned
def inv(a, out=None, *, copy=True):
    """The inverse of each matrix (..., n, n). Raises SingularMatrixError when |det| is below the
    library's tolerance; out must not overlap a."""
    name = "inv"
    x, dt, n = _square(name, a)
    o = output(out, x.shape, dt, 2, name, inputs=(x,))
    if o.count == 0:
        return o.a
    p = operand(x, 2, dt, copy, name)
    buf = _scratch(n * n * dt.itemsize + 4 * n)
    arr = o.count > 1
    run(f"Invert_m{'a' * arr}", dt, [(p, "m"), buf, (o, "m"), n] + [COUNT] * arr, o.count)
    return o.a


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

def _symmetric(name, a, UPLO):
    """The symmetric matrices numpy.linalg.eigh reads from a: its lower (UPLO 'L') or upper ('U')
    triangle, mirrored; in the working dtype."""
    if UPLO not in ("L", "U"):
        raise ValueError(f"{name}: UPLO argument must be 'L' or 'U', got {UPLO!r}")
    x, dt, n = _square(name, a)
    low = np.tri(n, dtype=bool)
    x = x.astype(dt, copy=False)
    return np.where(low if UPLO == "L" else low.T, x, np.swapaxes(x, -1, -2))


def eigvalsh(a, UPLO="L", out=None):
    """numpy.linalg.eigvalsh: the eigenvalues of each symmetric matrix (..., n, n) -> (..., n),
    ascending, from its UPLO triangle. The library's singularity test is absolute: a matrix whose
    eigenvalues multiply to at most eps (2^-23, 2^-52) raises SingularMatrixError (n >= 3)."""
    return ufuncs.eigvalsh(_symmetric("eigvalsh", a, UPLO), out=out)


def eigh(a, UPLO="L", out=None):
    """numpy.linalg.eigh: (w, v), eigenvalues ascending (..., n) and the eigenvectors as the columns
    of v (..., n, n), from the UPLO triangle of each symmetric matrix. out: (w, v) or None. Errors
    as eigvalsh()."""
    return ufuncs.eigh(_symmetric("eigh", a, UPLO), out=_outs("eigh", out, 2))


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


def eigvals(a, out=None, *, copy=True):
    """numpy.linalg.eigvals: eigenvalues of each general matrix (..., n, n) -> (..., n), complex
    (complex64 for float32) unless every value of the call is real (then real, as numpy casts),
    in the order the library finds them (not sorted; a conjugate pair consecutive, positive
    imaginary component first). Raises NotConvergedError."""
    return eig(a, left=False, right=False, out=out, copy=copy)


def eig(a, left=False, right=True, out=None, *, copy=True):
    """Eigenvalues and eigenvectors of each general matrix (..., n, n), as scipy.linalg.eig:
    returns w, then vl if left, then vr if right (w alone when neither). Right vectors satisfy
    a vr[..., :, j] = w[j] vr[..., :, j], left vectors vl^H a = w vl^H; each has norm 1 with its
    largest component real and positive. With the defaults this is numpy.linalg.eig: results are
    complex (complex64 for float32) unless every value of the call is real, when they are real
    arrays, as numpy casts them; out is a tuple of complex arrays (w alone for eigvals) and keeps
    them complex. Raises NotConvergedError."""
    name = "eig" if left or right else "eigvals"
    x, dt, n = _square(name, a)
    cdt = np.dtype(np.complex64 if dt == F32 else np.complex128)
    k = 1 + bool(left) + bool(right)
    outs = _outs(name, out if k > 1 or out is None or isinstance(out, tuple) else (out,), k)
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
        p = operand(x, 2, dt, copy, name)
        buf = _eig_buffer(dt, n, k > 1)
        arr = re.count > 1
        member = {(False, False): "EigenValues", (True, False): "EigenValuesVectorsLeft",
                  (False, True): "EigenValuesVectorsRight", (True, True): "EigenValuesVectors"}
        run(f"{member[bool(left), bool(right)]}_m{'a' * arr}", dt,
            [(p, "m")] + [(v, "m") for v in vs] + [(re, "p"), (im, "p"), n] + [COUNT] * arr + [buf],
            re.count)
    if out is None and not np.any(im.a):        # all values real: real arrays, as numpy.linalg.eig gives
        real = [re.a] + [v.a for v in vs]
        return real[0] if k == 1 else tuple(real)
    res[0].real[...] = re.a
    res[0].imag[...] = im.a
    for v, dst in zip(vs, res[1:]):
        _complex_vectors(v.a, im.a[..., :], dst)
    return res[0] if k == 1 else tuple(res)
