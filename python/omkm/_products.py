"""Element-wise operations, products, dot and cross products, norms and trace."""

import numpy as np

from ._core import (COUNT, asarray, batch_of, check_sizes, no_replay, operand, output, planned,
                    result_type, run)


def _kinds(*ops, arr):
    """The kind letters of a member name: 'ma' + 'v' -> 'mav' in an array call."""
    if not arr:
        return "".join(k for _, k in ops)
    return "".join(k + "a" if op.count > 1 else k for op, k in ops)


def _stored(p, trans):
    """(name letter, run kind, stored width, stored height) reading matrix U of `p` as U (trans
    False) or as U^T (trans True). A transposed view (a column's elements one item from each other) is
    read through its transpose, the stored matrix, so that its rows are packed."""
    h, w = p.a.shape[-2:]
    if p.transposed:
        return ("m" if trans else "t"), "T", h, w
    return ("t" if trans else "m"), "m", w, h


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


@planned
def matmul(a, b, out=None, *, copy=True):
    """a @ b as numpy.matmul: stacks of matrices (..., h, k) @ (..., k, w) -> (..., h, w); a 1-D
    operand is a vector (see matvec and vecmat). Transposed views are read in place by the
    library's t members (Mul_mt, Mul_tama, ...); one matrix against a stack uses Mul_mma / Mul_mam.
    out must not overlap a or b."""
    name = "matmul"
    x, y = asarray(a, name), asarray(b, name)
    if x.ndim == 0 or y.ndim == 0:
        raise ValueError(f"{name}: operands must have at least one axis")
    if x.ndim == 1 and y.ndim == 1:
        return vecdot(x, y, out=out, copy=copy)
    if y.ndim == 1:
        return matvec(x, y, out=out, copy=copy)
    if x.ndim == 1:
        return vecmat(x, y, out=out, copy=copy)
    dt = result_type(x, y)
    (h, k), (k2, w) = x.shape[-2:], y.shape[-2:]
    if k != k2:
        raise ValueError(f"{name}: shapes {x.shape} and {y.shape} do not fit: {k} != {k2}")
    check_sizes(name, h, k, w)
    batch = batch_of(name, x.shape[:-2], y.shape[:-2])
    o = output(out, batch + (h, w), dt, 2, name, inputs=(x, y))
    if o.count == 0:
        return o.a
    p = operand(x, 2, dt, copy, name + ": a", batch)
    q = operand(y, 2, dt, copy, name + ": b", batch)
    arr = o.count > 1
    lp, kp, wp, hp = _stored(p, False)
    lq, kq, wq, hq = _stored(q, False)
    run(f"Mul_{_kinds((p, lp), (q, lq), arr=arr)}", dt,
        [(p, kp), wp, hp, (q, kq), wq, hq, (o, "m")] + [COUNT] * arr, o.count)
    return o.a


def _matvec(name, a, v, trans, out, copy):
    x, y = asarray(a, name), asarray(v, name)
    if x.ndim < 2 or y.ndim < 1:
        raise ValueError(f"{name}: needs matrices (..., h, w) and vectors (..., n)")
    dt = result_type(x, y)
    h, w = x.shape[-2:]
    n, m = (h, w) if trans else (w, h)
    if y.shape[-1] != n:
        raise ValueError(f"{name}: vectors of length {y.shape[-1]} do not fit matrices {x.shape[-2:]}")
    check_sizes(name, h, w)
    batch = batch_of(name, x.shape[:-2], y.shape[:-1])
    o = output(out, batch + (m,), dt, 1, name, inputs=(x, y))
    if o.count == 0:
        return o.a
    p = operand(x, 2, dt, copy, name + ": matrix", batch)
    q = operand(y, 1, dt, copy, name + ": vector", batch)
    arr = o.count > 1
    lp, kp, wp, hp = _stored(p, trans)
    run(f"Mul_{_kinds((p, lp), (q, 'v'), arr=arr)}", dt,
        [(p, kp), wp, hp, (q, "v"), n, (o, "v")] + [COUNT] * arr, o.count)
    return o.a


@planned
def matvec(a, x, out=None, *, copy=True):
    """a @ x for each matrix of a (..., h, w) and vector of x (..., w) -> (..., h); leading axes
    broadcast (Mul_mv, Mul_mva, Mul_mav, Mul_mava; t members for transposed views)."""
    return _matvec("matvec", a, x, False, out, copy)


