"""Calls replayed from a plan (the same layout seen before) give the results of a first call."""
import numpy as np
import pytest

import omkm
from conftest import stack, tol


def replayable(f, *arrays, out=None, **kw):
    every = arrays if out is None else arrays + (out,)
    ids = [id(a) for a in every]
    key = (tuple(kw.items()), out is None) + ((tuple(map(ids.index, ids)),) if len(every) > 1 else ()) + \
        tuple((a.shape, a.strides, a.dtype) for a in every)
    return bool(f.plans.get(key))


@pytest.mark.parametrize("f, oracle, kinds", [
    (omkm.matmul, np.matmul, ("general", "general")),
    (omkm.add, np.add, ("general", "general")),
    (omkm.inv, np.linalg.inv, ("wellcond",)),
    (omkm.det, np.linalg.det, ("wellcond",)),
    (omkm.solve, lambda a, b: np.linalg.solve(a, b[..., None])[..., 0], ("wellcond", "vector")),
    (omkm.cholesky, lambda a: np.linalg.cholesky(a), ("spd",)),
    (omkm.eigvalsh, lambda a: np.linalg.eigvalsh(a)[..., ::-1], ("spd",)),
    (omkm.trace, lambda a: np.trace(a, axis1=-2, axis2=-1), ("general",)),
])
@pytest.mark.parametrize("count", [None, 5])
def test_replay_matches_oracle(rng, dt, f, oracle, kinds, count):
    shape = (count,) if count else ()

    def args():
        return [rng.standard_normal(shape + (4,)).astype(dt) if k == "vector" else
                stack(rng, shape + (4, 4), dt, k) for k in kinds]

    first = args()
    f(*first)
    assert replayable(f, *first)
    for _ in range(3):
        new = args()
        got = f(*new)
        if f is omkm.cholesky:
            got = omkm.cho_lower(got)
        want = oracle(*[a.astype(np.float64) for a in new])
        np.testing.assert_allclose(got, want, **tol(dt))
        assert np.ndim(got) == np.ndim(want)
        assert not any(np.shares_memory(got, a) for a in new + first)


def test_replay_of_transposed_and_strided_views(rng, dt):
    for _ in range(3):
        a = rng.standard_normal((6, 3, 3)).astype(dt).swapaxes(1, 2)
        b = rng.standard_normal((12, 3, 3)).astype(dt)[::2]
        np.testing.assert_allclose(omkm.matmul(a, b), a @ b, **tol(dt))


def test_same_array_twice_then_two_arrays(rng, dt):
    a = rng.standard_normal((4, 3, 3)).astype(dt)
    np.testing.assert_allclose(omkm.matmul(a, a), a @ a, **tol(dt))
    assert replayable(omkm.matmul, a, a)
    b = rng.standard_normal((4, 3, 3)).astype(dt)
    for _ in range(2):
        np.testing.assert_allclose(omkm.matmul(a, b), a @ b, **tol(dt))
        np.testing.assert_allclose(omkm.matmul(b, b), b @ b, **tol(dt))
        np.testing.assert_allclose(omkm.matmul(b, a), b @ a, **tol(dt))
    assert replayable(omkm.matmul, a, b)


def test_constants_are_never_replayed(rng, dt):
    x = rng.standard_normal((4, 3)).astype(dt)
    for c in (2.0, 3.0, -1.0):
        np.testing.assert_allclose(omkm.add(x, np.array(c)), x + dt.type(c), **tol(dt))
        np.testing.assert_allclose(omkm.subtract(np.array(c), x), dt.type(c) - x, **tol(dt))


def test_misaligned_array_of_a_known_layout():
    a = np.eye(3)[None].repeat(4, 0) * 2
    omkm.det(a)
    omkm.det(a)
    buf = np.zeros(a.nbytes + 8, np.uint8)
    mis = np.ndarray(a.shape, np.float64, buffer=buf, offset=4, strides=a.strides)
    mis[...] = a
    assert mis.strides == a.strides and not mis.flags.aligned
    np.testing.assert_allclose(omkm.det(mis), 8)
    with pytest.raises(ValueError, match="aligned"):
        omkm.det(mis, copy=False)


def test_status_errors_from_a_replay(dt):
    good = np.eye(3, dtype=dt)[None].repeat(3, 0)
    omkm.inv(good)
    omkm.inv(good)
    assert replayable(omkm.inv, good)
    with pytest.raises(omkm.SingularMatrixError) as info:
        omkm.inv(np.zeros_like(good))
    assert info.value.status == -206


def test_tuple_results_replayed(rng, dt):
    for _ in range(3):
        a = stack(rng, (5, 4, 4), dt, "spd")
        w, v = omkm.eigh(a)
        np.testing.assert_allclose(w, np.linalg.eigvalsh(a.astype(np.float64))[..., ::-1], **tol(dt))
        lu, piv = omkm.lu_factor(a)
        x = omkm.lu_solve((lu, piv), np.ones((5, 4), dt))
        np.testing.assert_allclose(x, np.linalg.solve(a.astype(np.float64), np.ones((5, 4, 1)))[..., 0], **tol(dt))


def test_replay_with_out(rng, dt):
    a, b = rng.standard_normal((2, 6, 3, 3)).astype(dt)
    out = np.zeros((6, 3, 3), dt)
    for _ in range(3):
        a, b = rng.standard_normal((2, 6, 3, 3)).astype(dt)
        assert omkm.matmul(a, b, out=out) is out
        np.testing.assert_allclose(out, a @ b, **tol(dt))
    assert replayable(omkm.matmul, a, b, out=out)
    # the checks of out still hold on a replay: overlap, read-only
    with pytest.raises(ValueError, match="overlap"):
        omkm.matmul(a, b, out=a)
    with pytest.raises(ValueError, match="overlap"):
        omkm.matmul(out, b, out=out)
    ro = np.zeros_like(out)
    ro.flags.writeable = False
    with pytest.raises(ValueError, match="read-only"):
        omkm.matmul(a, b, out=ro)
    # in place where the library allows it: add
    for _ in range(3):
        x, y = rng.standard_normal((2, 6, 3, 3)).astype(dt)
        want = x + y
        assert omkm.add(x, y, out=x) is x
        np.testing.assert_allclose(x, want, **tol(dt))
    w = np.zeros(6, dt)
    for _ in range(3):
        m = stack(rng, (6, 3, 3), dt, "wellcond")
        assert omkm.det(m, out=w) is w
        np.testing.assert_allclose(w, np.linalg.det(m.astype(np.float64)), **tol(dt))
