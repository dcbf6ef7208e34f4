#!/bin/sh
# Installs CommsChannel from a finished build tree into a scratch prefix,
# then builds the examples as an outside user would (find_package and
# pkg-config) and runs the in-process example. Also checks that a build with
# -DBUILD_TESTING=OFF needs nothing of the tests.
# Usage: check-install.sh BUILD_TREE WORK_DIR
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$1
work=$2
rm -rf "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
test -x "$work/prefix/bin/commschannel-resolver" || { echo "check-install: commschannel-resolver was not installed" >&2; exit 1; }

cmake -S "$root/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/examples" -j "${COMMSCHANNEL_JOBS:-2}"
LD_LIBRARY_PATH="$work/prefix/lib" "$work/examples/in-process/in-process-example"

# pkg-config users get the same headers and libraries.
PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs commschannel >/dev/null

# Without tests nothing of GoogleTest is configured.
cmake -S "$root" -B "$work/no-tests" -DBUILD_TESTING=OFF >/dev/null
if grep -q -i googletest "$work/no-tests/CMakeCache.txt"; then
    echo "check-install: -DBUILD_TESTING=OFF still configures the tests" >&2
    exit 1
fi
echo "install check passed"
