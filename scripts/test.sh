#!/usr/bin/env bash
# Runs all tests twice: on this machine's kernel, and on a user-mode kernel that has what this one may lack.
#
#     scripts/test.sh [ARGUMENT...]
#
# The arguments go to the test program, for example --gtest_filter='Vlan*'. It installs the Debian packages that
# are missing and builds build/release. It changes no link of this machine. Needs root, as the tests do.
#
# It ends with a line for each kernel and one with the totals, and succeeds if nothing failed. A test skipped on
# the user-mode kernel is a failure, too, and so is a run that crashes, reaches its time limit, or ends no test.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

tests=build/release/tests/netlink_route_tests
seconds=600 # at most, for each kernel
arguments=("$@")
summary=()
total_passed=0 total_failed=0 total_skipped=0

# Counts GoogleTest's lines with that result; each ends with the time that its test took.
count() { grep -cE "\[ +$1 +\] .* \([0-9]+ ms\)$" "$scratch/output" || true; }

# run_tests KERNEL SKIPS RUNNER...: runs the tests through the runner and adds a line to the summary. Skips are
# "allowed" or "failures".
run_tests() {
    local kernel=$1 skips=$2 status=0 passed failed skipped remark=""
    shift 2
    say "testing on the $kernel"
    # The last two arguments keep the output countable, whatever the caller's arguments are.
    "$@" "$tests" "${arguments[@]}" --gtest_brief=0 --gtest_color=no </dev/null 2>&1 |
        tee "$scratch/output" || status=$?
    passed=$(count OK) failed=$(count FAILED) skipped=$(count SKIPPED)

    if [[ $((passed + failed + skipped)) -eq 0 ]]; then
        failed=1 remark+=" (no test ended: status $status)"
    elif [[ $status -gt 1 || ($status -eq 1 && $failed -eq 0) ]]; then
        failed=$((failed + 1)) remark+=" (one failure is how the program ended: status $status)"
    fi
    if [[ $skips == failures && $skipped -gt 0 ]]; then
        remark+=" (nothing may be skipped here: $skipped of the failures)"
        failed=$((failed + skipped)) skipped=0
    fi
    summary+=("$kernel: $passed passed, $failed failed, $skipped skipped$remark")
    total_passed=$((total_passed + passed))
    total_failed=$((total_failed + failed))
    total_skipped=$((total_skipped + skipped))
}

require_root
install_missing "${build_packages[@]}" "${kernel_packages[@]}"
build release netlink_route_tests
run_tests "machine's kernel" allowed confined "$seconds" env --unset=NETLINK_ROUTE_TEST_NIC
run_tests "user-mode kernel" failures run_in_uml "$seconds" env NETLINK_ROUTE_TEST_NIC=vec0

echo
printf '%s\n' "${summary[@]}"
echo "$total_passed passed, $total_failed failed, $total_skipped skipped"
[[ $total_failed -eq 0 ]]
