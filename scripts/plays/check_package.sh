#!/usr/bin/env bash
# The package at work on the booted box. Part of scripts/check-package.
#
#   check_package.sh PROCESS_NUMBER_OF_ITS_SYSTEMD
# shellcheck source=scripts/lib/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/../lib/common.sh"
script_name=check-package
box="$1"
# shellcheck source=scripts/lib/box.sh
source scripts/lib/box.sh

readonly clip=/usr/share/kestrelbridge/clips/test-pattern-720p30.h264
readonly camera_port=9104 # the daemon's own port for the phone is the camera's usual one

# As on_box, with the network of the phone's host.
on_phone() {
  nsenter --target "$box" --mount --pid --uts --ipc --cgroup --root --net="/proc/$phone_host/ns/net" -- \
    env -i -C / PATH=/usr/sbin:/usr/bin:/sbin:/bin TERM=dumb LC_ALL=C "$@"
}
# join_access_point: a phone on the box's wlan1, whose way to everywhere is the box.
join_access_point() {
  unshare --net sleep infinity &
  phone_host=$!
  # shellcheck disable=SC2064 # the number as it is now
  trap "kill $phone_host" EXIT
  wait_for 10 namespaces_differ
  local at_box=(nsenter --target "$box" --net --) at_phone=(nsenter --target "$phone_host" --net --)
  "${at_box[@]}" ip link add wlan1 type veth peer name wlan0 netns "$phone_host"
  "${at_box[@]}" ip address add 10.42.0.1/24 dev wlan1
  "${at_box[@]}" ip link set wlan1 up
  "${at_phone[@]}" ip address add 10.42.0.2/24 dev wlan0
  "${at_phone[@]}" ip link set wlan0 up
  "${at_phone[@]}" ip route add default via 10.42.0.1
}
namespaces_differ() { [[ "$(readlink "/proc/$phone_host/ns/net")" != "$(readlink /proc/self/ns/net)" ]]; }

# units_of WHERE ADDRESS: how many arrive at a phone app there in three seconds.
units_of() {
  "$1" kestrelctl phone --to "$2" --duration 3 | sed -n 's/^units: //p'
}

daemon_pid() { on_box systemctl show --value --property MainPID kestrelbridge; }
restarts() { on_box systemctl show --value --property NRestarts kestrelbridge; }
has_two_rules() { [[ "$(rules)" == 2 ]]; }
# grep to its end: who still writes when it has gone would fail.
has_filter() { on_box nft list tables | grep kestrelbridge >/dev/null; }
has_rule() { [[ "$(rules)" -ge 1 ]]; }
log_has() { on_box journalctl --no-pager --unit kestrelbridge --output cat | grep -- "$1" >/dev/null; }
has_restarted_since() { [[ "$(restarts)" -gt $1 ]]; }
switch_has_acted() {
  on_box kestrelctl stats --json --count 1 | grep '"source":"remote_control","value":[1-9]' >/dev/null
}
rules() { on_box iptables-nft -t nat -S PREROUTING 2>/dev/null | grep -c -- '--to-ports 9004' || true; }

# camera SECONDS: streams in the background and falls silent then.
camera() {
  on_box kestrelctl camera --listen "192.168.2.1:$camera_port" --clip "$clip" --loop \
    --silence-after "$1" --duration $(($1 + 5)) >/dev/null &
  camera=$!
}

# as_user USER COMMAND...: as after a login.
as_user() {
  on_box setpriv --reuid "$1" --regid "$1" --init-groups "${@:2}"
}

# expect_video USER: three seconds of it, as that user reads it.
expect_video() {
  local statistics line
  statistics="$(as_user "$1" kestrelctl video --stats --live --duration 3 2>&1)" || true
  # The last line sums up.
  grep -qE '\b(units: [1-9]|[1-9][0-9]+ units)' <<<"$statistics" || give_up "no video: $statistics"
  while IFS= read -r line; do say "$line"; done <<<"$statistics"
}

step 'The service, as the package enabled it'
wait_for 60 look systemctl is-active kestrelbridge || give_up 'the service did not start at boot'
wait_for 10 look systemctl is-active kestrelbridge-share || give_up 'the share did not start at boot'
for service in kestrelbridge kestrelbridge-share; do
  look systemctl is-enabled $service || give_up "$service is not enabled"
  on_box systemd-analyze verify --man=no /usr/lib/systemd/system/$service.service || give_up "the unit $service has faults"
  on_box systemd-analyze security --threshold=15 $service.service | tail -n 1 ||
    give_up "$service may do too much"
