#!/usr/bin/env bash
# Builds the benchmarks in Release (build-bench) and runs them. The per-run lines go to stderr;
# stdout gets one table: format, operation, time per operation, MB/s, vectors/s and the ratio to
# the fastest raw read of the same kind of file. Extra arguments go to the benchmark executable
# (for example --benchmark_filter=CLI). SLICEIO_BENCH_LAYERS shortens the builds.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-bench"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSLICEIO_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target sliceio_bench
"$build/sliceio_bench" --benchmark_out="$build/bench.json" --benchmark_out_format=json "$@"
