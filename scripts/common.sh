# shellcheck shell=bash
# What the other scripts share; for sourcing, not for running.
#
#     say TEXT...                     a line of progress, on standard error
#     die TEXT...                     the same, and the end of the script
#     usage                           shows the comment that the script begins with, and ends it
#     quietly WHAT COMMAND...         runs a command, and shows its output only if it fails, which ends the script
#     require_root                    ends the script for everybody else
#     install_missing PACKAGE...      installs those Debian packages that are not installed
#     build PRESET [TARGET...]        configures and builds in build/PRESET, quiet unless that fails
#     have_namespaces                 whether the next one can work
#     require_namespaces              ends the script where it cannot
#     confined SECONDS COMMAND...     runs a command in namespaces of its own, for a limited time
#     make_root FOLDER RELEASE ARGUMENT...
#                                     a minimal Debian, if there is none in FOLDER; the arguments are mmdebstrap's
#     in_root ROOT FOLDER COMMAND...  runs a command in such a root, in namespaces of its own
#
# It touches the machine's packages, build/ and one temporary folder, which goes when the script ends. Root is
# needed to install packages, and by the scripts that call require_root.
set -euo pipefail

# shellcheck disable=SC2034  # for the scripts that source this
build_packages=(cmake ninja-build g++ pkg-config libnl-3-dev libnl-route-3-dev
    libgtest-dev libgmock-dev libbenchmark-dev)

PATH+=:/usr/sbin:/sbin # of ip, depmod and modprobe, for users other than root
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
scratch=$(mktemp -d /tmp/netlink_route.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

say() { echo "${0##*/}: $*" >&2; }

die() {
    say "$@"
    exit 1
}

usage() {
    sed -n '2,/^set /s/^# \{0,1\}//p' "$0" >&2
    exit 2
}

quietly() {
    local what=$1 log=$scratch/quietly
    shift
    if ! "$@" >"$log" 2>&1 </dev/null; then
        cat "$log" >&2
        die "$what failed; its output is above"
    fi
}

require_root() { [[ $EUID -eq 0 ]] || die "needs root; nothing was done"; }

is_installed() {
    dpkg-query --show --showformat '${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

install_missing() {
    local package missing=()
    command -v dpkg-query >/dev/null || die "this is no Debian system; by hand it needs what these packages hold: $*"
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    [[ ${#missing[@]} -gt 0 ]] || return 0
    command -v apt-get >/dev/null || die "there is no apt-get to install what is missing: ${missing[*]}"
    [[ $EUID -eq 0 ]] || die "run as root, or install first what is missing: ${missing[*]}"
    say "installing ${missing[*]}"
    apt-get update >"$scratch/update" 2>&1 </dev/null ||
        say "going on with the package lists there are, since apt-get update failed:"$'\n'"$(<"$scratch/update")"
    quietly "installing ${missing[*]}" \
        env DEBIAN_FRONTEND=noninteractive apt-get install --yes --no-install-recommends "${missing[@]}"
}

build() {
    local preset=$1
    shift
    say "building the $preset preset"
    cd "$project"
    quietly "configuring $preset" cmake --preset "$preset"
    quietly "building $preset" cmake --build --preset "$preset" ${1:+--target "$@"}
}

# The release alone, without its updates: then the packages of all architectures have the same versions.
make_root() {
    local root=$1 release=$2 valid=
    shift 2
    # A machine that takes its packages from a snapshot of Debian's may have told apt not to ask for its age.
    eval "$(apt-config shell valid Acquire::Check-Valid-Until)"
    [[ ! -f $root/.complete || $(<"$root/.complete") != "$*" ]] || return 0
    rm -rf --one-file-system "$root" # what is mounted in it, by a run that was killed, stays
    mkdir -p "$root"
    quietly "making a minimal Debian in $root" mmdebstrap --mode=root --variant=apt \
        --aptopt="Acquire::Check-Valid-Until \"${valid:-true}\"" "$@" "$release" "$root" \
        "deb $(debian_mirror) $release main"
    echo "$*" >"$root/.complete"
}

# Where this machine has Debian's packages from.
debian_mirror() {
    local mirrors
    mapfile -t mirrors < <(apt-get indextargets --format "\$(REPO_URI)" 'Created-By: Packages' 'Label: Debian')
    echo "${mirrors[0]:-http://deb.debian.org/debian}"
}

# shellcheck disable=SC2016 # the inner shell's arguments
in_root() {
    local root=$1 folder=$2
    shift 2
    unshare --net --pid --mount --fork --kill-child --mount-proc="$root/proc" chroot "$root" \
        env --ignore-environment PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
        sh -c 'cd "$1" && shift && exec "$@"' sh "$folder" "$@"
}

# The network namespace keeps the machine's own links out of reach. The process namespace goes with its first
# process, and with it everything that the command started.
namespaces=(--net --pid --mount-proc --fork --kill-child)

# Root makes them directly, everybody else in a user namespace, in which he is root.
have_namespaces() {
    unshare "${namespaces[@]}" true 2>"$scratch/direct" && return
    namespaces+=(--user --map-root-user)
    unshare "${namespaces[@]}" true 2>"$scratch/user"
}

require_namespaces() {
    have_namespaces || die "this user may not make network namespaces here:" \
        "neither directly ($(<"$scratch/direct")) nor in a user namespace ($(<"$scratch/user"))." \
        "Run as root, or allow user namespaces (sysctl user.max_user_namespaces, kernel.unprivileged_userns_clone)"
}

# The first process is a shell, because the kernel spares it signals that must end a program, such as that of
# abort(); and it waits, so that Ctrl-C ends it at once, whatever the command.
confined() {
    local limit=$1
    shift
    timeout --foreground --signal=KILL "$limit" unshare "${namespaces[@]}" -- \
        bash -euo pipefail -c 'trap "exit 130" INT; "$@" & wait "$!"' bash "$@"
}
