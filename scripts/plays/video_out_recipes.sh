# shellcheck shell=bash
# How each recipe is checked; a function each. Part of scripts/plays/video_out.sh, which sources it and has
# what is used here.
# shellcheck disable=SC2154

# Starts the box's command, waits until NAME, which is there already, shows pictures, looks on, ends both. The
# receiver goes first: ffmpeg looks at a signal when something comes.
push_to() {
  on_box "$recipe"
  await_pictures "$1"
  watch "$recipe"
  finish "$1"
  finish "$recipe"
  expect_pictures "$1"
}

recipe_window() {
  on_box window
  await_pictures window
  watch window
  finish window
  expect_pictures window
}

recipe_rtp() {
  at_station rtp-station
  on_box rtp
  await_pictures rtp-station
  watch rtp
  restart_daemon rtp-station
  finish rtp-station
  expect_pictures rtp-station 1

  file_at 'At the station, stream.sdp' "$out/stream.sdp"
  at_station rtp-with-the-file 'At the station, with the file'
  await_pictures rtp-with-the-file
  sleep "$watch_seconds"
  finish rtp-with-the-file
  finish rtp
  expect_pictures rtp-with-the-file
  expect_units rtp.h264
}

# restart_daemon NAME: the daemon ends and comes again, and NAME goes on.
restart_daemon() {
  local before
  kill -TERM "${pids[daemon]}"
  await_end daemon 5 || give_up 'the daemon does not end'
  before=$(pictures_of "$1")
  start_daemon
  wait_for 15 is_seen || give_up 'the daemon came back and got no picture within 15 seconds'
  wait_for 15 has_pictures "$1" $((before + 30)) || recipe_fails 'it does not go on after a restart of the daemon'
  say 'The daemon was restarted in the middle; the same receiver went on.'
}

recipe_mpegts() {
  at_station mpegts-station
  push_to mpegts-station
  expect_units mpegts.h264
}

# pulled_by NAME PLACE: the box serves already, a receiver comes, sees, and goes.
pulled_by() {
  at_station "$1" "$2"
  await_pictures "$1"
  watch "$recipe"
  finish "$1"
  expect_pictures "$1"
}

listens_at() { [[ -n "$(ss -Hlntu "sport = :$1")" ]]; }

recipe_srt-listener() {
  on_box srt-listener
  wait_for 10 listens_at 7001 || recipe_fails 'nobody listens at port 7001'
  pulled_by srt-listener-station 'At the station'
  finish srt-listener
  expect_units srt-listener.h264
}

recipe_srt-caller() {
  at_station srt-caller-station
  push_to srt-caller-station
  expect_units srt-caller.h264
}

recipe_rtsp() {
  on_box rtsp
  wait_for 10 listens_at 8554 || recipe_fails 'nobody listens at port 8554'
  pulled_by rtsp-station 'At the station'
  expect_units rtsp.h264
  pulled_by rtsp-gstreamer 'At the station, with GStreamer'
  finish rtsp
}

has_bytes() { [[ "$(stat --format=%s "$out/$1" 2>/dev/null || echo 0)" -ge $2 ]]; }

is_closed_well() { [[ "$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$out/$1")" =~ ^[2-9]|^[1-9][0-9] ]]; }

# records FILE: a recording that is ended well, and one whose recorder is killed.
records() {
  on_box "$recipe"
  wait_for 10 has_bytes "$1" 1000 || recipe_fails "nothing comes into $1"
  watch "$recipe"
  finish "$recipe"
  is_closed_well "$1" || recipe_fails "$1 does not know how long it is"
  expect_recording "$1"
  mv "$out/$1" "$out/whole-$1"
  on_box "$recipe"
  # Two seconds and more, and in the middle of writing.
  wait_for 15 has_bytes "$1" 900000 || recipe_fails "nothing comes into $1"
  kill -KILL "${pids[$recipe]}"
  await_end "$recipe" 5 2>"$out/killed.log" || recipe_fails 'it outlives its kill' # bash would tell of it
  expect_recording "$1"
  say 'The latter after kill -9.'
}

recipe_matroska() { records flight.mkv; }
recipe_mp4() { records flight.mp4; }

recipe_snapshot() {
  on_box snapshot
  await_end snapshot 10 || recipe_fails 'it does not end'
  expect still "$clip" "$out/snapshot.jpg"
}

recipe_opencv() {
  block opencv 'On the box' >"$out/opencv.py"
  start_stamped opencv /usr/bin/python3 opencv.py
  sleep 1 # Python and OpenCV begin; what they cost then is no matter
  watch_seconds=3 watch opencv
  await_end opencv 20 || recipe_fails 'it does not end'
  expect still "$clip" "$out/picture.png"
}

recipe_webrtc() {
  rm -rf "$out/janus" && cp -r /etc/janus "$out/janus"
  mount --bind "$out/janus" /etc/janus # in the play's own namespace
  file_at 'On the box, /etc/janus/janus.plugin.streaming.jcfg' /etc/janus/janus.plugin.streaming.jcfg
  start janus janus --disable-colors
  wait_for 10 listens_at 8088 || recipe_fails 'janus does not listen at port 8088'
  on_box webrtc
  start_stamped webrtc-station nsenter --target "${pids[station]}" --net "${far_end[@]}" janus http://192.168.1.10:8088/janus
  await_pictures webrtc-station
  watch webrtc janus
  finish webrtc-station
  finish webrtc
  finish janus
  grep -q 'connection connected' "$out/webrtc-station.pictures" || recipe_fails 'the viewer was never connected'
  expect_pictures webrtc-station
}

is_ready() { grep -qs ' ready$' "$out/$1.pictures"; }

# start_far_end NAME MODE PORT: what takes the picture.
start_far_end() {
  start_stamped "$1" nsenter --target "${pids[station]}" --net "${far_end[@]}" "$2" "$3"
  wait_for 30 is_ready "$1" || recipe_fails "the $2 server does not start"
}

recipe_record() {
  start_far_end record-station record 8554
  push_to record-station
}

recipe_whip() {
  start_far_end whip-station whip 8080
  block whip 'On the box' >"$out/whip.py"
  start_stamped whip /usr/bin/python3 whip.py
  await_pictures whip-station
  watch whip
  finish whip TERM
  finish whip-station
  expect_pictures whip-station
}
