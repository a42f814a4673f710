#!/usr/bin/env bash
# Configures and builds one tree. Usage: build.sh DIR [extra cmake arguments]
set -euo pipefail
dir=$1; shift
cmake -S "$(dirname "$0")/.." -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOLV_WERROR=ON "$@" >/dev/null
cmake --build "$dir"
