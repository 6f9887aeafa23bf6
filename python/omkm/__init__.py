"""omkm for numpy: arithmetic on stacks of small matrices and vectors through libomkm.

Arrays of shape (..., h, w) are stacks of matrices and (..., n) stacks of vectors, float32 or
float64; the leading axes are the batch, done in one library call. numpy's names (matmul, inv,
solve, eigh, qr, norm, ...) and scipy.linalg's (lu_factor, cho_factor, ...) mean what they mean
there and run on the compiled gufuncs of omkm.ufuncs (numpy.ufunc objects: out=, axes=,
broadcasting, dispatch through __array_ufunc__). The library's own forms (lu_decomp,
cholesky_factor, qr_packed, eigen_sym, add, scale, ...) run through ctypes. Either way operands
are read where they lie: numpy's byte strides go to the library as they are, so views, slices,
transposed views and the fields of structured arrays need no copy; anything else is copied once
(in the ctypes functions copy=False makes that a ValueError instead).

The library is found through $OMKM_LIBRARY (the full path of libomkm.so), the package's lib
directory, the source tree's build directory, then the system loader.
"""
from ._lib import (DivByZeroError, NotConvergedError, NotPosDefiniteError, OmkmError,
                   SingularMatrixError, get_num_threads, set_num_threads)
from ._lib import path as library_path
from ._errors import NotSquareError
from ._products import (add, cross, matmul, matrix_transpose, matvec, norm, scale, subtract, trace,
                        vecdot, vecmat)
from ._linalg import (cho_factor, cho_lower, cho_solve, cholesky, cholesky_factor, cholesky_solve, det,
                      eig, eigen_sym, eigen_sym_values, eigh, eigvals, eigvalsh, inv, lu_backsubst,
                      lu_decomp, lu_factor, lu_solve, qr, qr_packed, qr_solve, solve)
from ._graphics import look_at, perspective, transform_points
from . import ufuncs

__all__ = [
    "add", "subtract", "scale", "matmul", "matvec", "vecmat", "vecdot", "cross", "norm", "trace",
    "matrix_transpose",
    "lu_factor", "lu_solve", "lu_decomp", "lu_backsubst", "solve", "cholesky", "cho_factor", "cho_solve", "cholesky_factor",
    "cholesky_solve", "cho_lower", "qr", "qr_packed", "qr_solve",
    "det", "inv", "eigvalsh", "eigh", "eigen_sym_values", "eigen_sym", "eigvals", "eig",
    "transform_points", "look_at",
    "perspective", "ufuncs", "set_num_threads", "get_num_threads", "library_path", "OmkmError",
    "SingularMatrixError", "NotSquareError", "NotPosDefiniteError", "DivByZeroError", "NotConvergedError",
]
