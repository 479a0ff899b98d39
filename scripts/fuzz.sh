#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) in build-fuzz and runs
# each one for SECONDS on its corpus. A crash, a sanitizer report, a broken
# invariant or an input that runs longer than 10 s is written to
# tests/fuzz/findings/ and makes the script fail.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]      (default 30 s, every target)
#
# New inputs that reach new code are kept in build-fuzz/corpus/TARGET; the
# checked-in seeds in tests/fuzz/corpus/TARGET are only read.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=30
if [[ $# -gt 0 && $1 =~ ^[0-9]+$ ]]; then
    seconds=$1
    shift
fi
all=(fuzz_config_file fuzz_settings fuzz_history fuzz_hotplug fuzz_dispatch fuzz_samba_users fuzz_user_access
     fuzz_samba_conf fuzz_minidlna_conf)
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] || targets=("${all[@]}")
for t in "${targets[@]}"; do
    [[ -d tests/fuzz/corpus/$t ]] || { echo "fuzz.sh: no target $t (one of: ${all[*]})" >&2; exit 2; }
done
# Paths stay relative to the checkout: the targets hide /tmp and /var
# behind private folders, and a checkout there stays reachable only
# through the working folder.
build=build-fuzz

CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DUSBMGR_FUZZ=ON -DUSBMGR_TESTS=OFF -DUSBMGR_BENCH=OFF >/dev/null
cmake --build "$build" -j2 --target "${targets[@]}"

mkdir -p tests/fuzz/findings
failed=()
for t in "${targets[@]}"; do
    mkdir -p "$build/corpus/$t"
    log="$build/$t.log"
    rc=0
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ASAN_OPTIONS=detect_leaks=1 \
        "$build/tests/fuzz/$t" "$build/corpus/$t" "tests/fuzz/corpus/$t" \
        -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
        -artifact_prefix="tests/fuzz/findings/$t-" >"$log" 2>&1 || rc=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
    if [[ $rc -eq 0 ]]; then
        echo "$t: ${runs:-0} executions (${rate:-0}/s), no finding"
    else
        echo "$t: FINDING after ${runs:-?} executions (exit $rc); log $log"
        grep -E '==FINDING==|runtime error|ERROR: (AddressSanitizer|libFuzzer)|SUMMARY|Test unit written' "$log" |
            head -n 8 | sed 's/^/    /'
        failed+=("$t")
    fi
done

if [[ ${#failed[@]} -gt 0 ]]; then
    echo "fuzz.sh: findings in ${failed[*]}"
    exit 1
fi
echo "fuzz.sh: ${#targets[@]} targets, ${seconds} s each, no finding"
