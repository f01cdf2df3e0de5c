#!/usr/bin/env bash
# Tries the Debian packages that scripts/package.sh built: installs those of amd64 and armhf side by side into a new
# minimal Debian 12 without libnl's headers, builds README.md's first program there for either, with CMake and with
# pkg-config, and runs it: on this machine's kernel, in a network namespace, and on Debian's ARM kernel.
#
#     scripts/check-packages.sh FOLDER
#
# It installs the Debian packages that are missing. Needs root.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

folder=${1:?the folder of the packages}
root=$scratch/root
sysroot=$project/build/sysroot/armhf
expected='name index           lo'

# The program with CMake and with pkg-config, and the packaged examples; runs in the root. $1: the prefix of the tools, empty for amd64.
build_programs() {
    cmake -S /program -B "/program/${1}cmake" -DCMAKE_CXX_COMPILER="${1}g++"
    cmake --build "/program/${1}cmake"
    cmake -S /usr/share/doc/libnetlink-route-dev/examples -B "/program/${1}examples" -DCMAKE_CXX_COMPILER="${1}g++"
    cmake --build "/program/${1}examples"
    # shellcheck disable=SC2046
    "${1}g++" -std=c++17 /program/first.cpp -o "/program/${1}first" $("${1}pkg-config" --cflags --libs netlink_route)
}

shows_loopback() {
    local count
    count=$(grep -acF "$expected" "$1")
    echo "$2: $count of 2 programs show the link lo"
    [[ $count -eq 2 ]]
}

# The programs are all that runs there, beside busybox. The console takes what they print.
run_on_arm() {
    local machine=$scratch/arm library kernel libraries=lib/arm-linux-gnueabihf
    mkdir -p "$machine"/{bin,proc,program,$libraries}
    cp "$root/program/arm-linux-gnueabihf-first" "$machine/program/first"
    cp "$root/program/arm-linux-gnueabihf-cmake/first" "$machine/program/cmake-first"
    cp "$sysroot/bin/busybox" "$machine/bin"
    cp "$root/lib/ld-linux-armhf.so.3" "$machine/lib"
    for library in c m gcc_s stdc++ nl-3 nl-route-3 netlink_route netlink_route_trace; do
        cp -L "$root/usr/$libraries/lib$library".so.? "$root/usr/$libraries/lib$library".so.??? \
            "$machine/$libraries" 2>/dev/null || true
    done
    printf '%s\n' '#!/bin/busybox sh' '/bin/busybox mount -t proc proc /proc' /program/first \
        /program/cmake-first '/bin/busybox poweroff -f' >"$machine/init"
    chmod +x "$machine/init"
    (cd "$machine" && find . | cpio --quiet --create --format=newc --owner=0:0) >"$scratch/initramfs"
    kernel=("$sysroot"/boot/vmlinuz-*)
    timeout --foreground --kill-after=5 120 qemu-system-arm -M virt -cpu cortex-a15 -m 512 -display none -monitor none \
        -no-reboot -nic none -kernel "${kernel[0]}" -initrd "$scratch/initramfs" \
        -append "console=ttyAMA0 panic=-1 quiet" -serial "file:$scratch/console" </dev/null || true
    shows_loopback "$scratch/console" "armhf" || { tail -n 30 "$scratch/console" && return 1; }
}

require_root
install_missing mmdebstrap qemu-system-arm cpio
"$project/scripts/sysroot.sh" armhf >&2
say "installing the packages into a new root"
# shellcheck disable=SC2016 # $1 is the root, in the hooks
make_root "$root" bookworm --architectures=amd64,armhf --dpkgopt='path-exclude=/usr/include/libnl3/*' \
    --include=g++,g++-arm-linux-gnueabihf,make,cmake,pkg-config,pkg-config:armhf \
    --customize-hook="mkdir \"\$1/packages\" && cp '$folder'/*.deb \"\$1/packages\"" \
    --customize-hook='chroot "$1" sh -c "apt-get install --yes /packages/*.deb"'
[[ ! -e $root/usr/include/libnl3/netlink ]] || die "the root has libnl's headers"

mkdir "$root/program"
awk '/^```cpp/ { inside = 1; next } /^```/ && inside { exit } inside' "$project/README.md" >"$root/program/first.cpp"
printf '%s\n' 'cmake_minimum_required(VERSION 3.16)' 'project(first CXX)' 'find_package(netlink_route REQUIRED)' \
    'add_executable(first first.cpp)' 'target_link_libraries(first PRIVATE netlink_route::netlink_route)' \
    >"$root/program/CMakeLists.txt"
for prefix in "" arm-linux-gnueabihf-; do
    quietly "building the programs" in_root "$root" / \
        bash -euc "$(declare -f build_programs); build_programs '$prefix'"
done
for program in /program/first /program/cmake/first; do
    in_root "$root" / "$program"
done >"$scratch/output"
shows_loopback "$scratch/output" "amd64"
run_on_arm
