#!/usr/bin/env bats
# nubo-sd monitor: beside a registry, into a capture file and out of one.

bats_require_minimum_version 1.5.0

# The parts of an offer of Media, version 1.2.0, category audio, at TCP [fd00::1]:8080 with TTL 120 as session 1,
# and a search for it.
header='ffff8100 00000085 00000001 01010200'
sd_flags='e0000000'
entry='01000111 fffe0001 01000078 00000002'
endpoint='00150600 fd000000000000000000000000000001 0006 1f90'
configuration='00460100 0e63617465676f72793d617564696f 0c6c3670726f746f3d6e75626f
    0f6f74686572736572763d4d65646961 09747874766572733d31 0d76657273696f6e3d312e322e30 00'
offer="$header $sd_flags 00000010 $entry 00000061 $endpoint $configuration"

setup() { load helpers && out=$BATS_TEST_TMPDIR; }
teardown() { remove_units; }

# capture HEX...: makes $out/seen.pcap of datagrams from [fd00::2]:40000 to the discovery group.
capture() {
    local datagram
    for datagram in "$@"; do
        # An offset of 0 begins a frame.
        printf '0000 %s\n' "$(echo "$datagram" | tr -d ' \n' | sed 's/../& /g')"
    done | text2pcap -q -6 fd00::2,ff14::4:0 -u 40000,30491 - "$out/seen.pcap"
}

read_back() { run --separate-stderr "$NUBO_SD" monitor --read "$out/seen.pcap" "$@"; }

# What is left of the output's lines behind time, interface and sender.
facts() { echo "$output" | sed -E 's/^[0-9:.]+ +[^ ]+ +fd00::2 +//'; }

with_ttl() { echo "${offer/01000078 00000002/01$1 00000002}"; }

@test "each kind of entry is printed in a line" {
    capture "$offer" "$(with_ttl 000000)" \
        "ffff8100 00000039 00000002 01010200 $sd_flags 00000010 00000001 fffeffff ff000078 ffffffff 00000015
            00120100 0f6f74686572736572763d4d65646961 00" \
        "ffff8100 00000024 00000003 01010200 $sd_flags 00000010 06000000 12340001 01000078 00000001 00000000" \
        "ffff8100 00000024 00000004 01010200 $sd_flags 00000010 07000000 12340001 01000000 00000001 00000000"
    read_back
    [ "$status" = 0 ]
    [ -z "$stderr" ]
    diff <(facts) - <<'LINES'
offer       Media  tcp [fd00::1]:8080  1.2.0  (audio)  ttl 120  session 1
stop-offer  Media  tcp [fd00::1]:8080  1.2.0  (audio)  ttl 0  session 1
find        Media  ttl 120  session 2
subscribe   service 0x1234  ttl 120  session 3
subscribe-nack  service 0x1234  ttl 0  session 4
LINES
}

@test "what is malformed is printed with the codec's reason" {
    capture "47617262 61676521" "$header $sd_flags 00000010 $entry" "${offer/00000010/00000011}" "00000000"
    read_back
    [ "$status" = 0 ]
    diff <(facts) - <<'LINES'
malformed   SOME_IP-SD message length-error, message size=1634166057, but only 8 Bytes left!
malformed   SOME_IP-SD message length-error, message size=141, but only 40 Bytes left!
malformed   SOME_IP_SD header length of entries '17' not a multiple of expected size '16'
LINES
}

@test "packets before a malformed one in a datagram are printed" {
    capture "$offer 47617262 61676521"
    read_back
    [ "$(facts | wc -l)" = 2 ]
    [[ "$(facts | head -n 1)" == offer* ]]
    [[ "$(facts | tail -n 1)" == malformed* ]]
}

@test "white space in a TTL is named as the cause" {
    capture "$(with_ttl 000020)"
    read_back
    [[ "$output" == *'malformed '*'; entry #1 has a TTL of 32 s, which has a byte that is white space and cannot be received' ]]
}

@test "bytes that are no text are escaped" {
    capture "${offer/4d65646961 09/1b5b33316d 09}"
    read_back
    [ "$status" = 0 ]
    [[ "$output" != *$'\x1b'* ]]
    [[ "$(facts)" == 'malformed   isValidSubstring: given string contains out-of-range character '"'\\x1b'"* ]]
}

