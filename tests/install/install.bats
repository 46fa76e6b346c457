#!/usr/bin/env bats
# What `cmake --install` puts where, and that others can build with it. $KEL_SD_BUILD_DIR is the build under test,
# $KEL_SD_LIBDIR its folder for libraries below the prefix; $CXX and $CXXFLAGS are what programs are built with.

bats_require_minimum_version 1.5.0

setup_file() {
    export PREFIX=$BATS_FILE_TMPDIR/first
    install_to "$PREFIX"
}

setup() { cd "$BATS_TEST_DIRNAME" || exit 1; }

install_to() { cmake --install "$KEL_SD_BUILD_DIR" --prefix "$1" "${@:2}" >"$BATS_FILE_TMPDIR/install.log"; }

fail() {
    echo "$*" >&2
    return 1
}

# says_uri PROGRAM: runs it, with no help to find its libraries.
says_uri() {
    local said
    said=$(env -u LD_LIBRARY_PATH "$1") || fail "exit code $?: $1"
    [ "$said" = "http://[fd00::12]:8080/Media/" ] || fail "$1 said: $said"
}

# consumer_by_cmake PREFIX: builds and runs the consumer with the CMake package there.
consumer_by_cmake() {
    rm -rf "$BATS_TEST_TMPDIR/consumer"
    cmake -G Ninja -S consumer -B "$BATS_TEST_TMPDIR/consumer" -DCMAKE_PREFIX_PATH="$1"
    grep "^KELServiceDiscoveryLib_DIR:PATH=$1/" "$BATS_TEST_TMPDIR/consumer/CMakeCache.txt"
    cmake --build "$BATS_TEST_TMPDIR/consumer"
    says_uri "$BATS_TEST_TMPDIR/consumer/consumer"
}

# consumer_by_pkg_config PREFIX: the same with the files for pkg-config there.
consumer_by_pkg_config() {
    local packages="KELServiceDiscoveryLib KELOEMInterfaceLib KELUtilLib"
    export PKG_CONFIG_PATH=$1/$KEL_SD_LIBDIR/pkgconfig
    # shellcheck disable=SC2046,SC2086 # the flags and the packages are words of their own
    "$CXX" -std=c++17 $CXXFLAGS $(pkg-config --cflags $packages) consumer/main.cpp -o "$BATS_TEST_TMPDIR/consumer" \
        $(pkg-config --libs $packages) "-Wl,-rpath,$(pkg-config --variable=libdir KELServiceDiscoveryLib)"
    says_uri "$BATS_TEST_TMPDIR/consumer"
}

# moved: the prefix of a copy that lies elsewhere, while the first one cannot be read.
moved() {
    cp -a "$PREFIX" "$BATS_TEST_TMPDIR/second"
    mv "$PREFIX" "$PREFIX.away"
}

teardown() { [ ! -e "$PREFIX.away" ] || mv "$PREFIX.away" "$PREFIX"; }

@test "the public headers are installed, and no others" {
    installed=$(cd "$PREFIX/include" && find . -type f | LC_ALL=C sort)
    expected='./KELServiceDiscoveryLib/DataLayer/NuboServiceDescription.h
./KELServiceDiscoveryLib/DataLayer/SDService.h
./KELServiceDiscoveryLib/DataLayer/ServiceDiscovery_Types.h
./KELServiceDiscoveryLib/DataLayer/ServiceEvents.h
./KELServiceDiscoveryLib/DataLayer/TextList.h
./KELServiceDiscoveryLib/Export.h
./KELServiceDiscoveryLib/KELOEMInterfaceLib/Export.h
./KELServiceDiscoveryLib/KELOEMInterfaceLib/LinuxDispatcher.h
./KELServiceDiscoveryLib/KELOEMInterfaceLib/ManualDispatcher.h
./KELServiceDiscoveryLib/KELOEMInterfaceLib/NetlinkDispatcher.h
./KELServiceDiscoveryLib/KELOEMInterfaceLib/OEMDispatcher.h
./KELServiceDiscoveryLib/KELOEMInterfaceLib/OEMDispatcherCalls.h
./KELServiceDiscoveryLib/KELUtilLib/ApplicationServices.h
./KELServiceDiscoveryLib/KELUtilLib/DebugUtils.h
./KELServiceDiscoveryLib/KELUtilLib/Export.h
./KELServiceDiscoveryLib/KELUtilLib/Logging.h
./KELServiceDiscoveryLib/KnownServices.h
./KELServiceDiscoveryLib/ServiceDiscovery.h'
    [ "$installed" = "$expected" ] || fail "installed: $installed"
}

