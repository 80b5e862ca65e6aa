#!/usr/bin/env bash
# The main job: builds everything, then uses the `sliceio` tool on a sample build it makes itself.
set -euo pipefail
cd "$(dirname "$0")/.."
bash cmake/setup.sh
cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DSLICEIO_TESTS=OFF >/dev/null
cmake --build build-release -j"$(nproc)"
tool=build-release/sliceio
out=build-release/demo
mkdir -p "$out"
set -x
"$tool" sample "$out/sample.cli" --layers 200
"$tool" info "$out/sample.cli"
"$tool" convert "$out/sample.cli" "$out/sample_short.cli" --to 35
"$tool" info "$out/sample_short.cli" --json
"$tool" svg "$out/sample.cli" "$out/layer100.svg" --layer 100
