#!/bin/sh
# Measures in the virtual machine what one CacheManager costs. It fails if the event thread is not idle.
set -eu

# 10 links, 10 addresses and 20 routes: lo has an address with 3 routes, every other address has 1.
prepare_links() {
    number=0
    echo 1 >/proc/sys/net/ipv6/conf/all/disable_ipv6
    for link in eth0 dummy0 dummy1 dummy2 dummy3 dummy4 dummy5 dummy6 dummy7; do
        number=$((number + 1))
        [ -e "/sys/class/net/$link" ] || ip link add "$link" type dummy
        ip link set "$link" up
        ip address add "10.0.$number.1/32" dev "$link"
        [ "$link" = eth0 ] || ip route add "10.1.$number.0/24" dev "$link"
    done
}

# In KiB. Private_Dirty itself would count the mapped pages of files, too: in a root file system that lies in
# memory, none is clean.
dirty_memory() { awk '/^Anonymous:/ { print $2 }' "/proc/$process/smaps_rollup"; }

# The processor time of all threads but the first. It fails if there is no such thread.
ticks_of_threads() {
    files=""
    for task in "/proc/$process/task"/*; do
        [ "${task##*/}" = "$process" ] || files="$files $task/stat"
    done
    # shellcheck disable=SC2086
    awk '{ sum += $14 + $15 } END { print sum }' ${files:-/no/event/thread}
}

prepare_links
kernel="$(ip -oneline link | wc -l) links, $(ip -oneline address | wc -l) addresses"
kernel="$kernel, $(ip -oneline route show table all | wc -l) routes"
echo "The kernel has $kernel."
[ "$kernel" = "10 links, 10 addresses, 20 routes" ]

mkfifo /tmp/in /tmp/out
"$1"/bench/netlink_route_footprint </tmp/in >/tmp/out &
process=$!
exec 3>/tmp/in 4</tmp/out
read -r _ <&4 # started
before=$(dirty_memory)
echo >&3
read -r _ <&4 # running
sleep 2
echo "Private dirty memory of a process with one CacheManager: $(dirty_memory) KiB," \
    "of which $before KiB before it constructs the manager"

ticks=$(ticks_of_threads)
sleep 10
ticks=$(($(ticks_of_threads) - ticks))
echo "Processor time of the event thread in 10 s without an event: $ticks ticks of 10 ms"
echo >&3
wait "$process"
[ "$ticks" -eq 0 ]
