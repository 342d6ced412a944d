# Sourced by the tests that drive a real player, with the test's arguments
# (the program, the www folder, the fixture media): the checks, a veth pair,
# a scratch folder $work removed at exit, `serve OPTION... FOLDER...`, which
# starts the server on the pair's server end at port 49410, and
# `share_track_and_video FOLDER`, the folder the players browse and play.
program=$1
www=$2
media=$3
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
source "$(dirname "${BASH_SOURCE[0]}")/veth_pair.sh"
work=$(mktemp -d)
trap 'cleanup_veth; rm -rf "$work"' EXIT
serve() {
  nsenter "$server_net" "$program" --interface dms-srv --port 49410 --www "$www" "$@" >"$work/server.log" 2>&1 &
  veth_pids+=($!)
}
share_track_and_video() {
  mkdir -p "$1"
  cp "$media/tagged/id3v24-utf8.mp3" "$1/track.mp3"
  cp "$media/containers/mkv-h264-aac.mkv" "$1/clip.mkv"
}
