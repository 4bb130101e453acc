# Sourced by the tools: runs long commands step by step. On a terminal one line shows which step runs,
# for how long, which is next, and the last line that it printed; otherwise each step is a short line
# of its own, with its time at the end. All that the steps print goes to a file.

# begin_steps <file for the details> <name of each step>...
begin_steps() {
  details=$1 steps=("${@:2}") current=0
  mkdir -p "${details%/*}"
  : >"$details"
}

# step <command>... : names the next step, runs the command, and returns its status. If that is not 0,
# says how it ended, shows the end of the details and names their file.
step() {
  local name=${steps[current]} next=${steps[current + 1]:-} started=$SECONDS status=0 drawer=
  local what="[$((++current))/${#steps[@]}] $name"
  if [ -t 1 ] && [ "${TERM:-dumb}" != dumb ]; then
    draw_line "$what" "$next" "$$" &
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

# draw_line <what> <next> <process> : until the process has ended.
draw_line() {
  local started=$SECONDS columns text
  trap '' INT
  while kill -0 "$3" 2>/dev/null; do
    columns=$(tput cols 2>/dev/null || echo 80)
    text="$1, $((SECONDS - started)) s${2:+, then $2}: $(tail -n 1 "$details" | tr -cd '[:print:]')"
    printf '\r\033[K%s' "${text:0:columns - 1}"
    sleep 1
  done
}
