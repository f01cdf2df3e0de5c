# shellcheck shell=bash disable=SC2034,SC2154 # common.sh sets scratch and project
# A virtual machine with Debian's kernel, of this machine's or of another architecture; for sourcing after common.sh.
# qemu emulates it without the help of this processor, so it needs no right at all.
#
#     choose_machine ARCHITECTURE         sets the variables below
#     prepare_machine PRESET [SYSTEM]     collects its files: what was built in build/PRESET; kernel, shell, busybox,
#                                         iproute2 and libraries of the Debian whose root is SYSTEM
#     run_in_machine SECONDS COMMAND...   runs a command as root there, in the project's folder, for a limited time
#
# Without SYSTEM, programs and libraries of this architecture are this machine's own, and all else comes from what
# scripts/sysroot.sh unpacks. The virtual machine has two processors, no disk, and an ordinary NIC, eth0, that leads
# nowhere. Its root file system lies in memory. What was built is at the same place as here, so that the paths compiled
# into it hold. The command's output goes to standard output, its exit status is returned; 124, with the kernel's
# messages, if there is none.

own_architecture=$(dpkg --print-architecture 2>/dev/null || true)
architecture=
triplet=                 # of its libraries and of the tools that build for it
sysroot=                 # what scripts/sysroot.sh makes
kernel_package=
kernel_version=
machine_packages=()      # what this machine needs to run it
machine_programs=(dash ip tc bridge kmod)
emulator=()
kernel_arguments=
modules=(virtio_pci virtio_console virtio_net 8021q dummy veth bridge macvlan bonding)
machine=$scratch/machine # its root file system
memory=1024              # in MiB, a quarter of it for qemu, which keeps there what it has translated
boot_seconds=120         # at most; it takes 4 to 10 where the machine is not busy

# All that differs. On a busy machine the emulated timer of a PC may be too late for the kernel's check.
choose_machine() {
    architecture=$1 machine_packages=(cpio kmod iproute2 binutils)
    case $architecture in
        amd64)
            triplet=x86_64-linux-gnu kernel_package=linux-image-cloud-amd64
            kernel_arguments="console=ttyS0 no_timer_check"
            emulator=(qemu-system-x86_64 -M q35 -cpu max) machine_packages+=(qemu-system-x86)
            ;;
        arm64)
            triplet=aarch64-linux-gnu kernel_package=linux-image-cloud-arm64
            kernel_arguments="console=ttyAMA0"
            emulator=(qemu-system-aarch64 -M virt -cpu cortex-a57) machine_packages+=(qemu-system-arm)
            ;;
        armhf)
            triplet=arm-linux-gnueabihf kernel_package=linux-image-armmp
            kernel_arguments="console=ttyAMA0"
            emulator=(qemu-system-arm -M "virt,highmem=off" -cpu cortex-a15) machine_packages+=(qemu-system-arm)
            ;;
        *) die "a virtual machine can be amd64, arm64 or armhf, but not \"$architecture\"" ;;
    esac
    [[ $architecture == "$own_architecture" ]] || machine_packages+=("g++-$triplet")
    sysroot=$project/build/sysroot/$architecture
}

