#!/usr/bin/env bash
# The mount benchmark of `make bench`: 1 GiB sequential read and write by
# dd through kestrix-mount against dd with O_DIRECT on the same loop device
# (attached with --direct-io=on), in one run, with the CPU time the mount
# process spends per GiB; then a longer fio job with crc32c verification
# through the mount. Needs root, losetup, mkfs.ext4 and FUSE; says so and
# stops (status 0) where they are missing.
# Usage: bench/mount.sh [BUILD_DIR] [MiB per transfer (1024)]
# KESTRIX_BENCH_RUNS: runs of each transfer (3), the median reported.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build-bench}" && pwd)"
mib="${2:-1024}"
PATH="$PATH:/usr/sbin:/sbin"

say() { echo "mount bench: $*" >&2; }
if [ "$(id -u)" != 0 ]; then say "SKIPPED: needs root (loop devices, mounts)"; exit 0; fi
for tool in losetup mkfs.ext4 dd fusermount3; do
  command -v "$tool" >/dev/null || { say "SKIPPED: $tool is not installed"; exit 0; }
done
[ -w /dev/fuse ] || { say "SKIPPED: no /dev/fuse"; exit 0; }
for f in kestrixd plugins/localfs.so client/kestrix-mount; do
  [ -e "$build/$f" ] || { say "$build/$f is missing; build it first"; exit 1; }
done

work="$(mktemp -d "${TMPDIR:-/tmp}/kestrix-mountbench-XXXXXX")"
. "$root/bench/share.sh"
kmount=""
cleanup() {
  if [ -n "$kmount" ]; then
    fusermount3 -u "$work/client" 2>/dev/null || umount -l "$work/client"
    for _ in $(seq 30); do kill -0 "$kmount" 2>/dev/null || break; sleep 0.1; done
    kill "$kmount" 2>/dev/null || true  # still serving a copy of the mount in another namespace
    wait "$kmount" 2>/dev/null || true
  fi
  stop_share
  [ -z "${src:-}" ] || rm -f "$src"
}
trap cleanup EXIT

# The filesystem takes the front of the device; dd writes behind it, on
# bytes no file uses.
fs_mib=$((3 * mib + 1024))
start_share "$fs_mib" $((fs_mib + mib + 64))
mkdir -p "$work/client"
"$build/client/kestrix-mount" -f -p "$port" --disk "$loopdev" --names "$work/mnt/export" bench \
  "$work/client" 2>"$work/mount.log" &
kmount=$!
for _ in $(seq 50); do mountpoint -q "$work/client" && break; sleep 0.1; done
mountpoint -q "$work/client" || { say "kestrix-mount did not mount: $(cat "$work/mount.log")"; exit 1; }

say "preparing a $mib MiB source file and the file on the share"
# The source lies in memory (tmpfs when there is one), so that the writes
# time the device and the mount, not the reading of the source.
src="$work/src.bin"
if [ -d /dev/shm ] && [ -w /dev/shm ]; then src="$(mktemp /dev/shm/kestrix-mountbench-XXXXXX)"; fi
head -c $((mib * 1048576)) /dev/urandom >"$src"
cp "$src" "$work/mnt/export/big.bin"
# dd's area written once beforehand, as the file's blocks were: no timed
# write pays for the image's first touch of its blocks.
dd if="$src" of="$loopdev" bs=1M count="$mib" seek="$fs_mib" oflag=direct status=none
sync
drop() { sync; echo 3 >/proc/sys/vm/drop_caches; }
cpu() { awk '{print $14 + $15}' "/proc/$kmount/stat"; }  # user + system ticks of the mount

# Seconds of one command and the mount's CPU seconds meanwhile: "SECONDS CPU".
measure() {
  drop
  local before start end
  before=$(cpu)
  start=$(date +%s.%N)
  "$@" >/dev/null 2>&1
  end=$(date +%s.%N)
  python3 -c "print(f'{$end - $start:.2f} {($(cpu) - $before) / $(getconf CLK_TCK):.2f}')"
}

