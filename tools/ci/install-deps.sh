#!/bin/sh
# Installs what building and testing CommsChannel needs on a fresh Debian 12
# machine. Safe to run again: packages already present are left alone.
set -eu
# tshark runs the Wireshark dissector's tests (a host program, also for the
# MIPS run: it only reads capture files).
packages="cmake g++ make googletest iproute2 util-linux pkg-config tshark"
if [ "${COMMSCHANNEL_SKIP_MIPS:-0}" != "1" ]; then
    packages="$packages g++-mips-linux-gnu qemu-user"
fi
missing=""
for p in $packages; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
export DEBIAN_FRONTEND=noninteractive
if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: need root to install:$missing" >&2
    exit 1
fi
apt-get install -y $missing || { apt-get update && apt-get install -y $missing; }
