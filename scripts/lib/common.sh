# shellcheck shell=bash
# What the scripts share: messages, packages, builds. Source it; it changes to the project's root.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

# --- messages ---------------------------------------------------------------------------------

if [[ -t 1 ]]; then
  readonly bold=$'\e[1m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
else
  readonly bold='' green='' red='' plain=''
fi

say() { printf '    %s\n' "$*"; }
done_with() { printf '    %s%s%s\n' "$green" "$*" "$plain"; }

# A heading; the steps count themselves. The count survives into scripts that this one runs.
step() {
  step_number=$((${step_number:-0} + 1))
  export step_number
  printf '\n%s[%d] %s%s\n' "$bold" "$step_number" "$*" "$plain"
}

# Ends the script with a plain reason.
script_name="$(basename "$0")"
fail() {
  printf '\n%s%s: %s%s\n' "$red" "$script_name" "$*" "$plain" >&2
  exit 1
}

# The comment at the head of a script is its help text.
print_help() { sed -n '2,/^[^#]/ { /^# shellcheck/d; s/^# \{0,1\}//p }' "$1"; }

# --- packages ---------------------------------------------------------------------------------

# shellcheck disable=SC2034 # used by the scripts that source this file
readonly build_packages=(g++ cmake ninja-build pkg-config libcjson-dev libcli11-dev) \
  demo_packages=(util-linux iproute2) \
  test_packages=(libgtest-dev util-linux iproute2 iptables ffmpeg) \
  console_packages=(libwebsockets-dev) \
  gstreamer_packages=(libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstrtspserver-1.0-dev) \
  gstreamer_test_packages=(gstreamer1.0-plugins-base gstreamer1.0-plugins-good)

# is_installed PACKAGE[:ARCH]: several architectures of one package may be there side by side.
is_installed() {
  local arch
  arch="$(dpkg --print-architecture)"
  if [[ $1 == *:* ]]; then arch="${1#*:}"; fi
  # shellcheck disable=SC2016 # dpkg's variables
  dpkg-query --show --showformat='${db:Status-Status} ${Architecture}\n' "$1" 2>/dev/null |
    grep -qxE "installed ($arch|all)"
}

# Runs a command as root.
as_root() {
  if [[ $EUID -eq 0 ]]; then
    "$@"
  else
    sudo -- "$@"
  fi
}

# install_missing PACKAGE...: installs what is not there yet. Where all is there it does nothing at
# all, needs no root and no network.
install_missing() {
  if ! command -v dpkg-query >/dev/null; then
    say "Not a Debian system: expecting to find the equivalents of $*"
    return
  fi
  local package missing=()
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  if [[ ${#missing[@]} -eq 0 ]]; then
    say 'All needed packages are installed.'
    return
  fi
  if [[ $EUID -ne 0 ]] && ! command -v sudo >/dev/null; then
    fail "packages are missing; please run as root: apt-get install ${missing[*]}"
  fi
  say "Installing ${missing[*]}"
  # A box that was just switched on may be busy with its own updates: wait for them.
  local apt=(as_root env DEBIAN_FRONTEND=noninteractive apt-get -q
    -o DPkg::Lock::Timeout=300 -o Dpkg::Use-Pty=0)
  "${apt[@]}" update || say 'The package lists could not be renewed; trying with those at hand.'
  "${apt[@]}" install -y --no-install-recommends "${missing[@]}" ||
    fail "could not install ${missing[*]}: see the messages above (is there a network?)"
}

# --- builds -----------------------------------------------------------------------------------

in_ci() { [[ -n "${CI:-}" && "$CI" != false ]]; }

# build_dir PRESET: where that preset builds (CMakePresets.json).
build_dir() {
  if [[ $1 == release ]]; then echo build; else echo "build-$1"; fi
}

# As many compilers as there are cores, but none that would not fit into memory: a small board
# would swap for an hour.
compile_jobs() {
  local available_mib per_compiler_mib=600 cores jobs
  available_mib=$(($(sed -n 's/^MemAvailable: *\([0-9]*\) kB/\1/p' /proc/meminfo) / 1024))
  cores=$(nproc)
  jobs=$((available_mib / per_compiler_mib))
  ((jobs > cores)) && jobs=$cores
  ((jobs < 1)) && jobs=1
  echo "$jobs"
}

# is_configured PRESET: whether its build was set up, and in this very place.
is_configured() {
  grep -qsFx "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "$(build_dir "$1")/CMakeCache.txt"
}

# configure PRESET [CMAKE_OPTION...]
configure() {
  local preset="$1" dir
  shift
  dir="$(build_dir "$preset")"
  if [[ -e $dir && ! -w $dir ]]; then
    fail "$dir/ belongs to another user; remove it (sudo rm -r $dir) and try again"
  fi
  local options=(-D "KESTRELBRIDGE_WERROR=$(in_ci && echo ON || echo OFF)")
  if ! is_configured "$preset"; then
    options+=(--fresh -G Ninja) # a new build, or one that was copied here from another place
  fi
  # cmake's own report is long; it is of interest only when it fails.
  local report
  report="$(cmake --preset "$preset" "${options[@]}" "$@" 2>&1)" || {
    echo "$report" >&2
    fail "cmake could not set up $dir/"
  }
}

# build PRESET [TARGET...]
build() {
  local preset="$1" dir jobs
  shift
  dir="$(build_dir "$preset")"
  jobs="$(compile_jobs)"
  say "Building $dir/ with $jobs compiler(s); the first time takes some minutes on a small board."
  cmake --build "$dir" --parallel "$jobs" ${1:+--target "$@"} || fail "$dir/ did not build"
}

# --- sources ----------------------------------------------------------------------------------

# project_sources GLOB...: the tracked files that match, one a line. A tree without its git history
# is searched instead.
project_sources() {
  # The tree may belong to another user than the one who checks it (CI in a container).
  git -c "safe.directory=$PWD" ls-files -- "$@" 2>/dev/null && return
  local glob names=()
  for glob in "$@"; do names+=(-o -name "$glob"); done
  find . -path './build*' -prune -o \( "${names[@]:1}" \) -type f -print | sed 's|^\./||' | sort
}
