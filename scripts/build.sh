#!/usr/bin/env bash
# Configures and builds one tree. Usage: build.sh DIR [extra cmake arguments]
# Warnings are errors only when the environment asks for it with
# TOLV_WERROR=ON (CI does); otherwise they are reported and the build goes on.
# The setting is passed every time, so a tree once built for CI does not keep it.
set -euo pipefail
if [ $# -lt 1 ]; then
  echo "usage: $(basename "$0") DIR [CMAKE-ARGUMENT...]" >&2
  exit 2
fi
dir=$1; shift
werror=${TOLV_WERROR:-OFF}
cmake -S "$(dirname "$0")/.." -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      "-DTOLV_WERROR=$werror" "$@" >/dev/null
cmake --build "$dir"
