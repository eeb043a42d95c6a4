#!/usr/bin/env bash
# Runs a command on a machine whose kernel cannot start programs of another architecture: in a user
# namespace with a binfmt_misc of its own, which starts them through qemu. The rest of the machine
# sees nothing of it. Needs Linux 6.7.
#
#   run_foreign.sh QEMU_NAME COMMAND...
set -euo pipefail

if [[ ${1:-} != --inside ]]; then
  exec unshare --user --map-root-user --mount -- bash "${BASH_SOURCE[0]}" --inside "$@"
fi
mount -t binfmt_misc none /proc/sys/fs/binfmt_misc
cat "/usr/lib/binfmt.d/qemu-$2.conf" >/proc/sys/fs/binfmt_misc/register
exec "${@:3}"
