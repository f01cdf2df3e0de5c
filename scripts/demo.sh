#!/usr/bin/env bash
# Shows the library at work, and the ip command's view of the same kernel beside it.
#
#     scripts/demo.sh           on a user-mode kernel with links made for the purpose: reads, then changes them
#     scripts/demo.sh --host    on this machine: shows its links, reads only
#
# It installs the Debian packages that are missing and builds build/release. It changes no link of this machine.
# Needs root, for the user-mode kernel and for the installing. It fails if any of its steps fails.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

heading() { printf '\n==== %s\n' "$*"; }

# Prints a command, then runs it.
run() {
    printf '$ %s\n' "$*"
    "$@"
}

# Runs on the user-mode kernel.
demo() {
    ip link add demo0 type dummy
    ip link set demo0 up
    ip address add 203.0.113.5/24 dev demo0
    ip link add link demo0 name demo0.7 type vlan id 7
    ip link set demo0.7 up
    ip address add 198.18.7.1/24 dev demo0.7

    heading "A dummy link and a VLAN on it, made with ip: the library's view"
    run build/release/examples/show
    heading "The same, ip's view"
    run ip -brief link
    run ip -brief -4 address

    heading "All about the VLAN link: the library's view"
    run build/release/examples/show demo0.7
    heading "The same, ip's view"
    run ip -details address show dev demo0.7

    heading "Before the library changes demo0: ip's view"
    view
    heading "The library changes demo0; after each step ip's view"
    CONFIGURE_WATCH='ip -brief address; ip route' \
        run build/release/examples/configure --yes demo0 203.0.113.10/24 203.0.113.1
    heading "After the library changed demo0: ip's view"
    view
}

view() {
    run ip -details address show dev demo0
    run ip route
}

case "$*" in
    --host)
        install_missing "${build_packages[@]}"
        build release show
        run build/release/examples/show
        ;;
    "")
        require_root
        install_missing "${build_packages[@]}" "${kernel_packages[@]}"
        build release show configure
        say "booting the user-mode kernel"
        run_in_uml 60 demo
        heading "Done: every step succeeded"
        ;;
    *)
        sed -n '2,/^set /s/^# \{0,1\}//p' "${BASH_SOURCE[0]}" >&2
        exit 2
        ;;
esac
