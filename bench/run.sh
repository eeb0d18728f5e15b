#!/usr/bin/env bash
# Builds orsm in Release with the benchmarks and runs them; arguments go to
# orsm_bench (e.g. --quick, --only products,add). Peers that are missing are
# installed when this runs as root with apt-get, else named and skipped.
#   ORSM_BENCH_BUILD  build directory (default: <repo>/build-bench)
#   OMP_WAIT_POLICY   passed through as the caller has it, unset by default:
#                     the 2-thread rows then show what a program gets from
#                     the runtime's default (members spin a while after a
#                     region, then sleep), a team of 2 costing 0.6 to 1.5 us.
#                     passive makes every call wake a sleeping member and
#                     wait to be woken, 7 us and more, which no caller gets
#                     unless it asks. On an oversubscribed machine a spinning
#                     member can hold a call for a scheduler slice: compare
#                     the threads section's best samples, or set passive.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${ORSM_BENCH_BUILD:-$root/build-bench}

missing=()
[ -f /usr/include/eigen3/Eigen/Core ] || missing+=(libeigen3-dev)
[ -f /usr/include/libxsmm.h ] || missing+=(libxsmm-dev)
ls /usr/lib/*/libopenblas.so >/dev/null 2>&1 || missing+=(libopenblas-dev)
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
    echo "bench: installing ${missing[*]}"
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${missing[@]}" >/dev/null ||
      { apt-get update -q >/dev/null &&
        DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${missing[@]}" >/dev/null; } ||
      echo "bench: could not install ${missing[*]}; their rows will read n/a"
  else
    echo "bench: missing ${missing[*]} (install as root); their rows will read n/a"
  fi
fi

# The per-matrix LAPACK peer runs on one thread, like every other row.
export OPENBLAS_NUM_THREADS=${OPENBLAS_NUM_THREADS:-1}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DORSM_BUILD_BENCH=ON \
      -DORSM_BUILD_TESTS=OFF -DORSM_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target orsm_bench >/dev/null
exec "$build/bench/orsm_bench" "$@"
