import numpy as np

import omkm
from conftest import stack, tol

COUNT = 9


def loose(dt):
    return dict(rtol=1e-3, atol=1e-3) if dt == np.float32 else dict(rtol=1e-9, atol=1e-9)


def test_cholesky_reads_the_lower_triangle(rng, dt):
    a = stack(rng, (COUNT, 4, 4), dt, "spd")
    c = omkm.cholesky(a + np.triu(np.full((4, 4), 1e3, dt), 1))
    assert (np.triu(c, 1) == 0).all()
    np.testing.assert_allclose(omkm.cho_lower(c), np.linalg.cholesky(a.astype(np.float64)), **tol(dt))


def test_eigh(rng, dt):
    a = stack(rng, (COUNT, 4, 4), dt, "spd")
    for x in (a[0], a):
        w, v = omkm.eigh(x)
        np.testing.assert_allclose(w, np.linalg.eigvalsh(x.astype(np.float64))[..., ::-1], **tol(dt))
        np.testing.assert_allclose(x @ v, v * w[..., None, :], **loose(dt))
        np.testing.assert_allclose(np.swapaxes(v, -1, -2) @ v, np.broadcast_to(np.eye(4), x.shape), **loose(dt))
    out = (np.zeros((COUNT, 4), dt), np.zeros((COUNT, 4, 4), dt))
    assert all(r is o for r, o in zip(omkm.eigh(a, out=out), out))
    np.testing.assert_array_equal(out[1], v)


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
