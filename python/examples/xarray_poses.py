"""omkm's compiled gufuncs on labelled arrays: xarray.apply_ufunc over named core dimensions.

A DataArray of 4x4 poses with dimensions (body, time, row, col), float64, is inverted and its
poses' translations moved by their rotation part, with the core dimensions named rather than
placed last; then the same on a dask-backed DataArray chunked along body, where xarray hands the
chunks to the gufunc (dask="parallelized"). Each result is checked against numpy.linalg / numpy.

    OMKM_LIBRARY=build/libomkm.so /usr/bin/python3 python/examples/xarray_poses.py

Exits with status 1 on a mismatch.
"""
import os
import sys

sys.path.insert(0, os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")))
os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")   # numpy's reference, one OpenBLAS thread

import numpy as np  # noqa: E402
import xarray as xr  # noqa: E402

import omkm.ufuncs as uf  # noqa: E402

rng = np.random.default_rng(11)
BODIES, TIMES = 200, 50
poses = rng.uniform(-0.3, 0.3, (BODIES, TIMES, 4, 4)) + 2.0 * np.eye(4)
# The pose axes come first in storage: apply_ufunc moves the named core dimensions last (a view),
# and the gufunc reads that view in place.
pose = xr.DataArray(np.moveaxis(poses, (2, 3), (0, 1)), dims=("row", "col", "body", "time"),
                    coords={"body": np.arange(BODIES), "time": 0.1 * np.arange(TIMES)})
offset = xr.DataArray(rng.uniform(-1, 1, (BODIES, 3)), dims=("body", "xyz"))

inverse = xr.apply_ufunc(uf.inv, pose, input_core_dims=[["row", "col"]], output_core_dims=[["row", "col"]])
# The rotation part (row, col < 3) times an offset per body, broadcast over time by name.
moved = xr.apply_ufunc(uf.matvec, pose.isel(row=slice(0, 3), col=slice(0, 3)), offset.rename(xyz="col"),
                       input_core_dims=[["row", "col"], ["col"]], output_core_dims=[["row"]])

lazy = xr.apply_ufunc(uf.inv, pose.chunk({"body": 50}), input_core_dims=[["row", "col"]],
                      output_core_dims=[["row", "col"]], dask="parallelized", output_dtypes=[np.float64])

ok = True
want_inv = np.linalg.inv(poses)
want_moved = np.einsum("btij,bj->bti", poses[:, :, :3, :3], offset.values)
for label, got, want in [
    ("inv", inverse.transpose("body", "time", "row", "col").values, want_inv),
    ("matvec", moved.transpose("body", "time", "row").values, want_moved),
    ("inv on dask chunks", lazy.compute().transpose("body", "time", "row", "col").values, want_inv),
]:
    good = np.allclose(got, want, rtol=1e-12, atol=1e-12)
    print(f"{label}: {got.shape}, {'matches' if good else 'DIFFERS FROM'} numpy")
    ok &= good
ok &= inverse.dims == ("body", "time", "row", "col") and (inverse.coords["time"] == pose.coords["time"]).all()
sys.exit(0 if ok else 1)
