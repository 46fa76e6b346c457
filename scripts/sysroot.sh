#!/bin/sh
# Unpacks the packages that the build and the tests need for another architecture into a folder for a cross compiler.
# Installs nothing on this machine.
#
# usage: scripts/sysroot.sh ARCHITECTURE FOLDER
set -eu
cd "$(dirname "$0")/.."
architecture=$1
folder=$2

packages=$(scripts/setup.sh --list build test | tr ' ' '\n' | grep -e '-dev$' | paste -sd ' ')
list=$folder.packages # written when all packages have been unpacked
[ "$packages" != "$(cat "$list" 2>/dev/null)" ] || exit 0

echo "Unpacking for $architecture: $packages"
rm -rf "$list" "$folder"
mkdir -p "$folder"
scripts/debian.sh "$folder" --mode=chrootless --variant=extract --architectures="$architecture" --include="$packages"
# Makes absolute symbolic links point to the same path inside the folder.
find "$folder" -type l -lname '/*' | while read -r link; do
    ln -snfr "$folder$(readlink "$link")" "$link"
done
echo "$packages" >"$list"
