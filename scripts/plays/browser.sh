#!/usr/bin/env bash
# Adds to the stage (scripts/plays/stage.sh) two networks, then runs the given command: the camera's,
# with the camera in a namespace of its own, so that it can come and go while the daemon has the same
# port; and one for visitors with the box's address, from where a page by plain http is no secure
# context.
set -euo pipefail

# up LINK [NAMESPACE_OPTION...]: without an IPv6 address of its own, which would come a second later:
# a browser drops what it loads when the network changes.
up() {
  ip "${@:2}" link set "$1" addrgenmode none
  ip "${@:2}" link set "$1" up
}

ip address delete 192.168.2.1/32 dev lo # the stage's camera lives on this machine itself
ip netns add camera
ip link add wifi0 type veth peer name air netns camera
ip address add 192.168.2.20/24 dev wifi0
up wifi0
ip -n camera address add 192.168.2.1/24 dev air
up air -n camera

ip link add box type veth peer name visitors
ip address add 10.88.0.1/24 dev box
up box
up visitors

exec "$@"
