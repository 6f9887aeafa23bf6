"""3D graphics: 4x4 transform builders and point transforms, float32 only.

Transforms are row-major 4x4 float32 matrices for row vectors multiplied on the left:
p' = p @ M, with the translation in row 3 (Direct3D's convention). The transpose is the matrix
for column vectors (M.T @ p).
"""
import numpy as np

from ._core import COUNT, F32, address, asarray, output, operand, run

_POINT_KINDS = {"coord": "AffineTransformCoord", "affine": "AffineTransform",
                "normal": "AffineTransformNormal"}


def _matrix4(m, copy, name):
    x = asarray(m, name)
    if x.shape != (4, 4):
        raise ValueError(f"{name}: m must be one 4x4 matrix, got shape {x.shape}")
    if x.dtype != F32 or not x.flags.c_contiguous or not x.flags.aligned:
        if not copy:
            raise ValueError(f"{name}: m cannot be read in place: the library reads 16 contiguous "
                             f"float32 values (copy=False)")
        x = np.ascontiguousarray(x, F32)
    return x


def transform_points(m, points, out=None, *, kind="coord", copy=True):
    """Each point of `points` (..., n) times the transform m (4x4), as row vectors: p' = p @ M
    with the translation in row 3, the convention of look_at() and perspective().

    kind 'coord' (n = 2 or 3): (x, y, z, 1) @ M divided by its w (z = 0 for n = 2), result (..., n);
    kind 'affine' (n = 2, 3 or 4): (x, y, z, 1) @ M (z = 0 for n = 2, w as given for n = 4),
    result (..., 4);
    kind 'normal' (n = 2 or 3): a direction, (x, y, z, 0) @ M, result (..., n).
    Computes in float32 (the library's point transforms are float only): other dtypes are
    copied, or raise ValueError with copy=False. The components of each point must be
    contiguous to be read in place; the points themselves may lie any positive stride from each other."""
    name = "transform_points"
    if kind not in _POINT_KINDS:
        raise ValueError(f"{name}: kind must be one of {sorted(_POINT_KINDS)}, got {kind!r}")
    p = asarray(points, name)
    n = p.shape[-1] if p.ndim else 0
    if n not in ((2, 3, 4) if kind == "affine" else (2, 3)):
        raise ValueError(f"{name}: kind {kind!r} takes points of 2{', 3 or 4' if kind == 'affine' else ' or 3'} "
                         f"components, got shape {p.shape}")
    mx = _matrix4(m, copy, name + ": m")
    m_out = 4 if kind == "affine" else n
    o = output(out, p.shape[:-1] + (m_out,), F32, 1, name, inputs=(p, mx))
    if o.s2 != 4:
        raise ValueError(f"{name}: out needs contiguous components (last stride 4)")
    if o.count == 0:
        return o.a
    q = operand(p, 1, F32, copy, name + ": points")
    if q.s2 != 4:
        if not copy:
            raise ValueError(f"{name}: points cannot be read in place: their components are not "
                             f"contiguous (copy=False)")
        q = operand(np.ascontiguousarray(q.a), 1, F32, copy, name)
    arr = o.count > 1
    run(f"{_POINT_KINDS[kind]}_m4v{n}{'a' * arr}", F32,
        [address(mx), (q, "c"), (o, "c")] + [COUNT] * arr, o.count)
    return o.a


def _out4(out, name):
    return output(out, (4, 4), F32, 2, name, packed=True)


def look_at(eye, at, up, out=None, *, right_handed=False):
    """The view transform of a camera at `eye` looking at `at` with `up` (3 floats each), as a
    4x4 float32 matrix for row vectors (p' = p @ M, translation in row 3): left-handed (the camera
    looks down +z) or, with right_handed=True, right-handed (down -z)."""
    name = "look_at"
    vs = []
    for v in (eye, at, up):
        v = np.ascontiguousarray(asarray(v, name), F32)
        if v.shape != (3,):
            raise ValueError(f"{name}: eye, at and up must be 3-vectors, got shape {v.shape}")
        vs.append(v)
    o = _out4(out, name)
    run(f"LookAt{'RH' if right_handed else 'LH'}_m4", F32, [address(v) for v in vs] + [o.ptr])
    return o.a


def perspective(fov_y, aspect, z_near, z_far, out=None, *, right_handed=False):
    """The perspective projection of vertical field of view fov_y (radians) and aspect ratio
    width/height, depth z_near ... z_far to 0 ... 1, as a 4x4 float32 matrix for row vectors
    (p' = p @ M; w' = z for left-handed, -z with right_handed=True)."""
    name = "perspective"
    o = _out4(out, name)
    run(f"PerspectiveFov{'RH' if right_handed else 'LH'}_m4", F32,
        [float(fov_y), float(aspect), float(z_near), float(z_far), o.ptr])
    return o.a