# Each transfer runs $runs times, the device's and the mount's in turn, so
# that a busy moment of the machine falls on both; the median run counts.
runs="${KESTRIX_BENCH_RUNS:-3}"
median() { sort -n | awk '{ line[NR] = $0 } END { print line[int((NR + 1) / 2)] }'; }
c="$work/client"
declare -A times
for _ in $(seq "$runs"); do
  times[dd_read]+="$(measure dd if="$loopdev" of=/dev/null bs=1M count="$mib" iflag=direct)"$'\n'
  times[m_read]+="$(measure dd if="$c/big.bin" of=/dev/null bs=1M)"$'\n'
  times[dd_write]+="$(measure dd if="$src" of="$loopdev" bs=1M count="$mib" seek="$fs_mib" oflag=direct)"$'\n'
  times[m_over]+="$(measure dd if="$src" of="$c/big.bin" bs=1M conv=notrunc,fsync)"$'\n'
  rm -f "$c/new.bin"
  times[m_new]+="$(measure dd if="$src" of="$c/new.bin" bs=1M conv=fsync)"$'\n'
done
pick() { printf '%s' "${times[$1]}" | median; }
for kind in dd_read m_read dd_write m_over m_new; do
  say "$kind, seconds and mount CPU of each run: $(printf '%s' "${times[$kind]}" | paste -sd ';')"
done
read -r dd_read _ < <(pick dd_read)
read -r m_read m_read_cpu < <(pick m_read)
read -r dd_write _ < <(pick dd_write)
read -r m_over m_over_cpu < <(pick m_over)
read -r m_new m_new_cpu < <(pick m_new)
cmp -s "$c/big.bin" "$src" || say "WARNING: the file read through the mount differs from its source"
cmp -s "$work/mnt/export/new.bin" "$src" || say "WARNING: the new file differs from its source"

say "fio: 4 jobs of 256 MiB, mixed random reads and writes, crc32c verification"
fio_status="not installed"
if command -v fio >/dev/null; then
  # Each job its own file, whatever lies in the working directory.
  if fio --name=mountbench --filename_format='$jobname.$jobnum' --directory="$c" --size=256M \
       --numjobs=4 --rw=randrw --bsrange=4k-1M --ioengine=psync --verify=crc32c --verify_fatal=1 \
       --verify_state_save=0 --fallocate=none --group_reporting >"$work/fio.log" 2>&1; then
    fio_status="passed: $(grep -E '^ +(READ|WRITE):' "$work/fio.log" | sed 's/^ *//; s/ (.*//' | paste -sd ';')"
  else
    cp "$work/fio.log" "$work/mount.log" "$build/" || true
    fio_status="FAILED (see $build/fio.log and $build/mount.log): $(grep -iE 'error|verify|bad' "$work/fio.log" | head -5)"
  fi
fi

ratio() { python3 -c "print(f'{$1 / $2:.2f}')"; }
gib() { python3 -c "print(f'{$1 * 1024 / $mib:.2f}')"; }
echo
echo "sequential transfers of $mib MiB with dd, 1 MiB blocks, on $loopdev (direct I/O loop device), $(nproc) cores, median of $runs runs"
printf '| %-46s | %8s | %6s | %13s |\n' "what" "seconds" "vs dd" "mount CPU s/GiB"
printf '|%s|%s|%s|%s|\n' "------------------------------------------------" "----------" "--------" "-----------------"
row() { printf '| %-46s | %8s | %6s | %15s |\n' "$1" "$2" "$3" "$4"; }
row "dd read of the device, iflag=direct" "$dd_read" "1.00" "-"
row "dd read of a file through the mount" "$m_read" "$(ratio "$dd_read" "$m_read")" "$(gib "$m_read_cpu")"
row "dd write to the device, oflag=direct" "$dd_write" "1.00" "-"
row "dd overwrite of a file through the mount" "$m_over" "$(ratio "$dd_write" "$m_over")" "$(gib "$m_over_cpu")"
row "dd write of a new file through the mount" "$m_new" "$(ratio "$dd_write" "$m_new")" "$(gib "$m_new_cpu")"
echo "(vs dd: dd's time over this one's, higher is faster)"
echo "goals: read >= 0.80, overwrite >= 0.80, new file >= 0.45"
echo "fio through the mount: $fio_status"
