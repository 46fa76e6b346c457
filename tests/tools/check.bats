#!/usr/bin/env bats
# nubo-sd check: every mistake in a list of services, with its place.

bats_require_minimum_version 1.5.0

setup() {
    load helpers
    cd "$BATS_TEST_TMPDIR" || exit 1
    media='{"name":"Media","versions":["1.0.0"],"port":8080}'
}

# finds JSON MISTAKE...: each mistake is "LINE:COLUMN: TEXT", and there is no other.
finds() {
    local expected
    printf '%s' "$1" >list.json
    expected=$(printf 'list.json:%s\n' "${@:2}")
    run --separate-stderr "$NUBO_SD" check list.json
    [ "$status" -eq 2 ] || fail "exit code $status for $1"
    [ -z "$output" ] || fail "standard output: $output"
    # shellcheck disable=SC2154 # set by bats
    [ "$stderr" = "$expected" ] || fail "got      $stderr
expected $expected"
}

# finds_in_service JSON MISTAKE...: the same for a list of that service alone.
finds_in_service() { finds "[$1]" "${@:2}"; }

# fine COUNT JSON
fine() {
    printf '%s' "$2" >list.json
    run --separate-stderr "$NUBO_SD" check list.json
    [ "$status" -eq 0 ] || fail "exit code $status: $stderr"
    [ "$output" = "list.json: $1 fine" ] || fail "standard output: $output"
    [ -z "$stderr" ] || fail "standard error: $stderr"
}

@test "a list without mistakes is fine" {
    fine "1 service is" "[$media]"
    fine "1 service is" $'\xef\xbb\xbf'"[$media]"
    fine "2 services are" "[$media, ${media/8080/8081}]"
    fine "1 service is" '[{"event":"discovered","uuid":"1","name":"Media","versions":["1.0.0","~1.1.0"],
        "categories":["audio"],"address":"fd00::1","port":8080,"protocol":"udp","uri":"http://elsewhere/"}]'
}

@test "a file is needed that can be read" {
    run --separate-stderr "$NUBO_SD" check none.json
    [ "$status" -eq 2 ]
    [ "$stderr" = "nubo-sd: none.json: No such file or directory" ]
    run --separate-stderr "$NUBO_SD" check .
    [ "$status" -eq 2 ]
    [ "$stderr" = "nubo-sd: .: Is a directory" ]
    run --separate-stderr "$NUBO_SD" check
    [ "$status" -eq 2 ]
    [ "$stderr" = "nubo-sd: FILE is required" ]
}

@test "what is no JSON ends the check at that place" {
    finds '' "1:1: syntax error while parsing value - unexpected end of input; expected '[', '{', or a literal"
    finds $'[\n  x]' "2:3: syntax error while parsing value - invalid literal; last read: '[<U+000A>  x'"
    finds "[$media,"$'\n]' "2:1: syntax error while parsing value - unexpected ']'; expected '[', '{', or a literal"
    finds $'[{"port":80\n"name":""}]' \
        "2:6: syntax error while parsing object - unexpected string literal; expected '}'"
    finds '[{"port":1e999}]' "1:14: number overflow parsing '1e999'"
}

@test "a list of services is expected" {
    finds '[]' "1:1: a list of at least one service is expected"
    finds $'\n  {"name":"Media"}' "2:3: a list of at least one service is expected"
    finds '"Media"' "1:1: a list of at least one service is expected"
    finds $'[1,\n "Media", [{"name":1}]]' \
        "1:2: service 1: is not an object" "2:2: service 2: is not an object" "2:11: service 3: is not an object"
}

@test "a key is known and is there once" {
    finds_in_service '{"name":"Media","versions":["1.0.0"],"port":8080,"prot":"udp"}' \
        '1:51: service 1: unknown key "prot"'
    finds_in_service '{"name":"Media","versions":["1.0.0"],"port":8080,"p\u0007\u00e4":1}' \
        '1:51: service 1: unknown key "p\x07\xc3\xa4"'
    finds_in_service '{"name":"Media","versions":["1.0.0"],"port":8080,"name":"Navi"}' \
        '1:51: service 1: the key "name" is there twice'
}

@test "a value is of the key's kind" {
    finds_in_service '{"name":5,"versions":"1.0.0","port":"8080","categories":["a",1,[2],{"b":3}],"uri":{"a":[]}}' \
        '1:10: service 1: "name" has a value of the wrong kind' \
        '1:23: service 1: "versions" has a value of the wrong kind' \
        '1:38: service 1: "port" is not a whole number' \
        '1:63: service 1: "categories" has a value of the wrong kind' \
        '1:65: service 1: "categories" has a value of the wrong kind' \
        '1:69: service 1: "categories" has a value of the wrong kind' \
        '1:84: service 1: "uri" has a value of the wrong kind'
    finds_in_service '{"name":"Media","versions":["1.0.0"],"port":80.5}' \
        '1:46: service 1: "port" is not a whole number'
}

