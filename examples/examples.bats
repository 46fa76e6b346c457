#!/usr/bin/env bats
# Each example runs for a second on a unit and does what it shows. $EXAMPLES is the folder of the programs.

bats_require_minimum_version 1.5.0

setup() {
    load ../tests/tools/helpers
    # shellcheck disable=SC2034 # the helpers write there
    out=$BATS_TEST_TMPDIR
    unit a eth0=fd00::1
}

teardown() { remove_units; }

@test "the registry learns of services" {
    unit b eth0=fd00::2
    start b b announce Media --port 8080 --version 1.0.0
    run -0 on a "$EXAMPLES/example-registry" fd00::1 2
    [[ $output == *"services known:"$'\n'"  service-1  http://[fd00::2]:8080/Media/"* ]]
    stop b
}

@test "the library takes the interface of a dispatcher of one's own" {
    unit b eth0=fd00::2
    start b b announce Media --port 8080 --version 1.0.0
    run -0 on a "$EXAMPLES/example-dispatcher" eth0 fd00::1 1
    [[ $output == *"reported eth0 fd00::1"* ]]
    stop b
}

@test "the log goes to syslog, or wherever it is sent" {
    run -0 on a "$EXAMPLES/example-syslog" fd00::1 1
    [[ $output == *nubo\[*\]:\ src/*.cpp:[0-9]*\ * ]]
}

@test "wrong arguments are answered with the usage" {
    for example in registry dispatcher syslog; do
        run -2 "$EXAMPLES/example-$example"
        [[ $output == "usage: example-$example "* ]]
    done
}
