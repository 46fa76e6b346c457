#!/usr/bin/env bats
# What holds for the project as a whole. Of the build under test, $KEL_SD_LIBRARY is the shared library, $NUBO_SD
# the tool, and $KEL_SD_HARDENING is 1 if it is hardened.

bats_require_minimum_version 1.5.0

setup() { cd "$BATS_TEST_DIRNAME/../.." || exit 1; }

# includes_of FOLDER: the project's headers that the folder's files include.
includes_of() { grep -hoE '^#include "[^"]+"' -r "$1" | sed -E 's/.*"(.*)"/\1/' | sort -u; }

@test "no folder of the library includes one above it" {
    below=
    for folder in DataLayer Multicast LogicLayer; do
        below="${below:+$below|}$folder"
        run ! grep -vE "^($below)/|^Export.h$" <(includes_of "src/$folder")
    done
}

@test "the platform libraries and the common code include nothing of the library" {
    for folder in platform common; do
        run ! grep -E '^(DataLayer|Multicast|LogicLayer)/|^(ServiceDiscovery|KnownServices|Export)\.h$' \
            <(includes_of "$folder")
    done
    run ! grep -rE '#include <(DataLayer|Multicast|LogicLayer|ServiceDiscovery|KnownServices)' platform common
}

@test "of the platform libraries the library includes only their interface" {
    used=$(grep -hoE '#include <KEL[^>]+>' -r src | sort -u)
    expected='#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELOEMInterfaceLib/OEMDispatcherCalls.h>
#include <KELUtilLib/ApplicationServices.h>
#include <KELUtilLib/DebugUtils.h>
#include <KELUtilLib/Logging.h>'
    [ "$used" = "$expected" ]
}

# may_include ROOM ROOM...: checks that the first room of the tool includes headers of the others only, and Errors.h.
may_include() {
    local rooms=${*:2}
    run ! grep -vE "^(${rooms// /|})/|^Errors.h\$" <(includes_of "tools/$1")
}

@test "a room of the tool includes only its own headers and those of the rooms below it" {
    may_include common/text text
    may_include common/unit unit text
    may_include common/services services unit text
    for room in capture diagnosis terminal; do
        may_include nubo-sd/$room $room services unit text
    done
    may_include nubo-sd/commands commands capture diagnosis terminal services unit text
}

@test "every header can be included by itself" {
    find src tools -name '*.h' | while read -r header; do
        echo "#include \"$header\"" | "${CXX:-c++}" -std=c++17 -fsyntax-only -x c++ -I. -Isrc -Icommon \
            -Itools/common -Itools/nubo-sd -Iplatform/KELUtilLib/include -Iplatform/KELOEMInterfaceLib/include -
    done
}

@test "the library exports its public classes and nothing else of its own" {
    # Strong symbols only: instances of other libraries' templates are weak. Not ours are those of compiler and
    # coverage.
    exported=$(nm --dynamic --demangle --defined-only "$KEL_SD_LIBRARY" | awk '$2 == "T" || $2 == "B" || $2 == "D"' |
        cut -d' ' -f3- | grep -vE '^(__|mangle_path$)')
    [ -n "$exported" ]
    run ! grep -vE '^Nubo::ServiceDiscovery::(ServiceDiscovery|NuboServiceDescription|ServiceListEvent(Payload)?|KnownServices)::' <<<"$exported"
    for operation in startup shutdown running addService findService removeService getServices; do
        grep -q "^Nubo::ServiceDiscovery::ServiceDiscovery::$operation(" <<<"$exported"
    done
}

# shellcheck disable=SC2016 # the backticks are the document's
@test "every test that the security model names is there" {
    for name in $(grep -oE '`[A-Za-z]+Test(\.[A-Za-z]+)?`' docs/security-model.md | tr -d '`' | sort -u); do
        grep -qE "^TEST(_F|_P)?\(${name/./, }[,)]" -r tests || { echo "no such test: $name" && return 1; }
    done
    for name in $(grep -oE '`[a-z]+_tests`' docs/security-model.md | tr -d '`' | sort -u); do
        grep -q "kel_sd_add_tests($name" -r tests || { echo "no such program: $name" && return 1; }
    done
}

@test "the library has a soname" {
    readelf -d "$KEL_SD_LIBRARY" | grep -qE 'SONAME.*\[libKELServiceDiscoveryLib\.so\.[0-9]+\]'
}

# The files that make up the product, for a test of what protects them.
hardened_files() {
    [ "$KEL_SD_HARDENING" = 1 ] || skip "built without KEL_SD_HARDENING"
    files=("$NUBO_SD" "$(dirname "$KEL_SD_LIBRARY")"/libKEL*.so)
}

@test "programs and libraries lie at addresses that nobody can foresee" {
    hardened_files
    for file in "${files[@]}"; do readelf -h "$file" | grep -q 'Type: *DYN '; done
    readelf -d "$NUBO_SD" | grep -q 'FLAGS_1.* PIE'
}

@test "the tables that calls go through are read-only when a program starts" {
    hardened_files
    for file in "${files[@]}"; do
        readelf -lW "$file" | grep -q ' GNU_RELRO '
        readelf -dW "$file" | grep -q '(FLAGS).* BIND_NOW'
    done
}

@test "no stack can be executed" {
    hardened_files
    for file in "${files[@]}"; do readelf -lW "$file" | grep -q ' GNU_STACK .* RW  *0x'; done
}

@test "a stack buffer that was overrun ends the program" {
    hardened_files
    for file in "${files[@]}"; do readelf --dyn-syms -W "$file" | grep -q ' UND __stack_chk_fail'; done
}

@test "the C library checks the calls that could overrun a buffer" {
    # Only optimised builds without sanitizers have the checks; the build under test may be another one.
    cmake --preset release -B "$BATS_TEST_TMPDIR"
    commands=$(grep '"command":' "$BATS_TEST_TMPDIR/compile_commands.json")
    run ! grep -v -- ' -O[23] .* -D_FORTIFY_SOURCE=2 ' <<<"$commands"
}

@test "all code is formatted" {
    find src platform tools fuzz bench examples tests \( -name '*.h' -o -name '*.cpp' \) \
        -exec clang-format --dry-run --Werror {} + || {
        echo "run: clang-format -i FILE"
        return 1
    }
}
