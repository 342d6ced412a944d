#!/usr/bin/env bash
# A real player as the test client: Kodi on a virtual X display with a null
# ALSA device, in a namespace of its own joined to the server's by a veth
# pair, driven over its JSON-RPC port by kodi_driver.py: it must find the
# server by SSDP, browse into the shared folder and play a video and a
# track to their ends.
# Runs inside the test runner's private network namespace; makes two more.
set -u
here=$(dirname "$0")
source "$here/../support/player_test.sh"
share_track_and_video "$work/shared"
# Kodi plays its audio into ALSA's default device: here one that discards it.
mkdir "$work/home"
printf 'pcm.!default { type null }\nctl.!default { type hw card 0 }\n' >"$work/home/.asoundrc"
serve --state-dir=none --views=no "$work/shared"
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
