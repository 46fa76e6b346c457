#!/bin/sh
# Generates the documentation of the public headers and the guide in build-docs/html. Warnings are errors.
set -eu
cd "$(dirname "$0")/.."
scripts/setup.sh docs
rm -rf build-docs
mkdir build-docs
doxygen docs/Doxyfile
echo "build-docs/html/index.html"
