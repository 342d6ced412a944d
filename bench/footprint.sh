#!/usr/bin/env bash
# Prints what the server costs a device: for each build folder given
# (default: every build*/ here with a library), the stripped size of
# libdlnadms.so and dlna-dms, the features built in and the shared libraries
# the library pulls in; then, for the builds this machine runs natively, the
# resident memory of dlna-dms idle on an empty folder and on 10,000 files,
# its threads, and how often each thread wakes while nothing happens.
# Starts the server: run it inside a private network namespace (the suite's
# runner does; by hand: unshare -n sh -c 'ip link set lo up && bench/footprint.sh').
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
builds=("$@")
[ ${#builds[@]} -gt 0 ] || for dir in "$top"/build*/; do [ -e "$dir/src/libdlnadms.so" ] && builds+=("${dir%/}"); done
media=$top/tests/fixtures/media
work=$(mktemp -d)
server=
trap '[ -n "$server" ] && kill -KILL "$server" 2>/dev/null; rm -rf "$work"' EXIT

kib() { echo $((($(stat -c %s "$1") + 512) / 1024)); }
machine() { readelf -h "$1" | sed -n 's/ *Machine: *//p'; }
strip_for() {  # the strip of the file's machine
  case $(machine "$1") in
    AArch64) echo aarch64-linux-gnu-strip ;;
    ARM) echo arm-linux-gnueabihf-strip ;;
    *) echo strip ;;
  esac
}
arch() {  # Debian's name of the file's machine
  case $(machine "$1") in
    AArch64) echo arm64 ;;
    ARM) echo armhf ;;
    *X86-64) echo amd64 ;;
    *) machine "$1" ;;
  esac
}
features() {
  local off
  off=$(sed -n 's/^DMS_WITH_\([A-Z]*\):BOOL=OFF$/\1/p' "$1/CMakeCache.txt" | tr 'A-Z\n' 'a-z ')
  [ -n "$off" ] && echo "without: $off" || echo "all features"
}

echo "== sizes (stripped)"
printf '%-14s %-8s %-30s %9s %9s  %s\n' build machine features "lib KiB" "host KiB" "libraries pulled in"
for build in "${builds[@]}"; do
  lib=$(readlink -f "$build/src/libdlnadms.so")
  "$(strip_for "$lib")" -o "$work/lib" "$lib" && "$(strip_for "$lib")" -o "$work/host" "$build/host/dlna-dms"
  needed=$(readelf -d "$lib" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | sed 's/\.so.*//' | tr '\n' ' ')
  printf '%-14s %-8s %-30s %9s %9s  %s\n' "$(basename "$build")" "$(arch "$lib")" "$(features "$build")" \
    "$(kib "$work/lib")" "$(kib "$work/host")" "$needed"
done

# 10,000 files: one small MP3 linked into 100 folders of 100.
mkdir -p "$work/empty" "$work/many"
for folder in $(seq -w 0 99); do
  mkdir "$work/many/$folder"
  for file in $(seq -w 0 99); do ln "$media/tagged/id3v24-utf8.mp3" "$work/many/$folder/$file.mp3" 2>/dev/null ||
    cp "$media/tagged/id3v24-utf8.mp3" "$work/many/$folder/$file.mp3"; done
done

status() { sed -n "s/^$2:[[:space:]]*//p" "/proc/$1/status" | sed 's/ kB//'; }
switches() {  # per thread: its id, its name and its context switches so far
  local task
  for task in /proc/"$1"/task/*; do
    echo "${task##*/}|$(cat "$task/comm")|$(($(status "$1/task/${task##*/}" voluntary_ctxt_switches) + \
      $(status "$1/task/${task##*/}" nonvoluntary_ctxt_switches)))"
  done | sort -t'|' -k1,1
}
measure() {  # build, folder, label
  local port=49300 before after
  "$1/host/dlna-dms" --port $port --address 127.0.0.1 --state-dir=none --www "$top/www" "$2" >"$work/log" 2>&1 &
  server=$!
  local up=0
  for _ in $(seq 300); do curl -sf -o /dev/null --max-time 1 "http://127.0.0.1:$port/description.xml" && up=1 && break; sleep 0.1; done
  if [ $up -eq 0 ]; then
    echo "$(basename "$1"): dlna-dms did not answer on $3"; failed=1
    kill -KILL $server; wait $server 2>/dev/null; server=; return
  fi
  sleep 3
  printf '%-14s %-22s %8s %10s %8s\n' "$(basename "$1")" "$3" "$(($(status $server VmRSS) / 1024)).$(($(status $server VmRSS) % 1024 * 10 / 1024))" \
    "$(($(status $server RssAnon) / 1024)).$(($(status $server RssAnon) % 1024 * 10 / 1024))" "$(status $server Threads)"
  if [ "$3" = "empty folder" ]; then
    before=$(switches $server); sleep 10; after=$(switches $server)
    wakes+=$(join -t'|' <(echo "$before") <(echo "$after") |
      awk -F'|' -v b="$(basename "$1")" '{ printf "%-14s %-16s %7s %5.1f /s\n", b, $2, $1, ($5 - $3) / 10 }')$'\n'
  fi
  kill -TERM $server; wait $server 2>/dev/null; server=
}

echo "== memory and threads at idle (native builds)"
printf '%-14s %-22s %8s %10s %8s\n' build shares "RSS MB" "anon MB" threads
wakes=
failed=0
for build in "${builds[@]}"; do
  [ "$(machine "$build/src/libdlnadms.so")" = "$(machine /bin/sh)" ] || continue
  measure "$build" "$work/empty" "empty folder"
  measure "$build" "$work/many" "10,000 files"
done
echo "== wake-ups while idle on an empty folder (context switches per second, 10 s)"
printf '%s' "$wakes"
exit $failed
