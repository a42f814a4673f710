#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) into build-fuzz and runs each, one after the
# other, from a temporary copy of its seeds in fuzz/corpus.
#
#   fuzz.sh [--runs N | --seconds S] [--no-build] [--keep DIR] [TARGET...]
#
# --runs N      stop each target after N inputs
# --seconds S   stop each target after S seconds (the default, 25)
# --no-build    use build-fuzz as it is
# --keep DIR    leave each target's grown corpus in DIR/TARGET
# TARGET        any of the targets below (default: all)
#
# Prints libFuzzer's final figures per target (inputs run, seconds, cov, ft).
# A crash, leak, time-out or broken check is a finding: its input is written
# to build-fuzz/findings/ (or $FUZZ_FINDINGS), the report is shown, and the
# script exits 1 after the remaining targets have run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

declare -A corpus_of=(
  [transferReaderFuzz]=transfer
  [bootstrapRequestFuzz]=bootstrap
  [driveRequestFuzz]=drive-request
  [blockStreamFuzz]=block-stream
)
all_targets=(transferReaderFuzz bootstrapRequestFuzz driveRequestFuzz blockStreamFuzz)

usage() {
  echo "usage: $(basename "$0") [--runs N | --seconds S] [--no-build] [--keep DIR] [TARGET...]" >&2
  echo "targets: ${all_targets[*]}" >&2
  exit 2
}

limit=(-max_total_time=25)
build=1
keep=""
targets=()
while [ $# -gt 0 ]; do
  case $1 in
    --runs) [ $# -ge 2 ] && [[ $2 =~ ^[0-9]+$ ]] || usage; limit=(-runs="$2"); shift 2 ;;
    --seconds) [ $# -ge 2 ] && [[ $2 =~ ^[0-9]+$ ]] || usage; limit=(-max_total_time="$2"); shift 2 ;;
    --no-build) build=0; shift ;;
    --keep) [ $# -ge 2 ] || usage; keep=$2; shift 2 ;;
    -h|--help) usage ;;
    -*) usage ;;
    *)
      [ -n "${corpus_of[$1]:-}" ] || { echo "fuzz.sh: no target $1 (there are: ${all_targets[*]})" >&2; exit 2; }
      targets+=("$1"); shift ;;
  esac
done
[ ${#targets[@]} -gt 0 ] || targets=("${all_targets[@]}")

if [ "$build" -eq 1 ]; then
  CC=clang CXX=clang++ bash scripts/build.sh build-fuzz -DTOLV_SANITIZE=ON -DTOLV_FUZZ=ON \
    -DTOLV_BUILD_TESTS=OFF -DTOLV_BUILD_BENCH=OFF
fi

findings=${FUZZ_FINDINGS:-$root/build-fuzz/findings}
mkdir -p "$findings"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

failed=()
summary=()
for target in "${targets[@]}"; do
  binary=build-fuzz/fuzz/$target
  [ -x "$binary" ] || { echo "fuzz.sh: $binary is not built" >&2; exit 1; }
  if [ -n "$keep" ]; then
    corpus=$keep/$target
    mkdir -p "$corpus"
  else
    corpus=$work/$target
    mkdir "$corpus"
  fi
  cp fuzz/corpus/"${corpus_of[$target]}"/* "$corpus"/
  log=$work/$target.log
  echo "== $target ${limit[*]}"
  start=$(date +%s%N)
  status=0
  "$binary" "${limit[@]}" -timeout=30 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$findings/$target-" "$corpus" >"$log" 2>&1 || status=$?
  tenths=$(( ($(date +%s%N) - start) / 100000000 ))
  seconds=$((tenths / 10)).$((tenths % 10))
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  last=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -n 1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
  if [ "$status" -eq 0 ]; then
    result=ok
  else
    result="FINDING (exit $status)"
    failed+=("$target")
    # The report: from the sanitizer's or libFuzzer's first line on.
    awk '/^==[0-9]+==|runtime error:|^INFO: a leak|ERROR: libFuzzer/ { on = 1 } on' "$log" |
      grep -v '^###### \|# Uses: ' | head -n 150 || true
  fi
  line=$(printf '%-22s %12s %8s %6s %7s  %s' "$target" "${execs:-?}" "$seconds" "${cov:-?}" "${ft:-?}" "$result")
  echo "$line"
  summary+=("$line")
done

echo
printf '%-22s %12s %8s %6s %7s  %s\n' target inputs seconds cov ft result
printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz.sh: findings in ${failed[*]}; inputs in $findings" >&2
  exit 1
fi
