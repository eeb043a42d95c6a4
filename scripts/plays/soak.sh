#!/usr/bin/env bash
# The soak itself, run by scripts/soak once the stage is set.
#
#   soak.sh SECONDS
#
#   |<------------------------- the camera sends ------------------------->| silent
#   |<- all loads ----------------------------------------------->| rest   | the daemon ends
#   |<- warm-up: first third ->|<- no growth from here on -------------->|
#
# The loads end before the camera does, so that the daemon's last counters have everything.
# shellcheck source=scripts/lib/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/../lib/common.sh"
script_name=soak
readonly bin=build/bin out=soak-output metrics=/run/kestrelbridge/metrics.prom
# shellcheck source=scripts/lib/play.sh
source scripts/lib/play.sh

readonly stream_seconds="$1"
readonly load_seconds=$((stream_seconds - 12)) warm_up_seconds=$((stream_seconds / 3))
readonly camera_address=192.168.2.1 camera_port=9104 # the daemon has 9004, on the same host
# Commands a second, and the frames that each takes.
readonly iso_rate=600 resolution_rate=300 histogram_rate=100
readonly growth_allowed_kib=512

trap stop_all EXIT
trap 'exit 130' INT TERM HUP

# --- the loads --------------------------------------------------------------------------------

# start_without REGEX NAME COMMAND...: the log is without those lines, of which there is one for each
# command, and the disk is not waited for.
start_without() {
  # shellcheck disable=SC2016
  start "$2" bash -c 'exec "$@" > >(exec grep -vE --line-buffered "$0") 2>&1' "$1" "${@:3}"
}

start_everybody() {
  rm -f "$out"/*.log "$out/metrics.prom"
  start reader "$bin/kestrelctl" video --output /dev/null
  start telemetry "$bin/kestrelctl" telemetry --json
  start_without '^command: ' camera "$bin/kestrelctl" camera --listen "$camera_address:$camera_port" --loop --fps 60 \
    --clip tools/clips/test-pattern-720p30.h264 --loss 1 --duplicate 1 --reorder 1 --corrupt 1 \
    --silence-after "$stream_seconds"
  start_without '^(JSON commands|Camera set)' daemon "$bin/kestrelbridge" --port "$camera_port"
  wait_for 10 has_line daemon 'Camera connection found' ||
    give_up 'the daemon found no camera within ten seconds'
  begin=$SECONDS
  wait_for 10 has_line telemetry '"type":"text"' || give_up 'no telemetry came'
}

# send_commands NAME RATE WORD...
send_commands() {
  start "$1" "$bin/kestrelctl" command --to "$command_place" --rate "$2" \
    --repeat $(($2 * load_seconds)) "${@:3}"
}

# Presses and releases a button as long as there is load.
press_buttons() {
  while ((SECONDS - begin < load_seconds)); do
    "$bin/kestrelctl" rc 157=1 --hold 200
    sleep 0.2
  done
}

# A phone comes, talks, falls silent, is lost, and goes: it listens until nothing more can come.
come_and_go() {
  local number
  for ((number = 1; SECONDS - begin + 14 <= load_seconds; ++number)); do
    "$bin/kestrelctl" phone --to 127.0.0.1:9004 --silence-after 7 --duration 12 \
      >"$out/phone-$number.log"
    sleep 2
  done
}

start_loads() {
  command_place="$(sed -n 's/.*"sender":"\([0-9.:]*\)".*/\1/p' "$out/telemetry.log" | head -n 1)"
  send_commands iso $iso_rate iso 400
  send_commands resolution $resolution_rate video_resolution 1920x1080@60
  send_commands histogram $histogram_rate histogram 1
  start buttons press_buttons
  start phones come_and_go
}

# --- while it runs ----------------------------------------------------------------------------

# metric SERIES: its value, by the name without kestrelbridge_.
metric() { sed -n "s/^kestrelbridge_$1 \([0-9]*\)$/\1/p" "$metrics"; }

warm_rss=0 warm_descriptors=0 rss=0 descriptors=0 # the most that was seen

# larger A B
larger() { echo $(($1 > $2 ? $1 : $2)); }

sample() {
  local now_rss now_descriptors entries
  now_rss="$(sed -n 's/^VmRSS:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/${pids[daemon]}/status" 2>/dev/null)"
  entries=("/proc/${pids[daemon]}/fd/"*)
  now_descriptors=${#entries[@]}
  [[ -n $now_rss && -e ${entries[0]} ]] || return 0 # it has just ended
  if ((SECONDS - begin < warm_up_seconds)); then
    warm_rss=$(larger "$warm_rss" "$now_rss")
    warm_descriptors=$(larger "$warm_descriptors" "$now_descriptors")
  else
    rss=$(larger "$rss" "$now_rss")
    descriptors=$(larger "$descriptors" "$now_descriptors")
  fi
}

