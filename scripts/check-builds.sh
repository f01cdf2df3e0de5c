#!/usr/bin/env bash
# Builds the library as other projects and toolchains do, and runs a small program (tests/parent) with each build.
#
#     scripts/check-builds.sh [CHECK...]    the named checks; without a name, all of them
#
# It installs the Debian packages that are missing, builds in a temporary folder, and changes no link.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

parent=$project/tests/parent

# configured NAME ARGUMENT...: a build of tests/parent in $scratch/NAME.
configured() {
    local name=$1
    shift
    cmake -S "$parent" -B "$scratch/$name" -G Ninja "$@"
}

# runs NAME ARGUMENT...: builds, and starts and stops managers.
runs() {
    local name=$1
    quietly "configuring $name" configured "$@"
    quietly "building $name" cmake --build "$scratch/$name"
    confined 100 "$scratch/$name/parent"
}

# part NAME ARGUMENT...: the same, with the library as a part of the project.
part() { runs "$@" -DNETLINK_ROUTE_SOURCE="$project" -DNETLINK_ROUTE_WERROR=ON; }

# refused WHY [ARGUMENT...]: configuring the library fails, and says why.
refused() {
    local why=$1
    shift
    if cmake -S "$project" -B "$scratch/refused" "$@" >"$scratch/output" 2>&1; then
        die "was not refused: $*"
    fi
    tr -s ' \n' ' ' <"$scratch/output" | grep -oF "$why" || die "was refused without \"$why\": $(<"$scratch/output")"
    rm -r "$scratch/refused"
}

check_static_runtime() { part static-runtime -DCMAKE_EXE_LINKER_FLAGS="-static-libgcc -static-libstdc++"; }
check_libcxx() { part libcxx -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS=-stdlib=libc++; }
check_no_exceptions() { part no-exceptions -DCMAKE_CXX_FLAGS=-fno-exceptions; }
check_unity() { part unity -DCMAKE_UNITY_BUILD=ON; }

# GCC 11 has no __FILE_NAME__, and the kernel's headers before Linux 5.3 no nexthop objects.
check_old() {
    local headers=$scratch/headers
    mkdir -p "$headers/linux"
    sed '/NEXTHOP/d' /usr/include/linux/rtnetlink.h >"$headers/linux/rtnetlink.h"
    part old -DCMAKE_CXX_COMPILER=g++-11 -DCMAKE_CXX_FLAGS="-isystem $headers" -DNETLINK_ROUTE_EXAMPLES=ON
    TRACE_LEVEL=9 confined 20 "$scratch/old/netlink_route/examples/show" 2>&1 | grep -c '\[DEBUG.\] CacheManager.cpp:'
}

# The program's objects come before the library's, and so do its constructors. Without a build type, installed by
# the project, and used by another one.
check_static() {
    local prefix=$scratch/prefix
    part static -DBUILD_SHARED_LIBS=OFF -DNETLINK_ROUTE_INSTALL=ON
    quietly "installing" cmake --install "$scratch/static" --prefix "$prefix"
    runs installed -DCMAKE_PREFIX_PATH="$prefix"
}

check_trace_library() {
    part target -DNETLINK_ROUTE_TRACE_LIBRARY=trace -DBUILD_SHARED_LIBS=ON
    quietly "installing" cmake --install "$scratch/target" --prefix "$scratch/nothing"
    [[ ! -e $scratch/nothing ]] || die "the project's installation has what is not its own"
    part file -DNETLINK_ROUTE_TRACE_LIBRARY="$scratch/target/libtrace.so"
    refused "neither a target that was made before nor a file: /no/libtrace.so" \
        -DNETLINK_ROUTE_TRACE_LIBRARY=/no/libtrace.so
}

check_libnl_version() {
    local version folder=$scratch/pkgconfig
    mkdir "$folder"
    for version in 3.3.0 3.6.0; do
        for name in libnl-3.0 libnl-route-3.0; do
            sed "s/^Version:.*/Version: $version/" "$(pkg-config --variable=pcfiledir $name)/$name.pc" >"$folder/$name.pc"
        done
        case $version in
            3.3.0) PKG_CONFIG_PATH=$folder refused "libnl-3.0>=3.4" ;;
            3.6.0) PKG_CONFIG_PATH=$folder refused "libnl 3.6.0 cannot be used" ;;
        esac
    done
}

# The CMake package, the pkg-config file and the tools, in whatever folders: those of another prefix than was configured, moved
# ones, and absolute ones.
check_pkgconfig() {
    local build=$scratch/pc prefix=$scratch/other moved=$scratch/moved flags
    quietly "configuring" cmake -S "$project" -B "$build" -G Ninja -DNETLINK_ROUTE_EXAMPLES=OFF \
        -DNETLINK_ROUTE_TOOLS=ON
    quietly "building" cmake --build "$build"
    quietly "installing" cmake --install "$build" --prefix "$prefix"
    compile_with "$prefix" "$prefix/lib/pkgconfig"
    mv "$prefix" "$moved"
    compile_with "$moved" "$moved/lib/pkgconfig" --define-prefix
    "$moved/bin/netlink-route-show" lo >/dev/null # finds the libraries
    quietly "configuring" cmake "$build" -DCMAKE_INSTALL_LIBDIR="$prefix/l" -DCMAKE_INSTALL_INCLUDEDIR="$prefix/i"
    quietly "installing" cmake --install "$build"
    compile_with "$prefix" "$prefix/l/pkgconfig"
    flags=$(PKG_CONFIG_PATH=$prefix/l/pkgconfig pkg-config --libs --static netlink_route)
    [[ $flags == *-lnl-route-3* ]] || die "what a static library needs is missing: $flags"
}

# compile_with PREFIX FOLDER [OPTION]: the program, with the flags of the pkg-config file in that folder.
compile_with() {
    local flags
    read -ra flags < <(PKG_CONFIG_PATH=$2 pkg-config "${@:3}" --cflags --libs netlink_route)
    [[ ${flags[*]} == *"-I$1/"* && ${flags[*]} != *-lnl* ]] || die "wrong flags: ${flags[*]}"
    g++ -std=c++17 -I "$parent/own" "$parent/main.cpp" -o "$scratch/program" "${flags[@]}"
}

checks=(static_runtime libcxx no_exceptions unity old static trace_library libnl_version pkgconfig)
[[ $# -eq 0 ]] || checks=("$@")
require_namespaces
install_missing "${build_packages[@]}" clang g++-11 libc++-dev libc++abi-dev
failed=()
for check in "${checks[@]}"; do
    say "$check"
    set +e # no "||" after the check: it would switch off "set -e" in it
    (
        set -e
        "check_$check"
    )
    status=$?
    set -e
    [[ $status -eq 0 ]] || failed+=("$check")
done
[[ ${#failed[@]} -eq 0 ]] || die "failed: ${failed[*]}"
