#!/usr/bin/env bash
# Builds the Debian packages for amd64 and armhf into build/packages, and lets lintian judge them.
#
#     scripts/package.sh            builds
#     scripts/package.sh --check    builds, looks whether another build gives the same packages, and tries them
#                                   (scripts/check-packages.sh)
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
packages=(build-essential crossbuild-essential-armhf debhelper cmake ninja-build lintian pkgconf{,:armhf} libstdc++6:armhf
    libnl-3-dev{,:armhf} libnl-route-3-dev{,:armhf} libgtest-dev libgmock-dev doxygen doxygen-awesome-css)

# build_packages ARCHITECTURE FOLDER ARGUMENT...: from the files that git knows, in that folder of the root.
build_packages() {
    local architecture=$1 folder=$2 options
    options="parallel=$(nproc) ${extra_option:-}"
    shift 2
    say "building for $architecture"
    mkdir -p "$root/$folder/source/build"
    git ls-files -z --cached | tar --null --files-from=- --create | tar --extract --directory="$root/$folder/source"
    touch "$root/$folder/source/build/something" # of the developer's; the source package leaves it out
    quietly "building for $architecture" in_root "$root" "/$folder/source" env \
        DEB_BUILD_OPTIONS="$options" dpkg-buildpackage --no-sign -a"$architecture" "$@"
}

# judge FOLDER: the licence is the owner's to choose (debian/copyright). Nothing else may be wrong.
judge() {
    in_root "$root" "/$1" sh -c 'exec lintian --allow-root --display-info --pedantic \
        --fail-on=error,warning,info,pedantic --suppress-tags=copyright-without-copyright-notice ./*.changes'
}

# The source package holds what git knows.
check_source() {
    diff <(git ls-files ':!.gitignore' | sort) \
        <(tar --list --file "$root"/build/amd64/*.tar.xz | sed 's|^[^/]*/||; /\/$/d; /^$/d' | sort)
}

# Another folder, other options: the packages are the same, to the byte.
check_reproducible() {
    local package
    extra_option=nocheck build_packages amd64 elsewhere/another-name --build=binary
    for package in "$root"/build/amd64/*.deb; do
        cmp "$package" "$root/elsewhere/another-name/${package##*/}"
    done
    say "another build gave the same packages"
}

require_root
install_missing mmdebstrap git
make_root "$root" bookworm --architectures=amd64,armhf --include="$(IFS=,; echo "${packages[*]}")"
rm -rf "$root"/{build,elsewhere} "$result"
mkdir -p "$result"
build_packages amd64 build/amd64 --build=full
build_packages armhf build/armhf --build=any -Pcross,nocheck
for architecture in amd64 armhf; do
    judge "build/$architecture"
    cp "$root/build/$architecture"/*.{deb,dsc,tar.xz} "$result" 2>/dev/null || true
done
ls "$result"
if [[ $* == --check ]]; then
    check_source
    check_reproducible
    "$project/scripts/check-packages.sh" "$result"
fi
