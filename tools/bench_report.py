#!/usr/bin/python3
"""Runs omkm_bench once and writes docs/benchmarks.md and the count-sweep plots docs/sweep_*.png.

Every row of omkm_bench is named BM_<who>_<operation>/<shape>/<count>[/threads:<budget>]. Rows
that differ only in <who> (omkm, plain, eigen, glm, xsmm, lapacke and their variants) form one
workload; the report gives, per workload, the median time per object of omkm and of every peer
present and the ratio omkm / best peer. Rows whose operation ends in "Sweep" repeat five workloads
at 1 to 1000000 objects and are drawn as log-log plots.

Usage (normally through bench/report.sh, which builds build-bench/ first):
    tools/bench_report.py [--build build-bench] [--docs docs] [--repetitions 3] [--min-time 0.2]
                          [--filter REGEX] [--wait-idle MINUTES] [--from-json FILE]

--wait-idle N polls every 30 s, for at most N minutes, until the 1-minute load average is below
1.0 and no compiler (cc1plus) runs, then starts the measurement. --from-json rewrites the report
from the JSON of an earlier run (build-bench/omkm_bench_report.json) without running anything.
Needs python3 with matplotlib (Debian: python3-matplotlib).
"""

import argparse
import datetime
import json
import os
import platform
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Peer families: the column a row of <who> goes to, and the tag that names a variant of the family.
FAMILIES = [
    ("plain", "plain loop"),
    ("eigen", "Eigen"),
    ("glm", "glm"),
    ("xsmm", "libxsmm"),
    ("lapacke", "LAPACKE"),
]
WHO_FAMILY = {
    "plain": ("plain", None),
    "memcpy": ("plain", "memcpy"),
    "eigen": ("eigen", None),
    "eigenDirect": ("eigen", "computeDirect"),
    "glm": ("glm", None),
    "glmSimd": ("glm", "SIMD"),
    "xsmm": ("xsmm", None),
    "lapacke": ("lapacke", None),
}
FAMILY_NAME = dict(FAMILIES)

# omkm rows that time another entry point of the same workload: operation -> (operation of the
# workload, label of the variant).
OMKM_ALIASES = {
    "Mul_mm4x4_32f": ("Mul_mama_32f", "omkmMul_mm4x4_32f, one call per object"),
    "Transform_m4v3_32f": ("Transform_m4v3a_32f", "omkmAffineTransform_m4v3_32f, one call per point"),
}
# omkm rows whose first argument names the entry point (m4: one call per object, ma: array call).
OMKM_FORMS = {"m4": "one call per object", "ma": "array call"}

# Sections of the report: title and the operations it holds, in order. Operations not listed go to
# "Other".
SECTIONS = [
    ("Element-wise and scaled sums", ["Add_mama_32f", "Add_vava_64f", "Saxpy_vava_32f"]),
    ("Products and small reductions",
     ["Mul_mama_32f", "Mul_mama_64f", "Mul_mm_32f", "Gaxpy_mva_32f", "Dot_vava_32f", "Cross_vava_32f",
      "L2Norm_va_32f"]),
    ("Solvers, inverses and determinants",
     ["LUSolve_32f", "LUSolve_64f", "Cholesky_64f", "QRSolve_64f", "Invert4_32f", "Det4_32f"]),
    ("Eigenproblems", ["EigenSym_32f", "EigenSym_64f", "EigenGenValues_32f", "EigenGenVectorsRight_64f"]),
    ("Point transforms", ["Transform_m4v3a_32f"]),
    ("Data movement", ["Transpose_32f", "CopyAoS_32f"]),
]
DESCRIPTIONS = {
    "Add_mama_32f": "d = a + b, 4x4 float matrices",
    "Add_vava_64f": "d = a + b, length-16 double vectors",
    "Saxpy_vava_32f": "d = s*x + y, length-16 float vectors",
    "Mul_mama_32f": "d = a * b, float matrices",
    "Mul_mama_64f": "d = a * b, double matrices",
    "Mul_mm_32f": "one 4x4 float product, single call",
    "Gaxpy_mva_32f": "y = A*x + b, one 4x4 float matrix, packed 4-vectors",
    "Dot_vava_32f": "dot products of float 3-vectors",
    "Cross_vava_32f": "cross products of float 3-vectors",
    "L2Norm_va_32f": "norms of float 3-vectors",
    "LUSolve_32f": "LU factorisation and one solve, float",
    "LUSolve_64f": "LU factorisation and one solve, double",
    "Cholesky_64f": "Cholesky factorisation, double",
    "QRSolve_64f": "QR factorisation and least-squares solve, double",
    "Invert4_32f": "4x4 float inverse",
    "Det4_32f": "4x4 float determinant",
    "EigenSym_32f": "symmetric eigenvalues and eigenvectors, float",
    "EigenSym_64f": "symmetric eigenvalues and eigenvectors, double",
    "EigenGenValues_32f": "general eigenvalues, float",
    "EigenGenVectorsRight_64f": "general eigenvalues and right eigenvectors, double",
    "Transform_m4v3a_32f": "points (x, y, z, 1) * M, 4x4 float transform",
    "Transpose_32f": "transpose of one N x N float matrix (time per matrix)",
    "CopyAoS_32f": "4x4 float matrices out of an array of 96-byte records",
}
SWEEP_TITLES = {
    "AddSweep_mama_32f/4x4": "omkmAdd_mama_32f: d = a + b, 4x4 float",
    "MulSweep_mama_32f/4x4": "omkmMul_mama_32f: d = a * b, 4x4 float",
    "LUSolveSweep_64f/3x3": "omkmLUDecomp_ma_64f + omkmLUBackSubst_mava_64f: 3x3 double",
    "TransformSweep_m4v3a_32f": "omkmAffineTransform_m4v3a_32f: points through a 4x4",
    "EigenSymSweep_64f/3x3": "omkmEigenValuesVectorsSym_ma_64f: 3x3 symmetric double",
}
# Operations whose last argument is the matrix order N of a single N x N matrix, not a count.
SINGLE_MATRIX = {"Transpose_32f"}
# ratio <= LEAD: omkm leads; ratio >= TRAIL: omkm trails; between: level.
LEAD, TRAIL = 0.95, 1.05
# A coefficient of variation above this over the repetitions marks a comparison as noisy.
NOISY = 0.10

PEER_PACKAGES = ["libeigen3-dev", "libglm-dev", "libxsmm-dev", "liblapacke-dev", "libopenblas-dev",
                 "libopenblas0", "libblas-dev", "libblas3", "libbenchmark-dev"]


# ---- machine and software ----

def read(path, default=""):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read()
    except OSError:
        return default


def run_text(cmd):
    try:
        return subprocess.run(cmd, capture_output=True, text=True, check=False).stdout
    except OSError:
        return ""


def machine_info():
    cpuinfo = read("/proc/cpuinfo")
    models = re.findall(r"^model name\s*:\s*(.+)$", cpuinfo, re.M)
    flags = re.search(r"^flags\s*:\s*(.+)$", cpuinfo, re.M)
    flags = flags.group(1).split() if flags else []
    mem = re.search(r"^MemTotal:\s*(\d+)\s*kB", read("/proc/meminfo"), re.M)
    return {
        "cpu": models[0].strip() if models else platform.processor() or "unknown",
        "cores": len(models) or os.cpu_count() or 0,
        "virtual": "hypervisor" in flags,
        "avx512": "avx512f" in flags,
        "memory_gib": int(mem.group(1)) / 2 ** 20 if mem else 0.0,
        "kernel": platform.release(),
    }


def cmake_cache(build):
    cache = {}
    for line in read(os.path.join(build, "CMakeCache.txt")).splitlines():
        m = re.match(r"^([A-Za-z0-9_]+):[A-Z]+=(.*)$", line)
        if m:
            cache[m.group(1)] = m.group(2)
    return cache


