#!/usr/bin/env bash
# The server follows its interface's address: dlna-dms --interface runs in a
# namespace of its own, joined to a player's namespace by a veth pair; the
# address is changed twice (a reconnect: gone, then another; a renewal: a
# new one beside, then the old one gone), and each time a search from the
# player names the new address within 10 s and Browse works there, with
# media URLs on it.  --address keeps its address; without it the default
# route's interface is served and followed.
# Runs inside the test runner's private network namespace; makes two more.
set -u
program=$1
www=$2
media=$3
port=49400
source "$(dirname "$0")/../support/checks.sh"

source "$(dirname "$0")/../support/veth_pair.sh"
folder=$(mktemp -d)
log=$(mktemp)
trap 'cleanup_veth; rm -rf "$folder" "$log"' EXIT
cp "$media/audio/mp3/mpeg1-44k-cbr128.mp3" "$folder/song.mp3"

# The first LOCATION a search from the player finds.
discovered() {
  in_player timeout 5 gssdp-discover -i dms-plr -n 2 -t urn:schemas-upnp-org:device:MediaServer:1 2>/dev/null |
    sed -n 's/.*Location: *\(http[^ ]*\).*/\1/p' | head -1
}
# Browse of the shared folder at an address: the DIDL Result.
browse() {
  in_player curl -s -m 5 -X POST -H 'Content-Type: text/xml' \
    -H 'SOAPACTION: "urn:schemas-upnp-org:service:ContentDirectory:1#Browse"' \
    --data '<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"><s:Body><u:Browse xmlns:u="urn:schemas-upnp-org:service:ContentDirectory:1"><ObjectID>1001</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria></SortCriteria></u:Browse></s:Body></s:Envelope>' \
    "http://$1:$port/web/cds_control"
}
# Waits up to 10 s for a search to name `address`; true when one did.
found_within_10s() {
  local start=$SECONDS
  while [ $((SECONDS - start)) -lt 10 ]; do
    local seen; seen=$(discovered)
    if [ "$seen" = "http://$1:$port/description.xml" ]; then echo "  (found after $((SECONDS - start)) s)"; return 0; fi
    [ -n "$seen" ] && echo "  (search found $seen)"
  done
  return 1
}

nsenter "$server_net" "$program" --interface dms-srv --port $port --www "$www" "$folder" >"$log" 2>&1 &
pid=$!
veth_pids+=("$pid")
for _ in $(seq 50); do grep -q 'description.xml' "$log" && break; sleep 0.1; done
check "found on its first address" found_within_10s 10.77.0.1
check "Browse there lists the song" sh -c "printf '%s' \"\$0\" | grep -q 'http://10.77.0.1:$port/'" "$(browse 10.77.0.1)"

# A reconnect: the address goes, another comes.
in_server ip addr del 10.77.0.1/24 dev dms-srv
sleep 0.5
in_server ip addr add 10.77.0.5/24 dev dms-srv
check "after a reconnect a search names the new address within 10 s" found_within_10s 10.77.0.5
check "Browse at the new address gives media URLs on it" \
  sh -c "printf '%s' \"\$0\" | grep -q 'http://10.77.0.5:$port/web/'" "$(browse 10.77.0.5)"
url=$(browse 10.77.0.5 | grep -o "http://10.77.0.5:$port/web/[0-9]*\.mp3" | head -1)
code=$(in_player curl -s -m 5 -o /dev/null -w '%{http_code}' "$url")
check "the song streams from the new address" test "$code" = 200

# A renewal into another network: the new address first, then the old goes.
# (The player moves too: a search goes out from one address only.)
in_player ip addr del 10.77.0.2/24 dev dms-plr
in_player ip addr add 10.78.0.2/24 dev dms-plr
in_server ip addr add 10.78.0.1/24 dev dms-srv
sleep 0.5
in_server ip addr del 10.77.0.5/24 dev dms-srv
check "after a renewal a search names the new address within 10 s" found_within_10s 10.78.0.1
check "Browse works there" sh -c "printf '%s' \"\$0\" | grep -q 'http://10.78.0.1:$port/'" "$(browse 10.78.0.1)"

kill -TERM $pid
status=0
for _ in $(seq 100); do kill -0 $pid 2>/dev/null || break; sleep 0.1; done
if kill -0 $pid 2>/dev/null; then status=99; else wait $pid; status=$?; fi
check "SIGTERM still stops it with exit 0" test "$status" -eq 0

# An address named on its own is kept: after it moves, nothing follows.
nsenter "$server_net" "$program" --address 10.78.0.1 --port $port --www "$www" "$folder" >"$log" 2>&1 &
veth_pids+=($!)
for _ in $(seq 50); do grep -q 'description.xml' "$log" && break; sleep 0.1; done
in_server ip addr del 10.78.0.1/24 dev dms-srv
in_server ip addr add 10.78.0.9/24 dev dms-srv
sleep 4
check "--address does not follow" test -z "$(browse 10.78.0.9)"
kill -TERM "${veth_pids[-1]}"; wait "${veth_pids[-1]}"

# Neither named: the interface of the default route is served and followed.
in_server ip route add default via 10.78.0.254 dev dms-srv
nsenter "$server_net" "$program" --port $port --www "$www" "$folder" >"$log" 2>&1 &
veth_pids+=($!)
check "without --address, the default route's interface is served" found_within_10s 10.78.0.9
in_server sysctl -qw net.ipv4.conf.dms-srv.promote_secondaries=1
in_server ip addr add 10.78.0.7/24 dev dms-srv
in_server ip addr del 10.78.0.9/24 dev dms-srv
check "and followed" found_within_10s 10.78.0.7
kill -TERM "${veth_pids[-1]}"; wait "${veth_pids[-1]}"

finish
