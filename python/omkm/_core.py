"""Operands as the library's standard description, and the calls that take them.

An operand of `nd` core axes (2 for a matrix, 1 for a vector, 0 for a scalar) keeps its leading
axes as the batch: they become `count` and `stride0` when they merge into one axis without a copy.
numpy byte strides go to the library as they are; an array whose strides cannot (negative, zero on
an axis longer than one, not a multiple of the element size, too large), a misaligned array, or
one of another dtype is copied once into a contiguous array of the working type, and copy=False
turns that copy into a ValueError saying why.
"""
import ctypes
import functools
import inspect
import math
import threading

import numpy as np

from ._lib import fn, raise_status

F32 = np.dtype(np.float32)
F64 = np.dtype(np.float64)
INT = np.dtype(np.intc)
_MAX = 2 ** 31 - 1


def _probe_data_offset():
    """Byte offset of the data pointer in a numpy array object (PyArrayObject's first field after
    the object header), checked against numpy's own answer; None when it does not hold."""
    off = object.__basicsize__
    probe = np.zeros((3, 4))[1:, ::2]
    ok = ctypes.c_void_p.from_address(id(probe) + off).value == probe.ctypes.data
    return off if ok else None


_DATA = _probe_data_offset()
_vp = ctypes.c_void_p


def address(a):
    """The address of a's first element (a.ctypes.data, read without building a ctypes object)."""
    return _vp.from_address(id(a) + _DATA).value or 0


if _DATA is None:
    def address(a):  # noqa: F811  (another Python implementation: numpy's own answer)
        return a.ctypes.data


class Operand:
    """An array and its standard description: count, s0 (bytes between objects), s1 (between
    rows), s2 (between elements). A count of 1 has s0 = the object's size, any value will do."""
    __slots__ = ("a", "batch", "count", "s0", "s1", "s2", "ptr", "fresh")

    def __init__(self, a, ptr, batch, count, s0, s1, s2, fresh=None):
        self.a, self.ptr, self.batch, self.count, self.s0, self.s1, self.s2 = a, ptr, batch, count, s0, s1, s2
        self.fresh = fresh      # the allocator (np.empty, np.zeros) of an array made for the call

    @property
    def transposed(self):
        """True for a transposed view: consecutive elements of a column one item from each other."""
        return self.s1 == self.a.itemsize and self.s2 != self.s1


def _bad(s, isz):
    return s <= 0 or s % isz or s > _MAX


def _describe(sh, st, isz, nd):
    """(batch, count, s0, s1, s2) of an array of shape sh and strides st with `nd` core axes, or
    a string saying why the standard description cannot reach it in place."""
    b = len(sh) - nd
    if not math.prod(sh):
        return sh[:b], 0, isz, isz, isz
    s1 = s2 = size = isz
    if nd:
        if sh[-1] > 1:
            s2 = st[-1]
            if _bad(s2, isz):
                return "its element stride is negative, zero, not a multiple of the element size or too large"
        size = isz * sh[-1]
        if nd == 2:
            s1 = st[-2] if sh[-2] > 1 else size
            if _bad(s1, isz):
                return "its row stride is negative, zero, not a multiple of the element size or too large"
            size *= sh[-2]
    count, s0, expect = 1, size, 0
    for i in range(b - 1, -1, -1):
        n = sh[i]
        if n == 1:
            continue
        s = st[i]
        if count == 1:
            s0 = s
        elif s != expect:
            return "its leading axes do not merge into one without a copy"
        expect, count = s * n, count * n
    if count > 1 and _bad(s0, isz):
        return "its object stride is negative, zero, not a multiple of the element size or too large"
    return sh[:b], count, (s0 if count > 1 else size), s1, s2


_layouts = {}


