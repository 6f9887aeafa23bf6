import os
import sys

import numpy as np
import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), ".."))

DTYPES = [np.float32, np.float64]


def tol(dt):
    """Tolerances of a float32 / float64 result against numpy's."""
    return dict(rtol=3e-4, atol=3e-5) if np.dtype(dt) == np.float32 else dict(rtol=1e-10, atol=1e-12)


@pytest.fixture
def rng():
    return np.random.default_rng(1234)


@pytest.fixture(params=DTYPES, ids=["f32", "f64"])
def dt(request):
    return np.dtype(request.param)


def variants(x, nd):
    """Arrays holding the values of x (one leading axis, `nd` core axes) in other layouts:
    name -> (array, read in place). The in-place ones must work with copy=False."""
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
    r = x[::-1].copy()
    out["reversed"] = (r[::-1], False)
    out["big_endian"] = (x.astype(dt.newbyteorder(">")), False)
    packed = np.dtype([("pad", np.int32), ("val", dt, x.shape[1:])], align=False)
    p = np.zeros(x.shape[0], packed)
    p["val"] = x
    out["packed_field"] = (p["val"], dt.itemsize == 4)   # float64 at offset 4: misaligned
    for name, (a, _) in out.items():
        np.testing.assert_array_equal(a, x, err_msg=name)
    return out


def stack(rng, shape, dt, kind="general"):
    """Random matrices (..., n, n): general, well conditioned (spd: symmetric positive definite)."""
    a = rng.standard_normal(shape)
    if kind == "wellcond":
        a = a + shape[-1] * np.eye(shape[-1])
    elif kind == "spd":
        a = a @ np.swapaxes(a, -1, -2) + shape[-1] * np.eye(shape[-1])
    elif kind == "sym":
        a = a + np.swapaxes(a, -1, -2)
    return a.astype(dt)
