#!/usr/bin/python3
"""omkm against numpy on stacks of small matrices: ns per object and the speed-up.

    OMKM_LIBRARY=/work/main/build/libomkm.so /usr/bin/python3 python/bench_numpy.py \
        [--dtype float64] [--counts 1,10,100,1000,10000,100000] [--threads N] [--png out.png]

Both sides allocate their results, as a numpy user calls them: omkm.matmul(a, b) against
np.matmul(a, b), omkm.solve(a, b) against np.linalg.solve(a, b[..., None])[..., 0], and so on;
the scipy.linalg names against scipy on one matrix.
Each figure is the best of several repeats of a loop that runs for at least --min-time seconds.
"""
import argparse
import os
import sys
import time

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import omkm  # noqa: E402

OPS = {
    # name: (kind of input matrices, omkm call, numpy call); b holds one vector per matrix
    "matmul": ("general", lambda a, b: omkm.matmul(a, a), lambda a, b: np.matmul(a, a)),
    "inv": ("wellcond", lambda a, b: omkm.inv(a), lambda a, b: np.linalg.inv(a)),
    "solve": ("wellcond", lambda a, b: omkm.solve(a, b), lambda a, b: np.linalg.solve(a, b[..., None])[..., 0]),
    "cholesky": ("spd", lambda a, b: omkm.cholesky(a), lambda a, b: np.linalg.cholesky(a)),
    "det": ("wellcond", lambda a, b: omkm.det(a), lambda a, b: np.linalg.det(a)),
    "eigvalsh": ("spd", lambda a, b: omkm.eigvalsh(a), lambda a, b: np.linalg.eigvalsh(a)),
    "eigh": ("spd", lambda a, b: omkm.eigh(a), lambda a, b: np.linalg.eigh(a)),
    "qr": ("wellcond", lambda a, b: omkm.qr(a), lambda a, b: np.linalg.qr(a)),
    "eig": ("wellcond", lambda a, b: omkm.eig(a), lambda a, b: np.linalg.eig(a)),
    "norm": ("general", lambda a, b: omkm.norm(a, axis=(-2, -1)), lambda a, b: np.linalg.norm(a, axis=(-2, -1))),
    "trace": ("general", lambda a, b: omkm.trace(a), lambda a, b: np.trace(a, axis1=-2, axis2=-1)),
    "vecdot": ("general", lambda a, b: omkm.vecdot(b, b), lambda a, b: np.einsum("...i,...i->...", b, b)),
    "matvec": ("general", lambda a, b: omkm.matvec(a, b), lambda a, b: np.matmul(a, b[..., None])[..., 0]),
}
# scipy.linalg's names: one matrix per call in scipy (a stack would be a Python loop), so only the
# per-call table compares them.
SCIPY_OPS = {
    "lu_factor": ("wellcond", lambda a, b: omkm.lu_factor(a), lambda a, b: _sl().lu_factor(a)),
    "lu_solve": ("wellcond", lambda a, b: omkm.lu_solve(omkm.lu_factor(a), b),
                 lambda a, b: _sl().lu_solve(_sl().lu_factor(a), b)),
    "cho_factor": ("spd", lambda a, b: omkm.cho_factor(a), lambda a, b: _sl().cho_factor(a)),
    "cho_solve": ("spd", lambda a, b: omkm.cho_solve(omkm.cho_factor(a), b),
                  lambda a, b: _sl().cho_solve(_sl().cho_factor(a), b)),
}
ITERATIVE = ("eigvalsh", "eigh")   # stacks redrawn until every matrix converges (see converging())


def _sl():
    import scipy.linalg
    return scipy.linalg


ORDERS = (3, 4, 6)


def matrices(rng, kind, count, n, dt):
    a = rng.standard_normal((count, n, n))
    if kind == "wellcond":
        a += n * np.eye(n)
    elif kind == "spd":
        a = a @ np.swapaxes(a, 1, 2) + n * np.eye(n)
    b = rng.standard_normal((count, n))
    if count == 1:                        # one object: no leading axis, the single-object members
        a, b = a[0], b[0]
    return a.astype(dt), b.astype(dt)


def converging(rng, a, dt, f_omkm, chunk=1000):
    """The stack with every matrix on which the omkm call fails drawn again. The symmetric
    eigen-iteration's negligibility test is absolute and its sweeps per value are limited, so a few
    random float32 matrices in 100,000 report NotConvergedError; an array call stops at its first
    failure, so timing such a stack would time less work than numpy does."""
    if a.ndim == 2:
        return a
    for i in range(0, a.shape[0], chunk):
        while True:
            try:
                f_omkm(a[i:i + chunk], None)
                break
            except omkm.OmkmError:
                m = rng.standard_normal(a[i:i + chunk].shape)
                n = a.shape[-1]
                a[i:i + chunk] = (m @ np.swapaxes(m, 1, 2) + n * np.eye(n)).astype(dt)
    return a


