# Sourced by the shell tests: `check DESCRIPTION COMMAND...` runs the command
# and counts it as passed or failed; `finish` prints the totals and is the
# script's status.  Sourcing it also gives the script a state folder of its
# own for dlna-dms.
failures=0
passes=0
# dlna-dms keeps its index in a state folder: each test script has a fresh
# one of its own, so that ids start from 1001 and nothing lands in $HOME.
XDG_STATE_HOME=$(mktemp -d)
export XDG_STATE_HOME
unset STATE_DIRECTORY
check() {
  local what=$1; shift
  if "$@"; then echo "ok: $what"; passes=$((passes + 1)); else echo "FAILED: $what"; failures=$((failures + 1)); fi
}
finish() {
  rm -rf "$XDG_STATE_HOME"
  echo "$passes passed, $failures failed"
  [ "$failures" -eq 0 ]
}
