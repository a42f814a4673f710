#!/usr/bin/env bash
# Sets up this machine, builds, and runs every test.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$root/build"
cd "$root/build"
ctest --output-on-failure -j "$(nproc)" --timeout 600
