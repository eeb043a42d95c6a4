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

# triplet_of ARCH: what compilers call it.
triplet_of() {
  case "$1" in
    arm64) echo aarch64-linux-gnu ;;
    armhf) echo arm-linux-gnueabihf ;;
    *) echo x86_64-linux-gnu ;;
  esac
}

# make_sysroot ARCH PACKAGE...: the packages of that architecture, with all that they need, in
# build-sysroot-ARCH, and a package database that dpkg-shlibdeps understands. For those that cannot be
# installed beside this machine's own, such as GStreamer's. Says nothing of their scripts: none is run.
make_sysroot() {
  local arch="$1" root="$PWD/build-sysroot-$1" package control name
  shift
  if [[ "$(cat "$root/complete" 2>/dev/null)" == "$*" ]]; then return; fi
  say "Unpacking $* for $arch in build-sysroot-$arch/"
  rm -rf "$root"
  mkdir -p "$root"/{usr/{bin,lib,sbin},var/lib/dpkg/info,apt/{lists,archives}/partial}
  for name in bin lib sbin; do ln -s "usr/$name" "$root/$name"; done
  : >"$root/var/lib/dpkg/status"
  echo 1 >"$root/var/lib/dpkg/info/format"
  printf '%s\n' "$(dpkg --print-architecture)" "$arch" >"$root/var/lib/dpkg/arch"
  local apt=(apt-get -q -o Dpkg::Use-Pty=0 -o "APT::Architecture=$arch" -o "APT::Architectures=$arch"
    -o "Dir::State=$root/apt" -o "Dir::State::status=$root/var/lib/dpkg/status" -o "Dir::Cache=$root/apt"
    -o "APT::Sandbox::User=$(id -un)")
  # A list that could not be fetched is none that is needed for sure.
  { "${apt[@]}" update || true; "${apt[@]}" install --download-only --no-install-recommends -y "$@"; } \
    >"$root/apt.log" 2>&1 || { tail "$root/apt.log" && fail "could not fetch the packages for $arch"; }
  for package in "$root"/apt/archives/*.deb; do
    dpkg-deb --fsys-tarfile "$package" | tar -x --keep-directory-symlink -C "$root"
    control="$(mktemp -d)"
    dpkg-deb --control "$package" "$control"
    name="$(dpkg-deb --field "$package" Package)"
    if [[ "$(dpkg-deb --field "$package" Multi-Arch)" == same ]]; then name+=":$arch"; fi
    dpkg-deb --fsys-tarfile "$package" | tar -t | sed 's|^\.||; s|/$||; s|^$|/.|' >"$root/var/lib/dpkg/info/$name.list"
    find "$control" \( -name symbols -o -name shlibs \) -printf '%f\n' | while IFS= read -r kind; do
      cp "$control/$kind" "$root/var/lib/dpkg/info/$name.$kind"
    done
    { sed '/^Package:/a Status: install ok installed' "$control/control" && echo; } >>"$root/var/lib/dpkg/status"
    rm -rf "$control"
  done
  rm -rf "$root/apt"
  echo "$*" >"$root/complete"
}

# qemu_name ARCH: what qemu calls it.
qemu_name() {
  case "$1" in
    arm64) echo aarch64 ;;
    armhf) echo arm ;;
    *) echo x86_64 ;;
  esac
}
