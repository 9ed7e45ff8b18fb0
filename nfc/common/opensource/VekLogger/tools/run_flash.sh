#!/usr/bin/env bash
# What a quiet process writes to the device: vek_flash at 1 and 20 lines per second, each in a
# fresh ext4 file system of its own on a loop device (as root), with the crash tail in the log
# directory ("on"), in a RAM directory as a device's init provides it ("ram": a tmpfs at
# /mnt/vendor/vek), and without it ("off"). Each measured run is a restart: a first start has
# made the log directory's files, which a process makes once, not every day. Then the same beside
# a `sync` loop, which writes back the ring's pages as fast as it can (the page faults on the
# logging thread that follow). Needs a build with VEK_BENCHMARKS.
#
#   run_flash.sh [SECONDS]   (default 90 per run at 1 and 20 lines/s; 30 at 20,000; about 13 min)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../../../.." && pwd)
flash=${VEK_FLASH:-${VEK_BUILD_DIR:-$top/build-bench}/nfc/common/opensource/VekLogger/benchmarks/vek_flash}
seconds=${1:-90}
work=$(mktemp -d)
trap 'umount "$work/mnt/mnt/vendor/vek" "$work/mnt" 2>/dev/null || true; losetup -D; rm -rf "$work"' EXIT

run() {  # tail on|off|ram, lines per second, sync loop yes|no, seconds
  truncate -s 256M "$work/img" && mkfs.ext4 -q -F "$work/img"
  local loop
  loop=$(losetup -f --show "$work/img")
  mkdir -p "$work/mnt" && mount "$loop" "$work/mnt"
  mkdir -p "$work/mnt/data/vendor/nfc" "$work/mnt/mnt/vendor/vek"
  [ "$1" = ram ] && mount -t tmpfs -o size=8m,mode=0770 tmpfs "$work/mnt/mnt/vendor/vek"
  local off=()
  [ "$1" = off ] && off=(VEK_NO_CRASH_TAIL=1)
  local stat=/sys/block/${loop#/dev/}/stat
  env "${off[@]}" VEK_LOG_ROOT="$work/mnt" "$flash" 1 1 "$stat" >/dev/null 2>&1 && sync
  local syncer=
  [ "$3" = yes ] && { while :; do sync; sleep 0.05; done & syncer=$!; }
  echo -n "tail $1, sync loop $3: "
  env "${off[@]}" VEK_LOG_ROOT="$work/mnt" "$flash" "$2" "$4" "$stat"
  [ -n "$syncer" ] && kill "$syncer"
  [ "$1" = ram ] && umount "$work/mnt/mnt/vendor/vek"
  umount "$work/mnt" && losetup -d "$loop"
}

for rate in 1 20; do
  for tail in on ram off; do run "$tail" "$rate" no "$seconds"; done
done
for syncing in no yes; do
  for tail in on ram off; do run "$tail" 20000 "$syncing" 30; done
done
