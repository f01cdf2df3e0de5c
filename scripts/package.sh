#!/usr/bin/env bash
# Builds the Debian packages for amd64 and armhf into build/packages, and lets lintian judge them.
#
#     scripts/package.sh            builds
#     scripts/package.sh --check    builds, and tries the packages (scripts/check-packages.sh)
#
# It installs mmdebstrap and git if they are missing, and builds in a minimal Debian 12 of its own, in
# build/package-root, which it makes at its first run; delete that folder for newer packages. Needs root.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

[[ $# -eq 0 || $* == --check ]] || {
    sed -n '2,/^set /s/^# \{0,1\}//p' "${BASH_SOURCE[0]}" >&2
    exit 2
}
root=$project/build/package-root
result=$project/build/packages
packages=(build-essential crossbuild-essential-armhf debhelper cmake ninja-build lintian pkg-config{,:armhf} libstdc++6:armhf
    libnl-3-dev{,:armhf} libnl-route-3-dev{,:armhf} libgtest-dev libgmock-dev)

# build_packages ARCHITECTURE ARGUMENT...: from the files that git knows.
build_packages() {
    local architecture=$1 folder=$root/build/$1
    shift
    say "building for $architecture"
    mkdir -p "$folder/source"
    git ls-files -z --cached | tar --null --files-from=- --create | tar --extract --directory="$folder/source"
    quietly "building for $architecture" in_root "$root" "/build/$architecture/source" env \
        DEB_BUILD_OPTIONS="parallel=$(nproc)" dpkg-buildpackage --build=binary --no-sign -a"$architecture" "$@"
    # The licence is the owner's to choose (debian/copyright). Nothing else may be wrong.
    in_root "$root" "/build/$architecture" sh -c 'exec lintian --allow-root --display-info --pedantic \
        --fail-on=error,warning,info,pedantic --suppress-tags=copyright-without-copyright-notice ./*.changes'
    cp "$folder"/*.deb "$result"
}

require_root
install_missing mmdebstrap git
make_root "$root" bookworm --architectures=amd64,armhf --include="$(IFS=,; echo "${packages[*]}")"
rm -rf "$root/build" "$result"
mkdir -p "$result"
build_packages amd64
build_packages armhf -Pcross,nocheck
ls "$result"
[[ $* != --check ]] || "$project/scripts/check-packages.sh" "$result"
