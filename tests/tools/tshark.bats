#!/usr/bin/env bats
# An independent protocol analyser judges what nubo-sd puts on the wire.

bats_require_minimum_version 1.5.0

setup() {
    load helpers
    out=$BATS_TEST_TMPDIR
    unit a eth0=fd00::1
    unit b eth0=fd00::2
}

teardown() { remove_units; }

# start_capture: on unit b, of everything on the discovery port; returns when it is running.
start_capture() {
    nsenter --net=/run/netns/b tshark -q -i eth0 -f "udp port 30491" -w "$out/capture.pcapng" 2>"$out/tshark.log" 3>&- &
    echo $! >"$out/capture.pid"
    await 20 has_line tshark.log "Capture started"
}

# end_capture PACKETS: once that many packets were seen.
end_capture() {
    await 20 captured "$1"
    kill -INT "$(cat "$out/capture.pid")"
    wait "$(cat "$out/capture.pid")" || true
    rm "$out/capture.pid"
}

# captured_batch: whether several packets were seen in one datagram, as the offers that have settled go out.
captured_batch() {
    decode -Y 'frame.number > 1' -T fields -e someip.sessionid | awk -F, 'NF >= 7 { found = 1 } END { exit !found }'
}

captured() { [ "$(decode 2>/dev/null | wc -l)" -ge "$1" ]; }

decode() { tshark -r "$out/capture.pcapng" -d udp.port==30491,someip "$@" 2>/dev/null; }

# fields FILTER FIELD...: the fields' values of the packets that pass, "|" between fields, "," within one.
fields() {
    local options=(-T fields -E separator='|') field
    for field in "${@:2}"; do options+=(-e "$field"); done
    decode -Y "$1" "${options[@]}"
}

equals() {
    [ "$1" = "$2" ] || fail "got      $1
expected $2"
}

@test "an analyser finds no fault in offers, stop-offers and finds" {
    start_capture
    start a a announce Media --port 8080 --version 1.2.0 --version '~1.3.1' --category audio
    run_on b find Navi --timeout 2
    await 20 captured 9
    stop a
    end_capture 10

    equals "$(decode -Y '_ws.malformed || _ws.expert' | head -n 3)" ""
    equals "$(decode -Y '!someipsd' | head -n 3)" ""
}

@test "an offer has the fields that it should" {
    start_capture
    start a a announce Media --port 8080 --version 1.2.0 --version '~1.3.1' --category audio
    end_capture 5
    stop a

    first=$(fields 'someipsd.entry.type == 1 && someip.sessionid == 1' \
        ipv6.src ipv6.dst ipv6.hlim udp.dstport \
        someip.serviceid someip.methodid someip.length someip.clientid someip.sessionid \
        someip.protoversion someip.interfaceversion someip.messagetype someip.returncode)
    equals "$first" "fd00::1|ff14::4:0|255|30491|0xffff|0x8100|148|0x0000|0x0001|0x01|0x01|0x02|0x00"
    entry=$(fields 'someip.sessionid == 1' \
        someipsd.flags someipsd.length_entriesarray someipsd.entry.type \
        someipsd.entry.index1 someipsd.entry.index2 someipsd.entry.numopt1 someipsd.entry.numopt2 \
        someipsd.entry.serviceid someipsd.entry.instanceid someipsd.entry.majorver someipsd.entry.ttl \
        someipsd.entry.minorver)
    equals "$entry" "0xe0|16|0x01|0x00|0x01|0x01|0x01|0xfffe|0x0001|1|120|3"
    option=$(fields 'someip.sessionid == 1' \
        someipsd.option.type someipsd.option.length someipsd.option.ipv6address someipsd.option.proto \
        someipsd.option.port someipsd.option.config_string_element)
    equals "$option" "6,1|21,85|fd00::1|6|8080|category=audio,l6proto=nubo,otherserv=Media,txtvers=1,version=1.2.0,version=~1.3.1"
}

@test "offers come at 0, 100, 300 and 700 ms, then once a second, numbered from 1" {
    start_capture
    start a a announce Media --port 8080 --version 1.0.0
    end_capture 7
    stop a

    equals "$(fields someipsd someip.sessionid | head -n 7 | tr '\n' ' ')" \
        "0x0001 0x0002 0x0003 0x0004 0x0005 0x0006 0x0007 "
    # Not sooner than it should be; by how much later depends on the machine.
    fields someipsd frame.time_relative | head -n 4 | awk '
        BEGIN { split("0 0.1 0.3 0.7", due) }
        $1 < due[NR] - 0.02 || $1 > due[NR] + 2 { print "packet", NR, "at", $1; exit 1 }'
    fields someipsd frame.time_relative | sed -n 6,7p | awk '
        NR == 2 && ($1 - last < 0.9 || $1 - last > 3) { print "the last two are", $1 - last, "s apart"; exit 1 }
        { last = $1 }'
}

@test "a stop-offer is the offer with TTL 0" {
    start_capture
    start a a announce Media --port 8080 --version 1.0.0
    await 20 captured 5 # the announcement has settled
    stop a
    end_capture 6

    last=$(fields someipsd someipsd.entry.type someipsd.entry.ttl someipsd.entry.serviceid \
        someipsd.entry.instanceid someipsd.option.ipv6address someipsd.option.port | tail -n 1)
    equals "$last" "0x01|0|0xfffe|0x0001|fd00::1|8080"
}

@test "a find names the service and leaves everything else open" {
    start_capture
    run_on b find Navi --timeout 3
    end_capture 4

    equals "$(fields someipsd someip.sessionid | tr '\n' ' ')" "0x0001 0x0002 0x0003 0x0004 "
    find=$(fields 'someip.sessionid == 1' \
        ipv6.src someip.length someipsd.flags someipsd.entry.type someipsd.entry.index1 someipsd.entry.index2 \
        someipsd.entry.numopt1 someipsd.entry.numopt2 someipsd.entry.serviceid someipsd.entry.instanceid \
        someipsd.entry.majorver someipsd.entry.ttl someipsd.entry.minorver someipsd.option.type \
        someipsd.option.config_string_element)
    equals "$find" "fd00::2|79|0xe0|0x00|0x00|0x00|0x00|0x01|0xfffe|0xffff|255|120|4294967295|1|l6proto=nubo,otherserv=Navi,txtvers=1"
}

@test "many services share datagrams of at most 1212 bytes" {
    jq -nc '[range(30) | {name: "Service\(.)", versions: ["1.0.0"], port: (8000 + .)}]' >"$out/services.json"
    start_capture
    start a a announce --file "$out/services.json"
    await 30 captured_batch
    stop a
    end_capture 120

    equals "$(decode -Y '_ws.malformed || _ws.expert' | head -n 3)" ""
    equals "$(decode -Y 'udp.length > 1220' | head -n 3)" ""
}
