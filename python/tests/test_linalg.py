import numpy as np
import pytest

import omkm
from conftest import stack, tol, variants
from test_products import check_layouts

COUNT = 9
ORDERS = [2, 3, 4, 6, 8]


def lu_factors_of(lu, piv):
    """L and U of the library's layout: row piv[k] of lu holds row k of both."""
    rows = np.take_along_axis(lu, piv[..., :, None].astype(np.intp), axis=-2)
    n = lu.shape[-1]
    return np.tril(rows, -1) + np.eye(n), np.triu(rows)


@pytest.mark.parametrize("n", ORDERS)
def test_lu(rng, dt, n):
    a = stack(rng, (COUNT, n, n), dt, "wellcond")
    b = rng.standard_normal((COUNT, n)).astype(dt)
    for name, (x, in_place) in variants(a, 2).items():
        lu, piv = omkm.lu_factor(x)
        assert piv.dtype == np.intc and lu.dtype == dt
        assert sorted(piv[0]) == list(range(n)), name
        low, up = lu_factors_of(lu.astype(np.float64), piv)
        permuted = np.take_along_axis(a.astype(np.float64), piv[..., :, None].astype(np.intp), axis=-2)
        np.testing.assert_allclose(low @ up, permuted, err_msg=name, **tol(dt))
    lu, piv = omkm.lu_factor(a)
    want = np.linalg.solve(a.astype(np.float64), b[..., None].astype(np.float64))[..., 0]
    check_layouts(lambda v, **k: omkm.lu_solve((lu, piv), v, **k), lambda v: want, b, 1)
    # one factor, many vectors (LUBackSubst_mva)
    lu0, piv0 = omkm.lu_factor(a[0])
    np.testing.assert_allclose(omkm.lu_solve((lu0, piv0), b),
                               np.linalg.solve(a[0].astype(np.float64), b.T.astype(np.float64)).T, **tol(dt))


@pytest.mark.parametrize("n", ORDERS)
def test_solve(rng, dt, n):
    a = stack(rng, (COUNT, n, n), dt, "wellcond")
    b = rng.standard_normal((COUNT, n)).astype(dt)
    want = lambda m, v: np.linalg.solve(m, np.broadcast_to(v, m.shape[:-1])[..., None])[..., 0]
    check_layouts(omkm.solve, want, a, 2, (b,))
    check_layouts(lambda v, *r, **k: omkm.solve(a, v, **k), lambda v: want(a.astype(np.float64), v), b, 1)
    np.testing.assert_allclose(omkm.solve(a[0], b), np.linalg.solve(a[0], b.T).T, **tol(dt))
    np.testing.assert_allclose(omkm.solve(a[0], b[0]), np.linalg.solve(a[0], b[0]), **tol(dt))
    np.testing.assert_allclose(omkm.solve(a, b[0]), want(a, b[0]), **tol(dt))
    out = np.zeros((COUNT, n), dt)
    assert omkm.solve(a, b, out=out) is out
    np.testing.assert_allclose(out, want(a, b), **tol(dt))


@pytest.mark.parametrize("n", ORDERS)
def test_cholesky(rng, dt, n):
    a = stack(rng, (COUNT, n, n), dt, "spd")
    b = rng.standard_normal((COUNT, n)).astype(dt)
    check_layouts(lambda x, **k: omkm.cho_lower(omkm.cholesky(x, **k)), np.linalg.cholesky, a, 2)
    c = omkm.cholesky(a)
    assert (np.triu(c, 1) == 0).all()
    # only the lower triangle is read
    junk = a.copy()
    junk[..., np.triu_indices(n, 1)[0], np.triu_indices(n, 1)[1]] = 1e3
    np.testing.assert_array_equal(omkm.cholesky(junk), c)
    want = np.linalg.solve(a.astype(np.float64), b[..., None].astype(np.float64))[..., 0]
    check_layouts(lambda v, **k: omkm.cho_solve(c, v, **k), lambda v: want, b, 1)
    np.testing.assert_allclose(omkm.cho_solve(c[0], b),
                               np.linalg.solve(a[0].astype(np.float64), b.T.astype(np.float64)).T, **tol(dt))


@pytest.mark.parametrize("shape", [(3, 3), (4, 4), (6, 3), (5, 2)])
def test_qr(rng, dt, shape):
    h, w = shape
    a = rng.standard_normal((COUNT, h, w)).astype(dt)
    b = rng.standard_normal((COUNT, h)).astype(dt)
    r_np = np.abs(np.linalg.qr(a.astype(np.float64))[1])
    check_layouts(lambda x, **k: np.abs(np.triu(omkm.qr(x, **k)[..., :w, :])), lambda x: r_np, a, 2)
    f = omkm.qr(a)
    a64, b64 = a.astype(np.float64), b.astype(np.float64)
    at = np.swapaxes(a64, 1, 2)
    want = np.linalg.solve(at @ a64, (at @ b64[..., None]))[..., 0]      # least squares
    t = dict(rtol=2e-3, atol=2e-3) if dt == np.float32 else tol(dt)
    check_layouts(lambda v, **k: omkm.qr_solve(f, v, **k), lambda v: want, b, 1)
    np.testing.assert_allclose(omkm.qr_solve(f[0], b), np.linalg.lstsq(a64[0], b64.T, rcond=None)[0].T, **t)