done
done_with 'It runs since the boot.'

on_box kestrelctl demo --seconds 3 | tail -n 1 || give_up 'the demo does not play from the installed files'

step 'With options, a camera and an access point'
nsenter --target "$box" --net -- ip address add 192.168.2.1/32 dev lo
join_access_point
on_box sh -c "echo 'KESTRELBRIDGE_OPTIONS=--verbose --port=$camera_port' >/etc/default/kestrelbridge"
on_box sh -c 'echo wlan1 >/run/kestrelbridge/ap.iface'
on_box systemctl restart kestrelbridge
camera 35
wait_for 20 log_has 'Camera connection found' || give_up 'the daemon found no camera'
expect_video root
size="$(on_box sh -c 'cat /run/kestrelbridge/video_width /run/kestrelbridge/video_height')"
[[ $size == 1280720 ]] || give_up "the picture-size files say $size"
done_with 'Video in the ring, picture size in /run/kestrelbridge.'

step 'Under its restrictions'
status="$(on_box cat "/proc/$(daemon_pid)/status")"
for line in "Uid:.*$(on_box id -u kestrelbridge)" 'CapPrm:.*0000000000000000' 'NoNewPrivs:.*1' 'Seccomp:.*2'; do
  grep -qE "^$line$" <<<"$status" || give_up "the daemon is not restricted: no $line in its status"
done
if on_box sh -c "cat /proc/$(daemon_pid)/task/*/status" | grep '^Cap[PEIA][a-z]*:' | grep -qv '[[:space:]]0*$'; then
  give_up 'a thread of the daemon has kept capabilities'
fi
[[ "$(rules)" == 1 ]] || give_up 'the redirect rule is missing'
grep -qE 'rb20000000\b' < <(nsenter --target "$box" --net -- ss -uanm) ||
  give_up "the camera's socket has no large buffer"
if log_has 'buffer set failed'; then give_up 'a socket buffer was refused'; fi
done_with 'No capabilities after its start, a system-call filter; rule and large socket buffers work all the same.'
# The rest of its job.
on_box kestrelctl telemetry --json --count 1 --duration 10 >/dev/null || give_up 'no telemetry'
on_box kestrelctl command iso 400 --wait >/dev/null || give_up 'a command had no effect'
look kestrelctl rc record=1 || give_up 'no block for the remote control'
wait_for 5 switch_has_acted || give_up "a switch sent no command: $(on_box kestrelctl stats --count 1)"
[[ "$(units_of on_phone "192.168.2.1:$camera_port")" -ge 1 ]] || give_up 'nothing was relayed to the phone app'
on_box grep -q '^kestrelbridge_kernel_drops_total{' /run/kestrelbridge/metrics.prom ||
  give_up "the kernel's drops cannot be read"
done_with 'Telemetry, a command, a switch, the phone app and the counters, too.'

step 'The packet filter'
has_filter || give_up 'the packet filter is not loaded'
for address in 10.42.0.1:9004 192.168.2.1:9004; do
  [[ "$(units_of on_phone "$address")" == 0 ]] || give_up "a stranger at $address was taken for the phone app"
done
[[ "$(units_of on_box 127.0.0.1:9004)" == 0 ]] || give_up 'a local stranger was taken for the phone app'
done_with 'Only what comes by way of the redirect rule is the phone app.'

step 'The camera leaves and comes back'
before="$(restarts)"
wait_for 40 log_has 'Camera connection lost' || give_up 'the daemon did not notice'
wait_for 20 has_restarted_since "$before" || give_up 'the service did not start again'
[[ "$(on_box cat /run/kestrelbridge/ap.iface)" == wlan1 ]] || give_up 'ap.iface did not survive'
wait "$camera"
camera 8
expect_video root
wait "$camera"
done_with 'systemd started it again, and the video goes on.'

