#!/usr/bin/env bash
# make run: kestrixd in the foreground with the localfs plug-in, serving the
# share "demo" on a small ext4 image (loop-mounted) with a few sample files,
# logging to the screen, and the share mounted with kestrix-mount on
# demo/client. Ctrl-C unmounts the share, stops the daemon, unmounts the
# image and detaches its loop device.
# Usage: scripts/demo.sh [BUILD_DIR] [extra kestrixd options]
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$root/build}" && pwd)" || exit 1
shift || true

say() { echo "demo: $*" >&2; }
for f in kestrixd plugins/localfs.so client/kestrix-cli client/kestrix-mount; do
  [ -e "$build/$f" ] || { say "$build/$f is missing; build it first (make run does)"; exit 1; }
done

demo="$build/demo"
image="$demo/ext4.img"
mnt="$demo/mnt"
client="$demo/client"
port="${KESTRIX_PORT:-5501}"
loopdev="" mounted="" daemon="" kmount=""

cleanup() {
  trap '' INT TERM  # a second Ctrl-C must not cut the clean-up short
  if [ -n "$kmount" ]; then  # first the share, while the daemon can still close its leases
    # A Ctrl-C reached kestrix-mount too, and it unmounts itself; unmounting
    # it here at the same time only makes one of the two complain.
    for _ in $(seq 10); do mountpoint -q "$client" || break; sleep 0.1; done
    if mountpoint -q "$client"; then
      fusermount3 -u "$client" 2>/dev/null || umount -l "$client" || say "could not unmount $client"
    fi
    # A copy of the mount in another mount namespace keeps it serving: then SIGTERM.
    for _ in $(seq 30); do kill -0 "$kmount" 2>/dev/null || break; sleep 0.1; done
    kill "$kmount" 2>/dev/null
    wait "$kmount" 2>/dev/null
  fi
  if [ -n "$daemon" ]; then kill "$daemon" 2>/dev/null; wait "$daemon" 2>/dev/null; fi
  if [ -n "$mounted" ]; then
    umount "$mnt" 2>/dev/null || umount -l "$mnt" || say "could not unmount $mnt"
  fi
  if [ -n "$loopdev" ]; then losetup -d "$loopdev" || say "could not detach $loopdev"; fi
  [ -n "$mounted$loopdev" ] && say "stopped; $mnt unmounted${loopdev:+, $loopdev detached}"
}
trap cleanup EXIT
trap 'exit 0' INT TERM

# Where the share lives: the image when it can be mounted, else a directory
# of the build's own filesystem when that is ext4 or XFS.
why=""
# Leftovers of a run that could not clean up (killed with SIGKILL).
if mount | grep -q " $client "; then umount -l "$client"; fi
if mount | grep -q " $mnt "; then umount -l "$mnt"; fi
if [ -e "$image" ] && command -v losetup >/dev/null; then
  losetup -j "$image" | cut -d: -f1 | while read -r old; do losetup -d "$old"; done
fi
rm -rf "$demo"
mkdir -p "$demo/lib" "$mnt" "$client"
if [ "$(id -u)" != 0 ]; then why="not running as root"
elif ! command -v mkfs.ext4 >/dev/null && [ ! -x /sbin/mkfs.ext4 ]; then why="mkfs.ext4 is not installed"
elif ! truncate -s 256M "$image" || ! PATH="$PATH:/sbin:/usr/sbin" mkfs.ext4 -q -F -b 4096 "$image"; then
  why="mkfs.ext4 failed"
elif ! loopdev="$(losetup --find --show "$image" 2>&1)"; then why="no loop device: $loopdev"; loopdev=""
elif ! mount -t ext4 "$loopdev" "$mnt"; then why="mounting $loopdev failed"
else mounted=1
fi
if [ -n "$mounted" ]; then
  share="$mnt/share"
  disk="$loopdev"
else
  say "cannot loop-mount an ext4 image: $why"
  type="$(stat -f -c %T "$demo")"
  case "$type" in
    ext2/ext3|xfs) ;;
    *) say "and $demo lies on $type, not on ext4 or XFS: nothing to serve"; exit 1 ;;
  esac
  [ -n "$loopdev" ] && { losetup -d "$loopdev"; loopdev=""; }
  share="$demo/share"
  disk="$(df --output=source "$demo" | tail -n 1)"
  say "serving $share on $disk instead (localfs needs root to read it)"
