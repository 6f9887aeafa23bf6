"""omkm.ufuncs, the compiled gufuncs, against numpy.linalg / numpy as the oracle."""
import sys

import numpy as np
import pytest

import omkm
from conftest import stack, tol, variants

uf = omkm.ufuncs
COUNT = 7


def points_matrix(rng, lead, dt):
    """4x4 transforms whose w column keeps (x, y, z, 1) @ m away from w = 0."""
    m = rng.standard_normal(lead + (4, 4))
    m[..., :3, 3] *= 0.1
    m[..., 3, 3] = 2.0
    return m.astype(dt)


def coord(m, p):
    h = np.concatenate([p, np.ones(p.shape[:-1] + (1,))], -1)[..., None, :] @ m
    return h[..., 0, :3] / h[..., 0, 3:]


def eigh_oracle(a):
    w, v = np.linalg.eigh(a)
    return w, signed(v)


def signed(v):
    """Eigenvector columns with the sign that makes their largest component positive."""
    i = np.argmax(np.abs(v), axis=-2)[..., None, :]
    return v * np.sign(np.take_along_axis(v, i, axis=-2))


def solve_oracle(a, b):
    """numpy.linalg.solve on stacks broadcast first (numpy 1.x reads a b of a.ndim - 1 axes as vectors)."""
    lead = np.broadcast_shapes(a.shape[:-2], b.shape[:-2])
    return np.linalg.solve(np.broadcast_to(a, lead + a.shape[-2:]), np.broadcast_to(b, lead + b.shape[-2:]))


def lu_factor_oracle(a):
    """scipy.linalg.lu_factor of each matrix (it takes one at a time)."""
    sl = pytest.importorskip("scipy.linalg")
    f = [sl.lu_factor(m) for m in a.reshape((-1,) + a.shape[-2:])]
    return np.reshape([x[0] for x in f], a.shape), np.reshape([x[1] for x in f], a.shape[:-1]).astype(np.int32)


def per_object(f, cores):
    """f (scipy.linalg's solvers take one object at a time) on each object of operands broadcast
    over their leading axes; cores: the core axes of each operand."""
    def run(*args):
        lead = np.broadcast_shapes(*[a.shape[:a.ndim - c] for a, c in zip(args, cores)])
        args = [np.broadcast_to(a, lead + a.shape[a.ndim - c:]) for a, c in zip(args, cores)]
        res = [f(*[a[i] for a in args]) for i in np.ndindex(lead)]
        return np.reshape(res, lead + np.shape(res[0]))
    return run


def lu_solve_oracle(b_axes):
    sl = pytest.importorskip("scipy.linalg")
    return per_object(lambda lu, piv, b: sl.lu_solve((lu, piv.astype(np.int32)), b), (2, 1, b_axes))


def cho_solve_oracle(b_axes):
    sl = pytest.importorskip("scipy.linalg")
    return per_object(lambda c, b: sl.cho_solve((c, True), b, check_finite=False), (2, b_axes))


def canonical_eig(w, v=None):
    """Complex values sorted by real, then imaginary part, the vector columns to match scaled to norm
    1 with their largest component real and positive: one form for two eigensolvers' results."""
    i = np.lexsort((w.imag, w.real))
    w = np.take_along_axis(w, i, axis=-1)
    if v is None or v.size == 0:
        return (w,) if v is None else (w, v)
    v = np.take_along_axis(v, i[..., None, :], axis=-1)
    v = v / np.linalg.norm(v, axis=-2, keepdims=True)
    big = np.take_along_axis(v, np.abs(v).argmax(axis=-2)[..., None, :], axis=-2)
    return w, v * (np.conj(big) / np.abs(big))


def qr_oracle(mode):
    return lambda a: np.linalg.qr(a, mode)


def general(shape):
    return lambda rng, lead, dt: stack(rng, lead + shape, dt)


def square(kind, n=4):
    return lambda rng, lead, dt: stack(rng, lead + (n, n), dt, kind)


def lu_of(n):
    """scipy.linalg.lu_factor's lu: U on and above the diagonal, multipliers of magnitude below 1
    under it, as partial pivoting gives."""
    def make(rng, lead, dt):
        a = stack(rng, lead + (n, n), np.float64, "wellcond")
        return (np.triu(a) + np.tanh(np.tril(a, -1))).astype(dt)
    return make


def piv_of(n):
    """LAPACK's interchanges, row i with row piv[i] >= i, as int64 (numpy's integers): the dtype rule
    casts them to int32 without counting them as values, so float32 factors give float32 results."""
    return lambda rng, lead, dt: rng.integers(np.arange(n), n, lead + (n,))


