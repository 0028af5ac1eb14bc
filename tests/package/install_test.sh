#!/usr/bin/env bash
# Installs the built tree into a scratch root (DESTDIR, prefix /usr), checks that every file is in
# its place and works from there (tarnwick-cli indexes and searches and finds the trainers in
# libexec, the application starts, a C program builds against the library through pkg-config),
# then uninstalls from the manifest and checks that nothing is left.
#
#   install_test.sh BUILD_DIR SOURCE_DIR
set -uo pipefail
build=${1:?usage: install_test.sh BUILD_DIR SOURCE_DIR}
source_dir=${2:?usage: install_test.sh BUILD_DIR SOURCE_DIR}
. "$source_dir/tests/package/common.sh"

root="$scratch/root"
# The component install keeps its own manifest, so a user's make install record stays intact.
if ! DESTDIR="$root" cmake --install "$build" --prefix /usr --component Unspecified \
    >"$scratch/install.log" 2>&1; then
    cat "$scratch/install.log" >&2
    fail "cmake --install failed"
    finish
fi
manifest="$build/install_manifest_Unspecified.txt"
usr="$root/usr"
has_app=0
[ -f "$build/bin/tarnwick" ] && has_app=1

for f in bin/tarnwick-cli libexec/tarnwick/trainer libexec/tarnwick/train_bpe \
    include/tarnwick.h include/tarnwick_encoder.h include/tarnwick_files.h \
    share/man/man1/tarnwick-cli.1 share/bash-completion/completions/tarnwick-cli; do
    expect_file "$usr/$f"
done
ls "$usr"/share/zsh/*/_tarnwick-cli >/dev/null 2>&1 || fail "missing the zsh completion"
if [ -f "$source_dir/models/default.tten" ]; then
    expect_file "$usr/share/tarnwick/default.tten"
fi
if [ "$has_app" = 1 ]; then
    for f in bin/tarnwick share/man/man1/tarnwick.1 \
        share/applications/org.tarnwick.Tarnwick.desktop \
        share/kio/servicemenus/org.tarnwick.Tarnwick.search.desktop \
        share/nautilus-python/extensions/tarnwick_search.py \
        bin/tarnwick-search-provider \
        share/dbus-1/services/org.tarnwick.Tarnwick.SearchProvider.service \
        share/gnome-shell/search-providers/org.tarnwick.Tarnwick.search-provider.ini \
        share/krunner/dbusplugins/org.tarnwick.Tarnwick.desktop \
        share/metainfo/org.tarnwick.Tarnwick.metainfo.xml \
        share/icons/hicolor/scalable/apps/org.tarnwick.Tarnwick.svg; do
        expect_file "$usr/$f"
    done
    grep -qx "Exec=/usr/bin/tarnwick-search-provider" \
        "$usr/share/dbus-1/services/org.tarnwick.Tarnwick.SearchProvider.service" ||
        fail "the D-Bus service file does not start the installed provider"
    for size in 16 24 32 48 64 128 256; do
        png="$usr/share/icons/hicolor/${size}x${size}/apps/org.tarnwick.Tarnwick.png"
        file "$png" 2>/dev/null | grep -q "PNG image data, $size x $size," ||
            fail "no $size px icon: $png"
    done
fi

# The library is found by its soname, and the header and pkg-config file build a program on it.
lib=$(ls "$usr"/lib*/libtarnwick.so.1 "$usr"/lib/*/libtarnwick.so.1 2>/dev/null | head -1)
if [ -z "$lib" ]; then
    fail "missing libtarnwick.so.1"
else
    readelf -d "$lib" | grep -q 'SONAME.*\[libtarnwick\.so\.1\]' || fail "wrong soname in $lib"
    pcdir=$(dirname "$lib")/pkgconfig
    expect_file "$pcdir/tarnwick.pc"
    cat >"$scratch/version.c" <<'C'
#include <stdio.h>
#include <tarnwick.h>
int main(void)
{
    printf("%s\n", trn_version());
    return 0;
}
C
    flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs tarnwick) ||
        fail "pkg-config does not know tarnwick"
    # shellcheck disable=SC2086
    if cc -o "$scratch/version" "$scratch/version.c" $flags 2>"$scratch/cc.log"; then
        version=$(LD_LIBRARY_PATH=$(dirname "$lib") "$scratch/version")
        [ -n "$version" ] || fail "a program on the installed library printed no version"
    else
        cat "$scratch/cc.log" >&2
        fail "cannot build a program with the installed header and library"
    fi
fi

make_folder "$scratch/folder"
check_cli_indexes_and_searches "$usr/bin/tarnwick-cli" "$scratch/folder"
"$usr/bin/tarnwick-cli" --version | grep -q '^tarnwick-cli .* (engine .*)$' ||
    fail "tarnwick-cli --version"
if [ "$has_app" = 1 ]; then
    # Training runs both trainers from libexec/tarnwick: one step on the folder.
    run_home "$usr/bin/tarnwick-cli" train add tiny "$scratch/folder" --steps 1 --batch 2 --bpe \
        >/dev/null 2>&1
    out=$(run_home timeout 120 "$usr/bin/tarnwick-cli" train tiny 2>&1) ||
        fail "the installed tarnwick-cli cannot train: $out"
    [ -s "$scratch/home/.tarnwick/weights/tiny.tten" ] ||
        fail "training with the installed trainers wrote no weights: $out"
    # A new profile starts from the built-in encoder and keeps its tokenizer when one is
    # installed; without it the tokenizer is trained first.
    [ -e "$usr/share/tarnwick/default.tten" ] || [ -s "$scratch/home/.tarnwick/weights/tiny.bpe" ] ||
        fail "training with the installed trainers wrote no tokenizer: $out"
    check_app_starts "$usr/bin/tarnwick" "$scratch/folder"
fi

# Uninstalling removes every file that was installed, and Tarnwick's own directories.
DESTDIR="$root" "$source_dir/scripts/uninstall.sh" "$manifest" >/dev/null || fail "uninstall.sh failed"
left=$(find "$root" -type f)
[ -z "$left" ] || fail "left after uninstalling: $left"
for d in "$usr/libexec/tarnwick" "$usr/share/tarnwick"; do
    [ ! -d "$d" ] || fail "directory left after uninstalling: $d"
done
finish
