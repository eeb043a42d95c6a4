#!/usr/bin/env bash
# The manual pages and --help list the same subcommands and the same options.
#
#   manual.sh FOLDER_OF_THE_PROGRAMS
set -euo pipefail
bin="$1"
pages="$(dirname "${BASH_SOURCE[0]}")/../../packaging/man"
failures=0

# help_options PROGRAM [SUBCOMMAND]: a line each. The daemon's usage text is an error text.
help_options() {
  { "$bin/$1" "${@:2}" --help 2>&1 || true; } |
    sed -nE 's/^ *(-.( \| |,))?(--[a-z][a-z-]*).*/\3/p' | sort
}

# page_options PAGE [SECTION]: the options that head a paragraph, in the whole page or one section.
page_options() {
  sed 's/\\-/-/g' "$pages/$1" | awk -v section="${2-}" '
    /^\.S[SH] / { inside = section == "" || $0 == ".SS " section }
    inside && heads { while (match($0, /--[a-z][a-z-]*/)) {
      print substr($0, RSTART, RLENGTH); $0 = substr($0, RSTART + RLENGTH) } }
    { heads = $0 == ".TP" }' | sort
}

# expect_same WHAT FROM_HELP FROM_PAGE
expect_same() {
  [[ -n $2 ]] || { echo "$1: --help lists nothing" && failures=1; }
  diff <(echo "$2") <(echo "$3") || { echo "$1: < is in --help, > in the manual" && failures=1; }
}

# The usage text is an interface, and stays as it was before this option.
expect_same kestrelbridge "$({ help_options kestrelbridge && echo --low-latency; } | sort)" "$(page_options kestrelbridge.8.in)"

expect_same kestrelshare "$(help_options kestrelshare)" "$(page_options kestrelshare.8.in)"

# Built where libwebsockets is.
if [[ -x $bin/kestrelconsole ]]; then
  expect_same kestrelconsole "$(help_options kestrelconsole)" "$(page_options kestrelconsole.8.in)"
fi

# Built where GStreamer is.
if [[ -x $bin/kestrel-rtsp ]]; then
  expect_same kestrel-rtsp "$(help_options kestrel-rtsp)" "$(page_options kestrel-rtsp.8.in)"
fi

subcommands="$("$bin/kestrelctl" --help | sed -nE '/^Subcommands:/,/^$/ s/^  ([a-z]+) .*/\1/p')"
expect_same 'kestrelctl: subcommands' "$subcommands" \
  "$(sed -nE 's/^\.SS ([a-z]+)$/\1/p' "$pages/kestrelctl.1.in")"
for subcommand in $subcommands; do
  # Every subcommand has --help; the page says so once.
  expect_same "kestrelctl $subcommand" "$(help_options kestrelctl "$subcommand" | grep -vx -- --help)" \
    "$(page_options kestrelctl.1.in "$subcommand")"
done
exit $failures
