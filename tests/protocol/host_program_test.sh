#!/usr/bin/env bash
# Runs dlna-dms as a user would: --help, probe, a bad folder, a run on a
# folder that a control point finds over SSDP on loopback, stopped with
# SIGTERM; the options that shape the list; a configuration file that SIGHUP
# applies once edited, and one broken at start or at reload.
# Runs inside the test runner's private network namespace.
set -u
program=$1
www=$2
media=$3
port=49320
source "$(dirname "$0")/../support/checks.sh"

check "--help exits 0 and shows usage" sh -c "'$program' --help | grep -q 'usage: dlna-dms'"
check "--version exits 0" "$program" --version
check "no folder is a usage error" sh -c "! '$program' >/dev/null 2>&1"
check "a missing folder gives one clear line" \
  sh -c "out=\$('$program' --address 127.0.0.1 /no/such/folder 2>&1); [ \$? -ne 0 ] && [ \$(printf '%s\n' \"\$out\" | wc -l) -eq 1 ] && printf '%s' \"\$out\" | grep -q 'is not a folder'"
check "a www folder without the files gives one clear line" \
  sh -c "out=\$('$program' --address 127.0.0.1 --www /tmp /tmp 2>&1); [ \$? -ne 0 ] && printf '%s' \"\$out\" | grep -q 'missing server file'"

probe=$("$program" probe "$media/audio/mp3/mpeg1-44k-cbr128.mp3" "$media/image/jfif-640x480.jpg" "$0" /no/such/file)
line() { printf '%s\n' "$probe" | sed -n "$1p"; }
check "probe prints one JSON line per file" test "$(printf '%s\n' "$probe" | wc -l)" -eq 4
check "probe names an MP3 and its playing time" \
  sh -c "printf '%s' '$(line 1)' | grep -q '\"format\":\"MP3\".*\"durationMs\":10[0-9][0-9]'"
check "probe gives a JPEG's size" sh -c "printf '%s' '$(line 2)' | grep -q '\"width\":640,\"height\":480'"
check "probe refuses a text file" sh -c "printf '%s' '$(line 3)' | grep -q '\"mediaClass\":0'"
check "probe reports a missing file" sh -c "printf '%s' '$(line 4)' | grep -qv '\"result\":0'"

folder=$(mktemp -d)
log=$(mktemp)
"$program" --name "Host Test" --address 127.0.0.1 --port $port --www "$www" "$folder" >"$log" 2>&1 &
pid=$!
for _ in $(seq 50); do
  grep -q 'description.xml' "$log" && break
  sleep 0.1
done
check "prints the description URL" grep -q "http://127.0.0.1:$port/description.xml" "$log"

busy=$("$program" --address 127.0.0.1 --port $port --www "$www" "$folder" 2>&1)
check "a busy port gives one clear line" sh -c "printf '%s' '$busy' | grep -q 'is busy'"

# Discovery is part of the suite: a missing tool is a failure, not a skip.
found=$(timeout 10 gssdp-discover -i lo -n 3 -t urn:schemas-upnp-org:device:MediaServer:1 2>&1)
check "gssdp-discover finds the device on lo" \
  sh -c "printf '%s' \"\$0\" | grep -q '127.0.0.1:$port/description.xml'" "$found"

# Stop, then start again on the same port at once, twice: the last answers'
# TIME_WAIT sockets do not make the port look busy.
restart_port=$((port + 20))
for round in 1 2 3; do
  "$program" --address 127.0.0.1 --port $restart_port --www "$www" "$folder" >"$log" 2>&1 &
  again=$!
  for _ in $(seq 50); do grep -q 'description.xml' "$log" && break; sleep 0.1; done
  curl -s -o /dev/null "http://127.0.0.1:$restart_port/description.xml"
  check "start $round on the same port" grep -q "127.0.0.1:$restart_port/description.xml" "$log"
  kill -TERM $again; wait $again
done

# What a control point lists honours --max-content and --filter.
browse() {  # port id -> the answer to Browse of the children of id
  curl -s --max-time 10 -X POST -H 'Content-Type: text/xml' \
    -H 'SOAPACTION: "urn:schemas-upnp-org:service:ContentDirectory:1#Browse"' \
    --data "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><u:Browse xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\"><ObjectID>$2</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria></SortCriteria></u:Browse></s:Body></s:Envelope>" \
    "http://127.0.0.1:$1/web/cds_control"
}
children_of() { browse "$1" "$2" | sed -n 's:.*<NumberReturned>\([0-9]*\)</NumberReturned>.*:\1:p'; }
limited=$(mktemp -d)
for n in 1 2 3 4 5; do cp "$media/audio/mp3/mpeg1-44k-cbr128.mp3" "$limited/$n.mp3"; done
cp "$media/audio/mp3/mpeg1-44k-cbr128.mp3" "$limited/renamed.bin"
other_port=$((port + 2))
for options in "--max-content 4:3" "--filter:5" ":6"; do
  other_port=$((other_port + 2))
  # No state folder: each of these runs lists a new tree from id 1001.
  "$program" --address 127.0.0.1 --port $other_port --www "$www" --state-dir=none ${options%%:*} "$limited" \
    >/dev/null 2>&1 &
  other=$!
  for _ in $(seq 50); do [ -n "$(children_of $other_port 1001)" ] && break; sleep 0.1; done
  check "'${options%%:*}' lists ${options##*:} items" test "$(children_of $other_port 1001)" = "${options##*:}"
  kill -TERM $other; wait $other