def best_time(f, a, b, min_time, repeats=5):
    """Best seconds per call over `repeats` loops of at least min_time each."""
    f(a, b)
    number, t = 1, 0.0
    while True:
        t0 = time.perf_counter()
        for _ in range(number):
            f(a, b)
        t = time.perf_counter() - t0
        if t >= min_time:
            break
        number *= 2 if t == 0 else max(2, min(10, int(1.5 * min_time / t)))
    best = t / number
    for _ in range(repeats - 1):
        t0 = time.perf_counter()
        for _ in range(number):
            f(a, b)
        best = min(best, (time.perf_counter() - t0) / number)
    return best


def run(dt, counts, min_time, ops):
    rng = np.random.default_rng(7)
    rows = []
    for op in ops:
        kind, f_omkm, f_np = OPS[op]
        for n in ORDERS:
            for count in counts:
                a, b = matrices(rng, kind, count, n, dt)
                if op in ITERATIVE:
                    a = converging(rng, a, dt, f_omkm)
                t_o = best_time(f_omkm, a, b, min_time)
                t_n = best_time(f_np, a, b, min_time)
                rows.append((op, n, count, t_o / count * 1e9, t_n / count * 1e9))
    return rows


def print_table(rows, count):
    print(f"\n{count:,} objects: ns per object (speed-up = numpy / omkm)")
    print(f"{'op':<10}" + "".join(f"{f'{n}x{n} omkm':>12}{'numpy':>10}{'x':>7}" for n in ORDERS))
    for op in dict.fromkeys(r[0] for r in rows):
        line = f"{op:<10}"
        for n in ORDERS:
            for r in rows:
                if r[0] == op and r[1] == n and r[2] == count:
                    line += f"{r[3]:12.1f}{r[4]:10.1f}{r[4] / r[3]:7.1f}"
        print(line)


def overhead(dt, min_time):
    """Microseconds per call on one 3x3 matrix for every function (scipy's for the scipy names),
    and a direct ctypes call of one library member for scale."""
    import ctypes
    a, b = matrices(np.random.default_rng(1), "spd", 1, 3, dt)
    print(f"\nOne 3x3 object ({np.dtype(dt).name}): microseconds per call")
    print(f"{'op':<12}{'omkm':>8}{'numpy':>8}")
    result = []
    for op, (_, f_omkm, f_np) in {**OPS, **SCIPY_OPS}.items():
        # Three rounds, the two sides in turn, the best of each: a change of load on the machine
        # between one side's loops and the other's would otherwise decide these small differences.
        t = [(best_time(f_omkm, a, b, min_time), best_time(f_np, a, b, min_time)) for _ in range(3)]
        result.append((op, min(x for x, _ in t) * 1e6, min(y for _, y in t) * 1e6))
        print(f"{op:<12}{result[-1][1]:8.2f}{result[-1][2]:8.2f}")
    lib = ctypes.CDLL(omkm.library_path)
    f = lib.omkmMul_mm_64f if np.dtype(dt) == np.float64 else lib.omkmMul_mm_32f
    f.restype = ctypes.c_int
    f.argtypes = [ctypes.c_void_p] + [ctypes.c_int] * 4 + [ctypes.c_void_p] + [ctypes.c_int] * 4 + \
                 [ctypes.c_void_p, ctypes.c_int, ctypes.c_int]
    out = np.empty_like(a)
    pa, po, isz = a.ctypes.data, out.ctypes.data, a.itemsize
    args = (pa, 3 * isz, isz, 3, 3, pa, 3 * isz, isz, 3, 3, po, 3 * isz, isz)
    t = best_time(lambda x, y: f(*args), a, b, min_time)
    print(f"{'Mul_mm by ctypes alone':<22}{t * 1e6:8.2f}")
    return result, t * 1e6


