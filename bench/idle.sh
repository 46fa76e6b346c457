#!/bin/sh
# What a unit costs that announces 10 services and knows 10 others: processor time, wake-ups, memory.
#
# usage: tests/support/in-namespace.sh bench/idle.sh NUBO-SD [SECONDS]
set -eu

tool=$1
seconds=${2:-30}
work=$(mktemp -d)
trap 'kill $one $two 2>/dev/null || true; rm -rf "$work"' EXIT

services() { # PREFIX
    for i in 0 1 2 3 4 5 6 7 8 9; do
        printf '%s{"name":"%s%s","versions":["1.0.0"],"port":80%s0}' "${separator:-}" "$1" "$i" "$i"
        separator=,
    done
}

for unit in one two; do
    ip netns add $unit
    separator=
    echo "[$(services $unit)]" >"$work/$unit.json"
done
ip link add eth0 netns one type veth peer name eth0 netns two
ip -n one link set eth0 up
ip -n two link set eth0 up
ip -n one address add fd00::1/64 dev eth0 nodad
ip -n two address add fd00::2/64 dev eth0 nodad
nsenter --net=/run/netns/one "$tool" announce --file "$work/one.json" >"$work/one.out" &
one=$!
nsenter --net=/run/netns/two "$tool" announce --file "$work/two.json" >"$work/two.out" &
two=$!
sleep 4

[ "$(grep -c '^discovered' "$work/one.out")" = 10 ] || { echo "not all were discovered" >&2 && exit 1; }

runtime() { cat /proc/$one/task/*/schedstat | awk '{ n += $1 } END { printf "%d", n }'; } # nanoseconds
switches() { cat /proc/$one/task/*/status | awk '/^voluntary_ctxt/ { n += $2 } END { print n }'; }

runtime_before=$(runtime)
switches_before=$(switches)
sleep "$seconds"
awk -v runtime=$(($(runtime) - runtime_before)) -v switches=$(($(switches) - switches_before)) \
    -v seconds="$seconds" -v rss="$(awk '/^VmRSS/ { print $2 }' /proc/$one/status)" \
    -v threads="$(find /proc/$one/task -mindepth 1 -maxdepth 1 | wc -l)" 'BEGIN {
        printf "processor  %.3f %% of a core\n", runtime / 1e7 / seconds
        printf "wake-ups   %.1f a second, all threads\n", switches / seconds
        printf "resident   %.1f MiB\n", rss / 1024
        printf "threads    %d\n", threads
    }'