step 'Without the packet filter'
wait_for_start() { wait_for 10 look systemctl is-active kestrelbridge || give_up "not started: $1"; }
on_box mv /usr/sbin/nft /usr/sbin/nft.away
on_box systemctl restart kestrelbridge
wait_for_start 'without nft'
wait_for 10 log_has 'No packet filter: nft is not installed' || give_up 'nothing says that there is no filter'
on_box mv /usr/sbin/nft.away /usr/sbin/nft
on_box sh -c 'echo KESTRELBRIDGE_PACKET_FILTER=no >>/etc/default/kestrelbridge'
on_box systemctl restart kestrelbridge
wait_for_start 'filter off'
wait_for 10 log_has 'No packet filter: switched off' || give_up 'the filter was not switched off'
if has_filter; then give_up 'the filter is still there'; fi
on_box sed -i /PACKET_FILTER/d /etc/default/kestrelbridge
for _ in 1 2 3; do
  on_box systemctl restart kestrelbridge
  wait_for 10 has_two_rules || give_up "redirect rules pile up: $(rules)"
done
on_box systemctl stop kestrelbridge
if has_filter; then give_up 'stopped, and the filter is still there'; fi
done_with 'It starts all the same, and says so. Redirect rules do not pile up.'

step 'With the other kind of iptables'
on_box update-alternatives --set iptables /usr/sbin/iptables-legacy >/dev/null 2>&1
on_box systemctl restart kestrelbridge
wait_for 10 has_rule || give_up 'no rule with iptables-legacy'
on_box iptables-nft -t nat -F PREROUTING
on_box update-alternatives --auto iptables >/dev/null 2>&1
done_with 'The rule is there.'

step 'For users who are not root'
memory_is_right() {
  [[ "$(on_box stat --format='%U %G %a' /dev/shm/kestrelbridge_framebuffer{,_transcoding} /dev/shm/shared_rc_raw)" == \
    $'kestrelbridge kestrelbridge 640\nkestrelbridge kestrelbridge 660\nroot kestrelbridge 660' ]]
}
memory_is_right || give_up "not for the group: $(on_box ls -l /dev/shm)"
on_box useradd --system --user-group --groups kestrelbridge pilot
on_box useradd --system --user-group stranger
on_box systemctl stop kestrelbridge
on_box sh -c 'rm -f /dev/shm/*; iptables -t nat -F PREROUTING'
# What others have left, or put there to read along.
on_box sh -c 'cd /dev/shm && truncate --size 60003624 kestrelbridge_framebuffer && touch shared_rc_raw &&
  ln -s /etc/passwd kestrelbridge_framebuffer_transcoding && chown -h stranger * && chmod 666 kestrelbridge_framebuffer'
found="$(on_box stat --format=%i /dev/shm/kestrelbridge_framebuffer)"
refused="$(as_user pilot sh -c 'kestrelbridge 2>&1; echo code $?')"
[[ $refused == *'it belongs to user stranger'*'code 2' ]] || give_up "not refused: $refused"
on_box systemctl start kestrelbridge
memory_is_right || give_up "not mended: $(on_box ls -l /dev/shm)"
[[ "$(on_box stat --format=%i /dev/shm/kestrelbridge_framebuffer)" != "$found" ]] ||
  give_up 'the ring is still the one that its maker may have open'
camera 10
wait_for 10 has_rule || give_up 'no rule'
expect_video pilot
as_user pilot kestrelctl rc record=1 >/dev/null || give_up 'the group may not work the switches'
if as_user stranger kestrelctl video --stats --live --duration 1 >/dev/null 2>&1; then
  give_up 'a stranger reads the video'
fi
second="$(on_box sh -c 'kestrelbridge 2>&1; echo code $?')"
[[ $second == *"another kestrelbridge (process $(daemon_pid)) publishes here"*'code 2' ]] ||
  give_up "a second daemon was not refused: $second"
memory_is_right || give_up "the second daemon changed something: $(on_box ls -l /dev/shm)"
wait "$camera"
done_with 'Files of strangers are mended or replaced; the group reads and commands, others do not.'

step 'Telemetry for many'
camera 60
main_app() { # SECONDS: a main application, in the background
  on_box kestrelctl telemetry --listen 127.0.0.1:5000 --lines --duration "$1" >"$main_app_log" &
  main_app=$!
}
main_app_log="$(mktemp)"
telemetry_comes() { [[ "$(wc -l <"$main_app_log")" -gt $1 ]]; }
share_pid() { on_box systemctl show --value --property MainPID kestrelbridge-share; }
main_app 20
wait_for 15 telemetry_comes 5 || give_up 'nothing comes to the main application'
as_user stranger kestrelctl telemetry --lines --count 5 --duration 10 2>&1 | grep ' kestrelshare ' >/dev/null ||
  give_up 'nothing comes to another program beside it'