progress() {
  say "$((SECONDS - begin)) s of $stream_seconds: $(metric 'units_total{outcome="published"}') units," \
    "$(metric 'units_total{outcome="corrupted"}') corrupted," \
    "$(metric 'command_frames_sent_total{source="main_app"}') command frames," \
    "$(metric 'links_found_total{link="phone"}') phones, $((rss ? rss : warm_rss)) KiB," \
    "$((descriptors ? descriptors : warm_descriptors)) descriptors"
}

watch_daemon() {
  local next_progress=$((SECONDS + 10))
  until has_ended daemon; do
    ((SECONDS - begin < stream_seconds + 30)) || give_up 'the daemon did not notice the silence'
    sample
    if ((SECONDS >= next_progress)); then
      progress
      next_progress=$((next_progress + 10))
    fi
    sleep 0.5
  done
  if ((SECONDS - begin < stream_seconds - 2)); then
    end_camera
    (give_up "the daemon ended after $((SECONDS - begin)) s; so often the machine had held up the" \
      "camera for more than a second: $(summary camera schedule_slips)") || true
    if (($(summary camera schedule_slips) > 0)); then exit 75; fi # says nothing about the daemon
    exit 1
  fi
  await_end daemon 5
  cp "$metrics" "$out/metrics.prom"
}

end_camera() {
  end_tool camera
  wait_for 5 has_line camera odd_units || give_up 'the camera did not sum up' # the last of its lines
}

end_everybody() {
  local name
  for name in iso resolution histogram buttons phones; do
    await_end "$name" 1 || give_up "the load $name did not end in time: the machine is too slow"
    [[ $exit_code -eq 0 ]] || give_up "the load $name failed: $(tail -n 1 "$out/$name.log")"
  done
  end_tool reader
  end_tool telemetry
  end_camera
}

# --- the account ------------------------------------------------------------------------------

disagreements=0

# row WHAT DAEMON NEIGHBOURS AGREES
row() {
  local verdict="${green}agrees$plain"
  if (($4)); then :; else
    verdict="${red}DISAGREES$plain"
    disagreements=$((disagreements + 1))
  fi
  printf '    %-44s %12s %18s   %s\n' "$1" "$2" "$3" "$verdict"
}
same() { row "$1" "$2" "$3" "$2 == $3"; }
# within WHAT DAEMON LOWEST HIGHEST
within() { row "$1" "$2" "$3 to $4" "$2 >= $3 && $2 <= $4"; }

# of_phones KEY: the sum over all phones.
of_phones() {
  local sum=0 log
  for log in "$out"/phone-*.log; do
    sum=$((sum + $(summary "$(basename "$log" .log)" "$1")))
  done
  echo $sum
}

# records TYPE: how many of that type the main application got.
records() { grep -c "\"type\":\"$1\"" "$out/telemetry.log" || true; }

# What comes by the clock goes on for up to two seconds after the daemon's last counters.
account_for_video() {
  local camera=received_datagrams_total sent_whole
  sent_whole="$(summary camera whole_units)"
  same 'datagrams of the camera' "$(metric $camera'{link="camera"}')" "$(summary camera datagrams_sent)"
  same '  bytes' "$(metric 'received_bytes_total{link="camera"}')" "$(summary camera bytes_sent)"
  same '  video' "$(metric 'camera_datagrams_total{kind="video"}')" "$(summary camera video_datagrams)"
  same '  command data' "$(metric 'camera_datagrams_total{kind="command_data"}')" \
    "$(summary camera command_data_datagrams)"
  same '  of other kinds' "$(metric 'camera_datagrams_total{kind="ignored"}')" \
    "$(summary camera other_datagrams)"
  same '  stray video' "$(metric stray_video_datagrams_total)" "$(summary camera stray_datagrams)"
  same 'units published: by the camera' "$(metric 'units_total{outcome="published"}')" "$sent_whole"
  same '  by the reader' "$(metric 'units_total{outcome="published"}')" "$(summary reader units)"
  same '  bytes: by the camera' "$(metric published_bytes_total)" "$(summary camera whole_bytes)"
  same '  bytes: by the reader' "$(metric published_bytes_total)" "$(summary reader bytes)"
  same 'units that the reader lost' "$(summary reader lost)" 0
  same 'units corrupted' "$(metric 'units_total{outcome="corrupted"}')" "$(summary camera broken_units)"
  same 'units not published' "$(metric 'units_total{outcome="not_published"}')" \
    "$(summary camera odd_units)"
}

