#!/usr/bin/env bash
# Loads the library for a while: threads that query and update, and `ip` that changes links, addresses, routes,
# nexthop objects and VLANs, in a network namespace made for it. Every few seconds it compares the manager's answers
# with the kernel's and with those of a new manager; it watches memory and descriptors, and fails if anything differs
# for more than five seconds or grows.
#
#     [SOAK_SEED=NUMBER] scripts/soak.sh SECONDS [--vm]    --vm: in a virtual machine, with VLANs and a bond
#
# It installs the Debian packages that are missing, which needs root, and builds build/release.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source-path=SCRIPTDIR source=machine.sh
source "$project/scripts/machine.sh"

[[ ${1:-} =~ ^[1-9][0-9]*$ && ($# -eq 1 || ($# -eq 2 && $2 == --vm)) ]] || usage
install_missing "${build_packages[@]}" iproute2
if [[ ${2:-} == --vm ]]; then
    choose_machine "$own_architecture"
    install_missing "${machine_packages[@]}"
    build release netlink_route_soak
    prepare_machine release
    runner=run_in_machine
else
    require_namespaces
    build release netlink_route_soak
    runner=confined
fi
"$runner" "$(($1 + 60))" env SOAK_SECONDS="$1" SOAK_SEED="${SOAK_SEED:-1}" build/release/bench/netlink_route_soak
