#!/bin/sh
# Fuzzes the library; see fuzz/run.sh --help.
set -eu
cd "$(dirname "$0")/.."

usage() {
    cat <<'EOF'
usage: fuzz/run.sh [OPTION]... HOURS [TARGET]...
       fuzz/run.sh [OPTION]... --smoke [TARGET]...

Installs missing Debian packages, builds the fuzz targets with libFuzzer,
AddressSanitizer and UndefinedBehaviorSanitizer, and runs them, several at a time.
HOURS, which may be a fraction such as 0.5, is divided equally among the targets.
Without TARGET it runs all of them.

  --smoke    run each target on its corpus and then for 5 seconds
  --update   afterwards add the inputs that reach new code to fuzz/corpus
  -j N       run N targets at a time (default: number of processors)
  --help     print this help

The targets work on a copy of the corpus in build-fuzz/corpus, which grows with every
run. A target ends with its first finding. The exit code is 1 if there was one, and
its input is saved in build-fuzz/findings. The table shows seconds of processor time.
EOF
}

fail() {
    echo "run.sh: $1 (see --help)" >&2
    exit 2
}

all_targets=$(find fuzz/targets -name '*.cpp' -exec basename {} .cpp \; | sort)
work=build-fuzz

# Runs one target and writes its output to its log.
fuzz() {
    target=$1 seconds=$2 run=$3
    # Datagrams hold at most 1212 bytes; inputs may be a little longer.
    timeout $((seconds + 300)) \
        "$work/bin/fuzz_$target" -max_total_time="$seconds" -max_len=1400 -timeout=25 \
        -dict=fuzz/service-discovery.dict -print_final_stats=1 \
        -artifact_prefix="$work/findings/$run-$target-" "$work/corpus/$target" \
        >"$work/log/$target" 2>&1 || echo "exit code: $?" >>"$work/log/$target"
    times >>"$work/log/$target" # the last line is the target's processor time
}

if [ "${1-}" = --one ]; then # internal: this script calls itself to run several targets at a time
    shift
    fuzz "$@"
    exit 0
fi

jobs=$(nproc)
hours=
smoke=no
update=no
targets=
while [ $# -gt 0 ]; do
    case "$1" in
    --smoke) smoke=yes ;;
    --update) update=yes ;;
    -j)
        [ $# -ge 2 ] || fail "-j needs a value"
        jobs=$2
        shift
        ;;
    -h | --help)
        usage
        exit 0
        ;;
    -*) fail "unknown option: $1" ;;
    *)
        if [ "$smoke" = no ] && [ -z "$hours" ]; then
            hours=$1
        elif echo "$all_targets" | grep -qx "$1"; then
            targets="$targets $1"
        else
            fail "no such target: $1; there are: $(echo "$all_targets" | tr '\n' ' ')"
        fi
        ;;
    esac
    shift
done
targets=${targets:-$all_targets}
# shellcheck disable=SC2086 # each target is a separate word
set -- $targets

if [ "$smoke" = yes ]; then
    [ -z "$hours" ] || fail "--smoke does not take HOURS"
    seconds=5
else
    echo "$hours" | grep -qxE '[0-9]+(\.[0-9]+)?|\.[0-9]+' || fail "HOURS must be a number"
    seconds=$(awk -v hours="$hours" -v targets=$# 'BEGIN { s = int(hours * 3600 / targets); print s < 1 ? 1 : s }')
fi

scripts/setup.sh build fuzz
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

run=$(date +%Y%m%d-%H%M%S)
mkdir -p "$work/findings" "$work/log"
for target in "$@"; do
    mkdir -p "$work/corpus/$target"
    cp "fuzz/corpus/$target"/* "$work/corpus/$target"
done
echo "Fuzzing $# targets for $seconds s each, $jobs at a time ..."
printf '%s\n' "$@" | xargs -P "$jobs" -I '{}' "$0" --one '{}' "$seconds" "$run"

# last WORD TARGET: prints the number after the last WORD in the target's log, or 0.
last() { sed -n "s/.*$1: *\([0-9]*\).*/\1/p" "$work/log/$2" | tail -n 1 | grep . || echo 0; }

format='%-22s %8s %12s %10s %8s %9s %8s %9s\n'
# shellcheck disable=SC2059 # all rows of the table share the format
row() { printf "$format" "$@"; }
echo
row target seconds executions per-second edges features corpus findings
failed=
for target in "$@"; do
    executed=$(last stat::number_of_executed_units "$target")
    taken=$(tail -n 1 "$work/log/$target" | awk -F '[ms ]+' '{ printf "%d", $1 * 60 + $2 + $3 * 60 + $4 }')
    found=0
    if grep -q '^exit code: ' "$work/log/$target"; then
        found=1
        failed="$failed $target"
    fi
    row "$target" "$taken" "$executed" "$(last stat::average_exec_per_sec "$target")" \
        "$(last cov "$target")" "$(last ft "$target")" "$(find "$work/corpus/$target" -type f | wc -l)" "$found"
done

if [ "$update" = yes ]; then
    echo
    for target in "$@"; do
        before=$(find "fuzz/corpus/$target" -type f | wc -l)
        # Adds inputs that reach new code, regardless of how often they reach it, so that the corpus stays small.
        "$work/bin/fuzz_$target" -merge=1 -use_counters=0 -max_len=1400 \
            "fuzz/corpus/$target" "$work/corpus/$target" >"$work/log/$target-merge" 2>&1 ||
            { cat "$work/log/$target-merge" >&2 && exit 1; }
        echo "fuzz/corpus/$target: $before inputs, now $(find "fuzz/corpus/$target" -type f | wc -l)"
    done
fi

[ -n "$failed" ] || exit 0
echo
for target in $failed; do
    echo "Finding of $target:"
    grep -E '^This does not hold|^SUMMARY|runtime error|^ALARM|^exit code' "$work/log/$target" | sed 's/^/    /'
    for input in "$work/findings/$run-$target"-*; do
        [ ! -e "$input" ] || echo "    to reproduce:  $work/bin/fuzz_$target $input"
    done
    echo "    full log:      $work/log/$target"
done
exit 1
