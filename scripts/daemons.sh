#!/usr/bin/env bash
# Lets routing daemons that nobody here wrote change a network, and compares the library with the kernel after each
# step: frr's zebra and staticd with 1,000 routes over two links, which they install with nexthop objects, and
# keepalived with addresses and routes that come and go.
#
#     scripts/daemons.sh
#
# It installs the Debian packages that are missing, without starting their services, and builds build/release. The
# daemons run in namespaces of their own and end with the script. Needs root.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# What runs inside the namespaces. Links a0 and b0 lead to the namespace "far".
daemons() {
    local frr=/usr/lib/frr i
    mount -t tmpfs tmpfs /run
    mkdir -p /etc/frr /etc/keepalived /run/keepalived
    mount -t tmpfs tmpfs /etc/frr
    install -d -o frr -g frr /run/frr
    ip link set lo up
    ip netns attach here $$
    ip netns add far
    for i in a b; do
        ip link add ${i}0 type veth peer name ${i}1 netns far
        ip link set ${i}0 up
        ip -n far link set ${i}1 up
    done
    ip address add 10.10.0.1/24 dev a0
    ip address add 10.20.0.1/24 dev b0
    ip -n far address add 10.10.0.2/24 dev a1
    ip -n far address add 10.20.0.2/24 dev b1

    touch /etc/frr/zebra.conf
    for i in {0..999}; do
        [[ $((i % 5)) -gt 2 ]] || echo "ip route 10.$((100 + i / 250)).$((i % 250)).0/24 10.10.0.2"
        [[ $((i % 5)) -lt 2 ]] || echo "ip route 10.$((100 + i / 250)).$((i % 250)).0/24 10.20.0.2"
    done >/etc/frr/staticd.conf # a fifth of them over both
    for i in a b; do
        cat <<END
vrrp_instance $i {
    version 3
    state MASTER
    interface ${i}0
    virtual_router_id 7
    priority 100
    advert_int 0.1
    $([[ $i == a ]] || echo use_vmac)
    virtual_ipaddress {
        10.$([[ $i == a ]] && echo 10 || echo 20).0.100/24
    }
    virtual_routes {
        198.51.100.0/24 via 10.10.0.2 dev a0 metric 5$([[ $i == a ]] && echo 0 || echo 1)
    }
}
END
    done >/run/keepalived.conf

    build/release/bench/netlink_route_watch <<END
$frr/zebra -d -u frr -g frr -A 127.0.0.1
$frr/staticd -d -u frr -g frr -A 127.0.0.1; while [ \$(ip route | grep -c nhid) -lt 1000 ]; do sleep 0.1; done
keepalived -f /run/keepalived.conf; while ! ip address show dev a0 | grep -q 10.10.0.100; do sleep 0.1; done
ip link set a0 down
ip link set a0 up
for i in 1 2 3 4 5 6 7 8 9 10; do ip link set b0 down; ip link set b0 up; done
ip -n far link set b1 down
ip -n far link set b1 up
ip address delete 10.10.0.1/24 dev a0
ip address add 10.10.0.1/24 dev a0
ip address flush dev b0
ip address add 10.20.0.1/24 dev b0
ip route flush table main 2>/dev/null; ip -o route | sed 's/^/route delete /; s/nhid.*//' | ip -force -batch - 2>/dev/null; true
ip link set a0 down; ip link set a0 up; ip link set b0 down; ip link set b0 up
ip nexthop flush
ip link set a0 down; ip link set a0 up; ip link set b0 down; ip link set b0 up
ip link set b0 netns far
ip -n far link set b0 netns here; ip link set b0 up; ip address add 10.20.0.1/24 dev b0
ip link set a0 netns far; ip -n far link set a0 netns here; ip link set a0 up; ip address add 10.10.0.1/24 dev a0
ip link delete b0
kill \$(cat /run/keepalived.pid)
kill \$(cat /run/frr/staticd.pid)
kill \$(cat /run/frr/zebra.pid)
END
}
export -f daemons

require_root
policy=/usr/sbin/policy-rc.d # keeps the packages' services from being started
if [[ ! -e $policy ]]; then
    trap 'rm -rf "$scratch" "$policy"' EXIT
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod +x "$policy"
fi
install_missing "${build_packages[@]}" iproute2 frr keepalived
build release netlink_route_watch
confined 600 daemons
