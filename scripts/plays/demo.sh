#!/usr/bin/env bash
# The demo's play, run by scripts/demo once the stage is set: camera, daemon and reader start, video
# and telemetry flow, the camera obeys a few commands, it falls silent, and what arrived is compared
# with what was sent.
#
#   demo.sh CAMERA_ADDRESS SECONDS [CAMERA_OPTION...]
# shellcheck source=scripts/lib/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/../lib/common.sh"
script_name=demo

camera_address="$1"
stream_seconds="$2"
camera_options=("${@:3}")
camera_host="${camera_address%:*}"
camera_port="${camera_address#*:}"

readonly bin=build/bin out=demo-output
readonly clip=tools/clips/test-pattern-720p30.h264 clip_fps=30 clip_size=1280x720
readonly received=$out/received.h264 picture=$out/last-picture.png

# shellcheck source=scripts/lib/play.sh
source scripts/lib/play.sh

rc_block=/dev/shm/shared_rc_raw # the daemon makes it where there is none
[[ ! -e $rc_block ]] || rc_block=''
# Too short for commands, each of which waits for its effect.
is_short=$((stream_seconds < 12))

clean_up() {
  trap - EXIT
  stop_all
  rm -f ${rc_block:+"$rc_block"}
  # There was no block before the demo: scripts/demo has seen to that.
  rm -f /dev/shm/kestrelbridge_framebuffer /dev/shm/kestrelbridge_framebuffer_transcoding
  rm -f "$out/expected.h264"
}
trap clean_up EXIT
trap 'exit 130' INT TERM HUP

# --- the play ---------------------------------------------------------------------------------

camera_is_found_or_gone() { has_line daemon 'Camera connection found' || has_ended camera; }

start_everybody() {
  rm -f "$out"/*.log "$received" "$picture"

  start camera "$bin/kestrelctl" camera --listen "$camera_address" --clip "$clip" \
    --fps $clip_fps --loop --silence-after "$stream_seconds" --duration $((stream_seconds + 60)) \
    "${camera_options[@]}"
  say "simulated camera   kestrelctl camera --listen $camera_address --clip $clip"
  start reader "$bin/kestrelctl" video --output "$received"
  say "reader             kestrelctl video --output $received"

  local daemon=("$bin/kestrelbridge" --verbose)
  if [[ $camera_address != 192.168.2.1:9004 ]]; then # its default
    daemon+=(--host "$camera_host" --port "$camera_port")
  fi
  start daemon "${daemon[@]}"
  say "daemon             ${daemon[*]##*/}"

  wait_for 10 camera_is_found_or_gone || give_up 'the daemon found no camera within ten seconds'
  if has_ended camera && ! has_line daemon 'Camera connection found'; then
    fail "the simulated camera did not start: $(grep -m 1 "^kestrelctl: " "$out/camera.log" || tail -n 1 "$out/camera.log")"
  fi
  done_with 'The daemon found the camera.'
}

# telemetry_for SECONDS: all of it into the log, a line a second for people.
telemetry_for() {
  "$bin/kestrelctl" telemetry --json --duration "$1" 2>>"$out/telemetry.log" |
    tee -a "$out/telemetry.log" | grep --line-buffered '"type":"text"' |
    sed -u 's/.*"camera_model":"\([^"]*\)".*"battery_level":"\{0,1\}\([^",]*\)"\{0,1\}.*"format":"\([^"]*\)".*"iso":"\{0,1\}\([^",]*\)"\{0,1\},.*/         telemetry: \1, \3, ISO \4, battery \2 %/'
}

# The telemetry of a few seconds, beside the statistics of the video.
watch_video() {
  local seconds=$((is_short ? stream_seconds : stream_seconds > 12 ? stream_seconds - 10 : 2))
  telemetry_for "$seconds" &
  pids[telemetry]=$!
  "$bin/kestrelctl" video --stats --live --duration "$seconds" > >(sed -u 's/^/    /') 2>&1 &
  pids[statistics]=$!
  await_end statistics $((seconds + 10)) || give_up 'the statistics did not end'
  [[ $exit_code -eq 0 ]] || give_up 'the frame ring could not be read'
  await_end telemetry 10 || give_up 'the telemetry did not end'
  [[ $exit_code -eq 0 ]] || give_up "no telemetry: $(tail -n 1 "$out/telemetry.log")"
}

# records TYPE: how many of that type the telemetry brought.
records() { grep -c "\"type\":\"$1\"" "$out/telemetry.log" || true; }

# value_of KEY: from the latest text record.
value_of() {
  grep '"type":"text"' "$out/telemetry.log" | tail -n 1 |
    sed -n "s/.*\"$1\":\"\{0,1\}\([^\",]*\).*/\1/p"
}

