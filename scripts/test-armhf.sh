#!/usr/bin/env bash
# Runs all tests and the example programs on 32-bit ARM: cross-built, on Debian's armhf kernel, in a virtual
# machine.
#
#     scripts/test-armhf.sh [ARGUMENT...]    the arguments go to the test program, as --gtest_filter='Vlan*'
#     scripts/test-armhf.sh --footprint      measures instead what one CacheManager costs there: memory,
#                                            processor time and the size of the library
#
# It installs the Debian packages that are missing, downloads armhf packages (scripts/armhf-sysroot.sh) and
# builds build/armhf. The virtual machine has no disk, and a network card that leads nowhere.
#
# It ends with a line about the ARM kernel and one with the totals, and succeeds if nothing failed. A failure,
# too, is a skipped test, a run without tests, and a run that ends by a crash or at its time limit.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

PATH+=:/usr/sbin:/sbin # of depmod and modprobe, for users other than root
packages=(cmake ninja-build pkg-config g++-arm-linux-gnueabihf qemu-system-arm cpio kmod)
modules=(virtio_mmio virtio_console virtio_net 8021q dummy veth bridge macvlan)
seconds=600       # at most, for the virtual machine
size_limit=102400 # bytes of the stripped library

sysroot=$project/build/armhf-sysroot
build=$project/build/armhf
root=$scratch/root       # of the virtual machine
console=$scratch/console # what its kernel says
results=$scratch/results # what its programs say; a line "@@ STEP STATUS" ends each step
passed=0 failed=0 skipped=0

# ---- What runs in the virtual machine: functions for dash (the shell of busybox would run its own ip) ----

# guest JOB BUILD ARGUMENT...: the first process. The kernel stops when it ends.
guest() {
    local job=$1 module
    shift
    export PATH=/bin HOME=/root
    /bin/busybox --install -s /bin 2>/dev/null # all but what is there already: sh and ip
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
        insmod "/lib/modules/$module" || give_up "cannot load $module"
    done </lib/modules/order
    wait_for /dev/vport0p1
    wait_for /sys/class/net/eth0
    ip link set lo up
    "$job" "$@" >/dev/vport0p1 2>&1 </dev/null
    poweroff -f
}

give_up() {
    echo "init: $*" # goes to the kernel's console
    poweroff -f
}

wait_for() {
    local attempts=100
    while [ ! -e "$1" ]; do
        attempts=$((attempts - 1))
        [ "$attempts" -gt 0 ] || give_up "there is no $1"
        sleep 0.1
    done
}

# step NAME COMMAND...
step() {
    local name=$1 status=0
    shift
    "$@" || status=$?
    printf '\n@@ %s %s\n' "$name" "$status"
}

guest_tests() {
    local build=$1
    shift
    step tests env NETLINK_ROUTE_TEST_NIC=eth0 "$build/tests/netlink_route_tests" "$@"
    step configure "$build/examples/configure" --yes dummy0 10.0.0.1/24 10.0.0.2
    step show "$build/examples/show"
    step ip-agrees sh -c "ip -oneline address show dev dummy0 | grep -F 'inet 10.0.0.1/24'"
}

guest_footprint() {
    local build=$1 kernel process before ticks
    prepare_links
    kernel="$(ip -oneline link | wc -l) links, $(ip -oneline address | wc -l) addresses"
    kernel="$kernel, $(ip -oneline route show table all | wc -l) routes"
    echo "The kernel has $kernel."
    step kernel [ "$kernel" = "10 links, 10 addresses, 20 routes" ]

    mkfifo /tmp/in /tmp/out
    "$build/bench/netlink_route_footprint" </tmp/in >/tmp/out &
    process=$!
    exec 3>/tmp/in 4</tmp/out
    read -r _ <&4 # started
    before=$(dirty_memory "$process")
    echo >&3
    read -r _ <&4 # running
    sleep 2
    echo "Private dirty memory of a process with one CacheManager: $(dirty_memory "$process") KiB," \
        "of which $before KiB before it constructs the manager"

    ticks=$(ticks_of_threads "$process")
    sleep 10
    ticks=$(($(ticks_of_threads "$process") - ticks))
    echo "Processor time of the event thread in 10 s without an event: $ticks ticks of 10 ms"
    step idle [ "$ticks" -eq 0 ]
    echo >&3
    step footprint wait "$process"
}

# 10 links, 10 addresses and 20 routes: lo has an address with 3 routes, every other address has 1.
prepare_links() {
    local number=0 link
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
dirty_memory() { awk '/^Anonymous:/ { print $2 }' "/proc/$1/smaps_rollup"; }

# The processor time of all threads of a process but the first. It fails if there is no such thread.
ticks_of_threads() {
    local task files=""
    for task in "/proc/$1/task"/*; do
        [ "${task##*/}" = "$1" ] || files="$files $task/stat"
    done
    # shellcheck disable=SC2086
    awk '{ sum += $14 + $15 } END { print sum }' ${files:-/no/event/thread}
}

# ---- The virtual machine ----

# The files of the kernel's modules, in the order in which they are to be loaded.
list_modules() {
    depmod --basedir "$sysroot" "$version" &&
        modprobe --config /dev/null --dirname "$sysroot" --set-version "$version" --show-depends --all \
            "${modules[@]}" | sed -n 's/^insmod \([^ ]*\).*/\1/p' | awk '!seen[$0]++'
}

