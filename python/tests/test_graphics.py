import numpy as np
import pytest

import omkm


@pytest.mark.parametrize("rh", [False, True])
def test_builders(rh):
    s = -1 if rh else 1                                   # the camera looks down +z, or -z right-handed
    eye, at, up = np.array([1.0, 2.0, -5.0]), np.array([0.5, 0.0, 1.0]), np.array([0.0, 1.0, 0.0])
    v = omkm.look_at(eye, at, up, right_handed=rh)
    assert v.dtype == np.float32
    # row vectors: a rotation taking the eye to the origin, the target onto the axis and up into +y
    np.testing.assert_allclose(np.linalg.det(v[:3, :3]), 1, rtol=1e-5)
    np.testing.assert_allclose(v[:3, :3] @ v[:3, :3].T, np.eye(3), atol=1e-5)
    np.testing.assert_allclose(np.append(eye, 1) @ v, [0, 0, 0, 1], atol=1e-5)
    np.testing.assert_allclose(np.append(at, 1) @ v, [0, 0, s * np.linalg.norm(at - eye), 1], rtol=1e-5, atol=1e-5)
    assert (np.append(eye + up, 1) @ v)[1] > 0
    out = np.zeros((4, 4), np.float32)
    p = omkm.perspective(np.pi / 3, 16 / 9, 0.5, 100.0, out=out, right_handed=rh)
    assert p is out
    e = np.tan(np.pi / 6)
    for z, depth in ((0.5, 0), (100.0, 1)):              # the corner of the view at z_near and z_far
        q = np.array([16 / 9 * e * z, e * z, s * z, 1]) @ p
        np.testing.assert_allclose(q / q[3], [1, 1, depth, 1], rtol=1e-5, atol=1e-5)
        np.testing.assert_allclose(q[3], z, rtol=1e-5)


@pytest.mark.parametrize("kind, n", [("coord", 3), ("affine", 4), ("affine", 2), ("normal", 3)])
def test_transform_points(rng, kind, n):
    m = omkm.look_at([1, 2, 3], [0, 0, 0], [0, 1, 0]) @ omkm.perspective(1.0, 1.5, 0.1, 50.0)
    pts = rng.standard_normal((25, n)).astype(np.float32)
    h = np.hstack([pts, np.zeros((25, 4 - n))])           # (x, y, z, w): z = 0 for 2 components
    h[:, 3] = pts[:, 3] if n == 4 else float(kind != "normal")
    r = h @ m.astype(np.float64)
    want = r if kind == "affine" else r[:, :n] / r[:, 3:] if kind == "coord" else r[:, :n]
    t = dict(rtol=2e-4, atol=2e-4)
    out = np.zeros((25, want.shape[1]), np.float32)
    assert omkm.transform_points(m, pts, out=out, kind=kind) is out
    np.testing.assert_allclose(out, want, **t)
    np.testing.assert_allclose(omkm.transform_points(m, pts[3], kind=kind), want[3], **t)
    # strided points in place; float64 points and non-contiguous components are copied
    np.testing.assert_allclose(omkm.transform_points(m, np.repeat(pts, 2, 0)[::2], kind=kind, copy=False), want, **t)
    for other in (pts.astype(np.float64), np.asfortranarray(pts)):
        np.testing.assert_allclose(omkm.transform_points(m, other, kind=kind), want, **t)
        with pytest.raises(ValueError, match="copy=False"):
            omkm.transform_points(m, other, kind=kind, copy=False)
