#!/usr/bin/env bash
# Removes what an install recorded in MANIFEST (one installed path a line, as cmake --install
# writes it, without DESTDIR), then the directories of Tarnwick's own (named "tarnwick") that are
# left empty. Shared directories such as bin or share/applications stay. With DESTDIR set in the
# environment, as for the install, the paths are taken under it. Used by make uninstall.
set -euo pipefail

manifest=${1:?usage: uninstall.sh MANIFEST}
if [ ! -f "$manifest" ]; then
    echo "tarnwick: nothing to uninstall ($manifest is missing)" >&2
    exit 1
fi

status=0
destdir=${DESTDIR:-}
while IFS= read -r path || [ -n "$path" ]; do
    [ -n "$path" ] || continue
    path=$destdir$path
    if [ -e "$path" ] || [ -L "$path" ]; then
        if rm -f -- "$path"; then
            echo "removed $path"
        else
            status=1
        fi
    fi
done <"$manifest"

while IFS= read -r path || [ -n "$path" ]; do
    [ -n "$path" ] || continue
    dir=$(dirname -- "$destdir$path")
    if [ "$(basename -- "$dir")" = tarnwick ]; then
        rmdir -- "$dir" 2>/dev/null || true
    fi
done <"$manifest"
exit $status
