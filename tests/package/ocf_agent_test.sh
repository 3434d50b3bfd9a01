#!/usr/bin/env bash
# The OCF resource agent against the real daemon (testfs plug-in): ocf-tester's
# round, then each action of the table with the OCF exit code it must give.
# Usage: ocf_agent_test.sh AGENT KESTRIXD KESTRIX_CLI LIBTESTFS
set -uo pipefail
agent=$1 w=$(mktemp -d) first=
export OCF_ROOT=/usr/lib/ocf OCF_RESOURCE_INSTANCE=kx
[ -r $OCF_ROOT/lib/heartbeat/ocf-shellfuncs ] ||
  { echo "SKIPPED: no OCF shell functions (resource-agents)"; exit 77; }
trap 'for f in "$w"/pid*; do [ -r "$f" ] && kill -KILL "$(cat "$f")"; done; rm -rf "$w"' EXIT
mkdir "$w/lib" "$w/steer" && cp "$4" "$w/lib/libkxt.so" &&
  printf '[data]\n path = /export/data\n' >"$w/smb.conf"
echo "volume /export/data vol-data" >"$w/steer/libkxt.so.conf"
for p in binary="$2" cli="$3" libdir="$w/lib" port=$((20000 + RANDOM % 40000)) \
  smbconf="$w/smb.conf" localfs_conf=/dev/null log_dir="$w/log" monitor_share=data \
  monitor_timeout=300 pidfile="$w/pid" environment="KESTRIX_TESTFS_DIR=$w/steer"; do
  export "OCF_RESKEY_$p"
  tester+=(-o "$p")
done
# ocf-tester runs the agent as nobody too: a copy it can reach, wherever the tree lies.
chmod 755 "$w" && install -m 755 "$agent" "$w/agent"
ocf-tester -n kx "${tester[@]}" "$w/agent" >"$w/tester" 2>&1 ||
  { cat "$w/tester"; echo "FAIL: ocf-tester"; exit 1; }
# Whether process $1 runs; a zombie is gone.
up() { [ -n "$1" ] && s=$(sed 's/.*) \(.\).*/\1/' "/proc/$1/stat" 2>/dev/null) && [ "$s" != Z ]; }
# step | run before | action | OCF exit code | the daemon after it (same:
# the pid of the first start)
while IFS='|' read -r step before action want after; do
  eval "$before"
  "$agent" "$action" >"$w/out" 2>&1
  rc=$? pid=$(cat "$w/pid" 2>/dev/null)
  [ "$after" = same ] && first=${first:-$pid} && ok=$([ "$pid" = "$first" ] && up "$pid" && echo y)
  [ "$after" = gone ] && ok=$([ ! -e "$w/pid" ] && ! up "$first" && echo y)
  [ "$rc" = "$want" ] && [ -n "$ok" ] ||
    { cat "$w/out"; echo "FAIL: $step: exit $rc (want $want), $after: ${ok:-no}"; exit 1; }
done <<'TABLE'
monitor of a stopped daemon||monitor|7|gone
start||start|0|same
start again||start|0|same
monitor of a running daemon||monitor|0|same
a second daemon on the taken port|export OCF_RESKEY_pidfile=$w/pid2|start|1|same
monitor of a hung daemon|export OCF_RESKEY_pidfile=$w/pid; kill -STOP $first|monitor|1|same
stop of the hung daemon||stop|0|gone
stop again||stop|0|gone
monitor after stop||monitor|7|gone
TABLE
