"""Loading libomkm and libomkcore, declaring the C functions the package calls, and statuses.

Functions are declared on first use from the signature rules below, which follow the naming of
omkm.h: one letter per C argument, `p` a pointer (data, index array, buffer or output), `i` an
int (stride, size or count) and `f` an element passed by value (float for _32f, double for _64f).
"""
import ctypes
import ctypes.util
import os

import numpy as np

# The statuses and their exceptions live in _errors (no ctypes there); re-exported here.
from ._errors import (ERRORS as _ERRORS, STATUS_NAMES, DivByZeroError, NotConvergedError,  # noqa: F401
                      NotPosDefiniteError, OmkmError, SingularMatrixError, raise_status)

_SONAME = "libomkm.so.7"
_HERE = os.path.dirname(os.path.abspath(__file__))


def _candidates():
    """(description, path or name) for every place the loader looks, in order."""
    env = os.environ.get("OMKM_LIBRARY")
    if env:
        yield "$OMKM_LIBRARY", env
    for name in ("libomkm.so", _SONAME):
        yield "the package's lib directory", os.path.join(_HERE, "lib", name)
    try:  # present in an installed package only
        from ._installed import LIBDIR
    except ImportError:
        LIBDIR = None
    if LIBDIR is not None:
        yield "the install's library directory", os.path.normpath(os.path.join(_HERE, LIBDIR, _SONAME))
    yield "the source tree's build directory", os.path.normpath(
        os.path.join(_HERE, "..", "..", "build", "libomkm.so"))
    found = ctypes.util.find_library("omkm")
    if found:
        yield "ctypes.util.find_library('omkm')", found
    yield "the system loader", _SONAME


def _load():
    tried = []
    for what, path in _candidates():
        if os.sep in path and not os.path.exists(path):
            tried.append(f"{what}: {path} (no such file)")
            continue
        # libomkcore is libomkm's own dependency, found beside it (the installed libomkm's run path
        # is $ORIGIN; the build tree's names the build directory). Once libomkm is loaded, its
        # soname gives the same copy.
        try:
            lib = ctypes.CDLL(path)
            core = ctypes.CDLL("libomkcore.so.7")
        except OSError as e:
            tried.append(f"{what}: {path} ({e})")
            continue
        return lib, core, path
    raise ImportError("omkm: libomkm could not be loaded; looked in:\n  " + "\n  ".join(tried)
                      + "\nSet OMKM_LIBRARY to the full path of libomkm.so.")


lib, core, path = _load()

# ---- signatures ----

def _elementwise_sig(kinds):
    """Add, Sub and Mul by a constant: sources (strides s0 if an array, s1 if a matrix, s2), then
    the constants (a value, or a pointer and a stride for an array of constants), the destination,
    the sizes (width and height, or len) and the count."""
    ops = _split(kinds)
    arr = any(a for _, a in ops)
    mat = any(k in "mt" for k, _ in ops)
    sig = "".join("p" + "i" * a + ("ii" if k in "mt" else "i") for k, a in ops if k != "c")
    sig += "".join("pi" if a else "f" for k, a in ops if k == "c")
    return sig + "p" + "i" * arr + ("ii" if mat else "i") + ("ii" if mat else "i") + "i" * arr


def _product_sig(kinds):
    """Mul of matrices and vectors: each source with its strides and its stored width and height
    (a vector: its len), then the destination's strides and the count."""
    ops = _split(kinds)
    arr = any(a for _, a in ops)
    sig = "".join("p" + "i" * a + ("iiii" if k in "mt" else "ii") for k, a in ops)
    return sig + "p" + "i" * arr + ("ii" if ops[1][0] in "mt" else "i") + "i" * arr


def _split(kinds):
    """'mava' -> [('m', True), ('v', True)]."""
    out = []
    for ch in kinds:
        if ch == "a":
            out[-1] = (out[-1][0], True)
        else:
            out.append((ch, False))
    return out


