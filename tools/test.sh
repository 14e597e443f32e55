#!/usr/bin/env bash
# Installs what is needed, builds with warnings as errors and runs every test
# through CTest, runs the publisher's end-to-end tests against a build that
# requires signed answers, then repeats the tests in a build with
# AddressSanitizer and UndefinedBehaviorSanitizer, and finally builds and tests
# for 32-bit x86.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/tools/install-deps.sh"

# The system tests plant files in a shared temporary folder as a second local
# user. As root, make sure that user exists: a system account with no home and
# no login. Without it (or without root) those tests are skipped.
if [ "$(id -u)" -eq 0 ]; then
    id quillon-planter >/dev/null 2>&1 ||
        useradd --system --no-create-home --shell /usr/sbin/nologin quillon-planter
fi

jobs=$(nproc)
build=${BUILD_DIR:-$top/build}
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUILLON_WERROR=ON
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" --output-on-failure -j "$jobs"

# A build that acts only on answers signed with a throw-away key, run against
# trees that quillon-publish signs with it (tests/system/test_publish.py).
signed=${SIGNED_BUILD_DIR:-$top/build-signed}
mkdir -p "$signed/keys"
[ -f "$signed/keys/update.key" ] ||
    "$top/publisher/quillon-publish" keygen "$signed/keys/update.key" >/dev/null
cmake -S "$top" -B "$signed" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUILLON_WERROR=ON \
    -DQUILLON_UPDATE_PUBLIC_KEY="$(cat "$signed/keys/update.key.pub")" \
    -DQUILLON_SIGNED_KEY_DIR="$signed/keys"
cmake --build "$signed" -j "$jobs" --target autoupdater tray-probe
ctest --test-dir "$signed" --output-on-failure -j "$jobs" -R 'system_install|system_test_publish'

if [ "${QUILLON_SKIP_SANITIZERS:-0}" != 1 ]; then
    san=${SANITIZE_BUILD_DIR:-$top/build-sanitize}
    cmake -S "$top" -B "$san" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQUILLON_WERROR=ON \
        -DQUILLON_SANITIZE=ON
    cmake --build "$san" -j "$jobs"
    ctest --test-dir "$san" --output-on-failure -j "$jobs" -LE no-sanitize
fi

# The same build and tests for 32-bit x86, in a Debian i386 root
# (tools/i386.sh). It needs root: CI always runs it; elsewhere it is skipped
# without root or with QUILLON_SKIP_I386=1. CI keeps the root on its machine:
# making it and its packages takes some 25 of CI's 90 minutes where the
# kernel cannot run 32-bit programs and they are emulated.
if [ "${CI:-}" = true ]; then
    QUILLON_I386_ROOT_CACHE=${QUILLON_I386_ROOT_CACHE:-/var/cache/quillon-i386} "$top/tools/i386.sh"
elif [ "${QUILLON_SKIP_I386:-0}" = 1 ]; then
    echo "i386 build and tests skipped (QUILLON_SKIP_I386=1)"
elif [ "$(id -u)" -ne 0 ]; then
    echo "i386 build and tests skipped: tools/i386.sh needs root"
else
    "$top/tools/i386.sh"
fi
