#!/usr/bin/env bash
# Builds a private armhf sysroot (Debian 12 -dev packages for armhf, unpacked) and installs the
# cross compiler and qemu-user. Prints the sysroot's path on stdout; everything else goes to
# stderr.
#
#   scripts/arm_sysroot.sh [SYSROOT]
#
# The sysroot goes to SYSROOT, else $VISTREL_ARMHF_SYSROOT, else
# $HOME/.cache/vistrel/armhf-sysroot. A complete sysroot for the same package list is reused.
#
# The system's dpkg is never told about armhf: its armhf indices can lag behind the installed
# amd64 packages, which makes :armhf -dev packages uninstallable and breaks apt-get update.
# apt runs here with lists, status and cache of its own, for armhf alone, downloads the whole
# dependency closure (its status file is empty) and the packages are unpacked with dpkg-deb.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
sysroot=${1:-${VISTREL_ARMHF_SYSROOT:-$HOME/.cache/vistrel/armhf-sysroot}}
sysroot=$(realpath -m "$sysroot")

packages=(
  libc6-dev libstdc++-12-dev
  libjsoncpp-dev libcurl4-openssl-dev libexpat1-dev libboost-dev
  libgtest-dev libgmock-dev libcpp-httplib-dev
)

fail() {
  echo "arm_sysroot: $*" >&2
  exit 1
}

"$repo/scripts/install_deps.sh" crossbuild-essential-armhf qemu-user-static >&2 ||
  fail "could not install crossbuild-essential-armhf qemu-user-static"

# The stamp names what the sysroot was made from; a changed list makes a new sysroot.
stamp_text="packages: ${packages[*]}"$'\n'"layout: 1"
stamp_hash=$(printf '%s' "$stamp_text" | sha256sum | cut -d' ' -f1)
stamp=$sysroot/.vistrel-sysroot-stamp

mkdir -p "$(dirname "$sysroot")"
exec 9>"$sysroot.lock"
flock 9 # one builder at a time; a second one then finds the sysroot done

if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$stamp_hash" ]; then
  echo "$sysroot"
  exit 0
fi

# Only a folder this script made is ever replaced.
if [ -d "$sysroot" ] && [ ! -f "$stamp" ] && [ -n "$(ls -A "$sysroot")" ]; then
  fail "$sysroot is not empty and was not made by this script; choose another folder"
fi

echo "arm_sysroot: building the armhf sysroot in $sysroot" >&2
work=$sysroot.work
rm -rf "$work" "$sysroot.new"
mkdir -p "$work"/{lists/partial,archives/partial,sources.list.d,preferences.d} "$sysroot.new"
: >"$work/status"
: >"$work/sources.list"
# The same Debian sources as the system, for the other architecture.
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
  [ -f "$f" ] && cp "$f" "$work/sources.list.d/$(basename "$f" | sed 's/^sources\.list$/system.list/')"
done

apt_opts=(
  -o APT::Architecture=armhf -o APT::Architectures::=armhf
  -o Dir::State="$work" -o Dir::State::Lists="$work/lists" -o Dir::State::status="$work/status"
  -o Dir::Cache="$work" -o Dir::Cache::Archives="$work/archives"
  -o Dir::Cache::pkgcache="" -o Dir::Cache::srcpkgcache=""
  -o Dir::Etc::SourceList="$work/sources.list" -o Dir::Etc::SourceParts="$work/sources.list.d"
  -o Dir::Etc::Preferences="$work/preferences" -o Dir::Etc::PreferencesParts="$work/preferences.d"
  -o APT::Sandbox::User=root -o APT::Install-Recommends=false -o Debug::NoLocking=true
)
log=$work/apt.log
# Some sources may have no armhf index; update then exits non-zero but Debian's lists are there.
apt-get "${apt_opts[@]}" -q update >"$log" 2>&1 || true
if ! apt-get "${apt_opts[@]}" -q -y --download-only install "${packages[@]}" >>"$log" 2>&1; then
  tail -n 20 "$log" >&2
  fail "apt-get could not download the armhf packages (log: $log)"
fi

shopt -s nullglob
debs=("$work"/archives/*.deb)
[ ${#debs[@]} -gt 0 ] || fail "no armhf packages were downloaded (log: $log)"
for deb in "${debs[@]}"; do
  dpkg-deb -x "$deb" "$sysroot.new" || fail "could not unpack $deb"
done

# Absolute links point at the build machine's own files: make them relative to the sysroot.
while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  case $target in
    /*) ln -sfn "$(realpath -m -s --relative-to="$(dirname "$link")" "$sysroot.new$target")" "$link" ;;
  esac
done < <(find "$sysroot.new" -type l -print0)

for f in usr/include/jsoncpp/json/json.h usr/include/arm-linux-gnueabihf/curl/curl.h usr/include/expat.h \
  usr/include/boost/version.hpp usr/include/gtest/gtest.h usr/include/httplib.h \
  usr/lib/arm-linux-gnueabihf/libc.so usr/lib/arm-linux-gnueabihf/pkgconfig/cpp-httplib.pc \
  lib/ld-linux-armhf.so.3; do
  [ -e "$sysroot.new/$f" ] || fail "the unpacked sysroot lacks $f (log: $log)"
done

printf '%s\n' "$stamp_hash" >"$sysroot.new/.vistrel-sysroot-stamp"
rm -rf "$sysroot"
mv "$sysroot.new" "$sysroot"
rm -rf "$work"
echo "arm_sysroot: ${#debs[@]} packages unpacked" >&2
echo "$sysroot"
