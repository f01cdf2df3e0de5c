# shellcheck shell=bash disable=SC2154 # common.sh sets scratch and project
# A virtual 32-bit ARM machine with Debian's kernel; for sourcing after common.sh.
#
#     prepare_arm PRESET_TARGET...    makes the sysroot and builds these targets for the machine; sets kernel_version
#     run_on_arm SECONDS COMMAND...   runs a command as root on the machine, for a limited time
#
# The machine has no disk, and its NIC, eth0, leads nowhere: its root file system lies in memory and holds a shell,
# busybox, iproute2, the libraries, and what was built, at the same place as here, so that the paths compiled into it hold.
# The command's output goes to standard output, its exit status is returned; 124, with the kernel's messages, if there
# is none.

machine_packages=(cmake ninja-build pkg-config g++-arm-linux-gnueabihf qemu-system-arm cpio kmod)
modules=(virtio_mmio virtio_console virtio_net 8021q dummy veth bridge macvlan)
sysroot=$project/build/armhf-sysroot
root=$scratch/root # of the machine

prepare_arm() {
    local kernels
    install_missing "${machine_packages[@]}"
    "$project/scripts/armhf-sysroot.sh" "$sysroot" >&2
    kernels=("$sysroot"/boot/vmlinuz-*)
    kernel_version=${kernels[0]#*/vmlinuz-}
    build armhf "$@"
    copy_system
    copy_build "$project/build/armhf"
}

# The files of the kernel's modules, in the order in which they are to be loaded.
list_modules() {
    depmod --basedir "$sysroot" "$kernel_version" &&
        modprobe --config /dev/null --dirname "$sysroot" --set-version "$kernel_version" --show-depends --all \
            "${modules[@]}" | sed -n 's/^insmod \([^ ]*\).*/\1/p' | awk '!seen[$0]++'
}

copy_system() {
    local libraries=lib/arm-linux-gnueabihf
    mkdir -p "$root"/{bin,dev,etc,lib/modules,proc,root,run,sys,tmp,var} "$root/$libraries" "$root$project/scripts"
    ln -s /run "$root/var/run"
    cp -a "$sysroot/$libraries"/*.so* "$sysroot/usr/$libraries"/*.so* "$root/$libraries"
    cp -a "$sysroot"/lib/ld-linux-armhf.so.* "$root/lib"
    cp -a "$sysroot/etc/iproute2" "$root/etc"
    cp -a "$sysroot"/bin/{dash,busybox,ip} "$sysroot"/sbin/{bridge,tc} "$root/bin"
    ln -s dash "$root/bin/sh"
    cp -a "$project/scripts/armhf" "$root$project/scripts"
    list_modules | while read -r module; do
        cp "$module" "$root/lib/modules"
        echo "${module##*/}" >>"$root/lib/modules/order"
    done
}

# copy_build FOLDER: the programs and libraries in it, without their symbols.
copy_build() {
    local file
    find "$1"/{bench,components,examples,tests} -name CMakeFiles -prune -o \
        '(' -type f -executable -o -name '*.so*' ')' -print | while read -r file; do
        mkdir -p "$root${file%/*}"
        if [[ -L $file ]]; then
            cp -a "$file" "$root$file"
        else
            arm-linux-gnueabihf-strip -o "$root$file" "$file"
        fi
    done
}

run_on_arm() {
    local limit=$1 console=$scratch/console status=$scratch/status began=$SECONDS
    shift
    {
        echo '#!/bin/sh'
        printf '%q ' exec "$project/scripts/armhf/init.sh" "$project" "$@"
    } >"$root/init"
    chmod +x "$root/init"
    (cd "$root" && find . | cpio --quiet --create --format=newc --owner=0:0) >"$scratch/initramfs"

    : >"$console"
    : >"$status"
    say "booting Debian's kernel $kernel_version for armhf"
    {
        timeout --foreground --kill-after=5 "$limit" \
            qemu-system-arm -M virt -cpu cortex-a15 -smp 2 -m 1024 -display none -monitor none -no-reboot \
            -kernel "$sysroot/boot/vmlinuz-$kernel_version" -initrd "$scratch/initramfs" \
            -append "console=ttyAMA0 panic=-1" -serial "file:$console" \
            -netdev hubport,id=nowhere,hubid=0 -device virtio-net-device,netdev=nowhere -device virtio-serial-device \
            -chardev file,id=output,path=/dev/fd/3 -device virtserialport,chardev=output \
            -chardev "file,id=status,path=$status" -device virtserialport,chardev=status \
            3>&1 >>"$console" 2>&1 </dev/null
    } | cat || true
    if [[ ! -s $status ]]; then
        tail -n 40 "$console" >&2
        say "the virtual machine ended after $((SECONDS - began)) of at most $limit s without the command's exit" \
            "status; its kernel's last messages are above"
        return 124
    fi
    return "$(<"$status")"
}
