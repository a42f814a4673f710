#!/usr/bin/env bash
# Installs, from Debian's packages, what one job needs and this machine does
# not have yet.
#
#   setup.sh main [PACKAGE...]  the worker and its peer, and the main job's demo
#   setup.sh test [PACKAGE...]  the above, and the tests and benchmarks
#   setup.sh ci   [PACKAGE...]  the above, and clang with its sanitizer runtime
#
# Packages named after the job are installed as well. When nothing is
# missing, apt-get is not called and no root is needed. When something is
# missing it runs apt-get as root, or through sudo when sudo is there and
# works; with neither it lists the missing packages and the command to run as
# root, and exits 1.
set -euo pipefail

usage() {
  echo "usage: $(basename "$0") main|test|ci [PACKAGE...]" >&2
  exit 2
}

[ $# -ge 1 ] || usage
job=$1; shift

# Building the two programs (the peer reads and writes JSON with
# nlohmann/json and checks copies with ISA-L's CRC-32), and the demo in
# run-main.sh (losetup, mount, mkfs.ext4).
main_packages=(cmake ninja-build g++ pkg-config libfmt-dev libisal-dev nlohmann-json3-dev
               util-linux mount e2fsprogs)
# tests/ needs GoogleTest and GoogleMock, and groff for the man page check;
# bench/ needs nothing more (pkg-config looks for the optional libnbd).
test_packages=(libgtest-dev libgmock-dev groff-base python3)
# The sanitizer and fuzzer builds; the runtime package is found below.
ci_packages=(clang)

case $job in
  main) packages=("${main_packages[@]}") ;;
  test) packages=("${main_packages[@]}" "${test_packages[@]}") ;;
  ci)   packages=("${main_packages[@]}" "${test_packages[@]}" "${ci_packages[@]}") ;;
  *)    usage ;;
esac
packages+=("$@")

installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"
}

# The command that runs apt-get: empty as root, "sudo" when sudo works.
# Anything else fails, naming the packages and the command to run as root.
apt_prefix=""
apt_prefix_known=0
find_apt_prefix() {
  [ "$apt_prefix_known" -eq 0 ] || return 0
  if [ "$(id -u)" -eq 0 ]; then
    apt_prefix=""
  elif command -v sudo >/dev/null 2>&1 && { sudo -n true 2>/dev/null || { [ -t 0 ] && sudo -v; }; }; then
    apt_prefix="sudo"
  else
    echo "setup: these packages are missing: $*" >&2
    echo "setup: this is not root and sudo is not available; as root, run:" >&2
    echo "    apt-get update && apt-get install --no-install-recommends $*" >&2
    echo "setup: then run this again." >&2
    exit 1
  fi
  apt_prefix_known=1
}

lists_updated=0
apt_update() {
  if [ "$lists_updated" -eq 0 ]; then
    $apt_prefix apt-get update -q
    lists_updated=1
  fi
}

install_missing() {
  local missing=() p
  for p in "$@"; do
    installed "$p" || missing+=("$p")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  find_apt_prefix "${missing[@]}"
  echo "setup: installing ${missing[*]}"
  apt_update
  DEBIAN_FRONTEND=noninteractive $apt_prefix apt-get install -y -q --no-install-recommends "${missing[@]}"
}

install_missing "${packages[@]}"

[ "$job" = ci ] || exit 0

# Whether clang links a program with -fsanitize=$1 (the runtime is there).
links_with() {
  local dir rc=0
  dir=$(mktemp -d)
  cat > "$dir/probe.cpp" <<'EOF'
#include <cstddef>
#include <cstdint>
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t*, std::size_t) { return 0; }
#ifndef PROBE_FUZZER
int main() { return 0; }
#endif
EOF
  local extra=()
  [ "$1" != fuzzer ] || extra=(-DPROBE_FUZZER)
  clang++ "${extra[@]}" -fsanitize="$1" "$dir/probe.cpp" -o "$dir/probe" 2>/dev/null || rc=1
  rm -rf "$dir"
  return "$rc"
}

runtime_present() {
  links_with address,undefined && links_with thread && links_with fuzzer
}

if runtime_present; then
  exit 0
fi

# The sanitizer runtime comes with the clang release: libclang-rt-N-dev where
# Debian has it, else libclang-common-N-dev (older releases carry it there).
major=$(clang -dumpversion | cut -d. -f1)
candidates=("libclang-rt-$major-dev" "libclang-common-$major-dev")
runtime=""
for p in "${candidates[@]}"; do
  if installed "$p"; then
    continue
  fi
  find_apt_prefix "$p"
  apt_update
  if apt-cache show --no-all-versions "$p" >/dev/null 2>&1; then
    runtime=$p
    break
  fi
done
if [ -z "$runtime" ]; then
  echo "setup: clang $major cannot link with -fsanitize=address,undefined, thread or fuzzer," >&2
  echo "setup: and none of ${candidates[*]} is left to install" >&2
  exit 1
fi
install_missing "$runtime"
if ! runtime_present; then
  echo "setup: clang $major still cannot link sanitized programs after installing $runtime" >&2
  exit 1
fi
