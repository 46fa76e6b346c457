#!/usr/bin/env bats
# nubo-sd on units that meet on a network.
# shellcheck disable=SC2030,SC2031 # each test has its own output and status

bats_require_minimum_version 1.5.0

setup() {
    load helpers
    out=$BATS_TEST_TMPDIR
    uuid='[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}'
}

teardown() { remove_units; }

# await_offer NAME: until the announcer, which must log everything, has sent its next cyclic offer. Whoever
# searches now has a second before the offer comes anyway.
await_offer() {
    local before
    before=$(offers "$1")
    await 5 has_more_offers "$1" "$before"
}

offers() { grep -cs 'Trace: SDCommunicationHub::announce$' "$out/$1.err" || [ $? = 1 ] || echo 0; }

has_more_offers() { [ "$(offers "$1")" -gt "$2" ]; }

two_units() {
    unit a eth0=fd00::1
    unit b eth0=fd00::2
}

# a with a link to b and another one to c.
two_links() {
    two_units
    ip netns add c
    on c ip link set lo up
    ip link add far netns a type veth peer name eth0 netns c
    on a ip link set far up
    on a ip address add fd01::1/64 dev far nodad
    on c ip link set eth0 up
    on c ip address add fd01::2/64 dev eth0 nodad
}

@test "two units find each other's services in both directions" {
    two_units
    start a a --json announce Media --port 8080 --version 1.2.0 --category audio
    start b b --json announce Navi --port 9090 --version 2.0.0

    await 10 has a discovered Navi
    await 10 has b discovered Media

    stop a
    stop b
}

@test "events as JSON have the contract's keys in its order" {
    two_units
    start a a announce --json Media --port 8080 --version 1.2.0 --version '~1.3.0' --category audio --category hifi \
        --uuid media-1
    start b b --json browse
    await 10 has b discovered Media
    stop a
    await 10 has b gone Media
    stop b

    facts='"name":"Media","versions":["1.2.0","~1.3.0"],"categories":["audio","hifi"],"address":"fd00::1","port":8080,"protocol":"tcp","uri":"http://[fd00::1]:8080/Media/"}'
    [ "$(cat "$out/a.out")" = "{\"event\":\"announced\",\"uuid\":\"media-1\",$facts" ]
    given=$(jq -r 'select(.event == "discovered").uuid' "$out/b.out")
    [[ $given =~ ^$uuid$ ]]
    printf '%s\n' "{\"event\":\"discovered\",\"uuid\":\"$given\",$facts" "{\"event\":\"gone\",\"uuid\":\"$given\",$facts" >"$out/expected"
    diff "$out/expected" "$out/b.out"
}

@test "events as text are one line each with the same facts" {
    two_units
    start b b browse
    start a a announce Media --port 8080 --version 1.2.0 --category audio --protocol udp --uuid media-1
    await 10 has_line b.out discovered
    stop a
    await 10 has_line b.out gone
    stop b

    facts='Media  1\.2\.0  \(audio\)  udp \[fd00::1\]:8080  http://\[fd00::1\]:8080/Media/'
    [[ $(cat "$out/a.out") =~ ^announced\ {3}$facts\ \ uuid\ media-1$ ]]
    [[ $(sed -n 1p "$out/b.out") =~ ^discovered\ \ $facts\ \ uuid\ $uuid$ ]]
    [[ $(sed -n 2p "$out/b.out") =~ ^gone\ {8}$facts\ \ uuid\ $uuid$ ]]
    [ "$(wc -l <"$out/b.out")" = 2 ]
}

@test "each event has its time where that is asked for" {
    two_units
    start a a --json announce Media --time --port 8080 --version 1.2.0
    await 10 has a announced Media
    TZ=UTC-01:30 run_on b find Media --time
    stop a

    # On this unit's clock in text, in UTC in JSON.
    local of_text of_json
    [[ $output =~ ^(.{23}\+01:30)\ \ discovered\ \ Media ]]
    of_text=$(date -d "${BASH_REMATCH[1]}" +%s)
    [ "$(jq -r 'keys_unsorted[:2] | join(" ")' "$out/a.out")" = "time event" ]
    [[ $(jq -r .time "$out/a.out") =~ ^.{26}Z$ ]]
    of_json=$(date -d "$(jq -r .time "$out/a.out")" +%s)
    [ $((of_text - of_json)) -ge 0 ]
    [ $((of_text - of_json)) -le 30 ]
}

@test "a service withdrawn the moment it was announced is gone at once all the same" {
    two_units
    start b b --json browse
    await 10 has_membership b
    start a a --json announce Media --port 8080 --version 1.0.0
    await 10 has b discovered Media

    stop a INT

    await 5 has b gone Media
    stop b
}

@test "signals end a run in order and leave the group" {
    two_units
    for signal in TERM INT HUP; do
        start b b browse
        await 10 has_membership b
        stop b "$signal"
        ! has_membership b
    done
}

