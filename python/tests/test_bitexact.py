"""Results whose bits the library fixes, against direct ctypes calls of the C functions."""
import ctypes as C

import numpy as np
import pytest

import omkm

LIB = C.CDLL(omkm.library_path)
P, I = C.c_void_p, C.c_int


def direct(name, argtypes, *args):
    f = getattr(LIB, name)
    f.restype, f.argtypes = C.c_int, argtypes
    assert f(*args) == 0


def ptr(a):
    assert a.flags.c_contiguous
    return a.ctypes.data


def sfx(dt):
    return "_32f" if dt == np.float32 else "_64f"


def same_bits(a, b):
    assert a.dtype == b.dtype and a.shape == b.shape
    np.testing.assert_array_equal(a.view(np.uint8), np.ascontiguousarray(b).view(np.uint8))


def layouts(x):
    """C-contiguous, transposed view and structured-array field holding x (count, h, w)."""
    t = np.ascontiguousarray(np.swapaxes(x, 1, 2)).swapaxes(1, 2)
    rec = np.zeros(x.shape[0], [("id", np.int64), ("m", x.dtype, x.shape[1:])])
    rec["m"] = x
    return [x, t, rec["m"]]


@pytest.mark.parametrize("n", [3, 4, 6])
def test_matmul_bits(rng, dt, n):
    count = 50
    x = rng.standard_normal((count, n, n)).astype(dt)
    y = rng.standard_normal((count, n, n)).astype(dt)
    isz = x.itemsize
    want = np.empty_like(x)
    m = [P, I, I, I, I, I]
    direct("omkmMul_mama" + sfx(dt), m + m + [P, I, I, I, I],
           ptr(x), n * n * isz, n * isz, isz, n, n, ptr(y), n * n * isz, n * isz, isz, n, n,
           ptr(want), n * n * isz, n * isz, isz, count)
    for a in layouts(x):
        for b in layouts(y):
            same_bits(omkm.matmul(a, b, copy=False), want)
    # one matrix against the stack: Mul_mma
    want1 = np.empty_like(y)
    direct("omkmMul_mma" + sfx(dt), [P, I, I, I, I] + m + [P, I, I, I, I],
           ptr(x[0]), n * isz, isz, n, n, ptr(y), n * n * isz, n * isz, isz, n, n,
           ptr(want1), n * n * isz, n * isz, isz, count)
    same_bits(omkm.matmul(x[0], y), want1)
    same_bits(omkm.matmul(np.ascontiguousarray(x[0].T).T, y), want1)
    # a product by Mul_mm for a single pair
    want2 = np.empty((n, n), dt)
    direct("omkmMul_mm" + sfx(dt), [P, I, I, I, I] * 2 + [P, I, I],
           ptr(x[1]), n * isz, isz, n, n, ptr(y[1]), n * isz, isz, n, n, ptr(want2), n * isz, isz)
    same_bits(omkm.matmul(x[1], y[1]), want2)


def test_add_sub_bits(rng, dt):
    count, h, w = 30, 3, 5
    x = rng.standard_normal((count, h, w)).astype(dt)
    y = rng.standard_normal((count, h, w)).astype(dt)
    isz = x.itemsize
    m = [P, I, I, I]
    for op, f in (("Add", omkm.add), ("Sub", omkm.subtract)):
        want = np.empty_like(x)
        direct(f"omkm{op}_mama" + sfx(dt), m * 3 + [I, I, I],
               ptr(x), h * w * isz, w * isz, isz, ptr(y), h * w * isz, w * isz, isz,
               ptr(want), h * w * isz, w * isz, isz, w, h, count)
        for a in layouts(x):
            for b in layouts(y):
                same_bits(f(a, b, copy=False), want)


def test_bits_do_not_depend_on_threads(rng):
    x = rng.standard_normal((20000, 4, 4)).astype(np.float32)
    before = omkm.get_num_threads()
    try:
        omkm.set_num_threads(1)
        one = omkm.matmul(x, x)
        omkm.set_num_threads(2)
        two = omkm.matmul(x, x)
    finally:
        omkm.set_num_threads(0)
    same_bits(one, two)
    assert omkm.get_num_threads() == before
