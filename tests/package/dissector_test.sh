#!/usr/bin/env bash
# The Wireshark dissector on real traffic: a daemon with the testfs plug-in
# on a loopback port, kestrix-cli requests and one big-endian request,
# captured with tcpdump and decoded by tshark with kestrix.lua. First, the
# dissector's layout and function tables must be the ones the wire
# description prints.
# Usage: dissector_test.sh KESTRIXD KESTRIX_CLI LIBTESTFS KESTRIX_LUA LAYOUTS_LUA
set -uo pipefail
daemon=$1 cli=$2 plugin=$3 lua=$4 layouts=$5
sed -n '/^-- BEGIN wire /,/^-- END wire /{/^--/!p}' "$lua" |
  diff - <("$layouts") ||
  { echo "FAIL: the wire tables in $lua differ from the output of $layouts" \
      "(< in the .lua, > printed)"; exit 1; }
for tool in tshark tcpdump; do
  command -v $tool >/dev/null ||
    { echo "SKIPPED: $tool is not installed (.ci/run installs it)"; exit 77; }
done

work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; wait "$p" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; exit 1; }

mkdir "$work/lib" "$work/steer"
cp "$plugin" "$work/lib/libkxt.so"
cat > "$work/steer/libkxt.so.conf" <<CONF
volume /export/data vol-data
file /export/data/report.txt vol-data report-txt
vol.nDisks 2
map.extentType 1
map.nExtents 3
CONF
printf '[data]\n   path = /export/data\n' > "$work/smb.conf"

# A port of our own: retry where another process holds the one drawn.
for attempt in 1 2 3 4 5; do
  port=$((20000 + RANDOM % 40000))
  tcpdump -i lo -U -w "$work/cap.pcap" "udp port $port" 2> "$work/tcpdump.err" &
  tpid=$!
  for _ in $(seq 50); do grep -q listening "$work/tcpdump.err" && break; sleep 0.1; done
  KESTRIX_PORT=$port KESTRIX_LIBDIR="$work/lib" KESTRIX_TESTFS_DIR="$work/steer" \
    KESTRIX_ADMIN_SOCKET= KESTRIX_SMBPATH="$work/smb.conf" "$daemon" -d -f "$work/log" &
  dpid=$!
  for _ in $(seq 100); do
    grep -q "kestrixd started" "$work/log" 2>/dev/null && break
    sleep 0.1
  done
  if grep -q "kestrixd started" "$work/log"; then pids=("$dpid" "$tpid"); break; fi
  kill "$dpid" "$tpid" 2>/dev/null; wait "$dpid" "$tpid" 2>/dev/null; rm -f "$work/log"
done
[ ${#pids[@]} -gt 0 ] ||
  fail "no daemon on a loopback port: $(cat "$work/tcpdump.err" "$work/log" 2>/dev/null)"

kx() { "$cli" -p "$port" "$@" > /dev/null; }
kx getvolume data
# Lease keys start at a random value: the open's key names the lease.
key=$("$cli" -p "$port" open data report.txt --write --json |
  sed -n 's/.*"key": *\([0-9]*\).*/\1/p')
[ -n "$key" ] || fail "no key from the open"
kx map "$key" 65536
kx setsize "$key" 100000
kx close "$key"
kx cmd "NOP now"
kx raw 9
# The volume gone: the library's error text instead of the disks.
printf 'vol.vendorStatus 5\nvol.error unplugged\n' >> "$work/steer/libkxt.so.conf"
kx getvolume data
# Close of key 7 written big-endian (marker, revision, message ID, code 5,
# length 60, flags, result, reserved, separator; file size -1, key).
{
  printf '\x00\x00\x00\x01\x00\x00\x00\x00BIGENDIAN-REQ-01\x00\x00\x00\x05\x00\x00\x00\x3c'
  printf '\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00'
  printf '\xff\xff\xff\xff\xff\xff\xff\xff\x00\x00\x00\x07'
} > "$work/be.bin"
exec 3<>"/dev/udp/127.0.0.1/$port" && cat "$work/be.bin" >&3 && sleep 0.5; exec 3>&-

sleep 0.5
kill -INT "${pids[1]}"; wait "${pids[1]}" 2>/dev/null

fields=(frame.number kestrix.function kestrix.byteorder kestrix.result kestrix.header_result
        kestrix.request_in kestrix.response_in kestrix.path kestrix.share kestrix.filename
        kestrix.key kestrix.command kestrix.vol.ndisks kestrix.disk.idoffset
        kestrix.disk.nblocks kestrix.vol.status kestrix.vol.error kestrix.map.nextents
        kestrix.ext.physical kestrix.ext.validity)
args=()
for f in "${fields[@]}"; do args+=(-e "$f"); done
tshark -2 -r "$work/cap.pcap" -X "lua_script:$lua" -o "kestrix.port:$port" -T fields \
  -E separator='|' "${args[@]}" > "$work/decoded" 2> "$work/tshark.err" ||
  fail "tshark: $(cat "$work/tshark.err")"
grep -qi "lua" "$work/tshark.err" && fail "the dissector raised: $(cat "$work/tshark.err")"

cat > "$work/expected" <<'TABLE'
1|1|0||0||2|data||||||||||||
2|-1|0|0|0|1|||||||2|1000,2000|100000,200000|0||||
3|2|0||0||4||data|report.txt||||||||||
4|-2|0|0|0|3|||||0x00000000|||||||3|1048576,2097152,3145728|1,1,1
5|3|0||0||6||||0x00000000|||||||||
6|-3|0|0|0|5||||||||||||3|1048576,2097152,3145728|1,1,1
7|4|0||0||8||||0x00000000|||||||||
8|-4|0|0|0|7||||||||||||||
9|5|0||0||10||||0x00000000|||||||||
10|-5|0|0|0|9||||||||||||||
11|7|0||0||12|||||NOP now||||||||
12|-7|0|0|0|11||||||||||||||
13|9|0||0||14|||||||||||||
14|-9|0||8|13||||||||||||||
15|1|0||0||16|data||||||||||||
16|-1|0|0|0|15|||||||2|||5|unplugged|||
17|5|1||0||18||||0x00000007|||||||||
18|-5|0|407|0|17||||||||||||||
TABLE
sed -i "s/0x00000000/$(printf '0x%08x' "$key")/" "$work/expected"
diff "$work/expected" "$work/decoded" || fail "decoded fields differ (expected, then decoded)"
echo "dissector decoded $(wc -l < "$work/decoded") messages as expected"
