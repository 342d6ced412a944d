#!/usr/bin/env bash
# A real player as the test client: VLC (cvlc with null audio and video
# outputs) in a namespace of its own joined to the server's by a veth pair.
# It is given the ContentDirectory control URL named in the device
# description and the root's ObjectID, as its own UPnP discovery would hand
# it: it must browse into the shared folder and play the track and the
# video found there to their ends.
# Runs inside the test runner's private network namespace; makes two more.
set -u
source "$(dirname "$0")/../support/player_test.sh"
mkdir "$work/home" && chown 65534:65534 "$work/home" && chmod 755 "$work"
share_track_and_video "$work/shared"
chmod -R a+rX "$work/shared"
serve --state-dir=none --views=no "$work/shared"
base=http://10.77.0.1:49410
for _ in $(seq 40); do in_player curl -sf --max-time 2 -o "$work/description.xml" "$base/description.xml" && break; sleep 0.25; done
control=$(tr -d '\n' <"$work/description.xml" | grep -o 'ContentDirectory:1</serviceType>.*' |
  grep -o '<controlURL>[^<]*' | head -1 | cut -d'>' -f2)
check "the description names the ContentDirectory control URL" test -n "$control"

# VLC will not run as root; its UPnP access takes the URL without "http://".
in_player timeout 90 setpriv --reuid=65534 --regid=65534 --clear-groups env HOME="$work/home" \
  cvlc -I dummy --aout adummy --vout vdummy --no-video-title-show --play-and-exit -vv \
  "upnp://10.77.0.1:49410$control?ObjectID=0" >"$work/vlc.log" 2>&1
check "VLC finishes its playlist" test $? -eq 0
opened() { grep -c "gives access \`http' demux \`any' path \`10.77.0.1:49410/web/[0-9]*\.$1'" "$work/vlc.log"; }
check "it browses into the shared folder and opens the video" test "$(opened mkv)" -eq 1
check "and the track" test "$(opened mp3)" -eq 1
check "the video is decoded" grep -q 'using video decoder module "avcodec"' "$work/vlc.log"
check "the track is decoded" grep -q 'using audio decoder module "mpg123"' "$work/vlc.log"
check "both reach their ends" test "$(grep -c 'main input debug: EOF reached' "$work/vlc.log")" -ge 3
finish
