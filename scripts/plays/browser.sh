#!/usr/bin/env bash
# Adds to the stage (scripts/plays/stage.sh) two networks, then runs the given command: the camera's,
# with the camera in a namespace of its own, so that it can come and go while the daemon has the same
# port; and one for visitors with the box's address, from where a page by plain http is no secure
# context.
set -euo pipefail

ip address delete 192.168.2.1/32 dev lo # the stage's camera lives on this machine itself
ip netns add camera
ip link add wifi0 type veth peer name air netns camera
ip address add 192.168.2.20/24 dev wifi0
ip link set wifi0 up
ip -n camera address add 192.168.2.1/24 dev air
ip -n camera link set air up
ip -n camera link set lo up

ip link add box type veth peer name visitors
ip address add 10.88.0.1/24 dev box
ip link set box up
ip link set visitors up

exec "$@"
