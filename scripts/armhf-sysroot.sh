#!/usr/bin/env bash
# Makes a folder of Debian's armhf packages: what the cross-build compiles against (cmake/armhf.cmake), and
# what the virtual ARM machine runs on (scripts/test-armhf.sh): kernel, C and C++ runtime, shell, tools.
#
#     scripts/armhf-sysroot.sh [FOLDER]        FOLDER: build/armhf-sysroot unless given
#
# It writes FOLDER and FOLDER.packages (apt's lists, and the downloads, which are kept) and nothing else: the
# machine's own package state stays as it is, and root is not needed. A complete folder is left alone; delete
# it for newer packages.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

packages=(libc6-dev libstdc++6 libnl-3-dev libnl-route-3-dev libgtest-dev libgmock-dev
    dash busybox-static iproute2)
kernel_package=linux-image-armmp

folder=$(realpath -m "${1:-$project/build/armhf-sysroot}")
store=$folder.packages
archives=$store/archives
log=$scratch/apt
complete=$folder/.complete
contents="${packages[*]} $kernel_package"
files=()

# apt_armhf TOOL ARGUMENT...: apt for an armhf machine without a single package, with the sources of this one.
apt_armhf() {
    local tool=$1
    shift
    LC_ALL=C "$tool" -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Install-Recommends=false \
        -o APT::Sandbox::User=root -o Dir::State="$store/state" -o Dir::State::status="$store/state/status" \
        -o Dir::Cache="$store/cache" -o Debug::NoLocking=true -q "$@" >"$log" 2>&1 </dev/null
}

# needed_apt FAILURE TOOL ARGUMENT...
needed_apt() {
    apt_armhf "${@:2}" && return
    cat "$log" >&2
    die "$1; apt's messages are above"
}

# Brings the packages, all that they depend on and the kernel into $archives, and their names into `files`.
download() {
    local names kernel
    mkdir -p "$store/state/lists/partial" "$store/cache" "$archives"
    : >"$store/state/status"
    apt_armhf apt-get update ||
        say "apt-get update failed (see below); going on with the package lists there are" \
            "$(grep '^[EW]:' "$log")"
    needed_apt "these armhf packages cannot be had: ${packages[*]}" \
        apt-get install --simulate "${packages[@]}"
    mapfile -t names < <(sed -n 's/^Inst \([^ ]*\) .*/\1/p' "$log")
    # The kernel comes without its dependencies: they would only serve to install it.
    needed_apt "no package list has an armhf kernel" apt-cache depends --important "$kernel_package"
    kernel=$(sed -n 's/^ *Depends: \(linux-image-.*\)/\1/p' "$log")
    names+=("${kernel:?}")
    cd "$store/state" # apt would not tell the names of files in the working folder
    needed_apt "an armhf package has no source" apt-get download --print-uris "${names[@]}"
    mapfile -t files < <(sed -n "s/^'[^ ]* \([^ ]*\) .*/\1/p" "$log")
    cd "$archives"
    needed_apt "downloading the armhf packages failed" apt-get download "${names[@]}"
    cd "$project"
}

unpack() {
    local file link directory
    rm -rf "$folder"
    for directory in bin sbin lib; do
        mkdir -p "$folder/usr/$directory"
        ln -s "usr/$directory" "$folder/$directory"
    done
    for file in "${files[@]}"; do
        dpkg-deb --fsys-tarfile "$archives/$file" |
            tar -x -C "$folder" --no-same-owner --keep-directory-symlink \
                --exclude=./usr/share/doc --exclude=./usr/share/man
    done
    # A link to an absolute path would lead out of the folder.
    find "$folder" -type l -lname '/*' | while read -r link; do
        ln -snfr "$folder$(readlink "$link")" "$link"
    done
}

[[ ! -f $complete || $(<"$complete") != "$contents" ]] || exit 0
for tool in apt-get apt-cache dpkg-deb; do
    command -v "$tool" >/dev/null || die "there is no $tool: this needs Debian or a relative of it"
done
say "getting Debian's armhf packages for $folder"
download
unpack
echo "$contents" >"$complete"
