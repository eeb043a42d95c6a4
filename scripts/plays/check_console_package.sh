#!/usr/bin/env bash
# The console at work on the booted box, behind check_package.sh, which has purged everything again.
# Part of scripts/check-package, which has fetched what it needs: the box has no way out.
#
#   check_console_package.sh PROCESS_NUMBER_OF_ITS_SYSTEMD WORK_FOLDER
# shellcheck source=scripts/lib/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/../lib/common.sh"
script_name=check-package
box="$1" folder="$2"
# shellcheck source=scripts/lib/box.sh
source scripts/lib/box.sh

readonly camera_port=9104 service=kestrelbridge-console password=/etc/kestrelbridge-console.password

# answers PATH TEXT: whether the answer to that path, with its head, has the text in it.
answers() {
  # shellcheck disable=SC2016 # for the shell on the box
  on_box timeout 10 bash -c 'exec 3<>/dev/tcp/127.0.0.1/8080
    printf "GET $0 HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n" >&3
    timeout 5 grep -aqF -m 1 -- "$1" <&3' "$1" "$2" 2>/dev/null
}

# obeys: whether a command of a browser reaches the camera and shows in its telemetry. The message is
# masked with zeroes.
obeys() {
  on_box timeout 15 bash -c 'exec 3<>/dev/tcp/127.0.0.1/8080
    printf "GET /state HTTP/1.1\r\nHost: localhost\r\nOrigin: http://localhost\r\nUpgrade: websocket\r\n" >&3
    printf "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n" >&3
    sleep 0.5
    printf "\x81\xB3\0\0\0\0%s" "{\"type\":\"command\",\"id\":1,\"cmd\":\"iso\",\"param\":\"400\"}" >&3
    stdbuf -o0 tr "}" "\n" <&3 | grep -aqF -m 1 "\"id\":1,\"state\":\"done\""' 2>/dev/null
}

step 'The console: install'
on_box env DEBIAN_FRONTEND=noninteractive apt-get -q -o Dpkg::Use-Pty=0 install \
  --no-install-recommends -y /root/kestrelbridge.deb /root/kestrelbridge-console.deb >"$folder/apt.log" 2>&1 ||
  { tail -n 20 "$folder/apt.log" && give_up 'apt could not install it'; }
look systemctl is-active $service || give_up "$service does not run"
done_with 'It runs, and answers the box alone.'

step 'The console under its restrictions'
on_box sh -c "echo 'KESTRELBRIDGE_OPTIONS=--port=$camera_port' >/etc/default/kestrelbridge"
on_box systemctl restart kestrelbridge
on_box kestrelctl camera --listen "192.168.2.1:$camera_port" --loop --duration 120 >/dev/null &
camera=$!
trap 'kill $camera 2>/dev/null || true' EXIT
on_box systemd-analyze verify --man=no /usr/lib/systemd/system/$service.service ||
  give_up "the unit $service has faults"
on_box systemd-analyze security --threshold=15 $service.service | tail -n 1 ||
  give_up "$service may do too much"
status="$(on_box cat "/proc/$(on_box systemctl show --value --property MainPID $service)/status")"
for line in "Uid:.*$(on_box id -u kestrelbridge-console)" 'CapPrm:.*0000000000000000' 'NoNewPrivs:.*1' 'Seccomp:.*2'; do
  grep -qE "^$line$" <<<"$status" || give_up "the console is not restricted: no $line in its status"
done
wait_for 20 answers /snapshot.h264 'video/h264' || give_up 'it has no picture'
for name in units_total share_consumers console_viewers; do
  wait_for 5 answers /metrics "kestrelbridge_$name" || give_up "its metrics have no $name"
done
wait_for 20 obeys || give_up 'a command does not reach the camera'
done_with 'It has the picture and the counters, and the camera obeys it.'

on_box sh -c "umask 027; echo 'a long password' >$password && chgrp kestrelbridge-console $password
  echo 'KESTRELBRIDGE_CONSOLE_OPTIONS=--listen 0.0.0.0:8080 --password-file $password' >/etc/default/kestrelbridge-console"
on_box systemctl restart $service || give_up "$service does not start with a password file"
wait_for 10 answers /snapshot.h264 '401 Unauthorized' || give_up 'a stranger sees the picture'
done_with 'With a password file, strangers see nothing.'

step 'The console: purge'
kill "$camera" 2>/dev/null || true
on_box env DEBIAN_FRONTEND=noninteractive apt-get -q -o Dpkg::Use-Pty=0 purge -y kestrelbridge-console kestrelbridge \
  >/dev/null 2>&1 || give_up 'apt could not purge it'
! look getent passwd kestrelbridge-console || give_up 'the user kestrelbridge-console is still there'
! look test -e $password || give_up "$password is still there"
done_with 'User and password are gone.'
