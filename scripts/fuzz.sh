#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer targets of fuzz/ (clang, AddressSanitizer + UndefinedBehaviorSanitizer)
# in build-fuzz/, makes their seeds at run time, runs each target for SECONDS, two at a time,
# and reports per target its executions per second, coverage and findings (crash, leak,
# timeout or out-of-memory inputs, or an abnormal exit). A target passes when it found
# nothing. Ends with 'N passed, M failed'; the exit status is 0 only when none failed.
#   bash scripts/fuzz.sh SECONDS [TARGET...]
# Findings are kept in build-fuzz/run/TARGET/; replay one with VIREO_FUZZ_TRACE=1
# build-fuzz/fuzz/fuzz_TARGET FILE to see the tool's traces.
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ $# -lt 1 || ! $1 =~ ^[0-9]+$ ]]; then
    echo "usage: $0 SECONDS [TARGET...]" >&2
    exit 2
fi
seconds=$1
shift

echo "== fuzz targets, ${seconds} s each (scripts/fuzz.sh) =="
bash scripts/deps.sh
bash scripts/deps.sh clang libclang-rt-14-dev
build=build-fuzz
cmake -S . -B "$build" -G Ninja -DVIREO_FUZZ=ON -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DVIREO_BUILD_TESTS=OFF -DVIREO_BUILD_BENCH=OFF >/dev/null
if ! log=$(cmake --build "$build" -j2 2>&1); then
    echo "$log" | tail -30
    echo "fuzz: 0 passed, 1 failed"
    exit 1
fi

targets=("$@")
[ ${#targets[@]} -eq 0 ] && read -r -a targets < <(tr ';' ' ' < "$build/fuzz/targets.txt")
# Whole firmware files are large; the other inputs are small documents.
declare -A max_len=([chain]=300000 [check]=300000 [check_ubi]=300000 [up_ptn_table]=65536
                    [records]=16384 [uci]=4096 [rsa]=1024 [version]=256
                    [journal]=8192)

run=$build/run
rm -rf "$run"
mkdir -p "$run"
"$build/fuzz/vireo_fuzz_seeds" "$run/seeds"
export UBSAN_OPTIONS=print_stacktrace=1

run_target() {
    local t=$1 dir=$run/$1
    mkdir -p "$dir/corpus" "$dir/seeds"
    [ -d "$run/seeds/$t" ] && cp "$run/seeds/$t"/* "$dir/seeds/"
    local status=0
    "$build/fuzz/fuzz_$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -max_len="${max_len[$t]:-4096}" -dict=fuzz/vireo.dict -print_final_stats=1 \
        -artifact_prefix="$dir/" "$dir/corpus" "$dir/seeds" >"$dir/log" 2>&1 || status=$?
    echo "$status" >"$dir/status"
}

slots=0
for t in "${targets[@]}"; do
    run_target "$t" &
    if ((++slots >= 2)); then
        wait -n
        slots=$((slots - 1))
    fi
done
wait

passed=0
failed=0
printf '%-14s %10s %8s %9s %12s  %s\n' target exec/s edges features runs findings
for t in "${targets[@]}"; do
    dir=$run/$t
    last=$(grep -a 'cov: ' "$dir/log" | tail -1 || true)
    cov=$(grep -o 'cov: [0-9]*' <<<"$last" | cut -d' ' -f2 || true)
    ft=$(grep -o 'ft: [0-9]*' <<<"$last" | cut -d' ' -f2 || true)
    rate=$(grep -a -o 'average_exec_per_sec: *[0-9]*' "$dir/log" | grep -o '[0-9]*$' || true)
    runs=$(grep -a -o 'number_of_executed_units: *[0-9]*' "$dir/log" | grep -o '[0-9]*$' || true)
    findings=$(find "$dir" -maxdepth 1 -regextype egrep -regex '.*/(crash|leak|timeout|oom)-.*' |
               wc -l)
    status=$(cat "$dir/status")
    verdict=passed
    if [ "$findings" -gt 0 ] || [ "$status" -ne 0 ]; then
        verdict="FAILED (exit $status)"
    fi
    printf '%-14s %10s %8s %9s %12s  %s: %s\n' "$t" "${rate:-?}" "${cov:-?}" "${ft:-?}" \
        "${runs:-?}" "$findings" "$verdict"
    if [ "$verdict" = passed ]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        grep -a -m3 -E '^(SUMMARY|==[0-9]+==ERROR)|runtime error|deadly signal' "$dir/log" |
            sed 's/^/    /' || true
        find "$dir" -maxdepth 1 -regextype egrep -regex '.*/(crash|leak|timeout|oom)-.*' |
            sed 's/^/    input: /'
    fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
