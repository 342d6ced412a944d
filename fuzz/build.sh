#!/bin/bash
# Builds the detection fuzzer (libFuzzer, AddressSanitizer and UBSan) with
# clang into fuzz/out/detect_fuzz.  It also covers the Exif thumbnail locator
# and the picture decoders, which need libturbojpeg and libpng.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out="$root/fuzz/out"
cxx=${CXX_FUZZ:-clang++}
mkdir -p "$out"

"$cxx" -g -O1 -fno-omit-frame-pointer -fsanitize=fuzzer,address,undefined \
  -fno-sanitize-recover=undefined -std=c++20 -D_FILE_OFFSET_BITS=64 -D_LARGEFILE64_SOURCE \
  -Wall -Wextra -I "$root/src" -I "$root/include" \
  "$root/fuzz/detect_fuzz.cpp" "$root"/src/mfd/*.cpp "$root/src/util/osal_trace.cpp" "$root/src/util/dmsGuard.cpp" \
  "$root/src/art/dmsArtImage.cpp" "$root/src/art/dmsArtDecode.cpp" \
  -lturbojpeg -lpng -o "$out/detect_fuzz"
echo "built $out/detect_fuzz"
