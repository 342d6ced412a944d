#!/bin/bash
# Builds the fuzzers (libFuzzer, AddressSanitizer and UBSan) with clang into
# fuzz/out/: detect_fuzz (format detection, the Exif thumbnail locator and
# the picture decoders) and front_door_fuzz (the Host check, GENA headers and
# SOAP control of the services, over the whole library).
#   fuzz/build.sh [target...]   (default: both)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out="$root/fuzz/out"
cxx=${CXX_FUZZ:-clang++}
mkdir -p "$out"
flags=(-g -O1 -fno-omit-frame-pointer -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined
       -std=c++20 -D_FILE_OFFSET_BITS=64 -D_LARGEFILE64_SOURCE -Wall -Wextra -I "$root/src" -I "$root/include")
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(detect_fuzz front_door_fuzz)

for target in "${targets[@]}"; do
  case "$target" in
    detect_fuzz)
      "$cxx" "${flags[@]}" "$root/fuzz/detect_fuzz.cpp" "$root"/src/mfd/*.cpp "$root/src/util/osal_trace.cpp" \
        "$root/src/util/dmsGuard.cpp" "$root/src/art/dmsArtImage.cpp" "$root/src/art/dmsArtDecode.cpp" \
        -lturbojpeg -lpng -o "$out/detect_fuzz" ;;
    front_door_fuzz)
      # The whole library, one object per source, built in parallel.
      objects="$out/front_door_objects"
      mkdir -p "$objects"
      libs=(libupnp libmicrohttpd taglib libturbojpeg libpng libcurl expat)
      read -r -a cflags <<<"$(pkg-config --cflags "${libs[@]}")"
      find "$root/src" -name '*.cpp' -print0 |
        xargs -0 -P "$(nproc)" -I{} sh -c 'f="$1"; shift; exec "$@" -c "$f" -o "$0/$(echo "$f" | tr / _).o"' \
          "$objects" {} "$cxx" "${flags[@]/-fsanitize=fuzzer,/-fsanitize=fuzzer-no-link,}" "${cflags[@]}"
      read -r -a ldflags <<<"$(pkg-config --libs "${libs[@]}")"
      "$cxx" "${flags[@]}" "${cflags[@]}" "$root/fuzz/front_door_fuzz.cpp" "$objects"/*.o "${ldflags[@]}" -lpthread \
        -o "$out/front_door_fuzz" ;;
    *) echo "unknown target $target" >&2; exit 2 ;;
  esac
  echo "built $out/$target"
done
