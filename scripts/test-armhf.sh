#!/usr/bin/env bash
# Runs all tests and the example programs on 32-bit ARM: cross-built, on Debian's armhf kernel, in a virtual
# machine.
#
#     scripts/test-armhf.sh [ARGUMENT...]    the arguments go to the test program, as --gtest_filter='Vlan*'
#     scripts/test-armhf.sh --footprint      measures instead what one CacheManager costs there: memory,
#                                            processor time and the size of the library
#
# It installs the Debian packages that are missing, which needs root, downloads armhf packages
# (scripts/armhf-sysroot.sh) and builds build/armhf.
#
# It ends with a line for the tests, the examples or the measurements, and one with the totals, and succeeds if nothing
# failed. A failure, too, is a skipped test, a run without tests, and one that crashes or reaches its time limit.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source-path=SCRIPTDIR source=armhf/machine.sh
source "$project/scripts/armhf/machine.sh"
# shellcheck source-path=SCRIPTDIR source=results.sh
source "$project/scripts/results.sh"

size_limit=102400 # bytes of the stripped library

check_size() {
    local size
    size=$(stat --dereference --format=%s "$root$project/build/armhf/components/netlink/libnetlink_route.so")
    echo "Size of the stripped libnetlink_route.so: $size bytes"
    [[ $size -le $size_limit ]]
}

if [[ $* == --footprint ]]; then
    prepare_arm netlink_route_footprint
    run_check "memory and processor time" run_on_arm 120 scripts/armhf/footprint.sh
    run_check "size" check_size
else
    prepare_arm netlink_route_tests configure show
    tests=build/armhf/tests/netlink_route_tests
    test_arguments=("$@")
    run_tests "armhf kernel $kernel_version" failures run_on_arm 600 env NETLINK_ROUTE_TEST_NIC=eth0
    run_check "examples" run_on_arm 120 scripts/armhf/examples.sh
fi
finish
