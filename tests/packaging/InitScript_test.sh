#!/bin/sh
# The resolver's init script, run as root in this test's own network and
# mount namespaces (isolate.sh), with a private pid file and state file.
# Usage: InitScript_test.sh CASE INIT_SCRIPT RESOLVER [EMULATOR...]
# where CASE is the condition and its outcome:
#   StartFailsWhenThePortIsTaken (by another resolver)
#   StopKillsAProcessIgnoringSigtermAfterTheGracePeriod (SIGKILL after it)
#   ForceReloadRestartsTheResolver (and succeeds)
set -u
case_name=$1
init_script=$2
resolver_program=$3
shift 3

work=$(mktemp -d /tmp/cc-init-test-XXXXXX)
helpers=""
cleanup() {
    for pid in $helpers; do
        kill -KILL "$pid" 2>/dev/null
    done
    if [ -f "$work/pid" ]; then
        kill -KILL "$(cat "$work/pid")" 2>/dev/null
    fi
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# The resolver as the init script runs it: under the emulator, if any.
printf '#!/bin/sh\nexec %s "%s" "$@"\n' "$*" "$resolver_program" >"$work/resolver"
chmod +x "$work/resolver"
# The --syslog lines stay inside this mount namespace.
if [ -e /dev/log ]; then
    mount --bind /dev/null /dev/log 2>/dev/null || true
fi

export COMMSCHANNEL_PIDFILE="$work/pid"
export COMMSCHANNEL_RESOLVER="$work/resolver"
export COMMSCHANNEL_RESOLVER_OPTIONS="--state-file $work/state"
init() {
    sh "$init_script" "$@"
}

case "$case_name" in
StartFailsWhenThePortIsTaken)
    "$work/resolver" --state-file "$work/other.state" 2>/dev/null &
    helpers=$!
    for attempt in 1 2 3 4 5 6 7 8 9 10; do
        "$work/resolver" --list >/dev/null 2>&1 && break
    done
    "$work/resolver" --list >/dev/null 2>&1 || fail "the first resolver did not start"
    init start 2>"$work/err" && fail "start succeeded although the port was taken"
    grep -q "did not start" "$work/err" || fail "start said: $(cat "$work/err")"
    [ -f "$work/pid" ] && fail "start left a pid file behind"
    ;;
StopKillsAProcessIgnoringSigtermAfterTheGracePeriod)
    # A stand-in whose SIGTERM is ignored: the disposition survives exec.
    sh -c 'trap "" TERM; exec sleep 60' &
    stubborn=$!
    helpers=$stubborn
    echo "$stubborn" >"$work/pid"
    sleep 0.2
    before=$(date +%s)
    COMMSCHANNEL_STOP_GRACE=1 init stop 2>"$work/err" || fail "stop failed"
    after=$(date +%s)
    wait "$stubborn"
    status=$?
    [ "$status" -eq 137 ] || fail "the process ended with status $status, not by SIGKILL"
    [ $((after - before)) -ge 1 ] || fail "SIGKILL came before the grace period ended"
    grep -q "killing it" "$work/err" || fail "stop said: $(cat "$work/err")"
    [ -f "$work/pid" ] && fail "stop left the pid file behind"
    ;;
ForceReloadRestartsTheResolver)
    init start || fail "start failed"
    first=$(cat "$work/pid")
    init force-reload || fail "force-reload failed"
    second=$(cat "$work/pid")
    [ "$first" != "$second" ] || fail "force-reload did not restart the resolver"
    init status >/dev/null || fail "the resolver does not answer after force-reload"
    init stop || fail "stop failed"
    ;;
*)
    fail "unknown case $case_name"
    ;;
esac
echo "PASS: $case_name"
