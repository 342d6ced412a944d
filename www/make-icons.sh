#!/bin/sh
# Draws the four device icons served by the media server (48x48 and 120x120,
# JPEG and PNG, 24-bit colour without alpha) with ImageMagick's convert.
#
# The glyph: a rounded tile in a calm blue, a white play triangle, and under
# it a small stack of three bars standing for a shelf of stored media.
# It is drawn once at 480x480 and scaled down, which gives smooth edges.
#
# Usage: sh make-icons.sh   (writes the icons next to this script)
set -eu

cd "$(dirname "$0")"

MASTER=$(mktemp --suffix=.png)
trap 'rm -f "$MASTER"' EXIT

TILE='#2f6f97'
TILE_EDGE='#245a7c'
BARS='#cfe6f3'

convert -size 480x480 xc:white \
    -fill "$TILE_EDGE" -draw 'roundrectangle 16,16 463,463 100,100' \
    -fill "$TILE"      -draw 'roundrectangle 26,26 453,453 90,90' \
    -fill white        -draw 'polygon 190,92 190,288 352,190' \
    -fill "$BARS"      -draw 'roundrectangle 120,318 360,340 11,11' \
                       -draw 'roundrectangle 120,354 360,376 11,11' \
                       -draw 'roundrectangle 120,390 360,412 11,11' \
    -alpha off "$MASTER"

for s in 48 120; do
    convert "$MASTER" -filter Lanczos -resize "${s}x${s}" -alpha off -strip \
        -type TrueColor -define png:color-type=2 -define png:bit-depth=8 \
        "PNG24:${s}x${s}-icon.png"
    convert "$MASTER" -filter Lanczos -resize "${s}x${s}" -alpha off -strip \
        -type TrueColor -colorspace sRGB -interlace none -quality 92 \
        "JPEG:${s}x${s}-icon.jpg"
done
