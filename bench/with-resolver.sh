#!/bin/sh
# Runs a command with a commschannel-resolver of its own, meant for a
# private network namespace (tests/support/isolate.sh): starts the
# resolver, waits until "--list" gets an answer, runs the command and stops
# the resolver again, whatever the command's outcome. Exits with the
# command's status.
# Usage: with-resolver.sh RESOLVER COMMAND [ARGS...]
set -u
resolver=$1
shift
# The state file goes to a tmpfs when there is one, as it does on a real
# system (/run): the resolver saves its table before it answers, and a
# disk-backed /tmp would make every registration wait for the disk.
state_root=/tmp
[ -d /dev/shm ] && [ -w /dev/shm ] && state_root=/dev/shm
state=$(mktemp -d "$state_root/commschannel-bench-resolver.XXXXXX")
"$resolver" --state-file "$state/resolver.state" &
resolver_pid=$!
stop_resolver() {
    kill "$resolver_pid" 2>/dev/null
    wait "$resolver_pid" 2>/dev/null
    rm -rf "$state"
}
trap 'stop_resolver; exit 130' INT TERM

tries=0
until "$resolver" --list >/dev/null 2>&1; do
    tries=$((tries + 1))
    if [ "$tries" -ge 50 ] || ! kill -0 "$resolver_pid" 2>/dev/null; then
        echo "with-resolver: commschannel-resolver does not answer" >&2
        stop_resolver
        exit 1
    fi
    sleep 0.1
done

"$@"
status=$?
stop_resolver
exit $status
