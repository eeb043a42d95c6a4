#!/usr/bin/env bash
# What the completion offers for a line that ends where the cursor stands.
#
#   completion.sh FOLDER_OF_THE_PROGRAMS
set -euo pipefail
PATH="$(realpath "$1"):$PATH"
# shellcheck source=packaging/completion/kestrelctl
source "$(dirname "${BASH_SOURCE[0]}")/../../packaging/completion/kestrelctl"
# shellcheck source=packaging/completion/kestrelbridge
source "$(dirname "${BASH_SOURCE[0]}")/../../packaging/completion/kestrelbridge"
cd "$(dirname "${BASH_SOURCE[0]}")/consumer"
failures=0

# expect LINE WORD...: all of them are offered.
# expect_only LINE [WORD...]: they and nothing else.
offer() {
  COMP_LINE="$1" COMP_POINT=${#1}
  "_${1%% *}"
}
expect() {
  local word
  offer "$1"
  for word in "${@:2}"; do
    [[ " ${COMPREPLY[*]} " == *" $word "* ]] ||
      { echo "\"$1\": no $word among: ${COMPREPLY[*]}" && failures=1; }
  done
}
expect_only() {
  offer "$1"
  [[ "${COMPREPLY[*]}" == "${*:2}" ]] ||
    { echo "\"$1\": \"${*:2}\" is due, not: ${COMPREPLY[*]}" && failures=1; }
}

expect 'kestrelctl ' camera video --help
expect 'kestrelctl camera ' --clip --listen --silence-after --help
expect 'kestrelctl camera --loop --d' --duration --datagram-size --duplicate
expect_only 'kestrelctl video --output=CMake' CMakeLists.txt
expect_only 'kestrelctl rc rec' record=
expect 'kestrelctl camera --set ' camera_mode= iso_set=
# readline has split the word at = and replaces what comes after it.
expect_only 'kestrelctl camera --set iso_set=1' 100 1600
expect_only 'kestrelctl camera --set=iso_set=au' auto
expect_only 'kestrelctl camera --set color_mode=black' 'black\ white'
expect_only 'kestrelctl command camera mode ph' photo
expect_only 'kestrelctl command iso 6' 6400
expect 'kestrelctl command iso ' auto --wait
expect_only 'kestrelctl help vid' video
expect_only 'kestrelbridge --dst' --dst-host= --dst-port=
expect_only 'kestrelbridge --iface=l' lo
expect_only 'kestrelbridge --host '

# In all three shells the daemon's options are those of its usage text, which does not grow.
due="$({ kestrelbridge --help 2>&1 || true; } | sed -nE 's/^ *-. \| --([a-z][a-z-]*).*/\1/p' | { cat && echo low-latency; } | sort)"
for file in kestrelbridge _kestrelbridge kestrelbridge.fish; do
  named="$(grep -oE '(--|-l )[a-z][a-z-]+' "../../../packaging/completion/$file" | sed -E 's/^(--|-l )//' | sort -u)"
  diff <(echo "$due") <(echo "$named") || { echo "$file: < is in --help, > in the completion" && failures=1; }
done
exit $failures