copy_system() {
    local libraries=lib/arm-linux-gnueabihf module
    mkdir -p "$root"/{bin,dev,etc,lib/modules,proc,root,run,sys,tmp,var} "$root/$libraries"
    ln -s /run "$root/var/run"
    cp -a "$sysroot/$libraries"/*.so* "$root/$libraries"
    cp -a "$sysroot/lib/ld-linux-armhf.so.3" "$root/lib"
    cp -a "$sysroot/etc/iproute2" "$root/etc"
    cp -a "$sysroot"/bin/{dash,busybox,ip} "$root/bin"
    ln -s dash "$root/bin/sh"
    list_modules >"$scratch/modules"
    while read -r module; do
        cp "$module" "$root/lib/modules"
        echo "${module##*/}" >>"$root/lib/modules/order"
    done <"$scratch/modules"
}

# The programs and libraries lie where they were built, so that the paths compiled into them hold.
copy_build() {
    local file
    cd "$build"
    find bench components examples tests -name CMakeFiles -prune -o \
        '(' -type f -executable -o -name '*.so*' ')' -print >"$scratch/files"
    while read -r file; do
        mkdir -p "$root$build/${file%/*}"
        if [[ -L $file ]]; then
            cp -a "$file" "$root$build/$file"
        else
            arm-linux-gnueabihf-strip -o "$root$build/$file" "$file"
        fi
    done <"$scratch/files"
    cd "$project"
}

write_init() {
    {
        echo '#!/bin/dash'
        declare -f guest give_up wait_for step guest_tests \
            guest_footprint prepare_links dirty_memory ticks_of_threads
        printf '%q ' guest "$@"
    } >"$root/init"
    chmod +x "$root/init"
}

# boot JOB ARGUMENT...: shows what the job's programs say, and the kernel's last messages if the machine did
# not get through.
boot() {
    local status=0
    say "booting Debian's kernel $version for armhf"
    copy_system
    copy_build
    write_init "$1" "$build" "${@:2}"
    (cd "$root" && find . | cpio --quiet --create --format=newc --owner=0:0) >"$scratch/initramfs"
    : >"$console"
    {
        timeout --foreground --kill-after=5 "$seconds" \
            qemu-system-arm -M virt -cpu cortex-a15 -smp 2 -m 1024 -display none -monitor none -no-reboot \
            -kernel "$sysroot/boot/vmlinuz-$version" -initrd "$scratch/initramfs" \
            -append "console=ttyAMA0 panic=-1" -serial "file:$console" \
            -netdev hubport,id=nowhere,hubid=0 -device virtio-net-device,netdev=nowhere \
            -device virtio-serial-device -chardev file,id=results,path=/dev/fd/3 \
            -device virtserialport,chardev=results 3>&1 >>"$console" 2>&1 </dev/null
    } | tee "$results" | sed -u '/^@@ /d' || status=$?
    if [[ $status -ne 0 ]] || grep -aq '^init: ' "$console" || ! grep -aq '^@@ ' "$results"; then
        tail -n 40 "$console" >&2
        say "the virtual machine did not get through (status $status; 124 is the limit of $seconds s);" \
            "its kernel's last messages are above"
    fi
}

# ---- The results ----

# A step without a line did not end, or did not even begin: a failure.
count_step() {
    if grep -aqx "@@ $1 0" "$results"; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        say "failed: $1 ($(grep -a "^@@ $1 " "$results" || echo "it did not end"))"
    fi
}

# Counts GoogleTest's lines of that kind.
lines() { grep -acE "\[ *$1 *\] .*$2\$" "$results" || true; }

count_tests() {
    local begun remark="" time=' \([0-9]+ ms\)'
    begun=$(lines RUN "") passed=$(lines OK "$time")
    failed=$(lines FAILED "$time") skipped=$(lines SKIPPED "$time")
    if [[ $((passed + failed + skipped)) -lt $begun ]]; then
        failed=$((begun - passed - skipped))
        remark+=" (one failure is a test that did not end)"
    elif [[ $begun -eq 0 ]]; then
        failed=1
        remark+=" (no test ran)"
    elif [[ $failed -eq 0 ]] && ! grep -aqx "@@ tests 0" "$results"; then
        failed=1
        remark+=" (the failure is how the program ended)"
    fi
    if [[ $skipped -gt 0 ]]; then
        failed=$((failed + skipped))
        remark+=" (nothing may be skipped here: $skipped of the failures)"
        skipped=0
    fi
    summary="tests on the armhf kernel $version: $passed passed, $failed failed, $skipped skipped$remark"
}

check_size() {
    local size
    arm-linux-gnueabihf-strip -o "$scratch/library" "$build/components/netlink/libnetlink_route.so"
    size=$(stat --format=%s "$scratch/library")
    echo "Size of the stripped libnetlink_route.so: $size bytes"
    echo "@@ size $((size > size_limit))" >>"$results"
}

install_missing "${packages[@]}"
"$project/scripts/armhf-sysroot.sh" "$sysroot" >&2
kernels=("$sysroot"/boot/vmlinuz-*)
version=${kernels[0]#*/vmlinuz-}

if [[ $* == --footprint ]]; then
    build armhf netlink_route_footprint
    boot guest_footprint
    check_size
    steps=(kernel idle footprint size)
    summary="costs on the armhf kernel $version: see above"
else
    build armhf netlink_route_tests configure show
    boot guest_tests "$@" --gtest_brief=0 --gtest_color=no # these keep the output countable
    count_tests
    steps=(configure show ip-agrees)
fi
for step in "${steps[@]}"; do
    count_step "$step"
done
echo
echo "$summary"
echo "$passed passed, $failed failed, $skipped skipped"
[[ $failed -eq 0 ]]
