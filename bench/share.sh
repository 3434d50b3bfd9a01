# Sourced by the data benchmarks: a share served by the daemon and localfs
# from an ext4 file system at the front of a loop device attached with
# --direct-io=on, the rest of the device left to dd. The caller sets $build
# and $work and calls stop_share from its EXIT trap.
loopdev="" mounted="" daemon="" port=""

# start_share FS_MIB DEVICE_MIB: the file system's size and the device's.
# The image is allocated whole, so that no write pays for growing a sparse
# file where another did not.
start_share() {
  fallocate -l $(($2 * 1048576)) "$work/disk.img"
  loopdev="$(losetup --direct-io=on --find --show "$work/disk.img")"
  mkfs.ext4 -q -F -b 4096 "$loopdev" "$(($1 * 256))"
  mkdir -p "$work/mnt" "$work/lib"
  mount -t ext4 "$loopdev" "$work/mnt"
  mounted=1
  mkdir "$work/mnt/export"
  printf '[bench]\n   path = %s\n' "$work/mnt/export" >"$work/smb.conf"
  printf '%s\n' "$work/mnt/export" >"$work/localfs.conf"
  ln -s "$build/plugins/localfs.so" "$work/lib/localfs.so"
  port="$(python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')"
  KESTRIX_PORT="$port" KESTRIX_LIBDIR="$work/lib" KESTRIX_SMBPATH="$work/smb.conf" \
    KESTRIX_LOCALFS_CONF="$work/localfs.conf" "$build/kestrixd" -d -l 2 -f "$work/kestrixd.log" &
  daemon=$!
  sleep 1
}

stop_share() {
  if [ -n "$daemon" ]; then kill "$daemon" 2>/dev/null; wait "$daemon" 2>/dev/null || true; fi
  if [ -n "$mounted" ]; then umount "$work/mnt" 2>/dev/null || umount -l "$work/mnt"; fi
  if [ -n "$loopdev" ]; then losetup -d "$loopdev"; fi
  rm -rf "$work"
}
