#!/usr/bin/env bash
# Configures a Release build with the benchmarks in build-bench/, builds omkm_bench on two jobs
# and runs it. The table goes to the terminal and the full results to build-bench/omkm_bench.json.
# Extra arguments go to omkm_bench (for example --benchmark_filter=mama).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-bench -DOMKM_BUILD_BENCH=ON -DOMKM_BUILD_TESTS=OFF -DCMAKE_BUILD_TYPE=Release
cmake --build build-bench --target omkm_bench -j2
./build-bench/bench/omkm_bench --benchmark_counters_tabular=true \
  --benchmark_out=build-bench/omkm_bench.json --benchmark_out_format=json "$@"