@test "every installed header can be included by itself" {
    cd "$PREFIX/include/KELServiceDiscoveryLib"
    find . -name '*.h' | while read -r header; do
        echo "#include <${header#./}>" | "$CXX" -std=c++17 -fsyntax-only -x c++ -I. -
    done
}

@test "everything else lies where it is looked for" {
    for file in bin/nubo-sd share/man/man1/nubo-sd.1 share/man/man7/KELServiceDiscoveryLib.7 \
        lib/systemd/system/nubo-sd.service share/bash-completion/completions/nubo-sd \
        "$KEL_SD_LIBDIR/pkgconfig/KELServiceDiscoveryLib.pc" \
        "$KEL_SD_LIBDIR/cmake/KELServiceDiscoveryLib/KELServiceDiscoveryLibConfigVersion.cmake"; do
        [ -f "$PREFIX/$file" ] || fail "missing: $file"
    done
    [ -n "$(find "$PREFIX/share/zsh" -name _nubo-sd)" ]
    for library in KELServiceDiscoveryLib KELUtilLib KELOEMInterfaceLib; do
        [ "$(readlink "$PREFIX/$KEL_SD_LIBDIR/lib$library.so")" = "lib$library.so.0" ]
    done
}

@test "nothing installed names the folder that it was installed to, or the one it was built in" {
    run ! grep -rIl -e "$PREFIX" -e "$KEL_SD_BUILD_DIR" "$PREFIX"
    for file in "$PREFIX"/bin/nubo-sd "$PREFIX/$KEL_SD_LIBDIR"/libKEL*.so; do
        # shellcheck disable=SC2016 # the loader knows $ORIGIN
        readelf -d "$file" | grep -qE 'R(UN)?PATH.*\[\$ORIGIN(/[^]:]*)?\]$' || fail "$(readelf -d "$file" | grep PATH)"
    done
}

@test "in the system's own prefix libraries are found without a path of their own" {
    DESTDIR=$BATS_TEST_TMPDIR install_to /usr
    for file in "$BATS_TEST_TMPDIR"/usr/bin/nubo-sd "$BATS_TEST_TMPDIR/usr/$KEL_SD_LIBDIR"/libKEL*.so; do
        run ! grep -E 'R(UN)?PATH' <(readelf -d "$file")
    done
}

@test "a platform can leave out our edition of its libraries" {
    for component in Runtime Dev Tools; do
        install_to "$BATS_TEST_TMPDIR/apart" --component "$component"
    done
    run ! grep -E 'KELUtilLib|KELOEMInterfaceLib' <(cd "$BATS_TEST_TMPDIR/apart" && find .)
    for component in Util UtilDev OEMInterface OEMInterfaceDev; do
        install_to "$BATS_TEST_TMPDIR/apart" --component "$component"
    done
    diff <(cd "$PREFIX" && find . | sort) <(cd "$BATS_TEST_TMPDIR/apart" && find . | sort)
}

@test "a program is built with the CMake package" {
    consumer_by_cmake "$PREFIX"
}

@test "a program is built with pkg-config" {
    consumer_by_pkg_config "$PREFIX"
}

@test "all of it can be moved" {
    moved
    second=$BATS_TEST_TMPDIR/second
    env -u LD_LIBRARY_PATH "$second/bin/nubo-sd" --version
    consumer_by_cmake "$second"
    rm -rf "$BATS_TEST_TMPDIR/consumer"
    consumer_by_pkg_config "$second"
}

@test "another major version is not taken for this one" {
    printf '%s\n' 'cmake_minimum_required(VERSION 3.22)' 'project(Consumer LANGUAGES CXX)' \
        'find_package(KELServiceDiscoveryLib 1 REQUIRED)' >"$BATS_TEST_TMPDIR/CMakeLists.txt"
    run cmake -G Ninja -S "$BATS_TEST_TMPDIR" -B "$BATS_TEST_TMPDIR/build" -DCMAKE_PREFIX_PATH="$PREFIX"
    [ "$status" -ne 0 ]
    [[ $output == *"compatible with requested version \"1\""* ]] || fail "$output"
}

@test "the service for systemd may do little" {
    command -v systemd-analyze >/dev/null || skip "systemd-analyze is not installed"
    systemd-analyze security --offline=true --threshold=15 --no-pager ../../packaging/nubo-sd.service
}
