#!/usr/bin/env bash
# Builds the reference and its pages into build/docs; a page's first file is build/docs/index.html.
#
#     scripts/docs.sh
#
# It installs the Debian packages that are missing, which needs root. Every warning of Doxygen is an error: a public
# member without words, a page that names what is not there.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

install_missing doxygen doxygen-awesome-css
cd "$project"
export NETLINK_ROUTE_HEADERS=$scratch/headers # as they are installed
NETLINK_ROUTE_VERSION=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
export NETLINK_ROUTE_VERSION
mkdir -p "$NETLINK_ROUTE_HEADERS/netlink_route" build
cp components/*/include/*.h "$NETLINK_ROUTE_HEADERS/netlink_route"
rm -rf build/docs
quietly "building the reference" doxygen doc/Doxyfile
rm build/docs/dir_*.html # pages of folders, which nothing links to; their names come from where the project lies
say "built $project/build/docs/index.html"
