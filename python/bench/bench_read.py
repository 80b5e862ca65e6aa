"""Loading the benchmarks' generated build through sliceio.read into numpy arrays, against the
library's C++ reads of the same file in the same run.

    bash python/bench/run.sh [LAYERS]       (default 200 layers of about 50,000 vectors)

Prints one table: operation, best seconds of the repeats, MB/s, vectors/s, and the ratios to
the C++ layer read (every layer into one reused slice) and to the C++ whole read (every layer
kept, in an M2DSliceStack), which is what sliceio.read does too.
"""
import os
import sys
import time

import _sliceio_bench
import sliceio


def best(run, repeats):
    return min(run() for _ in range(repeats))


def main():
    layers = int(sys.argv[1]) if len(sys.argv) > 1 else 200
    repeats = int(os.environ.get("SLICEIO_BENCH_REPEATS", "5"))
    path, size, count, vectors = _sliceio_bench.write_bench_file(layers)

    def cpp_layers():
        seconds, got = _sliceio_bench.read_layers(path)
        assert got == vectors, "the C++ read did not get every vector"
        return seconds

    def cpp_stack():
        seconds, got = _sliceio_bench.read_stack(path)
        assert got == vectors, "the C++ whole read did not get every vector"
        return seconds

    def python_read():
        start = time.perf_counter()
        build = sliceio.read(path)
        seconds = time.perf_counter() - start
        got = sum(len(b.vectors) for layer in build for b in layer.vector_blocks)
        assert got == vectors and len(build) == count, "sliceio.read did not get every vector"
        return seconds

    cpp_layers()  # warms the page cache
    # Interleaved, so that the machine's load of the moment falls on all of them alike.
    times = {"C++ read (slices built)": [], "C++ whole read (M2DSliceStack)": [], "sliceio.read (numpy)": []}
    for _ in range(repeats):
        times["C++ read (slices built)"].append(cpp_layers())
        times["C++ whole read (M2DSliceStack)"].append(cpp_stack())
        times["sliceio.read (numpy)"].append(python_read())
    layer_read = min(times["C++ read (slices built)"])
    whole_read = min(times["C++ whole read (M2DSliceStack)"])
    print(f"{count} layers, {vectors:,} vectors, {size / 1e6:.0f} MB; best of {repeats}")
    print(f"{'operation':<32} {'seconds':>8} {'MB/s':>8} {'vectors/s':>12} {'x C++ read':>10} {'x C++ whole':>11}")
    for name, values in times.items():
        t = min(values)
        print(f"{name:<32} {t:8.3f} {size / t / 1e6:8.0f} {vectors / t / 1e6:10.1f} M {layer_read / t:10.2f}"
              f" {whole_read / t:11.2f}")


if __name__ == "__main__":
    main()
