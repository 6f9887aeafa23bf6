import numpy as np
import pytest

import omkm
from conftest import tol

COUNT = 7


def test_add_writes_into_an_operand(rng, dt):
    x, y = rng.standard_normal((2, COUNT, 3, 3)).astype(dt)
    want = x + y
    omkm.add(x, y, out=x)
    np.testing.assert_allclose(x, want, **tol(dt))


def test_promotion(rng):
    x = rng.standard_normal((COUNT, 3, 3))
    y = x.astype(np.float32)
    assert omkm.add(y, y).dtype == np.float32
    assert omkm.add(x, y).dtype == np.float64
    i = np.arange(COUNT * 9).reshape(COUNT, 3, 3) + 2 ** 25
    for ints in (i, i.astype(np.int32)):                  # only float32 stays float32
        got = omkm.add(ints, ints)
        assert got.dtype == np.float64
        np.testing.assert_array_equal(got, 2 * i)
    np.testing.assert_allclose(omkm.matmul([[1, 2], [3, 4]], [[1, 0], [0, 1]]), [[1, 2], [3, 4]])
    for small in (np.int8, np.bool_):                     # numpy's safe casts alone would pick float32
        assert omkm.matmul(np.eye(2, dtype=small), np.eye(2, dtype=small)).dtype == np.float64
        assert omkm.det(np.eye(2, dtype=small)).dtype == np.float64
    assert omkm.ufuncs.matmul(y, y, dtype=np.float64).dtype == np.float64     # a loop asked for by name


def test_matmul_of_vectors(rng, dt):
    a = rng.standard_normal((COUNT, 3, 4)).astype(dt)
    v3, v4 = rng.standard_normal(3).astype(dt), rng.standard_normal(4).astype(dt)
    for x, y in ((a, v4), (v3, a), (v4, v4)):
        np.testing.assert_allclose(omkm.matmul(x, y), np.matmul(x, y), **tol(dt))


def test_leading_axes(rng, dt):
    x = rng.standard_normal((4, 3, 3, 3)).astype(dt)
    np.testing.assert_array_equal(omkm.add(x, x, copy=False), x + x)                  # merged in place
    np.testing.assert_array_equal(omkm.add(x[0, 0], x, copy=False), x[0, 0] + x)
    for v in (x.swapaxes(0, 1), x[:, :2]):               # axes that do not merge are copied
        np.testing.assert_array_equal(omkm.add(v, v), v + v)
        with pytest.raises(ValueError, match="merge"):
            omkm.add(v, v, copy=False)
    p, q = x[:2, :1], x[:1]                               # broadcast to (2, 3): copied
    np.testing.assert_array_equal(omkm.add(p, q), p + q)
    with pytest.raises(ValueError, match="copy=False"):
        omkm.add(p, q, copy=False)
    assert omkm.matmul(x[:0], x[:0]).shape == (0, 3, 3, 3)
    assert omkm.det(x[:0]).shape == (0, 3)


def test_layouts_give_the_bits_of_a_copy(rng, dt):
    """A transposed view is read in place by the t members, which read the stored matrix's packed rows:
    the bits of a C-contiguous copy, in matmul as in matvec and vecmat (matvec of a transposed view)."""
    x, y = rng.standard_normal((2, 50, 4, 4)).astype(dt)
    rec, res = np.zeros((2, 50), [("id", np.int64), ("m", dt, (4, 4))])
    rec["m"] = x
    want = omkm.matmul(x, y)
    for a in (np.ascontiguousarray(x.swapaxes(1, 2)).swapaxes(1, 2), rec["m"]):
        for b in (y, np.ascontiguousarray(y.swapaxes(1, 2)).swapaxes(1, 2)):
            np.testing.assert_array_equal(omkm.matmul(a, b), want)
            np.testing.assert_array_equal(omkm.matmul(a[0], b), omkm.matmul(x[0], y))
            for out in (res["m"], np.zeros((50, 4, 4), dt).swapaxes(1, 2)):
                assert omkm.matmul(a, b, out=out) is out
                np.testing.assert_allclose(out, want, **tol(dt))
    assert (res["id"] == 0).all()
    v = y[:, 0]
    for a in (x, np.ascontiguousarray(x.swapaxes(1, 2)).swapaxes(1, 2)):
        np.testing.assert_array_equal(omkm.matvec(a, v), omkm.matvec(np.ascontiguousarray(a), v))
        np.testing.assert_array_equal(omkm.vecmat(v, a), omkm.matvec(np.ascontiguousarray(a.swapaxes(1, 2)), v))


def test_norm_vecdot_and_transpose_as_numpy(rng, dt):
    """norm takes numpy.linalg.norm's arguments (ord None / 2 / 'fro', axis None, an int or a pair,
    keepdims) and gives its shapes and values; vecdot and matrix_transpose are numpy 2's."""
    x = rng.standard_normal((5, 3, 4)).astype(dt)
    for y, kw in [(x, {}), (x, {"axis": 1}), (x, {"axis": -1, "keepdims": True}), (x, {"axis": (2, 0)}),
                  (x, {"axis": (1, 2), "ord": "fro", "keepdims": True}), (x, {"keepdims": True}),
                  (x[0], {}), (x[0], {"ord": "fro"}), (x[0, 0], {"ord": 2}), (x[0, 0], {"keepdims": True})]:
        got, want = omkm.norm(y, **kw), np.linalg.norm(y.astype(np.float64), **kw)
        assert np.shape(got) == np.shape(want) and np.asarray(got).dtype == dt, kw
        np.testing.assert_allclose(got, want, **tol(dt))
    np.testing.assert_allclose(omkm.vecdot(x, x[:1], axis=1), np.sum(x * x[:1], axis=1, dtype=np.float64), **tol(dt))
    assert np.shares_memory(omkm.matrix_transpose(x), x) and omkm.matrix_transpose(x).shape == (5, 4, 3)
    y = rng.standard_normal((3, 2, 5)).astype(dt)
    for kw in ({"axisa": 0, "axisb": 0}, {"axisa": 0, "axisb": 0, "axisc": 1}, {"axis": 0}):
        np.testing.assert_allclose(omkm.cross(y, y[::-1], **kw), np.cross(y, y[::-1], **kw), **tol(dt))
    w = omkm.eigvals(np.diag(np.arange(1, 4)).astype(dt))
    assert w.dtype == dt and sorted(w) == [1, 2, 3]                # real values: a real array, as numpy
    assert omkm.eigvals(np.array([[0, -1], [1, 0]], dt)).dtype.kind == "c"
