#!/usr/bin/env bash
# How the name of the access point's interface gets to the daemon: by the setting, by NetworkManager.
set -euo pipefail
packaging="$(dirname "${BASH_SOURCE[0]}")/../../packaging"
KESTRELBRIDGE_TEST_ROOT="$(mktemp -d)"
export KESTRELBRIDGE_TEST_ROOT
trap 'rm -rf "$KESTRELBRIDGE_TEST_ROOT"' EXIT
folder="$KESTRELBRIDGE_TEST_ROOT/run/kestrelbridge"
mkdir -p "$folder" "$KESTRELBRIDGE_TEST_ROOT/bin"
failures=0
fault() { echo "$*" && failures=1; }

# SETTING|what the file says then; it said "before"
while IFS='|' read -r setting expected; do
  echo before >"$folder/ap.iface"
  KESTRELBRIDGE_AP="$(printf %b "$setting")" sh "$packaging/lib/access-point" 2>"$folder/said" || true
  [[ "$(<"$folder/ap.iface")" == "$expected" ]] || fault "$setting gave $(<"$folder/ap.iface")"
  [[ "$expected" != before || -z "$setting" || -s "$folder/said" ]] || fault "$setting: not a word"
done <<'ROWS'
|before
wlan1|wlan1
wlx+|wlx+
wlx00c0caab1234|before
wlan1;reboot|before
wl\nan1|before
ROWS
ln -sf /etc/hostname "$folder/ap.iface"
KESTRELBRIDGE_AP=wlan1 sh "$packaging/lib/access-point"
[[ ! -L $folder/ap.iface && "$(<"$folder/ap.iface")" == wlan1 ]] || fault 'a link was followed'

# shellcheck disable=SC2016 # for the stub to expand
printf '#!/bin/sh\necho "$*" >>"$KESTRELBRIDGE_TEST_ROOT/systemctl"\n' >"$KESTRELBRIDGE_TEST_ROOT/bin/systemctl"
chmod +x "$KESTRELBRIDGE_TEST_ROOT/bin/systemctl"
# CONNECTION|INTERFACE|ACTION|the file then|how often the service was restarted till then
while IFS='|' read -r connection interface action expected restarts; do
  CONNECTION_ID="$connection" PATH="$KESTRELBRIDGE_TEST_ROOT/bin:$PATH" \
    sh "$packaging/examples/90-kestrelbridge" "$interface" "$action"
  touch "$KESTRELBRIDGE_TEST_ROOT/systemctl"
  [[ "$(<"$folder/ap.iface") $(wc -l <"$KESTRELBRIDGE_TEST_ROOT/systemctl")" == "$expected $restarts" ]] ||
    fault "$connection $interface $action: $(<"$folder/ap.iface"), $(<"$KESTRELBRIDGE_TEST_ROOT/systemctl")"
done <<'ROWS'
Camera|wlan0|up|wlan1|0
Hotspot|wlan2|down|wlan1|0
Hotspot|wlan1|up|wlan1|0
Hotspot|wlan2|up|wlan2|1
Hotspot|wlx00c0caab1234|up|wlx00c0c+|2
ROWS
exit "$failures"
