#!/usr/bin/env bash
# Cross builds for the device's architecture (32-bit ARM, hard float) and runs the whole suite
# under qemu-user. Makes the armhf sysroot first (scripts/arm_sysroot.sh; cached between runs).
#
#   scripts/test_arm.sh            # build-armhf, every test
#   CTEST_ARGS="-R Cart" scripts/test_arm.sh
set -euo pipefail
cd "$(dirname "$0")/.."

sysroot=$(scripts/arm_sysroot.sh)
jobs=$(nproc)
dir=build-armhf

echo "== armhf cross build =="
cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/armhf.cmake" \
  -DVISTREL_ARMHF_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVISTREL_BUILD_TOOLS=OFF -DVISTREL_BUILD_TESTS=ON >/dev/null
cmake --build "$dir" -j"$jobs"

# What the library weighs on the device, without symbols.
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
arm-linux-gnueabihf-strip -o "$stripped" "$dir/vistrel_store/libvistrel_store.so"
echo "armhf libvistrel_store.so stripped: $(stat -c %s "$stripped") bytes"

echo "== armhf tests under qemu-arm =="
(cd "$dir" && ctest --output-on-failure -j$((jobs * 2)) ${CTEST_ARGS:-})