as_user pilot kestrelctl command iso 800 --wait >/dev/null || give_up 'a command by the share had no effect'
if as_user stranger kestrelctl command iso 100 >/dev/null 2>&1; then give_up 'a stranger commands'; fi
done_with 'It comes to port 5000 and to any number of others; the group commands.'
[[ "$(on_box stat --format='%U %G %a' /run/kestrelbridge)" == 'kestrelbridge kestrelbridge-share 1775' ]] ||
  give_up 'the folder is not as it should be'
for attempt in 'rm -f metrics.prom' 'mv -f share.prom metrics.prom' ': >metrics.prom'; do
  if as_user kestrelbridge-share sh -c "cd /run/kestrelbridge && $attempt" 2>/dev/null; then
    give_up "the share may replace a file of the daemon's: $attempt"
  fi
done
before="$(share_pid)"
on_box sh -c "kill -KILL $before"
restarted() { [[ "$(share_pid)" != 0 && "$(share_pid)" != "$before" ]]; }
wait_for 5 restarted || give_up 'the share was not started again'
lines="$(wc -l <"$main_app_log")"
wait_for 3 telemetry_comes "$((lines + 5))" || give_up 'telemetry did not resume'
wait "$main_app"
done_with 'The share touches no file of the daemon, and is started again.'
on_box sh -c 'echo KESTRELBRIDGE_SHARE=no >>/etc/default/kestrelbridge'
on_box systemctl restart kestrelbridge kestrelbridge-share
wait_for 10 look systemctl is-active kestrelbridge || give_up 'not started: without the share'
if look systemctl is-active kestrelbridge-share; then give_up 'the share runs though it was turned off'; fi
on_box kestrelctl telemetry --lines --count 3 --duration 15 2>&1 | grep ' 127.0.0.1:' >/dev/null ||
  give_up 'without the share, no telemetry on port 5000'
on_box sed -i /SHARE/d /etc/default/kestrelbridge
on_box systemctl restart kestrelbridge kestrelbridge-share
wait_for 10 look systemctl is-active kestrelbridge-share || give_up 'the share did not come back'
kill "$camera" 2>/dev/null || true
wait "$camera" || true
rm "$main_app_log"
done_with 'KESTRELBRIDGE_SHARE=no: straight to port 5000.'

step 'The doctor'
# Two findings are the stage's: no Wi-Fi, no clock from the network.
findings="$(on_box kestrelctl doctor || true)"
for line in 'ok  *service' 'ok  *ring' 'ok  *port 9004' 'ok  *redirect rule'; do
  grep -qE "^$line" <<<"$findings" || give_up "the doctor does not see: $line in $findings"
done
findings="$(as_user stranger kestrelctl doctor --json || true)"
[[ $findings == *'"check":"ring","health":"warning"'* ]] ||
  give_up 'the doctor does not see that a stranger may not read the ring'
done_with 'It sees service, ring, port and rule, and who may not read.'

step 'Remove, install again, purge'
on_box systemctl start kestrelbridge
wait_for 10 has_rule || give_up 'no rule'
on_box dpkg --remove kestrelbridge >/dev/null 2>&1
for service in kestrelbridge kestrelbridge-share; do
  if look systemctl is-active $service; then give_up "$service is removed, and still running"; fi
done
[[ "$(rules)" == 0 ]] || give_up 'removed, and its rules are still there'
look test -e /etc/default/kestrelbridge || give_up 'removing took the settings away'
done_with 'Removed: stopped, its rules are gone, the settings stay.'
on_box dpkg --install /root/kestrelbridge.deb >/dev/null 2>&1
wait_for 10 look systemctl is-active kestrelbridge kestrelbridge-share || give_up 'installed again, and not running'
wait_for 10 look test -e /dev/shm/shared_rc_raw || give_up 'installed again, and no block'
done_with 'Installed again: it runs.'
on_box dpkg --purge kestrelbridge >/dev/null 2>&1
for path in /run/kestrelbridge /run/kestrelbridge-root /dev/shm/kestrelbridge_framebuffer \
  /dev/shm/kestrelbridge_framebuffer_transcoding /dev/shm/shared_rc_raw /etc/default/kestrelbridge; do
  if look test -e "$path"; then give_up "purged, and $path is still there"; fi
done
if on_box getent group | grep kestrelbridge || on_box getent passwd | grep kestrelbridge; then
  give_up 'purged, and its users are still there'
fi
done_with 'Purged: nothing in /run, /dev/shm and /etc, no users.'
