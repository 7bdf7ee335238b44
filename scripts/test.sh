#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole suite: once as a normal build, then
# again under AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh

jobs=$(nproc)
run_suite() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure -j$((jobs * 2)) ${CTEST_ARGS:-})
}

echo "== build and test =="
run_suite build
echo "== AddressSanitizer + UndefinedBehaviorSanitizer =="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  CTEST_ARGS="-E install_consumer" \
  run_suite build-asan -DVISTREL_SANITIZE=address,undefined -DVISTREL_BUILD_TOOLS=OFF
