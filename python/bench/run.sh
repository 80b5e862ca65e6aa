#!/usr/bin/env bash
# Builds the library, the Python module and the benchmark's helper module in Release
# (build-pybench) and runs python/bench/bench_read.py. Arguments: the layer count (default 200).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build="$root/build-pybench"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSLICEIO_TESTS=OFF -DSLICEIO_BENCH=ON \
  -DSLICEIO_PYTHON=ON -DPython_EXECUTABLE=/usr/bin/python3 >/dev/null
cmake --build "$build" -j"$(nproc)" --target sliceio_python sliceio_python_bench
PYTHONDONTWRITEBYTECODE=1 PYTHONPATH="$build/python:$build/python/bench" /usr/bin/python3 "$root/python/bench/bench_read.py" "$@"