@pytest.mark.parametrize("n", [1, 2, 3, 4, 5, 6, 7])
def test_det_inv(rng, dt, n):
    a = stack(rng, (COUNT, n, n), dt, "wellcond")
    check_layouts(omkm.det, np.linalg.det, a, 2)
    check_layouts(omkm.inv, np.linalg.inv, a, 2)
    np.testing.assert_allclose(omkm.det(a[0]), np.linalg.det(a[0].astype(np.float64)), **tol(dt))
    np.testing.assert_allclose(omkm.inv(a[0]), np.linalg.inv(a[0].astype(np.float64)), **tol(dt))
    out = np.zeros((COUNT, n, n), dt)
    assert omkm.inv(a, out=out) is out
    np.testing.assert_allclose(out, np.linalg.inv(a.astype(np.float64)), **tol(dt))


@pytest.mark.parametrize("n", [2, 3, 4, 6])
def test_eigh(rng, dt, n):
    a = stack(rng, (COUNT, n, n), dt, "spd")
    want = np.linalg.eigvalsh(a.astype(np.float64))[..., ::-1]            # descending
    check_layouts(omkm.eigvalsh, lambda x: want, a, 2)
    for name, (x, _) in variants(a, 2).items():
        w, v = omkm.eigh(x)
        np.testing.assert_allclose(w, want, err_msg=name, **tol(dt))
        v64 = v.astype(np.float64)
        t = dict(rtol=1e-3, atol=1e-3) if dt == np.float32 else dict(rtol=1e-9, atol=1e-9)
        np.testing.assert_allclose(a @ v64, v64 * w[..., None, :].astype(np.float64), err_msg=name, **t)
        np.testing.assert_allclose(np.swapaxes(v64, 1, 2) @ v64, np.broadcast_to(np.eye(n), a.shape),
                                   err_msg=name, **t)
    w0, v0 = omkm.eigh(a[0])
    np.testing.assert_allclose(w0, want[0], **tol(dt))
    ow, ov = np.zeros((COUNT, n), dt), np.zeros((COUNT, n, n), dt)
    res = omkm.eigh(a, out=(ow, ov))
    assert res[0] is ow and res[1] is ov
    np.testing.assert_allclose(ow, want, **tol(dt))


def sort_complex(w):
    return np.sort_complex(np.round(w, 3))


@pytest.mark.parametrize("n", [2, 3, 4, 5, 6])
def test_eig(rng, dt, n):
    a = stack(rng, (COUNT, n, n), dt)
    a64 = a.astype(np.float64)
    want = np.linalg.eigvals(a64)
    t = dict(rtol=2e-3, atol=2e-3) if dt == np.float32 else dict(rtol=1e-8, atol=1e-8)
    cdt = np.complex64 if dt == np.float32 else np.complex128
    for name, (x, in_place) in variants(a, 2).items():
        w = omkm.eigvals(x)
        assert w.dtype == cdt
        for k in range(COUNT):       # same multiset of values
            d = np.abs(w[k][:, None] - want[k][None, :])
            assert d.min(axis=0).max() < t["atol"] * 10 * (1 + np.abs(want[k]).max()), name
        # layout: a conjugate pair consecutive, the positive imaginary component first
        pos = np.nonzero(w.imag > 0)
        np.testing.assert_allclose(w[pos[0], pos[1] + 1], np.conj(w[pos]))
    w, vl, vr = omkm.eig(a, left=True, right=True)
    assert vl.dtype == cdt and vr.dtype == cdt
    np.testing.assert_allclose(a64 @ vr, vr * w[..., None, :], **t)                       # A v = l v
    np.testing.assert_allclose(np.conj(np.swapaxes(vl, 1, 2)) @ a64,
                               w[..., :, None] * np.conj(np.swapaxes(vl, 1, 2)), **t)      # u^H A = l u^H
    for v in (vl, vr):
        np.testing.assert_allclose(np.linalg.norm(v, axis=-2), 1, **t)
        big = np.take_along_axis(v, np.abs(v).argmax(axis=-2)[..., None, :], axis=-2)
        assert (big.real > 0).all() and np.allclose(big.imag, 0, atol=t["atol"])
    # right vectors equal numpy's, scaled to norm 1 with the largest component real positive
    wn, vn = np.linalg.eig(a64)
    for k in range(COUNT):
        for j in range(n):
            jj = np.abs(wn[k] - w[k, j]).argmin()
            u = vn[k][:, jj] / np.linalg.norm(vn[k][:, jj])
            u = u * np.exp(-1j * np.angle(u[np.abs(u).argmax()]))
            np.testing.assert_allclose(vr[k][:, j], u, **t)
    w2, vr2 = omkm.eig(a)                                                          # right only
    np.testing.assert_array_equal(vr2, vr)
    w3, vl3 = omkm.eig(a, left=True, right=False)
    np.testing.assert_array_equal(vl3, vl)
    w1, vr1 = omkm.eig(a[0])
    np.testing.assert_allclose(vr1, vr[0], **t)
    outs = (np.zeros((COUNT, n), cdt), np.zeros((COUNT, n, n), cdt))
    res = omkm.eig(a, out=outs)
    assert res[0] is outs[0] and res[1] is outs[1]
    np.testing.assert_array_equal(outs[1], vr)


def test_eig_real_and_complex_pairs(dt):
    # rotation by 90 degrees in the xy plane and a stretch along z: values i, -i, 2
    a = np.array([[0, -1, 0], [1, 0, 0], [0, 0, 2]], dt)
    w, vr = omkm.eig(a)
    np.testing.assert_allclose(sort_complex(w), sort_complex(np.array([1j, -1j, 2])), atol=1e-5)
    np.testing.assert_allclose(a @ vr, vr * w, atol=1e-5)
