"""The package's exceptions: a library status other than omkStsOk, as numpy.linalg.LinAlgError
subclasses with `.status`. No ctypes here: the compiled gufuncs (omkm._ufuncs) raise these too."""
import numpy as np

STATUS_NAMES = {
    0: "omkStsOk", -6: "omkStsBadSize", -8: "omkStsNullPtr", -10: "omkStsDivByZero",
    -182: "omkStsBadStride", -202: "omkStsBadRoiShift", -203: "omkStsBadCount",
    -204: "omkStsSizeMismatch", -205: "omkStsNotPosDefinite", -206: "omkStsSingular",
    -207: "omkStsNotConverged",
}


class OmkmError(np.linalg.LinAlgError):
    """A status other than omkStsOk returned by the library; `.status` holds it."""
    status = None

    def __init__(self, message, status=None):
        super().__init__(message)
        if status is not None:
            self.status = status


class SingularMatrixError(OmkmError):
    """omkStsSingular (-206): a matrix is singular to the family's threshold."""
    status = -206


class NotPosDefiniteError(OmkmError):
    """omkStsNotPosDefinite (-205): a Cholesky pivot is not positive."""
    status = -205


class DivByZeroError(OmkmError):
    """omkStsDivByZero (-10): QR met a column of negligible norm."""
    status = -10


class NotConvergedError(OmkmError):
    """omkStsNotConverged (-207): an eigenvalue iteration reached its limit."""
    status = -207


ERRORS = {c.status: c for c in (SingularMatrixError, NotPosDefiniteError, DivByZeroError,
                                NotConvergedError)}


def raise_status(status, name):
    cls = ERRORS.get(status, OmkmError)
    raise cls(f"{name} returned {STATUS_NAMES.get(status, 'an unknown status')} ({status})", status)
