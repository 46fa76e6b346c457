#!/bin/sh
# Sets up, builds and runs all tests, or looks the code over; see ./test.sh --help.
set -eu
cd "$(dirname "$0")"

usage() {
    cat <<'EOF'
usage: ./test.sh [OPTION]...

Installs what is missing (Debian packages), builds with AddressSanitizer and
UndefinedBehaviorSanitizer, and runs all tests.

  --tsan       build and run under ThreadSanitizer instead
  --coverage   build and run without sanitizers, and tell how much of src/ the tests
               run; below the goal the exit code is 1. build-coverage/coverage.html
               shows each line
  --aarch64    build for aarch64 instead, without sanitizers, and run under emulation
               what can be: the tests of codec, records and decisions, a test program
               at a time. Nothing of that architecture is installed
  --fuzz       run no tests, but every fuzz target for some seconds; fuzz/run.sh does
               more
  --packages   run no tests, but make the Debian packages, and install, use and purge
               them in a bare Debian, which lies in memory
  --lint       run no tests, but clang-format, shellcheck, cppcheck and clang-tidy.
               clang-tidy leaves tests/ out, which would take as long as all the rest:
               -k tests/ checks them
  -k PATTERN   run only the tests whose name matches the regular expression; with
               --lint: give only the files to clang-tidy whose path matches it
  -j N         build with N jobs, and run twice as many tests at a time, which mostly
               wait (default: one a processor)
  --help       print this

Tests of what crosses a network make network namespaces of their own; where the
kernel forbids that, they are skipped, and the summary counts them.
EOF
}

form=asan
pattern=
jobs=$(nproc)
while [ $# -gt 0 ]; do
    case "$1" in
    --tsan | --coverage | --aarch64 | --fuzz | --packages | --lint) form=${1#--} ;;
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

build() {
    cmake --preset "$form" >/dev/null
    cmake --build --preset "$form" --parallel "$jobs"
}

run_tests() {
    results=$PWD/build-$form/test-results.xml
    # ThreadSanitizer needs the memory layout that goes without address randomisation.
    run=
    [ "$form" != tsan ] || run="setarch --addr-no-randomize"
    # One line that moves is enough for somebody who watches; a log gets a line a test.
    progress=
    [ ! -t 1 ] || progress=--progress
    status=0
    # shellcheck disable=SC2086 # the words of $run are a command, and $progress may be none
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" $run ctest --test-dir "build-$form" \
        --parallel $((2 * jobs)) --tests-regex "${pattern:-.}" $progress \
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
    return "$status"
}

# Once more where one looks first: the last that the failed tests printed.
repeat_failures() {
    awk '
        sub(/^[0-9]+\/[0-9]+ Testing: /, "") { name = $0 }
        $0 == "Output:" { count = -1; next } # a line of dashes comes before what it printed
        $0 == "<end of output>" { end = count }
        $0 == "Test Failed." {
            print "\n--- " name
            for (i = end > 50 ? end - 50 : 0; i < end; ++i) print line[i]
        }
        { line[count++] = $0 }
        END { print "" }' "build-$form/Testing/Temporary/LastTest.log"
}

# count WHAT: a figure of the results' first element.
count() { sed -n "s/.*<testsuite .*$1=\"\([0-9]*\)\".*/\1/p;/^\t$1=\"/s/.*\"\([0-9]*\)\".*/\1/p" "$results" | head -n 1; }

# Branches are those that somebody wrote, without what the compiler adds for exceptions; of a log line they are
# nothing else, for that its level can be off is tested once.
report_coverage() {
    gcovr --root . --filter src/ --exclude-throw-branches --exclude-unreachable-branches \
        --exclude-branches-by-pattern ' *(SD_LOG\(|<<).*' -j "$jobs" \
        --csv build-coverage/coverage.csv --html-details build-coverage/coverage.html build-coverage
    echo
    awk -f scripts/coverage-table.awk build-coverage/coverage.csv || {
        echo "That is below the goal; build-coverage/coverage.html shows what is not run."
        return 1
    }
}

lint() {
    cmake --preset debug -B build-lint >/dev/null
    folders='src platform tools examples bench fuzz'
    # shellcheck disable=SC2086 # folders and files are words of their own
    {
        code=$(find $folders tests -name '*.h' -o -name '*.cpp')
        scripts=$(find . \( -path './build*' -o -path ./.git \) -prune -o \
            \( -name '*.sh' -o -name '*.bats' -o -name '*.bash' -o -path ./.ci/run \) -print)
        : >build-lint/all.txt
        check clang-format --dry-run --Werror $code
        check shellcheck --format=gcc $scripts
        check cppcheck -j "$jobs" --quiet --template=gcc --error-exitcode=1 --std=c++17 \
            --enable=warning,performance,portability --inline-suppr --suppressions-list=.cppcheck-suppressions \
            --library=googletest,posix \
            -I src -I platform/KELUtilLib/include -I platform/KELOEMInterfaceLib/include -I tests $folders tests
        check run-clang-tidy -j "$jobs" -quiet -p build-lint \
            "^$PWD/${pattern:-($(echo "$folders" | tr ' ' '|'))/}"
    }
    # What is wrong with a header is found in each file that includes it.
    sed "s,^$PWD/,," build-lint/all.txt | sort -u >build-lint/findings.txt
    cat build-lint/findings.txt
    if [ -s build-lint/findings.txt ]; then
        echo "lint: $(wc -l <build-lint/findings.txt) findings"
        return 1
    fi
    echo "lint: $(echo "$code" "$scripts" | wc -w) files clean"
}

# check TOOL ARGUMENT...: notes what the tool finds; each of them ends such a line by the name of what it is about.
check() {
    echo "$1 ..."
    "$@" >build-lint/output.txt 2>&1 || uncoloured build-lint/output.txt |
        grep -E '^[^ ]+:[0-9]+:[0-9]+: .*\[[^]]+\]$' >>build-lint/all.txt || {
        cat build-lint/output.txt
        echo "test.sh: $1 failed" >&2
        exit 1
    }
}

uncoloured() { sed 's/\x1b\[[0-9;]*m//g' "$1"; }

case "$form" in
fuzz)
    fuzz/run.sh --smoke -j "$jobs"
    ;;
packages)
    scripts/package.sh -j "$jobs"
    tests/install/packages.sh
    ;;
lint)
    scripts/setup.sh build test lint
    lint
    ;;
aarch64)
    scripts/setup.sh build aarch64
    scripts/sysroot.sh arm64 build-aarch64/sysroot
    build
    run_tests
    ;;
coverage)
    scripts/setup.sh build test coverage
    mkdir -p build-coverage
    find build-coverage -name '*.gcda' -delete # what earlier runs have counted
    build
    outcome=0
    run_tests || outcome=$?
    report_coverage
    exit "$outcome"
    ;;
*)
    scripts/setup.sh build test
    build
    run_tests
    ;;
esac
