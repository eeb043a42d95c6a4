#!/usr/bin/env bash
# Runs a command that sees the foreign libraries of a folder, and their packages, in the place of this
# machine's. Part of scripts/package; in a mount namespace of its own (unshare --mount).
#
#   in_sysroot.sh FOLDER TRIPLET COMMAND...
set -euo pipefail
if [[ ! -d /usr/lib/$2 ]]; then
  mkdir -p "$1/only/$2"
  mount -t overlay overlay -o "lowerdir=$1/only:/usr/lib" /usr/lib
fi
mount --bind "$1/usr/lib/$2" "/usr/lib/$2"
mount -t overlay overlay -o "lowerdir=$1/usr/include:/usr/include" /usr/include
mount --bind "$1/var/lib/dpkg" /var/lib/dpkg
exec "${@:3}"
