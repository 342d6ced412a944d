#!/usr/bin/env bash
# Cross-builds the library, dlna-dms and the test programs for an ARM Linux
# target with Debian's cross toolchain and its multiarch -dev packages,
# through cmake/linux-cross.cmake, then runs the tests under the user-mode
# emulator inside a private network namespace.
# Usage: scripts/cross.sh arm64|armhf [--build-only]
# The build lands in build-<arch>/.  Installs what it needs first (root or
# sudo; the packages need the network, which the namespace does not have).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
arch=${1:-}
case $arch in
  arm64) triple=aarch64-linux-gnu ;;
  armhf) triple=arm-linux-gnueabihf ;;
  *) echo "usage: scripts/cross.sh arm64|armhf [--build-only]" >&2; exit 2 ;;
esac
run_tests=1
[ "${2:-}" = --build-only ] && run_tests=0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
libs=(libupnp-dev libmicrohttpd-dev libtag1-dev libturbojpeg0-dev libpng-dev libcurl4-openssl-dev
  libexpat1-dev libsqlite3-dev libgtest-dev libgmock-dev)
want=(crossbuild-essential-"$arch" qemu-user cmake pkg-config "${libs[@]/%/:$arch}")
missing=()
for package in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  $sudo dpkg --add-architecture "$arch"
  # A target architecture's package index that fails to download (a mirror
  # in the middle of a sync) is reported, and the install then says what
  # cannot be had.
  $sudo apt-get update -qq || echo "cross.sh: apt-get update reported errors (see above)" >&2
  if ! DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null; then
    echo "cross.sh: the $arch packages cannot be installed from this machine's package sources" >&2
    exit 3
  fi
fi

build=build-$arch
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$top/cmake/linux-cross.cmake" -DDMS_TARGET_TRIPLE="$triple" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDMS_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" >/dev/null
file "$build/src/libdlnadms.so" "$build/host/dlna-dms" | sed "s|$top/||"
[ "$run_tests" -eq 1 ] || exit 0

# The tests that need the building machine's own tools are left out: the
# ABI baseline (amd64's), the install test (native pkg-config), the browser
# and the players (the server under the emulator serves them, but their
# timing is not the emulator's).
state=$(mktemp -d)
trap 'rm -rf "$state"' EXIT
export XDG_STATE_HOME=$state
unset STATE_DIRECTORY
ns=(unshare -n)
[ "$(id -u)" -eq 0 ] || ns=(unshare -rn)
"${ns[@]}" sh -c 'ip link set lo up &&
  ip route add 224.0.0.0/4 dev lo src 127.0.0.1 2>/dev/null;
  echo "50000 60999" > /proc/sys/net/ipv4/ip_local_port_range;
  cd "$0" && exec ctest --output-on-failure --timeout 900 -E "^(abi|install|browser|mpd_client|vlc_client|kodi_client)$"' "$build"
