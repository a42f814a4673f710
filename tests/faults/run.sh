#!/usr/bin/env bash
# Applies each deliberate fault in this folder to the sources, one at a time,
# rebuilds and runs the test suite, and reports whether the suite caught it.
# A suite that stays green with a fault applied has lost a check.
#
# Usage: tests/faults/run.sh [--source DIR] [--build DIR] [--full] [PATCH...]
#   --source DIR checkout to patch and test (default: this one), so that
#                an older suite can be held against the same faults
#   --build DIR  build tree to use (default: build-faults in the checkout);
#                configured and built once, then rebuilt after each patch
#   --full       run every test for each fault instead of stopping at the
#                first failure (slower, names every test that catches it)
#   PATCH        the faults to try (default: every *.patch here)
# The sources are restored after each fault, also when interrupted. The
# checkout's src/ and include/ must have no uncommitted changes.
# Exit status: 0 when every fault was caught, 1 when one was missed, 2 on a
# usage, patch or build error.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=""
stop=(--stop-on-failure)
patches=()
while [ $# -gt 0 ]; do
  case $1 in
    --source) root=$(realpath "$2"); shift 2 ;;
    --build) build=$(realpath -m "$2"); shift 2 ;;
    --full) stop=(); shift ;;
    -h|--help) sed -n '2,17p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    -*) echo "run.sh: unknown option $1" >&2; exit 2 ;;
    *) patches+=("$(realpath "$1")"); shift ;;
  esac
done
[ ${#patches[@]} -gt 0 ] || patches=("$here"/*.patch)
[ -n "$build" ] || build="$root/build-faults"

cd "$root"
if ! git diff --quiet -- src include; then
  echo "run.sh: src/ or include/ has uncommitted changes; commit or stash them first" >&2
  exit 2
fi
for p in "${patches[@]}"; do
  git apply --check "$p" || { echo "run.sh: $p does not apply" >&2; exit 2; }
done

applied=""
restore() { [ -z "$applied" ] || git apply -R "$applied"; applied=""; }
trap restore EXIT
trap 'exit 130' INT TERM

log="$build/faults-logs"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOLV_BUILD_BENCH=OFF -DTOLV_TEST_TIMEOUT=90 >/dev/null
mkdir -p "$log"
build_and_test() {  # $1: log name; returns ctest's status, 100 if the build failed
  rm -f "$log/$1".*
  if ! cmake --build "$build" >"$log/$1.build" 2>&1; then return 100; fi
  (cd "$build" && ctest -j "$(nproc)" --timeout 90 "${stop[@]}" >"$log/$1.test" 2>&1)
}
failed_tests() {  # the first few tests ctest names as failed in log $1
  sed -n '/tests FAILED:/,$p' "$log/$1.test" | grep -E '^\s+[0-9]+ - ' |
    sed -E 's/^\s+[0-9]+ - //; s/ \(.*//' | head -3 | paste -sd, -
}

echo "== the suite without faults"
if ! build_and_test baseline; then
  echo "run.sh: the suite fails without any fault (see $log/baseline.*)" >&2
  exit 2
fi

missed=0
for p in "${patches[@]}"; do
  name=$(basename "$p" .patch)
  git apply "$p"
  applied=$p
  set +e
  build_and_test "$name"
  rc=$?
  set -e
  restore
  case $rc in
    0) echo "MISSED  $name"; missed=$((missed + 1)) ;;
    100) echo "run.sh: $name does not build (see $log/$name.build)" >&2; exit 2 ;;
    *) echo "caught  $name  by $(failed_tests "$name")" ;;
  esac
done
# Leave the tree built from the clean sources.
cmake --build "$build" >/dev/null 2>&1 || true
echo "== $(( ${#patches[@]} - missed )) of ${#patches[@]} faults caught"
[ "$missed" -eq 0 ]
