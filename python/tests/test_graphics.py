import numpy as np
import pytest

import omkm


def unit(v):
    return v / np.linalg.norm(v)


def look_at_oracle(eye, at, up, rh):
    z = unit(eye - at) if rh else unit(at - eye)
    x = unit(np.cross(up, z))
    y = np.cross(z, x)
    m = np.eye(4)
    m[:3, 0], m[:3, 1], m[:3, 2] = x, y, z
    m[3, :3] = -x @ eye, -y @ eye, -z @ eye
    return m


def perspective_oracle(fov, aspect, zn, zf, rh):
    ys = 1 / np.tan(fov / 2)
    m = np.zeros((4, 4))
    m[0, 0], m[1, 1] = ys / aspect, ys
    if rh:
        m[2, 2], m[2, 3], m[3, 2] = zf / (zn - zf), -1, zn * zf / (zn - zf)
    else:
        m[2, 2], m[2, 3], m[3, 2] = zf / (zf - zn), 1, -zn * zf / (zf - zn)
    return m


@pytest.mark.parametrize("rh", [False, True])
def test_builders(rh):
    eye, at, up = np.array([1.0, 2.0, -5.0]), np.array([0.5, 0.0, 1.0]), np.array([0.0, 1.0, 0.0])
    v = omkm.look_at(eye, at, up, right_handed=rh)
    assert v.dtype == np.float32 and v.shape == (4, 4)
    np.testing.assert_allclose(v, look_at_oracle(eye, at, up, rh), rtol=1e-5, atol=1e-6)
    # row vectors: the eye goes to the origin, the target onto the viewing axis
    np.testing.assert_allclose(np.append(eye, 1) @ v, [0, 0, 0, 1], atol=1e-5)
    t = np.append(at, 1) @ v
    np.testing.assert_allclose(t[:2], 0, atol=1e-5)
    assert (t[2] < 0) == rh
    p = omkm.perspective(np.pi / 3, 16 / 9, 0.5, 100.0, right_handed=rh)
    np.testing.assert_allclose(p, perspective_oracle(np.pi / 3, 16 / 9, 0.5, 100.0, rh), rtol=1e-5)
    out = np.zeros((4, 4), np.float32)
    assert omkm.perspective(1.0, 1.0, 1.0, 10.0, out=out, right_handed=rh) is out
    np.testing.assert_allclose(out, perspective_oracle(1.0, 1.0, 1.0, 10.0, rh), rtol=1e-5)


@pytest.mark.parametrize("n", [2, 3, 4])
@pytest.mark.parametrize("kind", ["coord", "affine", "normal"])
def test_transform_points(rng, n, kind):
    if n == 4 and kind != "affine":
        with pytest.raises(ValueError):
            omkm.transform_points(np.eye(4), np.ones((3, 4)), kind=kind)
        return
    m = omkm.look_at([1, 2, 3], [0, 0, 0], [0, 1, 0]) @ omkm.perspective(1.0, 1.5, 0.1, 50.0)
    pts = rng.standard_normal((25, n)).astype(np.float32)
    h = np.zeros((25, 4))
    h[:, :n] = pts
    if n < 4:
        h[:, 3] = 0.0 if kind == "normal" else 1.0
    r = h @ m.astype(np.float64)
    want = r if kind == "affine" else r[:, :n] / r[:, 3:] if kind == "coord" else r[:, :n]
    got = omkm.transform_points(m, pts, kind=kind)
    assert got.dtype == np.float32
    np.testing.assert_allclose(got, want, rtol=2e-4, atol=2e-4)
    np.testing.assert_allclose(omkm.transform_points(m, pts[3], kind=kind), want[3], rtol=2e-4, atol=2e-4)
    # strided points (every other one, a field of records) in place
    np.testing.assert_allclose(omkm.transform_points(m, np.repeat(pts, 2, 0)[::2], kind=kind, copy=False),
                               want, rtol=2e-4, atol=2e-4)
    # float64 points and non-contiguous components are copied, and refused with copy=False
    for other in (pts.astype(np.float64), np.asfortranarray(pts)):
        np.testing.assert_allclose(omkm.transform_points(m, other, kind=kind), want, rtol=2e-4, atol=2e-4)
        with pytest.raises(ValueError, match="copy=False"):
            omkm.transform_points(m, other, kind=kind, copy=False)
    out = np.zeros((25, want.shape[1]), np.float32)
    assert omkm.transform_points(m, pts, out=out, kind=kind) is out
    np.testing.assert_allclose(out, want, rtol=2e-4, atol=2e-4)
