#!/bin/sh
# Injects small faults into src/ and runs the tests on each; see scripts/mutate.sh --help.
set -eu
cd "$(dirname "$0")/.."

case " $* " in
*" --help "* | *" -h "* | *" --list "* | *" --report "*) ;;
*) scripts/setup.sh build test mutate ;;
esac
exec python3 -B scripts/mutation/mutate.py "$@"