account_for_camera_packets() {
  local acknowledgements keepalives frames
  acknowledgements="$(metric acknowledgements_sent_total)"
  keepalives="$(metric keepalives_sent_total)"
  frames=$(($(metric 'command_frames_sent_total{source="main_app"}') +
    $(metric 'command_frames_sent_total{source="remote_control"}')))
  same 'acknowledgements, and the phones'"'" $((acknowledgements + $(of_phones acknowledgements_sent))) \
    "$(summary camera acknowledged)"
  keepalives=$((keepalives + $(of_phones keepalives_sent)))
  within 'keepalives, and the phones'"'" "$keepalives" $(($(summary camera keepalives) - 3)) \
    "$(summary camera keepalives)"
  same 'command frames' "$frames" "$(summary camera commands)"
  same 'packets to the camera, by their kinds' "$(metric 'sent_datagrams_total{link="camera"}')" \
    $((acknowledgements + $(metric keepalives_sent_total) + frames + \
      $(metric connection_requests_sent_total) + $(metric 'relayed_datagrams_total{direction="to_camera"}')))
  same 'wrong packets to the camera' "$(summary camera bad_packets)" 0
  same 'packets of strangers to the camera' "$(summary camera foreign_packets)" 0
}

account_for_commands() {
  local sent=$(((iso_rate + resolution_rate + histogram_rate) * load_seconds))
  same 'commands of the main application' "$(metric 'received_datagrams_total{link="main_app"}')" $sent
  same '  not understood' "$(metric app_messages_ignored_total)" 0
  same '  frames' "$(metric 'command_frames_sent_total{source="main_app"}')" \
    $((sent + resolution_rate * load_seconds)) # a resolution takes two
  # A thread that waits long for the processor may miss a press.
  within 'frames for the remote control'"'"'s presses' \
    "$(metric 'command_frames_sent_total{source="remote_control"}')" 1 \
    "$(grep -c '= 1$' "$out/buttons.log")"
}

account_for_state() {
  local kind pushes=0
  for kind in status settings battery; do
    # Some of the last ones wait for a batch to be full.
    within "$kind pushes" "$(metric "pushes_decoded_total{kind=\"$kind\"}")" \
      $(($(summary camera command_data_sent) - 2)) "$(summary camera command_data_sent)"
  done
  for kind in status settings battery histogram; do
    pushes=$((pushes + $(metric "pushes_decoded_total{kind=\"$kind\"}")))
  done
  same 'command frames found: all are pushes' "$(metric command_frames_found_total)" $pushes
  for kind in text status histogram; do
    within "$kind records of the telemetry" "$(metric "telemetry_records_sent_total{kind=\"$kind\"}")" \
      $(($(records $kind) - 15)) "$(records $kind)"
  done
}

account_for_phones() {
  local phones=("$out"/phone-*.log)
  same 'phones found' "$(metric 'links_found_total{link="phone"}')" ${#phones[@]}
  same '  and lost' "$(metric 'links_lost_total{link="phone"}')" ${#phones[@]}
  same 'relayed to the camera' "$(metric 'relayed_datagrams_total{direction="to_camera"}')" \
    $(($(of_phones keepalives_sent) + $(of_phones acknowledgements_sent)))
  same 'relayed to the phones' "$(metric 'relayed_datagrams_total{direction="to_phone"}')" \
    "$(of_phones datagrams)"
}

account_for_the_rest() {
  local link
  for link in camera main_app phone main_app_second; do
    same "dropped by the kernel: $link" "$(metric "kernel_drops_total{link=\"$link\"}")" 0
  done
  for link in camera main_app phone; do
    same "not sent: $link" "$(metric "send_failures_total{link=\"$link\"}")" 0
  done
  within 'resident memory after the warm-up, KiB' "$rss" 1 $((warm_rss + growth_allowed_kib))
  within 'descriptors after the warm-up' "$descriptors" 1 $((warm_descriptors + 1)) # a file, at times
  same 'exit code, the camera being lost' "$exit_code_of_daemon" 1
}

step "The daemon under all loads for $stream_seconds s"
start_everybody
start_loads
watch_daemon
exit_code_of_daemon=$exit_code
end_everybody

step 'The account'
say "The camera sent $(summary camera units_sent) units; of their datagrams" \
  "$(summary camera datagrams_lost) were lost, $(summary camera datagrams_duplicated) doubled," \
  "$(summary camera datagrams_reordered) late and $(summary camera datagrams_corrupted) damaged."
printf '\n    %-44s %12s %18s\n' '' 'daemon' 'neighbours'
account_for_video
account_for_camera_packets
account_for_commands
account_for_state
account_for_phones
account_for_the_rest

((disagreements == 0)) || fail "$disagreements of these disagree; the logs are in $out/"
printf '\n%s\n' "${bold}Everything agrees.$plain"
