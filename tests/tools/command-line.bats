#!/usr/bin/env bats
# The command line of nubo-sd: what it refuses, and in what words. Nothing here reaches a network.

bats_require_minimum_version 1.5.0

setup() {
    load helpers
    out=$BATS_TEST_TMPDIR
    good="Media --port 8080 --version 1.2.0"
}

# refuses MESSAGE ARGUMENT...: exit code 2, nothing on standard output, one line on standard error.
refuses() {
    run --separate-stderr "$NUBO_SD" "${@:2}"
    [ "$status" -eq 2 ] || fail "exit code $status: ${*:2}"
    [ -z "$output" ] || fail "standard output: $output"
    # shellcheck disable=SC2154 # set by bats
    [ "$stderr" = "nubo-sd: $1" ] || fail "standard error: $stderr"
}

# refuses_file PLACE:MESSAGE JSON: the same for a services file with that content.
refuses_file() {
    printf '%s' "$2" >"$out/services.json"
    refuses "$out/services.json:$1" announce --file "$out/services.json"
}

@test "a subcommand is needed, and no other word is taken for one" {
    refuses "a subcommand is missing: announce, browse, check, doctor, find or monitor"
    refuses "a subcommand is missing: announce, browse, check, doctor, find or monitor" --json
    refuses "The following argument was not expected: listen" listen
    refuses "The following argument was not expected: --loud" --loud browse
}

@test "help tells every option, for the tool and for every subcommand" {
    run "$NUBO_SD" --help
    [ "$status" -eq 0 ]
    for word in -i,--interface -a,--address --json --log-level --duration announce browse check doctor find "Exit codes"; do
        [[ $output == *"$word"* ]] || fail "missing: $word"
    done

    run "$NUBO_SD" announce --help
    [ "$status" -eq 0 ]
    for word in NAME --port --version --category --protocol --endpoint --uuid --file --time --no-live; do
        [[ $output == *"$word"* ]] || fail "missing: $word"
    done

    run "$NUBO_SD" browse --help
    [ "$status" -eq 0 ]
    for word in --find --time --no-live; do
        [[ $output == *"$word"* ]] || fail "missing: $word"
    done

    run "$NUBO_SD" find --help
    [ "$status" -eq 0 ]
    [[ $output == *--timeout* && $output == *--time\ * ]]
}

@test "the version is told" {
    run "$NUBO_SD" --version
    [ "$status" -eq 0 ]
    [[ $output =~ ^nubo-sd\ [0-9]+\.[0-9]+\.[0-9]+$ ]]
}

@test "a service needs a name, a port and a version" {
    refuses "NAME is required" announce
    refuses "NAME is required" announce --port 8080 --version 1.0.0
    refuses "--port is required" announce Media --version 1.0.0
    refuses "--version is required" announce Media --port 8080
    refuses "the name is missing" announce "" --port 8080 --version 1.0.0
}

@test "a port is a number from 1 to 65535" {
    refuses "--port: Value 0 not in range 1 to 65535" announce Media --port 0 --version 1.0.0
    refuses "--port: Value 65536 not in range 1 to 65535" announce Media --port 65536 --version 1.0.0
    refuses "--port: Value http not in range 1 to 65535" announce Media --port http --version 1.0.0
}

@test "versions are semantic versions" {
    reason='ServiceDiscovery failed to create SD Service "Media" with given Version(s)'
    form='not in semVer - format([~]major.minor.patch)'
    for version in 1.x.0 256.0.0 1.2.3.4 a.b.c; do
        refuses "\"Media\" cannot be announced: $reason, $form ($version)" \
            announce Media --port 8080 --version "$version"
    done
    refuses "\"Media\" cannot be announced: $reason: (1) Out of range" announce Media --port 8080 --version 1
}

@test "what cannot be put on the wire is refused with the reason" {
    refuses "\"A=B\" cannot be announced: initFromPairs: invalid Configuration-value detected: 'A=B'!" \
        announce A=B --port 8080 --version 1.0.0
    refuses "\" A\" cannot be announced: isValidSubstring: given string starts with forbidden character ' ' = 0x20!" \
        announce " A" --port 8080 --version 1.0.0
    refuses "\"a\\x07b\" cannot be announced: isValidSubstring: given string contains out-of-range character '\\x07' = 0x7 [0x20,0x7e]!" \
        announce $'a\ab' --port 8080 --version 1.0.0
    long=$(printf 'x%.0s' {1..246})
    refuses "\"$long\" cannot be announced: initFromPairs: detected too long Configuration-pair, length of '256' exceeds per substring length field!" \
        announce "$long" --port 8080 --version 1.0.0
    # shellcheck disable=SC2046 # an option and its value, many times
    refuses '"Media" cannot be announced: SDCommunicationHub - Service "Media" cannot be put on the wire: its packet of 1266 Bytes exceeds the MTU of 1212 Bytes!' \
        announce Media --port 8080 --version 1.0.0 $(printf -- '--category c%049d ' {1..19})
}

@test "an endpoint must be an IPv6 address that another unit can reach" {
    # shellcheck disable=SC2086
    {
        refuses 'the address "::1" cannot be reached from another unit' announce $good --endpoint ::1
        refuses 'the address "::" cannot be reached from another unit' announce $good --endpoint ::
        refuses 'the address "ff02::1" cannot be reached from another unit' announce $good --endpoint ff02::1
        refuses 'the address "10.0.0.1" is not an IPv6 address' announce $good --endpoint 10.0.0.1
        refuses 'the address "media" is not an IPv6 address' announce $good --endpoint media
    }
}

@test "this unit's address must be such an address too" {
    refuses '--address: "::1" cannot be reached from another unit' browse --address ::1
    refuses '--address: "here" is not an IPv6 address' browse -a here
}

@test "other options take only what they say" {
    # shellcheck disable=SC2086
    {
        refuses "--protocol: sctp not in {tcp,udp}" announce $good --protocol sctp
        refuses "--log-level: loud not in {error,warning,notice,debug,trace}" announce $good --log-level loud
        refuses '--duration: "0" is not a number of seconds above 0' announce $good --duration 0
        refuses '--timeout: "soon" is not a number of seconds above 0' find Media --timeout soon
        refuses "NAME excludes --file" announce $good --file services.json
    }
    refuses "NAME is required" find
}

@test "a services file must be there and hold a list of services" {
    refuses "$out/none.json: No such file or directory" announce --file "$out/none.json"
    refuses "$out: Is a directory" announce --file "$out"
    refuses_file "1:1: a list of at least one service is expected" '[]'
    refuses_file "2:1: a list of at least one service is expected" $'\n{"name": "Media"}'
}

@test "the first mistake in a services file is told with its place" {
    media='{"name":"Media","versions":["1.0.0"],"port":8080}'
    refuses_file '2:3: syntax error while parsing value - invalid literal; last read: '"'[<U+000A>  x'" $'[\n  x]'
    refuses_file '1:52: service 2: the port is missing or not within 1 to 65535' \
        "[$media,{\"name\":\"Navi\",\"versions\":[\"1\"]}]"
    refuses_file '1:52: service 2: "Media" cannot be announced: SDStateMachine::handlePUT found 1 duplicate Service(s)!' \
        "[$media,$media]"
}
