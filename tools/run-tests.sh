#!/bin/sh
# Builds and runs the whole CommsChannel test suite:
#   1. a normal build with -Wall -Wextra -Werror, the benchmarks included
#      (their smoke run, bench.smoke, is one of the tests),
#   2. an AddressSanitizer + UndefinedBehaviorSanitizer build,
#   3. a ThreadSanitizer build,
#   4. an install into a scratch prefix, with the examples built against it
#      and a check that -DBUILD_TESTING=OFF configures without any test,
#   5. a cross build for 32-bit big-endian MIPS, run under qemu-mips.
# Each test runs in network and mount namespaces of its own, so this needs
# root (or unprivileged user namespaces). Set COMMSCHANNEL_SKIP_MIPS=1 to
# leave out step 5. Build trees go to $COMMSCHANNEL_BUILD_ROOT (default
# ./build-ci).
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out=${COMMSCHANNEL_BUILD_ROOT:-$root/build-ci}
jobs=${COMMSCHANNEL_JOBS:-2}
mkdir -p "$out"

"$root/tools/ci/install-deps.sh"

start=$(date +%s)
step() { echo; echo "=== $* ($(( $(date +%s) - start )) s)"; }

run_suite() {
    name=$1; type=$2; shift 2
    step "$name: configure and build"
    cmake -S "$root" -B "$out/$name" -DCMAKE_BUILD_TYPE="$type" -DCOMMSCHANNEL_WERROR=ON "$@" >/dev/null
    cmake --build "$out/$name" -j "$jobs"
    step "$name: test"
    (cd "$out/$name" && ctest -j 4 --output-on-failure --timeout 300)
}

# The sanitizer builds are unoptimised: they compile much faster, and the
# runtimes find the same faults.
run_suite normal RelWithDebInfo -DCOMMSCHANNEL_BUILD_BENCHMARKS=ON

step "install and build the examples against the installed package"
"$root/tools/ci/check-install.sh" "$out/normal" "$out/install-check"

ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_suite asan Debug -DCOMMSCHANNEL_SANITIZER=address,undefined
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    run_suite tsan Debug -DCOMMSCHANNEL_SANITIZER=thread

if [ "${COMMSCHANNEL_SKIP_MIPS:-0}" != "1" ]; then
    step "mips: cross build and emulated test run"
    MIPS_CMAKE_ARGS="-DCOMMSCHANNEL_WERROR=ON" CMAKE_BUILD_TYPE=RelWithDebInfo MIPS_JOBS=$jobs \
        "$root/tools/ci/mips.sh" "$out/mips"
fi
step "all suites passed"
