#!/usr/bin/env bash
# A real player as the test client: Kodi on a virtual X display with a null
# ALSA device, in a namespace of its own joined to the server's by a veth
# pair, driven over its JSON-RPC port by kodi_driver.py: it must find the
# server by SSDP, browse into the shared folder and play a video and a
# track to their ends.
# Runs inside the test runner's private network namespace; makes two more.
set -u
program=$1
www=$2
media=$3
here=$(dirname "$0")
source "$here/../support/checks.sh"
source "$here/../support/veth_pair.sh"
work=$(mktemp -d)
trap 'cleanup_veth; rm -rf "$work"' EXIT
mkdir "$work/shared" "$work/home"
cp "$media/tagged/id3v24-utf8.mp3" "$work/shared/track.mp3"
cp "$media/containers/mkv-h264-aac.mkv" "$work/shared/clip.mkv"
# Kodi plays its audio into ALSA's default device: here one that discards it.
printf 'pcm.!default { type null }\nctl.!default { type hw card 0 }\n' >"$work/home/.asoundrc"

nsenter "$server_net" "$program" --interface dms-srv --port 49410 --www "$www" \
  --state-dir=none --views=no "$work/shared" >"$work/server.log" 2>&1 &
veth_pids+=($!)
nsenter "$player_net" Xvfb -displayfd 3 -screen 0 640x480x24 -nolisten tcp 3>"$work/display" >"$work/xvfb.log" 2>&1 &
veth_pids+=($!)
for _ in $(seq 50); do [ -s "$work/display" ] && break; sleep 0.1; done
kodi_bin=$(ls /usr/lib/*/kodi/kodi.bin | head -1)
nsenter "$player_net" env DISPLAY=":$(cat "$work/display")" HOME="$work/home" \
  "$kodi_bin" --windowing=x11 >"$work/kodi.out" 2>&1 &
veth_pids+=($!)

in_player timeout 120 python3 "$here/kodi_driver.py" "dlna-dms: DMS"
check "Kodi finds, browses and plays from the server" test $? -eq 0
finish
