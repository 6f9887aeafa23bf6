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


CASES = [
    (omkm.add, np.add, ("general", "general")),
    (omkm.cholesky_solve, lambda f, b: np.linalg.solve(spd_of(f), b[..., None])[..., 0], ("factor", "vector")),
    (omkm.cholesky_factor, lambda a: np.linalg.cholesky(a), ("spd",)),
    (omkm.eigen_sym_values, lambda a: np.linalg.eigvalsh(a)[..., ::-1], ("spd",)),
]


def spd_of(f):
    """L L^T from a cholesky_factor() factor."""
    low = omkm.cho_lower(f)
    return low @ np.swapaxes(low, -1, -2)


@pytest.mark.parametrize("shape", [(), (5,)])
def test_replay_matches_oracle(rng, dt, shape):
    def args():
        return [rng.standard_normal(shape + (4,)).astype(dt) if k == "vector" else
                omkm.cholesky_factor(stack(rng, shape + (4, 4), dt, "spd")) if k == "factor" else
                stack(rng, shape + (4, 4), dt, k) for k in kinds]

    for f, oracle, kinds in CASES:
        first = args()
        f(*first)
        assert replayable(f, *first)
        new = args()
        got = f(*new)
        got = omkm.cho_lower(got) if f is omkm.cholesky_factor else got
        np.testing.assert_allclose(got, oracle(*[a.astype(np.float64) for a in new]), **tol(dt))
        assert not any(np.shares_memory(got, a) for a in new + first)


def test_replay_raises_statuses_and_checks_out(rng, dt):
    good = np.eye(3, dtype=dt)[None].repeat(3, 0)
    omkm.cholesky_factor(good)
    assert replayable(omkm.cholesky_factor, good)
    with pytest.raises(omkm.NotPosDefiniteError) as info:
        omkm.cholesky_factor(-good)
    assert info.value.status == -205
    out = np.zeros((6, 3, 3), dt)
    for _ in range(2):
        a = stack(rng, (6, 3, 3), dt, "spd")
        assert omkm.cholesky_factor(a, out=out) is out
        np.testing.assert_allclose(spd_of(out), a, **tol(dt))
    assert replayable(omkm.cholesky_factor, a, out=out)
    with pytest.raises(ValueError, match="overlap"):
        omkm.cholesky_factor(a, out=a[:])                 # the layout of the plan, overlapping a
    ro = np.zeros_like(out)
    ro.flags.writeable = False
    with pytest.raises(ValueError, match="read-only"):
        omkm.cholesky_factor(a, out=ro)


def test_out_by_position_as_by_keyword(rng, dt):
    """Every cached function takes out by position as by keyword (first call and replay alike)."""
    a = stack(rng, (3, 4, 4), dt, "spd")
    v = rng.standard_normal((3, 4)).astype(dt)
    o = omkm
    table = {o.lu_decomp: (a,), o.cholesky_factor: (a,), o.cholesky_solve: (o.cholesky_factor(a), v),
             o.qr_packed: (a,), o.qr_solve: (o.qr_packed(a), v), o.eigen_sym_values: (a,),
             o.eigen_sym: (a,), o.add: (a, a), o.subtract: (a, a)}
    assert set(table) == {f for f in vars(omkm).values() if hasattr(f, "plans")}
    for f, ins in table.items():
        want = f(*ins)
        for _ in range(2):                        # the first call records a plan, the second replays it
            out = tuple(map(np.zeros_like, want)) if isinstance(want, tuple) else np.zeros_like(want)
            got = f(*ins, out)
            for g, x, w in zip(*[r if isinstance(r, tuple) else (r,) for r in (got, out, want)]):
                assert g is x
                np.testing.assert_array_equal(x, w)
        with pytest.raises(TypeError):
            f(*ins, out, out=out)