def software_info(build, bench):
    cache = cmake_cache(build)
    compiler = cache.get("CMAKE_CXX_COMPILER", "c++")
    version = run_text([compiler, "--version"]).splitlines()
    top = read(os.path.join(ROOT, "CMakeLists.txt"))
    omkm = re.search(r"project\(\s*omkm\s+VERSION\s+([0-9.]+)", top)
    arch = re.search(r"set\(OMKM_ARCH_FLAGS\s+([^)]*)\)", top)
    build_type = cache.get("CMAKE_BUILD_TYPE", "")
    flags = cache.get("CMAKE_CXX_FLAGS_" + build_type.upper(), "") if build_type else ""
    packages = []
    out = run_text(["dpkg-query", "-W", "-f", "${Package}\t${Version}\t${db:Status-Abbrev}\n"] + PEER_PACKAGES)
    for line in out.splitlines():
        fields = line.split("\t")
        if len(fields) == 3 and fields[2].startswith("ii"):
            packages.append((fields[0].split(":")[0], fields[1]))
    linked = []
    for line in run_text(["ldd", bench]).splitlines():
        m = re.match(r"\s*(\S+)\s+=>\s+(\S+)", line)
        if m and re.search(r"blas|lapack|xsmm|benchmark|gomp", m.group(1)):
            linked.append(os.path.realpath(m.group(2)))
    commit = run_text(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"]).strip()
    dirty = bool(run_text(["git", "-C", ROOT, "status", "--porcelain", "--untracked-files=no"]).strip())
    return {
        "compiler": version[0].strip() if version else compiler,
        "build_type": build_type,
        "flags": " ".join(x for x in [flags, arch.group(1).strip() if arch else ""] if x),
        "omkm": omkm.group(1) if omkm else "unknown",
        "packages": packages,
        "linked": linked,
        "commit": commit + (" with local changes" if commit and dirty else ""),
    }


def compiler_running():
    for pid in os.listdir("/proc"):
        if pid.isdigit() and read(os.path.join("/proc", pid, "comm")).strip() == "cc1plus":
            return True
    return False


def wait_idle(minutes):
    """Polls every 30 s until load(1 min) < 1.0 and no cc1plus runs; gives up after `minutes`."""
    deadline = time.time() + 60 * minutes
    while True:
        load = os.getloadavg()[0]
        busy = compiler_running()
        if load < 1.0 and not busy:
            print(f"bench_report: machine idle (load {load:.2f}), starting", file=sys.stderr)
            return True
        if time.time() >= deadline:
            print(f"bench_report: still busy after {minutes} min (load {load:.2f}, compiler running: {busy}), "
                  "starting anyway", file=sys.stderr)
            return False
        print(f"bench_report: waiting, load {load:.2f}, compiler running: {busy}", file=sys.stderr)
        time.sleep(30)


# ---- the run ----

def run_bench(bench, repetitions, min_time, filt):
    cmd = [bench, "--benchmark_format=json", f"--benchmark_repetitions={repetitions}",
           f"--benchmark_min_time={min_time}", "--benchmark_report_aggregates_only=true",
           "--benchmark_enable_random_interleaving=true"]
    # The rows of the shared costs (the parallel driver, single-object calls) have their own page
    # (tools/driver_report.py); the report's run leaves them out unless a filter asks for them.
    cmd.append(f"--benchmark_filter={filt or '-BM_(Omp|DriverCost|SingleCall)'}")
    print("bench_report: " + " ".join(cmd), file=sys.stderr)
    start = time.time()
    proc = subprocess.run(cmd, stdout=subprocess.PIPE, text=True, check=False)
    seconds = time.time() - start
    if proc.returncode != 0:
        sys.exit(f"bench_report: omkm_bench exited with status {proc.returncode}")
    data = json.loads(proc.stdout)
    data["report_seconds"] = seconds
    data["report_command"] = " ".join(os.path.relpath(c, ROOT) if c == bench else c for c in cmd)
    return data


# ---- rows and workloads ----

SUFFIX = re.compile(r"/(min_time:[^/]+|min_warmup_time:[^/]+|real_time|manual_time|iterations:\d+|repeats:\d+)")


class Row:
    def __init__(self, name):
        self.name = name
        self.ns = None      # median wall time per object, ns
        self.cv = None      # coefficient of variation of the wall time over the repetitions
        self.threads = None
        self.bytes_per_second = None
        self.error = None
        self.min_time = None  # the row's own minimum time per repetition, if it sets one
        m = re.match(r"BM_([A-Za-z0-9]+)_([^/]+)(/.*)?$", name)
        self.who, op = (m.group(1), m.group(2)) if m else ("?", name)
        args = [a for a in (m.group(3) or "").split("/") if a] if m else []
        self.budget = None  # "1", "default" or another number for omkm rows
        if args and args[-1].startswith("threads:"):
            self.budget = args.pop()[len("threads:"):]
        self.variant = None
        if self.who == "omkm" and op in OMKM_ALIASES:
            op, self.variant = OMKM_ALIASES[op]
        elif self.who == "omkm" and args and args[0] in OMKM_FORMS:
            self.variant = OMKM_FORMS[args.pop(0)]
        if op in SINGLE_MATRIX and args and args[-1].isdigit():
            args = args[:-1] + [f"{args[-1]}x{args[-1]}", "1"]
        self.op = op
        self.args = args
        self.sweep = op.endswith("Sweep") or "Sweep_" in op
        self.count = int(args[-1]) if args and args[-1].isdigit() else None
        if self.who == "fmaBound":
            self.kind = "bound"  # an arithmetic limit, quoted by the targets only
        elif self.who == "floor":
            self.kind = "reference"  # the object's own arithmetic alone, shown beside the workload
        elif self.who == "stream" or (self.who == "memcpy" and op == "copy"):
            self.kind = "reference"
        elif self.who == "omkm":
            self.kind = "omkm"
        else:
            self.kind = "peer"
        self.family, self.tag = WHO_FAMILY.get(self.who, (self.who, None))
        if self.who == "stream" and op == "Mul_limit_32f":
            self.op = "Mul_mama_32f"  # the memory limit of that product, shown beside it

    @property
    def key(self):
        return "/".join([self.op] + self.args)

    @property
    def shape(self):
        return "/".join(self.args[:-1]) if self.count is not None else "/".join(self.args)

    def label(self):
        if self.kind == "omkm":
            return "omkm" + (f", {self.variant}" if self.variant else "")
        if self.who == "floor":
            return "arithmetic floor"
        if self.kind == "reference":
            return f"{self.who} ({self.op}), memory limit"
        return FAMILY_NAME.get(self.family, self.who) + (f" ({self.tag})" if self.tag else "")

    def budget_label(self, default_threads):
        if self.kind != "omkm":
            return "1 (calling thread)"
        if self.budget == "default":
            return f"default ({default_threads})"
        return self.budget or "1 (calling thread)"

    def one_thread(self):
        return self.threads is not None and self.threads <= 1


def to_ns(value, unit):
    return value * {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[unit]


def parse(data):
    rows = {}
    for b in data.get("benchmarks", []):
        raw = b.get("run_name", b["name"])
        name = SUFFIX.sub("", raw)
        row = rows.setdefault(name, Row(name))
        mt = re.search(r"/min_time:([0-9.]+)", raw)
        row.min_time = float(mt.group(1)) if mt else None
        if b.get("error_occurred"):
            row.error = b.get("error_message", "error")
            continue
        agg = b.get("aggregate_name")
        if b.get("run_type") == "aggregate" and agg not in ("median", "cv"):
            continue
        if agg == "cv":
            row.cv = b.get("real_time")
            continue
        if "time_per_obj" in b:
            row.ns = b["time_per_obj"] * 1e9
        else:
            row.ns = to_ns(b["real_time"], b.get("time_unit", "ns"))
        row.threads = b.get("threads", row.threads)
        row.bytes_per_second = b.get("bytes_per_second")
    return list(rows.values())


class Workload:
    def __init__(self, key):
        self.key = key
        self.omkm, self.peers, self.refs = [], [], []

    def add(self, row):
        {"omkm": self.omkm, "peer": self.peers, "reference": self.refs}[row.kind].append(row)

    @staticmethod
    def best(rows):
        ok = [r for r in rows if r.ns is not None]
        return min(ok, key=lambda r: r.ns) if ok else None

    def best_peer(self):
        return self.best(self.peers)

    def omkm_one(self):
        return self.best([r for r in self.omkm if r.one_thread()])

    def omkm_default(self):
        return self.best([r for r in self.omkm if r.budget == "default"])

    def family_best(self, family):
        return self.best([r for r in self.peers if r.family == family])

    def ratio(self, row):
        peer = self.best_peer()
        if row is None or peer is None or row.ns is None:
            return None
        return row.ns / peer.ns

    @property
    def sample(self):
        return (self.omkm + self.peers + self.refs)[0]


def group(rows):
    workloads = {}
    for r in rows:
        if r.kind == "bound" or (r.kind == "reference" and r.op not in ("Mul_mama_32f",) and r.who != "floor"):
            continue
        workloads.setdefault(r.key, Workload(r.key)).add(r)
    return workloads


# ---- formatting ----

def fmt_ns(ns):
    if ns is None:
        return "–"
    if ns >= 1000:
        return f"{ns:,.0f}"
    if ns >= 100:
        return f"{ns:.0f}"
    if ns >= 10:
        return f"{ns:.1f}"
    if ns >= 1:
        return f"{ns:.2f}"
    return f"{ns:.3f}"


def fmt_ratio(r):
    return "–" if r is None else f"{r:.2f}"


def fmt_count(c):
    return "–" if c is None else f"{c:,}"


def fmt_cv(cv):
    return "–" if cv is None else f"{100 * cv:.1f} %"


def section_of(op):
    for i, (_, ops) in enumerate(SECTIONS):
        if op in ops:
            return i, ops.index(op)
    return len(SECTIONS), 0


def natural(text):
    return [int(t) if t.isdigit() else t for t in re.split(r"(\d+)", text)]


def workload_order(w):
    s = w.sample
    return (section_of(s.op), s.op, natural(s.shape), s.count or 0)


def workload_title(w):
    s = w.sample
    return f"`{s.op}`" + (f" {s.shape}" if s.shape else "")


# ---- targets ----
# What each family set for its rows, as (operation, shape or None for every shape, count or None for
# every count, test, value, the target in words). Tests: "peer" omkm one thread / best peer <= value;
# "plain" the same against the plain loop; "peer-or-memory" the ratio, or else omkm's bandwidth at
# least 90 % of the STREAM-like add's (a row at the memory limit meets it there); "stream" omkm's
# bandwidth >= value * the STREAM-like add's on one thread; "copy" >= value * memcpy's; "ns" omkm's
# time <= value.
TARGETS = [
    ("Add_mama_32f", None, 1000, "plain", 1.0, "in cache no slower than the plain loop"),
    ("Add_vava_64f", None, 1000, "plain", 1.0, "in cache no slower than the plain loop"),
    ("Add_mama_32f", None, 1000000, "stream", 0.9, "out of cache at least 90 % of the STREAM-like add"),
    ("Add_vava_64f", None, 1000000, "stream", 0.9, "out of cache at least 90 % of the STREAM-like add"),
    ("Saxpy_vava_32f", None, 1000, "plain", 1.0, "in cache at most the plain loop's time"),
    ("Saxpy_vava_32f", None, 1000000, "stream", 0.9, "out of cache within 10 % of the bandwidth"),
    ("Mul_mama_32f", None, None, "peer-or-memory", 0.67,
     "at most 0.67 x the best peer, within 10 % of the memory limit where that is reached"),
    ("Mul_mama_64f", None, None, "peer-or-memory", 0.67,
     "at most 0.67 x the best peer, within 10 % of the memory limit where that is reached"),
    ("Mul_mm_32f", "4x4", 1, "ns", 10.0, "one 4x4 call under 10 ns"),
    ("Gaxpy_mva_32f", None, None, "peer-or-memory", 1.0, "at most the best peer, within 10 % of the bandwidth"),
    ("Dot_vava_32f", None, None, "peer-or-memory", 1.0, "at most the best peer, within 10 % of the bandwidth"),
    ("Cross_vava_32f", None, None, "peer-or-memory", 1.0, "at most the best peer, within 10 % of the bandwidth"),
    ("L2Norm_va_32f", None, None, "peer-or-memory", 1.0, "at most the best peer, within 10 % of the bandwidth"),
    ("LUSolve_32f", "4x4", 1000, "ns", 5.0, "at most 5 ns per object"),
    ("LUSolve_32f", "6x6", 1000, "ns", 15.0, "at most 15 ns per object"),
    ("LUSolve_64f", "4x4", 1000, "ns", 10.0, "at most 10 ns per object"),
    ("LUSolve_64f", "6x6", 1000, "ns", 28.0, "at most 28 ns per object"),
    ("Cholesky_64f", "4x4", 1000, "ns", 6.0, "at most 6 ns per object"),
    ("Cholesky_64f", "6x6", 1000, "ns", 9.0, "at most 9 ns per object"),
    ("QRSolve_64f", "4x4", 1000, "ns", 22.0, "at most 22 ns per object"),
    ("QRSolve_64f", "6x4", 1000, "ns", 56.0, "at most 56 ns per object"),
    ("LUSolve_32f", None, None, "peer", 0.67, "at most 0.67 x Eigen"),
    ("LUSolve_64f", None, None, "peer", 0.67, "at most 0.67 x Eigen"),
    ("Cholesky_64f", None, None, "peer", 0.67, "at most 0.67 x Eigen"),
    ("QRSolve_64f", None, None, "peer", 0.67, "at most 0.67 x the best peer"),
    ("Invert4_32f", None, None, "peer", 0.67, "at most 0.67 x the best peer"),
    ("Det4_32f", None, None, "peer", 0.67, "at most 0.67 x the best peer"),
    ("EigenSym_32f", "3x3", None, "peer", 1.0, "no slower than Eigen's closed form"),
    ("EigenSym_64f", "3x3", None, "peer", 1.0, "no slower than Eigen's closed form"),
    ("EigenSym_32f", "6x6", None, "peer", 0.67, "at most 0.67 x Eigen's iterative solver"),
    ("EigenSym_64f", "6x6", None, "peer", 0.67, "at most 0.67 x Eigen's iterative solver"),
    ("EigenGenValues_32f", None, None, "peer", 0.67, "at most 0.67 x Eigen"),
    ("EigenGenVectorsRight_64f", None, None, "peer", 0.67, "at most 0.67 x Eigen"),
    ("Transform_m4v3a_32f", None, 1000, "plain", 1.1, "within 10 % of the plain loop"),
    ("Transform_m4v3a_32f", None, 1000000, "stream", 0.9, "within 10 % of the bandwidth"),
    # Near the machine's limit: the larger of the multiply-adds at the FMA rate and the bytes (two
    # operands read, one written) at the add kernel's bandwidth for the same footprint, measured on
    # this machine (2026-11-26) as the figure in brackets.
    ("Mul_mama_32f", "3x3", 1000, "ns", 1.4, "at most 1.4 ns per object (limit 1.01)"),
    ("Mul_mama_32f", "6x6", 1000, "ns", 4.8, "at most 4.8 ns per object (limit 3.83)"),
    ("Mul_mama_64f", "3x3", 1000, "ns", 2.3, "at most 2.3 ns per object (limit 2.01)"),
    ("Mul_mama_64f", "6x6", 1000, "ns", 9.9, "at most 9.9 ns per object (limit 8.62)"),
    ("Transform_m4v3a_32f", None, 1000, "ns", 0.40, "at most 0.40 ns per point"),
    ("Transform_m4v3a_32f", None, 1000000, "ns", 0.70, "at most 0.70 ns per point (limit 0.68)"),
    ("Transpose_32f", "1024x1024", None, "copy", 0.8, "within 20 % of the copy bandwidth"),
    ("Transpose_32f", "4096x4096", None, "copy", 0.8, "within 20 % of the copy bandwidth"),
    ("CopyAoS_32f", None, None, "copy", 0.8, "within 20 % of the copy bandwidth"),
]

# Why a row misses its target, measured: (operation, shape, count) -> text, with {row:NAME} replaced
# by the median ns of row NAME of the same run, {gbs:NAME} by its GB/s and {cv:NAME} by the spread
# of its repetitions. A row that misses and has
# no entry here says so in the report.
REASONS = {
    ("Mul_mama_64f", "6x6", 1000):
        "the 216 multiply-adds of one 6x6 double product take at least 54 four-lane fused multiply-adds "
        "in this AVX2 build, and 54 independent ones take {row:BM_fmaBound_Mul_64f/6x6} ns on this machine "
        "(`BM_fmaBound_Mul_64f`): more than 0.67 x the best peer's time before any load or store. The "
        "contract fixes every element's chain of fused operations, so the arithmetic cannot shrink.",
    ("Mul_mama_32f", "3x3", 1000, "ns"):
        "per object the kernel takes 7 loads, 4 stores, 3 permutations and 6 fused operations (rows 0 and 1 "
        "of the result in one 256-bit register, row 2 in a 128-bit one), 26 instructions with the object "
        "walk; measured alone at quiet moments it ran 1.37 to 1.46 ns per object (2026-11-26, second "
        "session), and this run's spread is {cv:BM_omkm_Mul_mama_32f/3x3/1000/threads:1}. Pairing two "
        "objects' last rows in one register (9 fused operations per pair instead of 12) and spreading row "
        "2's multipliers from one load by permutations were both measured no faster (2026-11-26).",
    ("Mul_mama_32f", "6x6", 1000):
        "not reached. Each result row fills 6 of a register's 8 float lanes, and the chain order fixed for "
        "every element makes a row 6 fused operations: 36 per object, {fma:36} ns at this run's rate "
        "(`BM_fmaBound_Mul_64f`), before the 36 multipliers, each one element of A spread over a row. "
        "Spread by broadcast loads (the kernel: 42 loads and 6 stores per object) they meet this machine's "
        "two loads per cycle; spread by permutations they share the fused operations' ports (measured "
        "2026-11-26: 5 fused operations and 5 permutations interleaved take 1.8x the time of the 5 fused "
        "operations alone). Spreading one to three of A's rows from registers was measured slower (9.1 to "
        "9.4 ns against 8.1 ns in one harness, 2026-11-26); objects side by side in lanes would fill all 8 "
        "lanes (27 fused operations) but move the 108 elements of the three matrices through register "
        "transposes, about 40 shuffles per object.",
    ("Mul_mama_64f", "3x3", 1000, "ns"):
        "per object the kernel takes 6 loads, 4 stores, 9 permutations and 9 fused operations; measured "
        "alone at quiet moments it ran 2.08 to 2.19 ns per object (2026-11-26, second session), and this "
        "run's spread is {cv:BM_omkm_Mul_mama_64f/3x3/1000/threads:1}.",
    ("Mul_mama_64f", "6x6", 1000, "ns"):
        "not reached. The 216 multiply-adds are at least 54 four-lane fused multiply-adds, which alone take "
        "{row:BM_fmaBound_Mul_64f/6x6} ns (`BM_fmaBound_Mul_64f`), and the target is within 10 % of that. "
        "The kernel adds per object 36 broadcasts of A's elements, 12 loads of B's rows and 12 stores "
        "(60 memory operations, at this machine's two per cycle about as long as the fused operations "
        "again) and 18 blends that pair two rows' multipliers for the last two columns.",
    ("Transform_m4v3a_32f", "", 1000, "ns"):
        "eight points take 3 loads, 6 blends and 3 permutations to gather x, y and z, 12 fused operations, "
        "8 unpacks and 4 stores: 36 instructions, 4.5 per point. Measured alone at quiet moments the row "
        "ran 0.36 to 0.45 ns per point (2026-11-26); this run's spread is "
        "{cv:BM_omkm_Transform_m4v3a_32f/1000}.",
    ("LUSolve_32f", "4x4", 1000):
        "not reached. The object's own arithmetic, 8 floats or 4 doubles side by side, takes {row:BM_floor_LUSolve_32f/4x4/1000} ns per object (`BM_floor_*`); the rest is data movement that the lanes need and the floor does not count. The lane decomposition alone executes 807 instructions per block of 8 objects in this build (counted in its disassembly): the row transposes into and out of the lanes, the row exchanges under lane masks (each candidate row's 4 elements and its index, both ways), and the scalar addressing of each lane's pivot rows; the solve then gathers the factor's rows and the right-hand sides in each lane's pivot order. Two blocks at once, which nearly halved QR's time, was measured no faster here (2026-11-26): this kernel is bound by its instruction count, not by latency. Gathering the right-hand sides in registers instead of through memory was measured slower.",
    ("LUSolve_32f", "6x6", 1000):
        "not reached. The object's own arithmetic, 8 floats or 4 doubles side by side, takes {row:BM_floor_LUSolve_32f/6x6/1000} ns per object (`BM_floor_*`); the rest is data movement that the lanes need and the floor does not count. The lane decomposition alone executes 2035 instructions per block of 8 objects in this build (counted in its disassembly): the row transposes into and out of the lanes, the row exchanges under lane masks (each candidate row's 6 elements and its index, both ways), and the scalar addressing of each lane's pivot rows; the solve then gathers the factor's rows and the right-hand sides in each lane's pivot order. Two blocks at once, which nearly halved QR's time, was measured no faster here (2026-11-26): this kernel is bound by its instruction count, not by latency. Gathering the right-hand sides in registers instead of through memory was measured slower.",
    ("LUSolve_64f", "4x4", 1000):
        "not reached. The object's own arithmetic, 8 floats or 4 doubles side by side, takes {row:BM_floor_LUSolve_64f/4x4/1000} ns per object (`BM_floor_*`); the rest is data movement that the lanes need and the floor does not count. The lane decomposition alone executes 659 instructions per block of 4 objects in this build (counted in its disassembly): the row transposes into and out of the lanes, the row exchanges under lane masks (each candidate row's 4 elements and its index, both ways), and the scalar addressing of each lane's pivot rows; the solve then gathers the factor's rows and the right-hand sides in each lane's pivot order. Two blocks at once, which nearly halved QR's time, was measured no faster here (2026-11-26): this kernel is bound by its instruction count, not by latency. Gathering the right-hand sides in registers instead of through memory was measured slower.",
    ("LUSolve_64f", "6x6", 1000):
        "not reached. The object's own arithmetic, 8 floats or 4 doubles side by side, takes {row:BM_floor_LUSolve_64f/6x6/1000} ns per object (`BM_floor_*`); the rest is data movement that the lanes need and the floor does not count. The lane decomposition alone executes 1635 instructions per block of 4 objects in this build (counted in its disassembly): the row transposes into and out of the lanes, the row exchanges under lane masks (each candidate row's 6 elements and its index, both ways), and the scalar addressing of each lane's pivot rows; the solve then gathers the factor's rows and the right-hand sides in each lane's pivot order. Two blocks at once, which nearly halved QR's time, was measured no faster here (2026-11-26): this kernel is bound by its instruction count, not by latency. Gathering the right-hand sides in registers instead of through memory was measured slower.",
    ("QRSolve_64f", "4x4", 1000):
        "missed in this run only through the machine's own swings: its spread over the repetitions is "
        "{cv:BM_omkm_QRSolve_64f/4x4/1000/threads:1}, and in alternating runs of the same binary at a "
        "quiet moment (2026-11-26, minimum of 9 repetitions) the row took 18.3 ns, with the QR of two "
        "blocks at once. On this 2-processor virtual machine every row moves by up to 1.6x between "
        "minutes; the FMA-bound row `BM_fmaBound_Mul_64f` moves with it.",
    ("Cholesky_64f", "4x4", 1000):
        "not reached. The divider alone takes {row:BM_floor_Cholesky_64f/4x4/1000} ns per object: the "
        "contract fixes a correctly rounded square root and a true division for each diagonal element, "
        "4 of each per object. Around that chain the lanes add the transposes of the 10 lower-triangle "
        "elements in and out; two blocks at once, so that one block's roots overlap the other's, took "
        "the row from 6.6 to 6.3 ns in an A/B run (2026-11-26).",
    ("Cholesky_64f", "6x6", 1000):
        "not reached. The divider alone takes {row:BM_floor_Cholesky_64f/6x6/1000} ns per object (6 "
        "correctly rounded roots and 6 divisions, fixed by the contract), and the 21 lower-triangle "
        "elements go through lane transposes in and out; two blocks at once was measured no faster at "
        "this order (2026-11-26), the two blocks' triangles no longer fitting the registers.",
    ("EigenSym_32f", "3x3", 1000):
        "the method is fixed (Householder tridiagonalisation, then shifted QL/QR sweeps, vectors "
        "accumulated), where Eigen's closed form solves the characteristic cubic. The matrices run 8 "
        "side by side in vector lanes, and each lane waits for the slowest matrix of its block. Against "
        "Eigen's iterative solver of the same kind ({row:BM_eigen_EigenSym_32f/3x3/1000} ns) omkm takes "
        "{ratio:BM_eigen_EigenSym_32f/3x3/1000}.",
    ("EigenSym_64f", "3x3", 1000):
        "as for 32f, with 4 doubles per vector. Against Eigen's iterative solver "
        "({row:BM_eigen_EigenSym_64f/3x3/1000} ns) omkm takes {ratio:BM_eigen_EigenSym_64f/3x3/1000}. "
        "Eight doubles per step in two vectors were measured slower (2026-11-25: 159 ns against 121 ns "
        "per matrix), because the state of eight lanes no longer fits the registers.",
    ("Add_mama_32f", "", 1000000):
        "every implementation of this work stays below it: the plain loop over the same arrays reaches "
        "{gbs:BM_plain_Add_mama_32f/1000000} GB/s and Eigen {gbs:BM_eigen_Add_mama_32f/1000000} GB/s, "
        "against the STREAM-like add's {gbs:BM_stream_add_64f/8388608/threads:1} GB/s over one array of "
        "the same size; omkm is level with them (see the table above).",
    ("Add_vava_64f", "", 1000000):
        "as for Add_mama_32f: the plain loop reaches {gbs:BM_plain_Add_vava_64f/1000000} GB/s and Eigen "
        "{gbs:BM_eigen_Add_vava_64f/1000000} GB/s on the same arrays.",
    ("Saxpy_vava_32f", "16", 1000000):
        "as for Add_mama_32f: the plain loop reaches {gbs:BM_plain_Saxpy_vava_32f/16/1000000} GB/s and "
        "Eigen {gbs:BM_eigen_Saxpy_vava_32f/16/1000000} GB/s on the same arrays, and this row's figure "
        "moves by 10 % between runs on this machine with all three (it met its target in another run "
        "the same day).",
    ("CopyAoS_32f", "", 1000000):
        "the target counts 64 bytes read per object, but the records are 96 bytes and memory delivers "
        "whole lines, so each object moves 96 bytes in and 64 out: {traffic:160}. A memcpy of the whole "
        "records takes {row:BM_memcpy_CopyAoS_32f/1000000} ns per record.",
    ("Dot_vava_32f", "", 1000):
        "the gap, {percall} ns per call of 1,000 objects, is the call's fixed cost (the checks and the "
        "kernel choice; a checked call that fails its first check costs 4.5 ns alone, see the single-object "
        "calls below); from 1,000,000 objects on the row is level.",
    ("L2Norm_va_32f", "", 1000):
        "as for Dot_vava_32f: {percall} ns per call of 1,000 objects, the call's fixed cost.",
    ("Mul_mama_64f", "4x4", 1000):
        "not reached: the 64 multiply-adds of one 4x4 double product take at least 16 four-lane fused "
        "multiply-adds, {fma:16} ns at this run's rate (`BM_fmaBound_Mul_64f`), and the kernel adds the "
        "16 broadcasts of the left operand's elements and the row loads and stores.",
    ("Transpose_32f", "4096x4096", 1):
        "not reached. The bands of 64 source rows that the contract fixes write each destination row 256 "
        "bytes at a time, 4,096 rows 16 KiB apart per band, with non-temporal stores. Variants of the band "
        "kernel measured on this machine (2026-11-25, 7.0 ms for the kept one) were all slower: ordinary "
        "stores 10.6 ms, whole 64-byte lines of non-temporal stores per destination row 7.5 to 7.9 ms, "
        "software prefetch of the source rows 7.4 to 7.5 ms.",
}

# A row within this factor above a target of 1 or more (no slower than a peer, a share of a
# bandwidth) is level with it: the spread of repeated runs of these memory- and loop-bound rows.
LEVEL = 1.05


def targets_of(w):
    """Every target that applies to the workload, in the table's order."""
    s = w.sample
    return [(test, value, words) for op, shape, count, test, value, words in TARGETS
            if op == s.op and (shape is None or shape == s.shape) and (count is None or count == s.count)]


def bandwidth(row):
    return None if row is None or not row.bytes_per_second else row.bytes_per_second / 1e9


def targets_table(workloads, rows):
    """Every fixed-count workload against its family's target, with the measured reason of a miss."""
    by_name = {r.name: r for r in rows}

    def stream_gbs():
        return bandwidth(by_name.get("BM_stream_add_64f/8388608/threads:1"))

    def copy_gbs():
        return bandwidth(by_name.get("BM_memcpy_copy/256MiB"))

    def fill(text, one, w):
        def row_ns(m):
            r = by_name.get(m.group(1))
            return fmt_ns(r.ns) if r and r.ns is not None else "?"

        def ratio(m):
            r = by_name.get(m.group(1))
            return f"{one.ns / r.ns:.2f}" if r and r.ns and one and one.ns else "?"

        peer = w.best_peer() if w else None
        if peer is not None and one and one.ns is not None and peer.ns is not None:
            text = text.replace("{percall}", f"{(one.ns - peer.ns) * (w.sample.count or 1):.0f}")
        bound = by_name.get("BM_fmaBound_Mul_64f/6x6")
        text = re.sub(r"\{fma:(\d+)\}", lambda m: f"{bound.ns * int(m.group(1)) / 54:.2f}" if bound and bound.ns else "?",
                      text)
        if one and one.ns and copy_gbs():
            text = re.sub(r"\{traffic:(\d+)\}", lambda m: f"{int(m.group(1)) / one.ns:.1f} GB/s, "
                          f"{100 * int(m.group(1)) / one.ns / copy_gbs():.0f} % of memcpy", text)
        text = re.sub(r"\{row:([^}]+)\}", row_ns, text)
        text = re.sub(r"\{cv:([^}]+)\}", lambda m: f"{100 * (by_name[m.group(1)].cv or 0):.0f} %"
                      if m.group(1) in by_name else "?", text)
        text = re.sub(r"\{gbs:([^}]+)\}", lambda m: f"{bandwidth(by_name.get(m.group(1))) or 0:.1f}", text)
        return re.sub(r"\{ratio:([^}]+)\}", ratio, text)

    lines = ["## Targets", "",
             "Each family's target for its rows, judged on the figures above (omkm on one thread). *measured* is "
             "the ratio to the best peer (or to the plain loop, the STREAM-like add or memcpy, as the target "
             f"says). A row within {100 * (LEVEL - 1):.0f} % of a target of parity or of a bandwidth share is "
             "level with it (the spread of repeated runs of such rows); a row that misses carries the measured "
             "reason.", "",
             "| workload | objects | target | measured | verdict |", "|---|---:|---|---|---|"]
    misses = []
    for w, (test, value, words) in ((w, t) for w in sorted(workloads, key=workload_order) for t in targets_of(w)):
        one = w.omkm_one()
        if one is None or one.ns is None:
            continue
        ok, measured, r, share = None, "–", None, None
        if test in ("peer", "peer-or-memory", "plain"):
            ref = w.family_best("plain") if test == "plain" else w.best_peer()
            if ref is not None:
                r = one.ns / ref.ns
                ok = r <= value
                measured = f"{r:.2f} x {ref.label()}"
                out_of_cache = (w.sample.count or 0) >= 1000000
                if not ok and test == "peer-or-memory" and out_of_cache and bandwidth(one) and stream_gbs():
                    share = bandwidth(one) / stream_gbs()
                    measured += f"; {bandwidth(one):.1f} GB/s, {100 * share:.0f} % of the STREAM-like add"
                    ok = share >= 0.9
        elif test in ("stream", "copy"):
            ref = stream_gbs() if test == "stream" else copy_gbs()
            if bandwidth(one) and ref:
                share = bandwidth(one) / ref
                ok = share >= value
                measured = f"{bandwidth(one):.1f} GB/s, {100 * share:.0f} % of {'the STREAM-like add' if test == 'stream' else 'memcpy'}"
        elif test == "ns":
            ok = one.ns <= value
            measured = f"{fmt_ns(one.ns)} ns"
        if ok is False and value >= 1.0 and test in ("peer", "peer-or-memory", "plain") and r <= value * LEVEL:
            ok, verdict = True, f"level (within {100 * (LEVEL - 1):.0f} %)"
        elif ok is False and test in ("stream", "copy") and share * LEVEL >= value:
            ok, verdict = True, f"level (within {100 * (LEVEL - 1):.0f} %)"
        else:
            verdict = "–" if ok is None else "met" if ok else "**missed**"
        lines.append(f"| {workload_title(w)} | {fmt_count(w.sample.count)} | {words} | {measured} | {verdict} |")
        if ok is False:
            key = (w.sample.op, w.sample.shape, w.sample.count)
            reason = REASONS.get(key + (test,), REASONS.get(key))
            n = w.sample.count
            misses.append(f"{workload_title(w)}, {fmt_count(n)} object{'' if n == 1 else 's'}: " +
                          (fill(reason, one, w) if reason else "no measured reason recorded yet."))
    lines.append("")
    if misses:
        lines += ["Rows that miss their target, and why:", ""] + [f"- {m}" for m in misses] + [""]
    return lines


# ---- report pieces ----

def summary_table(workloads, default_threads):
    """The main table, one line per workload, one section per kind of operation."""
    lines = []
    by_section = {}
    for w in sorted(workloads, key=workload_order):
        by_section.setdefault(section_of(w.sample.op)[0], []).append(w)
    for idx in sorted(by_section):
        ws = by_section[idx]
        title = SECTIONS[idx][0] if idx < len(SECTIONS) else "Other"
        families = [f for f, _ in FAMILIES if any(w.family_best(f) for w in ws)]
        lines += [f"### {title}", ""]
        ops = []
        for w in ws:
            if w.sample.op not in ops:
                ops.append(w.sample.op)
        lines += [f"- `{op}`: {DESCRIPTIONS[op]}" for op in ops if op in DESCRIPTIONS] + [""]
        head = ["workload", "objects", "omkm, 1 thread", f"omkm, default budget ({default_threads})"]
        head += [FAMILY_NAME[f] for f in families] + ["best peer", "omkm 1 thread / best", "omkm default / best"]
        lines.append("| " + " | ".join(head) + " |")
        lines.append("|" + "|".join(["---", "---:"] + ["---:"] * (len(head) - 2)) + "|")
        notes = []
        for w in ws:
            one, dflt, peer = w.omkm_one(), w.omkm_default(), w.best_peer()
            cells = [workload_title(w), fmt_count(w.sample.count)]
            c = fmt_ns(one.ns) if one else "–"
            if one and one.variant and one.variant != "array call":
                c += f" ({one.variant.split(',')[-1].strip()})"
            cells += [c, fmt_ns(dflt.ns) if dflt else "–"]
            for f in families:
                r = w.family_best(f)
                cells.append("–" if r is None else fmt_ns(r.ns) + (f" ({r.tag})" if r.tag else ""))
            cells.append(peer.label() if peer else "none")
            cells += [fmt_ratio(w.ratio(one)), fmt_ratio(w.ratio(dflt))]
            lines.append("| " + " | ".join(cells) + " |")
            for ref in w.refs:
                if ref.who == "floor":
                    notes.append(f"{workload_title(w)}, {fmt_count(w.sample.count)} objects: the arithmetic floor "
                                 f"(the object's own fused multiply-adds, divisions and roots, 8 floats or 4 "
                                 f"doubles side by side, nothing else) takes {fmt_ns(ref.ns)} ns per object; omkm "
                                 f"on 1 thread takes {fmt_ratio(one.ns / ref.ns if one and one.ns else None)} times that.")
                    continue
                notes.append(f"{workload_title(w)}, {fmt_count(w.sample.count)} objects: the STREAM-like add over "
                             f"the same arrays takes {fmt_ns(ref.ns)} ns per object on {int(ref.threads or 1)} "
                             f"thread(s), the memory or cache limit of this product.")
        lines.append("")
        lines += [f"- {n}" for n in notes]
        if notes:
            lines.append("")
    return lines


def sweep_groups(rows):
    sweeps = {}
    for r in rows:
        if r.sweep and r.count is not None:
            sweeps.setdefault("/".join([r.op] + r.args[:-1]), []).append(r)
    return sweeps


def series_name(r):
    if r.kind == "omkm":
        return "omkm, 1 thread" if r.budget == "1" else f"omkm, default budget" if r.budget == "default" else r.label()
    return r.label()


def series_order(name):
    """omkm first, then the peers in the order of FAMILIES, variants after their family."""
    if name.startswith("omkm"):
        return (0, 0, name)
    for i, (_, fam) in enumerate(FAMILIES):
        if name == fam or name.startswith(fam + " ("):
            return (1, i, name)
    return (2, 0, name)


def sweep_table(key, rows, default_threads):
    counts = sorted({r.count for r in rows})
    series = {}
    for r in rows:
        series.setdefault(series_name(r), {})[r.count] = r
    order = sorted(series, key=series_order)
    lines = ["| implementation | " + " | ".join(fmt_count(c) for c in counts) + " |",
             "|---|" + "---:|" * len(counts)]
    for s in order:
        name = s.replace("default budget", f"default budget ({default_threads})")
        lines.append(f"| {name} | " + " | ".join(fmt_ns(series[s][c].ns) if c in series[s] else "–" for c in counts) + " |")
    peers = [s for s in order if not s.startswith("omkm")]
    best = {}
    for c in counts:
        cand = [series[s][c] for s in peers if c in series[s] and series[s][c].ns is not None]
        best[c] = min(cand, key=lambda r: r.ns) if cand else None
    lines.append("| best peer | " + " | ".join(best[c].label() if best[c] else "–" for c in counts) + " |")
    ratios = {}
    for s in order:
        if not s.startswith("omkm"):
            continue
        vals = []
        for c in counts:
            r = series[s].get(c)
            v = r.ns / best[c].ns if r and r.ns is not None and best[c] else None
            ratios.setdefault(s, {})[c] = v
            vals.append(fmt_ratio(v))
        lines.append(f"| {s} / best peer | " + " | ".join(vals) + " |")
    return lines, ratios, counts


STYLE = {
    "omkm, 1 thread": dict(color="#c0392b", linestyle="-", marker="o", linewidth=2.2),
    "omkm, default budget": dict(color="#e67e22", linestyle="--", marker="o", linewidth=2.2),
    "plain loop": dict(color="#7f8c8d", linestyle="-", marker="s"),
    "Eigen": dict(color="#2471a3", linestyle="-", marker="^"),
    "Eigen (computeDirect)": dict(color="#5dade2", linestyle=":", marker="^"),
    "glm": dict(color="#229954", linestyle="-", marker="D"),
    "libxsmm": dict(color="#8e44ad", linestyle="-", marker="v"),
    "LAPACKE": dict(color="#34495e", linestyle="-.", marker="x"),
}


def plot_sweep(key, rows, path, default_threads):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    from matplotlib.ticker import FixedLocator, FixedFormatter, NullLocator

    series = {}
    for r in rows:
        if r.ns is not None:
            series.setdefault(series_name(r), []).append((r.count, r.ns))
    fig, ax = plt.subplots(figsize=(6.4, 4.2), dpi=100)
    for s in sorted(series, key=series_order):
        pts = sorted(series[s])
        style = dict(STYLE.get(s, dict(marker=".")))
        label = s.replace("default budget", f"default budget ({default_threads})")
        ax.plot([p[0] for p in pts], [p[1] for p in pts], label=label, markersize=4, **style)
    counts = sorted({r.count for r in rows})
    ax.set_xscale("log")
    ax.set_yscale("log")
    ax.xaxis.set_major_locator(FixedLocator(counts))
    ax.xaxis.set_major_formatter(FixedFormatter([f"{c:,}" if c < 1000000 else "1e6" for c in counts]))
    ax.xaxis.set_minor_locator(NullLocator())
    ax.set_xlabel("objects per call")
    ax.set_ylabel("ns per object (median of repetitions)")
    ax.set_title(SWEEP_TITLES.get(key, key), fontsize=10)
    ax.grid(True, which="both", linewidth=0.4, alpha=0.5)
    ax.legend(fontsize=7, loc="best", framealpha=0.85)
    fig.tight_layout()
    fig.savefig(path, dpi=100)
    plt.close(fig)


def ranges(counts):
    return ", ".join(fmt_count(c) for c in counts) if counts else "no count"


def leads_and_trails(workloads, sweeps_ratios):
    """Per section: how many workloads omkm (one thread) leads, matches and trails, its largest lead,
    then every workload it trails, then each sweep's counts on either side."""
    judged = []
    for w in sorted(workloads, key=workload_order):
        one, dflt, peer = w.omkm_one(), w.omkm_default(), w.best_peer()
        r = w.ratio(one)
        if r is not None:
            judged.append((w, r, w.ratio(dflt), one, peer))

    def describe(w, r, rd, one, peer):
        n = w.sample.count
        extra = f"; default budget {rd:.2f}" if rd is not None else ""
        spread = max((x.cv for x in (one, peer) if x.cv is not None), default=None)
        if spread is not None and spread > NOISY:
            extra += f"; spread up to {100 * spread:.0f} %, not a firm figure"
        return (f"{workload_title(w)}, {fmt_count(n)} object{'' if n == 1 else 's'}: {r:.2f} "
                f"({fmt_ns(one.ns)} ns against {fmt_ns(peer.ns)} ns, {peer.label()}{extra})")

    lead = [j for j in judged if j[1] <= LEAD]
    trail = [j for j in judged if j[1] >= TRAIL]
    lines = ["## Where omkm leads and where it trails", "",
             f"Computed from the ratios above: omkm on one thread over the fastest peer; at most {LEAD} omkm "
             f"leads, at least {TRAIL} it trails, in between the two are level. Of {len(judged)} workloads with a "
             f"peer, omkm leads in {len(lead)}, is level in {len(judged) - len(lead) - len(trail)} and trails in "
             f"{len(trail)}.", ""]
    by_section = {}
    for j in judged:
        by_section.setdefault(section_of(j[0].sample.op)[0], []).append(j)
    for idx in sorted(by_section):
        js = by_section[idx]
        title = SECTIONS[idx][0] if idx < len(SECTIONS) else "Other"
        nl = sum(1 for j in js if j[1] <= LEAD)
        nt = sum(1 for j in js if j[1] >= TRAIL)
        best = min(js, key=lambda j: j[1])
        text = f"- **{title}**: leads in {nl} of {len(js)}, level in {len(js) - nl - nt}, trails in {nt}"
        if best[1] <= LEAD:
            text += f"; largest lead {describe(*best)}"
        lines.append(text + ".")
    lines += ["", f"Every workload where omkm trails ({len(trail)}):", ""]
    lines += [f"- {describe(*j)}" for j in sorted(trail, key=lambda j: -j[1])] or ["- none"]
    lines.append("")
    if sweeps_ratios:
        lines += ["Count sweeps (ratio to the fastest peer at each count):", ""]
        for key, (ratios, counts) in sweeps_ratios.items():
            pieces = []
            for name, byc in ratios.items():
                vals = {c: byc[c] for c in counts if byc.get(c) is not None}
                if not vals:
                    continue
                led = [c for c in vals if vals[c] <= LEAD]
                trailed = [c for c in vals if vals[c] >= TRAIL]
                pieces.append(f"{name} {min(vals.values()):.2f} to {max(vals.values()):.2f}, leads at "
                             f"{ranges(led)}, trails at {ranges(trailed)}")
            lines.append(f"- {SWEEP_TITLES.get(key, key)}: " + "; ".join(pieces) + ".")
        lines.append("")
    return lines


def all_rows_table(rows, default_threads):
    lines = ["| row | ns per object (median) | spread (CV) | threads | budget |", "|---|---:|---:|---:|---|"]
    for r in sorted(rows, key=lambda r: r.name):
        if r.error:
            lines.append(f"| `{r.name}` | error: {r.error} | | | |")
            continue
        t = "–" if r.threads is None else f"{r.threads:g}"
        lines.append(f"| `{r.name}` | {fmt_ns(r.ns)} | {fmt_cv(r.cv)} | {t} | {r.budget_label(default_threads)} |")
    return lines


def sweep_min_times(rows):
    by_time = {}
    for r in rows:
        if r.sweep and r.min_time is not None and r.count is not None:
            by_time.setdefault(r.min_time, set()).add(r.count)
    if not by_time:
        return ""
    pieces = [f"{t:g} s for {fmt_count(min(c))} to {fmt_count(max(c))} objects" for t, c in sorted(
        by_time.items(), key=lambda kv: min(kv[1]))]
    return (" Count-sweep rows set their own minimum: " + ", ".join(pieces) +
            "; a row whose single call takes longer runs one iteration per repetition.")


def wait_note(data):
    w = data.get("report_wait")
    if not w:
        return ""
    if w["idle"]:
        return f" (after waiting {w['minutes']:.1f} min for load below 1.0 and no compiler running)"
    return f" (the machine was still busy after waiting {w['minutes']:.1f} min)"


def write_report(data, args, machine, software, start_load):
    rows = parse(data)
    ctx = data.get("context", {})
    default_threads = ctx.get("omkm_threads_default", "?")
    errors = [r for r in rows if r.error]
    fixed = [r for r in rows if not r.sweep]
    workloads = list(group(fixed).values())
    sweeps = sweep_groups([r for r in rows if not r.error])
    docs = args.docs

    date = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")
    kind = "virtual machine" if machine["virtual"] else "machine"
    cores = machine["cores"]
    minutes = data.get("report_seconds", 0) / 60
    lines = [
        "# omkm benchmarks",
        "",
        f"Generated by `bench/report.sh` (`tools/bench_report.py`) on {date}; rerun it to refresh this page "
        "and its plots. Every number below is computed from one run of `omkm_bench`.",
        "",
        f"**The figures come from one {cores}-core {kind}, so they show ratios, not absolute speed on other "
        "machines.** Compare implementations within a row; do not carry the nanoseconds elsewhere.",
        "",
        "## Machine and software",
        "",
        "| | |",
        "|---|---|",
        f"| CPU | {machine['cpu']} ({cores} cores{', virtual machine' if machine['virtual'] else ''}"
        f"{', AVX-512 present' if machine['avx512'] else ''}) |",
        f"| clock (as Google Benchmark reads it) | {ctx.get('mhz_per_cpu', '?')} MHz, frequency scaling "
        f"{'on' if ctx.get('cpu_scaling_enabled') else 'off'} |",
        f"| memory | {machine['memory_gib']:.1f} GiB |",
        f"| kernel | Linux {machine['kernel']} |",
        f"| load average at start (1, 5, 15 min) | {', '.join(f'{x:.2f}' for x in start_load)}{wait_note(data)} |",
        f"| compiler | {software['compiler']} |",
        f"| build | {software['build_type']}, `{software['flags']}` (library and benchmarks) |",
        f"| omkm | {software['omkm']}" + (f" (commit {software['commit']})" if software['commit'] else "") + " |",
    ]
    for pkg, ver in software["packages"]:
        lines.append(f"| {pkg} | {ver} |")
    if ctx.get("library_build_type"):
        lines.append(f"| Google Benchmark library build | {ctx['library_build_type']} (the timing harness only) |")
    if software["linked"]:
        lines.append("| linked | " + ", ".join(f"`{os.path.basename(p)}`" for p in software["linked"]) + " |")
    lines += [
        f"| run | `{data.get('report_command', '')}` |",
        f"| run time | {minutes:.1f} min |",
        f"| measured | {ctx.get('date', date)} |",
        "",
        "## Method",
        "",
        f"- Every row runs {args.repetitions} times (repetitions in random order across all rows); the tables "
        "give the median. Times are wall-clock (the library may run an OpenMP team).",
        "- ns per object is the `time_per_obj` counter: wall time of one call over the whole array divided by "
        "the number of objects (for `Transpose_32f`, per matrix).",
        f"- omkm runs with a thread budget of 1 (`omkSetNumThreads(1)`, column *omkm, 1 thread*) and, where the "
        f"row exists, with the library's default budget (the OpenMP maximum, {default_threads} here). Below its "
        "work limits an array call runs on the calling thread under either budget. *omkm, 1 thread* is the "
        "fastest one-thread omkm row of the workload; when that is a per-object entry point, its name follows "
        "the time.",
        "- Peers run on the calling thread: a plain loop written as a user would (compiled with the library's "
        "flags), Eigen fixed-size types over mapped memory, glm, a libxsmm JIT kernel per object, LAPACKE per "
        "object. *best peer* is the fastest of them; the ratio omkm / best peer is below 1 where omkm is faster.",
        "- Every row checks its results once before timing (bit for bit, or against a double-precision "
        "reference); a row that fails is reported as an error and not timed.",
        f"- Fixed-count rows: at least {args.min_time} s per repetition.{sweep_min_times(rows)}",
        "",
    ]
    if errors:
        lines += ["## Rows that failed", ""] + [f"- `{r.name}`: {r.error}" for r in errors] + [""]

    lines += ["## Ratios per workload", "",
              "ns per object, median; the last two columns are omkm / best peer.", ""]
    lines += summary_table(workloads, default_threads)

    sweep_ratios = {}
    if sweeps:
        lines += ["## Time per object against the number of objects", "",
                  "Each plot and table sweeps one workload over 1 to 1,000,000 objects per call "
                  "(rows `BM_*_*Sweep_*`). Log-log; lower is faster.", ""]
        order = [k for k in SWEEP_TITLES if k in sweeps] + sorted(k for k in sweeps if k not in SWEEP_TITLES)
        for key in order:
            fname = "sweep_" + re.sub(r"[^a-z0-9]+", "_", key.lower().replace("sweep", "")).strip("_") + ".png"
            plot_sweep(key, sweeps[key], os.path.join(docs, fname), default_threads)
            table, ratios, counts = sweep_table(key, sweeps[key], default_threads)
            sweep_ratios[key] = (ratios, counts)
            lines += [f"### {SWEEP_TITLES.get(key, key)}", "", f"![{key}]({fname})", "", "ns per object:", ""]
            lines += table + [""]

    refs = [r for r in rows if r.kind == "reference" and not r.error and r.op != "Mul_mama_32f" and r.who != "floor"]
    if refs:
        lines += ["## Memory bandwidth in the same run", "", "| row | GB/s |", "|---|---:|"]
        for r in sorted(refs, key=lambda r: r.name):
            gbs = "–" if r.bytes_per_second is None else f"{r.bytes_per_second / 1e9:.1f}"
            lines.append(f"| `{r.name}` | {gbs} |")
        lines.append("")

    lines += leads_and_trails(workloads, sweep_ratios)
    lines += targets_table(workloads, rows)

    driver_page = os.path.join(docs, "parallel_driver.md")
    if os.path.exists(driver_page):
        with open(driver_page, encoding="utf-8") as f:
            page = f.read().splitlines()
        table = [ln for ln in page[next((i for i, ln in enumerate(page) if ln.startswith("| runtime")), len(page)):]]
        table = table[:next((i for i, ln in enumerate(table) if not ln.startswith("|")), len(table))]
        crossings = [ln for ln in page if ln.startswith("| **crossover**")]
        lines += ["## The parallel driver's fixed cost", "",
                  "From [parallel_driver.md](parallel_driver.md), which has the definitions and the crossover "
                  "tables: the cost of a parallel call just above its serial limit beyond its work split in "
                  "half, against an empty parallel region of each OpenMP runtime.", ""] + table + [""]
        if crossings:
            lines += ["Crossover (objects from which a budget of 2 beats a budget of 1): packed 4x4 Add "
                      + crossings[0].replace("| **crossover** |", "").replace("|", " ").strip()
                      + (("; Mul " + crossings[1].replace("| **crossover** |", "").replace("|", " ").strip())
                         if len(crossings) > 1 else "") + " (one figure per runtime, in the order of the table).", ""]
        start = next((i for i, ln in enumerate(page) if ln == "## Single-object calls"), None)
        if start is not None:
            lines += ["## Single-object calls", ""] + page[start + 1:] + [""]

    lines += contention_section(docs)

    if os.path.exists(os.path.join(docs, "python_numpy.md")):
        lines += ["## The Python binding against numpy", "",
                  "[python_numpy.md](python_numpy.md): `omkm.matmul`, `inv`, `solve`, `cholesky`, `det` and `eigh` "
                  "against numpy on stacks of 1 to 100,000 3x3, 4x4 and 6x6 matrices, in both element types.", ""]

    lines += ["## Every row", "", "<details><summary>Median, spread and thread count of every row</summary>", ""]
    lines += all_rows_table(rows, default_threads)
    lines += ["", "</details>", ""]

    with open(os.path.join(docs, "benchmarks.md"), "w", encoding="utf-8") as f:
        f.write("\n".join(lines))
    return errors


def contention_section(docs):
    """The summary and the per-runtime tables of docs/contention.md (tools/contention_report.py), without
    its tables of the runtimes' own settings."""
    path = os.path.join(docs, "contention.md")
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8") as f:
        page = f.read().splitlines()
    kept, keep = [], False
    for ln in page:
        if ln.startswith("## ") or ln.startswith("### "):
            keep = ln.startswith("## ")
            if keep and ln != "## Summary":
                kept += ["### " + ln[3:], ""]
            continue
        if keep and ln:
            kept.append(ln)
        elif keep and kept and kept[-1]:
            kept.append("")
    return ["## Parallel calls on a busy machine", "",
            "From [contention.md](contention.md), which says how each figure is taken and what a program can set "
            "itself: microseconds per call (median / 90th percentile / maximum) of array calls above their "
            "serial limits, on a budget of 1, on the former default (the processor count) and on the default, "
            "which keeps the team to the processors other processes leave free.", ""] + kept + [""]


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default=os.path.join(ROOT, "build-bench"))
    ap.add_argument("--docs", default=os.path.join(ROOT, "docs"))
    ap.add_argument("--repetitions", type=int, default=3)
    ap.add_argument("--min-time", type=float, default=0.3, help="seconds per repetition of the fixed-count rows")
    ap.add_argument("--filter", default="", help="regular expression passed as --benchmark_filter")
    ap.add_argument("--wait-idle", type=float, default=0, metavar="MINUTES")
    ap.add_argument("--from-json", default="", help="write the report from an earlier run's JSON")
    args = ap.parse_args()

    os.makedirs(args.docs, exist_ok=True)
    bench = os.path.join(args.build, "bench", "omkm_bench")
    machine = machine_info()
    software = software_info(args.build, bench)
    if args.from_json:
        with open(args.from_json, encoding="utf-8") as f:
            data = json.load(f)
        start_load = data.get("report_start_load", data.get("context", {}).get("load_avg", [0, 0, 0]))
    else:
        if not os.access(bench, os.X_OK):
            sys.exit(f"bench_report: {bench} not found; build it first (bench/report.sh does)")
        waited = time.time()
        idle = wait_idle(args.wait_idle) if args.wait_idle > 0 else None
        waited = time.time() - waited
        start_load = list(os.getloadavg())
        out_json = os.path.join(args.build, "omkm_bench_report.json")
        data = run_bench(bench, args.repetitions, args.min_time, args.filter)
        data["report_start_load"] = start_load
        data["report_wait"] = None if idle is None else {"idle": idle, "minutes": waited / 60}
        data["report_repetitions"] = args.repetitions
        data["report_min_time"] = args.min_time
        with open(out_json, "w", encoding="utf-8") as f:
            json.dump(data, f, indent=1)
        print(f"bench_report: omkm_bench ran {data['report_seconds'] / 60:.1f} min; JSON in {out_json}",
              file=sys.stderr)
    args.repetitions = data.get("report_repetitions", args.repetitions)
    args.min_time = data.get("report_min_time", args.min_time)
    errors = write_report(data, args, machine, software, start_load)
    print(f"bench_report: wrote {os.path.join(args.docs, 'benchmarks.md')}", file=sys.stderr)
    if errors:
        print(f"bench_report: {len(errors)} row(s) failed their check:", file=sys.stderr)
        for r in errors:
            print(f"  {r.name}: {r.error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
