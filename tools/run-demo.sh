#!/bin/sh
# Builds CommsChannel and its examples and runs the two-process demo. A
# resolver is started for the demo if none answers on port 5000.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out=${COMMSCHANNEL_BUILD_ROOT:-$root/build-demo}
COMMSCHANNEL_SKIP_MIPS=1 "$root/tools/ci/install-deps.sh"
cmake -S "$root" -B "$out" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$out" -j "${COMMSCHANNEL_JOBS:-2}" --target commschannel-demo commschannel-resolver
exec "$out/examples/ping-pong/commschannel-demo" --resolver "$out/resolver/commschannel-resolver" "$@"