@planned
def vecmat(x, a, out=None, *, copy=True):
    """x @ a, that is a^T x, for each vector of x (..., h) and matrix of a (..., h, w) ->
    (..., w); a is read transposed in place (Mul_tv, Mul_tava, ...)."""
    return _matvec("vecmat", a, x, True, out, copy)


def _vector_pair(name, a, b, n_fixed=None):
    x, y = asarray(a, name), asarray(b, name)
    if x.ndim < 1 or y.ndim < 1:
        raise ValueError(f"{name}: operands must be vectors (..., n)")
    if x.shape[-1] != y.shape[-1] or (n_fixed and x.shape[-1] != n_fixed):
        want = f" (must be {n_fixed})" if n_fixed else ""
        raise ValueError(f"{name}: vectors of lengths {x.shape[-1]} and {y.shape[-1]}{want}")
    check_sizes(name, x.shape[-1])
    return x, y, result_type(x, y), batch_of(name, x.shape[:-1], y.shape[:-1])


@planned
def vecdot(a, b, out=None, *, axis=-1, copy=True):
    """The dot product of each pair of vectors of a and b along `axis` (..., n) -> (...), as
    numpy 2's numpy.vecdot for real operands (np.sum(a * b, axis=axis)); out must be C-contiguous."""
    name = "vecdot"
    x, y = asarray(a, name), asarray(b, name)
    if axis != -1:
        x, y = _last_axis(name, x, axis), _last_axis(name, y, axis)
    x, y, dt, batch = _vector_pair(name, x, y)
    n = x.shape[-1]
    o = output(out, batch, dt, 0, name, packed=True, inputs=(x, y))
    if o.count == 0:
        return o.a
    p = operand(x, 1, dt, copy, name + ": a", batch)
    q = operand(y, 1, dt, copy, name + ": b", batch)
    arr = o.count > 1
    if arr and p.count == 1:
        p, q = q, p
    run(f"DotProduct_{_kinds((p, 'v'), (q, 'v'), arr=arr)}", dt,
        [(p, "v"), (q, "v"), (o, "p"), n] + [COUNT] * arr, o.count)
    return o.a if out is not None or o.a.ndim else o.a[()]


def _last_axis(name, x, axis):
    """x with `axis` moved last (a view): the library reads the vectors along it in place."""
    try:
        return np.moveaxis(x, axis, -1)
    except np.AxisError as e:
        raise np.AxisError(f"{name}: {e}") from None


def cross(a, b, axisa=-1, axisb=-1, axisc=-1, axis=None, out=None, *, copy=True):
    """numpy.cross for 3-vectors: the cross product of each pair of vectors of a and b along
    axisa / axisb (axis sets all three), results along axisc. 2-vectors raise NotImplementedError
    (the library's cross product is of 3-vectors)."""
    if axis is not None:
        axisa = axisb = axisc = axis
    x, y = (_last_axis("cross", asarray(v, "cross"), k) for v, k in ((a, axisa), (b, axisb)))
    if 2 in (x.shape[-1:] + y.shape[-1:]):
        raise NotImplementedError("cross: 2-vectors (the library's cross product is of 3-vectors)")
    if axisc == -1:
        return _cross(x, y, out, copy=copy)
    r = _cross(x, y, None if out is None else np.moveaxis(out, axisc, -1), copy=copy)
    return np.moveaxis(r, -1, axisc) if out is None else out


@planned
def _cross(a, b, out=None, *, copy=True):
    """The cross product of each pair of 3-vectors of a and b (..., 3) -> (..., 3)."""
    name = "cross"
    x, y, dt, batch = _vector_pair(name, a, b, 3)
    o = output(out, batch + (3,), dt, 1, name, inputs=(x, y))
    if o.count == 0:
        return o.a
    p = operand(x, 1, dt, copy, name + ": a", batch)
    q = operand(y, 1, dt, copy, name + ": b", batch)
    arr = o.count > 1
    run(f"CrossProduct_{_kinds((p, 'v'), (q, 'v'), arr=arr)}", dt,
        [(p, "v"), (q, "v"), (o, "v")] + [COUNT] * arr, o.count)
    return o.a


