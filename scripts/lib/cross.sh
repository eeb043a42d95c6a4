# shellcheck shell=bash
# Builds for the ARM boards on a Debian machine of another kind. Source it after common.sh.

# is_foreign ARCH: whether programs for it are not this machine's own.
is_foreign() { [[ "$(dpkg --print-architecture)" != "$1" ]]; }

# install_cross ARCH PACKAGE...: the cross compiler, and libraries of that architecture, which live
# beside this machine's own.
install_cross() {
  local arch="$1"
  shift
  if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    say "Telling apt that there are packages for $arch, too (dpkg --add-architecture)"
    as_root dpkg --add-architecture "$arch"
  fi
  install_missing "crossbuild-essential-$arch" "${@/%/:$arch}"
}

# qemu_name ARCH: what qemu calls it.
qemu_name() {
  case "$1" in
    arm64) echo aarch64 ;;
    armhf) echo arm ;;
    *) echo x86_64 ;;
  esac
}
