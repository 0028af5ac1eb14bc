#!/usr/bin/env bash
# Builds the Debian package from the built tree with CPack, unpacks it into a scratch root with
# dpkg -x, and checks the package: its dependencies (computed from the linked libraries, plus
# pdftotext and Qt's platform plugins), that the unpacked tarnwick-cli indexes and searches a
# folder, and that the unpacked application starts without a display.
#
#   deb_test.sh BUILD_DIR SOURCE_DIR
set -uo pipefail
build=${1:?usage: deb_test.sh BUILD_DIR SOURCE_DIR}
source_dir=${2:?usage: deb_test.sh BUILD_DIR SOURCE_DIR}
. "$source_dir/tests/package/common.sh"

if ! cpack --config "$build/CPackConfig.cmake" -G DEB -B "$scratch/out" >"$scratch/cpack.log" 2>&1
then
    cat "$scratch/cpack.log" >&2
    fail "cpack failed"
    finish
fi
deb=$(ls "$scratch"/out/tarnwick_*.deb 2>/dev/null | head -1)
if [ -z "$deb" ]; then
    fail "cpack made no tarnwick_*.deb"
    finish
fi

depends=$(dpkg-deb -f "$deb" Depends)
needed="libc6 libstdc++6 libopenblas libpoppler-cpp libzip libxml2"
has_app=0
[ -f "$build/bin/tarnwick" ] && has_app=1
[ "$has_app" = 1 ] && needed="$needed libqt6widgets6 libqt6pdf6 qt6-qpa-plugins"
for dependency in $needed; do
    case $depends in
        *"$dependency"*) ;;
        *) fail "Depends lacks $dependency: $depends" ;;
    esac
done

# Every file lies under /usr, owned by root.
if dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '^\./usr/' | grep -qv '^\./$'; then
    fail "files outside /usr: $(dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '^\./usr/')"
fi
if dpkg-deb -c "$deb" | awk '{print $2}' | grep -qv '^root/root$'; then
    fail "files not owned by root"
fi

root="$scratch/root"
dpkg -x "$deb" "$root" || fail "dpkg -x failed"
make_folder "$scratch/folder"
check_cli_indexes_and_searches "$root/usr/bin/tarnwick-cli" "$scratch/folder"
if [ "$has_app" = 1 ]; then
    check_app_starts "$root/usr/bin/tarnwick" "$scratch/folder"
fi
finish
