#!/bin/bash
# Builds the fuzzers (libFuzzer, AddressSanitizer and UBSan) with clang into
# fuzz/out/:
#   detect_fuzz      format detection, the Exif thumbnail locator and the
#                    picture decoders
#   front_door_fuzz  the Host check, GENA headers, route lookup and SOAP
#                    control of the services, over the whole library
#   request_fuzz     the Range header reader
#   criteria_fuzz    Search criteria, Filter and SortCriteria through the
#                    ContentDirectory Search action; every answer must be
#                    well-formed XML
#   config_fuzz      the host program's configuration file
#   playlist_fuzz    the playlist reader (M3U, M3U8 and PLS text)
#   clients_fuzz     client rules and the recognition of request headers
#   subtitles_fuzz   sidecar subtitle names matched to a video, subtitle URLs
#   fuzz/build.sh [target...]   (default: all)
# CMake builds them (DMS_BUILD_FUZZ) in fuzz/out/build/, with every optional
# feature built in, compiling again only what changed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/fuzz/out/build"
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(detect_fuzz front_door_fuzz request_fuzz criteria_fuzz config_fuzz playlist_fuzz
  clients_fuzz subtitles_fuzz)
cmake -S "$root" -B "$build" -DCMAKE_C_COMPILER="${CC_FUZZ:-clang}" -DCMAKE_CXX_COMPILER="${CXX_FUZZ:-clang++}" \
  -DCMAKE_BUILD_TYPE= -DCMAKE_CXX_FLAGS="-g -O1" -DDMS_BUILD_FUZZ=ON -DDMS_BUILD_TESTS=OFF -DDMS_BUILD_BENCH=OFF \
  >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"
printf 'built %s\n' "${targets[@]/#/$root/fuzz/out/}"
