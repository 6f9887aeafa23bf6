"""omkm's compiled gufuncs on a Dask cluster of worker processes.

A dask array of 10**6 float64 3x3 matrices in 10 chunks along the stack axis (each chunk holds its
matrices whole) is inverted with omkm.ufuncs.inv and solved against a (10**6, 3) right-hand side
with omkm.ufuncs.solve1, through dask.array.apply_gufunc, on a distributed.LocalCluster of two
worker processes with one thread each. Every chunk is made on its worker from a generator seeded
with the chunk's index, so the client can make any chunk again with numpy alone and check it:
sampled chunks against numpy.linalg.inv / numpy.linalg.solve, the residual max|A x - b| on the
sampled chunks and, computed on the cluster, over the whole stack.

    OMKM_LIBRARY=build/libomkm.so /usr/bin/python3 python/examples/dask_cluster.py

Exits with status 1 on any mismatch. Options time other layouts (see python/README.md):
--workers N, --threads-per-worker T, --lib-threads K (omkm.set_num_threads(K) in every worker;
0 leaves the library's default), --repeat R (runs of the computation on the one cluster).

Measured on the 2-core machine of the test suite (Debian 12, Python 3.11, dask/distributed
2022.12.1; seconds of one computation: make A and b, inv, solve1, the residual over the stack,
results to the client; median (min) of 3 runs on one cluster; cluster start 1.2-1.4 s more; load
average about 3 from other work on the machine):

    workers x threads   omkm.set_num_threads   compute, s
    2 x 1               1                      1.73 (1.59)
    2 x 1               default                1.85 (1.53)
    1 x 2               1                      1.66 (1.48)
    1 x 2               default                1.64 (1.54)
    1 x 1               2                      2.22 (1.95)   (load average about 5)

The library's default budget came out as 1 in every worker here (it takes at most the processors
other processes leave free, and the machine was busy), so "default" and 1 ran the same setting;
the differences are within the run-to-run spread. While a two-job compile shared the machine the
same runs took 5.2-7.2 s. Each chunk's 10**5 matrices are far below the size at which a thread
team pays off, so one library thread per worker, and as many single-threaded workers as cores, is
the setting to use; a chunk of 10**5 3x3 float64 matrices is 7.2 MB.
"""
import argparse
import os
import sys
import time

# The package from this source tree, as python/tests/conftest.py puts it on the path.
PACKAGE_DIR = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
sys.path.insert(0, PACKAGE_DIR)

# numpy.linalg.inv of a stack of 10**5 3x3 matrices took 94 s with OpenBLAS's two threads on this
# busy 2-core machine and 0.09 s with one: the client's reference results use one OpenBLAS thread
# (set before numpy loads OpenBLAS; the workers inherit it, and omkm does not use OpenBLAS).
os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

import numpy as np  # noqa: E402

import omkm  # noqa: E402
import omkm.ufuncs as uf  # noqa: E402

N = 10 ** 6          # matrices in the stack
CHUNKS = 10          # chunks along the stack axis; core dimensions (3, 3) whole in each chunk
M = 3
SEED = 20261126
# Tolerances of the checks. The matrices are strictly diagonally dominant (off-diagonal entries in
# [-0.5, 0.5), diagonal entries 3 + [-0.5, 0.5)), so their condition numbers are below about 4 and
# both omkm and LAPACK give results within a few units of roundoff (1e-16) of each other.
RTOL, ATOL = 1e-12, 1e-12
RESIDUAL_TOL = 1e-12  # max |A x - b| over entries, with |b| <= 1
SAMPLED = (0, 4, 9)   # chunks checked against numpy.linalg in the client


def make_a(i):
    """Chunk i of the stack: well conditioned matrices from a generator seeded with (SEED, 0, i)."""
    rng = np.random.default_rng([SEED, 0, i])
    return rng.uniform(-0.5, 0.5, (chunk_len(i), M, M)) + 3.0 * np.eye(M)


def make_b(i):
    """Chunk i of the right-hand side, from a generator seeded with (SEED, 1, i)."""
    rng = np.random.default_rng([SEED, 1, i])
    return rng.uniform(-1.0, 1.0, (chunk_len(i), M))


def a_block(block_id=None):
    return make_a(block_id[0])


def b_block(block_id=None):
    return make_b(block_id[0])


def chunk_len(i):
    return (i + 1) * N // CHUNKS - i * N // CHUNKS


def worker_state():
    """What a worker process loaded and its library thread budget."""
    import omkm as o
    return o.library_path, o.ufuncs.path, o.get_num_threads(), os.cpu_count()


def build_graph(da):
    chunks = tuple(chunk_len(i) for i in range(CHUNKS))
    a = da.map_blocks(a_block, chunks=(chunks, (M,), (M,)), dtype=np.float64,
                      meta=np.empty((0, 0, 0), np.float64), name="omkm-example-a")
    b = da.map_blocks(b_block, chunks=(chunks, (M,)), dtype=np.float64,
                      meta=np.empty((0, 0), np.float64), name="omkm-example-b")
    a_inv = da.apply_gufunc(uf.inv, "(m,m)->(m,m)", a, output_dtypes=np.float64)
    x = da.apply_gufunc(uf.solve1, "(m,m),(m)->(m)", a, b, output_dtypes=np.float64)
    residual = abs(da.einsum("nij,nj->ni", a, x) - b).max()
    return a, b, a_inv, x, residual


