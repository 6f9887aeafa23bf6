#!/usr/bin/env bash
# Configures a Release build with the benchmarks in build-bench/ (as bench/run.sh does), builds
# omkm_bench, runs python/bench_numpy.py (docs/python_numpy.md and its plots), the parallel
# driver's rows through tools/driver_report.py (docs/parallel_driver.md), omkm_contention through
# tools/contention_report.py (docs/contention.md) and then omkm_bench
# once through tools/bench_report.py, which writes docs/benchmarks.md and the count-sweep plots
# docs/sweep_*.png; the run's JSON stays in build-bench/omkm_bench_report.json.
# JOBS sets the build's parallel jobs (default 2). Extra arguments go to tools/bench_report.py, for
# example --wait-idle 20 (start only once the load is below 1.0 and no compiler runs, waiting at
# most 20 minutes) or --min-time 0.1. Needs python3-matplotlib for /usr/bin/python3.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-bench -DOMKM_BUILD_BENCH=ON -DOMKM_BUILD_TESTS=OFF -DCMAKE_BUILD_TYPE=Release
cmake --build build-bench --target omkm_bench omkm_contention _ufuncs -j"${JOBS:-2}"
# The Python binding against numpy first (docs/python_numpy.md and its plots), so that the report
# links the page of this run.
# numpy's linalg on stacks runs one OpenBLAS thread: with more, its calls on small matrices slow down
# by an order of magnitude on a busy machine (python/README.md), which would flatter omkm.
OMKM_LIBRARY=$PWD/build-bench/libomkm.so OMKM_UFUNCS=$(ls build-bench/python/omkm/_ufuncs*.so) OPENBLAS_NUM_THREADS=1 \
  /usr/bin/python3 python/bench_numpy.py --markdown docs/python_numpy.md
# The parallel driver's fixed cost (docs/parallel_driver.md) and parallel calls on a busy machine
# (docs/contention.md), with the default runtime and, when Debian's libomp-dev is installed, with
# LLVM's runtime in build-bench-llvm too.
drivers=(--build gnu=build-bench)
if ls /usr/lib/llvm-*/lib/libomp.so >/dev/null 2>&1; then
  cmake -S . -B build-bench-llvm -DOMKM_BUILD_BENCH=ON -DOMKM_BUILD_TESTS=OFF -DCMAKE_BUILD_TYPE=Release \
    -DOMKM_OPENMP_RUNTIME=llvm
  cmake --build build-bench-llvm --target omkm_bench omkm_contention -j"${JOBS:-2}"
  drivers+=(--build llvm=build-bench-llvm)
fi
/usr/bin/python3 tools/driver_report.py "${drivers[@]}" --docs docs
/usr/bin/python3 tools/contention_report.py "${drivers[@]}" --docs docs
exec /usr/bin/python3 tools/bench_report.py --build build-bench --docs docs "$@"
