#!/usr/bin/env bash
# Sets up this machine, builds everything (programs, tests and benchmarks)
# into build/, and runs every test.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh" test
bash "$root/scripts/build.sh" "$root/build"
cd "$root/build"
ctest --output-on-failure -j "$(nproc)" --timeout 600
