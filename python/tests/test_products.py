import numpy as np
import pytest

import omkm
from conftest import tol, variants

COUNT = 7


def check_layouts(f, oracle, x, nd, others=(), **kw):
    """f(variant of x, *others) against oracle(x, *others) for every layout of x, with copy=False
    raising exactly for the layouts that need a copy."""
    want = oracle(x.astype(np.float64), *[np.asarray(o, np.float64) for o in others])
    for name, (a, in_place) in variants(x, nd).items():
        got = f(a, *others)
        assert got.dtype == x.dtype, name
        np.testing.assert_allclose(got, want, err_msg=name, **tol(x.dtype))
        if in_place:
            np.testing.assert_allclose(f(a, *others, copy=False), want, err_msg=name, **tol(x.dtype))
        else:
            with pytest.raises(ValueError, match="copy=False"):
                f(a, *others, copy=False)


@pytest.mark.parametrize("op, oracle", [(omkm.add, np.add), (omkm.subtract, np.subtract)])
def test_add_subtract_matrices(rng, dt, op, oracle):
    x = rng.standard_normal((COUNT, 3, 4)).astype(dt)
    y = rng.standard_normal((COUNT, 3, 4)).astype(dt)
    check_layouts(op, oracle, x, 2, (y,))
    check_layouts(lambda a, *r, **k: op(y, a, **k), lambda a: oracle(y, a), x, 2)
    # one matrix against a stack, both orders, plain and transposed
    for single in (y[0], np.ascontiguousarray(y[0].T).T):
        np.testing.assert_allclose(op(x, single), oracle(x, single), **tol(dt))
        np.testing.assert_allclose(op(single, x), oracle(single, x), **tol(dt))
    np.testing.assert_allclose(op(x[0], y[0]), oracle(x[0], y[0]), **tol(dt))
    # more leading axes, merged without a copy
    x4, y4 = x[:6].reshape(2, 3, 3, 4), y[:6].reshape(2, 3, 3, 4)
    np.testing.assert_allclose(op(x4, y4, copy=False), oracle(x4, y4), **tol(dt))


@pytest.mark.parametrize("op, oracle", [(omkm.add, np.add), (omkm.subtract, np.subtract)])
def test_add_subtract_vectors_and_constants(rng, dt, op, oracle):
    x = rng.standard_normal((COUNT, 5)).astype(dt)
    y = rng.standard_normal(5).astype(dt)
    check_layouts(op, oracle, x, 1, (y,))
    np.testing.assert_allclose(op(y, x), oracle(y, x), **tol(dt))
    np.testing.assert_allclose(op(x[0], y), oracle(x[0], y), **tol(dt))
    for c in (2.5, np.float32(-1.25)):
        np.testing.assert_allclose(op(x, c), oracle(x, dt.type(c)), **tol(dt))
        np.testing.assert_allclose(op(c, x), oracle(dt.type(c), x), **tol(dt))
        np.testing.assert_allclose(op(y, c), oracle(y, dt.type(c)), **tol(dt))
    m = rng.standard_normal((4, 3, 5)).astype(dt)
    np.testing.assert_allclose(op(m, y), oracle(m, y), **tol(dt))       # rows as vectors


def test_add_in_place(rng, dt):
    x = rng.standard_normal((COUNT, 3, 3)).astype(dt)
    y = rng.standard_normal((COUNT, 3, 3)).astype(dt)
    want = x + y
    res = omkm.add(x, y, out=x)
    assert res is x
    np.testing.assert_allclose(x, want, **tol(dt))


def test_scale(rng, dt):
    x = rng.standard_normal((COUNT, 3, 4)).astype(dt)
    check_layouts(lambda a, **k: omkm.scale(a, -1.5, **k), lambda a: a * -1.5, x, 2)
    v = rng.standard_normal((COUNT, 4)).astype(dt)
    c = rng.standard_normal(COUNT).astype(dt)
    check_layouts(lambda a, **k: omkm.scale(a, c, **k), lambda a: a * c[:, None], v, 1)
    np.testing.assert_allclose(omkm.scale(v[0], c), v[0] * c[:, None], **tol(dt))
    np.testing.assert_allclose(omkm.scale(v[0], 3.0), v[0] * 3, **tol(dt))
    np.testing.assert_allclose(omkm.scale(x[0], 3.0), x[0] * 3, **tol(dt))