_FIXED = {
    "DotProduct_vv": "pipipi", "DotProduct_vav": "piipipii", "DotProduct_vava": "piipiipii",
    "CrossProduct_vv": "pipipi", "CrossProduct_vav": "piipipiii", "CrossProduct_vva": "pipiipiii",
    "CrossProduct_vava": "piipiipiii",
    "L2Norm_v": "pipi", "L2Norm_va": "piipii", "FrobNorm_m": "piiiip", "FrobNorm_ma": "piiiiipi",
    "Trace_m": "piiip", "Trace_ma": "piiiipi",
    "LUDecomp_m": "piippiii", "LUDecomp_ma": "piiippiiiii",
    "LUBackSubst_mv": "piippipii", "LUBackSubst_mva": "piippiipiiii",
    "LUBackSubst_mava": "piiippiipiiii",
    "CholeskyDecomp_m": "piipiii", "CholeskyDecomp_ma": "piiipiiiii",
    "CholeskyBackSubst_mv": "piipipii", "CholeskyBackSubst_mva": "piipiipiiii",
    "CholeskyBackSubst_mava": "piiipiipiiii",
    "Det_m": "piiipp", "Det_ma": "piiiippi",
    "Invert_m": "piippiii", "Invert_ma": "piiippiiiii",
    "QRDecomp_m": "piippiiii", "QRDecomp_ma": "piiippiiiiii",
    "QRBackSubst_mv": "piippipiii", "QRBackSubst_mva": "piippiipiiiii",
    "QRBackSubst_mava": "piiippiipiiiii",
    "EigenValuesSym_m": "piippi", "EigenValuesSym_ma": "piiippii",
    "EigenValuesVectorsSym_m": "piippiipi", "EigenValuesVectorsSym_ma": "piiippiiipii",
    "EigenValuesGetBufSize": "ip", "EigenValuesVectorsGetBufSize": "ip",
    "EigenValues_m": "piippip", "EigenValues_ma": "piiippiip",
    "EigenValuesVectorsLeft_m": "piipiippip", "EigenValuesVectorsLeft_ma": "piiipiiippiip",
    "EigenValuesVectorsRight_m": "piipiippip", "EigenValuesVectorsRight_ma": "piiipiiippiip",
    "EigenValuesVectors_m": "piipiipiippip", "EigenValuesVectors_ma": "piiipiiipiiippiip",
    # 3D graphics, float only
    "LookAtLH_m4": "pppp", "LookAtRH_m4": "pppp",
    "PerspectiveFovLH_m4": "ffffp", "PerspectiveFovRH_m4": "ffffp",
    "AffineTransform3DH_mva": "piipiipiii",
}
for _k in ("AffineTransform", "AffineTransformCoord", "AffineTransformNormal"):
    for _n in "234":
        _FIXED[f"{_k}_m4v{_n}"] = "ppp"
        _FIXED[f"{_k}_m4v{_n}a"] = "ppipii"


def signature(name):
    """Argument letters of omkm<name> without its type suffix, e.g. 'Mul_mava'."""
    if name in _FIXED:
        return _FIXED[name]
    op, kinds = name.split("_")
    if op == "Mul" and "c" not in kinds:
        return _product_sig(kinds)
    return _elementwise_sig(kinds)


_CT = {"p": ctypes.c_void_p, "i": ctypes.c_int}
_VAL = {np.dtype(np.float32): ctypes.c_float, np.dtype(np.float64): ctypes.c_double}
_SUFFIX = {np.dtype(np.float32): "_32f", np.dtype(np.float64): "_64f"}
_cache = {}


def fn(name, dtype):
    """The declared C function omkm<name>_32f/_64f for the element type `dtype`."""
    f = _cache.get((name, dtype))
    if f is None:
        key = (name, dtype)
        f = getattr(lib, "omkm" + name + _SUFFIX[dtype])
        f.restype = ctypes.c_int
        f.argtypes = [_CT.get(c) or _VAL[dtype] for c in signature(name)]
        f.__name__ = "omkm" + name + _SUFFIX[dtype]
        _cache[key] = f
    return f


# ---- thread budget (omkcore) ----

core.omkSetNumThreads.restype = ctypes.c_int
core.omkSetNumThreads.argtypes = [ctypes.c_int]
core.omkGetNumThreads.restype = ctypes.c_int
core.omkGetNumThreads.argtypes = [ctypes.POINTER(ctypes.c_int)]


def set_num_threads(n):
    """Sets the thread budget of the omkm libraries to n >= 1; n = 0 returns to the default
    (the OpenMP runtime's maximum, so OMP_NUM_THREADS applies, at most the processors other
    processes leave free)."""
    n = int(n)
    if n < 0:
        raise ValueError(f"set_num_threads: n must be >= 0, got {n}")
    st = core.omkSetNumThreads(n)
    if st:
        raise_status(st, "omkSetNumThreads")


def get_num_threads():
    """The thread budget the omkm libraries use for array calls above their work limits."""
    n = ctypes.c_int(0)
    st = core.omkGetNumThreads(ctypes.byref(n))
    if st:
        raise_status(st, "omkGetNumThreads")
    return n.value
