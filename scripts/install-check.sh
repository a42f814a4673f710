#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and builds the example client
# in examples/drive-client from that prefix alone, twice: with CMake's
# find_package and with pkg-config. Each build must name every tolv library
# once and nothing of the source or build tree; each program then runs
# against the installed worker on a scratch file and must read back what it
# wrote.
#
# usage: install-check.sh BUILD-DIR
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $(basename "$0") BUILD-DIR" >&2; exit 2; }
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
# The example is copied out, so that nothing can be found beside the checkout.
cp -r "$root/examples/drive-client" "$work/example"

fail() { echo "install-check: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
for f in bin/tolvClientWorker bin/veltrane-protocol.exe include/tamsel/ipc/ipclibClient.h \
         include/tolv/worker/DriveRequests.h lib/cmake/tolv/tolvConfig.cmake lib/pkgconfig/tolv-ipclib.pc \
         share/man/man1/tolvClientWorker.1; do
  [ -e "$prefix/$f" ] || fail "$f was not installed"
done
for lib in platform logfront task ipclib drive; do
  ls "$prefix"/lib/libtolv-$lib.* >/dev/null 2>&1 || fail "libtolv-$lib was not installed"
done

# Each libtolv-* once on a link line; no path into the checkout or the build.
check_line() { # what line
  local what=$1 line=$2 lib count
  for lib in ipclib task logfront platform drive; do
    count=$(grep -o -E "(libtolv-$lib\.(a|so[.0-9]*)|-ltolv-$lib)( |$)" <<<"$line" | wc -l)
    [ "$count" -eq 1 ] || fail "$what names libtolv-$lib $count times: $line"
  done
  if grep -q -e "$root/src" -e "$root/include" -e "$build" <<<"$line"; then
    fail "$what reaches into the source or build tree: $line"
  fi
}

run_example() { # folder-with-the-program
  local dir=$1 out
  # The worker admits only veltrane-protocol.exe in its own folder.
  cp "$prefix/bin/tolvClientWorker" "$dir/"
  truncate -s 1M "$work/disk.img"
  # A copy of a worker built on shared libraries no longer finds them through
  # its $ORIGIN/../lib run path.
  out=$(LD_LIBRARY_PATH=$prefix/lib TMPDIR=$work IPCLIB_RUNTIME_DIR=$work timeout 120 "$dir/veltrane-protocol.exe" "$work/disk.img" 2>&1) ||
    fail "the example failed: $out"
  grep -q "read: the same 29 bytes back" <<<"$out" || fail "unexpected output: $out"
  [ "$(dd if="$work/disk.img" bs=1 skip=4096 count=29 status=none)" = "written by the example client" ] ||
    fail "the file does not hold what the example wrote"
  echo "$out" | sed 's/^/    /'
}

echo "-- find_package(tolv)"
cmake -S "$work/example" -B "$work/with-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_FIND_PACKAGE_NO_PACKAGE_REGISTRY=ON >/dev/null
cmake --build "$work/with-cmake" >/dev/null
check_line "the CMake build" "$(ninja -C "$work/with-cmake" -t commands | grep -e '-o veltrane-protocol.exe')"
compile=$(ninja -C "$work/with-cmake" -t commands | grep -e 'drive_client.cpp')
if grep -q -e "$root/src" -e "$root/include" <<<"$compile"; then
  fail "the CMake build compiles against the checkout: $compile"
fi
run_example "$work/with-cmake"

echo "-- pkg-config tolv-ipclib tolv-drive"
static=--static
[ -e "$prefix/lib/libtolv-ipclib.so" ] && static=
flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config $static --cflags --libs tolv-ipclib tolv-drive)
check_line "pkg-config" "$flags"
mkdir -p "$work/with-pkg-config"
# shellcheck disable=SC2086
g++ -Wall -Wextra -O2 -o "$work/with-pkg-config/veltrane-protocol.exe" "$work/example/drive_client.cpp" $flags
run_example "$work/with-pkg-config"
echo "install-check: the installed package builds and runs the example both ways"
