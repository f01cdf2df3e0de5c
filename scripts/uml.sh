# shellcheck shell=bash disable=SC2154 # common.sh sets scratch and project
# The user-mode kernel, an ordinary program whose root file system is the machine's own, read-only; for sourcing after
# common.sh.
#
#     run_in_uml SECONDS COMMAND...   runs a command as root on the user-mode kernel, for a limited time
#
# The command starts in the project's folder, can write to /tmp, /run and /dev/shm, which are empty then, and has an
# ordinary NIC, vec0. Its output goes to standard output, its exit status is returned; 124, with the kernel's messages,
# if there is none.

run_in_uml() {
    local limit=$1 folder=$scratch/uml began=$SECONDS
    shift
    rm -rf "$folder"
    mkdir -p "$folder/shared/lib" "$folder/memory"
    ln -s /usr/lib/uml/modules "$folder/shared/lib/modules"
    {
        echo '#!/bin/bash'
        # For an ordinary user, files of the machine's root belong to nobody here, and mount(8), which is set-user-ID,
        # would run as nobody.
        printf '%q ' exec setpriv --no-new-privs "$project/scripts/uml/init.sh" "$folder/shared" "$project" "$@"
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
    ip link add cable0 type veth peer name cable1 # vec0 is at one end; unlike a tap it needs no /dev/net/tun
    ip link set cable0 up
    ip link set cable1 up
    # The kernel keeps its memory in a file: /dev/shm may be small, or forbid to execute what lies in it.
    mount -t tmpfs tmpfs "$folder/memory"
    # The command writes to the second console. It goes through a pipe, since the kernel makes its consoles
    # non-blocking, which would stick to the terminal or file that standard output is.
    {
        TMPDIR=$folder/memory linux.uml mem=512M rootfstype=hostfs ro init="$folder/init" uml_dir="$folder/" \
            con=null con0=null,fd:1 con1=null,fd:3 vec0:transport=raw,ifname=cable0 \
            3>&1 >>"$folder/console" 2>&1 </dev/null
    } | cat
}
export -f uml_host
