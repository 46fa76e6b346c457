#!/usr/bin/env bats
# What the guide to operating says of a network is so. Its rules for a firewall are taken from it as they stand.

bats_require_minimum_version 1.5.0

setup() {
    load helpers
    # shellcheck disable=SC2034 # the helpers write there
    out=$BATS_TEST_TMPDIR
    guide=$BATS_TEST_DIRNAME/../../docs/operating.md
    unit a eth0=fd00::1
    unit b eth0=fd00::2
}

teardown() { remove_units; }

# rules: those of the guide.
# shellcheck disable=SC2016 # no command is meant by the marks of a block
rules() { sed -n '/^```nft$/,/^```$/{/^```/!p}' "$guide"; }

rules_but_for_the_group() { rules | grep -v 'daddr ff14::4:0'; }

# firewall COMMAND: sets the unit a's rules to what the command prints.
firewall() {
    on a nft list ruleset >/dev/null 2>&1 || skip "this kernel has no nftables"
    "$1" | on a nft --file -
}

snooped() { bridge mdb show dev wire | grep -q 'grp ff14::4:0'; }

meet() {
    start a a --json announce Media --port 8080 --version 1.0.0
    start b b --json announce Navi --port 9090 --version 1.0.0
    await 10 has a discovered Navi
    await 10 has b discovered Media
}

@test "the firewall's rules let discovery through, both ways" {
    firewall rules
    [ "$(on a nft list ruleset | grep -c 'policy drop')" = 2 ]

    meet

    stop a
    stop b
}

@test "without the rule for the group nothing gets through" {
    firewall rules_but_for_the_group
    start b b --json announce Navi --port 9090 --version 1.0.0
    await 5 has b announced Navi

    run_on a --json find Navi --timeout 2

    [ "$status" -eq 1 ] || fail "$output"
    stop b
}

@test "the kernel tells who is a member, where the group goes, and who holds the port" {
    meet

    on a ip -6 maddress show dev eth0 | grep 'inet6 ff14::4:0'
    on a ip -6 route get ff14::4:0 oif eth0 | grep '^multicast ff14::4:0 .*dev eth0 .*src fd00::1'
    on a ss -ulnp 'sport = :30491' | grep -F '[ff14::4:0]:30491' | grep '"nubo-sd",pid='
    on a nstat -az Udp6RcvbufErrors Udp6InCsumErrors | grep -E '^Udp6RcvbufErrors +0 '

    stop a
    stop b
}

@test "a bridge that snoops, and queries, sends to the members" {
    ip link set wire type bridge mcast_snooping 1 mcast_querier 1
    meet

    await 5 snooped

    stop a
    stop b
}
