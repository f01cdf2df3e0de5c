#!/usr/bin/env bash
# Makes a folder of Debian's armhf packages: what the cross-build compiles against (cmake/armhf.cmake), and
# what the virtual ARM machine runs on (scripts/test-armhf.sh): kernel, C and C++ runtime, shell, tools.
#
#     scripts/armhf-sysroot.sh [FOLDER]        FOLDER: build/armhf-sysroot unless given
#
# It writes FOLDER and nothing else, and needs root only to install mmdebstrap, if that is missing. The packages come
# from the sources of this machine's apt. A complete folder is left alone; delete it for newer packages.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

packages=(libc6-dev libstdc++6 libnl-3-dev libnl-route-3-dev libgtest-dev libgmock-dev
    linux-image-armmp dash busybox-static iproute2)
folder=$(realpath -m "${1:-$project/build/armhf-sysroot}")
complete=$folder/.complete
[[ ! -f $complete || $(<"$complete") != "${packages[*]}" ]] || exit 0

install_missing mmdebstrap
say "getting Debian's armhf packages for $folder"
rm -rf "$folder"
mkdir -p "${folder%/*}"
mapfile -t sources < <(find /etc/apt/sources.list /etc/apt/sources.list.d -name '*.list' -o -name '*.sources')
# The packages are unpacked, not installed, so no program of theirs runs here, and no file needs its owner. mmdebstrap
# would stop at a package index that cannot be had; the hook goes on, since a package that cannot be had does stop it.
TAR_OPTIONS=--no-same-owner quietly "getting the armhf packages" \
    mmdebstrap --mode=chrootless --variant=extract --architectures=armhf --include="${packages[*]}" --skip=update \
    --setup-hook="APT_CONFIG=\$MMDEBSTRAP_APT_CONFIG apt-get update || true" '' "$folder" "${sources[@]}"

# A link to an absolute path would lead out of the folder.
find "$folder" -type l -lname '/*' | while read -r link; do
    ln -snfr "$folder$(readlink "$link")" "$link"
done
echo "${packages[*]}" >"$complete"
