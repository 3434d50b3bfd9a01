#!/usr/bin/env bash
# The transfer benchmark of `make bench`: kestrix-cli read and write of a
# 1 GiB file against dd with O_DIRECT on the same loop device (attached with
# --direct-io=on), in one run, with the resident memory of each and of a
# 4 GiB transfer, and the part of a new file's write that is the server's
# zero-fill of the allocation. Needs root, losetup and mkfs.ext4; says so
# and stops (status 0) where they are missing.
# Usage: bench/transfer.sh [BUILD_DIR] [MiB per transfer (1024)] [MiB of the large one (4096)]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build-bench}" && pwd)"
mib="${2:-1024}"
large="${3:-4096}"
PATH="$PATH:/usr/sbin:/sbin"

say() { echo "transfer bench: $*" >&2; }
if [ "$(id -u)" != 0 ]; then say "SKIPPED: needs root (loop devices, mounts)"; exit 0; fi
for tool in losetup mkfs.ext4 dd /usr/bin/time; do
  command -v "$tool" >/dev/null || { say "SKIPPED: $tool is not installed"; exit 0; }
done
for f in kestrixd plugins/localfs.so client/kestrix-cli; do
  [ -e "$build/$f" ] || { say "$build/$f is missing; build it first"; exit 1; }
done

work="$(mktemp -d "${TMPDIR:-/tmp}/kestrix-transfer-XXXXXX")"
. "$root/bench/share.sh"
trap stop_share EXIT

# dd reads and writes behind the file system, on bytes no file uses.
fs_mib=$((large + 3 * mib + 512))
start_share "$fs_mib" $((fs_mib + mib + 64))
cli=("$build/client/kestrix-cli" -p "$port")

say "preparing a $mib MiB source file and the files on the share"
head -c $((mib * 1048576)) /dev/urandom >"$work/src.bin"
cp "$work/src.bin" "$work/mnt/export/big.bin"
: >"$work/mnt/export/new.bin"
: >"$work/mnt/export/zero.bin"
: >"$work/mnt/export/large.bin"
sync
drop() { sync; echo 3 >/proc/sys/vm/drop_caches; }

# Seconds and resident KiB of one command: "SECONDS KIB".
measure() {
  drop
  /usr/bin/time -f "%e %M" -o "$work/time" "$@" >/dev/null
  cat "$work/time"
}

behind=$((fs_mib))  # first MiB of the device that the filesystem does not use
rounds="${ROUNDS:-3}"
# dd's region holds written data before anything is measured, as the files do.
dd if="$work/src.bin" of="$loopdev" bs=1M count="$mib" seek="$behind" oflag=direct status=none
declare -A secs kib
# Runs one kind of transfer: its seconds and resident KiB are kept per round.
run() {
  local kind=$1
  shift
  read -r t m < <(measure "$@")
  secs[$kind]+="$t " kib[$kind]=$(( m > ${kib[$kind]:-0} ? m : ${kib[$kind]:-0} ))
}
for ((r = 1; r <= rounds; r++)); do
  say "round $r of $rounds"
  : >"$work/mnt/export/new.bin"
  : >"$work/mnt/export/zero.bin"
  run dd_read dd if="$loopdev" of=/dev/null bs=1M count="$mib" skip="$behind" iflag=direct status=none
  run cli_read "${cli[@]}" read bench big.bin --disk "$loopdev" -o /dev/null
  run cli_read_threads env KESTRIX_IO=threads "${cli[@]}" read bench big.bin --disk "$loopdev" -o /dev/null
  run dd_write dd if="$work/src.bin" of="$loopdev" bs=1M count="$mib" seek="$behind" oflag=direct status=none
  run cli_over "${cli[@]}" write bench big.bin --disk "$loopdev" -i "$work/src.bin"
  run cli_over_threads env KESTRIX_IO=threads "${cli[@]}" write bench big.bin --disk "$loopdev" -i "$work/src.bin"
  run cli_new "${cli[@]}" write bench new.bin --disk "$loopdev" -i "$work/src.bin"
  # The server's part of a new file: the allocation of the same size alone.
  run zero_fill "${cli[@]}" open bench zero.bin --write --alloc $((mib * 1048576)) --unlocked
  cmp -s "$work/mnt/export/new.bin" "$work/src.bin" || say "WARNING: the new file differs from its source"
  rm -f "$work/mnt/export/new.bin" "$work/mnt/export/zero.bin"
done
cmp -s <("${cli[@]}" read bench big.bin --disk "$loopdev") "$work/src.bin" || say "WARNING: the file read differs from its source"
run large_write bash -c "head -c $((large * 1048576)) /dev/zero | ${cli[*]} write bench large.bin --disk $loopdev --names $work/mnt/export"
run large_read "${cli[@]}" read bench large.bin --disk "$loopdev" -o /dev/null

median() { tr ' ' '\n' <<<"${secs[$1]}" | grep . | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
ratio() { python3 -c "print(f'{$1 / $2:.2f}')"; }
echo
echo "transfers of $mib MiB on $loopdev (direct I/O loop device), $(nproc) cores, median of $rounds rounds"
printf '| %-46s | %8s | %6s | %9s |\n' "what" "seconds" "vs dd" "resident"
printf '|%s|%s|%s|%s|\n' "------------------------------------------------" "----------" "--------" "-----------"
# row KIND TEXT [AGAINST]: AGAINST's seconds over KIND's; the zero-fill row the other way round.
row() {
  local t vs=""; t=$(median "$1")
  if [ "$1" = zero_fill ]; then vs=$(ratio "$t" "$(median "$3")"); elif [ -n "${3:-}" ]; then vs=$(ratio "$(median "$3")" "$t"); fi
  printf '| %-46s | %8s | %6s | %5s MiB |\n' "$2" "$t" "$vs" "$((${kib[$1]} / 1024))"
}
row dd_read "dd read, 1 MiB blocks, iflag=direct"
row cli_read "kestrix-cli read" dd_read
row cli_read_threads "kestrix-cli read, KESTRIX_IO=threads" dd_read
row dd_write "dd write, 1 MiB blocks, oflag=direct"
row cli_over "kestrix-cli write over an existing file" dd_write
row cli_over_threads "the same, KESTRIX_IO=threads" dd_write
row cli_new "kestrix-cli write of a new (empty) file" dd_write
row zero_fill "  its part: the server's zero-fill alone" cli_new
row large_write "kestrix-cli write, $large MiB from a pipe"
row large_read "kestrix-cli read, $large MiB"
echo "vs dd: dd's seconds over this row's (higher is faster); for the zero-fill row, its share of the new file's write"
echo "goals: read >= 0.90, overwrite >= 0.90, new file >= 0.45, resident <= 64 MiB"
