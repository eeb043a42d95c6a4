#!/usr/bin/env bash
# Boots a folder with a Debian in it, in namespaces of its own: its systemd is process 1 there, has a
# control group below which to work, a network with nobody else in it, and none of the powers that
# reach beyond. Part of scripts/check-package. Runs until it is killed.
#
#   check_package_stage.sh ROOT_FOLDER WORK_FOLDER
#
# Writes the process number of that systemd to WORK_FOLDER/box.pid.
set -euo pipefail

case "${3:-outside}" in
  outside) # a mount namespace, to see all control groups
    exec unshare --mount --propagation private -- bash "$0" "$1" "$2" grouped
    ;;

  grouped) # a control group of our own, removed at the end
    groups="$2/cgroup"
    mkdir -p "$groups"
    mount -t cgroup2 cgroup2 "$groups"
    own="$(sed -n 's/^0:://p' /proc/self/cgroup)"
    group="$groups/kestrelbridge-check-$$"
    mkdir "$group"
    echo $$ >"$group/cgroup.procs"
    unshare --cgroup --net --pid --uts --ipc --mount --fork --kill-child -- \
      bash "$0" "$1" "$2" furnish &
    namespaces=$!
    clean_up() {
      trap '' TERM
      kill -KILL "$namespaces" 2>/dev/null || true
      wait "$namespaces" 2>/dev/null || true
      echo $$ >"$groups$own/cgroup.procs"
      for _ in {1..50}; do # the kernel takes a moment to notice that all are gone
        find "$group" -depth -type d -exec rmdir {} \; 2>/dev/null || true
        [[ -d $group ]] || break
        sleep 0.1
      done
      umount "$groups"
    }
    trap clean_up EXIT
    trap 'exit 0' TERM INT HUP
    # The one child of unshare is process 1 of the new namespaces.
    until box="$(cat "/proc/$namespaces/task/$namespaces/children")" && [[ -n $box ]]; do
      sleep 0.1
    done
    echo "${box%% *}" >"$2/box.pid"
    wait "$namespaces"
    ;;

  furnish)
    root="$1"
    mount --bind "$root" "$root"
    mount -t proc proc "$root/proc"
    mount --bind "$root/proc/sys" "$root/proc/sys"
    mount -o remount,bind,ro "$root/proc/sys"
    if [[ -e $root/proc/sysrq-trigger ]]; then
      mount --bind /dev/null "$root/proc/sysrq-trigger"
    fi
    mount -t sysfs -o ro sysfs "$root/sys"
    mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
    mount -t tmpfs -o mode=755 tmpfs "$root/dev"
    mkdir "$root/dev/shm" "$root/dev/pts"
    mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts "$root/dev/pts"
    ln -s pts/ptmx "$root/dev/ptmx"
    ln -s /proc/self/fd "$root/dev/fd"
    for device in null zero full random urandom tty; do
      touch "$root/dev/$device"
      mount --bind "/dev/$device" "$root/dev/$device"
    done
    touch "$2/console.log" "$root/dev/console"
    mount --bind "$2/console.log" "$root/dev/console"
    mount -t tmpfs -o mode=755 tmpfs "$root/run"
    mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"

    ip link set lo up

    cd "$root"
    pivot_root . .
    umount --lazy .
    # What this machine's hardware, clock, modules and kernel are concerned with, is not for the box.
    exec env -i container=check PATH=/usr/sbin:/usr/bin:/sbin:/bin setpriv \
      --bounding-set=-sys_module,-sys_rawio,-sys_time,-sys_boot,-syslog,-mknod,-wake_alarm \
      /lib/systemd/systemd --system --unit=multi-user.target --log-target=console \
      --log-level=notice --show-status=no </dev/null
    ;;
esac
