import numpy as np
import pytest

import omkm

SENTINEL = 7.0


def sentinel(shape, dt=np.float64):
    return np.full(shape, SENTINEL, dt)


@pytest.mark.parametrize("call, exc, match", [
    (lambda: omkm.matmul(np.ones((2, 3, 3)), np.ones((2, 4, 4))), ValueError, "mismatch in its core dimension"),
    (lambda: omkm.matmul(np.ones((2, 3, 3)), np.ones((3, 3, 3))), ValueError, "broadcast"),
    (lambda: omkm.matmul(np.ones(3), 2.0), ValueError, "enough dimensions"),
    (lambda: omkm.add(np.ones((2, 3, 3)), np.ones((2, 3, 4))), ValueError, "differ"),
    (lambda: omkm.add(np.ones(3), np.ones(4)), ValueError, "differ"),
    (lambda: omkm.add(1.0, 2.0), ValueError, "array"),
    (lambda: omkm.inv(np.ones((2, 3, 4))), np.linalg.LinAlgError, "square"),
    (lambda: omkm.det(np.ones(3)), np.linalg.LinAlgError, "square"),
    (lambda: omkm.eigh(np.ones((3, 2))), ValueError, "square"),
    (lambda: omkm.inv(np.eye(3, dtype=np.float16)), TypeError, "float16"),
    (lambda: omkm.matmul(np.eye(3, dtype=np.float16), np.eye(3)), TypeError, "float16"),
    (lambda: omkm.vecdot(np.ones(3, complex), np.ones(3)), TypeError, "complex128"),
    (lambda: omkm.eigvalsh(1e-6 * np.eye(3)), omkm.SingularMatrixError, r"2\^-52 .*absolute threshold"),
    (lambda: omkm.eigen_sym_values(1e-6 * np.eye(3)), omkm.SingularMatrixError, r"2\^-52 .*absolute threshold"),
    (lambda: omkm.qr(1e-4 * np.eye(2, dtype=np.float32)), omkm.DivByZeroError, r"2\^-23 .*absolute threshold"),
    (lambda: omkm.solve(np.eye(3), np.ones(3, np.longdouble)), TypeError, "float128"),
    (lambda: omkm.solve(np.eye(3), np.ones(4)), ValueError, "core dimension"),
    (lambda: omkm.qr_packed(np.ones((2, 3))), ValueError, "h >= w"),
    (lambda: omkm.qr(np.ones((3, 3)), mode="raw"), NotImplementedError, "raw"),
    (lambda: omkm.cross(np.ones(4), np.ones(4)), ValueError, "must be 2 or 3"),
    (lambda: omkm.cross(np.ones(2), np.ones(2)), NotImplementedError, "2-vectors"),
    (lambda: omkm.norm(np.ones((3, 3)), ord=1), NotImplementedError, "ord=1"),
    (lambda: omkm.norm(np.ones((2, 3, 3)), axis=(1, 2), ord=2), NotImplementedError, "ord=2 for matrices"),
    (lambda: omkm.norm(np.ones((3, 3)), axis=2), np.AxisError, "out of bounds"),
    (lambda: omkm.cholesky_factor(np.ones((0, 0))), ValueError, "at least 1"),
    (lambda: omkm.transform_points(np.eye(4), np.ones((5, 5))), ValueError, "components"),
    (lambda: omkm.transform_points(np.eye(3), np.ones((5, 3))), ValueError, "4x4"),
    (lambda: omkm.transform_points(np.eye(4), np.ones(3), kind="x"), ValueError, "kind"),
    (lambda: omkm.lu_backsubst((np.eye(3), np.array([0, 1, 5], np.intc)), np.ones(3)), ValueError, "row indices"),
    (lambda: omkm.lu_solve((np.eye(3), np.array([0, 1, 5], np.intc)), np.ones(3)), ValueError, "row numbers"),
    (lambda: omkm.lu_solve((np.eye(3), np.zeros(3, np.intc)), np.ones(3), trans=1), NotImplementedError, "trans"),
    (lambda: omkm.add(np.ones((3, 3), complex), np.ones((3, 3))), TypeError, "complex"),
    (lambda: omkm.inv(np.array([["a"]])), TypeError, "dtype"),
    (lambda: omkm.eigen_sym(np.eye(3), out=np.zeros(3)), TypeError, "tuple"),
    (lambda: omkm.eigh(np.eye(3), UPLO="X"), ValueError, "UPLO"),
    (lambda: omkm.eigen_sym_values(np.ones((4, 3, 3)), out=np.zeros((4, 6))[:, ::2]), ValueError, "C-contiguous"),
    (lambda a=np.ones((4, 3, 3)): omkm.qr_packed(a, out=a), ValueError, "overlap"),
])
def test_argument_errors(call, exc, match):
    with pytest.raises(exc, match=match):
        call()


