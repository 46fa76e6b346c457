#!/bin/bash
# Demonstrates the library with three units on a real network; see ./demo.sh --help.
set -u
cd "$(dirname "$0")" || exit 1

usage() {
    cat <<'EOF'
usage: ./demo.sh [--full]

Installs missing Debian packages, builds nubo-sd, creates three units, which are
network namespaces connected by a bridge, and prints what happens between them. The
exit code is 0 only if every step was observed.

  --full   also wait two minutes until the service of a dead unit is reported gone
  --help   print this help
EOF
}

full=no
inside=no
for argument in "$@"; do
    case "$argument" in
    --full) full=yes ;;
    --inside) inside=yes ;; # internal: the script is already running in separate namespaces
    -h | --help)
        usage
        exit 0
        ;;
    *)
        echo "demo.sh: unknown option: $argument (see --help)" >&2
        exit 2
        ;;
    esac
done

if [ "$inside" = no ]; then
    scripts/setup.sh build demo || exit 1
    echo "Building nubo-sd ..."
    { cmake --preset release && cmake --build --preset release --target nubo-sd; } >build.log 2>&1 || {
        cat build.log >&2
        exit 1
    }
    rm -f build.log
    flags=(--net --mount)
    [ "$(id -u)" = 0 ] || flags=(--user --map-root-user "${flags[@]}")
    if ! unshare "${flags[@]}" mount -t tmpfs tmpfs /run; then
        echo "demo.sh: the kernel does not allow this user to create network namespaces; run as root" >&2
        exit 1
    fi
    # The namespaces contain everything that the demonstration creates; the kernel removes them with the last process.
    exec unshare "${flags[@]}" "$0" --inside "$@"
fi

tool=$PWD/build/bin/nubo-sd
bold='' green='' red='' plain=''
if [ -t 1 ]; then
    bold=$'\e[1m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
fi

declare -A pid_of address_of announced_at joined_at
failures=0
waited_for=15 # seconds to wait for a step

now() { echo "${EPOCHREALTIME/[.,]/}"; } # microseconds

# Prints a line with the time since the start.
report() {
    local micros=$(($(now) - start))
    printf '%3d.%03d s  %s\n' $((micros / 1000000)) $((micros / 1000 % 1000)) "$*"
}

chapter() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }

on() { nsenter --net="/run/netns/$1" "${@:2}"; }

finish() {
    trap - EXIT INT TERM
    local unit
    for unit in "${!pid_of[@]}"; do kill "${pid_of[$unit]}" 2>/dev/null; done
    exec 3>&-
    exit "$1"
}

trap 'finish 1' EXIT
trap 'echo; report "interrupted"; finish 130' INT TERM

# unit NAME ADDRESS: creates a namespace with one interface on the bridge.
unit() {
    address_of[$1]=$2
    ip netns add "$1" &&
        ip link add "$1" type veth peer name eth0 netns "$1" &&
        ip link set "$1" master vehicle up &&
        on "$1" ip link set lo up && link_up "$1"
}

link_up() { on "$1" ip link set eth0 up && on "$1" ip address add "${address_of[$1]}/64" dev eth0 nodad; }

# start_registry UNIT SERVICE PORT: starts the unit's registry, which announces one service and reports events. Writes
# each event as a line "UNIT EVENT NAME URI" to descriptor 3, and saves the log, which is printed after a failure. The
# registry ends with this script, even if the script is killed.
start_registry() {
    local unit=$1 line
    nsenter --net="/run/netns/$unit" setpriv --pdeathsig KILL "$tool" --json announce "$2" --port "$3" --version 1.0.0 > >(
        while read -r line; do
            [[ $line =~ \"event\":\"([a-z]+)\".*\"name\":\"([^\"]*)\".*\"uri\":\"([^\"]*)\" ]] &&
                echo "$unit ${BASH_REMATCH[1]} ${BASH_REMATCH[2]} ${BASH_REMATCH[3]}" >&3
        done
    ) 2>>"/run/$unit.log" &
    pid_of[$unit]=$!
}

# next_event SECONDS: reads one event, prints it and sets `seen` to "UNIT EVENT NAME". Fails when none arrives in time.
next_event() {
    local unit event name uri after=''
    seen=
    read -r -t "$1" -u 3 unit event name uri || return 1
    seen="$unit $event $name"
    case "$event" in
    announced)
        announced_at[$name]=$(now)
        joined_at[$unit]=${announced_at[$name]}
        report "$unit announces $name at $uri"
        ;;
    discovered)
        local offered=${announced_at[$name]:-0} joined=${joined_at[$unit]:-0}
        if [ "$offered" -eq 0 ]; then
            after=", at once" # this event arrived before that of the announcement
        elif [ "$joined" -gt "$offered" ]; then
            after=", $((($(now) - joined) / 1000)) ms after it joined"
        else
            after=", $((($(now) - offered) / 1000)) ms after it was announced"
        fi
        report "${green}$unit found $name${plain} at $uri$after"
        ;;
    gone) report "${red}$unit lost $name${plain}" ;;
    esac
}

