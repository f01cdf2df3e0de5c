#!/bin/bash
# The first process on the user-mode kernel (scripts/uml.sh): prepares the system, runs the command, switches off.
#
#     init.sh SHARED PROJECT COMMAND...    SHARED: a folder of the machine, to which the exit status goes
#
# It stops with a kernel panic, and thus without a status, if it cannot prepare the system.
set -euo pipefail
shared=$1 project=$2 status=0
shift 2
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
mount -t proc proc /proc
mount -t sysfs sysfs /sys
# The root is read-only, and a program needs places to write to. Each tmpfs hides what the machine has there, the
# project perhaps, so that is held fast before and put back after.
mount --bind "$project" /mnt
mkdir /dev/shm
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /run
mount -t tmpfs tmpfs /tmp
mkdir -p "$project" "$shared"
mount --move /mnt "$project"
mount -t hostfs -o "$shared" hostfs "$shared" # writable
ln -s /proc/self/fd /dev/fd

modprobe -d "$shared" -a ipv6 8021q dummy veth macvlan bridge bonding
ip link set lo up

stty -F /dev/tty1 raw
cd "$project"
"$@" >/dev/tty1 2>&1 </dev/null || status=$?
stty -F /dev/tty1 raw # waits until everything is written
echo "$status" >"$shared/status"
umount "$shared"
echo o >/proc/sysrq-trigger # power off
sleep 60
