#!/bin/sh
# The part of scripts/demo.sh that runs in the virtual machine, in the project's folder.
set -eu

heading() { printf '\n==== %s\n' "$*"; }

# Prints a command, then runs it.
run() {
    printf '$ %s\n' "$*"
    "$@"
}

view() {
    run ip -details address show dev demo0
    run ip route
}

ip link add demo0 type dummy
ip link set demo0 up
ip address add 203.0.113.5/24 dev demo0
ip link add link demo0 name demo0.7 type vlan id 7
ip link set demo0.7 up
ip address add 198.18.7.1/24 dev demo0.7

heading "A dummy link and a VLAN on it, made with ip: the library's view"
run build/release/examples/show
heading "The same, ip's view"
run ip -brief link
run ip -brief -4 address

heading "All about the VLAN link: the library's view"
run build/release/examples/show demo0.7
heading "The same, ip's view"
run ip -details address show dev demo0.7

heading "Before the library changes demo0: ip's view"
view
heading "The library changes demo0; after each step ip's view"
CONFIGURE_WATCH='ip -brief address; ip route' \
    run build/release/examples/configure --yes demo0 203.0.113.10/24 203.0.113.1
heading "After the library changed demo0: ip's view"
view
heading "Done: every step succeeded"
