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
# The library is compiled once into fuzz/out/library_objects/, one object per
# source, again only where the source or a header it includes changed; with
# every optional feature built in (the *Absent.cpp stand-ins are left out).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out="$root/fuzz/out"
cxx=${CXX_FUZZ:-clang++}
mkdir -p "$out"
flags=(-g -O1 -fno-omit-frame-pointer -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined
       -std=c++20 -D_FILE_OFFSET_BITS=64 -D_LARGEFILE64_SOURCE -Wall -Wextra -I "$root/src" -I "$root/include"
       '-DDMS_FEATURE_LIST="tags pictures index views"')
all=(detect_fuzz front_door_fuzz request_fuzz criteria_fuzz config_fuzz playlist_fuzz clients_fuzz subtitles_fuzz)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${all[@]}")

libs=(libupnp libmicrohttpd taglib libturbojpeg libpng libcurl expat sqlite3)
library_built=no

# Whether `object` must be compiled again: it or its dependency list is
# missing, or a file the list names is newer or gone.
stale() {
  local object=$1 deps=$2 file
  [ -f "$object" ] && [ -f "$deps" ] || return 0
  for file in $(sed -e 's/^[^:]*://' -e 's/\\$//' "$deps"); do
    [ -e "$file" ] && [ ! "$file" -nt "$object" ] || return 0
  done
  return 1
}

# The whole library, one object per source, built in parallel.
build_library() {
  [ "$library_built" = no ] || return 0
  objects="$out/library_objects"
  mkdir -p "$objects"
  read -r -a cflags <<<"$(pkg-config --cflags "${libs[@]}")"
  local compile=("$cxx" "${flags[@]/-fsanitize=fuzzer,/-fsanitize=fuzzer-no-link,}" "${cflags[@]}")
  # Objects made with other flags are all made again.
  local stamp="$objects/flags"
  if [ "$(cat "$stamp" 2>/dev/null)" != "${compile[*]}" ]; then
    rm -f "$objects"/*.o "$objects"/*.d
    printf '%s' "${compile[*]}" >"$stamp"
  fi
  # Objects of sources that are gone would be linked in: removed.
  local object source name sources
  sources=$(find "$root/src" -name '*.cpp' ! -name '*Absent.cpp' -print | tr / _)
  for object in "$objects"/*.o; do
    [ -e "$object" ] || continue
    grep -Fxq "$(basename "$object" .o)" <<<"$sources" || rm -f "$object" "${object%.o}.d"
  done
  local todo=()
  while IFS= read -r -d '' source; do
    name="$objects/$(echo "$source" | tr / _)"
    if stale "$name.o" "$name.d"; then todo+=("$source"); fi
  done < <(find "$root/src" -name '*.cpp' ! -name '*Absent.cpp' -print0)
  if [ ${#todo[@]} -gt 0 ]; then
    echo "compiling ${#todo[@]} library source(s)"
    printf '%s\0' "${todo[@]}" |
      xargs -0 -P "$(nproc)" -I{} sh -c \
        'f="$1"; shift; o="$0/$(echo "$f" | tr / _)"; exec "$@" -MMD -MF "$o.d" -c "$f" -o "$o.o"' \
        "$objects" {} "${compile[@]}"
  fi
  library_built=yes
}

# Links fuzz/<target>.cpp with the whole library.
link_with_library() {
  local target=$1
  build_library
  read -r -a cflags <<<"$(pkg-config --cflags "${libs[@]}")"
  read -r -a ldflags <<<"$(pkg-config --libs "${libs[@]}")"
  "$cxx" "${flags[@]}" "${cflags[@]}" "$root/fuzz/$target.cpp" "$out/library_objects"/*.o "${ldflags[@]}" \
    -lexpat -lpthread -o "$out/$target"
}

for target in "${targets[@]}"; do
  case "$target" in
    detect_fuzz)
      "$cxx" "${flags[@]}" "$root/fuzz/detect_fuzz.cpp" "$root"/src/mfd/*.cpp "$root/src/util/osal_trace.cpp" \
        "$root/src/util/dmsGuard.cpp" "$root/src/art/dmsArtImage.cpp" "$root/src/art/dmsArtDecode.cpp" \
        -lturbojpeg -lpng -o "$out/detect_fuzz" ;;
    front_door_fuzz|request_fuzz|criteria_fuzz)
      link_with_library "$target" ;;
    config_fuzz)
      # The host's option reading, and the library's reading of client rules.
      read -r -a cflags <<<"$(pkg-config --cflags libupnp)"
      "$cxx" "${flags[@]}" "${cflags[@]}" -I "$root/host" "$root/fuzz/config_fuzz.cpp" "$root/host/host_options.cpp" \
        "$root/src/api/dlna_dmsClients.cpp" "$root/src/clients/dmsClients.cpp" "$root/src/util/dmsGuard.cpp" \
        "$root/src/util/osal_trace.cpp" -o "$out/config_fuzz" ;;
    clients_fuzz)
      "$cxx" "${flags[@]}" "$root/fuzz/clients_fuzz.cpp" "$root/src/clients/dmsClients.cpp" -o "$out/clients_fuzz" ;;
    subtitles_fuzz)
      "$cxx" "${flags[@]}" "$root/fuzz/subtitles_fuzz.cpp" "$root/src/subtitles/dmsSubtitles.cpp" \
        -o "$out/subtitles_fuzz" ;;
    playlist_fuzz)
      # The reader is text alone: its one source.
      "$cxx" "${flags[@]}" "$root/fuzz/playlist_fuzz.cpp" "$root/src/playlist/dmsPlaylistRead.cpp" \
        -o "$out/playlist_fuzz" ;;
    *) echo "unknown target $target (one of: ${all[*]})" >&2; exit 2 ;;
  esac
  echo "built $out/$target"
done
