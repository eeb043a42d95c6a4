#!/usr/bin/env bash
# The example builds against the installed headers, with find_package and with pkg-config.
#
#   consumer.sh BUILD_FOLDER COMPILER
set -euo pipefail
build="$1" compiler="$2"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
folder="$(mktemp -d)"
trap 'rm -rf "$folder"' EXIT

cmake --install "$build" --component dev --prefix "$folder/prefix" >/dev/null
example="$folder/prefix/share/doc/kestrelbridge-dev/examples/main_application.cpp"

cmake -S "$here/consumer" -B "$folder/build" -D CMAKE_CXX_COMPILER="$compiler" \
  -D CMAKE_PREFIX_PATH="$folder/prefix" -D EXAMPLE="$example" >"$folder/log" ||
  { cat "$folder/log" && exit 1; }
cmake --build "$folder/build"

export PKG_CONFIG_PATH="$folder/prefix/share/pkgconfig"
# shellcheck disable=SC2046 # the flags are words
"$compiler" -std=c++17 "$example" -o "$folder/main_application" \
  $(pkg-config --cflags --libs kestrelbridge)
