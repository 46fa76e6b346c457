#!/bin/sh
# Builds and runs all benchmarks and writes their tables; see bench/run.sh --help.
set -eu
cd "$(dirname "$0")/.."

usage() {
    cat <<'EOF'
usage: bench/run.sh [BENCHMARK]...

Installs missing Debian packages, builds in build-bench, and runs the benchmarks:
codec, state-machine, tick, receive, discovery, idle. Without BENCHMARK it runs all
of them, which takes about six minutes. Prints the tables and saves them in
build-bench/results.md.

Benchmarks that need a network create network namespaces.
EOF
}

all='codec state-machine tick receive discovery idle'
for name in "$@"; do
    case "$name" in
    -h | --help)
        usage
        exit 0
        ;;
    *)
        echo " $all " | grep -q " $name " || {
            echo "run.sh: no such benchmark: $name (see --help)" >&2
            exit 2
        }
        ;;
    esac
done
# shellcheck disable=SC2086 # each name is a separate word
[ $# -gt 0 ] || set -- $all

scripts/setup.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench
bin=$PWD/build-bench/bin
network=$PWD/tests/support/in-namespace.sh

rows() { # TABLE PROGRAM...
    table=$1
    shift
    "$@" --benchmark_format=json 2>/dev/null | jq -r -L bench "include \"tables\"; .benchmarks | $table"
}

codec() {
    printf '| packet | encode, ns | to storing its bytes | allocations '
    printf '| decode, known, ns | to loading its bytes | allocations | decode, new, ns | allocations | memcpy, ns |\n'
    echo '|---|---|---|---|---|---|---|---|---|---|'
    rows codec "$bin/codec_benchmark"
}

state_machine() {
    echo '| ns per event, services known: | 10 | 100 | 1,000 | 10,000 | 100,000 | 100,000 to 100 |'
    echo '|---|---|---|---|---|---|---|'
    rows state_machine "$bin/state_machine_benchmark"
}

tick() {
    echo '| services | interfaces | us per tick | ns per service | allocations |'
    echo '|---|---|---|---|---|'
    rows tick "$network" "$bin/tick_benchmark"
}

fenced() {
    echo '```'
    "$@"
    echo '```'
}

{
    echo "# Benchmarks of $(git log -1 --format='%h, %cs' 2>/dev/null || echo 'this tree')"
    for name in "$@"; do
        printf '\n## %s\n\n' "$name"
        case "$name" in
        codec) codec ;;
        state-machine) state_machine ;;
        tick) tick ;;
        receive) fenced "$network" "$bin/receive_benchmark" ;;
        discovery) fenced "$network" "$bin/discovery_benchmark" ;;
        idle) fenced "$network" bench/idle.sh "$bin/nubo-sd" ;;
        esac
    done
} | tee build-bench/results.md
