#!/usr/bin/env bash
# Furnishes fresh namespaces (net, mount, pid) and runs the given command in them: a
# /run and a /dev/shm of its own, and the camera's address on its own loopback.
set -euo pipefail

mount -t tmpfs -o mode=755 kestrelbridge-run /run
mount -t tmpfs -o mode=1777 kestrelbridge-shm /dev/shm
mkdir /run/kestrelbridge
ip link set lo up
ip address add 192.168.2.1/32 dev lo

exec "$@"
