#!/usr/bin/env bash
# Measures the library beside what a user would take instead, in network namespaces made for it: libnl itself, the Go
# netlink library, pyroute2's NDB and the command ip. Prints one table at the end, in which a row that misses what is
# wanted is marked, and the last line counts these.
#
#     scripts/bench.sh [PART...]
#
#     start       a start and a stop, beside libnl
#     queries     the queries and a closed log statement, with its machine code, beside libnl
#     memory      what a process with one manager takes, beside libnl
#     peers       a query beside few links and many, and an update beside many: beside Go, NDB and ip
#     updates     updates on one processor and on two, back to back and with pauses, beside Go and libnl; and how often
#                 updates have the kernel asked for a table
#     boot        100 links brought from nothing to address and route, beside ip and Go: veth here, VLANs in the
#                 virtual machine
#     waits       how long queries wait in floods
#     readings    what the readings of large tables cost
#
# Without a part it measures all of them, and draws doc/costs.svg. It installs the Debian packages that are missing and
# builds build/release. Needs root, a quiet machine with two processors, and about 15 minutes for all.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source-path=SCRIPTDIR source=machine.sh
source "$project/scripts/machine.sh"

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

# ask TIMES "PEER..." QUESTION OBJECTS ARGUMENT...: asks each peer so often, by turns, and prints a row for each answer.
ask() {
    local times=$1 peers=$2 question=$3 objects=$4 peer answer
    shift 4
    for ((; times > 0; times--)); do
        for peer in $peers; do
            answer=$("ask_$peer" "$question" "$@")
            echo "$question;$objects;$peer;$answer"
        done
    done
}
ask_library() { "$programs/netlink_route_ask" "$@"; }
ask_libnl() { "$programs/netlink_route_ask" "$1-libnl" "${@:2}"; }
ask_go() { "$programs/ask_go" "$@"; }
ask_ndb() { /usr/bin/python3 "$project/bench/peers/ask.py" "$@"; }
ask_ip() { "$project/bench/peers/ask.sh" "$@"; }

# Names come in an order without locality.
ask_peers() {
    local names
    make_links "$1"
    if [[ $1 -le 3 ]]; then
        ask 3 "library go ndb ip" query "$1 links" p
    else
        mapfile -t names < <(seq -f 'm%g' "$(($1 - 3))" | shuf --random-source=<(yes))
        ask 3 "library go ndb ip" query "$1 links" "${names[@]}"
        ask 3 "library go ndb ip" update "$1 links" 0
    fi
}

ask_updates() {
    local processors pause
    make_links 3
    for processors in 0 0,1; do
        taskset --cpu-list --pid "$processors" "$BASHPID" >/dev/null
        for pause in 0 150; do
            ask 5 "library go libnl" update "$(nproc) CPU, pause $pause us" "$pause"
            ask 1 library readings "$(nproc) CPU, pause $pause us" "$pause"
        done
    done
    ask 3 "library ndb ip" update "3 links" 0
}

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
measure_start() { # each in a process of its own, as a program starts
    beside_libnl start-10 '^start/10 links' 25
    beside_libnl start-1000 '^start/1000 links' 9
    beside_libnl start-20000 '^start/20000 routes' 9
    beside_libnl stop '^stop/' 9
}

measure_queries() {
    beside_libnl queries '-^(start|stop)/' 9
    echo "A closed log statement (CacheManager::changeCb is one): three loads and the comparison"
    objdump --disassemble --no-show-raw-insn --demangle build/release/components/netlink/libnetlink_route.so |
        awk '/^[0-9a-f]+ <netlink_route::CacheManager::changeCb/ { inside = 1 } /^$/ { inside = 0 } inside'
}

measure_memory() {
    confined 60 memory 10 20 >"$results/memory.txt"
    confined 120 memory 1003 20000 >>"$results/memory.txt"
}

measure_peers() {
    confined 120 ask_peers 3 >"$results/peers.txt"
    confined 300 ask_peers 1003 >>"$results/peers.txt"
}

measure_updates() {
    [[ $(nproc) -ge 2 ]] || die "updates are measured on two processors; here is one"
    confined 300 ask_updates >"$results/updates.txt"
}

# The virtual machine's only output is that of the command, with its errors.
measure_boot() {
    choose_machine "$own_architecture"
    install_missing "${machine_packages[@]}"
    machine_programs+=(bash)
    prepare_machine release
    {
        confined 300 bench/peers/boot.sh veth "$programs/netlink_route_ask" "$programs/ask_go"
        run_in_machine 300 "$project/bench/peers/boot.sh" vlan "$programs/netlink_route_ask" "$programs/ask_go" ||
            say "NOT MEASURED: VLANs at boot"
    } | awk '/^boot;/ { print; next } { print >"/dev/stderr" }' >"$results/boot.txt"
}

measure_waits() { confined 600 "$programs/netlink_route_waits" | tee "$results/waits"; }
measure_readings() { confined 1200 "$programs/netlink_route_readings" | tee "$results/readings"; }

export -f make_links ask ask_library ask_libnl ask_go ask_ndb ask_ip ask_peers ask_updates footprint memory
export programs project scratch

all=(start queries memory peers updates boot waits readings)
[[ $# -gt 0 ]] || set -- "${all[@]}"
for part in "$@"; do
    [[ " ${all[*]} " == *" $part "* ]] || usage
done
require_namespaces
install_missing "${build_packages[@]}" "${peer_packages[@]}" gnuplot-nox binutils
build release
quietly "building the Go program" env GO111MODULE=off GOPATH=/usr/share/gocode GOCACHE="$scratch/go" \
    go build -o "$programs/ask_go" bench/peers/ask.go
mkdir -p "$results"
rm -f "$results"/*

for part in "$@"; do
    say "measuring: $part"
    "measure_$part"
done
/usr/bin/python3 bench/report.py "$results" | tee "$results/table.txt"
if [[ -e $results/peers.dat ]]; then
    gnuplot -e "folder='$results'" bench/costs.gnuplot >doc/costs.svg
fi
