#!/bin/sh
# Builds the libFuzzer targets of fuzz/ with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer on) into ./build-fuzz and runs each for the
# given number of seconds, one after the other, on one core each.
#
# Usage: tools/run-fuzz.sh [SECONDS] [TARGET...]
#   SECONDS  per target, default 60
#   TARGET   decoder resolver locator channel (default: all)
#
# Each target starts from its committed seeds (fuzz/corpus/<target>, only
# read) and a working corpus in build-fuzz/corpus/<target>, where new entries
# go and which persists between runs. Crash, leak, timeout and memory
# artifacts go to build-fuzz/findings/<target>/. Per target it prints the
# executions, the new corpus entries and the findings of this run; the exit
# status is 1 if any target found something.
#
# Installs clang and the libFuzzer runtime with apt-get when missing (root).
# The locator and channel targets run in namespaces of their own
# (tests/support/isolate.sh), so this needs root or user namespaces.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
[ $# -gt 0 ] && shift
targets=${*:-decoder resolver locator channel}
out=$root/build-fuzz
jobs=${COMMSCHANNEL_JOBS:-2}

missing=""
for p in clang libclang-rt-14-dev; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    echo "run-fuzz: installing$missing"
    export DEBIAN_FRONTEND=noninteractive
    # shellcheck disable=SC2086
    apt-get install -y $missing || { apt-get update && apt-get install -y $missing; }
fi
cxx=$(command -v clang++-14 || command -v clang++)
cc=$(command -v clang-14 || command -v clang)

echo "=== build ($cxx)"
cmake -S "$root" -B "$out" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCOMMSCHANNEL_BUILD_FUZZERS=ON \
    -DCOMMSCHANNEL_SANITIZER=address,undefined \
    -DBUILD_TESTING=OFF -DCOMMSCHANNEL_INSTALL=OFF >/dev/null
build_targets=""
for t in $targets; do build_targets="$build_targets fuzz-$t"; done
# shellcheck disable=SC2086
cmake --build "$out" -j "$jobs" --target $build_targets

count() { find "$1" -maxdepth 1 -type f 2>/dev/null | wc -l; }

export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
summary=""
for t in $targets; do
    work=$out/corpus/$t
    findings=$out/findings/$t
    log=$out/fuzz-$t.log
    mkdir -p "$work" "$findings"
    entries_before=$(count "$work")
    findings_before=$(count "$findings")
    case $t in
        locator|channel) launcher=$root/tests/support/isolate.sh ;;
        *) launcher="" ;;
    esac
    # The live channel waits up to 5 s for a message: give an input 20 s.
    echo "=== $t: ${seconds}s"
    rc=0
    $launcher "$out/fuzz/fuzz-$t" -max_total_time="$seconds" -timeout=20 -max_len=8192 \
        -print_final_stats=1 -artifact_prefix="$findings/" "$work" "$root/fuzz/corpus/$t" >"$log" 2>&1 || rc=$?
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    new_entries=$(( $(count "$work") - entries_before ))
    new_findings=$(( $(count "$findings") - findings_before ))
    line="$t: executions ${executions:-?}, new corpus entries $new_entries, findings $new_findings (exit $rc)"
    echo "$line"
    if [ "$new_findings" -gt 0 ] || [ "$rc" -ne 0 ]; then
        status=1
        ls -t "$findings" | head -n "$new_findings" | sed "s|^|    $findings/|"
        echo "    log: $log"
    fi
    summary="$summary$line
"
done
echo
echo "=== summary"
printf '%s' "$summary"
exit $status
