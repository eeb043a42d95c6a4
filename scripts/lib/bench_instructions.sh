# shellcheck shell=bash
# Instructions per datagram, counted by valgrind's callgrind. Part of scripts/bench; uses its
# on_stage, bin and fixed_clip.
# shellcheck disable=SC2154 # which scripts/bench sets

readonly instructions_file=bench/instructions.txt instruction_jobs=(video pushes)
readonly tolerance_percent=5
declare -A counted=()

# count_instructions: one thread, no timer, datagrams in a fixed order, so the count is the same each
# time. The C library picks its copy routines by processor; without the wide ones it picks the same
# everywhere.
count_instructions() {
  local job datagrams total output=build/bench/callgrind
  for job in "${instruction_jobs[@]}"; do
    datagrams="$(GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX512F,-AVX512VL,-AVX2,-AVX2_Usable,-AVX_Fast_Unaligned_Load,-ERMS,-FSRM \
      on_stage valgrind --quiet --tool=callgrind --collect-atstart=no \
      --callgrind-out-file="$PWD/$output.$job" --log-file="$PWD/$output.log" \
      "$bin/bench_replay" "$job" "$fixed_clip" 2>/dev/null)" ||
      fail "callgrind could not run: see $output.log"
    total="$(sed -n 's/^\(totals\|summary\): \([0-9]*\).*/\2/p' "$output.$job" | tail -n 1)"
    [[ ${total:-0} -gt 0 && ${datagrams:-0} -gt 0 ]] || fail 'callgrind counted nothing'
    counted[$job]=$((total / datagrams))
    say "$job: ${counted[$job]} instructions per datagram"
  done
}

# recorded JOB: the figure of this architecture, or nothing.
recorded() { awk -v arch="$(uname -m)" -v job="$1" '$1 == arch && $2 == job { print $3 }' "$instructions_file"; }

# record_instructions: leaves the lines of other architectures alone.
record_instructions() {
  local job arch
  arch="$(uname -m)"
  {
    grep -v "^$arch " "$instructions_file"
    for job in "${instruction_jobs[@]}"; do echo "$arch $job ${counted[$job]}"; done
  } >"$instructions_file.new"
  mv "$instructions_file.new" "$instructions_file"
  done_with "Written to $instructions_file."
}

difference_percent() { awk -v now="$1" -v then="$2" 'BEGIN { printf "%+.1f", (now - then) * 100 / then }'; }

compare_instructions() {
  local job before
  echo '| datagram | instructions | recorded | difference |'
  echo '|---|---|---|---|'
  for job in "${instruction_jobs[@]}"; do
    before="$(recorded "$job")"
    echo "| $job | ${counted[$job]} | ${before:--} | ${before:+$(difference_percent "${counted[$job]}" "$before") %} |"
  done
}

check_instructions() {
  local job before difference
  for job in "${instruction_jobs[@]}"; do
    before="$(recorded "$job")"
    if [[ -z $before ]]; then
      say "No figure of $(uname -m) for $job is recorded; scripts/bench --instructions --record does it."
      continue
    fi
    difference="$(difference_percent "${counted[$job]}" "$before")"
    awk -v d="$difference" -v t="$tolerance_percent" 'BEGIN { exit !(d <= t && d >= -t) }' ||
      fail "$job: $difference % instructions per datagram against $instructions_file, $tolerance_percent % are
allowed. Find the cause (callgrind_annotate build/bench/callgrind.$job), or, when it is worth it or
is a gain, scripts/bench --instructions --record."
  done
  done_with "Instructions per datagram are within $tolerance_percent % of those recorded."
}
