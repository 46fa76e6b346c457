#!/bin/sh
# Sets up, builds and runs all tests, or checks the code; see ./test.sh --help.
set -eu
cd "$(dirname "$0")"

usage() {
    cat <<'EOF'
usage: ./test.sh [OPTION]...

Installs missing Debian packages, builds with AddressSanitizer and
UndefinedBehaviorSanitizer, and runs all tests.

  --tsan       build and run under ThreadSanitizer instead
  --coverage   build and run without sanitizers, and report how much of src/ the
               tests cover; exit code 1 below the goal. See
               build-coverage/coverage.html for each line
  --aarch64    build for aarch64 without sanitizers, and run the tests of codec,
               records and decisions under emulation. Nothing of that architecture
               is installed
  --fuzz       run every fuzz target for some seconds instead of the tests; see
               fuzz/run.sh for longer runs
  --packages   build the Debian packages instead, and install, use and purge them in
               a bare Debian, which is kept in memory
  --lint       run clang-format, shellcheck, cppcheck and clang-tidy instead.
               clang-tidy skips tests/, which would take as long as everything else:
               -k tests/ checks them
  -k PATTERN   run only tests whose names match the regular expression; with --lint,
               run clang-tidy only on files whose paths match it
  -j N         build with N jobs, and run 2 N tests at a time, since most of them
               wait (default: number of processors)
  --help       print this text

Tests that cross a network create network namespaces. Where the kernel forbids that,
they are skipped, and the summary counts them.
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
        echo "test.sh: unknown option: $1 (see --help)" >&2
        exit 2
        ;;
    esac
    shift
done

build() {
    cmake --preset "$form" >/dev/null
    cmake --build --preset "$form" --parallel "$jobs"
}

run_tests() { scripts/run-tests.sh "$form" "$jobs" "$pattern"; }

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
    scripts/lint.sh "$jobs" "$pattern"
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
    scripts/coverage.sh "$jobs"
    exit "$outcome"
    ;;
*)
    scripts/setup.sh build test
    build
    run_tests
    ;;
esac
