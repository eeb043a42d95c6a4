#!/usr/bin/env bash
# Which options and settings send the telemetry by kestrelshare.
#
#   telemetry_way.sh
set -euo pipefail
way="$(dirname "${BASH_SOURCE[0]}")/../../packaging/lib/telemetry-way"
failures=0

# SETTING | OPTIONS | what the daemon is given
while IFS='|' read -r setting options given; do
  unset KESTRELBRIDGE_SHARE
  if [[ $setting != - ]]; then export KESTRELBRIDGE_SHARE="$setting"; fi
  # shellcheck disable=SC2086 # words, as systemd makes them
  got="$(sh "$way" run echo $options)"
  [[ $got == "$given" ]] || { echo "$setting, $options: $got" && failures=1; }
  by_share=no
  # shellcheck disable=SC2086
  if sh "$way" by-share $options; then by_share=yes; fi
  [[ $by_share == yes && $got == *=5001* || $by_share == no && $got != *=5001* ]] ||
    { echo "$setting, $options: $by_share, and $got" && failures=1; }
done <<'ROWS'
-||--dst-port=5001
yes||--dst-port=5001
no||
||
-|--verbose --port=9104|--dst-port=5001 --verbose --port=9104
no|--verbose|--verbose
-|--dst-port=6000|--dst-port=6000
-|-s 6000|-s 6000
-|-vs6000|-vs6000
-|--dst-h 10.0.0.1|--dst-h 10.0.0.1
-|-d10.0.0.1|-d10.0.0.1
ROWS
exit $failures