def cho_of(n):
    """scipy.linalg.cho_factor's c with lower=True: L with a positive diagonal, NaN above it (never read)."""
    def make(rng, lead, dt):
        a = stack(rng, lead + (n, n), np.float64)
        low = np.tril(a, -1) + np.eye(n) * (1 + np.abs(a))
        return np.where(np.tri(n, dtype=bool), low, np.nan).astype(dt)
    return make


# name -> (operand makers (rng, leading shape, dtype), oracle on float64 operands)
CASES = {
    "matmul": ([general((4, 3)), general((3, 5))], np.matmul),
    "matvec": ([general((4, 3)), general((3,))], lambda a, x: (a @ x[..., None])[..., 0]),
    "vecmat": ([general((4,)), general((4, 3))], lambda x, a: (x[..., None, :] @ a)[..., 0, :]),
    "vecdot": ([general((5,)), general((5,))], lambda a, b: np.sum(a * b, axis=-1)),
    "cross": ([general((3,)), general((3,))], np.cross),
    "vector_norm": ([general((5,))], lambda x: np.linalg.norm(x, axis=-1)),
    "matrix_norm": ([general((4, 3))], lambda a: np.linalg.norm(a, axis=(-2, -1))),
    "trace": ([general((4, 4))], lambda a: np.trace(a, axis1=-2, axis2=-1)),
    "det": ([general((4, 4))], np.linalg.det),
    "inv": ([square("wellcond")], np.linalg.inv),
    "solve": ([square("wellcond"), general((4, 2))], solve_oracle),
    "solve1": ([square("wellcond"), general((4,))], lambda a, b: solve_oracle(a, b[..., None])[..., 0]),
    "lu_factor": ([general((5, 5))], lu_factor_oracle),
    "lu_factor order 8": ([general((8, 8))], lu_factor_oracle),     # the library's general loop
    "lu_solve": ([lu_of(4), piv_of(4), general((4, 3))], lu_solve_oracle(2)),
    "lu_solve1": ([lu_of(4), piv_of(4), general((4,))], lu_solve_oracle(1)),
    "lu_solve order 8": ([lu_of(8), piv_of(8), general((8, 2))], lu_solve_oracle(2)),
    "qr_reduced": ([general((5, 3))], qr_oracle("reduced")),
    "qr_reduced square": ([general((4, 4))], qr_oracle("reduced")),
    "qr_complete": ([general((5, 3))], qr_oracle("complete")),
    "qr_complete wide": ([general((3, 5))], qr_oracle("complete")),
    "qr_r": ([general((5, 3))], qr_oracle("r")),
    "eig": ([general((5, 5))], lambda a: canonical_eig(*[x.astype(complex) for x in np.linalg.eig(a)])),
    "eigvals": ([general((5, 5))], lambda a: canonical_eig(np.linalg.eigvals(a).astype(complex))),
    "eigvalsh": ([square("spd")], np.linalg.eigvalsh),
    "eigh": ([square("spd")], eigh_oracle),
    "cholesky": ([square("spd")], np.linalg.cholesky),
    "cho_factor": ([square("spd")], lambda a: np.where(np.tri(4, dtype=bool), np.linalg.cholesky(a), a)),
    "cho_solve": ([cho_of(4), general((4, 2))], cho_solve_oracle(2)),
    "cho_solve1": ([cho_of(4), general((4,))], cho_solve_oracle(1)),
    "transform_points": ([points_matrix, general((3,))], coord),
}


def results(name, *args, **kw):
    """The gufunc of CASES row `name` (its first word) on args, as a tuple."""
    name = name.split()[0]
    r = getattr(uf, name)(*args, **kw)
    if name == "eigh":
        return r[0], signed(r[1])
    if name in ("eig", "eigvals"):
        return canonical_eig(*(r if isinstance(r, tuple) else (r,)))
    return r if isinstance(r, tuple) else (r,)


def check(name, args, dt):
    want = CASES[name][1](*[a.astype(np.float64) for a in args])
    want = want if isinstance(want, tuple) else (want,)
    got = results(name, *args)
    assert len(got) == len(want)
    for g, w in zip(got, want):
        # interchanges are int32; complex results have the loop's precision
        kind = {"i": np.int32, "c": np.result_type(dt, np.complex64)}.get(w.dtype.kind, dt)
        assert g.dtype == kind and g.shape == w.shape, (name, g.dtype, g.shape, w.shape)
        np.testing.assert_allclose(g, w, err_msg=name, **tol(dt))
    return got


