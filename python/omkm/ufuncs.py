"""omkm's numpy generalized ufuncs, compiled (omkm._ufuncs): float32 and float64 loops over libomkm.

    omkm.ufuncs.inv(a)                      # (..., m, m) -> (..., m, m), a numpy.ufunc
    omkm.ufuncs.matmul(a, b, out=c)         # out=, axes=, dtype=, casting= as for any gufunc

matmul (m?,n),(n,p?)->(m?,p?) (1-D operands as numpy.matmul); matvec (m,n),(n)->(m);
vecmat (n),(n,m)->(m); vecdot (n),(n)->(); cross (3),(3)->(3); vector_norm (n)->();
matrix_norm (m,n)->() (Frobenius); trace (m,m)->(); det (m,m)->(); inv (m,m)->(m,m);
solve (m,m),(m,n)->(m,n); solve1 (m,m),(m)->(m); lu_factor (m,m)->(m,m),(m) (scipy.linalg's, piv
int32); lu_solve (m,m),(m),(m,n)->(m,n) and lu_solve1 (m,m),(m),(m)->(m) (scipy.linalg's, from
lu_factor's lu and piv); cho_solve (m,m),(m,n)->(m,n) and cho_solve1 (m,m),(m)->(m) (scipy.linalg's
with lower=True: L read from c's lower triangle; the transposed view of c for the upper form);
qr_reduced (m,n)->(m,n),(n,n) and qr_r (m,n)->(n,n) for m >= n, qr_complete
(m,n)->(m,m),(m,n) (numpy.linalg.qr's modes); eigvalsh (m,m)->(m); eigh (m,m)->(m),(m,m);
eig (m,m)->(m),(m,m) and eigvals (m,m)->(m) (complex results); cholesky (m,m)->(m,m);
transform_points (4,4),(3)->(3) (float32 only). Results follow numpy.linalg's conventions
(eigenvalues ascending, cholesky's L with zeros above the diagonal, qr's signs); a zero core size
gives numpy's results (det 1, zeros, empty arrays). Failures raise the package's
numpy.linalg.LinAlgError subclasses (omkm.SingularMatrixError, ...).

The compiled module is found through $OMKM_UFUNCS (its full path), the package's own directory,
then the source tree's build/python/omkm/; it is loaded as omkm._ufuncs after libomkm, so that
both use the one libomkm the package loaded. Without it this module still imports, and reading
a gufunc raises ImportError listing the places looked in.
"""
import glob
import importlib.machinery
import importlib.util
import os
import sys

from . import _lib  # noqa: F401  (libomkm first: the extension binds to the copy already loaded)

NAMES = ("matmul", "matvec", "vecmat", "vecdot", "cross", "vector_norm", "matrix_norm", "trace", "det",
         "inv", "solve", "solve1", "lu_factor", "lu_solve", "lu_solve1", "qr_reduced", "qr_complete", "qr_r",
         "eigvalsh", "eigh", "eig", "eigvals", "cholesky", "cho_factor", "cho_solve", "cho_solve1",
         "transform_points")
_HERE = os.path.dirname(os.path.abspath(__file__))


def _candidates():
    """(description, path) for every place looked in, in order."""
    env = os.environ.get("OMKM_UFUNCS")
    if env:
        yield "$OMKM_UFUNCS", env
    build = os.path.normpath(os.path.join(_HERE, "..", "..", "build", "python", "omkm"))
    for what, d in (("the package's directory", _HERE), ("the source tree's build directory", build)):
        found = False
        for suffix in importlib.machinery.EXTENSION_SUFFIXES:
            for path in sorted(glob.glob(os.path.join(glob.escape(d), "_ufuncs" + suffix))):
                found = True
                yield what, path
        if not found:
            yield what, os.path.join(d, "_ufuncs" + importlib.machinery.EXTENSION_SUFFIXES[0])


def _load():
    name = __package__ + "._ufuncs"
    if name in sys.modules:
        return sys.modules[name], None
    tried = []
    for what, path in _candidates():
        if not os.path.exists(path):
            tried.append(f"{what}: {path} (no such file)")
            continue
        try:
            found = importlib.util.spec_from_file_location(name, path)
            mod = importlib.util.module_from_spec(found)
            sys.modules[name] = mod
            found.loader.exec_module(mod)
        except ImportError as e:
            sys.modules.pop(name, None)
            tried.append(f"{what}: {path} ({e})")
            continue
        return mod, None
    return None, ("omkm.ufuncs: the compiled module omkm._ufuncs could not be loaded; looked in:\n  "
                  + "\n  ".join(tried) + "\nBuild it (cmake, Python3 Development.Module and NumPy "
                  "found) or set OMKM_UFUNCS to its full path.")


_module, _why = _load()
path = getattr(_module, "__file__", None)

if _module is not None:
    for _n in NAMES:
        globals()[_n] = getattr(_module, _n)
    del _n

__all__ = list(NAMES) + ["path"]


def __getattr__(name):
    if name in NAMES and _module is None:
        raise ImportError(_why)
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
