#!/usr/bin/env bash
# The recipes at work, one after the other, run by scripts/check-video-out once the stage is set.
#
#   video_out.sh MEASURE RECIPE...       MEASURE: yes or no
#
#   camera 192.168.2.1 -- box 192.168.1.10 ---- 192.168.1.20 station
# shellcheck source=scripts/lib/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/../lib/common.sh"
script_name=check-video-out
readonly bin="$PWD/build/bin" out="$PWD/video-output" clip="$PWD/tools/clips/test-pattern-720p30.h264"
readonly compare=(/usr/bin/python3 "$PWD/scripts/plays/video_out_compare.py")
readonly far_end=(/usr/bin/python3 "$PWD/scripts/plays/video_out_station.py")
# shellcheck source=scripts/lib/play.sh
source scripts/lib/play.sh
# shellcheck source=scripts/plays/video_out_document.sh
source scripts/plays/video_out_document.sh

readonly measure="$1"
if [[ $measure == yes ]]; then watch_seconds=10; else watch_seconds=3; fi
readonly least=60 # units or pictures, of a recipe that runs for three seconds
readonly hashes="$out/clip.hashes" ring="$out/ring.times"

export GST_PLUGIN_PATH="$PWD/build/gstreamer" GST_REGISTRY="$out/registry.bin" HOME="$out"
export PATH="$PWD/build/gstreamer:$PWD/build/bin:$PATH" GST_DEBUG_NO_COLOR=1

trap stop_all EXIT
trap 'exit 130' INT TERM HUP

# --- the hosts --------------------------------------------------------------------------------

station() { nsenter --target "${pids[station]}" --net --wd="$out" "$@"; }
has_its_network() { [[ "$(readlink "/proc/${pids[station]}/ns/net")" != "$(readlink /proc/self/ns/net)" ]]; }

set_up_hosts() {
  start station unshare --net sleep infinity
  wait_for 10 has_its_network || fail 'the station got no network of its own'
  ip link add to-station type veth peer name eth0 netns "${pids[station]}"
  ip address add 192.168.1.10/24 dev to-station
  ip link set to-station up
  station ip link set lo up
  station ip address add 192.168.1.20/24 dev eth0
  station ip link set eth0 up
  # WebRTC looks for the address that leads to the world.
  ip route add default via 192.168.1.20
  station ip route add default via 192.168.1.10
}

start_daemon() { start daemon "$bin/kestrelbridge" --port 9104; }
is_seen() { has_line daemon 'Live stream video resolution changed'; }

start_camera_and_daemon() {
  start camera "$bin/kestrelctl" camera --listen 192.168.2.1:9104 --clip "$clip" --loop
  start_daemon
  wait_for 15 is_seen || give_up 'the daemon got no picture within 15 seconds'
  "$bin/kestrelctl" video --output - --live > >("${compare[@]}" stamp-ring "$clip" >"$ring") 2>"$out/ring.log" &
  pids[ring]=$!
  ffmpeg -nostdin -loglevel error -i "$clip" -f framehash -hash md5 - >"$hashes"
}

# --- running a recipe -----------------------------------------------------------------------------

# translated: the two words that a machine can't look at.
translated() {
  sed -e 's/autovideosink/video\/x-raw,format=I420 ! checksumsink hash=md5 sync=true/' \
    -e "s|^ffplay \(.*\)|ffmpeg -nostdin -loglevel warning -y \1 -map 0:v -fps_mode passthrough -f framehash \
-hash md5 -flush_packets 1 - -map 0:v -c copy -f h264 $recipe.h264|"
}

# command PLACE: the recipe's, as the document has it.
command_at() {
  local text
  text="$(block "$recipe" "$1" | translated)"
  [[ -n $text ]] || fail "$document has no command of the recipe $recipe for: $1"
  printf 'exec %s' "$text"
}

# file_at PLACE FILE: the recipe's file, as the document has it.
file_at() {
  block "$recipe" "$1" >"$2"
  [[ -s $2 ]] || fail "$document has no file of the recipe $recipe for: $1"
}

declare -A eyes=() # who looks, where it is not GStreamer

# on_box NAME [PLACE], at_station NAME [PLACE]: starts the recipe's command. What it writes goes behind
# time stamps to NAME.pictures, what it complains about to NAME.log. The process is the program itself.
on_box() { start_stamped "$1" bash -c "$(command_at "${2:-On the box}")"; }
at_station() {
  [[ "$(block "$recipe" "${2:-At the station}")" != ffplay* ]] || eyes[$1]=ffplay
  start_stamped "$1" nsenter --target "${pids[station]}" --net --wd="$out" bash -c "$(command_at "${2:-At the station}")"
}
start_stamped() {
  (cd "$out" && exec "${@:2}") > >("${compare[@]}" stamp >"$out/$1.pictures") 2>"$out/$1.log" &
  pids[$1]=$!
}

# finish NAME [SIGNAL]: ends it as Ctrl-C would.
finish() {
  kill "-${2:-INT}" "${pids[$1]}" 2>/dev/null || true
  await_end "$1" 8 || recipe_fails "$1 does not end"
}

recipe_fails() {
  local log
  for log in "$out/$recipe"*.log; do
    [[ ! -s $log ]] || { say "${log##*/}:" && tail -n 6 "$log" | cut -c 1-200 | sed 's/^/        /'; }
  done
  printf '    %s%s: %s%s\n' "$red" "$recipe" "$*" "$plain" >&2
  exit 1
}

