"""Element-wise operations, products, dot and cross products, norms and trace."""

import operator

import numpy as np

from ._core import (COUNT, asarray, batch_of, check_sizes, no_replay, operand, output, planned,
                    result_type, run)
from . import ufuncs as _uf


def _kinds(*ops, arr):
    """The kind letters of a member name: 'ma' + 'v' -> 'mav' in an array call."""
    if not arr:
        return "".join(k for _, k in ops)
    return "".join(k + "a" if op.count > 1 else k for op, k in ops)


def _addsub(op, name, a, b, out, copy):
    x, y = asarray(a, name), asarray(b, name)
    arrays = [z for z in (x, y) if z.ndim]
    if not arrays:
        raise ValueError(f"{name}: at least one operand must be an array")
    dt = result_type(*arrays)
    if x.ndim >= 2 and y.ndim >= 2:
        if x.shape[-2:] != y.shape[-2:]:
            raise ValueError(f"{name}: matrices of shapes {x.shape[-2:]} and {y.shape[-2:]} differ")
        h, w = x.shape[-2:]
        check_sizes(name, h, w)
        batch = batch_of(name, x.shape[:-2], y.shape[:-2])
        o = output(out, batch + (h, w), dt, 2, name)
        if o.count == 0:
            return o.a
        p = operand(x, 2, dt, copy, name + ": a", batch)
        q = operand(y, 2, dt, copy, name + ": b", batch)
        arr = o.count > 1
        first = (p, "t" if p.transposed else "m")
        second = (q, "t" if q.transposed else "m")
        # Add has no member with a single first operand against an array, nor m before t
        # (mt, mata): addition commutes exactly, so the operands change places.
        if op == "Add" and ((arr and q.count > 1 and p.count == 1) or
                            ((p.count > 1) == (q.count > 1) and first[1] == "m" and second[1] == "t")):
            first, second = second, first
        kinds = _kinds(first, second, arr=arr)
        pieces = [(first[0], "T" if first[1] == "t" else "m"), (second[0], "T" if second[1] == "t" else "m"),
                 (o, "m"), w, h]
        run(f"{op}_{kinds}", dt, pieces + [COUNT] * arr, o.count)
        return o.a
    if x.ndim == 0 or y.ndim == 0:                         # one constant
        no_replay()                                        # the constant goes by value
        v, c, cfirst = (y, x, True) if x.ndim == 0 else (x, y, False)
        n = v.shape[-1]
        check_sizes(name, n)
        o = output(out, v.shape, dt, 1, name)
        if o.count == 0:
            return o.a
        p = operand(v, 1, dt, copy, name)
        arr = o.count > 1
        kinds = ("cv" if op == "Sub" and cfirst else "vc").replace("v", "va" if arr else "v")
        run(f"{op}_{kinds}", dt, [(p, "v"), float(c), (o, "v"), n] + [COUNT] * arr, o.count)
        return o.a
    if x.shape[-1] != y.shape[-1]:                         # vectors
        raise ValueError(f"{name}: vectors of lengths {x.shape[-1]} and {y.shape[-1]} differ")
    n = x.shape[-1]
    check_sizes(name, n)
    batch = batch_of(name, x.shape[:-1], y.shape[:-1])
    o = output(out, batch + (n,), dt, 1, name)
    if o.count == 0:
        return o.a
    p = operand(x, 1, dt, copy, name + ": a", batch)
    q = operand(y, 1, dt, copy, name + ": b", batch)
    arr = o.count > 1
    if op == "Add" and arr and p.count == 1:
        p, q = q, p
    run(f"{op}_{_kinds((p, 'v'), (q, 'v'), arr=arr)}", dt,
        [(p, "v"), (q, "v"), (o, "v"), n] + [COUNT] * arr, o.count)
    return o.a


@planned
def add(a, b, out=None, *, copy=True):
    """a + b on matrices (..., h, w), vectors (..., n) or with one scalar constant.

    Two arrays of two or more axes are stacks of matrices; a 1-D operand makes both stacks of
    vectors (the rows of the other); a scalar is a constant added to every element. Leading axes
    broadcast; a single object against a stack uses the library's single-operand members, and a
    transposed view is read in place by the t members."""
    return _addsub("Add", "add", a, b, out, copy)


@planned
def subtract(a, b, out=None, *, copy=True):
    """a - b, with the operands of add()."""
    return _addsub("Sub", "subtract", a, b, out, copy)


