#!/usr/bin/env bash
# A real player as the test client: mpd with its UPnP database plugin and a
# null output, in a namespace of its own joined to the server's by a veth
# pair (its UPnP library ignores loopback), driven with mpc.  It must find
# the server, list the library, find tracks by a word inside the title in
# any case, by artist and by album, and play one.
# Runs inside the test runner's private network namespace; makes two more.
set -u
source "$(dirname "$0")/../support/player_test.sh"
mkdir "$work/music"
for file in id3v1-only.mp3 id3v24-utf8.mp3 mp3-no-tags.mp3 flac-vorbis-comments.flac; do
  cp "$media/tagged/$file" "$work/music/"
done
cat >"$work/mpd.conf" <<EOF
database {
  plugin "upnp"
}
audio_output {
  type "null"
  name "null"
}
bind_to_address "127.0.0.1"
port "6600"
log_file "$work/mpd.log"
EOF

serve "$work/music"
nsenter "$player_net" mpd --no-daemon "$work/mpd.conf" >"$work/mpd.out" 2>&1 &
veth_pids+=($!)
mpc() { in_player mpc "$@" 2>&1; }
server="dlna-dms: DMS"
for _ in $(seq 60); do [ "$(mpc ls "$server/music" | wc -l)" -eq 4 ] && break; sleep 0.5; done

check "mpd lists the four tracks of the shared folder" test "$(mpc ls "$server/music" | wc -l)" -eq 4
titles() { mpc -f '%title%' search "$@" | sort | tr '\n' '|'; }
check "a word inside the title, in another case" test "$(titles title "CRÈME V1")" = "Café & Crème v1|"
check "a title taken from the file name" test "$(titles title "no-TAGS")" = "mp3-no-tags|"
check "by artist" test "$(mpc search artist "ångström" | wc -l)" -eq 3
check "by album" test "$(mpc search album "fixtures" | wc -l)" -eq 3
# The views, as mpd's tree shows them: artists by name, an album's tracks.
check "Music, Pictures and Video come first" test "$(mpc ls "$server" | head -3 | tr '\n' '|')" = \
  "$server/Music|$server/Pictures|$server/Video|"
check "the artists view" test "$(mpc ls "$server/Music/Artists" | sed 's:.*/::' | tr '\n' '|')" = "Unknown Artist|Zoë Ångström|"
check "an album's tracks" test "$(mpc ls "$server/Music/Albums/Tëst Fixtures" | wc -l)" -eq 3
track=$(mpc search title "crème v1")
mpc -q add "$track"
mpc -q play
for _ in $(seq 30); do grep -q 'played' "$work/mpd.log" && break; sleep 0.2; done
check "it plays one to its end" grep -q "player: played" "$work/mpd.log"
finish
