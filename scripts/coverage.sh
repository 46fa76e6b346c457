#!/bin/sh
# Reports how much of src/ the tests have covered since the counters were deleted: scripts/coverage.sh JOBS. Exit
# code 1 below the goal.
set -eu
cd "$(dirname "$0")/.."
jobs=$1

# Only branches in the source count, not those that the compiler adds for exceptions. A log line has only such: its
# level is tested once for all.
gcovr --root . --filter src/ --exclude-throw-branches --exclude-unreachable-branches \
    --exclude-branches-by-pattern ' *(SD_LOG\(|<<).*' -j "$jobs" \
    --csv build-coverage/coverage.csv --html-details build-coverage/coverage.html build-coverage
echo
awk -f scripts/coverage-table.awk build-coverage/coverage.csv || {
    echo "Below the goal: see build-coverage/coverage.html for the lines that no test covers."
    exit 1
}
