#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build and test the server.
# Usage: scripts/deps.sh [build|test|fixtures]   (test also brings the test
# tools; fixtures the encoders that tests/fixtures/make-*-fixtures.sh run)
set -euo pipefail

want=(build-essential cmake pkg-config libupnp-dev libmicrohttpd-dev libtag1-dev libturbojpeg0-dev libpng-dev libcurl4-openssl-dev libexpat1-dev libsqlite3-dev)
if [ "${1:-build}" = test ]; then
  want+=(libgtest-dev libgmock-dev iproute2 util-linux gupnp-tools curl python3 chromium chromium-driver python3-selenium mpd mpc vlc-bin vlc-plugin-base kodi xvfb libgl1-mesa-dri abigail-tools)
  want+=(man-db)  # the install test renders the manual page
fi
if [ "${1:-build}" = fixtures ]; then
  want+=(ffmpeg sox lame flac opus-tools vorbis-tools mkvtoolnix eyed3 id3v2 \
    libimage-exiftool-perl imagemagick python3)
fi

missing=()
for package in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
    missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
# The tests run their own mpd in a namespace of their own; the system's
# daemon that the package may have started is not wanted.
if [[ " ${missing[*]} " == *" mpd "* ]] && command -v systemctl >/dev/null; then
  $sudo systemctl disable --now mpd.service mpd.socket >/dev/null 2>&1 || true
fi