# expect SECONDS "UNIT EVENT NAME"...: waits until all of these events have been seen, in any order.
expect() {
    local deadline=$(($(now) + $1 * 1000000)) left
    shift
    declare -A missing=()
    local event
    for event in "$@"; do missing[$event]=1; done
    while [ ${#missing[@]} -gt 0 ]; do
        left=$((deadline - $(now)))
        if [ "$left" -le 0 ] || ! next_event "$(printf '%d.%06d' $((left / 1000000)) $((left % 1000000)))"; then
            [ "$(now)" -lt "$deadline" ] && continue
            for event in "${!missing[@]}"; do report "${red}NOT SEEN: $event${plain}"; done
            failures=$((failures + 1))
            return 1
        fi
        unset "missing[$seen]"
    done
}

# expect_nothing SECONDS: waits that long; any event is a failure.
expect_nothing() {
    local deadline=$(($(now) + $1 * 1000000)) left
    while left=$((deadline - $(now))) && [ "$left" -gt 0 ]; do
        if next_event "$(printf '%d.%06d' $((left / 1000000)) $((left % 1000000)))"; then
            report "${red}NOT EXPECTED: $seen${plain}"
            failures=$((failures + 1))
            return 1
        fi
    done
}

{ mount -t tmpfs tmpfs /run && mkfifo /run/events && exec 3<>/run/events; } || finish 1
start=$(now)

chapter "Three units on one network"
{
    ip link add vehicle type bridge && ip link set vehicle up &&
        unit cockpit fd00::1 && unit media fd00::2 && unit telematics fd00::3
} || finish 1
for name in cockpit media telematics; do
    report "$name has eth0 with ${address_of[$name]}"
done

chapter "Each unit announces a service and discovers those of the others"
start_registry cockpit Navigation 8080
start_registry media Radio 8081
start_registry telematics Traffic 8082
expect $waited_for \
    "cockpit announced Navigation" "media announced Radio" "telematics announced Traffic" \
    "cockpit discovered Radio" "cockpit discovered Traffic" \
    "media discovered Navigation" "media discovered Traffic" \
    "telematics discovered Navigation" "telematics discovered Radio"

chapter "A service is stopped"
report "media shuts its registry down"
kill -TERM "${pid_of[media]}"
wait "${pid_of[media]}" || {
    report "${red}media's registry ended with exit code $?${plain}"
    failures=$((failures + 1))
}
unset "pid_of[media]" "announced_at[Radio]" "joined_at[media]"
expect $waited_for "cockpit gone Radio" "telematics gone Radio"

chapter "A link flaps"
on telematics ip link set eth0 down && report "telematics's link is down"
sleep 1
link_up telematics && report "telematics's link is up again"
expect_nothing 2 && report "no unit lost Traffic meanwhile"
report "media restarts its registry"
start_registry media Radio 8081
expect $waited_for \
    "media announced Radio" "cockpit discovered Radio" "telematics discovered Radio" \
    "media discovered Navigation" "media discovered Traffic" &&
    report "telematics sends and receives as before"

chapter "A unit dies without withdrawing its service"
disown "${pid_of[telematics]}" # the shell need not report it
kill -KILL "${pid_of[telematics]}" && report "telematics is dead"
unset "pid_of[telematics]"
died=$(now)
if [ "$full" = yes ]; then
    report "its offer of Traffic is valid for 120 s; the others keep the service until then"
    while left=$((died / 1000000 + 115 - $(now) / 1000000)) && [ "$left" -gt 0 ]; do
        [ -t 1 ] && printf '\r           %3d s left ' "$left"
        if next_event 1; then
            report "${red}NOT EXPECTED: $seen${plain}"
            failures=$((failures + 1))
        fi
    done
    [ -t 1 ] && printf '\r%40s\r' ''
    expect $waited_for "cockpit gone Traffic" "media gone Traffic" &&
        report "$((($(now) - died) / 1000000)) s after telematics died, both have dropped Traffic"
else
    expect_nothing 2 && report "the others keep Traffic, because its offer is valid for 120 s"
    report "To wait until it expires, run ./demo.sh --full."
fi

chapter "Result"
if [ "$failures" -gt 0 ]; then
    report "${red}$failures step(s) failed${plain}; logs of the registries:"
    tail -n 20 /run/*.log
    finish 1
fi
report "${green}every step was observed${plain}"
finish 0
