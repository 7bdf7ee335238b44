#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing need; apt-gets only what is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git ca-certificates curl
  libjsoncpp-dev libboost-dev libexpat1-dev libcurl4-openssl-dev libssl-dev
  libcpp-httplib-dev libgtest-dev libgmock-dev libbenchmark-dev zlib1g-dev
  zip unzip man-db
  doxygen dpkg-dev fakeroot file lintian
  chromium iproute2
)
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
