#!/usr/bin/env bash
# Builds the server (installing what is missing first) and runs it on the
# folders given: scripts/run.sh [dlna-dms options] FOLDER...
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh" build
cmake -S "$top" -B "$top/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DDMS_BUILD_TESTS=OFF -DDMS_BUILD_BENCH=OFF >/dev/null
cmake --build "$top/build" -j "$(nproc)" --target dlna-dms >/dev/null
exec "$top/build/host/dlna-dms" "$@"