fi
mkdir -p "$share"

# Sample files: text, one fragmented by interleaved synced writes with a
# second file, one sparse (data, an 8 MiB hole, data), one preallocated.
printf 'Hello from the shared disk.\nThis text was read straight from the block device.\n' \
  >"$share/hello.txt"
for i in $(seq 0 15); do
  for f in fragmented.bin filler.bin; do
    yes "$f block $i" | head -c 65536 |
      dd of="$share/$f" bs=65536 seek="$i" conv=notrunc,fsync status=none
  done
done
echo "start of sparse.bin" | dd of="$share/sparse.bin" conv=notrunc,fsync status=none
echo "end of sparse.bin" | dd of="$share/sparse.bin" bs=1M seek=8 conv=notrunc,fsync status=none
fallocate -l 1M "$share/preallocated.bin" 2>/dev/null || true
sync

cat >"$demo/smb.conf" <<CONF
# Demo Samba configuration: share "demo" is the sample directory.
[demo]
   path = $share
CONF
# Leases short enough that a local change waits for every map to end
# within the kernel's default lease-break-time (45 s): 14 s and 30 s of grace.
printf '# Directories localfs serves\n%s\nmax-read-lease 14\nmax-write-lease 14\n' "$share" \
  >"$demo/localfs.conf"
ln -s "$build/plugins/localfs.so" "$demo/lib/localfs.so"
export KESTRIX_LIBDIR="$demo/lib" KESTRIX_SMBPATH="$demo/smb.conf"
export KESTRIX_LOCALFS_CONF="$demo/localfs.conf"
# The admin socket beside the demo's files; metrics only when asked for
# (KESTRIX_METRICS=127.0.0.1:9464 make run).
export KESTRIX_ADMIN_SOCKET="$demo/admin.sock"

cli="$build/client/kestrix-cli"
[ "$port" != 5501 ] && cli="$cli -p $port"
"$build/kestrixd" -d -f SCREEN -l 4 "$@" &
daemon=$!
# The share mounted on demo/client once the daemon answers; FUSE needs root.
mount_note="(not mounted: $why)"
if [ -n "$mounted" ] && [ -w /dev/fuse ]; then
  for _ in $(seq 50); do $cli getvolume demo >/dev/null 2>&1 && break; sleep 0.1; done
  "$build/client/kestrix-mount" -f -p "$port" --disk "$disk" --names "$share" demo "$client" &
  kmount=$!
  for _ in $(seq 50); do mountpoint -q "$client" && break; sleep 0.1; done
  if mountpoint -q "$client"; then mount_note="mounted with kestrix-mount"; else mount_note="(kestrix-mount failed)"; fi
elif [ -n "$mounted" ]; then
  mount_note="(not mounted: no /dev/fuse)"
fi
cat <<MSG
kestrixd demo on UDP port $port, serving share "demo" = $share on $disk
Sample files: hello.txt, fragmented.bin (1 MiB), sparse.bin (8 MiB, mostly hole),
preallocated.bin (1 MiB, allocated but unwritten), filler.bin.
In a second terminal try:
  $cli getvolume demo
  $cli open demo fragmented.bin            # lease key, cookies and the extent table
  $cli close KEY                           # KEY: the lease key the open printed
  $cli read demo hello.txt --disk $disk
  $cli read demo sparse.bin --disk $disk -o /tmp/sparse.bin
  echo "new text, written on the disk" | $cli write demo hello.txt --disk $disk
  cat $share/hello.txt
  $cli --json getvolume demo              # any command: --json for scripts
The share on $client $mount_note: ordinary programs, data straight on $disk:
  ls -l $client
  cat $client/hello.txt
  cp /etc/services $client/ && cmp /etc/services $share/services
  dd if=/dev/urandom of=$client/random.bin bs=1M count=8 && cmp $client/random.bin $share/random.bin
  cp $client/fragmented.bin /tmp/ && cmp /tmp/fragmented.bin $share/fragmented.bin
Who holds what, from the admin socket:
  $cli admin leases --socket $demo/admin.sock
  $cli admin revoke KEY --socket $demo/admin.sock
Ctrl-C unmounts the share, stops the daemon and unmounts the image.
MSG
wait "$daemon"
status=$?
daemon=""
[ "$status" -gt 128 ] && exit 0  # stopped by a signal: the Ctrl-C path
exit "$status"