def plot(rows, path, dt):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    ops = list(dict.fromkeys(r[0] for r in rows))
    cols = min(5, len(ops))
    fig, axes = plt.subplots(-(-len(ops) // cols), cols, figsize=(4 * cols, 3.5 * -(-len(ops) // cols)),
                             squeeze=False)
    for ax in axes.flat[len(ops):]:
        ax.axis("off")
    for ax, op in zip(axes.flat, ops):
        for n, color in zip(ORDERS, ("tab:blue", "tab:orange", "tab:green")):
            sel = [r for r in rows if r[0] == op and r[1] == n]
            counts = [r[2] for r in sel]
            ax.loglog(counts, [r[3] for r in sel], "-o", color=color, label=f"omkm {n}x{n}")
            ax.loglog(counts, [r[4] for r in sel], "--s", color=color, label=f"numpy {n}x{n}", alpha=0.7)
        ax.set_title(op)
        ax.set_xlabel("objects per call")
        ax.set_ylabel("ns per object")
        ax.grid(True, which="both", alpha=0.3)
    axes.flat[0].legend(fontsize=7)
    fig.suptitle(f"omkm vs numpy, {np.dtype(dt).name}, {omkm.get_num_threads()} thread(s)")
    fig.tight_layout()
    fig.savefig(path, dpi=90)
    print(f"\nwrote {path}")


def markdown(path, counts, min_time, ops):
    """The report page: for both element types, ns per object over the counts with the default
    budget and with one thread, the speed-up at 1,000 objects, the per-call overhead on one
    object, and one plot per element type beside the page."""
    import platform
    docs = os.path.dirname(os.path.abspath(path))
    stem = os.path.splitext(os.path.basename(path))[0]
    default_threads = omkm.get_num_threads()
    lines = ["# omkm for numpy against numpy", "",
             "Written by `python/bench_numpy.py --markdown` (run by `bench/report.sh`). Both sides allocate "
             "their results, as a numpy user calls them; each figure is the best of five loops of at least "
             f"{min_time} s. numpy {np.__version__}, Python {platform.python_version()}, omkm "
             f"`{os.path.basename(omkm.library_path)}`; the default thread budget is {default_threads}; "
             f"OPENBLAS_NUM_THREADS={os.environ.get('OPENBLAS_NUM_THREADS', 'unset')} (numpy's LAPACK).", ""]
    for dt in (np.dtype(np.float32), np.dtype(np.float64)):
        omkm.set_num_threads(0)
        rows = run(dt, counts, min_time, ops)
        omkm.set_num_threads(1)
        one = {(r[0], r[1], r[2]): r[3] for r in run(dt, [c for c in counts if c >= 100], min_time, ops)}
        ov, ctypes_us = overhead(dt, min_time)
        omkm.set_num_threads(0)
        png = f"{stem}_{dt.name}.png"
        plot(rows, os.path.join(docs, png), dt)
        lines += [f"## {dt.name}", "", f"![omkm against numpy, {dt.name}]({png})", "",
                  "### 1,000 objects", "",
                  "ns per object; *x* is numpy / omkm (above 1 where omkm is faster); *1 thread* is omkm "
                  "with a budget of 1.", "",
                  "| op | " + " | ".join(f"{n}x{n} omkm | 1 thread | numpy | x | x, 1 thread" for n in ORDERS) + " |",
                  "|---|" + "---:|" * (5 * len(ORDERS))]
        for op in ops:
            cells = []
            for n in ORDERS:
                r = next((r for r in rows if r[0] == op and r[1] == n and r[2] == 1000), None)
                o1 = one.get((op, n, 1000))
                if r is None or o1 is None:
                    cells += ["–"] * 5
                    continue
                cells += [f"{r[3]:.1f}", f"{o1:.1f}", f"{r[4]:.1f}", f"{r[4] / r[3]:.1f}", f"{r[4] / o1:.1f}"]
            lines.append(f"| {op} | " + " | ".join(cells) + " |")
        lines += ["", "### Every count, default budget", "", "ns per object, omkm / numpy.", "",
                  "| op | order | " + " | ".join(f"{c:,}" for c in counts) + " |",
                  "|---|---|" + "---:|" * len(counts)]
        for op in ops:
            for n in ORDERS:
                cells = []
                for c in counts:
                    r = next(r for r in rows if r[0] == op and r[1] == n and r[2] == c)
                    cells.append(f"{r[3]:.0f} / {r[4]:.0f}")
                lines.append(f"| {op} | {n}x{n} | " + " | ".join(cells) + " |")
        lines += ["", "### One 3x3 object: microseconds per call", "",
                  "numpy.linalg's function (scipy.linalg's for lu_factor, lu_solve, cho_factor, cho_solve; each "
                  "solve row includes its factorization on both sides); *x* is the other / omkm.", "",
                  "| op | omkm | numpy or scipy | x |", "|---|---:|---:|---:|"]
        lines += [f"| {op} | {o:.2f} | {nn:.2f} | {nn / o:.2f} |" for op, o, nn in ov]
        lines += [f"| `omkmMul_mm` called by ctypes alone | {ctypes_us:.2f} | | |", ""]
    with open(path, "w", encoding="utf-8") as f:
        f.write("\n".join(lines))
    print(f"wrote {path}")


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--dtype", default="float64", choices=["float32", "float64"])
    ap.add_argument("--counts", default="1,10,100,1000,10000,100000")
    ap.add_argument("--ops", default=",".join(OPS))
    ap.add_argument("--threads", type=int, default=0, help="omkm thread budget (0: the default)")
    ap.add_argument("--min-time", type=float, default=0.02, help="seconds per timed loop")
    ap.add_argument("--png", help="write a plot of ns per object against count")
    ap.add_argument("--markdown", help="write the report page (both element types, plots beside it)")
    args = ap.parse_args()
    if args.markdown:
        markdown(args.markdown, [int(c) for c in args.counts.split(",")], args.min_time, args.ops.split(","))
        return
    omkm.set_num_threads(args.threads)
    dt = np.dtype(args.dtype)
    counts = [int(c) for c in args.counts.split(",")]
    print(f"omkm {omkm.library_path}, numpy {np.__version__}, {dt.name}, "
          f"omkm threads {omkm.get_num_threads()}")
    rows = run(dt, counts, args.min_time, args.ops.split(","))
    for count in counts:
        print_table(rows, count)
    overhead(dt, args.min_time)
    if args.png:
        plot(rows, args.png, dt)


if __name__ == "__main__":
    main()