pictures_of() { grep -cs '[0-9a-f]\{32\}' "$out/$1.pictures" || true; }
has_pictures() { [[ $(pictures_of "$1") -ge ${2:-1} ]]; }
await_pictures() { wait_for 30 has_pictures "$1" || recipe_fails "$1 shows no picture within 30 seconds"; }

# expect COMPARISON ARGUMENT...: what video_out_compare.py says, or the recipe's failure.
expect() {
  local told
  told="$("${compare[@]}" "$@" 2>&1)" || recipe_fails "$told"
  say "$told"
}
# expect_pictures NAME [GAPS]
expect_pictures() {
  local told
  told="$(expect pictures "$hashes" "$out/$1.pictures" $least "${2:-0}" "$ring")" || exit 1
  printf '%s\n' "$told"
  [[ $told =~ ([0-9]+)\ ms\ after ]] && delays+=("${BASH_REMATCH[1]} ms ${eyes[$1]:-GStreamer}")
}
expect_units() { expect units "$clip" "$out/$1" "${2:-$least}"; }
# expect_recording FILE: its video is the clip's, and ffprobe finds nothing odd.
expect_recording() {
  local told
  told="$(ffprobe -v warning -count_packets -show_entries stream=width,height,nb_read_packets -of csv=p=0 \
    "$out/$1" 2>&1)" || true
  [[ $told =~ ^1280,720,[0-9]+$ ]] || recipe_fails "ffprobe tells of $1: $told"
  ffmpeg -nostdin -loglevel error -y -i "$out/$1" -map 0:v -c copy -bsf:v h264_mp4toannexb -f h264 "$out/$1.h264" \
    2>"$out/$recipe-copy.log" || recipe_fails "ffmpeg cannot read $1"
  expect_units "$1.h264" "${2:-$least}"
}

# --- its cost -------------------------------------------------------------------------------------

# processor_us NAME...: of all threads so far.
processor_us() {
  local name
  for name in "$@"; do
    cat "/proc/${pids[$name]}/task/"*/schedstat 2>/dev/null || true # in nanoseconds; a thread may end
  done | awk '{ spent += $1 } END { printf "%d\n", spent / 1000 }'
}

# watch NAME...: lets the recipe run, and keeps what these processes cost meanwhile.
watch() {
  local before begin
  before=$(processor_us "$@") begin=${EPOCHREALTIME/./}
  sleep "$watch_seconds"
  cost_us=$((($(processor_us "$@") - before) * 1000000 / (${EPOCHREALTIME/./} - begin)))
  say "$((cost_us / 1000)).$((cost_us % 1000 / 100)) ms of processor for a second of video"
}

# installed_mb PACKAGE...: with all that they pull in, on a Debian that has nothing at all.
installed_mb() {
  apt-get install --assume-no --no-install-recommends -o Dir::State::status="$out/nothing" \
    -o Debug::NoLocking=1 "$@" 2>/dev/null |
    sed -n -e 's/^After this operation, \([0-9]*\)[0-9.]* MB .*/\1/p' -e 's/^After this operation, \([0-9]*\)[0-9.]* kB .*/0/p'
}
readonly always=(gstreamer1.0-tools libgstreamer-plugins-base1.0-0)
readonly rtsp_needs=libgstrtspserver-1.0-0

# row: of the document's table, for the recipe that has just run.
row() {
  local packages size without delay
  delay="$(printf '%s, ' "${delays[@]}")" delay="${delay%, }"
  : >"$out/nothing"
  mapfile -t packages < <(packages_of "$recipe" 'On the box' | grep -vx gstreamer1.0-tools)
  without="$(installed_mb "${always[@]}")" size="$(installed_mb "${always[@]}" "${packages[@]/#kestrelbridge-rtsp/"$rtsp_needs"}")"
  printf '| %s | %s | %s | %s | %s |\n' "$recipe" "$delay" \
    "${cost_us:+$(((cost_us + 500) / 1000)) ms}" "${packages[*]}" "$((size - without)) MB"
}

# --- the play -------------------------------------------------------------------------------------

# shellcheck source=scripts/plays/video_out_recipes.sh
source scripts/plays/video_out_recipes.sh

rm -rf "${out:?}"/*
step 'Camera, box and station'
set_up_hosts
start_camera_and_daemon
gst-inspect-1.0 kestrelbridgesrc >"$out/inspect.log" 2>&1 ||
  fail "GStreamer finds no kestrelbridgesrc in $GST_PLUGIN_PATH: $(tail -n 1 "$out/inspect.log")"
done_with 'The daemon has the picture, and GStreamer the source.'

rows=()
for recipe in "${@:2}"; do
  step "$recipe"
  began=$SECONDS
  cost_us='' delays=()
  declare -F "recipe_$recipe" >/dev/null || fail "nobody knows how to check the recipe $recipe"
  "recipe_$recipe"
  done_with "works ($((SECONDS - began)) s)"
  if [[ $measure == yes ]]; then rows+=("$(row)"); fi
done

if [[ $measure == yes ]]; then
  step 'Recipe, ring to decoded picture, processor for a second of video, packages, their size'
  printf '%s\n' "${rows[@]}"
fi
printf '\n%s\n' "${bold}The recipes do what the document says.$plain"