@test "a run that nohup started outlives its terminal" {
    two_units
    nsenter --net=/run/netns/b nohup "$NUBO_SD" --json browse >"$out/b.out" 2>"$out/b.err" 3>&- &
    echo $! >"$out/b.pid"
    await 10 has_membership b

    kill -HUP "$(cat "$out/b.pid")"

    start a a announce Media --port 8080 --version 1.0.0
    await 10 has b discovered Media
    end b
    stop a
}

@test "the duration ends a run in order" {
    two_units
    start b b --json browse
    await 10 has_membership b

    run_on a --json --duration 0.5 announce Media --port 8080 --version 1.0.0

    [ "$status" -eq 0 ]
    await 5 has b gone Media
    stop b
}

@test "a second registry on a unit is told that the port is taken" {
    two_units
    start a a browse
    await 10 has_membership a

    run --separate-stderr nsenter --net=/run/netns/a "$NUBO_SD" browse

    [ "$status" -eq 3 ]
    [ -z "$output" ]
    # shellcheck disable=SC2154 # set by bats
    [ "$stderr" = "nubo-sd: another service registry already uses port 30491 on this unit" ]
    stop a
}

@test "find prints every instance and succeeds" {
    two_units
    unit c eth0=fd00::3
    start a a announce Media --port 8080 --version 1.0.0
    start b b announce Media --port 8081 --version 2.0.0
    await 10 has_line a.out announced
    await 10 has_line b.out announced

    run_on c --json find Media

    [ "$status" -eq 0 ]
    [ "$(jq -r .uri <<<"$output" | sort)" = $'http://[fd00::1]:8080/Media/\nhttp://[fd00::2]:8081/Media/' ]
    stop a
    stop b
}

@test "find gives up after its timeout with exit code 1 and no word" {
    two_units
    start a a announce Media --port 8080 --version 1.0.0

    run --separate-stderr nsenter --net=/run/netns/b "$NUBO_SD" find Navi --timeout 1.5

    [ "$status" -eq 1 ]
    [ -z "$output$stderr" ]
    stop a
}

# On a busy machine the next cyclic offer may come before the search does.
finds_out_of_turn() {
    await_offer a
    run_on b find Media
    [ "$status" -eq 0 ] || fail "found nothing: $output"
    has_line a.err 'Notice: SD One-Time Announcement of Service http://\[fd00::1\]:8080/Media/ (Media v1.0.X) startet, due to reception of FIND_SERVICE.'
}

@test "find is answered out of turn" {
    two_units
    start a a --log-level trace announce Media --port 8080 --version 1.0.0

    await 10 finds_out_of_turn
}

@test "browse sends out the searches that it is asked for" {
    two_units
    start a a --log-level trace announce Media --port 8080 --version 1.0.0
    await_offer a

    start b b browse --find Radio --find Navi

    await 5 has_line a.err 'onFindServiceReceived .*Radio'
    await 5 has_line a.err 'onFindServiceReceived .*Navi'
    await 5 has_line b.out 'discovered  Media'
    stop b
}

@test "a list of services is announced from a file" {
    two_units
    cat >"$out/services.json" <<'EOF'
[
  {"event": "discovered", "uuid": "one", "name": "Media", "versions": ["1.0.0"], "categories": ["audio"],
   "address": "fd00::99", "port": 8080, "protocol": "udp", "uri": "http://elsewhere/"},
  {"name": "Navi", "versions": ["2.0.0", "2.1.0"], "port": 9090}
]
EOF
    start b b --json browse
    start a a --json announce --file "$out/services.json"
    await 10 has b discovered Media
    await 10 has b discovered Navi
    stop a
    stop b

    [ "$(jq -rc '[.uuid, .name, .versions, .categories, .address, .port, .protocol, .uri]' "$out/a.out" | head -n 1)" = \
        '["one","Media",["1.0.0"],["audio"],"fd00::99",8080,"udp","http://elsewhere/"]' ]
    [ "$(jq -rc 'select(.event == "discovered" and .name == "Media") | [.address, .protocol]' "$out/b.out")" = '["fd00::99","udp"]' ]
    [ "$(jq -rc 'select(.event == "discovered" and .name == "Navi") | [.address, .versions]' "$out/b.out")" = '["fd00::1",["2.0.0","2.1.0"]]' ]
}

@test "nothing of a list is sent when one of its services is invalid" {
    two_units
    echo '[{"name":"Media","versions":["1.0.0"],"port":8080},{"name":"Navi","versions":["x"],"port":9090}]' >"$out/services.json"
    start b b --json browse
    await 10 has_membership b

    run_on a announce --file "$out/services.json"

    [ "$status" -eq 2 ]
    sleep 0.5 # a first offer would have come at once, its repetitions within this time
    [ ! -s "$out/b.out" ]
    stop b
}

