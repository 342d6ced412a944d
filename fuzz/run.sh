#!/bin/bash
# Builds the fuzzers and runs each, one job, for the given number of seconds
# (default 600), one after the other; with a target, only that one:
#   detect_fuzz      on a corpus seeded from every file under
#                    tests/fixtures/media (fuzz/corpus/)
#   front_door_fuzz  fuzz/seeds/front_door/ (corpus: fuzz/corpus-front-door/)
#   request_fuzz     fuzz/seeds/request/    (corpus: fuzz/corpus-request/)
#   criteria_fuzz    fuzz/seeds/criteria/   (corpus: fuzz/corpus-criteria/)
#   config_fuzz      fuzz/seeds/config/     (corpus: fuzz/corpus-config/)
#   playlist_fuzz    fuzz/seeds/playlist/   (corpus: fuzz/corpus-playlist/)
#   clients_fuzz     fuzz/seeds/clients/    (corpus: fuzz/corpus-clients/)
#   subtitles_fuzz   fuzz/seeds/subtitles/  (corpus: fuzz/corpus-subtitles/)
# Each corpus grows beside its committed seeds.  Every run has leak
# checking on, 2 GiB of memory and 10 s per input; crashing inputs are
# written to fuzz/crashes/.  The fuzzers run in a network namespace of
# their own (only a loopback) when this user may make one.
#   fuzz/run.sh [seconds] [target] [extra libFuzzer options...]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-600}
shift || true
only=${1:-}
shift || true
if [ -n "$only" ]; then "$root/fuzz/build.sh" "$only"; else "$root/fuzz/build.sh"; fi

crashes="$root/fuzz/crashes"
mkdir -p "$crashes"

isolated=()
if unshare -n true 2>/dev/null; then isolated=(unshare -n sh -c 'ip link set lo up && exec "$0" "$@"'); fi

wanted() { [ -z "$only" ] || [ "$only" = "$1" ]; }

# run TARGET MAX_LEN CORPUS... (extra options from the command line last)
run() {
  local target=$1 max_len=$2
  shift 2
  echo "== $target, $seconds s"
  (cd "$root/fuzz" && "${isolated[@]}" "$root/fuzz/out/$target" -max_total_time="$seconds" -max_len="$max_len" \
    -rss_limit_mb=2048 -timeout=10 -detect_leaks=1 -artifact_prefix="$crashes/" -print_final_stats=1 \
    "${extra[@]}" "$@")
}
extra=("$@")
failed=()  # a target that stops early is reported at the end; the others still run

if wanted detect_fuzz; then
  corpus="$root/fuzz/corpus"
  mkdir -p "$corpus"
  # Seeds: byte 0 names the file after the fixture's extension (see kNames).
  seed_index() {
    case "${1,,}" in
      mp3) echo 0 ;; wav) echo 1 ;; pcm) echo 2 ;; jpg|jpeg) echo 3 ;; png) echo 4 ;;
      gif) echo 5 ;; tif|tiff) echo 6 ;; mp4|m4a|3gp) echo 7 ;; ts) echo 8 ;; mpg|mpeg) echo 9 ;;
      wma) echo 10 ;; wmv|asf) echo 11 ;; ac3) echo 12 ;; aac|adts) echo 13 ;; ea3|oma) echo 14 ;;
      *) echo 19 ;;
    esac
  }
  while IFS= read -r -d '' file; do
    relative=${file#"$root/tests/fixtures/media/"}
    index=$(seed_index "${file##*.}")
    { printf "\\x$(printf %02x "$index")"; head -c 65536 "$file"; } > "$corpus/seed-${relative//\//_}"
  done < <(find "$root/tests/fixtures/media" -type f -print0)
  run detect_fuzz 65536 "$corpus" || failed+=(detect_fuzz)
fi

# The targets with committed seeds: name, seed folder, corpus folder, longest input.
while read -r target seeds corpus max_len; do
  wanted "$target" || continue
  mkdir -p "$root/fuzz/$corpus"
  run "$target" "$max_len" "$root/fuzz/$corpus" "$root/fuzz/seeds/$seeds" || failed+=("$target")
done <<'EOF'
front_door_fuzz front_door corpus-front-door 70000
request_fuzz    request    corpus-request    4096
criteria_fuzz   criteria   corpus-criteria   4096
config_fuzz     config     corpus-config     4096
playlist_fuzz   playlist   corpus-playlist   65536
clients_fuzz    clients    corpus-clients    2048
subtitles_fuzz  subtitles  corpus-subtitles  4096
EOF

if [ ${#failed[@]} -gt 0 ]; then
  echo "stopped early (see fuzz/crashes/): ${failed[*]}" >&2
  exit 1
fi
