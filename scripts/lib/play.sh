# shellcheck shell=bash
# What the plays share: processes in the background, and what they have to say. Source it behind
# common.sh, with `out` set to the folder of the logs.
# shellcheck disable=SC2154

declare -A pids=()

# start NAME COMMAND...: in the background; its output goes to $out/NAME.log.
start() {
  "${@:2}" >"$out/$1.log" 2>&1 &
  pids[$1]=$!
}

# wait_for SECONDS COMMAND...: until the command succeeds; fails when it has not by then.
wait_for() {
  local deadline=$((SECONDS + $1))
  until "${@:2}"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.1
  done
}

has_line() { grep -q -- "$2" "$out/$1.log"; }
has_ended() { ! kill -0 "${pids[$1]}" 2>/dev/null; }

# await_end NAME SECONDS: puts the exit code of the process into exit_code; fails when it goes on
# running.
await_end() {
  wait_for "$2" has_ended "$1" || return 1
  exit_code=0
  wait "${pids[$1]}" || exit_code=$?
  unset "pids[$1]"
}

# Asks a tool to end, as Ctrl-C would, and sees it end well.
end_tool() {
  kill -TERM "${pids[$1]}" 2>/dev/null || true
  await_end "$1" 5 || give_up "the $1 did not end"
  [[ $exit_code -eq 0 ]] || give_up "the $1 failed: $(tail -n 1 "$out/$1.log")"
}

stop_all() {
  local name
  for name in "${!pids[@]}"; do kill "${pids[$name]}" 2>/dev/null || true; done
  wait
}

# Ends the play with a plain reason and with what the daemon had to say.
give_up() {
  if [[ -s $out/daemon.log ]]; then
    say 'The last lines of the daemon:'
    tail -n 8 "$out/daemon.log" | sed 's/^/        /'
  fi
  fail "$*"
}

# summary NAME KEY: the number of the "KEY: number" that a tool closed with.
summary() {
  local number
  number="$(sed -n "s/^\(.*[ ,]\)\{0,1\}$2: *\([0-9][0-9]*\).*/\2/p" "$out/$1.log" | tail -n 1)"
  [[ -n $number ]] || give_up "the $1 did not say how many \"$2\" it counted"
  echo "$number"
}