@test "what is missing is told at the service, what is empty at the value" {
    finds $'[\n {}]' \
        '2:2: service 1: the name is missing' \
        '2:2: service 1: the port is missing or not within 1 to 65535' \
        '2:2: service 1: "?" cannot be announced: ServiceDiscovery failed to create SD Service "?" due to invalid Version(s)'
    finds_in_service '{"name":"","versions":[],"port":0}' \
        '1:10: service 1: the name is missing' \
        '1:24: service 1: "?" cannot be announced: ServiceDiscovery failed to create SD Service "?" due to invalid Version(s)' \
        '1:34: service 1: the port is missing or not within 1 to 65535'
}

@test "an endpoint can be reached from another unit" {
    finds_in_service '{"name":"Media","versions":["1.0.0"],"port":70000,"address":"::1","protocol":"sctp"}' \
        '1:46: service 1: the port is missing or not within 1 to 65535' \
        '1:62: service 1: the address "::1" cannot be reached from another unit' \
        '1:79: service 1: the protocol "sctp" is neither tcp nor udp'
    finds_in_service '{"name":"Media","versions":["1.0.0"],"port":-1,"address":"media"}' \
        '1:46: service 1: the port is missing or not within 1 to 65535' \
        '1:59: service 1: the address "media" is not an IPv6 address'
}

@test "each text that the library refuses is told at its place" {
    reason='"Media" cannot be announced: ServiceDiscovery failed to create SD Service "Media" with given Version(s), not in semVer - format([~]major.minor.patch)'
    finds $'[{"name":"Media",\n"versions":["1.x.0","1.0.0",\n"256.0.0"],"port":8080,"categories":["ok","a\\u0007"]}]' \
        "2:13: service 1: $reason (1.x.0)" \
        "3:1: service 1: $reason (256.0.0)" \
        '3:43: service 1: "Media" cannot be announced: isValidSubstring: given string contains out-of-range character '"'\\x07' = 0x7 [0x20,0x7e]!"
    finds_in_service '{"name":"A=B","versions":["1.0.0"],"port":8080}' \
        "1:10: service 1: \"A=B\" cannot be announced: initFromPairs: invalid Configuration-value detected: 'A=B'!"
}

@test "a service fits into a datagram" {
    categories=$(printf '"c%049d",' {1..19})
    finds_in_service "{\"name\":\"Media\",\"versions\":[\"1.0.0\"],\"port\":8080,\"categories\":[${categories%,}]}" \
        '1:2: service 1: "Media" cannot be announced: SDCommunicationHub - Service "Media" cannot be put on the wire: its packet of 1266 Bytes exceeds the MTU of 1212 Bytes!'
}

@test "an instance and an identifier are there once" {
    finds "[$media,"$'\n'"${media/1.0.0/x.0.0}]" \
        '2:1: service 2: "Media" cannot be announced: SDStateMachine::handlePUT found 1 duplicate Service(s)!' \
        '2:29: service 2: "Media" cannot be announced: ServiceDiscovery failed to create SD Service "Media" with given Version(s), not in semVer - format([~]major.minor.patch) (x.0.0)'
    local one=${media/\{/'{"uuid":"1",'}
    finds "[$one,"$'\n'"${one/Media/Navi}]" \
        '2:9: service 2: the uuid "1" is used twice'
}

@test "mistakes come in the order of the file, from all its services" {
    finds "[$media,"$'\n{"port":0,"name":"Navi","versions":["1.0.0"]},\n{"prot":1,"name":"Tuner","versions":["1.0.0"],"port":1}]' \
        '2:9: service 2: the port is missing or not within 1 to 65535' \
        '3:2: service 3: unknown key "prot"'
}

@test "announce tells the first of them in the same words" {
    finds '[{"port":0,"name":"Navi","versions":["x"]}]' \
        '1:10: service 1: the port is missing or not within 1 to 65535' \
        '1:38: service 1: "Navi" cannot be announced: ServiceDiscovery failed to create SD Service "Navi" with given Version(s), not in semVer - format([~]major.minor.patch) (x)'
    first=${stderr%%$'\n'*}
    run --separate-stderr "$NUBO_SD" announce --file list.json
    [ "$status" -eq 2 ]
    [ "$stderr" = "nubo-sd: $first" ]
}