@pytest.mark.parametrize("name", CASES)
def test_against_numpy(name, dt, rng):
    makers = CASES[name][0]
    if name == "transform_points" and dt == np.float64:
        with pytest.raises(TypeError):
            uf.transform_points(*[f(rng, (COUNT,), dt) for f in makers])
        dt = np.dtype(np.float32)
    full = [f(rng, (COUNT,), dt) for f in makers]
    one = [f(rng, (), dt) for f in makers]
    check(name, full, dt)
    if len(makers) > 1:        # one operand a single object, each in turn: its outer step is 0
        for i in range(len(makers)):
            check(name, full[:i] + [one[i]] + full[i + 1:], dt)
        check(name, [f(rng, (2, 1), dt) for f in makers[:1]] + [f(rng, (3,), dt) for f in makers[1:]], dt)
    else:                      # the one operand broadcast: computed once, copied to each result
        b = np.broadcast_to(one[0], (COUNT,) + one[0].shape)
        for g, w in zip(results(name, b), results(name, one[0])):
            np.testing.assert_array_equal(g, np.broadcast_to(w, g.shape))
    check(name, one, dt)


# Products and norms read in place with elements not consecutive (strided and batch-innermost
# views) run the library's strided kernels, whose rounding order differs from the contiguous ones
# (omkm.h gives the orders of dot products and norms): those agree to rounding. Every other case
# gives the same bits: transposed matrices go to the t members, which read the stored matrix's
# packed rows, and reversed and misaligned operands are copied.
ORDER_BY_STRIDE = {"matmul", "matvec", "vecmat", "vecdot", "vector_norm"}


@pytest.mark.parametrize("name", CASES)
def test_layouts(name, dt, rng):
    makers, _ = CASES[name]
    if name == "transform_points":
        dt = np.dtype(np.float32)
    args = [f(rng, (COUNT,), dt) for f in makers]
    ref = results(name, *args)
    for layout, (a, _) in variants(args[0], args[0].ndim - 1).items():
        got = results(name, a, *args[1:])
        for g, r in zip(got, ref):
            if name.split()[0] in ORDER_BY_STRIDE and layout in ("strided", "batch_innermost"):
                np.testing.assert_allclose(g, r, err_msg=f"{name} {layout}", **tol(dt))
            else:
                np.testing.assert_array_equal(g, r, err_msg=f"{name} {layout}")


@pytest.mark.parametrize("sa, sb", [((3,), (3, 5)), ((4, 3), (3,)), ((3,), (3,)), ((3,), (2, 3, 5)),
                                     ((2, 4, 3), (3,))])
def test_matmul_vectors(rng, dt, sa, sb):
    """numpy.matmul's 1-D operands: a row on the left, a column on the right, the axis dropped."""
    a, b = stack(rng, sa, dt), stack(rng, sb, dt)
    got, want = uf.matmul(a, b), np.matmul(a.astype(np.float64), b.astype(np.float64))
    assert got.dtype == dt and got.shape == want.shape
    np.testing.assert_allclose(got, want, **tol(dt))


# A zero core size: numpy's results (zeros, det 1, the identity for qr's complete Q, empty arrays).
EMPTY = [("det", (2, 0, 0)), ("trace", (2, 0, 0)), ("vector_norm", (2, 0)), ("matrix_norm", (3, 0)),
         ("vecdot", (2, 0), (0,)), ("matmul", (2, 0), (0, 3)), ("matmul", (0, 3), (3, 2)),
         ("matvec", (2, 0), (0,)), ("vecmat", (0,), (0, 2)), ("inv", (2, 0, 0)), ("solve", (0, 0), (0, 3)),
         ("qr_complete", (2, 3, 0)), ("qr_reduced", (3, 0)), ("eig", (2, 0, 0))]


@pytest.mark.parametrize("row", EMPTY, ids=lambda r: r[0])
def test_zero_core_size(row, dt):
    name, *shapes = row
    check(name, [np.ones(s, dt) for s in shapes], dt)


def test_out_and_axes(rng):
    a = stack(rng, (COUNT, 4, 4), np.float64, "wellcond")
    out = np.full((2 * COUNT, 4, 4), np.nan)[::2]        # a strided out: written in place
    assert uf.inv(a, out=out) is out
    np.testing.assert_array_equal(out, uf.inv(a))
    d = np.full(2 * COUNT, np.nan)[::-2]                  # the library writes dets packed: a copy
    assert uf.det(a, out=d) is d
    np.testing.assert_array_equal(d, uf.det(a))
    b = np.moveaxis(a, 0, -1).copy()                     # the matrices on axes 0 and 1
    r = uf.inv(b, axes=[(0, 1), (0, 1)])
    assert r.shape == (4, 4, COUNT)
    np.testing.assert_allclose(np.moveaxis(r, -1, 0), np.linalg.inv(a), **tol(np.float64))
    w, v = (np.zeros((COUNT, 4)), np.zeros((COUNT, 4, 4), order="F"))
    s = stack(rng, (COUNT, 4, 4), np.float64, "spd")
    assert all(x is y for x, y in zip(uf.eigh(s, out=(w, v)), (w, v)))
    np.testing.assert_allclose(w, np.linalg.eigvalsh(s), **tol(np.float64))
    piv, z = np.zeros((2 * COUNT, 4), np.int32)[::-2], np.zeros((2 * COUNT, 4), complex)[::-2]
    assert uf.lu_factor(a, out=(None, piv))[1] is piv and uf.eigvals(a, out=z) is z   # copied back
    np.testing.assert_array_equal(piv, uf.lu_factor(a)[1])
    np.testing.assert_array_equal(z, uf.eigvals(a))


