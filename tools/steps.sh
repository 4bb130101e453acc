# Sourced by the tools: runs long commands step by step. On a terminal one line shows which step runs,
# for how long, and the last line that it printed; otherwise each step is a short line of its own, with
# its time at the end. All that the steps print goes to a file.

# begin_steps <number of steps> <file for the details>
begin_steps() {
  steps=$1 details=$2 current=0
  mkdir -p "${details%/*}"
  : >"$details"
}

# step <what> <command>... : says what, runs the command, and returns its status. If that is not 0,
# says how it ended, shows the end of the details and names their file.
step() {
  local what="[$((++current))/$steps] $1" started=$SECONDS status=0 drawer=
  shift
  if [ -t 1 ] && [ "${TERM:-dumb}" != dumb ]; then
    draw_line "$what" "$$" &
    drawer=$!
  else
    printf '%s ...' "$what"
  fi
  "$@" >>"$details" 2>&1 </dev/null || status=$?
  if [ -n "$drawer" ]; then
    kill "$drawer" 2>/dev/null || true
    wait "$drawer" 2>/dev/null || true
    printf '\r\033[K%s:' "$what"
  fi
  printf ' %d s\n' $((SECONDS - started))
  if [ "$status" -ne 0 ]; then
    tail -n 40 "$details" >&2
    echo "That failed (exit status $status): $*. All of it: $details" >&2
  fi
  return "$status"
}

# Draws the line until the tool has ended.
draw_line() {
  local started=$SECONDS columns text
  trap '' INT
  while kill -0 "$2" 2>/dev/null; do
    columns=$(tput cols 2>/dev/null || echo 80)
    text="$1, $((SECONDS - started)) s: $(tail -n 1 "$details" | tr -cd '[:print:]')"
    printf '\r\033[K%s' "${text:0:columns - 1}"
    sleep 1
  done
}
