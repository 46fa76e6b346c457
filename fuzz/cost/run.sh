#!/bin/sh
# Searches for the costliest datagrams for their size; see fuzz/cost/run.sh --help.
set -eu
cd "$(dirname "$0")/../.."

usage() {
    cat <<'EOT'
usage: fuzz/cost/run.sh MINUTES

Installs missing Debian packages, builds the library so that it counts every access
to memory, and lets libFuzzer search for the costliest datagrams for their size, in
units that know from 100 to 131,072 services. The search starts from the kinds that
are known to be costly and from the corpus of the target "datagram".

For each range of sizes and each state it prints the cost of the costliest datagram
as a multiple of the cost of known offers of the same size, and saves the datagrams
in build-cost/worst. The exit code is 1 if one costs more than 20 times as much.
EOT
}

case "${1-}" in
-h | --help)
    usage
    exit 0
    ;;
*[!0-9]* | '')
    echo "run.sh: MINUTES must be a whole number (see --help)" >&2
    exit 2
    ;;
esac

scripts/setup.sh build fuzz
cmake --preset cost >/dev/null
cmake --build --preset cost

work=build-cost
rm -rf "$work/worst"
mkdir -p "$work/worst" "$work/inputs"
for input in fuzz/corpus/datagram/*; do
    { printf '\0' && cat "$input"; } >"$work/inputs/$(basename "$input")"
done
# The first call adds the known kinds to the inputs, which the search reads.
WORST="$work/worst" SEEDS="$work/inputs" "$work/bin/cost_search" -runs=2 "$work/inputs" >"$work/log" 2>&1
WORST="$work/worst" "$work/bin/cost_search" -max_total_time=$((60 * $1)) -max_len=2000 -timeout=25 \
    -dict=fuzz/service-discovery.dict -print_final_stats=1 -artifact_prefix="$work/" "$work/inputs" \
    >"$work/log" 2>&1 || { tail -n 30 "$work/log" && exit 1; }

grep -E '^stat::(number_of_executed|average_exec)' "$work/log"
echo
echo 'bytes from   services known            times known offers   bytes'
for file in "$work"/worst/*.times; do
    name=$(basename "$file" .times)
    state=$(echo '100 65,536 131,072 4,096-of-a-name' | cut -d ' ' -f $((${name#*-} + 1)))
    read -r times bytes <"$file"
    printf '%-12s %-25s %-20s %s\n' "${name%-*}" "$state" "$times" "$bytes"
done | sort -n
awk '$1 > 20 { exit 1 }' "$work"/worst/*.times
