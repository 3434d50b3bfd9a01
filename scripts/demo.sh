#!/usr/bin/env bash
# Runs kestrixd in the foreground with the testfs plug-in and demo data,
# logging to the screen. Usage: scripts/demo.sh [BUILD_DIR] [extra kestrixd options]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
shift || true
build="$(cd "$build" && pwd)"

plugin="$build/tests/plugins/lib/libtestfs.so"
if [ ! -f "$plugin" ]; then
  echo "demo: $plugin not found; build with 'make build' first" >&2
  exit 1
fi

demo="$build/demo"
rm -rf "$demo"
mkdir -p "$demo/lib" "$demo/steer"
cp "$plugin" "$demo/lib/libdemofs.so"
cp "$root/scripts/demo/demofs.conf" "$demo/steer/libdemofs.so.conf"

export KESTRIX_LIBDIR="$demo/lib"
export KESTRIX_TESTFS_DIR="$demo/steer"
export KESTRIX_SMBPATH="$root/scripts/demo/smb.conf"
port="${KESTRIX_PORT:-5501}"

cat <<MSG
kestrixd demo on UDP port $port (Ctrl-C stops it)
  plug-in:  $KESTRIX_LIBDIR/libdemofs.so  (calls recorded in $demo/steer/libdemofs.so.calls)
  shares:   data -> /export/data, projects -> /export/projects  ($KESTRIX_SMBPATH)
  try:      cli="$build/client/kestrix-cli -p $port"
            \$cli getvolume data
            \$cli open data report.txt --write      # prints the lease key, e.g. 0x0
            \$cli map 0x0 65536                     # the map from byte 65536 on
            \$cli setsize 0x0 100000
            \$cli close 0x0                         # the map is unlocked
  files:    /export/data/report.txt, /export/projects/plan.txt
MSG
exec "$build/kestrixd" -d -f SCREEN -l 4 "$@"
