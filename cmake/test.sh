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
set -euo pipefail
cd "$(dirname "$0")/.."
bash cmake/setup.sh
jobs=$(nproc)

configure() { # dir, extra cmake arguments...
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
}

plain() {
  configure build -DCMAKE_BUILD_TYPE=RelWithDebInfo
  cmake --build build -j"$jobs"
  (cd build && ctest --output-on-failure -j"$jobs")
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
  all)
    asan
    tsan
    bash fuzz/run.sh --total 240
    plain # last, so that its closing summary is the run's last word
    ;;
  *) echo "usage: bash cmake/test.sh [quick|asan|tsan|fuzz [seconds]]" >&2; exit 2 ;;
esac