def scale(a, c, out=None, *, copy=True):
    """a * c for a scalar c (matrices (..., h, w) or a vector (n,)), or c with one constant per
    vector of a (..., n): c of shape a.shape[:-1], numpy's a * c[..., None]. Each element is
    rounded once."""
    name = "scale"
    x, k = asarray(a, name), asarray(c, name)
    dt = result_type(x)
    if x.ndim == 0:
        raise ValueError(f"{name}: a must be a matrix or vector array")
    if k.ndim == 0 and x.ndim >= 2:
        h, w = x.shape[-2:]
        check_sizes(name, h, w)
        o = output(out, x.shape, dt, 2, name)
        if o.count == 0:
            return o.a
        p = operand(x, 2, dt, copy, name)
        arr = o.count > 1
        letter = "t" if p.transposed else "m"
        run(f"Mul_{letter}{'a' * arr}c", dt,
            [(p, "T" if p.transposed else "m"), float(k), (o, "m"), w, h] + [COUNT] * arr, o.count)
        return o.a
    n = x.shape[-1]
    check_sizes(name, n)
    batch = batch_of(name, x.shape[:-1], k.shape)
    o = output(out, batch + (n,), dt, 1, name)
    if o.count == 0:
        return o.a
    p = operand(x, 1, dt, copy, name + ": a", batch)
    arr = o.count > 1
    q = operand(k, 0, dt, copy, name + ": c", batch) if k.ndim else None
    if q is None or q.count == 1:
        val = float(k.reshape(-1)[0])
        run(f"Mul_v{'a' * arr}c", dt, [(p, "v"), val, (o, "v"), n] + [COUNT] * arr, o.count)
    else:
        run(f"Mul_v{'a' * (p.count > 1)}ca", dt, [(p, "v"), (q, "c"), (o, "v"), n, COUNT], o.count)
    return o.a


# numpy's names for the products, the trace and the norms are the compiled gufuncs (omkm.ufuncs):
# numpy.ufunc objects, so broadcasting, out=, axes=, axis=, keepdims=, dtype= and dispatch through
# __array_ufunc__ (dask arrays, say) are numpy's own, at numpy's cost per call. They compute in
# float32 when every operand is float32 and in float64 otherwise, as numpy.linalg does, and refuse
# other floating and complex dtypes by name.
matmul = _uf.matmul
matvec = _uf.matvec
vecmat = _uf.vecmat
vecdot = _uf.vecdot
trace = _uf.trace


def _array(x):
    return x if type(x) is np.ndarray else np.asarray(x)


def cross(a, b, axisa=-1, axisb=-1, axisc=-1, axis=None, out=None):
    """numpy.cross for 3-vectors: the cross product of each pair of vectors of a and b along
    axisa / axisb (axis sets all three), the results along axisc; leading axes broadcast. 2-vectors
    raise NotImplementedError (the library's cross product is of 3-vectors)."""
    if axis is not None:
        axisa = axisb = axisc = axis
    x, y = _array(a), _array(b)
    for v, k in ((x, axisa), (y, axisb)):
        n = v.shape[k] if -v.ndim <= k < v.ndim else None
        if n == 2:
            raise NotImplementedError("cross: 2-vectors (the library's cross product is of 3-vectors)")
        if n is not None and n != 3:
            raise ValueError("cross: incompatible dimensions for cross product (dimension must be 2 or 3)")
    return _uf.cross(x, y, axes=[(axisa,), (axisb,), (axisc,)], out=out)


def norm(x, ord=None, axis=None, keepdims=False, out=None):
    """numpy.linalg.norm for the norms the library computes: the Euclidean norm of vectors (ord None
    or 2; axis an int, or None on a 1-D array) and the Frobenius norm of matrices (ord None or
    'fro'; axis a pair of axes, or None on a 2-D array). axis None and ord None on any other number
    of axes is the Euclidean norm of all elements, as numpy has it. Other orders raise
    NotImplementedError naming them."""
    a = _array(x)
    if axis is None:
        if a.ndim == 2:
            axis = (0, 1)
        elif a.ndim == 1 or ord is None:
            r = _vector_norm(ord, a.reshape(-1), out=None if keepdims else out)
            return r if not keepdims else _keep(r.reshape((1,) * a.ndim), out)
        else:
            raise ValueError(f"norm: ord {ord!r} needs a 1-D or 2-D array when axis is None")
    if not isinstance(axis, (tuple, list)):
        return _vector_norm(ord, a, axis=axis, keepdims=keepdims, out=out)
    if len(axis) != 2:
        raise ValueError(f"norm: axis must be an int or a pair of ints, got {axis!r}")
    if ord not in (None, "fro"):
        raise NotImplementedError(f"norm: ord={ord!r} for matrices (the library computes 'fro')")
    r, c = operator.index(axis[0]), operator.index(axis[1])
    if not (-a.ndim <= r < a.ndim and -a.ndim <= c < a.ndim):
        raise np.AxisError(f"norm: axis {axis!r} is out of bounds for an array of {a.ndim} axes")
    r, c = r % a.ndim, c % a.ndim
    if r == c:
        raise ValueError(f"norm: duplicate axes in {axis!r}")
    if (r, c) == (a.ndim - 2, a.ndim - 1):                # the last two: no axes= to parse
        return _uf.matrix_norm(a, keepdims=keepdims, out=out)
    return _uf.matrix_norm(a, axes=[(r, c)], keepdims=keepdims, out=out)


def _vector_norm(ord, a, **kw):
    if ord not in (None, 2):
        raise NotImplementedError(f"norm: ord={ord!r} for vectors (the library computes 2)")
    return _uf.vector_norm(a, **kw)


def _keep(r, out):
    if out is None:
        return r
    out[...] = r
    return out


def matrix_transpose(x):
    """numpy 2's numpy.matrix_transpose: each matrix of x (..., h, w) transposed, as a view
    (..., w, h); the library reads such views in place."""
    a = np.asarray(x)
    if a.ndim < 2:
        raise ValueError(f"matrix_transpose: x needs at least 2 axes, got shape {a.shape}")
    return np.swapaxes(a, -1, -2)
