#!/usr/bin/env bash
# Sets up what the build needs, builds the libraries and the tests, and runs
# every test. Environment:
#   ORSM_SANITIZE  sanitizers to build with (e.g. address,undefined); empty: none
#   BUILD_DIR      build directory (default: build, or build-<sanitizers>)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
san="${ORSM_SANITIZE:-}"
dir="${BUILD_DIR:-build${san:+-${san//,/-}}}"
type=Release
[ -n "$san" ] && type=RelWithDebInfo
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DORSM_SANITIZE="$san" >/dev/null
cmake --build "$dir" -j"$(nproc)"
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export ASAN_OPTIONS=detect_leaks=1
cd "$dir" && ctest --output-on-failure -j"$(nproc)"
