#!/usr/bin/env bash
# Installs what is needed, builds with warnings as errors and runs every test
# through CTest, then repeats the tests in a build with AddressSanitizer and
# UndefinedBehaviorSanitizer.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/tools/install-deps.sh"

jobs=$(nproc)
build=${BUILD_DIR:-$top/build}
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUILLON_WERROR=ON
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" --output-on-failure -j "$jobs"

if [ "${QUILLON_SKIP_SANITIZERS:-0}" != 1 ]; then
    san=${SANITIZE_BUILD_DIR:-$top/build-sanitize}
    cmake -S "$top" -B "$san" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQUILLON_WERROR=ON \
        -DQUILLON_SANITIZE=ON
    cmake --build "$san" -j "$jobs"
    ctest --test-dir "$san" --output-on-failure -j "$jobs" -LE no-sanitize
fi
