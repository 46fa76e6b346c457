#!/usr/bin/env bats
# Runs each example on a unit and checks what it does. $EXAMPLES is the folder of the programs.

bats_require_minimum_version 1.5.0

setup() {
    load ../tests/tools/helpers
    # shellcheck disable=SC2034 # used by the helpers
    out=$BATS_TEST_TMPDIR
    unit a eth0=fd00::1
}

teardown() { remove_units; }

@test "the registry discovers services" {
    unit b eth0=fd00::2
    start b b announce Media --port 8080 --version 1.0.0
    run -0 on a "$EXAMPLES/example-registry" fd00::1 2
    [[ $output == *"services known:"$'\n'"  service-1  http://[fd00::2]:8080/Media/"* ]]
    stop b
}

@test "the library uses the interface that a custom dispatcher reports" {
    unit b eth0=fd00::2
    start b b announce Media --port 8080 --version 1.0.0
    run -0 on a "$EXAMPLES/example-dispatcher" eth0 fd00::1 1
    [[ $output == *"reported eth0 fd00::1"* ]]
    stop b
}

# segment NAME ADDRESS NAME ADDRESS: creates two units connected by a separate link.
segment() {
    ip netns add "$1"
    ip netns add "$3"
    ip link add eth0 netns "$1" type veth peer name eth0 netns "$3"
    for unit in "$1 $2" "$3 $4"; do
        on "${unit% *}" ip link set lo up
        on "${unit% *}" ip link set eth0 up
        on "${unit% *}" ip address add "${unit#* }/64" dev eth0 nodad
    done
}

@test "the gateway offers the services of another namespace here" {
    unit b eth0=fd00::2
    segment inner fd01::1 seller fd01::2
    start b b --json browse
    on a "$EXAMPLES/example-gateway" fd00::1 inner fd01::1 3 >"$out/gateway.out" 2>&1 3>&- &
    gateway=$!

    start seller seller announce Media --port 8080 --version 1.0.0
    await 10 has b discovered Media
    jq -e 'select(.event == "discovered") | .address == "fd01::2" and .port == 8080' "$out/b.out"
    stop seller
    await 10 has b gone Media

    wait "$gateway"
    diff - "$out/gateway.out" <<<$'offered here: Media\nwithdrawn here: Media'
    stop b
}

@test "the custom log channel writes to syslog" {
    run -0 on a "$EXAMPLES/example-syslog" fd00::1 1
    [[ $output == *nubo\[*\]:\ src/*.cpp:[0-9]*\ * ]]
}

@test "wrong arguments print the usage" {
    for example in registry dispatcher syslog gateway; do
        run -2 "$EXAMPLES/example-$example"
        [[ $output == "usage: example-$example "* ]]
    done
}
