#!/usr/bin/env bash
# Runs all tests twice: in a virtual machine with Debian's kernel, and on this machine's own kernel, which may lack some
# of what they need, if this user may make network namespaces. Without arguments the model is run before, once.
#
#     scripts/test.sh [ARGUMENT...]
#
# The arguments go to the test program, for example --gtest_filter='Vlan*'. It installs the Debian packages that
# are missing, which needs root, gets Debian's kernel, and builds build/release. It changes no link of this machine.
#
# It ends with a line for the model, one for each kernel and one with the totals, and succeeds if nothing failed. A test
# skipped in the virtual machine is a failure, too, and so is a run that crashes, reaches its time limit, or ends no test.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source-path=SCRIPTDIR source=machine.sh
source "$project/scripts/machine.sh"
# shellcheck source-path=SCRIPTDIR source=results.sh
source "$project/scripts/results.sh"

test_arguments=("$@")
seconds=600 # at most, for each kernel

choose_machine "$own_architecture"
install_missing "${build_packages[@]}" "${machine_packages[@]}"
build release netlink_route_tests netlink_route_model
if [[ $# -eq 0 ]]; then
    tests=build/release/tests/netlink_route_model run_tests "model" failures env
fi
prepare_machine release
run_tests "virtual machine, Linux $kernel_version" failures run_in_machine "$seconds" env NETLINK_ROUTE_TEST_NIC=eth0
if have_namespaces; then
    run_tests "machine's kernel" allowed confined "$seconds" env --unset=NETLINK_ROUTE_TEST_NIC
else
    summary+=("machine's kernel: not tested, since this user may not make network namespaces here")
fi
finish