def check(a_inv, x, residual):
    """Sampled chunks against numpy.linalg; returns (failures, max errors)."""
    failures = []
    err_inv = err_solve = res_sample = 0.0
    for i in SAMPLED:
        lo, hi = i * N // CHUNKS, (i + 1) * N // CHUNKS
        a, b = make_a(i), make_b(i)
        want_inv = np.linalg.inv(a)
        want_x = np.linalg.solve(a, b[..., None])[..., 0]
        got_inv, got_x = a_inv[lo:hi], x[lo:hi]
        if not np.allclose(got_inv, want_inv, rtol=RTOL, atol=ATOL):
            failures.append(f"inv, chunk {i}: max |omkm - numpy| = {np.abs(got_inv - want_inv).max():.3g}")
        if not np.allclose(got_x, want_x, rtol=RTOL, atol=ATOL):
            failures.append(f"solve1, chunk {i}: max |omkm - numpy| = {np.abs(got_x - want_x).max():.3g}")
        r = np.abs(np.einsum("nij,nj->ni", a, got_x) - b).max()
        if not r <= RESIDUAL_TOL:
            failures.append(f"solve1, chunk {i}: max |A x - b| = {r:.3g}")
        err_inv = max(err_inv, float(np.abs(got_inv - want_inv).max()))
        err_solve = max(err_solve, float(np.abs(got_x - want_x).max()))
        res_sample = max(res_sample, float(r))
    if not residual <= RESIDUAL_TOL:
        failures.append(f"solve1, whole stack on the cluster: max |A x - b| = {residual:.3g}")
    return failures, (err_inv, err_solve, res_sample)


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--workers", type=int, default=2)
    p.add_argument("--threads-per-worker", type=int, default=1)
    p.add_argument("--lib-threads", type=int, default=1,
                   help="omkm.set_num_threads in every worker (0: the library's default)")
    p.add_argument("--repeat", type=int, default=1)
    args = p.parse_args()

    import dask
    import dask.array as da
    from distributed import Client, LocalCluster

    # Worker processes inherit this environment: they import this source tree's package and load
    # the very library and compiled gufuncs this process loaded.
    if uf.path is None:
        sys.exit("omkm.ufuncs: the compiled module is not built (see python/README.md)")
    os.environ["PYTHONPATH"] = os.pathsep.join(
        [PACKAGE_DIR] + [q for q in os.environ.get("PYTHONPATH", "").split(os.pathsep) if q])
    os.environ["OMKM_LIBRARY"] = omkm.library_path
    os.environ["OMKM_UFUNCS"] = uf.path

    a, b, a_inv, x, residual = build_graph(da)
    assert a.numblocks == (CHUNKS, 1, 1) and a.shape == (N, M, M) and b.shape == (N, M)

    t0 = time.perf_counter()
    with LocalCluster(n_workers=args.workers, threads_per_worker=args.threads_per_worker,
                      processes=True, host="127.0.0.1", dashboard_address=None) as cluster, \
            Client(cluster) as client:
        t_start = time.perf_counter() - t0
        if args.lib_threads > 0:
            client.run(omkm.set_num_threads, args.lib_threads)
        state = client.run(worker_state)
        failures = []
        for addr, (lib, ufs, threads, _) in state.items():
            if (lib, ufs) != (omkm.library_path, uf.path):
                failures.append(f"worker {addr} loaded {lib}, {ufs}")
            if args.lib_threads > 0 and threads != args.lib_threads:
                failures.append(f"worker {addr}: omkm thread budget {threads}, asked {args.lib_threads}")
        times = []
        for _ in range(args.repeat):
            t1 = time.perf_counter()
            got_inv, got_x, got_res = dask.compute(a_inv, x, residual)
            times.append(time.perf_counter() - t1)
    t_total = time.perf_counter() - t0

    if got_inv.shape != (N, M, M) or got_x.shape != (N, M):
        failures.append(f"shapes {got_inv.shape}, {got_x.shape}")
    else:
        f, (err_inv, err_solve, res_sample) = check(got_inv, got_x, float(got_res))
        failures += f
    budgets = sorted({s[2] for s in state.values()})
    print(f"dask_cluster: {N} matrices {M}x{M} float64 in {CHUNKS} chunks; {args.workers} worker(s) x "
          f"{args.threads_per_worker} thread(s), omkm threads per worker {budgets}")
    print(f"  cluster start {t_start:.2f} s; compute (make, inv, solve1, residual, gather) "
          f"median {sorted(times)[len(times) // 2]:.3f} s, min {min(times):.3f} s over {len(times)} run(s); "
          f"total {t_total:.2f} s")
    if got_inv.shape == (N, M, M) and got_x.shape == (N, M):
        print(f"  chunks {list(SAMPLED)} vs numpy.linalg (rtol {RTOL:g}, atol {ATOL:g}): max |d inv| "
              f"{err_inv:.2e}, max |d x| {err_solve:.2e}; max |A x - b| {res_sample:.2e} sampled, "
              f"{float(got_res):.2e} whole stack (tol {RESIDUAL_TOL:g})")
    if failures:
        print("MISMATCH:\n  " + "\n  ".join(failures))
        sys.exit(1)
    print("ok")


if __name__ == "__main__":
    main()