check_telemetry() {
  local texts statuses histograms
  texts="$(records text)" statuses="$(records status)" histograms="$(records histogram)"
  say "$(value_of camera_model) in $(value_of camera_mode) mode:" \
    "$texts text, $statuses status and $histograms histogram records"
  if ((stream_seconds < 4)); then # a text record comes once a second, and the tools take time to start
    done_with 'So much came in so short a time.'
    return
  fi
  [[ $texts -ge 1 && $statuses -ge $((texts * 3)) && $histograms -ge 1 ]] ||
    give_up 'text, status and histogram records should have come, five times as many of the latter'
  [[ $(value_of camera_detected) == 1 ]] || give_up 'the telemetry knows no camera'
  done_with 'The main application sees what the camera reports.'
}

# command WORD...: one command of the main application, until the telemetry shows its effect.
command_camera() {
  "$bin/kestrelctl" command --wait "$@" >>"$out/commands.log" 2>&1 ||
    give_up "the camera did not do it: $* ($(tail -n 1 "$out/commands.log"))"
  say "kestrelctl command $*"
}

command_and_look() {
  if ((is_short)); then
    say 'Left out: they need a camera that streams for 12 seconds or more.'
    return
  fi
  command_camera iso 800
  command_camera wb cloudy
  command_camera record start
  done_with 'The effect of each came back in the telemetry.'
}

check_picture_size() {
  local size
  size="$(sed -n 's/^Live stream video resolution changed to //p' "$out/daemon.log" | tail -n 1)"
  [[ $size == "$clip_size" ]] ||
    give_up "the daemon saw pictures of size '$size', the clip has $clip_size"
  done_with "Picture size $size, as the clip's sequence parameter set says."
  if [[ -d /run/kestrelbridge && $camera_address == 192.168.2.1:9004 ]]; then
    size="$(cat /run/kestrelbridge/video_width)x$(cat /run/kestrelbridge/video_height)"
    [[ $size == "$clip_size" ]] || give_up "/run/kestrelbridge/video_width and _height say $size"
    done_with 'So do /run/kestrelbridge/video_width and video_height.'
  fi
}

camera_falls_silent() {
  say "The camera sends for $stream_seconds seconds; the daemon has to notice the silence after that."
  await_end daemon $((stream_seconds + 10)) ||
    give_up 'the daemon did not notice that the camera is gone'
  if [[ $exit_code -ne 1 ]] || ! has_line daemon 'Camera connection lost'; then
    give_up "the daemon ended with exit code $exit_code; 1 and \"Camera connection lost\" were due"
  fi
  done_with 'It said "Camera connection lost" and ended with exit code 1, as it should.'
  end_tool camera
  end_tool reader
}

compare_with_clip() {
  local sent acknowledged units
  sent="$(summary camera units_sent)"
  acknowledged="$(summary camera acknowledged)"
  units="$(summary reader units)"
  say "The camera sent $sent units, the daemon acknowledged $acknowledged, the reader took $units."
  # A unit is known to be whole only when the next one begins, so the last one stays behind.
  ((sent * 10 >= clip_fps * stream_seconds * 8)) ||
    give_up "the camera sent too few units for $stream_seconds seconds"
  [[ $units -eq $((sent - 1)) ]] || give_up "$((sent - 1)) units should have arrived, not $units"
  [[ $acknowledged -eq $((sent - 1)) ]] ||
    give_up "$((sent - 1)) units should have been acknowledged, not $acknowledged"

  local bad
  bad="$(summary camera bad_packets)"
  [[ $bad -eq 0 ]] || give_up "$bad packets of the daemon were wrong: see $out/camera.log"

  local bytes clip_bytes i
  bytes="$(stat --format=%s "$received")"
  clip_bytes="$(stat --format=%s "$clip")"
  for ((i = 0; i < bytes; i += clip_bytes)); do cat "$clip"; done >"$out/expected.h264"
  cmp --bytes="$bytes" "$received" "$out/expected.h264" ||
    give_up 'what arrived differs from what was sent'
  done_with "All $bytes bytes are those of the clip, repeated."
}

save_picture() {
  local pictures="$1"
  if ! command -v ffmpeg >/dev/null; then
    say 'ffmpeg is not installed: no picture this time (apt-get install ffmpeg).'
    return
  fi
  ffmpeg -nostdin -loglevel error -xerror -y -i "$received" \
    -vf "select=eq(n\\,$((pictures - 1)))" -frames:v 1 "$picture" ||
    give_up 'ffmpeg could not decode what arrived'
  [[ -s $picture ]] || give_up "ffmpeg found fewer than $pictures pictures"
  done_with "The last picture: $picture"
}

mkdir -p "$out"
step 'Camera, reader and daemon start'
start_everybody
step 'The video flows'
watch_video
check_picture_size
step 'The telemetry'
check_telemetry
step 'Commands'
command_and_look
step 'The camera falls silent'
camera_falls_silent
step 'What arrived, compared with what was sent'
compare_with_clip
step 'A picture'
save_picture "$(summary reader units)"

printf '\n%s\n' "${bold}The video arrived whole.$plain It is in $received; the logs are beside it."
if command -v ffplay >/dev/null; then say "Watch it: ffplay -framerate $clip_fps $received"; fi
