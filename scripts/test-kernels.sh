#!/usr/bin/env bash
# Runs all tests with several releases of Debian, each with all of its own: compiler, C library, libnl, iproute2, and in
# a virtual machine the kernel; and on 32-bit ARM.
#
#     scripts/test-kernels.sh [WHAT...]    of: bullseye bookworm trixie sid armhf; without a name, all of them
#
# It installs the Debian packages that are missing, and makes a folder for each release in build/roots at its first run;
# delete it for newer packages. Needs root.
#
# It ends with a line for each and one with the totals, and succeeds if nothing failed. What cannot be had or built is a
# failure, too, and so is a skipped test, and a run that crashes, reaches its time limit, or ends no test.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source-path=SCRIPTDIR source=machine.sh
source "$project/scripts/machine.sh"
# shellcheck source-path=SCRIPTDIR source=results.sh
source "$project/scripts/results.sh"

# get_release RELEASE: the root, and in it the tests.
get_release() {
    local root=$project/build/roots/$1 packages=("${build_packages[@]}" "$kernel_package" busybox-static iproute2 kmod)
    # The machine needs no initrd, whose making takes long.
    make_root "$root" "$1" --include="${packages[*]}" --dpkgopt='path-exclude=/etc/kernel/*'
    mkdir -p "$root$project"
    git ls-files -z --cached | tar --null --files-from=- --create | tar --extract --directory="$root$project"
    # An old CMake knows GoogleTest by the file that comes with it alone.
    quietly "configuring with $1" in_root "$root" "$project" cmake -S . -B build/release -G Ninja \
        -DNETLINK_ROUTE_TESTS=ON -DCMAKE_FIND_PACKAGE_PREFER_CONFIG=ON
    quietly "building with $1" in_root "$root" "$project" cmake --build build/release --target netlink_route_tests
}

get_armhf() {
    install_missing "${machine_packages[@]}"
    "$project/scripts/sysroot.sh" armhf >&2
    build armhf netlink_route_tests
}

# try WHAT
try() {
    local system="" preset=release get=(get_release "$1") libnl
    choose_machine "$own_architecture"
    if [[ $1 == armhf ]]; then
        choose_machine armhf
        preset=armhf get=(get_armhf)
    else
        system=$project/build/roots/$1
    fi
    set +e # no "||" after it: it would switch off "set -e" in it
    (
        set -e
        say "building with $1"
        "${get[@]}"
    )
    status=$?
    set -e
    if [[ $status -ne 0 ]]; then
        add "$1" 0 1 0 " (could not be had or built)"
        return
    fi
    prepare_machine "$preset" "$system"
    libnl=$(sed -n 's/^Version: //p' "${system:-$sysroot}/usr/lib/$triplet/pkgconfig/libnl-3.0.pc")
    tests=build/$preset/tests/netlink_route_tests
    run_tests "$1, Linux $kernel_version, libnl $libnl" failures run_in_machine 600 env NETLINK_ROUTE_TEST_NIC=eth0
}

all=(bullseye bookworm trixie sid armhf)
[[ $# -gt 0 ]] || set -- "${all[@]}"
for what in "$@"; do
    [[ " ${all[*]} " == *" $what "* ]] || usage
done
require_root
choose_machine "$own_architecture"
cd "$project"
install_missing "${machine_packages[@]}" mmdebstrap git
for what in "$@"; do
    try "$what"
done
finish
