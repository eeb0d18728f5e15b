#!/usr/bin/env bash
# Builds orsm in Release with the benchmarks and runs them; arguments go to
# orsm_bench (e.g. --quick, --only products,add). Peers that are missing are
# installed when this runs as root with apt-get, else named and skipped.
#   ORSM_BENCH_BUILD  build directory (default: <repo>/build-bench)
#   OMP_WAIT_POLICY   defaults to passive here: on a machine whose cores are
#                     shared, spinning team members starve each other
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${ORSM_BENCH_BUILD:-$root/build-bench}

missing=()
[ -f /usr/include/eigen3/Eigen/Core ] || missing+=(libeigen3-dev)
[ -f /usr/include/libxsmm.h ] || missing+=(libxsmm-dev)
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

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DORSM_BUILD_BENCH=ON \
      -DORSM_BUILD_TESTS=OFF -DORSM_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target orsm_bench >/dev/null
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive}
exec "$build/bench/orsm_bench" "$@"
