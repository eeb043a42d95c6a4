#!/usr/bin/env bash
# The demo to look at, run by scripts/demo --watch with a /run and a /dev/shm of its own: camera,
# daemon and share have a network of their own as well, the console the machine's, so that a browser
# on it finds the page. Until Ctrl-C.
#
#   watch.sh PORT
# shellcheck source=scripts/lib/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/../lib/common.sh"
script_name=demo
readonly port="$1" bin=build/bin out=demo-output
# shellcheck source=scripts/lib/play.sh
source scripts/lib/play.sh

if [[ $port == box ]]; then # this very script, within the network
  ip link set lo up
  ip address add 192.168.2.1/32 dev lo
  start camera "$bin/kestrelctl" camera --listen 192.168.2.1:9004 --loop
  start share "$bin/kestrelshare" --group ''
  wait_for 10 has_line camera 'waiting for a connection request' || fail "$(tail -n 1 $out/camera.log)"
  start daemon "$bin/kestrelbridge" --verbose --dst-port=5001
  wait -n
  exit 1
fi

mount -t tmpfs -o mode=755 kestrelbridge-run /run
mount -t tmpfs -o mode=1777 kestrelbridge-shm /dev/shm
mkdir /run/kestrelbridge
rm -f $out/*.log
trap 'stop_all; exit 0' INT TERM HUP

start box unshare --net bash scripts/plays/watch.sh box
start console "$bin/kestrelconsole" --listen "127.0.0.1:$port"
console_is_there_or_gone() { has_line console 'http://' || has_ended console; }
camera_is_found_or_gone() { has_ended box || grep -q 'Camera connection found' "$out/daemon.log" 2>/dev/null; }
wait_for 10 console_is_there_or_gone || fail 'the console did not start within ten seconds'
has_line console 'http://' || fail "$(tail -n 1 $out/console.log)"
wait_for 15 camera_is_found_or_gone || give_up 'the daemon found no camera within fifteen seconds'
! has_ended box || give_up "camera, share or daemon ended: $(tail -qn 1 $out/{box,camera,share}.log)"

say 'A simulated camera streams to the daemon; kestrelshare and kestrelconsole run beside it.'
say ''
done_with "$(sed -n 's/^kestrelconsole: //p' $out/console.log)"
say ''
say 'Open that in a browser on this machine. From elsewhere:'
say "    ssh -L $port:127.0.0.1:$port $(hostname)     and open http://127.0.0.1:$port/"
say 'Ctrl-C ends it.'
wait -n || true
give_up 'one of them ended; the logs are in demo-output/'
