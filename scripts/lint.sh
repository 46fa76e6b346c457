#!/bin/sh
# Checks the code with clang-format, shellcheck, cppcheck and clang-tidy: scripts/lint.sh JOBS [PATTERN]. clang-tidy
# checks only files whose paths match the regular expression PATTERN. Without PATTERN it skips tests/, which takes as
# long as everything else.
set -eu
cd "$(dirname "$0")/.."
jobs=$1 pattern=${2-}

# check TOOL ARGUMENT...: runs the tool and collects its findings, which all tools end with the name of the rule.
check() {
    echo "$1 ..."
    "$@" >build-lint/output.txt 2>&1 || uncoloured build-lint/output.txt |
        grep -E '^[^ ]+:[0-9]+:[0-9]+: .*\[[^]]+\]$' >>build-lint/all.txt || {
        cat build-lint/output.txt
        echo "lint.sh: $1 failed" >&2
        exit 1
    }
}

uncoloured() { sed 's/\x1b\[[0-9;]*m//g' "$1"; }

cmake --preset debug -B build-lint >/dev/null
folders='src common platform tools examples bench fuzz'
# shellcheck disable=SC2086 # lists of folders and files
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
        -I src -I common -I platform/KELUtilLib/include -I platform/KELOEMInterfaceLib/include \
        -I tools/common -I tools/nubo-sd -I tests $folders tests
    check run-clang-tidy -j "$jobs" -quiet -p build-lint \
        "^$PWD/${pattern:-($(echo "$folders" | tr ' ' '|'))/}"
}
# clang-tidy reports a finding in a header once per file that includes it.
sed "s,^$PWD/,," build-lint/all.txt | sort -u >build-lint/findings.txt
cat build-lint/findings.txt
if [ -s build-lint/findings.txt ]; then
    echo "lint: $(wc -l <build-lint/findings.txt) findings"
    exit 1
fi
echo "lint: $(echo "$code" "$scripts" | wc -w) files clean"
