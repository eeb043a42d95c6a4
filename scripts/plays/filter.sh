#!/usr/bin/env bash
# The packet filter among strangers. Part of scripts/check-filter, which gives it namespaces.
#
#   camera's Wi-Fi, 192.168.2.0/24               access point, 10.42.0.0/24
#     camera .1 --+                                  +-- .2 phone
#   stranger .66 --+-- .20 box (the daemon) .1 ------+-- .66 stranger
#                  +-- .30 twin (another one) .30 ---+
# shellcheck source=scripts/lib/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/../lib/common.sh"
script_name=check-filter
readonly bin=build/bin out=filter-output clip=tools/clips/test-pattern-720p30.h264
# shellcheck source=scripts/lib/play.sh
source scripts/lib/play.sh
readonly phone_seconds=8 phone_units=210 flood_seconds=6 flood_rate=75000 # from each side

# --- the hosts --------------------------------------------------------------------------------

readonly groups=/sys/fs/cgroup
readonly group=kestrelbridge-filter-$RANDOM

leave() {
  stop_all
  sleep 0.2
  rmdir "$groups/$group"/*.service "$groups/$group" || true
}
trap leave EXIT
trap 'exit 130' INT TERM HUP

differs_from_ours() { [[ "$(readlink "/proc/${pids[$1]}/ns/net")" != "$(readlink /proc/self/ns/net)" ]]; }

# host NAME: a network, a /run and a /dev/shm of its own, held by a process.
host() {
  start "$1" unshare --net --mount sh -ec 'mount -t tmpfs tmpfs /run; mount -t tmpfs tmpfs /dev/shm
    mkdir /run/kestrelbridge; ip link set lo up; touch /run/ready; exec sleep infinity'
  wait_for 10 test -e "/proc/${pids[$1]}/root/run/ready" && differs_from_ours "$1"
}
on() { nsenter --target "${pids[$1]}" --net --mount --wd="$PWD" "${@:2}"; }
# The process is then the program itself.
start_on() { start "$2" nsenter --target "${pids[$1]}" --net --mount --wd="$PWD" "${@:3}"; }

# join NETWORK HOST INTERFACE ADDRESS...
join() {
  local address
  ip link add "$1-$2" type veth peer name "$3" netns "${pids[$2]}"
  ip link set "$1-$2" master "net-$1" up
  for address in "${@:4}"; do on "$2" ip address add "$address/24" dev "$3"; done
  on "$2" ip link set "$3" up
}

set_up_hosts() {
  local name
  mount -t cgroup2 cgroup2 $groups
  mkdir "$groups/$group"
  for name in camera box twin phone; do host $name; done
  for name in wifi ap; do ip link add net-$name type bridge && ip link set net-$name up; done
  join wifi camera wlan0 192.168.2.1 192.168.2.66
  join wifi box wlan0 192.168.2.20
  join wifi twin wlan0 192.168.2.30
  join ap box wlan1 10.42.0.1
  join ap twin wlan1 10.42.0.30
  join ap phone wlan0 10.42.0.2 10.42.0.66
  on phone ip route add default via 10.42.0.1
  for name in box twin; do
    on $name sh -c 'echo wlan1 >/run/kestrelbridge/ap.iface; echo 1 >/proc/sys/net/ipv4/ip_forward'
  done
}

# --- the daemon, as its unit starts it ------------------------------------------------------------

# What enters that host's control group and becomes the command that follows.
into_group() {
  mkdir -p "$groups/$group/$1.service"
  # shellcheck disable=SC2016 # for the other shell
  grouped=(sh -c 'echo $$ >"$0/cgroup.procs" && exec "$@"' "$groups/$group/$1.service")
}

# daemon HOST [OPTION]...: with its filter, unless KESTRELBRIDGE_PACKET_FILTER=no
daemon() {
  into_group "$1"
  on "$1" "${grouped[@]}" packaging/lib/packet-filter load "${@:2}"
  start_on "$1" "daemon-$1" "${grouped[@]}" "$bin/kestrelbridge" "${@:2}"
  wait_for 15 has_line "daemon-$1" 'Camera connection found' ||
    give_up "the daemon on $1 found no camera: $(tail -n 3 "$out/daemon-$1.log")"
}
ports() { on "$1" ss -H -uanp | sed -n 's/.*0\.0\.0\.0:\([0-9]*\) .*"kestrelbridge".*/\1/p'; }
metric() { on "$1" sed -n "s/^kestrelbridge_$2 \([0-9]*\)$/\1/p" /run/kestrelbridge/metrics.prom; }
# Microseconds of the processor, from its control group.
processor_us() { sed -n 's/^usage_usec //p' "$groups/$group/$1.service/cpu.stat"; }
settle() { sleep 2.5; } # the metrics file comes once a second

# expect WHAT ACTUAL EXPECTED
wrong=0
expect() {
  say "$1: $2"
  [[ $2 == "$3" ]] || { say "    WRONG, $3 is due" && wrong=$((wrong + 1)); }
}

# --- the play -----------------------------------------------------------------------------------

# strangers COUNT RATE: from both networks at once, to all ports of the box.
strangers() {
  local all
  mapfile -t all < <(ports box)
  [[ ${#all[@]} -eq 4 ]] || give_up "the daemon has the ports ${all[*]}, not four"
  start_on camera stranger-wifi build/tests/stranger "$1" "$2" 192.168.2.66:9004 192.168.2.20 "${all[@]}"
  start_on phone stranger-ap build/tests/stranger "$1" "$2" 10.42.0.66:9004 10.42.0.1 "${all[@]}"
}
# In the twin's name: were it believed, the two would take each other for the phone.
spoof_twin() { on camera build/tests/stranger 1 1 192.168.2.30:9004 192.168.2.20 9004 >/dev/null; }

# phone NAME: takes the stream, and must get it whole.
phone() {
  local fault
  on phone "$bin/kestrelctl" phone --duration $phone_seconds >"$out/$1.log" || give_up "the $1 failed"
  for fault in gaps reordered foreign_datagrams bad_datagrams broken_units; do
    expect "$1: $fault" "$(summary "$1" $fault)" 0
  done
  (($(summary "$1" units) >= phone_units)) || give_up "the $1 got $(summary "$1" units) units, not $phone_units"
  say "$1: $(summary "$1" units) units"
}

step 'Four hosts, two daemons with their filters'
set_up_hosts
start_on camera camera-of-box "$bin/kestrelctl" camera --listen 192.168.2.1:9004 --clip $clip --loop
start_on camera camera-of-twin "$bin/kestrelctl" camera --listen 192.168.2.1:9005 --clip $clip --loop
daemon box --verbose
daemon twin --port 9005
on box nft list table ip kestrelbridge >/dev/null || give_up 'the filter is not loaded'

step 'A phone in peace'
before=$(processor_us box)
phone phone-in-peace
in_peace=$(($(processor_us box) - before))

settle # the phone is lost
step "A phone, and strangers with $((2 * flood_rate)) datagrams a second"
strangers $((flood_seconds * flood_rate)) $flood_rate
before=$(processor_us box)
phone phone-in-flood
in_flood=$(($(processor_us box) - before))
for name in wifi ap; do
  await_end stranger-$name 30 || give_up "the stranger did not end"
  say "$(cat "$out/stranger-$name.log") from the $name"
done
spoof_twin
settle

step 'The account'
on box nft list chain ip kestrelbridge daemon | grep drop | sed 's/^[[:space:]]*/    /'
expect 'datagrams for the main application' "$(metric box 'received_datagrams_total{link="main_app"}')" 0
expect 'for the second endpoint' "$(metric box 'received_datagrams_total{link="main_app_second"}')" 0
expect 'at the phone'"'"'s port: the phones'"'"' own' "$(metric box 'received_datagrams_total{link="phone"}')" $((\
  $(summary phone-in-peace keepalives_sent) + $(summary phone-in-peace acknowledgements_sent) + \
  $(summary phone-in-flood keepalives_sent) + $(summary phone-in-flood acknowledgements_sent)))
expect 'phones found' "$(metric box 'links_found_total{link="phone"}')" 2
expect 'phones found by the twin' "$(metric twin 'links_found_total{link="phone"}')" 0
expect 'units corrupted' "$(metric box 'units_total{outcome="corrupted"}')" 0
expect 'dropped by the camera'"'"'s socket' "$(metric box 'kernel_drops_total{link="camera"}')" 0
say "processor of the daemon: $((in_peace / 1000)) ms in peace, $((in_flood / 1000)) ms in the flood"
((in_flood <= in_peace + in_peace / 2 + 100000)) || wrong=$((wrong + 1))

step 'The same strangers without the filter'
on box packaging/lib/packet-filter remove
phones=$(metric twin 'links_found_total{link="phone"}')
spoof_twin
twin_has_a_phone() { [[ "$(metric twin 'links_found_total{link="phone"}')" -gt $phones ]]; }
wait_for 10 twin_has_a_phone || true # the twin's filter still stands: it must not
expect 'phones found by the twin, behind its filter' "$(metric twin 'links_found_total{link="phone"}')" 0
expect 'phones found by the box' "$(metric box 'links_found_total{link="phone"}')" 3
strangers 24 1000
await_end daemon-box 10 || give_up 'empty datagrams did not end the daemon: the strangers are harmless'
expect 'exit code of the daemon' "$exit_code" 3

for name in camera-of-box camera-of-twin; do end_tool $name; done
((wrong == 0)) || fail "$wrong of these are wrong; the logs are in $out/"
printf '\n%s\n' "${bold}Strangers are kept out, and nobody else.$plain"
