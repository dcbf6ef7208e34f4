#!/bin/sh
# Runs a command in network and mount namespaces of its own: loopback up, so
# that the fixed resolver port 5000 is private to this command, and a private
# tmpfs on /logs, so that diagnostics dumps never reach the host's files,
# and on /dev/shm, so that the counter files of processes killed in tests
# stay out of the host's.
# The namespaces made are recorded in COMMSCHANNEL_TEST_NETNS and
# COMMSCHANNEL_TEST_MNTNS; test programs refuse to run without them
# (NamespaceGuard.h).
# Usage: isolate.sh COMMAND [ARGS...]
set -e
if [ "$(id -u)" -eq 0 ]; then
    flags="--net --mount"
else
    flags="--map-root-user --net --mount"
fi
# shellcheck disable=SC2016
exec unshare $flags -- /bin/sh -c '
    set -e
    ip link set lo up
    mount --make-rprivate /
    [ -d /logs ] || mkdir -p /logs
    mount -t tmpfs -o mode=0777 tmpfs /logs
    [ -d /dev/shm ] && mount -t tmpfs -o mode=1777 tmpfs /dev/shm
    COMMSCHANNEL_TEST_NETNS=$(readlink /proc/self/ns/net)
    COMMSCHANNEL_TEST_MNTNS=$(readlink /proc/self/ns/mnt)
    export COMMSCHANNEL_TEST_NETNS COMMSCHANNEL_TEST_MNTNS
    exec "$@"' isolate "$@"
