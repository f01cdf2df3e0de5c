#!/usr/bin/env bash
# Tries the Debian packages that scripts/package.sh built: installs those of amd64 and armhf side by side into a new
# minimal Debian 12 without libnl's headers, builds README.md's first program there for either (debian/tests), with
# CMake and with pkg-config, and runs it: on this machine's kernel, by autopkgtest, and on Debian's ARM kernel.
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
    cp "$root/program/first" "$machine/program/first"
    cp "$root/program/cmake/first" "$machine/program/cmake-first"
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
install_missing mmdebstrap qemu-system-arm cpio autopkgtest
"$project/scripts/sysroot.sh" armhf >&2
say "installing the packages into a new root"
# shellcheck disable=SC2016 # $1 is the root, in the hooks
make_root "$root" bookworm --architectures=amd64,armhf --dpkgopt='path-exclude=/usr/include/libnl3/*' \
    --include=dpkg-dev,iproute2,g++,g++-arm-linux-gnueabihf,make,cmake,pkgconf,pkgconf:armhf \
    --customize-hook="mkdir \"\$1/packages\" && cp '$folder'/lib*.deb '$folder'/*tools_*_amd64.deb \"\$1/packages\"" \
    --customize-hook='chroot "$1" sh -c "apt-get install --yes /packages/*.deb"'
[[ ! -e $root/usr/include/libnl3/netlink ]] || die "the root has libnl's headers"

say "running debian/tests"
mkdir "$scratch/source"
tar --extract --directory="$scratch/source" --strip-components=1 --file="$(echo "$folder"/*.tar.xz)"
quietly "autopkgtest" autopkgtest --no-built-binaries --summary-file="$scratch/summary" "$scratch/source/" -- \
    chroot "$root"
cat "$scratch/summary"
say "building the programs for armhf"
mkdir "$root/program"
cp "$project/debian/tests/first-program" "$root"
quietly "building the programs" in_root "$root" / env AUTOPKGTEST_TMP=/program \
    DEB_HOST_GNU_TYPE=arm-linux-gnueabihf /first-program --build
run_on_arm
