#!/bin/sh
# Builds the soak test without sanitizers and runs it; its options follow.
#
# usage: tests/soak/run.sh MINUTES [--seed N] [--units N] [--log FILE] [--samples FILE]
set -eu
cd "$(dirname "$0")/../.."

folder=build-soak
scripts/setup.sh build test
cmake --preset release -B "$folder" -DKEL_SD_BUILD_TESTS=ON >/dev/null
cmake --build "$folder" --target soak
exec tests/support/in-namespace.sh "$folder/bin/soak" "$@"
