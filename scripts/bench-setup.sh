#!/usr/bin/env bash
# Installs what the comparison benchmark (bench/compare) measures the worker
# against: nbdkit with its file plugin, libnbd's headers and nbdcopy, beside
# the usual build dependencies.
set -euo pipefail
exec bash "$(dirname "$0")/setup.sh" nbdkit libnbd-dev libnbd-bin pkg-config