def _layout(a, nd, ptr):
    """_describe() for the array a at address ptr (remembered per shape and strides)."""
    key = (a.shape, a.strides, a.itemsize, nd)
    lay = _layouts.get(key)
    if lay is None:
        if len(_layouts) > 4096:
            _layouts.clear()
        lay = _layouts[key] = _describe(*key)
    if ptr % key[2] and a.size:
        return "it is not aligned to its element size"
    return lay


def operand(a, nd, dt, copy, name, batch=None):
    """`a` as an Operand of type dt with `nd` core axes. With `batch`, an operand of more than one
    object whose leading axes differ from it is broadcast to it first (and so copied)."""
    if batch and a.ndim > nd:
        lead = a.shape[:a.ndim - nd]
        if lead != batch and math.prod(lead) > 1:
            a = np.broadcast_to(a, batch + a.shape[a.ndim - nd:])
    if a.dtype == dt:
        ptr = address(a)
        lay = _layout(a, nd, ptr)
        if lay.__class__ is tuple:
            return Operand(a, ptr, *lay)
        why = lay
    else:
        why = f"its dtype is {a.dtype}, the call computes in {dt}"
    if not copy:
        raise ValueError(f"{name} cannot be read in place: {why} (copy=False)")
    a = np.array(a, dtype=dt, order="C")
    ptr = address(a)
    return Operand(a, ptr, *_layout(a, nd, ptr))


def output(out, shape, dt, nd, name, packed=False, inputs=(), alloc=np.empty):
    """The destination: a new C-ordered array (from `alloc`), or the caller's `out` checked to take
    the result in place (shape, dtype, writeable, strides; packed results need a C-contiguous
    array). With `inputs`, `out` must not share memory with them."""
    if out is None:
        a = alloc(shape, dt)
        ptr = address(a)
        return Operand(a, ptr, *_layout(a, nd, ptr), alloc)
    if not isinstance(out, np.ndarray):
        raise TypeError(f"{name}: out must be a numpy array, not {type(out).__name__}")
    if out.dtype != dt:
        raise TypeError(f"{name}: out has dtype {out.dtype}, the result is {dt}")
    if out.shape != shape:
        raise ValueError(f"{name}: out has shape {out.shape}, the result has {shape}")
    if not out.flags.writeable:
        raise ValueError(f"{name}: out is read-only")
    if packed and not out.flags.c_contiguous:
        raise ValueError(f"{name}: out must be C-contiguous (the library writes these results packed)")
    ptr = address(out)
    lay = _layout(out, nd, ptr)
    if type(lay) is str:
        raise ValueError(f"{name}: out cannot be written in place: {lay}")
    for x in inputs:
        if np.may_share_memory(out, x):
            raise ValueError(f"{name}: out must not overlap an operand")
    calls = getattr(_recording, "calls", None)
    if calls is not None:
        calls.append(("out", out, inputs))
    return Operand(out, ptr, *lay)


def asarray(x, name):
    """x as an array of a dtype the package computes in: float32, float64, or integers and booleans
    (computed in float64, as numpy.linalg does). float16 and long double are refused, as numpy.linalg
    refuses them, rather than computed in another precision."""
    a = np.asarray(x)
    if a.dtype.kind not in "biuf" or (a.dtype.kind == "f" and a.dtype.itemsize not in (4, 8)):
        raise TypeError(f"{name}: unsupported dtype {a.dtype} (float32 and float64, or integers computed "
                        f"in float64)")
    return a


def result_type(*arrays):
    """float32 when every operand is float32, else float64."""
    for a in arrays:
        d = a.dtype
        if not (d.kind == "f" and d.itemsize == 4):
            return F64
    return F32


def batch_of(name, *shapes):
    """The broadcast of the leading-axis shapes, or a ValueError naming them."""
    a, b = shapes
    if a == b or not b:
        return a
    if not a:
        return b
    try:
        return np.broadcast_shapes(a, b)
    except ValueError:
        raise ValueError(f"{name}: leading axes {' and '.join(map(str, shapes))} do not broadcast") from None


