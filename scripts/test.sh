#!/usr/bin/env bash
# Runs all tests twice: on this machine's kernel, and on a user-mode kernel that has what this one may lack.
#
#     scripts/test.sh [ARGUMENT...]
#
# The arguments go to the test program, for example --gtest_filter='Vlan*'. It installs the Debian packages that
# are missing, which needs root, and builds build/release. It changes no link of this machine.
#
# It ends with a line for each kernel and one with the totals, and succeeds if nothing failed. A test skipped on
# the user-mode kernel is a failure, too, and so is a run that crashes, reaches its time limit, or ends no test.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source-path=SCRIPTDIR source=uml.sh
source "$project/scripts/uml.sh"
# shellcheck source-path=SCRIPTDIR source=results.sh
source "$project/scripts/results.sh"

tests=build/release/tests/netlink_route_tests
test_arguments=("$@")
seconds=600 # at most, for each kernel

install_missing "${build_packages[@]}" "${kernel_packages[@]}"
require_namespaces
build release netlink_route_tests
run_tests "machine's kernel" allowed confined "$seconds" env --unset=NETLINK_ROUTE_TEST_NIC
run_tests "user-mode kernel" failures run_in_uml "$seconds" env NETLINK_ROUTE_TEST_NIC=vec0
finish