@pytest.mark.parametrize("f, args, shape", [
    (omkm.add, (np.ones((4, 3, 3)), np.ones((4, 3, 3))), (4, 3, 3)),
    (omkm.eigen_sym_values, (np.ones((4, 3, 3)),), (4, 3)),
])
def test_out_validated_before_writing(f, args, shape):
    ro = sentinel(shape)
    ro.flags.writeable = False
    for out, exc, match in [(sentinel(shape[:-1] + (shape[-1] + 1,)), ValueError, "shape"),
                            (sentinel(shape, np.float32), TypeError, "dtype"), (ro, ValueError, "read-only"),
                            (sentinel(shape)[::-1], ValueError, "out"), ([SENTINEL], TypeError, "numpy array")]:
        with pytest.raises(exc, match=match):
            f(*args, out=out)
        assert (np.asarray(out) == SENTINEL).all()
    good = sentinel(shape)                                # an operand refused leaves out untouched too
    with pytest.raises(ValueError, match="copy=False"):
        f(*[a[::-1] for a in args], out=good, copy=False)
    assert (good == SENTINEL).all()


@pytest.mark.parametrize("make, reason", [
    (lambda a: a[::-1], "negative"),
    (lambda a: np.broadcast_to(a[:1], a.shape), "zero"),
    (lambda a: np.round(10 * a).astype(np.int64), "dtype"),
    (lambda a: a.astype(">f8"), "dtype"),
    (lambda a: np.ndarray(a.shape, a.dtype, b"\0" + a.tobytes(), 1), "aligned"),
])
def test_copy_false_says_why(make, reason):
    a = 0.1 * np.random.default_rng(0).standard_normal((5, 3, 3)) + 3 * np.eye(3)
    x = make(a @ np.swapaxes(a, 1, 2))
    with pytest.raises(ValueError, match=reason):
        omkm.cholesky_factor(x, copy=False, out=np.empty((5, 3, 3)))
    np.testing.assert_allclose(omkm.cho_lower(omkm.cholesky_factor(x)), np.linalg.cholesky(x.astype(np.float64)),
                               rtol=1e-4, atol=1e-5)


def test_status_errors(dt):
    cases = [
        (lambda: omkm.inv(np.zeros((3, 3), dt)), omkm.SingularMatrixError, -206),
        (lambda: omkm.lu_factor(np.zeros((2, 4, 4), dt)), omkm.SingularMatrixError, -206),
        (lambda: omkm.cholesky(np.array([[[1, 2], [2, 1]]] * 3, dt)), omkm.NotPosDefiniteError, -205),
        (lambda: omkm.qr(np.zeros((2, 4, 3), dt)), omkm.DivByZeroError, -10),
        (lambda: omkm.eig(np.full((2, 4, 4), np.nan, dt)), omkm.NotConvergedError, -207),
        (lambda: omkm.eigh(np.full((4, 4), np.nan, dt)), omkm.NotConvergedError, -207),
    ]
    for call, cls, status in cases:
        with pytest.raises(cls) as info:
            call()
        assert isinstance(info.value, np.linalg.LinAlgError) and isinstance(info.value, omkm.OmkmError)
        assert info.value.status == status and str(status) in str(info.value)
