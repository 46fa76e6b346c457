# What the tests of nubo-sd share. $NUBO_SD is the program; a test of what crosses a network runs through
# support/in-namespace.sh, so that it may make units of its own. $out is the folder for what a test writes.

# shellcheck disable=SC2154 # the tests' setup() says where it is

# unit NAME INTERFACE[=ADDRESS]...: a network namespace with interfaces on the bridge "wire".
unit() {
    local unit=$1 spec interface
    ip netns add "$unit"
    on "$unit" ip link set lo up
    on "$unit" sh -c 'echo 0 >/proc/sys/net/ipv6/conf/all/accept_dad; echo 0 >/proc/sys/net/ipv6/conf/default/accept_dad'
    [ -e /sys/class/net/wire ] || ip link show wire >/dev/null 2>&1 || {
        ip link add wire type bridge mcast_snooping 0
        ip link set wire up
    }
    shift
    for spec in "$@"; do
        interface=${spec%%=*}
        ip link add "$unit-$interface" type veth peer name "$interface" netns "$unit"
        ip link set "$unit-$interface" master wire up
        on "$unit" ip link set "$interface" up
        [ "$spec" = "$interface" ] || on "$unit" ip address add "${spec#*=}/64" dev "$interface" nodad
    done
}

# remove_units: with what start has left running. The kernel takes a namespace down in its own time, but a link at
# once.
remove_units() {
    local file interface unit
    for file in "$out"/*.pid; do
        [ ! -e "$file" ] || kill -KILL "$(cat "$file")" 2>/dev/null || true
    done
    ip -o link show | sed -nE 's/^[0-9]+: ([^:@]+)@?.* master wire .*/\1/p' | while read -r interface; do
        ip link delete "$interface"
    done
    ip link delete wire 2>/dev/null || true
    ip netns list | while read -r unit _; do ip netns delete "$unit"; done
}

on() { nsenter --net="/run/netns/$1" "${@:2}"; }

# run_on UNIT ARGUMENT...: nubo-sd on the unit, as bats' run does it.
run_on() { run nsenter --net="/run/netns/$1" "$NUBO_SD" "${@:2}"; }

# start NAME UNIT ARGUMENT...: nubo-sd on the unit in the background. Output and log go to $out/NAME.out and
# $out/NAME.err.
start() {
    nsenter --net="/run/netns/$2" "$NUBO_SD" "${@:3}" >"$out/$1.out" 2>"$out/$1.err" 3>&- &
    echo $! >"$out/$1.pid"
}

# end NAME [SIGNAL]: ends it and checks that it ends in order. stop NAME [SIGNAL]: and that there is nothing on
# standard error.
end() {
    local pid status=0
    pid=$(cat "$out/$1.pid")
    rm "$out/$1.pid"
    kill "-${2:-TERM}" "$pid"
    wait "$pid" || status=$?
    [ "$status" = 0 ] || fail "$1 ended with exit code $status: $(cat "$out/$1.err")"
}
stop() {
    end "$@"
    [ ! -s "$out/$1.err" ] || fail "$1 wrote to standard error: $(cat "$out/$1.err")"
}

# await SECONDS COMMAND...: repeats the command until it succeeds.
await() {
    local end=$((SECONDS + $1))
    until "${@:2}"; do
        [ "$SECONDS" -le "$end" ] || fail "not within $1 s: ${*:2}" || return
        sleep 0.02
    done
}

# has NAME EVENT SERVICE [COUNT]: whether the JSON output holds that event, that often.
has() { [ "$(count "$1" "$2" "$3")" -ge "${4:-1}" ]; }

count() { jq -rc "select(.event == \"$2\" and .name == \"$3\") | 1" "$out/$1.out" | wc -l; }

# has_membership UNIT: whether it has joined the discovery group.
has_membership() { on "$1" grep -q ff140000000000000000000000040000 /proc/net/igmp6; }

has_line() { grep -q -- "$2" "$out/$1"; }

fail() {
    echo "$*" >&2
    return 1
}