@pytest.mark.parametrize("layout", ["contiguous", "reversed"])
def test_errors(rng, layout):
    a = stack(rng, (5, 4, 4), np.float64, "wellcond")
    a[2] = 1.0                                           # singular, in the middle of the stack
    a = variants(a, 2)[layout][0]
    for call in (lambda: uf.inv(a), lambda: uf.solve1(a, np.ones(4)), lambda: uf.lu_factor(a)):
        with pytest.raises(omkm.SingularMatrixError, match="absolute threshold") as e:
            call()
        assert isinstance(e.value, np.linalg.LinAlgError) and e.value.status == -206
    s = stack(rng, (5, 4, 4), np.float64, "spd")
    s[3] = -np.eye(4)
    with pytest.raises(omkm.NotPosDefiniteError) as e:
        uf.cholesky(variants(s, 2)[layout][0])
    assert isinstance(e.value, np.linalg.LinAlgError) and e.value.status == -205
    for f in (uf.qr_reduced, uf.qr_r):
        with pytest.raises(ValueError, match=r"m >= n, got \(3, 5\)"):
            f(np.ones((2, 3, 5)))
    t = stack(rng, (5, 6, 3), np.float64)
    t[1, :, 2] = 0                                       # a column of norm 0
    with pytest.raises(omkm.DivByZeroError, match="absolute threshold"):
        uf.qr_complete(variants(t, 2)[layout][0])


@pytest.mark.parametrize("name", ["lu_factor", "qr_r", "eig", "lu_solve", "cho_solve"])
def test_stacks_in_blocks(rng, name):
    """Stacks long enough for the library's threads and, for gufuncs with scratch per object,
    for several blocks of calls."""
    check(name, [f(rng, (3000,), np.float64) for f in CASES[name][0]], np.float64)


@pytest.mark.parametrize("bad", [4, -1])
def test_lu_solve_rows(rng, bad):
    """A piv entry outside 0 ... m-1 raises ValueError before anything is written, wherever it is in
    the stack (here in the last of several blocks of calls) and whether piv is read in place or copied."""
    makers = CASES["lu_solve1"][0]
    lu, piv, b = [f(rng, (3000,), np.float64) for f in makers]
    piv = piv.astype(np.int32)                           # the loop's own dtype: read where it is
    piv[-1, 2] = bad
    for p in (piv, piv[::-1].copy()[::-1]):
        out = np.full((3000, 4), 7.0)
        with pytest.raises(ValueError, match=rf"row numbers 0 \.\.\. 3, got {bad}"):
            uf.lu_solve1(lu, p, b, out=out)
        assert (out == 7).all()


def test_large_stacks_run_without_the_gil(rng):
    """numpy releases the GIL around loops that need no C API above its size threshold."""
    a = stack(rng, (5000, 4, 4), np.float64, "wellcond")
    b = stack(rng, (3, 64, 64), np.float64, "wellcond")
    for call in (lambda: uf.inv(a), lambda: uf.inv(a[::-1]), lambda: uf.matmul(a, a[0]), lambda: uf.inv(b)):
        call()
        assert sys.modules["omkm._ufuncs"]._last_loop_held_gil() == 0


def test_dask(rng):
    da = pytest.importorskip("dask.array")
    a = stack(rng, (6, 4, 4), np.float64, "wellcond")
    x = da.from_array(a, chunks=(2, 4, 4))
    for r in (da.apply_gufunc(uf.inv, "(m,m)->(m,m)", x), uf.inv(x)):   # the second by __array_ufunc__
        assert isinstance(r, da.Array)
        np.testing.assert_allclose(r.compute(), np.linalg.inv(a), **tol(np.float64))


def test_floating_point_flags(rng):
    """An overflow of the caller's values in a product warns as numpy's own loops do; the solver
    and eigen families' flags of their own on correct results do not."""
    big = np.full((3, 3, 3), 1e200)
    with np.errstate(over="raise"), pytest.raises(FloatingPointError):
        uf.matmul(big, big)
    a = stack(rng, (9, 4, 4), np.float64, "spd")
    with np.errstate(all="raise"):
        uf.eigh(a), uf.inv(a), uf.cholesky(a), uf.solve1(a, a[..., 0]), uf.lu_factor(a), uf.eig(a), uf.qr_complete(a)
