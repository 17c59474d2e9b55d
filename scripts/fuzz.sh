#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (the "fuzz" preset, ASan + UBSan) and runs each for
# SECONDS (default 60) on its seed corpus in tests/fuzz/corpus/<target>, then prints the
# executions per target. Findings land in build-fuzz/findings/<target>/; the exit status is
# non-zero when a target crashed.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
seconds=${1:-60}
targets=(fuzz_control_chunk fuzz_connect_code fuzz_avc_annexb fuzz_h264_frame_scan fuzz_receiver_control fuzz_receiver_media)
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j2 --target "${targets[@]}"
status=0
for t in "${targets[@]}"; do
    work="build-fuzz/corpus/$t"
    findings="build-fuzz/findings/$t"
    mkdir -p "$work" "$findings"
    log="build-fuzz/$t.log"
    if ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "build-fuzz/tests/fuzz/$t" -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$findings/" "$work" "tests/fuzz/corpus/$t" >"$log" 2>&1; then
        result=ok
    else
        result=FOUND
        status=1
    fi
    execs=$(grep -oE 'stat::number_of_executed_units: *[0-9]+' "$log" | grep -oE '[0-9]+$' || true)
    [ -n "$execs" ] || execs=$(grep -oE '^#[0-9]+' "$log" | tail -1 | tr -d '#')
    echo "fuzz.sh: $t: ${execs:-?} executions in ${seconds} s, $result"
done
exit $status
