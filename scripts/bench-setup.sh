#!/usr/bin/env bash
# Installs what the comparison benchmark (bench/compare) measures the worker
# against: nbdkit with its file plugin, libnbd's headers and nbdcopy, beside
# what the test job needs (the benchmarks are built by scripts/test.sh).
set -euo pipefail
exec bash "$(dirname "$0")/setup.sh" test nbdkit libnbd-dev libnbd-bin
