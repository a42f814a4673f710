#!/usr/bin/env bash
# The main job: sets up, builds tolvClientWorker and its peer
# veltrane-protocol.exe into build-main/bin, and copies a sample image through
# the worker and back, checking every byte; as root with loop devices, also a
# loop device that holds a mounted ext4 file system (which the worker
# dismounts and claims).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh" main
bash "$root/scripts/build.sh" "$root/build-main" -DTOLV_BUILD_TESTS=OFF -DTOLV_BUILD_BENCH=OFF
peer="$root/build-main/bin/veltrane-protocol.exe"

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
# The worker logs into its private folder under TMPDIR; keep it with the run.
export TMPDIR="$work/tmp" IPCLIB_RUNTIME_DIR="$work/run" LXREG_ROOT="$work/reg"
mkdir -p "$TMPDIR" "$LXREG_ROOT"

same() {
  if cmp -s "$1" "$2"; then echo "  $3: identical"; else echo "  $3: DIFFERENT" >&2; exit 1; fi
}

echo "== sample image file (64 MiB of random bytes) through the worker"
head -c $((64 << 20)) /dev/urandom > "$work/source.img"
"$peer" --quiet copy-out "$work/source.img" "$work/copy.img"
same "$work/source.img" "$work/copy.img" "copied out"
head -c $((64 << 20)) /dev/urandom > "$work/new.img"
"$peer" --quiet copy-in "$work/new.img" "$work/source.img"
same "$work/new.img" "$work/source.img" "copied in"
"$peer" query E "$work/source.img" read E 1000 4096 "$work/range.bin" release E
same <(tail -c +1001 "$work/source.img" | head -c 4096) "$work/range.bin" "range of 4096 bytes at 1000"

if [ "$(id -u)" -eq 0 ] && [ -w /dev/loop-control ] && command -v losetup >/dev/null; then
  echo "== loop device with a mounted ext4 file system (64 MiB)"
  truncate -s 64M "$work/loop.img"
  loop=$(losetup --find --show "$work/loop.img")
  mkfs.ext4 -q -F "$loop"
  mkdir "$work/mnt"
  mount "$loop" "$work/mnt"
  echo "mounted $loop on $work/mnt"
  "$peer" --quiet copy-out "\\\\.\\${loop#/dev/}" "$work/loop-copy.img"
  if grep -q " $work/mnt " /proc/self/mountinfo; then
    echo "the worker left $loop mounted" >&2
    exit 1
  fi
  echo "  $loop was dismounted by the worker, as it should be"
  same "$work/loop.img" "$work/loop-copy.img" "device copied out"
  "$peer" --quiet copy-in "$work/new.img" "\\\\.\\${loop#/dev/}"
  same "$work/new.img" "$work/loop.img" "device copied in"
else
  echo "== skipping the loop-device run: it needs root and /dev/loop-control"
fi

echo "== the worker's log (last lines)"
tail -n 12 "$TMPDIR"/corvanta-"$(id -u)"/* 2>/dev/null || echo "(no log file)"
