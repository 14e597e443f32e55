#!/usr/bin/env bash
# Line coverage of lib/ and ui-client/ over the whole suite, end-to-end tests
# included: the installed program writes its counts into the build tree too.
#
#   tools/coverage.sh [BUILD_DIR]      (default: build-coverage)
#
# Needs gcovr (apt-get install gcovr). Prints the summary; the per-file table
# with the lines no test runs is left in BUILD_DIR/coverage.txt.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build-coverage}
command -v gcovr >/dev/null || { echo "tools/coverage.sh: needs gcovr" >&2; exit 2; }
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=--coverage \
    -DCMAKE_C_FLAGS=--coverage -DCMAKE_EXE_LINKER_FLAGS=--coverage
cmake --build "$build" -j "$(nproc)"
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j "$(nproc)" --output-on-failure
# CMake's compiler checks leave counts of their own, for sources long gone.
find "$build/CMakeFiles" -name '*CompilerId*.gcno' -delete
gcovr -r "$top" --object-directory "$build" -f "$top/lib/" -f "$top/ui-client/" \
    --print-summary -o "$build/coverage.txt"
