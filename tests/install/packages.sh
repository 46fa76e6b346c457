#!/bin/sh
# Installs, uses and purges the packages of build-package/ in a bare Debian. That lies in memory, in a mount namespace,
# and goes with its last process.
set -eu
cd "$(dirname "$0")/../.."
scripts/setup.sh install

TMPDIR=$(mktemp -d)
export TMPDIR
trap 'rmdir "$TMPDIR"' EXIT
trap exit HUP INT TERM

# in_memory COMMAND...: runs it as root of a namespace where $TMPDIR is a file system of its own.
in_memory() {
    flags=--mount
    [ "$(id -u)" = 0 ] || flags="--user --map-auto --map-root-user $flags"
    # shellcheck disable=SC2086,SC2016 # the flags are words of their own
    unshare $flags sh -c 'mount -t tmpfs tmpfs "$TMPDIR" && exec "$@"' sh "$@"
}

if ! in_memory true 2>/dev/null; then
    echo "SKIPPED: only root may make a system of its own here, or a user whom newuidmap serves"
    exit 0
fi
# shellcheck disable=SC2016 # the hooks' own $1 is the folder of the system
in_memory scripts/debian.sh /dev/null --variant=minbase --include=bats \
    --customize-hook='mkdir "$1/packages" && cp -r build-package/*.deb tests/install "$1/packages"' \
    --customize-hook='chroot "$1" env KEL_SD_PACKAGES=/packages bats /packages/install/packages.bats'
