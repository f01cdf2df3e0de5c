#!/usr/bin/env bash
# Runs all tests and the example programs on 32-bit ARM: cross-built, in a virtual machine with Debian's armhf kernel.
#
#     scripts/test-armhf.sh [--arm64] [ARGUMENT...]    the arguments go to the test program, as --gtest_filter='Vlan*'
#     scripts/test-armhf.sh [--arm64] --footprint      measures instead what one CacheManager costs there: memory,
#                                                      processor time and the size of the library
#
# With --arm64, all of this on 64-bit ARM. It installs the Debian packages that are missing, which needs root, downloads
# packages of that architecture (scripts/sysroot.sh) and builds build/armhf or build/arm64.
#
# It ends with a line for the tests, the examples or the measurements, and one with the totals, and succeeds if nothing
# failed. A failure, too, is a skipped test, a run without tests, and one that crashes or reaches its time limit.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source-path=SCRIPTDIR source=machine.sh
source "$project/scripts/machine.sh"
# shellcheck source-path=SCRIPTDIR source=results.sh
source "$project/scripts/results.sh"

size_limit=102400 # bytes of the stripped library

check_size() {
    local size
    size=$(stat --dereference --format=%s "$machine$project/$build/components/netlink/libnetlink_route.so")
    echo "Size of the stripped libnetlink_route.so: $size bytes"
    [[ $size -le $size_limit ]]
}

# prepare TARGET...
prepare() {
    install_missing "${machine_packages[@]}" cmake ninja-build pkg-config
    "$project/scripts/sysroot.sh" "$architecture" >&2
    build "$architecture" "$@"
    prepare_machine "$architecture"
}

if [[ ${1:-} == --arm64 ]]; then
    shift
    choose_machine arm64
else
    choose_machine armhf
fi
build=build/$architecture
if [[ $* == --footprint ]]; then
    prepare netlink_route_footprint
    run_check "memory and processor time" run_in_machine 120 scripts/machine/footprint.sh "$build"
    run_check "size" check_size
else
    prepare netlink_route_tests configure show
    tests=$build/tests/netlink_route_tests
    test_arguments=("$@")
    run_tests "$architecture, Linux $kernel_version" failures run_in_machine 600 env NETLINK_ROUTE_TEST_NIC=eth0
    run_check "examples" run_in_machine 120 scripts/machine/examples.sh "$build"
fi
finish
