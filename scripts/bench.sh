#!/usr/bin/env bash
# Measures the library beside what a user would take instead, in network namespaces made for it: libnl itself, the Go
# netlink library, pyroute2's NDB and the command ip. Prints one table of ratios, how long queries wait in floods, what
# readings cost and the machine code of a closed log statement, and draws doc/costs.svg.
#
#     scripts/bench.sh
#
# It installs the Debian packages that are missing and builds build/release. Needs root, a quiet machine, and about
# 10 minutes.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

peer_packages=(golang-go golang-github-vishvananda-netlink-dev python3 python3-pyroute2 iproute2)
programs=$project/build/release/bench
results=$project/build/bench # what was measured

# make_links COUNT: lo and a cable p-q, p with an address; and links on q, each with an address, up to that many links.
make_links() {
    local i
    ip link set lo up
    ip link add p type veth peer name q
    ip link set p up
    ip link set q up
    ip address add 10.200.0.1/24 dev p
    for i in $(seq "$(($1 - 3))"); do
        echo "link add link q name m$i type macvlan"
        echo "address add 10.$((i / 250)).$((i % 250)).1/24 dev m$i"
    done | ip -batch -
}

# ask COUNT: asks everybody the two questions on a kernel with that many links, three times by turns. Names come in an
# order without locality.
ask() {
    local names=(p) line peer
    make_links "$1"
    [[ $1 -le 3 ]] || mapfile -t names < <(seq -f 'm%g' "$(($1 - 3))" | shuf --random-source=<(yes))
    for peer in {,,}{library,go,ndb,ip}; do
        "ask_$peer" "${names[@]}" | while read -r line; do
            echo "$1 $peer $line"
        done
    done
}
ask_library() { "$programs/netlink_route_ask" "$@"; }
ask_go() { "$scratch/ask" "$@"; }
ask_ndb() { /usr/bin/python3 "$project/bench/peers/ask.py" "$@"; }
ask_ip() { "$project/bench/peers/ask.sh" "$@"; }

# footprint PROGRAM: KiB of resident memory of a process that has read its caches, and of the pages among it that are its
# own, which scripts/test-armhf.sh measures, too.
footprint() {
    coproc measured { exec "$programs/$1"; }
    read -r _ <&"${measured[0]}" # started
    echo >&"${measured[1]}"
    read -r _ <&"${measured[0]}" # running
    sleep 2
    # shellcheck disable=SC2154 # coproc sets it
    awk '/^Rss:|^Anonymous:/ { printf "%s ", $2 }' "/proc/$measured_PID/smaps_rollup"
    echo >&"${measured[1]}"
    # shellcheck disable=SC2154
    wait "$measured_PID"
}

# memory LINKS ROUTES
memory() {
    make_links "$1"
    seq "$2" | awk '{ print "route add 20." int($1 / 250) "." $1 % 250 ".0/24 via 10.200.0.2" }' | ip -batch -
    echo "$1 links, $2 routes;$(footprint netlink_route_footprint);$(footprint netlink_route_footprint_bare)"
}

# beside_libnl NAME FILTER REPETITIONS
beside_libnl() {
    confined 1200 "$programs/netlink_route_bench" --benchmark_filter="$2" --benchmark_repetitions="$3" \
        --benchmark_min_time=0.1 --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true \
        --benchmark_out="$results/$1.json" --benchmark_out_format=json >"$results/$1.txt" 2>&1
}
export -f make_links ask ask_library ask_go ask_ndb ask_ip footprint memory
export programs project scratch

require_namespaces
install_missing "${build_packages[@]}" "${peer_packages[@]}" gnuplot-nox binutils
build release
quietly "building the Go program" env GO111MODULE=off GOPATH=/usr/share/gocode GOCACHE="$scratch/go" \
    go build -o "$scratch/ask" bench/peers/ask.go
mkdir -p "$results"
rm -f "$results"/*.json

say "measuring beside libnl"
beside_libnl start-10 '^start/10 links' 25 # each in a process of its own, as a program starts
beside_libnl start-1000 '^start/1000 links' 9
beside_libnl start-20000 '^start/20000 routes' 9
beside_libnl others '-^start/' 9
say "measuring memory"
confined 60 memory 10 20 >"$results/memory.txt"
confined 120 memory 1003 20000 >>"$results/memory.txt"
say "measuring beside the peers"
confined 120 ask 3 >"$results/peers.txt"
confined 300 ask 1003 >>"$results/peers.txt"

/usr/bin/python3 bench/report.py "$results" | tee "$results/table.txt"
mkdir -p doc
gnuplot -e "folder='$results'" bench/costs.gnuplot >doc/costs.svg

say "measuring the waits of queries"
confined 600 "$programs/netlink_route_waits" | tee "$results/waits.txt"
say "measuring readings"
confined 1200 "$programs/netlink_route_readings" | tee "$results/readings.txt"

echo "A closed log statement (CacheManager::changeCb is one): three loads and the comparison"
objdump --disassemble --no-show-raw-insn --demangle build/release/components/netlink/libnetlink_route.so |
    awk '/^[0-9a-f]+ <netlink_route::CacheManager::changeCb/ { inside = 1 } /^$/ { inside = 0 } inside'
