#!/usr/bin/env bash
# Installs the Debian packages that the build, the tests, the benchmarks and the fuzzers need.
# Idempotent: packages that are already present are not touched, and apt is not called at all
# when nothing is missing.
set -euo pipefail
packages=(
  build-essential cmake ninja-build pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libboost-dev libboost-date-time-dev
  libfmt-dev libexpat1-dev zlib1g-dev libssl-dev
  clang libclang-rt-dev llvm
  libcli11-dev nlohmann-json3-dev ccache
  python3-dev pybind11-dev python3-numpy python3-pytest python3-matplotlib
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "setup: installing ${missing[*]}" >&2
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
