#!/bin/sh
# Installs CommsChannel into a scratch prefix from a build with tests off,
# then builds the examples as an outside user would (find_package and
# pkg-config) and runs the in-process example.
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$1
rm -rf "$work"
cmake -S "$root" -B "$work/build" -DBUILD_TESTING=OFF -DCOMMSCHANNEL_WERROR=ON >/dev/null
cmake --build "$work/build" -j "${COMMSCHANNEL_JOBS:-2}"
cmake --install "$work/build" --prefix "$work/prefix" >/dev/null
test -x "$work/prefix/bin/commschannel-resolver" || { echo "check-install: commschannel-resolver was not installed" >&2; exit 1; }

cmake -S "$root/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/examples" -j "${COMMSCHANNEL_JOBS:-2}"
LD_LIBRARY_PATH="$work/prefix/lib" "$work/examples/in-process/in-process-example"

# pkg-config users get the same headers and libraries.
PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs commschannel >/dev/null
echo "install check passed"
