#!/bin/sh
# Builds CommsChannel optimised and runs the end-to-end benchmarks in
# network and mount namespaces of their own, with a resolver started for
# them there. Arguments go to commschannel-bench-e2e, e.g.
#   tools/run-bench.sh --reps 5 --only a,b
#   tools/run-bench.sh --smoke
# The build tree is $COMMSCHANNEL_BUILD_ROOT (default ./build-bench); the raw
# figures go to bench-results.jsonl in the current directory unless --json
# says otherwise. Needs root or unprivileged user namespaces.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out=${COMMSCHANNEL_BUILD_ROOT:-$root/build-bench}
jobs=${COMMSCHANNEL_JOBS:-2}

COMMSCHANNEL_SKIP_MIPS=1 "$root/tools/ci/install-deps.sh"
cmake -S "$root" -B "$out" -DCMAKE_BUILD_TYPE=Release -DCOMMSCHANNEL_BUILD_BENCHMARKS=ON -DBUILD_TESTING=OFF \
    >/dev/null
cmake --build "$out" -j "$jobs" --target commschannel-bench-e2e commschannel-resolver

json=bench-results.jsonl
previous=""
for arg in "$@"; do
    [ "$previous" = "--json" ] && json=$arg
    previous=$arg
done
case $json in
    /*) ;;
    *) json=$(pwd)/$json ;;
esac

echo
echo "machine: $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)"
echo "load:    $(cat /proc/loadavg)"
echo "date:    $(date -u '+%Y-%m-%d %H:%M UTC')"
echo
status=0
"$root/tests/support/isolate.sh" "$root/bench/with-resolver.sh" "$out/resolver/commschannel-resolver" \
    "$out/bench/commschannel-bench-e2e" --json "$json" "$@" || status=$?
echo "JSON lines: $json"
exit $status
