#!/usr/bin/env bash
# Compares the binary interface of the library in build/release, with the layout of its classes, with the one that is
# stored in components/netlink/abi-amd64.xml.gz, and fails if they differ in anything. Of amd64 alone: what grows a
# class there grows it elsewhere.
#
#     scripts/abi.sh            compares
#     scripts/abi.sh --store    stores today's interface, after an addition or for a new major version
#
# It installs the Debian packages that are missing, which needs root. The dump is that of Debian 12's GCC; another
# compiler may describe the same interface in other words.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

stored=$project/components/netlink/abi-amd64.xml.gz
headers=$scratch/headers

[[ $# -eq 0 || $* == --store ]] || usage
[[ $(dpkg --print-architecture) == amd64 ]] || die "the stored interface is that of amd64; nothing was compared"
install_missing "${build_packages[@]}" abigail-tools
build release netlink_route
# What the public headers do not declare is no part of the interface.
mkdir "$headers"
cp components/*/include/*.h "$headers"
quietly "reading the interface" abidw --headers-dir "$headers" --drop-private-types --exported-interfaces-only \
    --no-show-locs --no-comp-dir-path --no-corpus-path --no-parameter-names --no-elf-needed --type-id-style hash \
    --out-file "$scratch/today.xml" build/release/components/netlink/libnetlink_route.so
sed -i "s|path='$project/|path='|" "$scratch/today.xml"
if [[ $* == --store ]]; then
    gzip -n9 <"$scratch/today.xml" >"$stored"
    say "stored $stored"
    exit
fi
gunzip <"$stored" >"$scratch/stored.xml"
abidiff "$scratch/stored.xml" "$scratch/today.xml" ||
    die "the binary interface differs from the stored one. If the difference only adds to it, store it:" \
        "scripts/abi.sh --store. Else it needs a new major version: see CONTRIBUTING.md, Binary interface"
say "the binary interface is the stored one"
