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
# Stops server `pid` with SIGTERM and waits at most 20 s for it; a server
# that does not end has its threads' stacks printed (when gdb is there)
# and is killed.  false when it had to be killed.
stop_server() {
  local pid=$1
  kill -TERM "$pid" 2>/dev/null
  for _ in $(seq 200); do kill -0 "$pid" 2>/dev/null || { wait "$pid" 2>/dev/null; return 0; }; sleep 0.1; done
  echo "server $pid did not stop within 20 s; its threads:"
  command -v gdb >/dev/null && gdb -p "$pid" -batch -ex "thread apply all bt" 2>/dev/null | grep -E '^(#|Thread)'
  kill -KILL "$pid"; wait "$pid" 2>/dev/null
  return 1
}
finish() {
  rm -rf "$XDG_STATE_HOME"
  echo "$passes passed, $failures failed"
  [ "$failures" -eq 0 ]
}