def check_sizes(name, *sizes):
    for n in sizes:
        if n < 1:
            raise ValueError(f"{name}: sizes must be at least 1")
        if n > _MAX:
            raise ValueError(f"{name}: a size above 2**31-1")


def call(f, args, count=1, ci=None, steps=()):
    """f(*args), raising on a status other than omkStsOk. An array call whose byte offsets
    k*stride0 would pass 2**31-1 (the library forms them in 32 bits) is split into several:
    `ci` is the index of the count argument and `steps` the (index, bytes per object) pairs of the
    pointer arguments that move with k. Returns True when it split the call."""
    if count > 1 and steps:
        big = max(s for _, s in steps)
        if (count - 1) * big > _MAX:
            per = _MAX // big + 1
            args = list(args)
            base = {i: args[i] for i, _ in steps}
            for lo in range(0, count, per):
                for i, s in steps:
                    args[i] = base[i] + lo * s
                args[ci] = min(per, count - lo)
                st = f(*args)
                if st:
                    raise_status(st, f.__name__)
            return True
    st = f(*args)
    if st:
        raise_status(st, f.__name__)
    return False


COUNT = object()  # stands for the count argument in run()'s pieces


def run(name, dt, pieces, count=1):
    """Calls omkm<name>_32f/_64f with the arguments built from `pieces`: ints and floats as they
    are, COUNT as the count, and (Operand, kind) pairs as the operand's pointer followed by, for
    kind 'm', [s0,] s1, s2; 'T' (its transpose, as a t member reads a transposed view) [s0,] s2,
    s1; 'v' [s0,] s2; 'c' (an array of constants, or of vectors with packed components) [s0]; 'p'
    (a packed result, an index array or a scratch buffer) nothing. s0 is there when the call is an
    array call and the operand has more than one object. Every pointer comes from an Operand, so
    that a plan (see planned) can replay the call on other arrays of the same layout."""
    args, slots, steps, ci = [], [], [], None
    for p in pieces:
        if type(p) is tuple:
            op, kind = p
            slots.append((len(args), op))
            args.append(op.ptr)
            if count > 1 and op.count > 1:
                steps.append((len(args) - 1, op.s0))
                if kind != "p":
                    args.append(op.s0)
            if kind == "m":
                args += (op.s1, op.s2)
            elif kind == "T":
                args += (op.s2, op.s1)
            elif kind == "v":
                args.append(op.s2)
        elif p is COUNT:
            ci = len(args)
            args.append(count)
        else:
            args.append(p)
    f = fn(name, dt)
    split = call(f, args, count, ci, steps)
    calls = getattr(_recording, "calls", None)
    if calls is not None:
        calls.append(("call", f, args, slots, split))


# ---- plans: a call replayed on arrays of a layout already seen ----

_recording = threading.local()


