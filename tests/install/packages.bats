#!/usr/bin/env bats
# What the Debian packages do to a system. It installs and removes packages: tests/install/packages.sh runs it in a
# system of its own. $KEL_SD_PACKAGES is their folder. Each test goes on where the one before it ended.

bats_require_minimum_version 1.5.0

setup_file() {
    export DEBIAN_FRONTEND=noninteractive
    files >"$BATS_FILE_TMPDIR/before"
}

# files: every path that packages may leave behind.
files() { find /etc /lib /opt /srv /usr /var/lib \( -path /var/lib/apt -o -path /var/lib/dpkg \) -prune -o -print | sort; }

install() { apt-get install --yes --no-install-recommends "$@"; }

# says_uri PROGRAM: runs the consumer, which tells where its service is.
says_uri() { [ "$("$1")" = "http://[fd00::12]:8080/Media/" ]; }

@test "the libraries need no more than the system has" {
    install "$KEL_SD_PACKAGES"/lib*[a-z]0_*.deb
    for library in KELServiceDiscoveryLib KELUtilLib KELOEMInterfaceLib; do
        file=$(ldconfig -p | sed -n "s/.*lib$library.so.0 .* => //p")
        run ! grep 'not found' <(ldd "$file")
    done
    [ ! -e /usr/bin/nubo-sd ]
    [ ! -e /usr/include/KELServiceDiscoveryLib ]
}

@test "the tool runs, and has its manual page" {
    install "$KEL_SD_PACKAGES"/nubo-sd_*.deb
    [ "$(nubo-sd --version)" = "nubo-sd $(dpkg-query -W -f '${Version}' nubo-sd)" ]
    [ -s /usr/share/man/man1/nubo-sd.1.gz ]
}

@test "a program is built with the CMake package" {
    install "$KEL_SD_PACKAGES"/lib*-dev_*.deb g++ cmake make pkg-config
    cmake -S "$BATS_TEST_DIRNAME/consumer" -B "$BATS_TEST_TMPDIR"
    cmake --build "$BATS_TEST_TMPDIR"
    says_uri "$BATS_TEST_TMPDIR/consumer"
}

@test "a program is built with pkg-config" {
    # shellcheck disable=SC2046 # the flags are words of their own
    g++ -std=c++17 "$BATS_TEST_DIRNAME/consumer/main.cpp" -o "$BATS_TEST_TMPDIR/consumer" \
        $(pkg-config --cflags --libs KELServiceDiscoveryLib KELOEMInterfaceLib KELUtilLib)
    says_uri "$BATS_TEST_TMPDIR/consumer"
}

@test "nothing is left behind when all is purged" {
    # As systemctl enables the service.
    wants=/etc/systemd/system/multi-user.target.wants
    mkdir -p $wants
    ln -s /lib/systemd/system/nubo-sd.service $wants
    apt-get purge --yes --auto-remove libkelutil0 g++ cmake make pkg-config
    diff "$BATS_FILE_TMPDIR/before" <(files)
}
