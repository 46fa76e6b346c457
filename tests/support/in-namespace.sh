#!/bin/sh
# Runs a command in a network namespace of its own, where it may make further ones with `ip netns`: as root
# directly, as another user through a user namespace. Exits with 77, which CTest takes for "skipped", when
# the kernel forbids that.
#
# usage: in-namespace.sh COMMAND [ARGUMENT...]

case "$*" in
*--gtest_list_tests*) exec "$@" ;; # at build time: needs no network
esac

flags="--net --mount"
[ "$(id -u)" = 0 ] || flags="--user --map-root-user $flags"

# shellcheck disable=SC2086 # the flags are words of their own
if ! unshare $flags sh -c 'mount -t tmpfs tmpfs /run && ip link set lo up' 2>/dev/null; then
    echo "SKIPPED: the kernel forbids network namespaces to this user"
    exit 77
fi
# shellcheck disable=SC2086,SC2016
exec unshare $flags sh -c 'mount -t tmpfs tmpfs /run && ip link set lo up && exec "$@"' sh "$@"
