#!/usr/bin/env bash
# Builds the library and passes the tests, installing missing packages first.
#
#   bash cmake/test.sh          plain build + whole suite, then the ASan+UBSan suite, the TSan
#                               concurrency tests and a short smoke run of every fuzz target
#   bash cmake/test.sh quick    plain build + whole suite only
#   bash cmake/test.sh asan     ASan+UBSan build of the whole suite only
#   bash cmake/test.sh tsan     TSan build of the concurrency tests only
#   bash cmake/test.sh fuzz [S] fuzz targets, S seconds each (default 30); the full run shares
#                               240 seconds among all targets
#   bash cmake/test.sh python   plain build with the Python module, then its pytest suite
#   bash cmake/test.sh consumer plain build installed into a temporary prefix, then a separate
#                               project built against it with find_package and with pkg-config
#   bash cmake/test.sh deb      the Debian package of the plain build, and what it holds
set -euo pipefail
cd "$(dirname "$0")/.."
bash cmake/setup.sh
jobs=$(nproc)

configure() { # dir, extra cmake arguments...
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
}

plain_build() {
  configure build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSLICEIO_WERROR=ON -DSLICEIO_PYTHON=ON \
    -DPython_EXECUTABLE=/usr/bin/python3
  cmake --build build -j"$jobs"
}

plain() {
  plain_build
  (cd build && ctest --output-on-failure -j"$jobs")
}

python_suite() {
  plain_build
  PYTHONDONTWRITEBYTECODE=1 PYTHONPATH="$PWD/build/python" SLICEIO_TOOL="$PWD/build/sliceio" /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests
}

consumer() {
  plain_build
  local tmp
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' RETURN
  cmake --install build --prefix "$tmp/prefix" >/dev/null
  cmake -S examples/consumer -B "$tmp/build" -G Ninja -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
  cmake --build "$tmp/build"
  "$tmp/build/consumer" "$tmp/consumer.cli"
  "$tmp/prefix/bin/sliceio" info "$tmp/consumer.cli" >/dev/null
  # The same program built with nothing but the pkg-config file.
  local flags
  flags=$(PKG_CONFIG_PATH="$tmp/prefix/lib/pkgconfig:$tmp/prefix/lib/$(gcc -print-multiarch)/pkgconfig" \
    pkg-config --cflags --libs zansdk-sliceio)
  # shellcheck disable=SC2086
  g++ -std=c++17 examples/consumer/consumer.cpp $flags -o "$tmp/consumer-pc"
  LD_LIBRARY_PATH=$(dirname "$(find "$tmp/prefix" -name 'libZanSDK.AM.SliceIO.so' | head -1)") \
    "$tmp/consumer-pc" "$tmp/consumer-pc.cli"
}

deb() {
  plain_build
  (cd build && cpack -G DEB >/dev/null)
  local package
  package=$(ls build/libzansdk-sliceio_*.deb)
  dpkg-deb -I "$package" | grep -E '^ (Package|Version|Depends|Recommends):'
  local contents
  contents=$(dpkg-deb -c "$package")
  local want
  for want in 'libZanSDK\.AM\.SliceIO\.so\.1' 'include/ZanSDK/SliceIO/framework/M2DSliceContainerIO\.h' \
    'include/ZanSDK/SliceIO/contracts/M2DSlice\.h' 'cmake/ZanSDKSliceIO/ZanSDKSliceIOConfig(Version)?\.cmake' \
    'pkgconfig/zansdk-sliceio\.pc' 'bin/sliceio$' 'dist-packages/sliceio/__init__\.py'; do
    grep -qE "$want" <<<"$contents" || { echo "deb: $package holds nothing matching $want" >&2; exit 1; }
  done
  # Unpacked anywhere, the tool and the Python module find the library beside them.
  local tmp
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' RETURN
  dpkg-deb -x "$package" "$tmp"
  "$tmp/usr/bin/sliceio" formats >/dev/null
  PYTHONDONTWRITEBYTECODE=1 PYTHONPATH="$tmp/usr/lib/python3/dist-packages" /usr/bin/python3 -c \
    'import sliceio; assert any(row["code"] == 0 and row["write"] for row in sliceio.formats())'
  echo "$package"
}

asan() {
  configure build-asan -DCMAKE_BUILD_TYPE=Debug -DSLICEIO_SANITIZE=address -DSLICEIO_BENCH=OFF
  cmake --build build-asan -j"$jobs"
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ASAN_OPTIONS=detect_leaks=1 \
    build-asan/sliceio_tests --gtest_brief=1
}

tsan() {
  configure build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSLICEIO_SANITIZE=thread -DSLICEIO_BENCH=OFF
  cmake --build build-tsan -j"$jobs" --target sliceio_tests
  TSAN_OPTIONS=halt_on_error=1 build-tsan/sliceio_tests --gtest_filter='*Concurrency*:*Thread*' --gtest_brief=1
}

fuzz() {
  bash fuzz/run.sh "${1:-30}"
}

case "${1:-all}" in
  quick) plain ;;
  asan) asan ;;
  tsan) tsan ;;
  fuzz) fuzz "${2:-30}" ;;
  python) python_suite ;;
  consumer) consumer ;;
  deb) deb ;;
  all)
    asan
    tsan
    bash fuzz/run.sh --total 240
    consumer
    deb
    plain # last, so that its closing summary is the run's last word (it runs the pytest suite too)
    ;;
  *) echo "usage: bash cmake/test.sh [quick|asan|tsan|fuzz [seconds]|python|consumer|deb]" >&2; exit 2 ;;
esac
