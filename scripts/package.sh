#!/bin/sh
# Builds and checks the Debian packages; see scripts/package.sh --help.
set -eu
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
usage: scripts/package.sh [-j N]

Installs missing Debian packages, builds the project with optimisation, creates
its Debian packages in build-package/, and checks them with lintian. The exit code
is 1 if lintian reports a warning or an error.

  -j N     build with N jobs (default: number of processors)
  --help   print this help
TEXT
}

jobs=$(nproc)
while [ $# -gt 0 ]; do
    case "$1" in
    -j)
        [ $# -ge 2 ] || { echo "package.sh: -j needs a value" >&2 && exit 2; }
        jobs=$2
        shift
        ;;
    -h | --help)
        usage
        exit 0
        ;;
    *)
        echo "package.sh: unknown option: $1 (see --help)" >&2
        exit 2
        ;;
    esac
    shift
done

scripts/setup.sh build package
# Dates files in the packages to the last commit, so that the same commit always produces the same packages.
if [ -z "${SOURCE_DATE_EPOCH:-}" ] && epoch=$(git log -1 --format=%ct 2>/dev/null); then
    SOURCE_DATE_EPOCH=$epoch
    export SOURCE_DATE_EPOCH
fi

umask 022
cmake --preset package >/dev/null
cmake --build --preset package --parallel "$jobs"
rm -f build-package/*.deb
(cd build-package && cpack) >build-package/cpack.log || {
    cat build-package/cpack.log >&2
    echo "package.sh: cpack failed" >&2
    exit 1
}

status=0
lintian --tag-display-limit 0 --info --fail-on error,warning build-package/*.deb || status=1
ls build-package/*.deb
exit "$status"
