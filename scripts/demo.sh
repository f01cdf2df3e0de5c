#!/usr/bin/env bash
# Shows the library at work, and the ip command's view of the same kernel beside it.
#
#     scripts/demo.sh           on a user-mode kernel with links made for the purpose: reads, then changes them
#     scripts/demo.sh --host    on this machine: shows its links, reads only
#
# It installs the Debian packages that are missing, which needs root, and builds build/release. It changes no link of
# this machine. It fails if any of its steps fails.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source-path=SCRIPTDIR source=uml.sh
source "$project/scripts/uml.sh"

case "$*" in
    --host)
        install_missing "${build_packages[@]}"
        build release show
        echo '$ build/release/examples/show'
        build/release/examples/show
        ;;
    "")
        install_missing "${build_packages[@]}" "${kernel_packages[@]}"
        require_namespaces
        build release show configure
        say "booting the user-mode kernel"
        run_in_uml 60 scripts/uml/demo.sh
        ;;
    *)
        usage
        ;;
esac
