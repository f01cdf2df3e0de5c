#!/usr/bin/env bash
# Two questions of scripts/bench.sh (see Ask.cpp), asked of the command ip.
set -euo pipefail
question=$1 names=("${@:2}")

now() { echo "${EPOCHREALTIME/[.,]/}"; } # microseconds

# measure COMMAND...: repeats the command for a second, with a running number, and prints the median of its times.
measure() {
    local i=0 begin start times=()
    begin=$(now)
    while [[ $(now) -lt $((begin + 1000000)) ]]; do
        start=$(now)
        "$@" "$i"
        times+=("$(($(now) - start))")
        i=$((i + 1))
    done
    mapfile -t times < <(printf '%s\n' "${times[@]}" | sort -n)
    echo "${times[i / 2]}"
}

query() { ip -4 address show dev "${names[$1 % ${#names[@]}]}" >/dev/null; }

update() {
    local found
    printf 'link set p mtu %d\naddress flush dev p\naddress add 10.20%d.0.1/24 dev p\n' $((1400 + $1 % 2)) $(($1 % 2)) |
        ip -4 -batch -
    found=$(ip -4 address show dev p)
    [[ $found == *" mtu $((1400 + $1 % 2)) "*" 10.20$(($1 % 2)).0.1/24 "* ]]
}

measure "$question"
