#!/usr/bin/env bash
# Installs, with apt-get, everything the build, the tests and the demo need on
# Debian 12. Safe to run again; does nothing when all packages are present.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config git
    qtbase5-dev qttools5-dev-tools qttools5-dev libqt5svg5-dev
    libsqlite3-dev sqlite3 libicu-dev libfontconfig-dev
    clang libclang-rt-14-dev
    xvfb xauth x11-utils trayer xdotool imagemagick librsvg2-bin
    fonts-dejavu-core fonts-droid-fallback  # Latin and CJK glyphs for the tray texts
    nginx-light tinyproxy curl procps psmisc python3
    time  # GNU time: the peak memory figures of bench/program
    openssl  # the HTTPS system tests make their CA and certificates at run time
    libfaketime  # runs the updater's clock fast in the stall time-out tests
    libssl-dev python3-cryptography  # signed answers: the updater's check, the publisher's keys
)
# The 32-bit build and test run (tools/i386.sh) needs these on a 64-bit
# machine only; inside its i386 root they would be of no use.
if [ "$(dpkg --print-architecture)" = amd64 ]; then
    packages+=(debootstrap qemu-user-static)
fi

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=()
if [ "$(id -u)" -ne 0 ]; then
    sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update
"${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