def _plan(calls, inputs, result):
    """A replay function for the recorded calls on `inputs` (the array arguments, then the
    caller's out), or None when they cannot be replayed: every pointer must be an input read in
    place or an array the call made (a result, a temporary, a scratch buffer), and no call may
    have been split."""
    made, allocs, align, outs, steps = [], [], set(), [], []

    def position(a):
        return next((k for k, x in enumerate(inputs) if a is x), None)

    def source(a, fresh):
        k = position(a)
        if k is not None:
            align.add((k, a.itemsize))
            return k
        for j, m in enumerate(made):
            if a is m:
                return len(inputs) + j
        if fresh is None:
            return None                           # a copy of an input
        made.append(a)
        allocs.append((fresh, a.shape, a.dtype))
        return len(inputs) + len(made) - 1

    for entry in calls:
        if entry is None:                         # no_replay()
            return None
        if entry[0] == "out":                     # the caller's out: writeable, no overlap
            where = [position(x) for x in (entry[1],) + tuple(entry[2])]
            if None in where:
                return None
            outs.append((where[0], where[1:]))
            continue
        _, f, args, slots, split = entry
        where = [(i, source(op.a, op.fresh)) for i, op in slots]
        if split or any(k is None for _, k in where):
            return None
        steps.append((f, list(args), where))
    take = []                                     # per result: ('in', k), ('new', j), ('scalar', j)
    for r in result if type(result) is tuple else (result,):
        if type(r) is np.ndarray and position(r) is not None:
            take.append(("in", position(r)))
        elif type(r) is np.ndarray and any(r is m for m in made):
            take.append(("new", next(j for j, m in enumerate(made) if r is m)))
        elif isinstance(r, np.generic) and sum(m.shape == () for m in made) == 1:
            take.append(("scalar", next(j for j, m in enumerate(made) if m.shape == ())))
        else:
            return None
    tup = type(result) is tuple
    align = tuple(align)
    checks = tuple(outs)
    single = None if tup else take[0]

    def replay(arrays):
        ptrs = [address(a) for a in arrays]
        for k, isz in align:
            if ptrs[k] % isz:
                return None
        for o, others in checks:
            if not arrays[o].flags.writeable or any(np.may_share_memory(arrays[o], arrays[k]) for k in others):
                return None                       # the full call raises the error
        new = [alloc(shape, dt) for alloc, shape, dt in allocs]
        for m in new:
            ptrs.append(address(m))
        for f, template, where in steps:
            args = template.copy()
            for i, k in where:
                args[i] = ptrs[k]
            st = f(*args)
            if st:
                raise_status(st, f.__name__)
        if single is not None:
            how, j = single
            return new[j] if how == "new" else arrays[j] if how == "in" else new[j][()]
        return tuple(arrays[j] if how == "in" else new[j] if how == "new" else new[j][()] for how, j in take)

    return replay


def planned(func):
    """Remembers, per layout of the array arguments and of out (shapes, strides, dtypes) and the
    keyword flags, the library calls `func` made when it needed no copy; a later call of the same
    layout replays them on its own arrays, skipping the analysis."""
    plans = {}
    # The positional parameters before out: a further positional argument is out, as func takes it.
    n_in = list(inspect.signature(func).parameters).index("out")

    @functools.wraps(func)
    def wrapper(*arrays, out=None, copy=True, **kw):
        if len(arrays) > n_in:
            if len(arrays) > n_in + 1 or out is not None:
                return func(*arrays, out=out, copy=copy, **kw)     # func's own TypeError
            arrays, out = arrays[:n_in], arrays[n_in]
        if getattr(_recording, "calls", None) is not None:
            return func(*arrays, out=out, copy=copy, **kw)
        every = arrays if out is None else arrays + (out,)
        key = [tuple(kw.items()), out is None]
        if len(every) > 1:                       # which arguments are one array
            ids = [id(a) for a in every]
            key.append(tuple(map(ids.index, ids)))
        for a in every:
            if type(a) is not np.ndarray:
                return func(*arrays, out=out, copy=copy, **kw)
            key.append((a.shape, a.strides, a.dtype))
        try:
            key = tuple(key)
            plan = plans.get(key)
        except TypeError:                        # an unhashable keyword value
            return func(*arrays, out=out, copy=copy, **kw)
        if plan:
            res = plan(every)
            if res is not None:
                return res
        if plan is not None:
            return func(*arrays, out=out, copy=copy, **kw)
        _recording.calls = []
        try:
            result = func(*arrays, out=out, copy=copy, **kw)
            calls = _recording.calls
        finally:
            _recording.calls = None
        if len(plans) > 512:
            plans.clear()
        plans[key] = _plan(calls, every, result) or False
        return result

    wrapper.plans = plans
    return wrapper


def no_replay():
    """Marks the call being recorded as one a plan cannot replay (it read values into arguments)."""
    calls = getattr(_recording, "calls", None)
    if calls is not None:
        calls.append(None)
