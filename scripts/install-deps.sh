#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the application need, when missing.
# Runs apt-get as root, or through sudo when it is available.
set -euo pipefail

packages=(
    build-essential cmake pkg-config git
    libopenblas-dev libre2-dev zlib1g-dev strace
    libgtest-dev libgmock-dev libbenchmark-dev libhnswlib-dev
    clang libclang-rt-14-dev clang-format
    poppler-utils libpoppler-cpp-dev libzip-dev libxml2-dev
    qt6-base-dev qt6-charts-dev qt6-pdf-dev libgl-dev libqt6opengl6-dev
    xvfb xauth dbus dbus-x11 libglib2.0-bin
    librsvg2-bin
    dpkg-dev file groff-base man-db desktop-file-utils appstream bash-completion zsh
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then
        sudo="sudo"
    else
        echo "tarnwick: need root or sudo to install: ${missing[*]}" >&2
        exit 1
    fi
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