@pytest.mark.parametrize("shape_a, shape_b", [((3, 3), (3, 3)), ((4, 4), (4, 4)), ((2, 5), (5, 3)),
                                              ((6, 6), (6, 6))])
def test_matmul(rng, dt, shape_a, shape_b):
    x = rng.standard_normal((COUNT,) + shape_a).astype(dt)
    y = rng.standard_normal((COUNT,) + shape_b).astype(dt)
    check_layouts(omkm.matmul, np.matmul, x, 2, (y,))
    check_layouts(lambda b, *r, **k: omkm.matmul(x, b, **k), lambda b: np.matmul(x, b), y, 2)
    for a0 in (x[0], np.ascontiguousarray(x[0].T).T):
        np.testing.assert_allclose(omkm.matmul(a0, y), a0 @ y, **tol(dt))          # Mul_mma / tma
    for b0 in (y[0], np.ascontiguousarray(y[0].T).T):
        np.testing.assert_allclose(omkm.matmul(x, b0), x @ b0, **tol(dt))          # Mul_mam / mat
    np.testing.assert_allclose(omkm.matmul(x[0], y[0]), x[0] @ y[0], **tol(dt))
    xt = np.ascontiguousarray(np.swapaxes(x, 1, 2)).swapaxes(1, 2)
    yt = np.ascontiguousarray(np.swapaxes(y, 1, 2)).swapaxes(1, 2)
    np.testing.assert_allclose(omkm.matmul(xt, yt, copy=False), x @ y, **tol(dt))  # Mul_tata


def test_matmul_broadcast_and_out(rng, dt):
    x = rng.standard_normal((2, 1, 3, 3)).astype(dt)
    y = rng.standard_normal((1, 4, 3, 3)).astype(dt)
    np.testing.assert_allclose(omkm.matmul(x, y), x @ y, **tol(dt))
    with pytest.raises(ValueError, match="copy=False"):
        omkm.matmul(x, y, copy=False)
    out = np.zeros((2, 4, 3, 3), dt)
    assert omkm.matmul(x, y, out=out) is out
    np.testing.assert_allclose(out, x @ y, **tol(dt))
    # out as a transposed view and as a field of a structured array
    a = rng.standard_normal((COUNT, 4, 4)).astype(dt)
    b = rng.standard_normal((COUNT, 4, 4)).astype(dt)
    ot = np.zeros((COUNT, 4, 4), dt).swapaxes(1, 2)
    omkm.matmul(a, b, out=ot)
    np.testing.assert_allclose(ot, a @ b, **tol(dt))
    rec = np.zeros(COUNT, [("k", np.int64), ("m", dt, (4, 4))])
    omkm.matmul(a, b, out=rec["m"])
    np.testing.assert_allclose(rec["m"], a @ b, **tol(dt))
    assert (rec["k"] == 0).all()


def test_matvec_vecmat(rng, dt):
    a = rng.standard_normal((COUNT, 3, 4)).astype(dt)
    v4 = rng.standard_normal((COUNT, 4)).astype(dt)
    v3 = rng.standard_normal((COUNT, 3)).astype(dt)
    mv = lambda m, v: np.einsum("...ij,...j->...i", m, v)
    vm = lambda v, m: np.einsum("...i,...ij->...j", v, m)
    check_layouts(omkm.matvec, mv, a, 2, (v4,))
    check_layouts(lambda m, *r, **k: omkm.vecmat(v3, m, **k), lambda m: vm(v3, m), a, 2)
    check_layouts(lambda v, *r, **k: omkm.matvec(a, v, **k), lambda v: mv(a, v), v4, 1)
    np.testing.assert_allclose(omkm.matvec(a[0], v4), mv(a[0], v4), **tol(dt))     # Mul_mva
    np.testing.assert_allclose(omkm.matvec(a, v4[0]), mv(a, v4[0]), **tol(dt))     # Mul_mav
    np.testing.assert_allclose(omkm.vecmat(v3[0], a), vm(v3[0], a), **tol(dt))     # Mul_tav
    np.testing.assert_allclose(omkm.vecmat(v3, a[0]), vm(v3, a[0]), **tol(dt))     # Mul_tva
    np.testing.assert_allclose(omkm.matmul(a, v4[0]), a @ v4[0], **tol(dt))
    np.testing.assert_allclose(omkm.matmul(v3[0], a), v3[0] @ a, **tol(dt))
    np.testing.assert_allclose(omkm.matmul(v4[0], v4[1]), v4[0] @ v4[1], **tol(dt))


