"""Every function on stacks, single objects and transposed views, and each way of reading an operand in every layout."""
import itertools

import numpy as np
import pytest

import omkm
from conftest import check_layouts, stack, tol

COUNT = 7

mv = lambda m, v: np.einsum("...ij,...j->...i", m, v)
vm = lambda v, m: np.einsum("...i,...ij->...j", v, m)
vdot = lambda a, b: np.sum(a * b, axis=-1)


def solve64(a, b):
    b = np.broadcast_to(b, np.broadcast_shapes(a.shape[:-1], b.shape))
    return np.linalg.solve(a, b[..., None])[..., 0]


def lstsq64(a, b):
    at = np.swapaxes(a, -1, -2)
    return solve64(at @ a, mv(at, b))


def via(factor, solver):
    """solver(factor(a), b): a solver on the factors of a."""
    return lambda a, b, out=None, copy=True: solver(factor(a, copy=copy), b, out=out, copy=copy)


# name -> f, oracle, core shape of each operand (None: the constant 2.5), kind of matrices
CALLS = {
    "add": (omkm.add, np.add, [(3, 4), (3, 4)], "general"),
    "subtract": (omkm.subtract, np.subtract, [(3, 4), (3, 4)], "general"),
    "add_vectors": (omkm.add, np.add, [(5,), (5,)], "general"),
    "subtract_vectors": (omkm.subtract, np.subtract, [(5,), (5,)], "general"),
    "add_constant": (omkm.add, np.add, [None, (5,)], "general"),
    "subtract_constant": (omkm.subtract, np.subtract, [None, (3, 5)], "general"),
    "subtract_from_constant": (omkm.subtract, np.subtract, [(5,), None], "general"),
    "scale": (omkm.scale, np.multiply, [(3, 4), None], "general"),
    "scale_vectors": (omkm.scale, lambda v, c: v * c[..., None], [(4,), ()], "general"),
    "matmul": (omkm.matmul, np.matmul, [(3, 4), (4, 5)], "general"),
    "matvec": (omkm.matvec, mv, [(3, 4), (4,)], "general"),
    "vecmat": (omkm.vecmat, vm, [(3,), (3, 4)], "general"),
    "vecdot": (omkm.vecdot, vdot, [(3,), (3,)], "general"),
    "cross": (omkm.cross, np.cross, [(3,), (3,)], "general"),
    "norm": (lambda a, **k: omkm.norm(a, axis=-1, **k), lambda a: np.linalg.norm(a, axis=-1), [(5,)], "general"),
    "norm_matrices": (lambda a, **k: omkm.norm(a, axis=(-2, -1), **k),
                      lambda a: np.linalg.norm(a, axis=(-2, -1)), [(3, 4)], "general"),
    "trace": (omkm.trace, lambda a: np.trace(a, axis1=-2, axis2=-1), [(4, 4)], "general"),
    "det": (omkm.det, np.linalg.det, [(4, 4)], "wellcond"),
    "inv": (omkm.inv, np.linalg.inv, [(4, 4)], "wellcond"),
    "lu_backsubst": (via(omkm.lu_decomp, omkm.lu_backsubst), solve64, [(4, 4), (4,)], "wellcond"),
    "cholesky_solve": (via(omkm.cholesky_factor, omkm.cholesky_solve), solve64, [(4, 4), (4,)], "spd"),
    "qr_solve": (via(omkm.qr_packed, omkm.qr_solve), lstsq64, [(5, 3), (5,)], "general"),
    "eigen_sym_values": (omkm.eigen_sym_values, lambda a: np.linalg.eigvalsh(a)[..., ::-1], [(4, 4)], "spd"),
}


# Served by the compiled gufuncs, which copy what the library cannot read in place as numpy's own
# loops do: no copy= to forward.
GUFUNC = {"matmul", "matvec", "vecmat", "vecdot", "cross", "norm", "norm_matrices", "trace", "det", "inv"}


def forms(x):
    """x, its first object, and that object as a transposed view (matrices)."""
    if np.ndim(x) == 0:
        return [x]
    return [x, x[0]] + [np.ascontiguousarray(x[0].T).T] * (x.ndim == 3)


@pytest.mark.parametrize("name", CALLS)
def test_calls(rng, dt, name):
    f, oracle, cores, kind = CALLS[name]
    args = [2.5 if c is None else stack(rng, (COUNT,) + c, dt, kind * (len(c) == 2)) for c in cores]
    t = tol(dt) if dt == np.float64 else dict(rtol=2e-3, atol=2e-3)
    want = oracle(*[np.asarray(a, np.float64) for a in args])
    out = np.empty(want.shape, dt)
    assert f(*args, out=out) is out
    np.testing.assert_allclose(out, want, **t)
    for combo in itertools.product(*map(forms, args)):     # stacks, single objects, transposed views
        want = oracle(*[np.asarray(a, np.float64) for a in combo])
        got = f(*combo)
        assert got.dtype == dt and isinstance(got, np.ndarray) == (want.ndim > 0)
        np.testing.assert_allclose(got, want, **t)
    for i in range(len(args) * (name not in GUFUNC)):     # each operand forwards copy=False
        if np.ndim(args[i]):
            with pytest.raises(ValueError, match="copy=False"):
                f(*args[:i], args[i][::-1], *args[i + 1:], copy=False)


def test_layouts(rng, dt):
    a, b = (rng.standard_normal((COUNT, 3, 4)).astype(dt) for _ in range(2))
    v3 = rng.standard_normal((COUNT, 3)).astype(dt)
    k = rng.standard_normal(COUNT).astype(dt)
    cases = [  # label, f, oracle, x in every layout, its core axes, other operands
        ("add a", omkm.add, np.add, a, 2, (b,)),
        ("add b", lambda x, **kw: omkm.add(b, x, **kw), lambda x: b + x, a, 2, ()),
        ("subtract b", lambda x, **kw: omkm.subtract(b, x, **kw), lambda x: b - x, a, 2, ()),
        ("scale", lambda x, **kw: omkm.scale(x, -1.5, **kw), lambda x: x * -1.5, a, 2, ()),
        ("scale vectors", lambda x, **kw: omkm.scale(x, k, **kw), lambda x: x * k[:, None], v3, 1, ()),
    ]
    for label, f, oracle, x, nd, others in cases:
        check_layouts(f, oracle, x, nd, others, label)
