# shellcheck shell=bash
# shellcheck disable=SC2154 # part of scripts/test
# Sets `launcher` and `filter` for tests of a foreign architecture.

# The tests start the real programs, so the kernel must know how to.
if ! "$(build_dir "$preset")/bin/kestrelctl" --help >/dev/null 2>&1; then
  launcher=(bash scripts/plays/run_foreign.sh "$(qemu_name "$arch")")
  "${launcher[@]}" "$(build_dir "$preset")/bin/kestrelctl" --help >/dev/null ||
    fail "this kernel does not start programs for $arch. Either it is Linux 6.7 or later and allows
user namespaces, or: apt-get install binfmt-support qemu-user-static"
fi

# Emulation is some ten times slower than the machine.
export KESTRELBRIDGE_DEADLINE_FACTOR="${KESTRELBRIDGE_DEADLINE_FACTOR:-4}"
