#!/usr/bin/env bash
# Unpacks Debian packages into build/sysroot/ARCHITECTURE, for the virtual machine (scripts/machine.sh). Of this machine's
# own architecture these are the kernel and busybox; of another one all that the machine runs, and what the cross-build
# compiles against (cmake/cross.cmake).
#
#     scripts/sysroot.sh ARCHITECTURE    amd64, arm64 or armhf
#
# It writes this folder and nothing else, and needs root only to install what is missing. The packages come from the
# sources of this machine's apt. A complete folder is left alone; delete it for newer packages.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source-path=SCRIPTDIR source=machine.sh
source "$project/scripts/machine.sh"

[[ $# -eq 1 ]] || usage
choose_machine "$1"
complete=$sysroot/.complete
# What the machine lacks while this runs lies beside the folder, and goes if this fails.
partial=$sysroot.partial
export APT_CONFIG=$scratch/apt.conf TAR_OPTIONS="--no-same-owner --keep-directory-symlink"

# Only the named packages, without those that they need. The package lists are not the machine's, which may be old or
# missing, and which only root may renew.
get_own() {
    local versioned
    mkdir -p "$scratch"/apt/{lists,cache}/partial "$partial"/usr/{bin,sbin,lib}
    printf '%s;\n' "Dir::State \"$scratch/apt\"" "Dir::Cache \"$scratch/apt/cache\"" 'APT::Sandbox::User "root"' >"$APT_CONFIG"
    apt-get update || true # the package may be there although one index is not
    # The package itself is but a name for the newest.
    versioned=$(apt-cache depends --important "$kernel_package" | sed -n 's/^ *Depends: \(linux-image-.*\)/\1/p')
    ln -s usr/{bin,sbin,lib} "$partial"
    (cd "$scratch/apt" && apt-get download "$versioned" busybox-static) &&
        find "$scratch/apt" -name '*.deb' -print0 | xargs -0I{} dpkg-deb --extract {} "$partial"
}

# The packages are unpacked, not installed, so no program of theirs runs here, and no file needs its owner. mmdebstrap
# would stop at a package index that cannot be had; the hook goes on, since a package that cannot be had does stop it.
get_other() {
    local sources packages=(libc6-dev libstdc++6 libnl-3-dev libnl-route-3-dev libgtest-dev libgmock-dev
        "$kernel_package" dash busybox-static iproute2 kmod)
    unset APT_CONFIG
    mapfile -t sources < <(find /etc/apt/sources.list /etc/apt/sources.list.d -name '*.list' -o -name '*.sources')
    mmdebstrap --mode=chrootless --variant=extract --architectures="$architecture" --include="${packages[*]}" \
        --skip=update --hook-dir=/usr/share/mmdebstrap/hooks/merged-usr \
        --setup-hook="APT_CONFIG=\$MMDEBSTRAP_APT_CONFIG apt-get update || true" '' "$partial" "${sources[@]}"
}

[[ ! -f $complete ]] || exit 0
trap 'rm -rf "$scratch" "$partial"' EXIT
rm -rf "$sysroot" "$partial"
mkdir -p "${sysroot%/*}"
say "getting Debian's $kernel_package and what goes with it from the network, once"
if [[ $architecture == "$own_architecture" ]]; then
    install_missing kmod
    get=get_own
else
    install_missing kmod mmdebstrap
    get=get_other
fi
if ! "$get" >"$scratch/output" 2>&1 </dev/null; then
    tail -n 5 "$scratch/output" >&2
    die "could not get $kernel_package for $architecture: this needs the network, and Debian among apt's sources"
fi

# A link to an absolute path would lead out of the folder.
find "$partial" -type l -lname '/*' | while read -r link; do
    ln -snfr "$partial$(readlink "$link")" "$link"
done
kernel=("$partial"/boot/vmlinuz-*)
depmod --basedir "$partial" "${kernel[0]#*/vmlinuz-}"
touch "$partial/.complete"
mv "$partial" "$sysroot"
