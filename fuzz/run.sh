#!/bin/bash
# Builds the fuzzers and runs each, one job, for the given number of seconds
# (default 600): detect_fuzz on a corpus seeded from every file under
# tests/fixtures/media, front_door_fuzz on one seeded from fuzz/seeds/.
# Crashing inputs are written to fuzz/crashes/.
#   fuzz/run.sh [seconds] [target] [extra libFuzzer options...]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-600}
shift || true
only=${1:-}
shift || true
if [ -n "$only" ]; then "$root/fuzz/build.sh" "$only"; else "$root/fuzz/build.sh"; fi

corpus="$root/fuzz/corpus"
crashes="$root/fuzz/crashes"
mkdir -p "$corpus" "$crashes"
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

cd "$root/fuzz"
if [ -z "$only" ] || [ "$only" = detect_fuzz ]; then
  "$root/fuzz/out/detect_fuzz" -max_total_time="$seconds" \
    -max_len=65536 -rss_limit_mb=2048 -artifact_prefix="$crashes/" -print_final_stats=1 \
    "$@" "$corpus"
fi
if [ -z "$only" ] || [ "$only" = front_door_fuzz ]; then
  # Its corpus grows beside the committed seeds.
  doors="$root/fuzz/corpus-front-door"
  mkdir -p "$doors"
  "$root/fuzz/out/front_door_fuzz" -max_total_time="$seconds" \
    -max_len=70000 -rss_limit_mb=2048 -artifact_prefix="$crashes/" -print_final_stats=1 \
    "$@" "$doors" "$root/fuzz/seeds/front_door"
fi
