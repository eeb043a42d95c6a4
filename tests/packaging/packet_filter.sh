#!/usr/bin/env bash
# Which options and files give which rules, and which give none: nothing unchecked gets into a rule.
#
#   packet_filter.sh
set -euo pipefail
filter="$(dirname "${BASH_SOURCE[0]}")/../../packaging/lib/packet-filter"
KESTRELBRIDGE_TEST_ROOT="$(mktemp -d)"
export KESTRELBRIDGE_TEST_ROOT
trap 'rm -rf "$KESTRELBRIDGE_TEST_ROOT"' EXIT
mkdir -p "$KESTRELBRIDGE_TEST_ROOT"/{run/kestrelbridge,proc/self}
interface="$KESTRELBRIDGE_TEST_ROOT/run/kestrelbridge/ap.iface"
group="$KESTRELBRIDGE_TEST_ROOT/proc/self/cgroup"
failures=0

# expect RULE [OPTION]...: it is among the rules.
expect() {
  local rules
  rules="$(sh "$filter" print "${@:2}" 2>&1)"
  grep -qF -- "$1" <<<"$rules" || { echo "${*:2}: no \"$1\" in: $rules" && failures=1; }
}
# refuse REASON [OPTION]...: no rules, and the line says why. Success all the same: the daemon starts.
refuse() {
  local said
  said="$(sh "$filter" print "${@:2}" 2>&1)" || { echo "${*:2}: failed" && failures=1; }
  if ! grep -q "^No packet filter: .*$1" <<<"$said" || grep -q '^table' <<<"$said"; then
    echo "${*:2}: not refused for $1: $said" && failures=1
  fi
}

printf '1:name=systemd:/x\n0::/system.slice/kestrelbridge.service\n' >"$group"
expect 'socket cgroupv2 level 2 "system.slice/kestrelbridge.service"'
expect 'udp dport 9004  ct status dnat ct original ip daddr 192.168.2.1 ct original proto-dst 9004 accept'
expect 'ip saddr 192.168.2.1 udp sport 9004 ct direction reply accept'
# As the daemon's parser reads them: shortened, together, in two words.
expect 'ip saddr 10.0.0.1 udp sport 9104' --ho 10.0.0.1 -vp9104 --iface wlan0
expect 'ip saddr 10.0.0.1 udp sport 10' -h 10.0.0.1 --port=010
expect 'udp sport 65535 ' --port 131071 --low-latency
expect 'ip saddr 10.9.8.7 counter accept' --dst-host=10.9.8.7 -s 5000
for loopback in 127.0.0.1 127.9.9.9 0.0.0.0; do
  if sh "$filter" print -d "$loopback" | grep 'main application'; then failures=1; fi
done

for host in 1.2.3 1.2.3.4.5 1.2.3.256 1.2.3.04 1.2.3. .1.2.3 1..2.3 '' camera '1.2.3.4;reboot' $'1.2.3.4\n' '1.2.3.4 }' 0x1.2.3.4; do
  refuse '--host' --host="$host"
  refuse '--dst-host' --dst-host "$host"
done
for port in '' 0x10 -1 9004abc '9004 }' 99999999999999999999; do refuse '--port' --port="$port"; done
refuse options --bogus
refuse options -h

# FILE'S TEXT | MATCH: iptables' word for a beginning becomes nft's; no match where iptables gets none.
while IFS='|' read -r text match; do
  printf '%b' "$text" >"$interface"
  expect "udp dport 9004 $match ct status"
done <<'ROWS'
wlan1\n|iifname "wlan1"
wlan1\r\n|iifname "wlan1"
wlan1\nmore|
wlx+|iifname "wlx*"
wlx00c0caab1234|iifname "wlx00c0ca"
br-lan.5@x|iifname "br-lan.5@"
wl an|
w"x|
w*|
w$(id)|
w\\|
w;x|
w\0001\0002|
\n|
ROWS
printf wlan9 >"$interface.elsewhere"
rm "$interface" && ln -s "$interface.elsewhere" "$interface"
expect 'udp dport 9004  ct status'
rm "$interface" && mkfifo "$interface"
expect 'udp dport 9004  ct status' # and does not wait

# GROUP | RULE; nothing: refused
while IFS='|' read -r name rule; do
  printf '0::%s\n' "$name" >"$group"
  if [[ -n $rule ]]; then expect "$rule"; else refuse 'control group'; fi
done <<'ROWS'
/a|socket cgroupv2 level 1 "a"
/a.slice/a-b.slice/c@1.service|socket cgroupv2 level 3 "a.slice/a-b.slice/c@1.service"
/|
/a"b|
/a b|
ROWS

printf '0::/a\n' >"$group"
export KESTRELBRIDGE_PACKET_FILTER=no
refuse 'switched off'
exit $failures
