#!/bin/sh
# Sets up, builds and runs all tests; see ./test.sh --help.
set -eu
cd "$(dirname "$0")"

usage() {
    cat <<'EOF'
usage: ./test.sh [OPTION]...

Installs what is missing (Debian packages), builds with AddressSanitizer and
UndefinedBehaviorSanitizer, and runs all tests.

  --tsan       build and run under ThreadSanitizer instead
  -k PATTERN   run only the tests whose name matches the regular expression
  -j N         build and test with N jobs (default: one a processor)
  --help       print this

Tests of what crosses a network make network namespaces of their own; where the
kernel forbids that, they are skipped, and the summary counts them.
EOF
}

preset=asan
pattern=.
jobs=$(nproc)
while [ $# -gt 0 ]; do
    case "$1" in
    --tsan) preset=tsan ;;
    -k | -j)
        [ $# -ge 2 ] || { echo "test.sh: $1 needs a value" >&2 && exit 2; }
        if [ "$1" = -k ]; then pattern=$2; else jobs=$2; fi
        shift
        ;;
    -h | --help)
        usage
        exit 0
        ;;
    *)
        echo "test.sh: unknown option: $1 (--help tells all)" >&2
        exit 2
        ;;
    esac
    shift
done

scripts/setup.sh build test
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --parallel "$jobs"

results=$PWD/build-$preset/test-results.xml
# ThreadSanitizer needs the memory layout that goes without address randomisation.
run=
[ "$preset" != tsan ] || run="setarch --addr-no-randomize"
# One line that moves is enough for somebody who watches; a log gets a line a test.
progress=
[ ! -t 1 ] || progress=--progress
status=0
# shellcheck disable=SC2086 # the words of $run are a command, and $progress may be none
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" $run ctest --test-dir "build-$preset" --parallel "$jobs" \
    --tests-regex "$pattern" $progress \
    --output-on-failure --output-junit "$results" --no-tests=error || status=$?

count() { sed -n "s/.*<testsuite .*$1=\"\([0-9]*\)\".*/\1/p;/^\t$1=\"/s/.*\"\([0-9]*\)\".*/\1/p" "$results" | head -n 1; }
total=$(count tests)
failed=$(count failures)
skipped=$(count skipped)
echo
echo "$preset: $((total - failed - skipped)) passed, $failed failed, $skipped skipped"
[ "$skipped" = 0 ] || {
    echo "Why they were skipped:"
    sed -n 's/.*SKIPPED: //p; /: Skipped$/{n;p}' "$results" | sort | uniq -c
}
if [ "$total" = 0 ]; then
    echo "No test matches: $pattern"
elif [ "$status" != 0 ]; then
    echo "To run one again:  ./test.sh$([ "$preset" = asan ] || echo " --$preset") -k NAME"
fi
exit "$status"
