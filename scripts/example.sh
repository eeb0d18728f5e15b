#!/usr/bin/env bash
# Sets up what the build needs, builds the library and its examples, and runs
# the record-batch example.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target records
./build/examples/records "$@"
