#!/bin/sh
# Builds a long test without sanitizers and runs it; its options follow.
#
# usage: tests/soak/run.sh MINUTES [--seed N] [--units N] [--log FILE] [--samples FILE]
#            units on a lossy segment, in real time
#        tests/soak/run.sh --turned DAYS [--seed N] [--units N]
#            engines on a clock that is turned: a day of theirs takes seconds
#        tests/soak/run.sh --flaps TIMES
#            an interface that goes and comes, in three ways
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
