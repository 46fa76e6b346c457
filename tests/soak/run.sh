#!/bin/sh
# Builds one of the long tests without sanitizers, and runs it with the given options.
#
# usage: tests/soak/run.sh MINUTES [--seed N] [--units N] [--log FILE] [--samples FILE]
#            runs units on a lossy segment, in real time
#        tests/soak/run.sh --turned DAYS [--seed N] [--units N]
#            runs engines on a simulated clock, on which a day takes seconds
#        tests/soak/run.sh --flaps TIMES
#            removes and restores an interface, in three ways
set -eu
cd "$(dirname "$0")/../.."

program=soak
case "${1-}" in
--turned)
    program=turned_soak
    shift
    ;;
--flaps)
    program=flaps
    shift
    ;;
esac

folder=build-soak
scripts/setup.sh build test
cmake --preset release -B "$folder" -DKEL_SD_BUILD_TESTS=ON >/dev/null
cmake --build "$folder" --target "$program"
exec tests/support/in-namespace.sh "$folder/bin/$program" "$@"
