#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each one for a bounded time
# from its seed corpus (tests/fuzz/corpus/<target>), then prints, per target,
# the executions, the corpus it grew and whether anything crashed.
#
#   bench/fuzz.sh [seconds per target, default 120] [target...]
#
# Crash inputs are kept in <build>/fuzz-artifacts; each one found must become a
# regression test before it is fixed.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-120}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(config ustring update_info loadstr)
build=${FUZZ_BUILD_DIR:-$top/build-fuzz}

"$top/tools/install-deps.sh"
CC=clang CXX=clang++ cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQUILLON_FUZZ=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"

artifacts=$build/fuzz-artifacts
mkdir -p "$artifacts"
status=0
printf '%-12s %12s %10s %8s  %s\n' target executions exec/s corpus result
for t in "${targets[@]}"; do
    work=$(mktemp -d)
    log=$build/fuzz-$t.log
    set +e
    QT_QPA_PLATFORM=offscreen ASAN_OPTIONS=detect_leaks=0 \
        "$build/tests/fuzz/fuzz_$t" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$artifacts/$t-" -timeout=10 -rss_limit_mb=2048 \
        "$work" "$top/tests/fuzz/corpus/$t" >"$log" 2>&1
    rc=$?
    set -e
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
    corpus=$(find "$work" -type f | wc -l)
    if [ $rc -eq 0 ]; then
        result=clean
    else
        result="FOUND (exit $rc, see $log)"
        status=1
    fi
    printf '%-12s %12s %10s %8s  %s\n' "$t" "${execs:-?}" "${rate:-?}" "$corpus" "$result"
    rm -rf "$work"
done
exit $status
