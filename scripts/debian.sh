#!/bin/sh
# Runs mmdebstrap for this machine's release of Debian, with the mirrors and the proxy that apt uses here.
#
# usage: scripts/debian.sh FOLDER OPTION...
set -eu
folder=$1
shift

# shellcheck disable=SC2016 # apt expands these names, not the shell
sources=$(apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
    'Created-By: Packages' 'Origin: Debian' | sort -u)
[ -n "$sources" ] || {
    echo "debian.sh: apt has no package index of Debian; run apt-get update" >&2
    exit 1
}
release=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
settings=$(apt-config -o Acquire::Languages=none dump --format '%f "%v";%n' Acquire::Languages Acquire::http)
echo "$sources" | mmdebstrap --quiet --aptopt="$settings" "$@" "$release" "$folder" -
