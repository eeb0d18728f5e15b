#!/usr/bin/env bash
# Sets up what the build needs, builds the libraries and the tests, and runs
# every test. Environment:
#   ORSM_SANITIZE  sanitizers to build with (e.g. address,undefined); empty: none
#   BUILD_DIR      build directory (default: build, or build-<sanitizers>)
set -euo pipefail
cd "$(dirname "$0")/.."
san="${ORSM_SANITIZE:-}"
if [ "$san" = thread ]; then
  # ThreadSanitizer needs an OpenMP runtime that tells it about its
  # synchronisation: clang's libomp with its Archer tool.
  bash scripts/deps.sh clang libomp-14-dev
  export CC=clang CXX=clang++
  export OMP_TOOL_LIBRARIES=$(ls /usr/lib/llvm-*/lib/libarcher.so | tail -n 1)
  export TSAN_OPTIONS="suppressions=$PWD/tests/tsan.supp halt_on_error=1"
else
  bash scripts/deps.sh
fi
dir="${BUILD_DIR:-build${san:+-${san//,/-}}}"
opts=(-DCMAKE_BUILD_TYPE=Release)
# Sanitizer builds at -O1 with line tables: the unrolled product kernels take
# minutes per file at -O2 -g under instrumentation, seconds at -O1.
[ -n "$san" ] && opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo
                       "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG"
                       "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG")
cmake -S . -B "$dir" "${opts[@]}" -DORSM_SANITIZE="$san" >/dev/null
cmake --build "$dir" -j"$(nproc)"
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export ASAN_OPTIONS=detect_leaks=1
cd "$dir" && ctest --output-on-failure -j"$(nproc)"