prepare_machine() {
    local preset=$1 system=${2:-} kernels
    require_space
    [[ -n $system ]] || "$project/scripts/sysroot.sh" "$architecture" >&2
    rm -rf "$machine" "$scratch/programs"
    mkdir -p "$machine"/{dev,etc,modules,proc,root,run,sys,tmp,var,usr/{bin,lib64}} "$machine/usr/lib/$triplet" \
        "$machine$project/scripts"
    ln -s usr/{bin,lib,lib64} "$machine"
    ln -s /run "$machine/var/run"

    kernels=("${system:-$sysroot}"/boot/vmlinuz-*)
    kernel_version=${kernels[0]#*/vmlinuz-}
    cp -L "${kernels[0]}" "$scratch/kernel"
    copy_modules "${system:-$sysroot}"
    cp -a "$project/scripts/machine" "$machine$project/scripts"
    cp -a "$project/bench" "$machine$project"
    copy_build "$system" "$project/build/$preset"
    if [[ $architecture == "$own_architecture" ]]; then
        copy_programs "$system" "${machine_programs[@]}"
        copy_needed "$system"
    else
        copy_programs "$sysroot" "${machine_programs[@]}"
        cp -a "$sysroot/usr/lib/$triplet"/*.so* "$machine/usr/lib/$triplet"
        cp -a "$sysroot"/usr/lib/ld-linux* "$machine/usr/lib"
    fi
    copy_programs "${system:-$sysroot}" busybox # statically linked
    ln -s dash "$machine/bin/sh"
    ln -s kmod "$machine/bin/insmod"
    pack "$machine" >"$scratch/files"
}

require_space() {
    local free
    free=$(awk '/^MemAvailable:/ { print int($2 / 1024) }' /proc/meminfo)
    [[ $free -ge $memory ]] || die "the virtual machine needs $memory MiB of memory, and $free are free: end other programs"
    free=$(df --output=avail --block-size=1M "$scratch" | tail -n 1)
    [[ $free -ge 200 ]] || die "the virtual machine's files need 200 MiB in /tmp, and $free are free: make room there"
}

# The files of the kernel's modules, in the order in which they are to be loaded.
copy_modules() {
    modprobe --config /dev/null --dirname "$1" --set-version "$kernel_version" --show-depends --all "${modules[@]}" |
        sed -n 's/^insmod \([^ ]*\).*/\1/p' | awk '!seen[$0]++' | while read -r module; do
        cp "$module" "$machine/modules"
        echo "${module##*/}" >>"$machine/modules/order"
    done
}

# copy_build SYSTEM FOLDER: the programs and libraries in it, without their symbols.
copy_build() {
    local file strip=strip
    [[ $architecture == "$own_architecture" ]] || strip=$triplet-strip
    find "$1$2" -name CMakeFiles -prune -o \
        '(' -type f -executable -o -name '*.so*' ')' -print | while read -r file; do
        mkdir -p "$machine$(dirname "${file#"$1"}")"
        if [[ -L $file ]]; then
            cp -a "$file" "$machine${file#"$1"}"
        else
            "$strip" -o "$machine${file#"$1"}" "$file"
            echo "${file#"$1"}" >>"$scratch/programs"
        fi
    done
}

# copy_programs SYSTEM NAME...
copy_programs() {
    local system=$1 name file
    shift
    for name in "$@"; do
        for file in "$system"/{usr/,}{bin,sbin}/"$name"; do
            [[ -e $file ]] || continue
            cp -L "$file" "$machine/bin"
            echo "${file#"$system"}" >>"$scratch/programs"
            continue 2
        done
        die "there is no program $name in $system/"
    done
    cp -a "$system"/{etc,usr/share}/iproute2 "$machine/etc" 2>/dev/null || true # one of the two
}

# copy_needed SYSTEM: the libraries that these programs need.
copy_needed() {
    local library users
    mapfile -t users <"$scratch/programs"
    ${1:+chroot "$1"} ldd "${users[@]}" | sed -n 's/^\t\(.* => \)\{0,1\}\(\/[^ ]*\) (.*/\2/p' | sort -u |
        while read -r library; do
            mkdir -p "$machine${library%/*}"
            [[ -e $machine$library ]] || ${1:+chroot "$1"} cat "$library" >"$machine$library"
            chmod +x "$machine$library"
        done
}

# An archive that the kernel unpacks into its root file system; several may follow each other.
pack() { (cd "$1" && find . | cpio --quiet --create --format=newc --owner=0:0); }

run_in_machine() {
    local limit=$1 console=$scratch/console status=$scratch/status first=$scratch/first began=$SECONDS
    shift
    mkdir -p "$first"
    {
        echo '#!/bin/sh'
        printf '%q ' exec "$project/scripts/machine/init.sh" "$project" "$@"
    } >"$first/init"
    chmod +x "$first/init"
    { cat "$scratch/files" && pack "$first"; } >"$scratch/initramfs" || die "the virtual machine's files find no room in /tmp"
    : >"$console"
    : >"$status"
    say "booting Debian's kernel $kernel_version for $architecture in a virtual machine, which takes some seconds"
    emulate | cat || true
    [[ $(wc -l <"$status") -lt 2 ]] || return "$(tail -n 1 "$status")"
    tail -n 40 "$console" >&2
    if [[ ! -s $status ]]; then
        say "the virtual machine did not come up in $((SECONDS - began)) s; the last words of qemu and of its kernel are" \
            "above. Free 1 GiB of memory for it, or delete $sysroot to get its kernel anew"
    else
        say "the virtual machine ended after $((SECONDS - began)) of at most $limit s without the command's exit" \
            "status; its kernel's last messages are above"
    fi
    return 124
}

# Runs the machine until it switches itself off. Its output goes through a pipe, since qemu makes what it writes to
# non-blocking, which would stick to a terminal or file.
emulate() {
    local process
    timeout --foreground --kill-after=5 "$limit" "${emulator[@]}" -smp 2 -m "$((memory * 3 / 4))" \
        -accel "tcg,thread=multi,tb-size=$((memory / 4))" -nodefaults -display none -no-reboot \
        -kernel "$scratch/kernel" -initrd "$scratch/initramfs" \
        -append "$kernel_arguments panic=-1 quiet" -serial "file:$console" \
        -device virtio-serial-pci -chardev file,id=output,path=/dev/fd/3 -device virtserialport,chardev=output \
        -chardev "file,id=status,path=$status" -device virtserialport,chardev=status \
        -netdev hubport,id=nowhere,hubid=0 -device virtio-net-pci,netdev=nowhere \
        3>&1 >>"$console" 2>&1 </dev/null &
    process=$!
    until [[ -s $status || $((SECONDS - began)) -ge $boot_seconds ]] || ! kill -0 "$process" 2>/dev/null; do
        sleep 0.2
    done
    [[ -s $status ]] || kill "$process" 2>/dev/null || true
    wait "$process"
}
