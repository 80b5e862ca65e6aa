#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) in build-fuzz and runs each one for the
# given number of seconds, seeded from fuzz/corpus/<target> and, when present, from the sample
# files beside the checkout (read in place, never copied). Prints the executions per target and
# exits non-zero when a target crashed, hung or ran out of memory; the input that did it is left
# in build-fuzz/crashes/<target>/.
#
# Usage: fuzz/run.sh [SECONDS_PER_TARGET]   (default 30; assumes cmake/setup.sh has run)
#        fuzz/run.sh --total SECONDS         the seconds shared among the targets (at least 10 each)
set -euo pipefail

total=""
skip=" ${SLICEIO_FUZZ_SKIP:-} "   # target names left out of this run, blank-separated
if [ "${1:-}" = "--total" ]; then
  total=${2:?--total needs seconds}
  shift 2
fi
seconds=${1:-30}
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-fuzz"
samples="$root/../shared/samples"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DSLICEIO_FUZZ=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)"

targets=()
for src in "$root"/fuzz/fuzz_*.cpp; do
  name=$(basename "$src" .cpp)
  case "$skip" in *" $name "*) echo "$name: left out of this run" ;; *) targets+=("$src") ;; esac
done
if [ -n "$total" ]; then
  seconds=$(( total / ${#targets[@]} ))
  [ "$seconds" -lt 10 ] && seconds=10
fi

status=0
for src in "${targets[@]}"; do
  name=$(basename "$src" .cpp)
  seeds="$root/fuzz/corpus/${name#fuzz_}"
  work="$build/corpus/$name"      # the growing corpus; the seed folders are only read
  crashes="$build/crashes/$name"
  log="$build/$name.log"
  mkdir -p "$work" "$crashes"
  rm -f "$crashes"/*   # what is listed below is from this run only
  dirs=("$work")
  [ -d "$seeds" ] && dirs+=("$seeds")
  [ "$name" = fuzz_cli_read ] && [ -d "$samples" ] && dirs+=("$samples")
  dict=()
  [ -f "$root/fuzz/corpus/${name#fuzz_}.dict" ] && dict=(-dict="$root/fuzz/corpus/${name#fuzz_}.dict")

  rc=0
  "$build/$name" "${dirs[@]}" "${dict[@]}" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
    -print_final_stats=1 -artifact_prefix="$crashes/" >"$log" 2>&1 || rc=$?
  runs=$(sed -n -E 's/^stat::number_of_executed_(runs|units): *([0-9]+).*/\2/p' "$log" | tail -n 1)
  if [ "$rc" -eq 0 ]; then
    printf '%-22s %12s executions  ok\n' "$name" "${runs:-?}"
  else
    printf '%-22s %12s executions  FAILED (exit %d), log %s\n' "$name" "${runs:-?}" "$rc" "$log"
    grep -E '^(==[0-9]+==ERROR|SUMMARY|fuzz_cli_|    #[0-9]+ )' "$log" | head -n 30 || true
    ls -1 "$crashes"/* 2>/dev/null | sed 's/^/  input: /' || true
    status=1
  fi
done
exit "$status"
