#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) in build-fuzz and runs
# each one for SECONDS on its corpus. A crash, a sanitizer report, a broken
# invariant or an input that runs too long (-t) is written to
# tests/fuzz/findings/ and makes the script fail.
#
#   scripts/fuzz.sh [-j JOBS] [-t TIMEOUT] [--merge] [SECONDS] [TARGET...]
#
# Default 30 s, every target, one at a time. -j runs that many targets at
# once; -t sets how long one input may run (10 s; the long runs share the
# machine at a lower priority and give it more: `scripts/fuzz-long.sh`). New inputs that
# reach new code are kept in build-fuzz/corpus/TARGET; --merge afterwards
# adds to the checked-in corpus tests/fuzz/corpus/TARGET only those that
# reach code its inputs do not, so the checked-in corpus stays minimal.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=1
merge=0
timeout=10
while [[ $# -gt 0 ]]; do
    case $1 in
        -j) jobs=$2; shift 2 ;;
        -t) timeout=$2; shift 2 ;;
        --merge) merge=1; shift ;;
        *) break ;;
    esac
done
[[ $jobs =~ ^[1-9][0-9]*$ && $timeout =~ ^[1-9][0-9]*$ ]] || { echo "fuzz.sh: -j and -t want numbers" >&2; exit 2; }
seconds=30
if [[ $# -gt 0 && $1 =~ ^[0-9]+$ ]]; then
    seconds=$1
    shift
fi
all=(fuzz_config_file fuzz_settings fuzz_history fuzz_hotplug fuzz_dispatch fuzz_samba_users fuzz_user_access
     fuzz_samba_conf fuzz_minidlna_conf fuzz_uevent)
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

# Runs one target; its summary line goes to $build/$t.result, first word
# "ok" or "finding".
run_target() {
    local t=$1 log="$build/$1.log" rc=0
    mkdir -p "$build/corpus/$t"
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ASAN_OPTIONS=detect_leaks=1 \
        "$build/tests/fuzz/$t" "$build/corpus/$t" "tests/fuzz/corpus/$t" \
        -max_total_time="$seconds" -timeout="$timeout" -print_final_stats=1 \
        -artifact_prefix="tests/fuzz/findings/$t-" >"$log" 2>&1 || rc=$?
    local runs rate cov
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
    cov=$(grep -oE 'cov: [0-9]+' "$log" | tail -n 1 | cut -d' ' -f2)
    if [[ $rc -eq 0 ]]; then
        echo "ok $t: ${runs:-0} executions (${rate:-0}/s), ${cov:-?} edges, no finding" >"$build/$t.result"
    else
        {
            echo "finding $t: FINDING after ${runs:-?} executions (exit $rc); log $log"
            grep -E '==FINDING==|runtime error|ERROR: (AddressSanitizer|libFuzzer)|SUMMARY|Test unit written' "$log" |
                head -n 8 | sed 's/^/    /'
        } >"$build/$t.result"
    fi
}

running=0
for t in "${targets[@]}"; do
    rm -f "$build/$t.result"
    run_target "$t" &
    running=$((running + 1))
    if [[ $running -ge $jobs ]]; then
        wait -n || true
        running=$((running - 1))
    fi
done
wait

failed=()
for t in "${targets[@]}"; do
    result="$build/$t.result"
    [[ -f $result ]] || { echo "$t: no result" ; failed+=("$t"); continue; }
    sed 's/^[a-z]* //' "$result"
    [[ $(head -c 2 "$result") == ok ]] || failed+=("$t")
done

if [[ $merge -eq 1 ]]; then
    for t in "${targets[@]}"; do
        before=$(ls "tests/fuzz/corpus/$t" | wc -l)
        # The control file too stays clear of the hidden /tmp.
        rm -f "$build/$t.merge.ctl"
        "$build/tests/fuzz/$t" -merge=1 -merge_control_file="$build/$t.merge.ctl" \
            "tests/fuzz/corpus/$t" "$build/corpus/$t" >"$build/$t.merge.log" 2>&1
        grep 'MERGE-OUTER: [0-9]* new files' "$build/$t.merge.log" | sed 's/^MERGE-OUTER: /    /'
        echo "$t: checked-in corpus $before -> $(ls "tests/fuzz/corpus/$t" | wc -l) inputs"
    done
fi

if [[ ${#failed[@]} -gt 0 ]]; then
    echo "fuzz.sh: findings in ${failed[*]}"
    exit 1
fi
echo "fuzz.sh: ${#targets[@]} targets, ${seconds} s each, no finding"
