#!/usr/bin/env bash
# Cross-builds the project for 32-bit big-endian MIPS Linux (glibc) and runs
# the whole test suite under qemu-user emulation.
#
# Usage: tools/ci/mips.sh [REPO_ROOT] [BUILD_DIR]
#   REPO_ROOT  defaults to the repository this script is in; a first argument
#              without a CMakeLists.txt in it is taken as BUILD_DIR instead
#              (tools/run-tests.sh calls "mips.sh BUILD_DIR")
#   BUILD_DIR  defaults to REPO_ROOT/build-mips
# Environment:
#   MIPS_JOBS        parallel build jobs and ctest jobs
#                    (default: COMMSCHANNEL_JOBS, else nproc)
#   MIPS_CLEAN=1     remove BUILD_DIR first
#   MIPS_SYSROOT     target root (default /usr/mips-linux-gnu)
#   CMAKE_BUILD_TYPE passed on when set
#   MIPS_CMAKE_ARGS  extra configure arguments, split on blanks
#
# Needs root (or user namespaces) for the per-test network/mount namespaces.
set -euo pipefail

script_dir=$(cd "$(dirname "$0")" && pwd)
if [ $# -ge 1 ] && [ ! -f "$1/CMakeLists.txt" ]; then
    [ $# -eq 1 ] || { echo "usage: $0 [REPO_ROOT] [BUILD_DIR]" >&2; exit 2; }
    set -- "$script_dir/../.." "$1"
fi
root=$(cd "${1:-$script_dir/../..}" && pwd)
build=${2:-$root/build-mips}
jobs=${MIPS_JOBS:-${COMMSCHANNEL_JOBS:-$(nproc 2>/dev/null || echo 2)}}
sysroot=${MIPS_SYSROOT:-/usr/mips-linux-gnu}
toolchain=$root/cmake/toolchains/mips-linux-gnu.cmake

say() { printf '== mips: %s\n' "$*"; }
die() { printf '== mips: ERROR: %s\n' "$*" >&2; exit 1; }

[ -f "$root/CMakeLists.txt" ] || die "no CMakeLists.txt in $root"
[ -f "$toolchain" ] || die "missing $toolchain"

# --- tools -------------------------------------------------------------------
missing=""
need() { # need COMMAND-OR-FILE PACKAGE
    case $1 in
        /*) [ -e "$1" ] || missing="$missing $2" ;;
        *) command -v "$1" >/dev/null 2>&1 || missing="$missing $2" ;;
    esac
}
need mips-linux-gnu-g++ g++-mips-linux-gnu
need qemu-mips qemu-user
need ip iproute2
need unshare util-linux
need cmake cmake
need /usr/src/googletest/CMakeLists.txt googletest

if [ -n "$missing" ]; then
    say "installing:$missing"
    sudo=""
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null 2>&1 || die "not root and no sudo: install$missing"
        sudo="sudo"
    fi
    export DEBIAN_FRONTEND=noninteractive
    # shellcheck disable=SC2086
    if ! $sudo apt-get install -y --no-install-recommends $missing; then
        say "install failed; updating package lists and retrying"
        $sudo apt-get update
        # shellcheck disable=SC2086
        $sudo apt-get install -y --no-install-recommends $missing
    fi
fi

[ -e "$sysroot/lib/ld.so.1" ] || die "no MIPS dynamic loader at $sysroot/lib/ld.so.1"

# Programs that exec another MIPS program without "qemu-mips -L" (or through
# binfmt_misc) still find the target's libraries.
QEMU_LD_PREFIX=$sysroot
export QEMU_LD_PREFIX
# Deliberate aborts in tests must not leave qemu core files behind.
ulimit -c 0 2>/dev/null || true

# Quick proof that emulation works before spending time on the build.
probe_dir=$(mktemp -d)
trap 'rm -rf "$probe_dir"' EXIT
printf 'int main() { return 0; }\n' > "$probe_dir/probe.cpp"
mips-linux-gnu-g++ "$probe_dir/probe.cpp" -o "$probe_dir/probe" ||
    die "mips-linux-gnu-g++ cannot build a trivial program"
qemu-mips -L "$sysroot" "$probe_dir/probe" ||
    die "qemu-mips cannot run a trivial MIPS program"

# --- configure, build, test ----------------------------------------------------
if [ "${MIPS_CLEAN:-0}" = 1 ]; then
    say "removing $build"
    rm -rf "$build"
fi

say "configure $root -> $build"
read -r -a extra_args <<< "${MIPS_CMAKE_ARGS:-}"
cmake -S "$root" -B "$build" \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DMIPS_SYSROOT="$sysroot" \
    ${CMAKE_BUILD_TYPE:+-DCMAKE_BUILD_TYPE="$CMAKE_BUILD_TYPE"} \
    -DBUILD_TESTING=ON \
    "${extra_args[@]}"

say "build (-j$jobs)"
cmake --build "$build" --parallel "$jobs"

say "test under qemu-mips (-j$jobs)"
cd "$build"
ctest --output-on-failure --no-tests=error --parallel "$jobs"
say "all tests passed"
