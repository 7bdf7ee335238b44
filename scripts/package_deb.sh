#!/usr/bin/env bash
# Builds the Debian packages (libvistrel-store0, libvistrel-store-dev, vistrel-tools) and checks
# them with lintian: errors fail, warnings are listed. Prints the packages' paths on stdout.
#
#   scripts/package_deb.sh          # amd64 (the build machine's architecture), in build-deb
#   scripts/package_deb.sh armhf    # the device's, cross-built, in build-deb-armhf (no tools)
set -euo pipefail
cd "$(dirname "$0")/.."

arch=${1:-native}
jobs=$(nproc)
options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_INSTALL_RPATH=ON
  -DVISTREL_BUILD_TESTS=OFF)
case $arch in
  native) dir=build-deb ;;
  armhf)
    dir=build-deb-armhf
    sysroot=$(scripts/arm_sysroot.sh)
    # The device runs the library, not the host tools.
    options+=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/armhf.cmake"
      -DVISTREL_ARMHF_SYSROOT="$sysroot" -DVISTREL_BUILD_TOOLS=OFF
      -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf) # GNUInstallDirs leaves it out when crossing
    ;;
  *)
    echo "package_deb: unknown architecture $arch (native or armhf)" >&2
    exit 2
    ;;
esac
scripts/install_deps.sh >&2

cmake -S . -B "$dir" "${options[@]}" >/dev/null
cmake --build "$dir" -j"$jobs" >&2
rm -f "$dir"/packages/*.deb
(cd "$dir" && cpack -G DEB >&2)
shopt -s nullglob
debs=("$PWD/$dir"/packages/*.deb)
[ ${#debs[@]} -gt 0 ] || {
  echo "package_deb: cpack made no packages" >&2
  exit 1
}

# CPack (3.25) cannot write Multi-Arch: the libraries and their development files are
# "Multi-Arch: same", so that the armhf ones install beside the amd64 ones for cross builds.
for deb in "${debs[@]}"; do
  case ${deb##*/} in
    libvistrel-store0_* | libvistrel-store-dev_*)
      tree=$(mktemp -d)
      dpkg-deb -R "$deb" "$tree"
      sed -i '/^Multi-Arch:/d; /^Architecture:/a Multi-Arch: same' "$tree/DEBIAN/control"
      dpkg-deb --root-owner-group -Zxz -b "$tree" "$deb" >/dev/null
      rm -rf "$tree"
      ;;
  esac
done

# lintian: errors fail the build; warnings are shown.
report=$(lintian --tag-display-limit 0 "${debs[@]}" 2>&1 | grep -v 'root privileges' || true)
[ -n "$report" ] && printf 'lintian:\n%s\n' "$report" >&2
if grep -q '^E: ' <<<"$report"; then
  echo "package_deb: lintian found errors" >&2
  exit 1
fi
printf '%s\n' "${debs[@]}"
