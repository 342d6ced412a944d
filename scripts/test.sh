#!/usr/bin/env bash
# Builds the library and runs the whole test suite: a plain build, then the
# AddressSanitizer+UndefinedBehaviorSanitizer build, then the ThreadSanitizer
# build, then a build with every optional feature left out.  Every test runs
# inside a private network namespace with loopback only, so that the
# server's SSDP announcements never leave the machine.
# Ends by printing the size of the tests against the size of the code.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
scripts/deps.sh test

jobs=$(nproc)
configure_and_build() {  # dir, cmake options...
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs" >/dev/null
}

# ctest inside a fresh network namespace (root: unshare -n; otherwise a user
# namespace maps us to root inside it).  The tests listen on fixed ports
# below 50000; the namespace's outgoing connections take their local ports
# above it, so a connection still closing from one test never holds the
# port the next one listens on.
isolated_ctest() {  # dir, ctest options...
  local dir=$1; shift
  # dlna-dms keeps its index in a state folder; the tests' runs keep theirs
  # in a scratch one, never in the user's.
  local state
  state=$(mktemp -d)
  trap 'rm -rf "$state"' RETURN
  export XDG_STATE_HOME=$state
  unset STATE_DIRECTORY
  local ns=(unshare -n)
  [ "$(id -u)" -eq 0 ] || ns=(unshare -rn)
  "${ns[@]}" sh -c 'ip link set lo up &&
    ip route add 224.0.0.0/4 dev lo src 127.0.0.1 2>/dev/null;
    echo "50000 60999" > /proc/sys/net/ipv4/ip_local_port_range;
    cd "$0" && exec ctest --output-on-failure --timeout 300 "$@"' "$dir" "$@"
}

echo "== plain build"
configure_and_build build
isolated_ctest build

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
configure_and_build build-asan -DDMS_SANITIZE_ADDRESS=ON -DDMS_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS=suppressions="$top/tests/lsan.supp" \
  isolated_ctest build-asan

echo "== ThreadSanitizer"
configure_and_build build-tsan -DDMS_SANITIZE_THREAD=ON -DDMS_BUILD_BENCH=OFF
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" isolated_ctest build-tsan

echo "== every optional feature left out"
configure_and_build build-none -DDMS_WITH_TAGLIB=OFF -DDMS_WITH_PICTURES=OFF -DDMS_WITH_INDEX=OFF \
  -DDMS_WITH_VIEWS=OFF -DDMS_BUILD_BENCH=OFF
isolated_ctest build-none

echo "== size of the tests"
scripts/code-ratio.sh
