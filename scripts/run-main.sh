#!/usr/bin/env bash
# The main job: sets up, builds, and runs the drive service on a sample image
# file; as root with loop devices, also on a loop device that holds a mounted
# file system (which the service locks and dismounts).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$root/build-main" -DTOLV_BUILD_TESTS=OFF -DTOLV_BUILD_BENCH=OFF
demo="$root/build-main/src/worker/driveServiceDemo"

work=$(mktemp -d)
loop=""
cleanup() {
  if [ -n "$loop" ]; then
    umount "$work/mnt" 2>/dev/null || true
    losetup -d "$loop" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "== sample image file (32 MiB of random bytes)"
head -c $((32 << 20)) /dev/urandom > "$work/sample.img"
"$demo" "$work/sample.img"

if [ "$(id -u)" -eq 0 ] && [ -w /dev/loop-control ] && command -v losetup >/dev/null; then
  echo "== loop device with a mounted ext4 file system (64 MiB)"
  truncate -s 64M "$work/loop.img"
  loop=$(losetup --find --show "$work/loop.img")
  mkfs.ext4 -q -F "$loop"
  mkdir "$work/mnt"
  mount "$loop" "$work/mnt"
  echo "mounted $loop on $work/mnt"
  "$demo" "$loop"
  if grep -q " $work/mnt " /proc/self/mountinfo; then
    echo "the service left $loop mounted" >&2
    exit 1
  fi
  echo "$loop was dismounted by the query, as it should be"
else
  echo "== skipping the loop-device run: it needs root and /dev/loop-control"
fi
