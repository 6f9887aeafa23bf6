import os
import sys

import numpy as np
import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), ".."))


def tol(dt):
    """Tolerances of a float32 / float64 result against numpy's."""
    return dict(rtol=3e-4, atol=3e-5) if np.dtype(dt) == np.float32 else dict(rtol=1e-10, atol=1e-12)


@pytest.fixture
def rng():
    return np.random.default_rng(1234)


@pytest.fixture(params=[np.float32, np.float64], ids=["f32", "f64"])
def dt(request):
    return np.dtype(request.param)


def variants(x, nd):
    """x's values (one leading axis, `nd` core axes) in other layouts: name -> (array, read in place)."""
    dt = x.dtype
    out = {"contiguous": (x.copy(), True)}
    big = np.full(tuple(2 * s + 1 for s in x.shape), np.nan, dt)
    v = big[tuple(slice(1, None, 2) for _ in x.shape)]
    v[...] = x
    out["strided"] = (v, True)
    if nd == 2:
        out["transposed"] = (np.ascontiguousarray(np.swapaxes(x, -1, -2)).swapaxes(-1, -2), True)
    rec = np.dtype([("id", np.int64), ("val", dt, x.shape[1:]), ("tail", np.float32)], align=True)
    s = np.zeros(x.shape[0], rec)
    s["val"] = x
    out["field"] = (s["val"], True)
    out["batch_innermost"] = (np.moveaxis(np.ascontiguousarray(np.moveaxis(x, 0, -1)), -1, 0), True)
    out["reversed"] = (x[::-1].copy()[::-1], False)
    packed = np.dtype([("pad", np.int32), ("val", dt, x.shape[1:])], align=False)
    p = np.zeros(x.shape[0], packed)
    p["val"] = x
    out["packed_field"] = (p["val"], dt.itemsize == 4)   # float64 at offset 4: misaligned
    for name, (a, _) in out.items():
        np.testing.assert_array_equal(a, x, err_msg=name)
    return out


def check_layouts(f, oracle, x, nd, others=(), label=""):
    """f(layout of x, *others) against oracle(x, *others); copy=False raises exactly for layouts needing a copy."""
    want = oracle(x.astype(np.float64), *[np.asarray(o, np.float64) for o in others])
    for name, (a, in_place) in variants(x, nd).items():
        got = f(a, *others)
        assert got.dtype == x.dtype, (label, name)
        np.testing.assert_allclose(got, want, err_msg=f"{label} {name}", **tol(x.dtype))
        if in_place:
            np.testing.assert_allclose(f(a, *others, copy=False), want, err_msg=f"{label} {name}", **tol(x.dtype))
        else:
            with pytest.raises(ValueError, match="copy=False"):
                f(a, *others, copy=False)


def stack(rng, shape, dt, kind="general"):
    """Random matrices (..., h, w): general, well conditioned or spd (symmetric positive definite)."""
    a = rng.standard_normal(shape)
    if kind == "wellcond":
        a = a + shape[-1] * np.eye(shape[-1])
    elif kind == "spd":
        a = a @ np.swapaxes(a, -1, -2) + shape[-1] * np.eye(shape[-1])
    return a.astype(dt)
