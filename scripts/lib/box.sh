# shellcheck shell=bash
# What the plays on the booted box share. Source it behind common.sh, with `box` set to the number of
# its systemd's process.
# shellcheck disable=SC2154

# Runs a command on the box; so does look, which says nothing.
on_box() {
  nsenter --target "$box" --mount --net --pid --uts --ipc --cgroup --root -- \
    env -i -C / PATH=/usr/sbin:/usr/bin:/sbin:/bin TERM=dumb LC_ALL=C "$@"
}
look() { on_box "$@" >/dev/null 2>&1; }

# wait_for SECONDS COMMAND...
wait_for() {
  local deadline=$((SECONDS + $1))
  until "${@:2}"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.2
  done
}

give_up() {
  say 'The journal ends:'
  on_box journalctl --no-pager --lines 25 --output cat | sed 's/^/        /' || true
  fail "$*"
}
