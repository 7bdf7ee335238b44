#!/usr/bin/env bash
# Builds the benchmarks (Release) and runs them once on loopback; the last lines are the table
# of ratios. Needs about 1 GiB free in the temporary folder ($TMPDIR, else /tmp).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVISTREL_BUILD_BENCH=ON \
  -DVISTREL_BUILD_TESTS=OFF -DVISTREL_BUILD_TOOLS=OFF >/dev/null
cmake --build build-bench -j"$(nproc)" --target store_bench
build-bench/bench/store_bench "$@"
