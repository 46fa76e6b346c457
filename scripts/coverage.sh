#!/bin/sh
# Reports the coverage of src/ since the counters were deleted: scripts/coverage.sh JOBS. The exit code is 1 below the
# goal.
set -eu
cd "$(dirname "$0")/.."
jobs=$1

# Counts only branches in the source, not those that the compiler adds for exceptions. Excludes log lines, whose only
# other branch is the test of the level, which is the same for all.
gcovr --root . --filter src/ --exclude-throw-branches --exclude-unreachable-branches \
    --exclude-branches-by-pattern ' *(SD_LOG\(|<<).*' -j "$jobs" \
    --csv build-coverage/coverage.csv --html-details build-coverage/coverage.html build-coverage
echo
awk -f scripts/coverage-table.awk build-coverage/coverage.csv || {
    echo "Below the goal: see build-coverage/coverage.html for the lines that no test covers."
    exit 1
}
