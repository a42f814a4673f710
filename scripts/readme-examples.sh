#!/usr/bin/env bash
# Runs the examples of README.md, in order, in a temporary folder, against
# built programs, and stops at the first one that fails.
#
# usage: readme-examples.sh [BUILD-DIR] [README]
#
# BUILD-DIR (default build-main, relative to the top of the checkout unless
# absolute) holds the programs in bin/; when they are not there it is built
# with scripts/build.sh, without tests and benchmarks. README defaults to the
# checkout's README.md.
#
# Which lines are examples: a fenced code block right after the line
# "<!-- examples -->" holds examples that anybody can run; one after
# "<!-- examples: root -->" holds examples that need root and loop devices,
# which are skipped (and said to be) otherwise. Every line of such a block is
# one command, run by one bash shell in the order written, so a variable set
# by one line is seen by the next; a line ending in "\" goes on in the next
# one, and lines that are blank or start with "#" are skipped. The examples
# call the programs as build-main/bin/..., as a reader at the top of the
# checkout would after the main job: the temporary folder holds a link
# build-main to BUILD-DIR.
#
# Standard error of the examples is merged into standard output, so that the
# log reads in order. The worker's log, IPC endpoints and settings store are
# kept in the temporary folder (TMPDIR, IPCLIB_RUNTIME_DIR, LXREG_ROOT). At
# the end, mounts in it are unmounted, loop devices backed by files in it
# detached, and the folder removed.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build-main}
readme=${2:-$root/README.md}
case $build in /*) ;; *) build=$root/$build ;; esac
[ -r "$readme" ] || { echo "readme-examples: cannot read $readme" >&2; exit 2; }

if [ ! -x "$build/bin/veltrane-protocol.exe" ] || [ ! -x "$build/bin/tolvClientWorker" ]; then
  echo "readme-examples: building $build"
  bash "$root/scripts/build.sh" "$build" -DTOLV_BUILD_TESTS=OFF -DTOLV_BUILD_BENCH=OFF
fi

# Prints the examples of one kind (plain or root), one command per line, with
# continued lines joined.
examples() {
  awk -v want="$1" '
    /^<!-- examples -->[ \t]*$/       { kind = "plain"; next }
    /^<!-- examples: root -->[ \t]*$/ { kind = "root"; next }
    kind != "" && !inside && /^```/   { inside = 1; next }
    inside && /^```/                  { inside = 0; kind = ""; next }
    kind != "" && !inside && !/^[ \t]*$/ { kind = "" }
    inside && kind == want {
      line = $0
      if (pending != "") sub(/^[ \t]+/, "", line)
      if (line ~ /\\$/) { pending = pending substr(line, 1, length(line) - 1) " "; next }
      line = pending line; pending = ""
      if (line ~ /^[ \t]*(#|$)/) next
      print line
    }' "$readme"
}

mapfile -t plain < <(examples plain)
mapfile -t privileged < <(examples root)
if [ ${#plain[@]} -eq 0 ]; then
  echo "readme-examples: no examples found in $readme (a fenced block after <!-- examples -->)" >&2
  exit 1
fi

work=$(mktemp -d)
cleanup() {
  if [ "$(id -u)" -eq 0 ]; then
    # Mounts below the folder, deepest first, then loop devices backed by its files.
    awk -v dir="$work" 'index($5, dir "/") == 1 { print $5 }' /proc/self/mountinfo | sort -r |
      while read -r point; do umount "$point" 2>/dev/null || true; done
    if command -v losetup >/dev/null; then
      losetup --list --noheadings --output NAME,BACK-FILE 2>/dev/null |
        awk -v dir="$work" 'index($2, dir "/") == 1 { print $1 }' |
        while read -r device; do losetup -d "$device" 2>/dev/null || true; done
    fi
  fi
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$work/run" "$work/tmp" "$work/reg" "$work/examples"
ln -s "$build" "$work/examples/build-main"

commands=("${plain[@]}")
if [ ${#privileged[@]} -gt 0 ]; then
  if [ "$(id -u)" -eq 0 ] && [ -w /dev/loop-control ] && command -v losetup >/dev/null &&
     command -v mkfs.ext4 >/dev/null && command -v mount >/dev/null; then
    commands+=("${privileged[@]}")
  else
    echo "readme-examples: skipping the ${#privileged[@]} examples that need root, /dev/loop-control, losetup, mkfs.ext4 and mount"
  fi
fi

# One script: each command is shown, run, and its status checked.
script=$work/examples.sh
{
  echo 'set -o pipefail'
  for i in "${!commands[@]}"; do
    printf 'printf "%%s\\n" %q\n' "\$ ${commands[$i]}"
    printf '%s\n' "${commands[$i]}"
    # shellcheck disable=SC2016  # expanded when the generated script runs
    printf 'status=$?; if [ "$status" -ne 0 ]; then echo "readme-examples: example %d failed (exit status $status): "%q >&2; exit 1; fi\n' \
      "$((i + 1))" "${commands[$i]}"
  done
} > "$script"

echo "readme-examples: running ${#commands[@]} examples from $readme against $build"
status=0
(
  cd "$work/examples"
  export TMPDIR="$work/tmp" IPCLIB_RUNTIME_DIR="$work/run" LXREG_ROOT="$work/reg"
  timeout 900 bash "$script" </dev/null 2>&1
) || status=$?
if [ "$status" -ne 0 ]; then
  [ "$status" -ne 124 ] || echo "readme-examples: the examples took longer than 15 minutes" >&2
  echo "readme-examples: the worker's log:" >&2
  tail -n 20 "$work/tmp"/corvanta-*/* 2>/dev/null >&2 || echo "(no log file)" >&2
  exit 1
fi
echo "readme-examples: all ${#commands[@]} examples passed"
