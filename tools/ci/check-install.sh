#!/bin/sh
# Installs CommsChannel from a finished build tree into a scratch prefix,
# runs the installed programs from there with a clean environment (and a
# short list/send round in private namespaces), then builds the examples as
# an outside user would (find_package and pkg-config) and runs the
# in-process example. Also checks that a build with
# -DBUILD_TESTING=OFF needs nothing of the tests.
# Usage: check-install.sh BUILD_TREE WORK_DIR
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$1
work=$2
rm -rf "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
for program in commschannel-resolver commschannel; do
    test -x "$work/prefix/bin/$program" || { echo "check-install: $program was not installed" >&2; exit 1; }
done
for file in commschannel-resolver.service commschannel-resolver.init; do
    test -f "$work/prefix/share/commschannel/$file" || { echo "check-install: share/commschannel/$file is missing" >&2; exit 1; }
done
test -f "$work/prefix/share/commschannel/wireshark/commschannel.lua" ||
    { echo "check-install: share/commschannel/wireshark/commschannel.lua is missing" >&2; exit 1; }
# Where tshark is installed, the installed dissector loads and brings its fields.
if command -v tshark >/dev/null 2>&1; then
    mkdir -p "$work/tshark-home"
    HOME="$work/tshark-home" XDG_CONFIG_HOME="$work/tshark-home" \
        tshark -G fields -X lua_script:"$work/prefix/share/commschannel/wireshark/commschannel.lua" 2>/dev/null |
        awk -F '\t' '$3 == "commschannel.kind" { found = 1 } END { exit !found }' ||
        { echo "check-install: tshark does not load the installed dissector" >&2; exit 1; }
fi

# The installed programs find their libraries by their relative RPATH: they
# run from the scratch prefix with a clean environment, no LD_LIBRARY_PATH.
env -i "$work/prefix/bin/commschannel-resolver" --version
env -i "$work/prefix/bin/commschannel" --version

# A quick round against the installed resolver, in network and mount
# namespaces of their own so that port 5000 is private: a listener, a name
# that appears, list and send.
"$root/tests/support/isolate.sh" env -i PATH=/usr/bin:/bin /bin/sh -c '
    set -eu
    bin=$1/bin
    scratch=$(mktemp -d)
    "$bin/commschannel-resolver" --state-file "$scratch/state" 2>"$scratch/resolver.log" &
    resolver=$!
    trap "kill $resolver 2>/dev/null; rm -rf $scratch" EXIT
    "$bin/commschannel-resolver" --list >/dev/null
    "$bin/commschannel" listen inbox -n 1 >"$scratch/heard" &
    listener=$!
    "$bin/commschannel" wait inbox -t 10000
    "$bin/commschannel" list | grep -q "^inbox "
    "$bin/commschannel" send inbox "hello from the install check"
    wait $listener
    grep -q "data=\"hello from the install check\"" "$scratch/heard"
' check-install "$work/prefix"

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