@planned
def norm(a, ord=None, axis=None, keepdims=False, out=None, *, copy=True):
    """numpy.linalg.norm for the norms the library computes: the Euclidean norm of vectors (ord None
    or 2, axis an int: each vector along it; axis None on a 1-D array) and the Frobenius norm of
    matrices (ord None or 'fro', axis a pair of axes: each matrix over them; axis None on a 2-D
    array); axis None with ord None on more axes is the Euclidean norm of all elements, as numpy
    has it. Other orders raise NotImplementedError. out must be C-contiguous."""
    name = "norm"
    x = asarray(a, name)
    if axis is None:
        if ord is not None and x.ndim not in (1, 2):
            raise ValueError(f"{name}: ord {ord!r} needs a 1-D or 2-D array when axis is None")
        axes = (0,) if x.ndim == 1 else (0, 1) if x.ndim == 2 and ord is not None else None
    else:
        axes = (axis,) if np.ndim(axis) == 0 else tuple(axis)
        if len(axes) not in (1, 2):
            raise ValueError(f"{name}: axis must be an int or a pair of ints, got {axis!r}")
        if any(not -x.ndim <= int(k) < x.ndim for k in axes):
            raise np.AxisError(f"{name}: axis {axis!r} is out of bounds for an array of {x.ndim} axes")
        axes = tuple(int(k) % x.ndim for k in axes)
        if len(set(axes)) != len(axes):
            raise ValueError(f"{name}: duplicate axes in {axis!r}")
    if axes is None:                              # the norm of all elements: x as one vector
        y, nd = x.reshape(-1), 1
    else:
        nd = len(axes)
        if x.ndim == 2 and axis is None and ord is None:
            nd = 2
        allowed = (None, 2) if nd == 1 else (None, "fro")
        if ord not in allowed:
            raise NotImplementedError(f"{name}: ord={ord!r} for {'vectors' if nd == 1 else 'matrices'} "
                                      f"(the library computes ord {' and '.join(map(repr, allowed[1:]))})")
        y = np.moveaxis(x, axes, tuple(range(-nd, 0)))
    r = _norms(name, y, nd, None if keepdims else out, copy)
    if keepdims:
        shape = [1 if k in (axes or range(x.ndim)) else n for k, n in enumerate(x.shape)]
        r = r.reshape(shape)
        if out is not None:
            out[...] = r
            return out
    return r


def _norms(name, x, nd, out, copy):
    """The Euclidean norm of each vector (nd = 1) or Frobenius norm of each matrix (nd = 2) of x."""
    dt = result_type(x)
    if x.ndim < nd:
        raise ValueError(f"{name}: a needs at least {nd} axes")
    check_sizes(name, *x.shape[x.ndim - nd:])
    o = output(out, x.shape[:x.ndim - nd], dt, 0, name, packed=True, inputs=(x,))
    if o.count == 0:
        return o.a
    p = operand(x, nd, dt, copy, name)
    arr = o.count > 1
    if nd == 1:
        run(f"L2Norm_v{'a' * arr}", dt, [(p, "v"), (o, "p"), x.shape[-1]] + [COUNT] * arr, o.count)
    else:
        h, w = x.shape[-2:]
        run(f"FrobNorm_m{'a' * arr}", dt, [(p, "m"), w, h, (o, "p")] + [COUNT] * arr, o.count)
    return o.a if out is not None or o.a.ndim else o.a[()]


def matrix_transpose(x):
    """numpy 2's numpy.matrix_transpose: each matrix of x (..., h, w) transposed, as a view
    (..., w, h); the library reads such views in place."""
    a = np.asarray(x)
    if a.ndim < 2:
        raise ValueError(f"matrix_transpose: x needs at least 2 axes, got shape {a.shape}")
    return np.swapaxes(a, -1, -2)


@planned
def trace(a, out=None, *, copy=True):
    """The sum of the diagonal of each square matrix (..., n, n) -> (...); out C-contiguous."""
    name = "trace"
    x = asarray(a, name)
    dt = result_type(x)
    if x.ndim < 2 or x.shape[-1] != x.shape[-2]:
        raise ValueError(f"{name}: a must hold square matrices (..., n, n), got shape {x.shape}")
    n = x.shape[-1]
    check_sizes(name, n)
    o = output(out, x.shape[:-2], dt, 0, name, packed=True, inputs=(x,))
    if o.count == 0:
        return o.a
    p = operand(x, 2, dt, copy, name)
    arr = o.count > 1
    run(f"Trace_m{'a' * arr}", dt, [(p, "m"), n, (o, "p")] + [COUNT] * arr, o.count)
    return o.a if out is not None or o.a.ndim else o.a[()]