def test_dot_cross(rng, dt):
    x = rng.standard_normal((COUNT, 3)).astype(dt)
    y = rng.standard_normal((COUNT, 3)).astype(dt)
    dot = lambda a, b: np.sum(a * b, axis=-1)
    check_layouts(omkm.dot, dot, x, 1, (y,))
    check_layouts(omkm.cross, np.cross, x, 1, (y,))
    for a, b in ((x[0], y), (x, y[0]), (x[0], y[0])):
        np.testing.assert_allclose(omkm.dot(a, b), dot(a, b), **tol(dt))
        np.testing.assert_allclose(omkm.cross(a, b), np.cross(a, b), **tol(dt))
    long = rng.standard_normal((COUNT, 37)).astype(dt)
    np.testing.assert_allclose(omkm.dot(long, long[::-1]), dot(long, long[::-1]), **tol(dt))
    assert np.ndim(omkm.dot(x[0], y[0])) == 0


def test_norm_trace(rng, dt):
    v = rng.standard_normal((COUNT, 5)).astype(dt)
    m = rng.standard_normal((COUNT, 4, 4)).astype(dt)
    check_layouts(omkm.norm, lambda a: np.linalg.norm(a, axis=-1), v, 1)
    check_layouts(lambda a, **k: omkm.norm(a, axis=(-2, -1), **k),
                  lambda a: np.linalg.norm(a, axis=(-2, -1)), m, 2)
    check_layouts(omkm.trace, lambda a: np.trace(a, axis1=-2, axis2=-1), m, 2)
    np.testing.assert_allclose(omkm.norm(v[0]), np.linalg.norm(v[0]), **tol(dt))
    np.testing.assert_allclose(omkm.trace(m[0]), np.trace(m[0]), **tol(dt))
    out = np.zeros(COUNT, dt)
    assert omkm.trace(m, out=out) is out
    np.testing.assert_allclose(out, np.trace(m, axis1=1, axis2=2), **tol(dt))


def test_promotion(rng):
    x = rng.standard_normal((COUNT, 3, 3))
    y = x.astype(np.float32)
    assert omkm.add(y, y).dtype == np.float32
    assert omkm.add(x, y).dtype == np.float64
    i = np.arange(COUNT * 9).reshape(COUNT, 3, 3)
    got = omkm.add(i, i)
    assert got.dtype == np.float64
    assert omkm.add(i.astype(np.int32), i.astype(np.int32)).dtype == np.float64   # only float32 stays float32
    np.testing.assert_array_equal(got, 2 * i)
    np.testing.assert_allclose(omkm.matmul([[1, 2], [3, 4]], [[1, 0], [0, 1]]), [[1, 2], [3, 4]])


def test_empty_batch(dt):
    x = np.zeros((0, 3, 3), dt)
    assert omkm.matmul(x, x).shape == (0, 3, 3)
    assert omkm.det(x).shape == (0,)


def test_many_leading_axes_not_mergeable(rng, dt):
    x = rng.standard_normal((3, 4, 3, 3)).astype(dt)
    v = x[:, :3]           # the two leading axes do not merge
    np.testing.assert_allclose(omkm.matmul(v, v), v @ v, **tol(dt))
    with pytest.raises(ValueError, match="merge"):
        omkm.matmul(v, v, copy=False)
