#!/bin/sh
# Installs the missing Debian packages that a task needs. Runs without prompts, and with sudo unless run as root.
#
# usage: scripts/setup.sh [--list] TASK...
#
# TASK is one of: build demo test aarch64 coverage lint bench fuzz mutate package install docs. With --list it prints
# the packages and installs nothing.
set -eu

packages_for() {
    case "$1" in
    build) echo g++ cmake ninja-build pkg-config libpoco-dev libcli11-dev nlohmann-json3-dev libnl-route-3-dev libsodium-dev libpcap-dev libncurses-dev ;;
    demo) echo iproute2 ;;
    test) echo libgtest-dev libgmock-dev libbenchmark-dev clang-format bats jq tshark iproute2 procps python3 nftables zsh tmux doxygen ;;
    aarch64) echo g++-aarch64-linux-gnu qemu-user mmdebstrap iproute2 ;;
    coverage) echo gcovr ;;
    lint) echo clang-tidy clang-format cppcheck shellcheck ;;
    bench) echo libbenchmark-dev iproute2 jq ;;
    package) echo dpkg-dev file binutils lintian ;;
    install) echo mmdebstrap uidmap ;;
    docs) echo doxygen ;;
    mutate) echo python3 ccache lld ;;
    fuzz) echo clang libclang-rt-dev llvm ;;
    *)
        echo "setup.sh: unknown task: $1" >&2
        exit 2
        ;;
    esac
}

is_installed() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

if [ "${1-}" = --list ]; then
    shift
    for task in "$@"; do packages_for "$task"; done
    exit 0
fi

missing=
for task in "$@"; do
    packages=$(packages_for "$task")
    for package in $packages; do
        is_installed "$package" || missing="$missing $package"
    done
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" = 0 ]; then
    as_root=
elif command -v sudo >/dev/null; then
    as_root=sudo
else
    echo "setup.sh: run as root to install the missing Debian packages:$missing" >&2
    exit 1
fi

echo "Installing:$missing"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# shellcheck disable=SC2086 # each package is a separate word
if ! { $as_root apt-get update &&
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get install --yes --no-install-recommends $missing; } \
    >"$log" 2>&1; then
    cat "$log" >&2
    echo "setup.sh: the packages could not be installed" >&2
    exit 1
fi
