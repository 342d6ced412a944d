#!/usr/bin/env bash
# The shared library's public face: it exports exactly the committed list of
# symbols, none of them C++, and its functions and the types they take are
# those of the committed ABI baseline (abidiff; an added export is fine, a
# removed or changed one is not).  After a deliberate change of the API,
# scripts/abi-baseline.sh writes both files anew.
set -u
library=$1
top=$2
source "$(dirname "$0")/../support/checks.sh"
exported=$(nm -D --defined-only "$library" | awk '{print $3}' | sort)
check "the exports are the committed list" diff -u "$top/abi/libdlnadms.symbols" - <<<"$exported"
check "no C++ symbol is exported" test -z "$(grep '^_Z' <<<"$exported")"
check "the exported functions and their types match the baseline" \
  abidiff --exported-interfaces-only --no-added-syms --headers-dir2 "$top/include" \
  "$top/abi/libdlnadms.abi" "$library"
finish
