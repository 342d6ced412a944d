# Sourced by the shell tests: `check DESCRIPTION COMMAND...` runs the command
# and counts it as passed or failed; `finish` prints the totals and is the
# script's status.
failures=0
passes=0
check() {
  local what=$1; shift
  if "$@"; then echo "ok: $what"; passes=$((passes + 1)); else echo "FAILED: $what"; failures=$((failures + 1)); fi
}
finish() {
  echo "$passes passed, $failures failed"
  [ "$failures" -eq 0 ]
}
