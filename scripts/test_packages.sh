#!/usr/bin/env bash
# The library as a system package: builds the Debian packages (scripts/package_deb.sh), installs
# them (dpkg -i, then apt-get -f install), builds the examples and the consumer project against
# the installed package with CMake and with pkg-config, runs them against the installed demo
# shop on a loopback port, builds the API reference, purges the packages and checks that none of
# their files is left. Then builds and lints the armhf packages (they cannot be installed here).
#
# Installing needs root (or sudo without a password); without it the stage is skipped.
# VISTREL_SKIP_ARMHF_PACKAGES=1 leaves out the armhf packages.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

packages=(libvistrel-store0 libvistrel-store-dev vistrel-tools)
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
    sudo="sudo"
  else
    echo "test_packages: skipped: installing packages needs root or sudo without a password"
    exit 0
  fi
fi
for p in "${packages[@]}"; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "installed"; then
    echo "test_packages: $p is installed already; this test installs and purges its own build." >&2
    echo "  Remove it first: apt-get purge ${packages[*]}" >&2
    exit 1
  fi
done

# Other work on the machine may hold dpkg's lock for a while (apt-get installing): wait for it.
apt_wait=(-o DPkg::Lock::Timeout=600)
dpkg_install() {
  local output
  for _ in $(seq 300); do
    if output=$($sudo dpkg -i "$@" 2>&1); then return 0; fi
    grep -q "lock" <<<"$output" || return 0 # unmet dependencies are left to apt-get -f install
    sleep 2
  done
  echo "$output" >&2
  return 1
}

mapfile -t debs < <(scripts/package_deb.sh)
echo "packages: ${debs[*]##*/}"

work=$(mktemp -d /tmp/vistrel-packages-XXXXXX)
shop_pid=""
cleanup() {
  [ -n "$shop_pid" ] && kill "$shop_pid" 2>/dev/null && wait "$shop_pid" 2>/dev/null
  $sudo apt-get "${apt_wait[@]}" purge -y -qq "${packages[@]}" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

# What the packages hold that the system does not have yet: all of it must go with the purge.
new_paths=()
for deb in "${debs[@]}"; do
  while IFS= read -r path; do
    [ -e "$path" ] || [ -L "$path" ] || new_paths+=("$path")
  done < <(dpkg-deb --fsys-tarfile "$deb" | tar -t | sed 's|^\./|/|; s|/$||' | grep -v '^$')
done

echo "== install =="
export DEBIAN_FRONTEND=noninteractive
dpkg_install "${debs[@]}"
$sudo apt-get "${apt_wait[@]}" -f install -y -qq >/dev/null
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}\n' "$p" | grep -q "install ok installed" || {
    echo "test_packages: $p did not install" >&2
    exit 1
  }
done

echo "== build against the installed package =="
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH
for project in examples/minimal examples/shop_app tests/consumer; do
  name=$(basename "$project")
  cmake -S "$project" -B "$work/cmake-$name" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$work/cmake-$name" >/dev/null
