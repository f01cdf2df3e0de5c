# shellcheck shell=bash
# What the other scripts share; for sourcing, not for running.
#
#     say TEXT...                     a line of progress, on standard error
#     die TEXT...                     the same, and the end of the script
#     require_root
#     install_missing PACKAGE...      installs those Debian packages that are not installed
#     build PRESET [TARGET...]        configures and builds in build/PRESET, quiet unless that fails
#     confined SECONDS COMMAND...     runs a command in namespaces of its own, for a limited time
#     run_in_uml SECONDS COMMAND...   runs a command as root on the user-mode kernel, for a limited time
#
# It touches the machine's packages, build/ and one temporary folder, which goes when the script ends.

# shellcheck disable=SC2034  # both lists are for the scripts that source this
build_packages=(cmake ninja-build g++ pkg-config libnl-3-dev libnl-route-3-dev
    libgtest-dev libgmock-dev libbenchmark-dev)
# shellcheck disable=SC2034
kernel_packages=(iproute2 user-mode-linux kmod)

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

require_root() {
    [[ $EUID -eq 0 ]] || die "needs root, to make network namespaces and a virtual kernel; nothing was done"
}

# quietly WHAT COMMAND...: shows the command's output only when it fails, and ends the script then.
quietly() {
    local what=$1 log=$scratch/quietly
    shift
    if ! "$@" >"$log" 2>&1 </dev/null; then
        cat "$log" >&2
        die "$what failed; its output is above"
    fi
}

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

# The network namespace keeps the machine's own links out of reach. The process namespace goes with its first
# process, and with it everything that the command started. That first process is a shell, because the kernel
# spares it signals that must end a program, such as that of abort(); and it waits, so that Ctrl-C ends it at once,
# whatever the command (the user-mode kernel ignores it).
confined() {
    local limit=$1
    shift
    timeout --foreground --signal=KILL "$limit" \
        unshare --net --pid --mount-proc --fork --kill-child -- \
        bash -euo pipefail -c 'trap "exit 130" INT; "$@" & wait "$!"' bash "$@"
}

# The user-mode kernel is an ordinary program whose root file system is the machine's own, read-only. The
# command may be a function of the calling script. It starts in the project's folder, can write to /tmp, /run
# and /dev/shm, which are empty then, and has an ordinary NIC, vec0. Its output goes to standard output, its exit
# status is returned; 124, with the kernel's messages, if there is none.
run_in_uml() {
    local limit=$1 folder=$scratch/uml began=$SECONDS
    shift
    [[ -c /dev/net/tun ]] || die "the virtual kernel's NIC needs /dev/net/tun, which this machine lacks"
    rm -rf "$folder"
    mkdir -p "$folder/shared/lib" "$folder/memory"
    ln -s /usr/lib/uml/modules "$folder/shared/lib/modules"
    {
        echo '#!/bin/bash'
        declare -f
        printf '%q ' guest "$folder/shared" "$project" "$@"
    } >"$folder/init"
    chmod +x "$folder/init"

    : >"$folder/console"
    confined "$limit" uml_host "$folder" || true
    if [[ ! -s $folder/shared/status ]]; then
        tail -n 40 "$folder/console" >&2
        say "the user-mode kernel ended after $((SECONDS - began)) of at most $limit s without the command's" \
            "exit status; its last messages are above"
        return 124
    fi
    return "$(<"$folder/shared/status")"
}

# uml_host FOLDER: what runs inside the namespaces, around the kernel.
uml_host() {
    local folder=$1
    ip tuntap add tap0 mode tap 2>>"$folder/console" # the other end of vec0
    ip link set tap0 up
    # The kernel keeps its memory in a file: /dev/shm may be small, or forbid to execute what lies in it.
    mount -t tmpfs tmpfs "$folder/memory"
    # The command writes to the second console. It goes through a pipe, since the kernel makes its consoles
    # non-blocking, which would stick to the terminal or file that standard output is.
    {
        TMPDIR=$folder/memory linux.uml mem=512M rootfstype=hostfs ro init="$folder/init" uml_dir="$folder/" \
            con=null con0=null,fd:1 con1=null,fd:3 vec0:transport=tap,ifname=tap0 \
            3>&1 >>"$folder/console" 2>&1 </dev/null
    } | cat
}
export -f uml_host

# guest SHARED PROJECT COMMAND...: the first process on the user-mode kernel. It stops with a kernel panic, and
# thus without a status, if it cannot prepare the system.
guest() {
    local shared=$1 project=$2 status
    shift 2
    set -euo pipefail
    export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
    mount -t proc proc /proc
    mount -t sysfs sysfs /sys
    # The root is read-only, and a program needs places to write to. Each tmpfs hides what the machine has
    # there, the project perhaps, so that is held fast before and put back after.
    mount --bind "$project" /mnt
    mkdir /dev/shm
    mount -t tmpfs tmpfs /dev/shm
    mount -t tmpfs tmpfs /run
    mount -t tmpfs tmpfs /tmp
    mkdir -p "$project" "$shared"
    mount --move /mnt "$project"
    mount -t hostfs -o "$shared" hostfs "$shared" # writable: the status goes out here
    ln -s /proc/self/fd /dev/fd

    modprobe -d "$shared" -a ipv6 8021q dummy veth macvlan bridge
    ip link set lo up

    stty -F /dev/tty1 raw
    set +e # no "||" after the command: it would switch off "set -e" in a command that is a function
    (
        set -e
        cd "$project"
        "$@"
    ) >/dev/tty1 2>&1 </dev/null
    status=$?
    stty -F /dev/tty1 raw # waits until everything is written
    echo "$status" >"$shared/status"
    umount "$shared"
    echo o >/proc/sysrq-trigger # power off
    sleep 60
}
