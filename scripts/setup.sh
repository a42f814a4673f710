#!/usr/bin/env bash
# Installs, from Debian's packages, whatever the build, the tests and the demo
# need and this machine does not have yet, and any further packages named on
# its command line.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev
  libfmt-dev libgtest-dev libgmock-dev libbenchmark-dev libisal-dev
  util-linux mount e2fsprogs
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "setup: installing ${missing[*]}"
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
