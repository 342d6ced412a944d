#!/usr/bin/env bash
# Installs a build into a fresh temporary prefix and uses it as a system's
# user would: the installed files are where a Debian system expects them, a
# C host builds with nothing but `pkg-config --cflags --libs dlnadms` and
# runs against the installed library, the installed dlna-dms runs with the
# example configuration, and the manual page renders without a warning.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR (inside the test namespace).
set -euo pipefail
build=$1
source=$2
# A build configured with absolute destinations (an /etc for the /usr
# prefix, say) would write there whatever --prefix says: not in a test.
if grep -rqs --include=cmake_install.cmake 'DESTINATION "/' "$build"; then
  echo "the build installs outside its prefix: skipped"
  exit 77
fi

work=$(mktemp -d /tmp/dms_install_XXXXXX)
server=""
cleanup() {
  [ -z "$server" ] || kill -KILL "$server" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
prefix=$work/prefix

fail() { echo "FAIL: $*" >&2; exit 1; }

"${CMAKE:-cmake}" --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
  { cat "$work/install.log" >&2; fail "cmake --install"; }

# The library directory is lib/ or a multiarch lib/TRIPLET/.
pcfile=$(find "$prefix" -name dlnadms.pc -path '*/pkgconfig/*' | head -n 1)
[ -n "$pcfile" ] || fail "no dlnadms.pc installed"
pcdir=$(dirname "$pcfile")
libdir=$(dirname "$pcdir")
www=$prefix/share/dlna-dms/www

for file in "$libdir/libdlnadms.so.0" "$prefix/include/dlna_dms.h" "$prefix/bin/dlna-dms" \
            "$www/dmsPresentationPage.html" "$prefix/share/man/man1/dlna-dms.1" \
            "$prefix/lib/systemd/system/dlna-dms.service" "$prefix/etc/dlna-dms.conf"; do
  [ -f "$file" ] || fail "missing $file"
done
[ -L "$libdir/libdlnadms.so" ] || fail "libdlnadms.so is not a link"
[ "$(readlink -f "$libdir/libdlnadms.so")" = "$(readlink -f "$libdir/libdlnadms.so.0")" ] ||
  fail "libdlnadms.so does not lead to libdlnadms.so.0"
[ -x "$prefix/bin/dlna-dms" ] || fail "dlna-dms is not executable"
grep -qx 'StateDirectory=dlna-dms' "$prefix/lib/systemd/system/dlna-dms.service" ||
  fail "the unit gives no state folder"

pc() { PKG_CONFIG_PATH=$pcdir pkg-config "$@" dlnadms; }
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
[ "$(pc --modversion)" = "$version" ] || fail "pkg-config --modversion is not $version"
[ "$(readlink "$libdir/libdlnadms.so.0")" = "libdlnadms.so.$version" ] ||
  fail "libdlnadms.so.0 does not lead to libdlnadms.so.$version"
# The private dependencies stay out of a shared link and join a static one,
# those of the optional features only when they were built in.
private='-l(upnp|microhttpd|tag|turbojpeg|png)'
if pc --libs | grep -Eq -- "$private"; then fail "pkg-config --libs leaks: $(pc --libs)"; fi
built() { ! grep -q "^DMS_WITH_$1:BOOL=OFF" "$build/CMakeCache.txt"; }
wanted="upnp microhttpd" unwanted=""
if built TAGLIB; then wanted+=" tag"; else unwanted+=" tag"; fi
if built PICTURES; then wanted+=" turbojpeg png16"; else unwanted+=" turbojpeg png16"; fi
if built INDEX; then wanted+=" sqlite3"; else unwanted+=" sqlite3"; fi
for lib in $wanted; do
  pc --static --libs | grep -Eq -- "-l$lib( |$)" || fail "pkg-config --static --libs lacks -l$lib"
done
for lib in $unwanted; do
  if pc --static --libs | grep -Eq -- "-l$lib( |$)"; then fail "pkg-config --static --libs names -l$lib"; fi
done

# The flags name the temporary prefix, not the configured one.
flags=$(pc --cflags --libs)
case "$flags" in *"$prefix"*) ;; *) fail "pkg-config flags miss the prefix: $flags" ;; esac
# A library built with a sanitizer needs the sanitizer's runtime in its host
# too (first in the load order): the host gets the build's switch beside
# pkg-config's flags.  Preloading the runtime into a plain host is not
# enough: its exit can hang in a library destructor.
sanitize=""
grep -q '^DMS_SANITIZE_ADDRESS:BOOL=ON' "$build/CMakeCache.txt" && sanitize=-fsanitize=address,undefined
grep -q '^DMS_SANITIZE_THREAD:BOOL=ON' "$build/CMakeCache.txt" && sanitize=-fsanitize=thread
host=$work/c_host
# shellcheck disable=SC2086  # the flags are words
cc $sanitize -o "$host" "$source/tests/c_host/c_host.c" $flags >"$work/cc.log" 2>&1 ||
  { cat "$work/cc.log" >&2; fail "cc with $flags"; }
output=$(LD_LIBRARY_PATH=$libdir "$host" "$www" 2>&1) || { echo "$output" >&2; fail "the host failed"; }

# The installed program on the installed library reads the example
# configuration (moved to loopback, the fixtures named on the command line
# in place of its folders) and stops cleanly on SIGTERM.
sed 's/^interface = .*/interface = lo/; s/^port = .*/port = 49872/' \
  "$prefix/etc/dlna-dms.conf" >"$work/dlna-dms.conf"
LD_LIBRARY_PATH=$libdir "$prefix/bin/dlna-dms" --config "$work/dlna-dms.conf" --www "$www" \
  "$source/tests/fixtures/media/art/photo" >"$work/run.log" 2>&1 &
server=$!
for _ in $(seq 300); do
  if grep -q '^Sharing' "$work/run.log" || ! kill -0 "$server" 2>/dev/null; then break; fi
  sleep 0.1
done
grep -q '^Sharing .* as "Living room: DMS" at http://127.0.0.1:49872/' "$work/run.log" ||
  { cat "$work/run.log" >&2; fail "dlna-dms did not start with the example configuration"; }
kill -TERM "$server"
status=0
wait "$server" || status=$?
server=""
[ "$status" -eq 0 ] || { cat "$work/run.log" >&2; fail "dlna-dms exited with $status on SIGTERM"; }

if command -v man >/dev/null; then
  page=$(MANWIDTH=80 man -l "$prefix/share/man/man1/dlna-dms.1" 2>"$work/man.err") ||
    fail "man -l failed: $(cat "$work/man.err")"
  [ ! -s "$work/man.err" ] || fail "man -l warned: $(cat "$work/man.err")"
  echo "$page" | grep -q 'dlna-dms probe FILE' || fail "the manual page lacks its synopsis"
  warnings=$(groff -man -Tutf8 -ww -z "$prefix/share/man/man1/dlna-dms.1" 2>&1)
  [ -z "$warnings" ] || fail "groff warns about the manual page: $warnings"
else
  echo "man is missing: manual page not rendered"
fi

echo "install test: $(cd "$prefix" && find . -type f | wc -l) files installed; C host and dlna-dms ran"
