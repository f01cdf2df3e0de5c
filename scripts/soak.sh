#!/usr/bin/env bash
# Loads the library for a while: threads that query and update, and `ip` that changes links, addresses, routes and
# VLANs, in a network namespace made for it. Every few seconds it compares the caches with the kernel; it watches
# memory and descriptors, and fails if anything differs for more than a second or grows.
#
#     scripts/soak.sh SECONDS [--uml]    --uml: on the user-mode kernel, which has VLANs
#
# It installs the Debian packages that are missing and builds build/release. Needs root.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

[[ ${1:-} =~ ^[1-9][0-9]*$ && ($# -eq 1 || ($# -eq 2 && $2 == --uml)) ]] || {
    sed -n '2,/^set /s/^# \{0,1\}//p' "${BASH_SOURCE[0]}" >&2
    exit 2
}
require_root
install_missing "${build_packages[@]}" "${kernel_packages[@]}"
build release netlink_route_soak
runner=confined
[[ ${2:-} != --uml ]] || runner=run_in_uml
"$runner" "$(($1 + 60))" env SOAK_SECONDS="$1" build/release/bench/netlink_route_soak
