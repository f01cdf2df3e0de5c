#!/bin/sh
# The first process in the virtual machine (scripts/machine.sh): prepares the system, runs the command, switches off. It
# runs in dash, since the shell of busybox would run its own ip.
#
#     init.sh FOLDER COMMAND...    FOLDER: where the command starts
#
# It switches off without an exit status if it cannot prepare the system, and says why on the console.
set -eu
trap poweroff EXIT

poweroff() { /bin/busybox poweroff -f; }

# Its devices appear a moment after their modules.
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
/bin/busybox --install -s /bin 2>/dev/null || true # all but what is there already: sh, insmod and iproute2
mount -t devtmpfs devtmpfs /dev
exec >/dev/console 2>&1
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mkdir /dev/pts /dev/shm
mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /run
ln -s /proc/self/fd /dev/fd
chmod 1777 /tmp
while read -r module; do
    insmod "/modules/$module" numdummies=0 max_bonds=0 # of dummy and bonding: no links that nobody asked for
done </modules/order
wait_for /sys/class/net/eth0
wait_for /dev/vport0p2
ip link set lo up

echo started >/dev/vport0p2
status=0
cd "$folder"
"$@" >/dev/vport0p1 2>&1 </dev/null || status=$?
echo "$status" >/dev/vport0p2
