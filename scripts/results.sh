# shellcheck shell=bash disable=SC2154 # common.sh sets scratch and project
# How the test scripts run tests and count what happened; for sourcing after common.sh.
#
#     run_tests KERNEL SKIPS RUNNER...   runs the tests through the runner; SKIPS: "allowed", or "failures"
#     run_check WHAT COMMAND...          runs a command that counts as one test
#     finish                             prints a line for each of these, and the totals; fails if anything failed

tests=build/release/tests/netlink_route_tests
test_arguments=()
summary=()
total_passed=0 total_failed=0 total_skipped=0

# Counts GoogleTest's lines with that result; each ends with the time that its test took.
count() { grep -acE "\[ +$1 +\] .* \([0-9]+ ms\)$" "$scratch/output" || true; }

# add WHAT PASSED FAILED SKIPPED [REMARK]
add() {
    summary+=("$1: $2 passed, $3 failed, $4 skipped${5:-}")
    total_passed=$((total_passed + $2))
    total_failed=$((total_failed + $3))
    total_skipped=$((total_skipped + $4))
}

run_tests() {
    local kernel=$1 skips=$2 status=0 passed failed skipped remark=""
    shift 2
    say "testing on the $kernel"
    # The last two arguments keep the output countable, whatever the caller's arguments are.
    "$@" "$tests" "${test_arguments[@]}" --gtest_brief=0 --gtest_color=no </dev/null 2>&1 |
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
    add "$kernel" "$passed" "$failed" "$skipped" "$remark"
}

run_check() {
    local what=$1 status=0
    shift
    "$@" || status=$?
    if [[ $status -eq 0 ]]; then
        add "$what" 1 0 0
    else
        add "$what" 0 1 0 " (status $status)"
    fi
}

finish() {
    echo
    printf '%s\n' "${summary[@]}"
    echo "$total_passed passed, $total_failed failed, $total_skipped skipped"
    [[ $total_failed -eq 0 ]]
}
