import numpy as np
import pytest

import omkm
from conftest import stack, tol

COUNT = 9


def loose(dt):
    return dict(rtol=1e-3, atol=1e-3) if dt == np.float32 else dict(rtol=1e-9, atol=1e-9)


def test_cholesky_reads_the_lower_triangle(rng, dt):
    a = stack(rng, (COUNT, 4, 4), dt, "spd")
    c = omkm.cholesky_factor(a + np.triu(np.full((4, 4), 1e3, dt), 1))
    assert (np.triu(c, 1) == 0).all()
    np.testing.assert_allclose(omkm.cho_lower(c), np.linalg.cholesky(a.astype(np.float64)), **tol(dt))


def test_eigen_sym(rng, dt):
    """The library's form: values descending, vectors as columns, out= filled in place."""
    a = stack(rng, (COUNT, 4, 4), dt, "spd")
    for x in (a[0], a):
        w, v = omkm.eigen_sym(x)
        np.testing.assert_allclose(w, np.linalg.eigvalsh(x.astype(np.float64))[..., ::-1], **tol(dt))
        np.testing.assert_allclose(x @ v, v * w[..., None, :], **loose(dt))
        np.testing.assert_allclose(np.swapaxes(v, -1, -2) @ v, np.broadcast_to(np.eye(4), x.shape), **loose(dt))
    out = (np.zeros((COUNT, 4), dt), np.zeros((COUNT, 4, 4), dt))
    assert all(r is o for r, o in zip(omkm.eigen_sym(a, out=out), out))
    np.testing.assert_array_equal(out[1], v)


def test_numpy_names_mean_what_numpy_does(rng, dt):
    """solve, eigvalsh and eigh against numpy.linalg: values to rounding, shapes, dtypes, order, and
    only the UPLO triangle read (the other one is garbage here)."""
    a = stack(rng, (COUNT, 4, 4), dt, "spd")
    junk = a + np.triu(np.full((4, 4), 1e3, dt), 1)
    for uplo, x in (("L", junk), ("U", np.swapaxes(junk, -1, -2))):
        want = np.linalg.eigh(x.astype(np.float64), UPLO=uplo)
        w, v = omkm.eigh(x, UPLO=uplo)
        assert w.dtype == v.dtype == dt and w.shape == want[0].shape and v.shape == want[1].shape
        np.testing.assert_allclose(w, want[0], **tol(dt))
        np.testing.assert_allclose(np.abs(np.sum(v * want[1], axis=-2)), 1, **loose(dt))   # same vectors up to sign
        np.testing.assert_array_equal(omkm.eigvalsh(x, uplo), w)
    m = stack(rng, (COUNT, 4, 4), dt, "wellcond")
    for b in (rng.standard_normal((COUNT, 4)), rng.standard_normal((COUNT, 4, 2)), rng.standard_normal(4),
              rng.standard_normal((4, 3))):
        b = b.astype(dt)
        for mm in (m, m[0]):
            try:
                want = np.linalg.solve(mm.astype(np.float64), b.astype(np.float64))
            except ValueError:                    # shapes numpy refuses: so does omkm
                with pytest.raises(ValueError):
                    omkm.solve(mm, b)
                continue
            got = omkm.solve(mm, b)
            assert got.shape == want.shape and got.dtype == dt
            np.testing.assert_allclose(got, want, **loose(dt))


def test_cholesky_names_mean_what_numpy_and_scipy_do(rng, dt):
    """cholesky as numpy.linalg's (L, zeros above); cho_factor / cho_solve as scipy.linalg's: the
    factor in the asked triangle read from that triangle, a's entries in the other, solves of
    vectors and of matrices; a stack gives each matrix's own result."""
    sl = pytest.importorskip("scipy.linalg")
    a = stack(rng, (3, 4, 4), dt, "spd")
    np.testing.assert_allclose(omkm.cholesky(a), np.linalg.cholesky(a.astype(np.float64)), **tol(dt))
    assert omkm.cholesky(a).dtype == dt and (np.triu(omkm.cholesky(a), 1) == 0).all()
    junk = np.triu(np.full((4, 4), 1e3, dt), 1)
    for lower, x in ((True, a + junk), (False, a + np.swapaxes(junk, -1, -2))):
        tri = np.tril if lower else np.triu
        c, low = omkm.cho_factor(x, lower=lower)
        assert low is lower and c.dtype == dt
        np.testing.assert_array_equal(c - tri(c), x - tri(x))           # the other triangle: a's entries
        for k in range(3):
            cs = sl.cho_factor(x[k].astype(np.float64), lower=lower)
            np.testing.assert_allclose(tri(c[k]), tri(cs[0]), **tol(dt))
            for b in (rng.standard_normal(4), rng.standard_normal((4, 2))):
                got = omkm.cho_solve((c[k], low), b.astype(dt))
                assert got.shape == b.shape
                np.testing.assert_allclose(got, sl.cho_solve(cs, b), **loose(dt))
    with pytest.raises(ValueError, match="infs or NaNs"):
        omkm.cho_factor(np.full((3, 3), np.nan, dt))


