#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole suite: as a normal build, again under
# AddressSanitizer + UndefinedBehaviorSanitizer, the downloads under ThreadSanitizer, every fuzz
# target for a short while, and finally the whole suite cross-built for the device's 32-bit ARM
# under qemu-user. A stage in between builds the Debian packages and tries them on this system
# (scripts/test_packages.sh; skipped without root or sudo).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh

jobs=$(nproc)
# run_suite <build dir> [cmake options...]; CTEST_ARGS and TARGETS narrow what runs.
run_suite() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  local targets=()
  for t in ${TARGETS:-}; do targets+=(--target "$t"); done
  cmake --build "$dir" -j"$jobs" "${targets[@]}"
  # Many tests wait on loopback servers rather than on the CPU: run more than one per core.
  (cd "$dir" && ctest --output-on-failure -j$((jobs * 2)) ${CTEST_ARGS:-})
}

echo "== build and test =="
CTEST_ARGS="-LE browser" run_suite build
echo "== Debian packages: build, lintian, install, examples against the demo shop, purge =="
scripts/test_packages.sh
echo "== payment in a real Chromium, in a network namespace that holds only loopback =="
# The browser tests refuse to start Chromium anywhere else. Root (CI) gets a namespace of its
# own; a user, one inside a user namespace.
netns=(unshare -n)
[ "$(id -u)" -ne 0 ] && netns=(unshare -r -n)
VISTREL_REQUIRE_BROWSER=1 "${netns[@]}" sh -c \
  'ip link set lo up && cd build && ctest --output-on-failure -L browser'
echo "== AddressSanitizer + UndefinedBehaviorSanitizer =="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  CTEST_ARGS="-E install_consumer -LE browser" \
  run_suite build-asan -DVISTREL_SANITIZE=address,undefined -DVISTREL_BUILD_TOOLS=OFF
echo "== ThreadSanitizer: the downloads, which run on a thread of their own =="
TSAN_OPTIONS=halt_on_error=1 CTEST_ARGS="-R Download" \
  TARGETS="downloads_test platform_downloader_test" \
  run_suite build-tsan -DVISTREL_SANITIZE=thread -DVISTREL_BUILD_TOOLS=OFF
echo "== fuzz smoke: every fuzz target for 10 s (ASan + UBSan) =="
scripts/fuzz.sh 10
echo "== 32-bit ARM (armhf) under qemu-user =="
scripts/test_arm.sh
