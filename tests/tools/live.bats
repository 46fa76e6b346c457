#!/usr/bin/env bats
# The live table of nubo-sd, as somebody at a terminal sees it.

bats_require_minimum_version 1.5.0

setup() {
    load helpers
    out=$BATS_TEST_TMPDIR
    unit a eth0=fd00::1
    unit b eth0=fd00::2
}

teardown() {
    on_terminal kill-server 2>/dev/null || true
    remove_units
}

on_terminal() { tmux -S "$out/terminal" -f /dev/null "$@" 3>&-; }

# open_terminal UNIT [WIDTH HEIGHT]: with a shell on the unit, in $out.
open_terminal() {
    PS1='$ ' PATH="$(dirname "$NUBO_SD"):$PATH" on_terminal new-session -d -x "${2:-80}" -y "${3:-24}" -c "$out" \
        nsenter --net="/run/netns/$1" bash --norc --noprofile
    await 10 sees '^\$'
}

# enter LINE: typed at the terminal, with the key that ends it. enter_anew LINE: on an empty screen. press KEY...
enter() { on_terminal send-keys "$1" Enter; }
enter_anew() {
    on_terminal send-keys -R
    enter "$1"
}
press() { on_terminal send-keys "$@"; }

# sees PATTERN: whether a line that the terminal shows matches; not_sees PATTERN: whether none does.
sees() { grep -qE -- "$1" <<<"$(screen)"; }
not_sees() { ! sees "$1"; }
screen() { on_terminal capture-pane -p; }

await_sight() { await 10 sees "$1" || fail "$(screen)"; }
await_no_sight() { await 10 not_sees "$1" || fail "$(screen)"; }

# run_seen LINE: a command that writes the number of its process to the file "pid", and at its end its exit code.
run_seen() { enter_anew "bash -c 'echo \$\$ >pid; exec $1'; echo \"ended \$?\""; }

# services COUNT: a file with that many.
services() {
    jq -n "[range(1000; 1000 + $1) | {name: \"Service\(.)\", versions: [\"1.0.0\"], port: .}]" >"$out/services.json"
}

@test "a terminal shows a table of the services as they come and go" {
    open_terminal b
    # shellcheck disable=SC2016 # the terminal's shell expands it
    enter 'nubo-sd browse; echo exit code $?'
    await_sight '^unit fd00::2, port 30491: 0 discovered, 0 announced$'
    await_sight '^q quits'
    start a a announce Media --port 8080 --version 1.2.0 --uuid media
    await_sight '^Media  tcp \[fd00::1\]:8080  1(20|19) s    [0-9] s      1         1\.2\.0$'
    await_sight '^unit fd00::2, port 30491: 1 discovered, 0 announced$'
    await_sight ' 1(20|19) s    [2-9] s '
    stop a
    await_sight '^Media  tcp \[fd00::1\]:8080  gone '
    await_no_sight '^Media'
    press q
    await_sight '^exit code 0$'
}

@test "the terminal is left as it was, with the table below" {
    services 3
    open_terminal a
    enter 'stty -g >before; echo said before'
    await_sight '^said before$'
    enter 'nubo-sd announce --file services.json'
    await_sight '^Service1002  tcp \[fd00::1\]:1002  own  '
    not_sees 'said before'
    press q
    await_sight '^said before$'
    await_sight '^unit fd00::1, port 30491: 0 discovered, 3 announced$'
    await_sight '^Service1002  tcp \[fd00::1\]:1002  own  '
    enter 'stty -g >after; echo said after'
    await_sight '^said after$'
    cmp "$out/before" "$out/after"
}

@test "keys scroll when there are more services than lines, and the table follows the terminal's size" {
    services 50
    open_terminal a
    enter 'nubo-sd announce --file services.json'
    await_sight 'rows 1 to 21 of 50$'
    await_sight '^Service1020 '
    press Down
    await_sight 'rows 2 to 22 of 50$'
    press PageDown
    await_sight 'rows 23 to 43 of 50$'
    press End
    await_sight 'rows 30 to 50 of 50$'
    press Up PageUp
    await_sight 'rows 8 to 28 of 50$'
    press Home
    await_sight '^Service1000 '

    on_terminal resize-window -x 40 -y 10
    await_sight '^NAME .* TTL +>$'
    await_sight '^Service1006 '
    await_no_sight '^Service1007 '
    on_terminal resize-window -x 200 -y 60
    await_sight '^Service1049 .* 1\.0\.0$'
    press C-c
    await_sight '^\$'
}

@test "a run that is stopped goes on where it was" {
    services 3
    open_terminal a
    enter 'nubo-sd announce --file services.json'
    await_sight '^Service1000 '
    press C-z
    await_sight 'Stopped .*announce'
    not_sees '^Service1000 '
    enter 'fg'
    await_sight '^Service1000 '
    press q
    await_sight '^unit .* 3 announced$'
}

@test "signals and the duration end it in order" {
    open_terminal b
    for signal in INT TERM; do
        run_seen 'nubo-sd browse'
        await_sight '^q quits'
        kill "-$signal" "$(cat "$out/pid")"
        await_sight '^ended 0$'
        sees '^NAME '
    done
    run_seen 'nubo-sd --duration 3 browse'
    await_sight '^q quits'
    await_sight '^ended 0$'
    sees '^NAME '
}

@test "services are withdrawn when the terminal is closed" {
    local way service
    start b b --json browse
    for way in 'announce Media' 'announce Navi --no-live'; do
        open_terminal a
        enter "nubo-sd $way --port 8080 --version 1.2.0"
        service=$(cut -d ' ' -f 2 <<<"$way")
        await 10 has b discovered "$service"
        on_terminal kill-server
        await 10 has b gone "$service" # not when its offer has expired, which takes two minutes
    done
    stop b
}

@test "the log stands in the last line, and is written when the screen is left" {
    open_terminal b 120 24
    start a a announce Media --port 8080 --version 1.2.0
    enter 'nubo-sd --log-level trace browse'
    await_sight '^[0-9:.]{12} (Trace|Debug): '
    await_sight '^Media .* 1(20|19) s    [2-9] s ' # so its offer was received again
    [ "$(screen | grep -cE '^[0-9:.]{12} (Trace|Debug): ')" = 1 ]
    press q
    await_sight '^[0-9:.]{12} Debug: SDCommunicationHub::stop'
    on_terminal capture-pane -p -S - | grep -q 'Trace: .* re-set TTL of Discovered "Media"'
    stop a
}

@test "a log that goes elsewhere is written at once" {
    open_terminal b
    enter 'nubo-sd --log-level debug browse 2>log'
    await_sight '^q quits'
    await 10 has_line log 'Debug: '
}

@test "lines are printed where no table is wanted or possible" {
    start a a announce Media --port 8080 --version 1.2.0
    open_terminal b 160 24
    for way in 'nubo-sd browse --no-live' 'nubo-sd browse | cat' 'TERM=dumb nubo-sd browse' 'TERM= nubo-sd browse' \
        'TERM=nonsense nubo-sd browse'; do
        enter_anew "$way"
        await_sight '^discovered  Media  1\.2\.0  tcp \[fd00::1\]:8080  http://\[fd00::1\]:8080/Media/  uuid '
        not_sees '^NAME'
        press C-c
        await_sight '^(\^C)?\$$'
    done
    enter_anew 'nubo-sd browse --json'
    await_sight '^\{"event":"discovered"'
    press C-c
    stop a
}