done
rm -rf "$limited"

# A crash in the middle of a burst of 5,000 new files leaves an index that
# loads (or is made anew): after a restart the list equals the disk.
total_of() { browse "$1" "$2" | sed -n 's:.*<TotalMatches>\([0-9]*\)</TotalMatches>.*:\1:p'; }
burst=$(mktemp -d)
mkdir "$burst/share" "$burst/state"
cp "$media/audio/mp3/mpeg1-44k-cbr128.mp3" "$burst/song.mp3"
burst_port=$((other_port + 2))
serve_burst() {
  "$program" --address 127.0.0.1 --port $burst_port --www "$www" --state-dir "$burst/state" --views=no \
    "$burst/share" >/dev/null 2>&1 &
  burst_pid=$!
  local until=$((SECONDS + 10))
  while [ $SECONDS -lt $until ] && [ -z "$(total_of $burst_port 1001)" ]; do sleep 0.1; done
}
serve_burst
(for n in $(seq 5000); do ln "$burst/song.mp3" "$burst/share/$n.mp3"; done) &
copier=$!
sleep 1
kill -KILL $burst_pid
wait $burst_pid 2>/dev/null
wait $copier
serve_burst
deadline=$((SECONDS + 30))
while [ $SECONDS -lt $deadline ] && [ "$(total_of $burst_port 1001)" != 5000 ]; do sleep 0.1; done
check "after a crash in a burst of new files a restart lists the disk" test "$(total_of $burst_port 1001)" = 5000
check "the server stops after the burst" stop_server $burst_pid
rm -rf "$burst"

# A configuration file: its folders and name are served, SIGHUP applies the
# edited file, a broken one at reload changes nothing, and a broken one at
# start is one line that names the file and line, with exit code 2.
conf_dir=$(mktemp -d)
conf=$conf_dir/dlna-dms.conf
conf_port=49890
for f in Alpha Beta Gamma; do mkdir "$conf_dir/$f"; cp "$media/art/photo/small.jpg" "$conf_dir/$f/p.jpg"; done
write_conf() {  # name folder...
  printf '# shared at home\nname = %s\naddress = 127.0.0.1\nport = %s\n' "$1" $conf_port >"$conf"
  shift
  for f in "$@"; do echo "folder = $conf_dir/$f" >>"$conf"; done
  echo "art-cache-mb = 2" >>"$conf"
  echo "views = no" >>"$conf"  # the root then lists the folders alone
}
served() {  # the titles of the shared folders, then the server's name
  echo $(browse $conf_port 0 | grep -o 'dc:title&gt;[^&]*' | sed 's/.*;//') \
    "$(curl -s "http://127.0.0.1:$conf_port/description.xml" | sed -n 's:.*<friendlyName>\(.*\)</friendlyName>.*:\1:p')"
}
wait_log() { for _ in $(seq 300); do grep -qF -- "$1" "$log" && return; sleep 0.1; done; }
write_conf Before Alpha Beta
"$program" --config "$conf" --www "$www" >"$log" 2>&1 &
host=$!
# Asked only once it says so: before, the SDK's web server may answer while
# the folders are still being registered.
wait_log Sharing
check "the file's folders and name are served" test "$(served)" = "Alpha Beta Before: DMS"
write_conf After Beta Gamma
kill -HUP $host
wait_log Reloaded
check "SIGHUP applies the edited file" test "$(served)" = "Beta Gamma After: DMS"
printf 'name = Broken\nfolder = %s\nport = many\n' "$conf_dir/Alpha" >"$conf"
kill -HUP $host
wait_log "$conf:3:"
check "a broken file at reload names its line and changes nothing" \
  sh -c "grep -qF -- '$conf:3:' '$log' && test \"\$0\" = 'Beta Gamma After: DMS'" "$(served)"
kill -TERM $host
wait $host
check "SIGTERM after reloads exits 0" test $? -eq 0
printf '# fine\nname = Fine\nloudness = 11\n' >"$conf"
broken=$("$program" --config "$conf" --address 127.0.0.1 "$conf_dir" 2>&1)
check "a broken file at start exits 2" test $? -eq 2
check "a broken file at start is one line naming it" \
  sh -c "test \$(printf '%s\n' \"\$0\" | wc -l) -eq 1 && case \"\$0\" in 'dlna-dms: $conf:3: '*) ;; *) exit 1 ;; esac" "$broken"
rm -rf "$conf_dir"

kill -TERM $pid
status=0
for _ in $(seq 100); do kill -0 $pid 2>/dev/null || break; sleep 0.1; done
if kill -0 $pid 2>/dev/null; then kill -KILL $pid; status=99; else wait $pid; status=$?; fi
check "SIGTERM stops it with exit 0" test "$status" -eq 0
rm -rf "$folder" "$log"

finish
