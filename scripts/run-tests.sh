#!/bin/sh
# Runs the tests of a finished build and prints a summary: scripts/run-tests.sh PRESET JOBS [PATTERN]. Runs twice as
# many tests as JOBS at a time, because most of them wait; under emulation, where most of them compute, JOBS. PATTERN is
# a regular expression for the names of tests.
set -eu
cd "$(dirname "$0")/.."
form=$1 jobs=$2 pattern=${3-}

# Prints the last 50 lines of each failed test again, at the end of the output.
repeat_failures() {
    awk '
        sub(/^[0-9]+\/[0-9]+ Testing: /, "") { name = $0 }
        $0 == "Output:" { count = -1; next } # skips the line of dashes before the output
        $0 == "<end of output>" { end = count }
        $0 == "Test Failed." {
            print "\n--- " name
            for (i = end > 50 ? end - 50 : 0; i < end; ++i) print line[i]
        }
        { line[count++] = $0 }
        END { print "" }' "build-$form/Testing/Temporary/LastTest.log"
}

# count ATTRIBUTE: prints a number from the first element of the results.
count() { sed -n "s/.*<testsuite .*$1=\"\([0-9]*\)\".*/\1/p;/^\t$1=\"/s/.*\"\([0-9]*\)\".*/\1/p" "$results" | head -n 1; }

results=$PWD/build-$form/test-results.xml
# ThreadSanitizer does not work with address space randomisation.
run=
[ "$form" != tsan ] || run="setarch --addr-no-randomize"
parallel=$((2 * jobs))
[ "$form" != aarch64 ] || parallel=$jobs
# Updates a single line on a terminal; prints one line per test to a log.
progress=
[ ! -t 1 ] || progress=--progress
status=0
# shellcheck disable=SC2086 # $run is a command with arguments, and $progress may be empty
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" $run ctest --test-dir "build-$form" \
    --parallel "$parallel" --tests-regex "${pattern:-.}" $progress \
    --output-on-failure --output-junit "$results" --no-tests=error || status=$?

total=$(count tests)
failed=$(count failures)
skipped=$(count skipped)
echo
echo "$form: $((total - failed - skipped)) passed, $failed failed, $skipped skipped"
[ "$skipped" = 0 ] || {
    echo "Why they were skipped:"
    sed -n 's/.*SKIPPED: //p; /: Skipped$/{n;p}' "$results" | sort | uniq -c
}
if [ "$total" = 0 ]; then
    echo "No test matches: $pattern"
elif [ "$status" != 0 ]; then
    repeat_failures
    echo "To run one again:  ./test.sh$([ "$form" = asan ] || echo " --$form") -k NAME"
fi
exit "$status"
