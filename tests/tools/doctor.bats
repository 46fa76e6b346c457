#!/usr/bin/env bats
# nubo-sd doctor on networks in good and in bad order.

bats_require_minimum_version 1.5.0

setup() { load helpers && out=$BATS_TEST_TMPDIR; }
teardown() { remove_units; }

# doctor UNIT EXIT_CODE [OPTION...]
doctor() {
    run --separate-stderr nsenter --net="/run/netns/$1" "$NUBO_SD" doctor "${@:3}"
    [ "$status" -eq "$2" ] || fail "exit code $status: $output$stderr"
    # shellcheck disable=SC2154 # set by bats
    [ -z "$stderr" ] || fail "standard error: $stderr"
}

# tells LINE: that very line; tells_like PATTERN: one that matches.
tells() { grep -qxF -- "$1" <<<"$output" || fail "missing: $1 in
$output"; }
tells_like() { grep -qxE -- "$1" <<<"$output" || fail "missing: $1 in
$output"; }
tells_nothing_like() { ! grep -E -- "$1" <<<"$output" || fail "not expected"; }

# setting UNIT NAME VALUE: of net.ipv6.conf.
setting() { on "$1" sh -c "echo $3 >/proc/sys/net/ipv6/conf/$2"; }

is_duplicate() { on "$1" ip -o address show dev eth0 | grep -q "$2.*dadfailed"; }

@test "nothing is bad on a good network" {
    unit a eth0=fd00::1
    doctor a 0
    tells_nothing_like '^bad'
    tells "note  lo is not used: it is loopback"
    tells "ok    eth0 is used with fd00::1"
    tells "note  addresses of eth0 are not checked for duplicates - sysctl -w net.ipv6.conf.eth0.accept_dad=1"
    tells "ok    port 30491 is free"
    tells "ok    eth0 has a route to the group ff14::4:0"
    tells "note  nobody has joined the group ff14::4:0 on eth0: no registry runs"
    tells "ok    a datagram to the group comes back on eth0"
    tells "ok    no UDP datagram was lost since the start"
}

@test "findings as JSON are one object a line" {
    unit a eth0=fd00::1
    doctor a 0 --json
    [ "$(jq -rc 'select(.what == "eth0 is used with fd00::1") | [.finding, .cure]' <<<"$output")" = '["ok",""]' ]
    [ "$(jq -rc 'keys_unsorted' <<<"$output" | sort -u)" = '["finding","what","cure"]' ]
}

@test "no interface can be used" {
    unit a
    doctor a 1
    tells "bad   no interface can be used - one must be up and have an IPv6 address"
    tells "ok    port 30491 is free"
}

@test "why an interface is not used" {
    unit a eth0=fd00::1 eth1=fd01::1 eth2=fd02::1 eth3=fd03::1
    on a ip link set eth1 down
    on a ip link set eth2 multicast off
    on a ip -6 address flush dev eth3
    doctor a 0
    tells "note  eth1 is not used: it is down - ip link set eth1 up"
    tells "note  eth2 is not used: it cannot multicast - ip link set eth2 multicast on"
    tells "note  eth3 is not used: it has no IPv6 address - ip address add ADDRESS/64 dev eth3"

    doctor a 1 -i eth1 -i eth7
    tells "note  eth0 is not used: --interface does not name it"
    tells "bad   eth1 is not used: it is down - ip link set eth1 up"
    tells 'bad   there is no interface "eth7" - ip link shows those that there are'
}

@test "a link without carrier is told" {
    unit a eth0=fd00::1
    ip link set a-eth0 down
    doctor a 0
    tells "note  eth0 has no carrier - plug it in, or start its other end"
}

@test "an address that is still being checked is told" {
    unit a eth0
    on a ip -6 address flush dev eth0
    setting a eth0/accept_dad 1
    setting a eth0/dad_transmits 100
    on a ip address add fd00::1/64 dev eth0
    doctor a 1
    tells "note  eth0 is not used: an address is still being checked for duplicates - wait some seconds; the check needs a carrier"
    tells "note  the address fd00::1 of eth0 is still being checked for duplicates - wait some seconds; the check needs a carrier"
    tells "bad   no interface can be used - one must be up and have an IPv6 address"
}

@test "an address that another unit has is bad" {
    unit a eth0=fd00::1
    unit b eth0
    on b ip -6 address flush dev eth0
    setting b eth0/accept_dad 1
    on b ip address add fd00::1/64 dev eth0
    await 10 is_duplicate b fd00::1
    doctor b 1
    tells "note  eth0 is not used: another unit has its address too - give each unit its own"
    tells "bad   another unit has the address fd00::1 of eth0 too - give each unit its own: ip address delete fd00::1/64 dev eth0, and add another one"
}

@test "the port is taken by another nubo-sd" {
    unit a eth0=fd00::1
    start a a browse
    await 10 has_membership a
    doctor a 0
    tells "note  port 30491 is taken by nubo-sd (process $(cat "$out/a.pid")) - a unit has one registry; end this one to start another"
    tells "ok    the group ff14::4:0 is joined on eth0"
    stop a
}

@test "a registry that does not use an interface is noted" {
    unit a eth0=fd00::1 eth1=fd01::1
    start a a browse -i eth1
    await 10 has_membership a
    doctor a 0
    tells "note  the registry has not joined the group ff14::4:0 on eth0 - let it use this interface"
    tells "ok    the group ff14::4:0 is joined on eth1"
    stop a
}

@test "disabled IPv6 is told, of one interface and of all" {
    unit a eth0=fd00::1
    setting a eth0/disable_ipv6 1
    doctor a 1
    tells "note  eth0 is not used: IPv6 is disabled on it - sysctl -w net.ipv6.conf.eth0.disable_ipv6=0"
    tells "bad   no interface can be used - one must be up and have an IPv6 address"
    setting a all/disable_ipv6 1
    doctor a 1
    tells "bad   IPv6 is disabled on all interfaces - sysctl -w net.ipv6.conf.all.disable_ipv6=0"
}

@test "the cure for an interface of a VLAN names it as the command needs it" {
    unit a eth0.10=fd00::1
    setting a eth0.10/disable_ipv6 1
    doctor a 1
    tells "note  eth0.10 is not used: IPv6 is disabled on it - sysctl -w net.ipv6.conf.eth0/10.disable_ipv6=0"

    on a sysctl -w net.ipv6.conf.eth0/10.disable_ipv6=0
    on a ip address add fd00::1/64 dev eth0.10 nodad
    doctor a 0
    tells "note  addresses of eth0.10 are not checked for duplicates - sysctl -w net.ipv6.conf.eth0/10.accept_dad=1"
}

@test "a group that cannot be reached is bad" {
    unit a eth0=fd00::1
    on a ip -6 route delete table local multicast ff00::/8 dev eth0
    doctor a 1
    tells "bad   eth0 has no route to the group ff14::4:0 - ip -6 route add multicast ff00::/8 dev eth0 table local"
    tells_like "bad   no datagram can be sent to the group on eth0: .* - look for routes and packet filters: .*"
}

@test "lost datagrams are counted" {
    unit a eth0=fd00::1
    unit b eth0=fd00::2
    start a a browse
    await 10 has_membership a
    kill -STOP "$(cat "$out/a.pid")" # what it does not read overruns its buffer
    # shellcheck disable=SC2016 # the inner shell expands it
    on b bash -c 'exec 9>/dev/udp/ff14::4:0/30491; text=$(printf "%01000d" 0); for i in {1..5000}; do echo "$text" >&9; done'
    doctor a 0
    tells_like "note  UDP datagrams lost since the start, as a receiver was too slow: [0-9]+ - give processes .*"
}

@test "a system that shows nothing of its network is told with exit code 3" {
    # shellcheck disable=SC2016 # the inner shell expands it
    run unshare --mount sh -c 'mount -t tmpfs tmpfs "/proc/$$/net" && exec "$NUBO_SD" doctor'
    [ "$status" -eq 3 ]
    [ "$output" = "nubo-sd: the state of the network cannot be read: /proc/net: No such file or directory" ]
}

@test "no privilege is needed" {
    [ "$(id -u)" = 0 ] && [ "$(awk '/^CapEff/ {print $2}' /proc/self/status)" != 0000000000000000 ] || skip "there is none to drop"
    unit a eth0=fd00::1
    run nsenter --net=/run/netns/a setpriv --inh-caps=-all --bounding-set=-all --no-new-privs "$NUBO_SD" doctor
    [ "$status" -eq 0 ]
    tells "ok    a datagram to the group comes back on eth0"
}
