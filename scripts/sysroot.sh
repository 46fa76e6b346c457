#!/bin/sh
# Unpacks what the build and the tests need of another architecture into a folder, where a cross compiler finds it.
# Nothing of it is installed on this machine.
#
# usage: scripts/sysroot.sh ARCHITECTURE FOLDER
set -eu
cd "$(dirname "$0")/.."
architecture=$1
folder=$2

packages=$(scripts/setup.sh --list build test | tr ' ' '\n' | grep -e '-dev$' | paste -sd ' ')
list=$folder.packages # is there once they are all unpacked
[ "$packages" != "$(cat "$list" 2>/dev/null)" ] || exit 0

echo "Unpacking for $architecture: $packages"
rm -rf "$list" "$folder"
mkdir -p "$folder"
scripts/debian.sh "$folder" --mode=chrootless --variant=extract --architectures="$architecture" --include="$packages"
# Links to a path of the target's lead to the same path in the folder.
find "$folder" -type l -lname '/*' | while read -r link; do
    ln -snfr "$folder$(readlink "$link")" "$link"
done
echo "$packages" >"$list"