@test "what a browser prints can be announced again" {
    two_units
    start b b --json browse
    start a a announce Media --port 8080 --version 1.0.0
    await 10 has b discovered Media
    stop a
    await 10 has b gone Media
    stop b

    jq -sc '[.[] | select(.event == "discovered")]' "$out/b.out" >"$out/services.json"
    run_on a --json --duration 0.2 announce --file "$out/services.json"
    [ "$status" -eq 0 ]
    [ "$(jq -r .name <<<"$output")" = Media ]
}

@test "the unit's address can be given, and each service its own" {
    two_units
    start b b --json browse
    start a a -a fd00::77 announce Media --port 8080 --version 1.0.0
    await 10 has b discovered Media
    stop a
    await 10 has b gone Media
    start a a --json announce Media --port 8080 --version 1.0.0 --endpoint fd00::88
    await 10 has b discovered Media 2
    stop a
    stop b

    [ "$(jq -r 'select(.event == "discovered").address' "$out/b.out")" = $'fd00::77\nfd00::88' ]
}

@test "only the named interfaces are used" {
    two_links
    start b b --json browse
    start c c --json browse

    start a a -i far announce Media --port 8080 --version 1.0.0
    await 10 has c discovered Media
    [ ! -s "$out/b.out" ]
    stop a

    start a a -i far -i eth0 announce Media --port 8081 --version 1.0.0
    await 10 has b discovered Media
    await 10 has c discovered Media 2
    stop a
    stop b
    stop c
}

@test "every peer sees the address of its own side" {
    two_links
    start b b --json browse
    start c c --json browse

    start a a announce Media --port 8080 --version 1.0.0
    await 10 has b discovered Media
    await 10 has c discovered Media

    [ "$(jq -r .address "$out/b.out")" = fd00::1 ]
    [ "$(jq -r .address "$out/c.out")" = fd01::1 ]
    stop a
    stop b
    stop c
}

@test "without an interface it waits for one, and says so" {
    unit a
    unit b eth0=fd00::2
    start b b --json browse
    start a a -i eth0 --json announce Media --port 8080 --version 1.0.0
    await 5 has_line a.err 'nubo-sd: waiting for an interface that is up and has an IPv6 address'
    has_line a.err 'nubo-sd: there is no interface "eth0" yet'

    ip link add a-eth0 type veth peer name eth0 netns a
    ip link set a-eth0 master wire up
    on a ip link set eth0 up
    on a ip address add fd00::1/64 dev eth0 nodad

    await 10 has b discovered Media
    await 10 has a announced Media
    end a
    stop b
}

@test "it ends in order while it waits for an interface" {
    unit a
    start a a browse
    await 5 has_line a.err 'waiting for an interface'
    end a
}

@test "a unit whose link went and came hears and is heard as before" {
    two_units
    unit c eth0=fd00::3
    start a a --json announce Media --port 8080 --version 1.0.0
    start b b --json --log-level error announce Navi --port 9090 --version 1.0.0
    await 10 has a discovered Navi
    await 10 has b discovered Media

    on b ip link set eth0 down
    await 5 eval '! has_membership b'
    on b ip link set eth0 up
    on b ip address add fd00::2/64 dev eth0 nodad

    run_on c find Navi
    [ "$status" -eq 0 ]
    [ "$(count a gone Navi)" = 0 ]
    stop a
    await 5 has b gone Media
}

@test "nothing but events goes to standard output, and the log to standard error" {
    two_units
    start b b --json --log-level trace browse
    start a a announce Media --port 8080 --version 1.0.0
    await 10 has b discovered Media
    stop a
    await 10 has b gone Media
    end b

    [ "$(jq -c .event "$out/b.out")" = $'"discovered"\n"gone"' ]
    run ! grep -vE '^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} (Error|Warning|Notice|Debug|Trace): ' "$out/b.err"
    grep -q ' Trace: MulticastReceiver onSocketReadable$' "$out/b.err"
}

@test "it ends when nobody reads its output any more" {
    two_units
    start a a announce Media --port 8080 --version 1.0.0
    nsenter --net=/run/netns/b sh -c "'$NUBO_SD' browse | head -n 1" >"$out/first" 3>&- &
    pid=$!
    await 10 has_line first 'discovered  Media'
    stop a
    # The next line, "gone", finds no reader.
    wait "$pid"
}

@test "no privilege is needed" {
    [ "$(id -u)" = 0 ] && [ "$(awk '/^CapEff/ {print $2}' /proc/self/status)" != 0000000000000000 ] || skip "there is none to drop"
    two_units
    # Where user namespaces are in use there is but one user; the capabilities go all the same.
    drop="setpriv --inh-caps=-all --bounding-set=-all --no-new-privs"
    start a a announce Media --port 8080 --version 1.0.0

    # shellcheck disable=SC2086 # a command and its options
    run nsenter --net=/run/netns/b $drop sh -c "grep -q '^CapEff:.*0000000000000000' /proc/self/status && '$NUBO_SD' find Media"

    [ "$status" -eq 0 ]
    [[ $output == discovered* ]]
    stop a
}
