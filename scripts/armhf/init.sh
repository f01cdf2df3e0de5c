#!/bin/sh
# The first process on the virtual ARM machine (scripts/armhf/machine.sh): prepares the system, runs the command,
# switches off. It runs in dash, since the shell of busybox would run its own ip.
#
#     init.sh FOLDER COMMAND...    FOLDER: where the command starts
#
# It switches off without an exit status if it cannot prepare the system, and says why on the console.
set -eu
trap poweroff EXIT

poweroff() { /bin/busybox poweroff -f; }

wait_for() {
    attempts=100
    until [ -e "$1" ]; do
        attempts=$((attempts - 1))
        [ "$attempts" -gt 0 ] || { echo "init: there is no $1" && exit 1; }
        sleep 0.1
    done
}

folder=$1
shift
export PATH=/bin HOME=/root
/bin/busybox --install -s /bin 2>/dev/null || true # all but what is there already: sh and iproute2
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir /dev/pts /dev/shm
mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /run
ln -s /proc/self/fd /dev/fd
chmod 1777 /tmp
while read -r module; do
    insmod "/lib/modules/$module"
done </lib/modules/order
wait_for /dev/vport0p2
wait_for /sys/class/net/eth0
ip link set lo up

status=0
cd "$folder"
"$@" >/dev/vport0p1 2>&1 </dev/null || status=$?
echo "$status" >/dev/vport0p2
