#!/usr/bin/env bash
# What a quiet process writes to the device, with the crash tail and without: vek_flash at 1
# and 20 lines per second, each in a fresh ext4 file system of its own on a loop device (as
# root), then the same beside a `sync` loop, which writes back the ring's pages as fast as it
# can (the page faults on the logging thread that follow). Needs a build with VEK_BENCHMARKS.
#
#   run_flash.sh [SECONDS]   (default 90 per run at 1 and 20 lines/s; 30 at 20,000; about 8 min)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../../../.." && pwd)
flash=${VEK_FLASH:-${VEK_BUILD_DIR:-$top/build-bench}/nfc/common/opensource/VekLogger/benchmarks/vek_flash}
seconds=${1:-90}
work=$(mktemp -d)
trap 'umount "$work/mnt" 2>/dev/null; losetup -D; rm -rf "$work"' EXIT

run() {  # tail on|off, lines per second, sync loop yes|no, seconds
  truncate -s 256M "$work/img" && mkfs.ext4 -q -F "$work/img"
  local loop
  loop=$(losetup -f --show "$work/img")
  mkdir -p "$work/mnt" && mount "$loop" "$work/mnt"
  mkdir -p "$work/mnt/data/vendor/nfc" && sync
  local syncer=
  [ "$3" = yes ] && { while :; do sync; sleep 0.05; done & syncer=$!; }
  local off=()
  [ "$1" = off ] && off=(VEK_NO_CRASH_TAIL=1)
  echo -n "tail $1, sync loop $3: "
  env "${off[@]}" VEK_LOG_ROOT="$work/mnt" "$flash" "$2" "$4" "/sys/block/${loop#/dev/}/stat"
  [ -n "$syncer" ] && kill "$syncer"
  umount "$work/mnt" && losetup -d "$loop"
}

for rate in 1 20; do
  for tail in on off; do run "$tail" "$rate" no "$seconds"; done
done
for syncing in no yes; do
  for tail in on off; do run "$tail" 20000 "$syncing" 30; done
done
