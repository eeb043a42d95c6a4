# shellcheck shell=bash
# The recipes as docs/video-out.md has them. Source it behind common.sh.
#
# A recipe is a fenced block behind a line "<!-- recipe: NAME -->" whose first line tells the place, a
# file's name where it is no command, and the packages:
#
#   # On the box (apt install PACKAGE...)
#   # On the box, /etc/some.conf (apt install PACKAGE...)
#   # At the station, stream.sdp

readonly document=docs/video-out.md

# recipe_names: in the document's order, each once.
recipe_names() { sed -n 's/^<!-- recipe: \([a-z0-9-]*\) -->$/\1/p' "$document" | awk '!seen[$0]++'; }

# block NAME PLACE: PLACE is the beginning of the block's first line, "On the box" or "At the station, x".
block() {
  awk -v name="$1" -v place="# $2" '
    /^<!-- recipe: / { marked = $3 == name; next }
    /^```/ { first = marked && !inside; inside = first; marked = 0; next }
    first { wanted = $0 == place || index($0, place " (") == 1; first = 0; next }
    inside && wanted { print }' "$document"
}

# packages_of NAME [PLACE]: what the recipe's blocks want installed, one a line.
packages_of() {
  awk -v name="$1" -v place="# ${2:-}" '
    /^<!-- recipe: / { marked = $3 == name; next }
    /^```/ { first = marked; marked = 0; next }
    first && index($0, place) == 1 && sub(/.*\(apt install /, "") { sub(/\).*/, ""); gsub(/ /, "\n"); print }
    { first = 0 }' "$document" | sort -u
}