@test "JSON has every fact" {
    capture "$offer" "47617262 61676521"
    read_back --json
    [ "$status" = 0 ]
    diff <(echo "$output" | jq -c 'del(.time)') - <<'LINES'
{"interface":"?","sender":"fd00::2","sender_port":40000,"kind":"offer","name":"Media","service_id":65534,"instance_id":1,"major_version":1,"minor_version":2,"versions":["1.2.0"],"categories":["audio"],"address":"fd00::1","port":8080,"protocol":"tcp","ttl":120,"session":1}
{"interface":"?","sender":"fd00::2","sender_port":40000,"kind":"malformed","reason":"SOME_IP-SD message length-error, message size=1634166057, but only 8 Bytes left!","session":0}
LINES
    [[ "$(echo "$output" | jq -r .time | head -n 1)" =~ ^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\.[0-9]{6}Z$ ]]
}

@test "entries are filtered by name, sender and kind" {
    local radio=${offer/4d65646961 09/526164696f 09}
    capture "$offer" "$radio" "$(with_ttl 000000)"
    read_back --name Radio
    [[ "$(facts)" == 'offer       Radio '* ]]
    read_back --kind stop-offer --kind find
    [[ "$(facts)" == 'stop-offer  Media '* ]]
    read_back --from fd00::2 --name Media
    [ "$(facts | wc -l)" = 2 ]
    read_back --from fd00::3
    [ -z "$output" ]
}

@test "wrong arguments end with exit code 2 and one line" {
    local arguments
    echo "no capture" >"$out/text"
    while read -r arguments; do
        # shellcheck disable=SC2086 # several words
        run --separate-stderr "$NUBO_SD" monitor $arguments
        [ "$status" = 2 ]
        [ "$(echo "$stderr" | wc -l)" = 1 ]
        [[ "$stderr" == 'nubo-sd: '* ]]
    done <<LINES
--read $out/missing
--read $out/text
--kind nonsense
--from nonsense
LINES
}

@test "it prints beside a registry what goes in and out, and writes what other analysers read" {
    unit a eth0=fd00::1
    unit b eth0=fd00::2
    start monitor b monitor --pcap "$out/wire.pcap"
    start registry b --json browse
    await 5 has_membership b
    start announcer a announce Media --port 8080 --version 1.2.0 --category audio
    await 5 has registry discovered Media
    await 5 has_line monitor.out 'offer       Media  tcp \[fd00::1\]:8080  1.2.0  (audio)  ttl 120  session'
    stop announcer
    await 5 has_line monitor.out 'stop-offer  Media  tcp \[fd00::1\]:8080'
    stop registry
    stop monitor
    [ "$(awk '{ print $2, $3 }' "$out/monitor.out" | sort -u)" = 'eth0 fd00::1' ]

    local index
    index=$(on b ip -json link show eth0 | jq '.[0].ifindex')
    [ "$(tshark -r "$out/wire.pcap" -T fields -e sll.ifindex 2>/dev/null | sort -u)" = "$index" ]
    [ "$(tshark -r "$out/wire.pcap" 2>/dev/null | wc -l)" = "$(wc -l <"$out/monitor.out")" ]
    "$NUBO_SD" monitor --read "$out/wire.pcap" | diff <(sed "s/  eth0    /  #$index      /" "$out/monitor.out" | tr -s ' ') <(tr -s ' ')
}

@test "it listens on the interfaces that it is told, and for as long" {
    unit a eth0=fd00::1 eth1=fd01::1
    start other a monitor --interface eth1 --duration 4
    start announcer a announce Media --port 8080 --version 1.2.0 --address fd00::1
    await 5 has_line other.out 'eth1    fd01::1       offer       Media  tcp \[fd01::1\]:8080'
    await 5 not_running other
    run ! grep -v ' eth1 ' "$out/other.out"
    rm "$out/other.pid"
    stop announcer
}

not_running() { ! kill -0 "$(cat "$out/$1.pid")" 2>/dev/null; }

@test "without the right to capture it says how to grant it" {
    unit a eth0=fd00::1
    run --separate-stderr nsenter --net=/run/netns/a setpriv --bounding-set=-net_raw --inh-caps=-net_raw \
        "$NUBO_SD" monitor
    [ "$status" = 3 ]
    [ "$(echo "$stderr" | wc -l)" = 1 ]
    [[ "$stderr" == *'CAP_NET_RAW'*'setcap cap_net_raw+ep'* ]]
}
