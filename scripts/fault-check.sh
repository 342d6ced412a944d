#!/usr/bin/env bash
# Plants deliberate faults in the code, one at a time, and checks that the
# test suite catches each: scripts/fault-check.sh [TREE] [FAULT-NUMBER...]
#
# TREE is a git work tree of this project (default: this one); the faults are
# planted in its files and undone with `git checkout` afterwards, so use a
# spare work tree (`git worktree add /tmp/faults HEAD`) if you are editing.
# Each fault is an exact text replacement; a fault whose text is no longer
# found is reported as "stale" so the table follows the code.  Prints one line
# per fault: number, caught or MISSED, the first failing test, and the fault.
set -uo pipefail
tree=$(cd "${1:-$(dirname "$0")/..}" && pwd)
shift || true

# number | build (plain or tsan) | file | text | replacement | what it breaks
faults=(
"1|plain|src/services/dmsCdsMgrResponseHandler.cpp|? requested : childCount - start;|? requested + 1 : childCount - start;|Browse paging returns one child too many"
"2|plain|src/util/dlnaUtil_xmlText.cpp|case '&': return \"&amp;\";|case '&': return \"&\";|XML escaping of & dropped (DIDL-Lite and description)"
"3|plain|src/mfd/mfd_mp3.cpp|                  padding;|                  0u * padding;|MP3 padding bit ignored"
"4|plain|src/http/dmsMediaServer.cpp|  range.count = (open || last >= length ? length : last + 1) - first;|  range.count = (open || last >= length ? length : last) - first;|last byte of a media range not sent"
"5|plain|src/util/cel_rbTree.cpp|rotate(tree, grand, !parentIsLeft);|rotate(tree, grand, parentIsLeft);|red-black insert rotation mirrored"
"6|plain|src/http/dmsAvtHttpMedia.cpp|size_t lead = static_cast<size_t>((position - dataOffset) & 1);|size_t lead = 0 * static_cast<size_t>((position - dataOffset) & 1);|LPCM byte swap misaligned at odd offsets"
"7|tsan|src/services/dmsCdsMgrResponseHandler.cpp|  auto reading = dmsClmReadLock(handle->contentList);|  /* no read lock */|Browse reads the list without its shared lock"
"8|plain|src/services/dmsDeviceEventMgr.cpp|720,   \"No Such Container\"|701,   \"No Such Container\"|fault code 720 changed to 701"
"9|plain|src/mfd/mfd_wav.cpp|+ chunkSize + (chunkSize & 1u);|+ chunkSize;|WAV chunk walk ignores the pad byte of odd chunks"
"10|plain|src/mfd/mfd_jpeg.cpp|if (tiff[0] == 'I' && tiff[1] == 'I') littleEndian = true;|if (tiff[0] == 'X') littleEndian = true;|Exif read big-endian only"
"11|plain|src/content/dmsClmScan.cpp|return a.name < b.name;|return a.name > b.name;|scan visits names in reverse order"
"12|plain|src/services/dmsCdsSearchMatch.cpp|    return found == (term.op == Op::kContains);|    return found == (term.op == Op::kDoesNotContain);|Search contains and doesNotContain swapped"
"13|plain|src/content/dmsClmShares.cpp|if (list->wideLinks.load(std::memory_order_relaxed)) return true;|return true;|links out of the shares followed by default"
"14|plain|src/http/dmsAvtHttpMedia.cpp|\"contentFeatures.dlna.org: \"|\"contentFeatures: \"|contentFeatures.dlna.org header misnamed"
"15|plain|src/http/dmsAvtHttpMedia.cpp|  if (*cursor != '\\0' && *cursor != '?') return false;|  if (false) return false;|media URL with trailing junk accepted"
)

build_dir() { [ "$1" = tsan ] && echo "$tree/build-fault-tsan" || echo "$tree/build-fault"; }
configure() {  # kind
  local options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DDMS_BUILD_BENCH=OFF)
  [ "$1" = tsan ] && options+=(-DDMS_SANITIZE_THREAD=ON)
  cmake -S "$tree" -B "$(build_dir "$1")" "${options[@]}" >/dev/null
}
run_suite() {  # kind -> prints the first failing test, exit 0 when all pass
  local dir log
  dir=$(build_dir "$1")
  log="$dir/fault-ctest.log"
  cmake --build "$dir" -j "$(nproc)" >"$dir/fault-build.log" 2>&1 || { echo "(build failed)"; return 1; }
  TSAN_OPTIONS="halt_on_error=1" unshare -n sh -c 'ip link set lo up &&
    ip route add 224.0.0.0/4 dev lo src 127.0.0.1 2>/dev/null;
    cd "$0" && exec ctest --output-on-failure --stop-on-failure --timeout 300' "$dir" >"$log" 2>&1 && return 0
  # The first failing test: a test case of a test binary, or a ctest entry.
  local first
  first=$(grep -m1 -oE '^\[  FAILED  \] [A-Za-z0-9_/]+\.[^ ,]+|^FAILED: .*' "$log" | sed -E 's/^\[  FAILED  \] //')
  grep -q 'ThreadSanitizer: data race' "$log" && first="${first:-$(sed -n 's/^ *[0-9]*\/[0-9]* Test *#[0-9]*: \([^ ]*\).*/\1/p' "$log" | tail -1)} (data race)"
  [ -n "$first" ] || first=$(grep -m1 -E '\*\*\*(Failed|Timeout|Exception)|\(Failed\)|\(Timeout\)' "$log" |
    sed -E 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+).*/\1/')
  grep -qE 'SEGV|Subprocess aborted|Exception: ' "$log" && first="${first:-crash} (crashed)"
  echo "$first"
  return 1
}
plant() {  # file text replacement -> 0 when planted
  python3 - "$tree/$1" "$2" "$3" <<'EOF'
import sys
path, text, replacement = sys.argv[1], sys.argv[2], sys.argv[3]
source = open(path, encoding="utf-8").read()
if text not in source:
    sys.exit(1)
open(path, "w", encoding="utf-8").write(source.replace(text, replacement, 1))
EOF
}

wanted=("$@")
configured=""
caught=0 missed=0
for row in "${faults[@]}"; do
  IFS='|' read -r number kind file text replacement what <<<"$row"
  if [ ${#wanted[@]} -gt 0 ] && [[ " ${wanted[*]} " != *" $number "* ]]; then continue; fi
  [[ "$configured" == *"$kind"* ]] || { configure "$kind"; configured+=" $kind"; }
  if ! plant "$file" "$text" "$replacement"; then
    printf '%3s  stale   %-50s %s\n' "$number" "-" "$what"; missed=$((missed + 1)); continue
  fi
  if first=$(run_suite "$kind"); then
    printf '%3s  MISSED  %-50s %s\n' "$number" "-" "$what"; missed=$((missed + 1))
  else
    printf '%3s  caught  %-50s %s\n' "$number" "${first:-?}" "$what"; caught=$((caught + 1))
  fi
  git -C "$tree" checkout -q -- "$file"
done
echo "faults: $caught caught, $missed missed"
[ "$missed" -eq 0 ]
