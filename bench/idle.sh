#!/bin/sh
# What a unit costs while nothing happens: processor time, wake-ups, memory. "alone" only listens on a network
# of its own; "one" announces 10 services and knows the 10 of its neighbour.
#
# usage: tests/support/in-namespace.sh bench/idle.sh NUBO-SD [SECONDS]
set -eu

tool=$1
seconds=${2:-30}
work=$(mktemp -d)
started=
trap 'kill $started 2>/dev/null || true; rm -rf "$work"' EXIT

services() { # PREFIX
    separator='['
    for i in 0 1 2 3 4 5 6 7 8 9; do
        printf '%s{"name":"%s%s","versions":["1.0.0"],"port":80%s0}' "$separator" "$1" "$i" "$i"
        separator=,
    done
    echo ']'
}

start() { # UNIT ARGUMENT...
    unit=$1
    shift
    nsenter --net="/run/netns/$unit" "$tool" "$@" >"$work/$unit.out" &
    echo $! >"$work/$unit.pid"
    started="$started $!"
}

tasks() { cat /proc/"$(cat "$work/$1.pid")"/task/*/"$2"; }
runtime() { tasks "$1" schedstat | awk '{ n += $1 } END { printf "%d", n }'; } # nanoseconds
switches() { tasks "$1" status | awk '/^voluntary_ctxt/ { n += $2 } END { print n }'; }
remember() { echo "$(runtime "$1") $(switches "$1")" >"$work/$1.before"; }

row() { # UNIT
    read -r runtime switches <"$work/$1.before"
    awk -v unit="$1" -v runtime=$(($(runtime "$1") - runtime)) -v switches=$(($(switches "$1") - switches)) \
        -v seconds="$seconds" -v rss="$(tasks "$1" status | awk '/^VmRSS/ { print $2; exit }')" \
        -v threads="$(find /proc/"$(cat "$work/$1.pid")"/task -mindepth 1 -maxdepth 1 | wc -l)" 'BEGIN {
            printf "%-8s %7.3f %% %10.1f /s %8.1f MiB %8d\n",
                unit, runtime / 1e7 / seconds, switches / seconds, rss / 1024, threads
        }'
}

for unit in alone one two; do
    ip netns add $unit
    services $unit >"$work/$unit.json"
done
ip link add eth0 netns one type veth peer name eth0 netns two
ip link add eth0 netns alone type veth peer name eth1 netns alone
for port in one:eth0:fd00::1 two:eth0:fd00::2 alone:eth1:fd00::2 alone:eth0:fd00::1; do
    interface=${port#*:}
    ip -n "${port%%:*}" link set "${interface%%:*}" up
    ip -n "${port%%:*}" address add "${interface#*:}/64" dev "${interface%%:*}" nodad
done
start alone --interface eth0 browse
start one announce --file "$work/one.json"
start two announce --file "$work/two.json"
sleep 4
[ "$(grep -c '^discovered' "$work/one.out")" = 10 ] || { echo "not all were discovered" >&2 && exit 1; }

remember alone
remember one
sleep "$seconds"
echo "unit     processor     wake-ups     resident  threads"
row alone
row one
