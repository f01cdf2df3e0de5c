#!/usr/bin/env bash
# Brings 100 links from nothing to address and route, seven times by turns: with this library, the Go program and
# `ip -batch`. Prints for each run the kind of links, who, and the microseconds from the start of the program to its end,
# or "inf" if something was refused. For a network namespace or a virtual machine without such links; see
# scripts/bench.sh.
#
#     boot.sh KIND LIBRARY GO    veth or vlan, and the two programs
set -euo pipefail
kind=$1 library=$2 go=$3

# The veth links are there before, and down. VLANs are made by those who are asked, on p.
make_veth() {
    local number
    for number in "${numbers[@]}"; do
        [[ $((number % 2)) -eq 0 ]] || echo "link add v$number group 100 type veth peer name v$((number + 1))"
    done | ip -batch -
}
remove_veth() { ip link delete group 100; }
make_vlan() {
    ip link add p type veth peer name q
    ip link set p up
    ip link set q up
}
remove_vlan() { ip link delete p; }

# For `ip -batch`.
lines() {
    local number name
    for number in "${numbers[@]}"; do
        name=$prefix$number
        case $kind in
            veth) echo "link set $name up" ;;
            vlan) echo "link add link p name $name up type vlan id $number" ;;
        esac
        echo "address add 10.100.$number.1/24 dev $name"
        echo "route add 10.101.$number.0/24 via 10.100.$number.2"
    done
}

ask_library() { "$library" boot "${numbers[@]/#/$prefix}"; }
ask_go() { "$go" boot "${numbers[@]/#/$prefix}"; }
ask_ip() { ip -batch - <<<"$batch"; }

mapfile -t numbers < <(seq 100)
case $kind in
    veth) prefix=v ;;
    vlan) prefix=p. ;;
esac
batch=$(lines)
for who in {,,,,,,}{library,go,ip}; do
    "make_$kind"
    sleep 0.3 # the kernel tells of new carriers
    begin=${EPOCHREALTIME/[.,]/}
    "ask_$who" || true
    end=${EPOCHREALTIME/[.,]/}
    time=$((end - begin))
    [[ $(ip route | grep -c '^10\.101\..* via ') -eq ${#numbers[@]} ]] || time=inf
    "remove_$kind"
    echo "boot;${#numbers[@]} $kind;$who;$time"
done
