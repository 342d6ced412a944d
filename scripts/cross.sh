#!/usr/bin/env bash
# Cross-builds the library, dlna-dms and the test programs for an ARM Linux
# target with Debian's cross toolchain and its multiarch -dev packages,
# through cmake/linux-cross.cmake, then runs the tests under the user-mode
# emulator inside a private network namespace.
# Usage: scripts/cross.sh arm64|armhf [--build-only] [--dir DIR] [CMAKE_OPTION...]
# The build lands in build-<arch>/ (or DIR); CMAKE_OPTIONs such as
# -DDMS_WITH_VIEWS=OFF go to its configuration.  Installs what it needs first (root or
# sudo; the packages need the network, which the namespace does not have).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
arch=${1:-}
case $arch in
  arm64) triple=aarch64-linux-gnu ;;
  armhf) triple=arm-linux-gnueabihf ;;
  *) echo "usage: scripts/cross.sh arm64|armhf [--build-only] [--dir DIR] [CMAKE_OPTION...]" >&2; exit 2 ;;
esac
shift
run_tests=1
build=build-$arch
options=()
while [ $# -gt 0 ]; do
  case $1 in
    --build-only) run_tests=0 ;;
    --dir) build=$2; shift ;;
    *) options+=("$1") ;;
  esac
  shift
done

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
libs=(libupnp-dev libmicrohttpd-dev libtag1-dev libturbojpeg0-dev libpng-dev libcurl4-openssl-dev
  libexpat1-dev libsqlite3-dev libgtest-dev libgmock-dev)
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
install() {  # packages...: true when they are all installed afterwards
  local missing=() package
  for package in "$@"; do installed "$package" || missing+=("$package"); done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing: ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
  $sudo dpkg --add-architecture "$arch"
  # An index of the package sources that fails to download (a mirror in the
  # middle of a sync) is reported; what it leaves out shows below.
  $sudo apt-get update -qq || echo "cross.sh: apt-get update reported errors" >&2
fi
install crossbuild-essential-"$arch" qemu-user cmake pkg-config || exit 3

# The target's libraries: Debian's multiarch packages when they install
# beside this machine's own (their versions must match), else a target root
# of the same packages unpacked into build-<arch>-root, as a firmware build
# system would hand one over.
root_options=()
if ! install "${libs[@]/%/:$arch}" 2>/dev/null; then
  root=$top/build-$arch-root
  echo "cross.sh: the $arch libraries do not install beside this machine's; unpacking them into ${root#$top/}"
  if [ ! -e "$root/.complete" ]; then
    rm -rf "$root" "$root.debs" && mkdir -p "$root" "$root.debs"
    closure=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts --no-breaks \
      --no-replaces --no-enhances --no-pre-depends "${libs[@]/%/:$arch}" libc6-dev:"$arch" libstdc++-12-dev:"$arch" |
      grep -E "^[a-z0-9].*:$arch\$" | grep -vE '^(dpkg|perl|perl-base|libperl[0-9.]*|tar|install-info|bzip2|patch|xz-utils):' |
      sort -u)
    (cd "$root.debs" && apt-get download $closure >/dev/null) || { echo "cross.sh: cannot download the $arch packages" >&2; exit 3; }
    for deb in "$root.debs"/*.deb; do dpkg-deb -x "$deb" "$root"; done
    # Links that name an absolute path must stay inside the root.
    find "$root" -type l -lname '/*' | while read -r link; do
      ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$root$(readlink "$link")")" "$link"
    done
    rm -rf "$root.debs" && touch "$root/.complete"
  fi
  root_options=(-DCMAKE_SYSROOT="$root")
fi

cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$top/cmake/linux-cross.cmake" -DDMS_TARGET_TRIPLE="$triple" \
  "${root_options[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDMS_BUILD_BENCH=OFF "${options[@]}" >/dev/null
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
