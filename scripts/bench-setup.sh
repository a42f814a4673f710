#!/usr/bin/env bash
# Installs what the comparison benchmark (bench/compare) measures the worker
# against: nbdkit with its file plugin, libnbd's headers and nbdcopy. Then the
# usual build dependencies through setup.sh.
set -euo pipefail

packages=(nbdkit libnbd-dev libnbd-bin pkg-config)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "bench-setup: installing ${missing[*]}"
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

exec bash "$(dirname "$0")/setup.sh"