done
read -r -a flags <<<"$(pkg-config --cflags --libs vistrel_store)"
c++ -std=c++17 -Wall -Wextra -Werror examples/minimal/main.cc "${flags[@]}" -o "$work/pc-minimal"
c++ -std=c++17 -Wall -Wextra -Werror examples/shop_app/*.cc "${flags[@]}" -o "$work/pc-shop_app"
# Nothing but the system's library folders may serve the programs.
if ldd "$work/pc-shop_app" "$work/cmake-shop_app/shop_app" | grep -E "libvistrel_store|libvistrel_host" |
  grep -vE "=> (/usr)?/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/"; then
  echo "test_packages: a program does not use the installed library" >&2
  exit 1
fi
"$work/cmake-consumer/consumer"

echo "== run against the installed demo shop =="
vistrel --help >/dev/null
# The programs pay with the default browser of a host, the redirect follower.
vistrel-demo-shop 0 --payment-style redirect --file-chunk-delay 2 >"$work/shop.out" 2>&1 &
shop_pid=$!
for _ in $(seq 50); do
  grep -q '^port: ' "$work/shop.out" && break
  sleep 0.1
done
port=$(sed -n 's/^port: //p' "$work/shop.out")
[ -n "$port" ] || {
  cat "$work/shop.out" >&2
  exit 1
}
switchboard=http://127.0.0.1:$port/norbel/config/
# The demo shop sells 9783980000109 to 9783980000130; the last EAN is one that it does not sell.
"$work/cmake-shop_app/shop_app" --switchboard-url "$switchboard" --device-root "$work/device-a" \
  --email cmake@vistrel.example --password secret --register \
  9783980000109 9783980000123 9783980000130 9780000000000 | grep -v '%$'
book=$("$work/pc-minimal" "$switchboard" "$work/device-b" pc@vistrel.example secret 9783980000116 |
  tail -n 1)
[ -s "$book" ] || {
  echo "test_packages: the minimal program left no book ($book)" >&2
  exit 1
}
echo "minimal (pkg-config): $book"
# Start-up without a configuration server: Init() fails and the screen says why.
if "$work/pc-shop_app" --switchboard-url http://127.0.0.1:1/norbel/config/ \
  --device-root "$work/device-c" 9783980000109 2>"$work/unreachable.txt"; then
  echo "test_packages: shop_app started without a configuration server" >&2
  exit 1
fi
grep -q "no shop configuration" "$work/unreachable.txt" || {
  cat "$work/unreachable.txt" >&2
  exit 1
}

echo "== API reference =="
cmake --build build-deb --target api_docs
echo "API reference: $repo/build-deb/docs/api/html/index.html"

echo "== purge =="
kill "$shop_pid"
wait "$shop_pid" 2>/dev/null || true
shop_pid=""
$sudo apt-get "${apt_wait[@]}" purge -y -qq "${packages[@]}" >/dev/null
left=0
for p in "${packages[@]}"; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "installed"; then
    echo "still installed: $p" >&2
    left=1
  fi
done
for path in "${new_paths[@]}"; do
  if [ -e "$path" ] || [ -L "$path" ]; then
    echo "left behind: $path" >&2
    left=1
  fi
done
[ $left -eq 0 ] || exit 1
echo "purged: none of the ${#new_paths[@]} new paths is left"

if [ "${VISTREL_SKIP_ARMHF_PACKAGES:-0}" != 1 ]; then
  echo "== armhf packages =="
  mapfile -t arm_debs < <(scripts/package_deb.sh armhf)
  for deb in "${arm_debs[@]}"; do
    echo "${deb##*/}: $(dpkg-deb -f "$deb" Depends)"
  done
  # Multi-Arch: same: the files that both architectures' packages hold must be the same.
  mkdir -p "$work/amd64" "$work/armhf"
  for deb in "${debs[@]}"; do
    case ${deb##*/} in libvistrel-store0_* | libvistrel-store-dev_*) dpkg-deb -x "$deb" "$work/amd64" ;; esac
  done
  for deb in "${arm_debs[@]}"; do dpkg-deb -x "$deb" "$work/armhf"; done
  file -L "$work/armhf/usr/lib/arm-linux-gnueabihf/libvistrel_store.so.0" | grep -q "ARM, EABI5" || {
    echo "test_packages: the armhf package does not hold an ARM library" >&2
    exit 1
  }
  shared=0
  while IFS= read -r f; do
    shared=$((shared + 1))
    cmp -s "$work/amd64/$f" "$work/armhf/$f" || {
      echo "test_packages: $f differs between amd64 and armhf" >&2
      exit 1
    }
  done < <(comm -12 <(cd "$work/amd64" && find . -type f | sort) <(cd "$work/armhf" && find . -type f | sort))
  echo "armhf: ARM library; the $shared files shared with amd64 are the same"
fi
echo "test_packages: done in ${SECONDS} s"
