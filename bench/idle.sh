#!/bin/sh
# Measures two units while nothing changes: one announces services, the other knows them. Prints processor time,
# wake-ups, memory and network traffic.
#
# usage: tests/support/in-namespace.sh bench/idle.sh NUBO-SD [SECONDS [SERVICES]...]
set -eu

tool=$1
seconds=${2:-20}
if [ $# -gt 2 ]; then shift 2; else set -- 10 100 1000 10000; fi
work=$(mktemp -d)
started=
stop() {
    for pid in $started; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" || true
    done
    started=
}
trap 'stop; rm -rf "$work"' EXIT

services() { # NUMBER
    awk -v n="$1" 'BEGIN {
        for (i = 0; i < n; ++i)
            printf "%s{\"name\":\"Service%d\",\"versions\":[\"1.0.0\"],\"port\":8080}\n", i ? "," : "[", i
        print "]"
    }'
}

start() { # UNIT ARGUMENT...
    unit=$1
    shift
    nsenter --net="/run/netns/$unit" "$tool" "$@" >"$work/$unit.out" &
    echo $! >"$work/$unit.pid"
    started="$started $!"
}

tasks() { cat /proc/"$(cat "$work/$1.pid")"/task/*/"$2"; }
runtime() { tasks "$1" schedstat | awk '{ n += $1 } END { printf "%.0f", n }'; } # nanoseconds
switches() { tasks "$1" status | awk '/^voluntary_ctxt/ { n += $2 } END { print n }'; }
sent() { # prints packets and bytes sent by the announcing unit
    ip -n announces -json -stats link show eth0 | jq -r '.[0].stats64.tx | "\(.packets) \(.bytes)"'
}
remember() { echo "$(runtime "$1") $(switches "$1") $(sent)" >"$work/$1.before"; }

row() { # SERVICES UNIT
    set -- "$@" "$(runtime "$2")" "$(switches "$2")" "$(sent)" \
        "$(tasks "$2" status | awk '/^VmRSS/ { print $2; exit }')"
    echo "$(cat "$work/$2.before") $3 $4 $5 $6" | awk -v services="$1" -v unit="$2" -v seconds="$seconds" '{
        printf "%8d  %-10s %10.2f %12.1f %12.1f %12.1f %12.0f\n", services, unit, ($5 - $1) * 60 / seconds / 1e9,
            ($6 - $2) / seconds, $9 / 1024, ($7 - $3) / seconds, ($8 - $4) / seconds
    }'
}

ip netns add announces
ip netns add knows
ip link add eth0 netns announces type veth peer name eth0 netns knows
address=1
for unit in announces knows; do
    ip -n $unit link set eth0 up
    ip -n $unit address add fd00::$address/64 dev eth0 nodad
    address=2
done

echo "services  unit         s/minute     wake-ups/s          MiB  datagrams/s      bytes/s"
for count in "$@"; do
    services "$count" >"$work/services.json"
    start knows browse
    start announces announce --file "$work/services.json"
    # Each of the first four offers of a service takes 1 ms; after that all services are offered once per second.
    sleep $((4 + count / 200))
    known=$(grep -c '^discovered' "$work/knows.out" || true)
    [ "$known" = "$count" ] || { echo "only $known of $count services were discovered" >&2 && exit 1; }
    remember announces
    remember knows
    sleep "$seconds"
    row "$count" announces
    row "$count" knows
    stop
done
