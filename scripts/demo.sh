#!/usr/bin/env bash
# Shows the library at work, and the ip command's view of the same kernel beside it.
#
#     scripts/demo.sh           in a virtual machine with links made for the purpose: reads, then changes them
#     scripts/demo.sh --host    on this machine: shows its links, reads only
#
# It installs the Debian packages that are missing, which needs root, gets Debian's kernel, and builds build/release. It
# changes no link of this machine. It fails if any of its steps fails.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source-path=SCRIPTDIR source=machine.sh
source "$project/scripts/machine.sh"

case "$*" in
    --host)
        install_missing "${build_packages[@]}"
        build release show
        echo '$ build/release/examples/show'
        build/release/examples/show
        ;;
    "")
        choose_machine "$own_architecture"
        install_missing "${build_packages[@]}" "${machine_packages[@]}"
        build release show configure
        prepare_machine release
        run_in_machine 120 scripts/machine/demo.sh
        ;;
    *)
        usage
        ;;
esac
