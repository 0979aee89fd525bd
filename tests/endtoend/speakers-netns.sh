#!/bin/sh
# A simulated household in a network namespace of its own, for the end-to-end suite: run
# under `unshare --net`. Says "unshared", waits for the suite to move the veth end lan1 in,
# gives it the players' addresses (documentation range 192.0.2.0/24, which no real network
# uses) and runs the simulator with the remaining arguments.
set -eu
echo unshared
while ! ip link show lan1 >/dev/null 2>&1; do sleep 0.05; done
ip link set lo up
for host in 2 3 4; do ip addr add "192.0.2.$host/24" dev lan1; done
ip link set lan1 up
ip route add 239.0.0.0/8 dev lan1
exec "$@" --address 192.0.2.2
