#!/usr/bin/env bash
# The main job: installs what is missing, builds the vistrel tool, and buys and downloads books
# from the embedded demo shop on a fresh emulated device. Arguments go to "vistrel demo".
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target vistrel
echo
exec build/tools/vistrel/vistrel demo "$@"
