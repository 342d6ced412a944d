#!/usr/bin/env bash
# Writes the ABI baseline of a built libdlnadms.so (default build/src) into
# abi/: the list of exported symbols and abidw's description of the exported
# functions and the types they reach.  Run after a deliberate API change and
# commit the result; tests/abi/abi_test.sh compares each build against it.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
library=${1:-$top/build/src/libdlnadms.so}
nm -D --defined-only "$library" | awk '{print $3}' | sort >"$top/abi/libdlnadms.symbols"
abidw --exported-interfaces-only --headers-dir "$top/include" --drop-private-types \
  --no-corpus-path --no-comp-dir-path "$library" >"$top/abi/libdlnadms.abi"
echo "abi/: $(wc -l <"$top/abi/libdlnadms.symbols") exported symbols"
