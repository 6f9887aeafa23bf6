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


class NotSquareError(np.linalg.LinAlgError, ValueError):
    """A matrix argument that is not a stack of square matrices (..., n, n): a LinAlgError, as
    numpy.linalg raises for it, and a ValueError, as scipy.linalg and earlier versions of this
    package raise."""


ERRORS = {c.status: c for c in (SingularMatrixError, NotPosDefiniteError, DivByZeroError,
                                NotConvergedError)}


# The family of an export, by its name's stem, for threshold_note().
FAMILIES = (("omkmLUDecomp", "lu"), ("omkmInvert", "inv"), ("omkmEigenValuesVectorsSym", "eigsym"),
            ("omkmEigenValuesSym", "eigsym"), ("omkmQRDecomp", "qr"))


def family_of(export):
    return next((f for stem, f in FAMILIES if export.startswith(stem)), None)


def threshold_note(family, status, f64, n=None):
    """What the failing test of the family is, for the message: the library's tests of singularity
    and breakdown are absolute thresholds, never scaled by the size of the entries, so a matrix of
    small entries can fail though it is well conditioned. n: the order, when known."""
    eps = "eps = 2^-52" if f64 else "eps = 2^-23"
    tiny = 2.2250738585072014e-308 if f64 else 1.1754943508222875e-38
    absolute = "an absolute threshold of the library, whatever the scale of the matrix"
    if status == -206 and family == "lu":
        if n is None or 3 <= n <= 6:
            return (f"; a pivot below {'2^-1021' if f64 else '2^-125'} in magnitude (orders 3 to 6; "
                    f"other orders: at most {'2^-52' if f64 else '2^-23'}): {absolute}")
        return f"; a pivot at most {'2^-52' if f64 else '2^-23'} in magnitude: {absolute}"
    if status == -206 and family == "inv":
        if n == 1:
            return f"; |a| <= 2 * {tiny:.3g} (twice the smallest normal number): {absolute}"
        t = "" if n is None else f" = {2.0 * n ** 3 * tiny:.3g} for n = {n}"
        return f"; |det| (or a pivot of the elimination) below t = 2*n^3 * {tiny:.3g}{t}: {absolute}"
    if status == -206 and family == "eigsym":
        if n == 2:
            return f"; |a*d - b*b| <= {eps}: {absolute}"
        return f"; the product of the eigenvalues is at most {eps} in magnitude: {absolute}"
    if status == -207 and family == "eigsym":
        return (f"; 30 sweeps for one value without a negligible coupling (|0.5*e| <= {eps}, an "
                "absolute test whatever the size of the values)")
    if status == -10 and family == "qr":
        return f"; a column of norm below {eps} in magnitude: {absolute}"
    if status == -205:
        return "; a pivot d <= 0 (the test has no tolerance)"
    return ""


def status_error(status, message, family=None, f64=True, n=None):
    """The exception for a failing status: message, then what the failing test is."""
    cls = ERRORS.get(status, OmkmError)
    return cls(f"{message} returned {STATUS_NAMES.get(status, 'an unknown status')} ({status})"
               + threshold_note(family, status, f64, n), status)


def raise_status(status, export):
    """Raises the exception for `status` returned by the export named `export` (omkm..._32f/_64f)."""
    raise status_error(status, export, family_of(export), "_32f" not in export, None)