def test_qr_means_what_numpy_does(rng, dt):
    """qr as numpy.linalg.qr: Q and R of every mode, tall, square and wide, one matrix and stacks."""
    for shape in ((4, 4), (5, 3), (3, 5), (2, 6, 4)):
        a = rng.standard_normal(shape).astype(dt)
        for mode in ("reduced", "complete", "r"):
            got, want = omkm.qr(a, mode), np.linalg.qr(a.astype(np.float64), mode)
            for g, w in zip(*[r if isinstance(r, tuple) else (r,) for r in (got, want)]):
                assert g.shape == w.shape and g.dtype == dt, (shape, mode)
                np.testing.assert_allclose(g, w, **loose(dt))


def test_lu_names_mean_what_scipy_does(rng, dt):
    """lu_factor / lu_solve as scipy.linalg's: lu in pivot order, LAPACK's interchanges (pivoting
    in every step at orders 1 to 7), solves of vectors and matrices; a stack gives each its own."""
    sl = pytest.importorskip("scipy.linalg")
    for n in (1, 2, 3, 4, 5, 7):
        a = rng.standard_normal((3, n, n)).astype(dt)
        lu, piv = omkm.lu_factor(a)
        assert lu.dtype == dt and piv.dtype == np.int32 and piv.shape == (3, n)
        for k in range(3):
            lus, pivs = sl.lu_factor(a[k].astype(np.float64))
            np.testing.assert_array_equal(piv[k], pivs)
            np.testing.assert_allclose(lu[k], lus, **loose(dt))
            for b in (rng.standard_normal(n), rng.standard_normal((n, 2))):
                got = omkm.lu_solve((lu[k], piv[k]), b.astype(dt))
                assert got.shape == b.shape
                np.testing.assert_allclose(got, sl.lu_solve((lus, pivs), b), **loose(dt))


def test_eig(rng, dt):
    a = stack(rng, (COUNT, 4, 4), dt)
    a64, t = a.astype(np.float64), loose(dt)
    cdt = np.complex64 if dt == np.float32 else np.complex128
    w, vl, vr = omkm.eig(a, left=True, right=True)
    assert w.dtype == vl.dtype == vr.dtype == cdt
    pos = np.nonzero(w.imag > 0)                         # a conjugate pair: positive imaginary first
    assert len(pos[0]) and (w.imag != 0).sum() == 2 * len(pos[0])
    np.testing.assert_array_equal(w[pos[0], pos[1] + 1], np.conj(w[pos]))
    vlh = np.conj(np.swapaxes(vl, 1, 2))
    np.testing.assert_allclose(a64 @ vr, vr * w[..., None, :], **t)
    np.testing.assert_allclose(vlh @ a64, w[..., :, None] * vlh, **t)
    for v in (vl, vr):                                   # norm 1, largest component real positive
        np.testing.assert_allclose(np.linalg.norm(v, axis=-2), 1, **t)
        big = np.take_along_axis(v, np.abs(v).argmax(axis=-2)[..., None, :], axis=-2)
        assert (big.real > 0).all() and np.allclose(big.imag, 0, atol=t["atol"])
    np.testing.assert_array_equal(omkm.eigvals(a), w)
    np.testing.assert_array_equal(omkm.eig(a)[1], vr)
    np.testing.assert_array_equal(omkm.eig(a, left=True, right=False)[1], vl)
    np.testing.assert_allclose(omkm.eig(a[0])[1], vr[0], **t)
    out = (np.zeros((COUNT, 4), cdt), np.zeros((COUNT, 4, 4), cdt))
    assert all(r is o for r, o in zip(omkm.eig(a, out=out), out))
    np.testing.assert_array_equal(out[1], vr)
