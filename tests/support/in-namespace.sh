#!/bin/sh
# Runs a command in a new network namespace, where it may create further ones with `ip netns`. Users other than
# root get them through a user namespace. Exits with 77, which CTest reports as "skipped", if the kernel forbids
# this.
#
# usage: in-namespace.sh COMMAND [ARGUMENT...]

case "$*" in
*--gtest_list_tests*) exec "$@" ;; # needs no network, and runs at build time
esac

flags="--net --mount"
[ "$(id -u)" = 0 ] || flags="--user --map-root-user $flags"

# shellcheck disable=SC2086 # each flag is a separate word
if ! unshare $flags sh -c 'mount -t tmpfs tmpfs /run && ip link set lo up' 2>/dev/null; then
    echo "SKIPPED: the kernel forbids network namespaces to this user"
    exit 77
fi
# shellcheck disable=SC2086,SC2016
exec unshare $flags sh -c 'mount -t tmpfs tmpfs /run && ip link set lo up && exec "$@"' sh "$@"
