# Sourced by the tests that need a real network between the server and a
# player: two network namespaces of their own (the test runs in the runner's
# private one), joined by a veth pair, the server's end 10.77.0.1 and the
# player's 10.77.0.2, multicast routed to the pair on the player's side.
# Player libraries that ignore loopback see a real interface; IPv6 is off on
# the player's side so that its UPnP library does not wait for a link-local
# address.  Defines in_server, in_player and a cleanup run at exit.
unshare -n sleep 900 & server_ns=$!
unshare -n sleep 900 & player_ns=$!
veth_pids=()
cleanup_veth() {
  for pid in "${veth_pids[@]}"; do kill -KILL "$pid" 2>/dev/null && wait "$pid" 2>/dev/null; done
  kill "$server_ns" "$player_ns" 2>/dev/null
}
trap cleanup_veth EXIT
sleep 0.2
# Run in the foreground; a program started in the background is started as
# `nsenter $server_net PROGRAM ... &` so that $! is the program itself.
server_net=--net=/proc/$server_ns/ns/net
player_net=--net=/proc/$player_ns/ns/net
in_server() { nsenter "$server_net" "$@"; }
in_player() { nsenter "$player_net" "$@"; }
ip link add dms-srv type veth peer name dms-plr || exit 1
ip link set dms-srv netns "$server_ns"
ip link set dms-plr netns "$player_ns"
in_server sh -c 'ip link set lo up && ip addr add 10.77.0.1/24 dev dms-srv && ip link set dms-srv up'
in_player sh -c 'sysctl -qw net.ipv6.conf.all.disable_ipv6=1; ip link set lo up &&
  ip addr add 10.77.0.2/24 dev dms-plr && ip link set dms-plr up && ip route add 224.0.0.0/4 dev dms-plr'
