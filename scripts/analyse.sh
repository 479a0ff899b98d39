#!/usr/bin/env bash
# Static analysis of the project's own sources: clang-tidy with the checked-in
# .clang-tidy, then cppcheck. Exits non-zero on any finding of either tool.
#
#   scripts/analyse.sh [BUILD_DIR]     (default build-analyse)
#
# BUILD_DIR is configured with clang so that the compile database holds flags
# clang-tidy understands; nothing is built (no source is generated). The
# database covers the daemon, the libraries, the host platform libraries and
# orbcm_util, usbmgrctl, the test doubles and the unit and platform tests.
# Left out: bench/ (USBMGR_BENCH=OFF) and tests/fuzz (USBMGR_FUZZ=OFF), whose
# libFuzzer entry points and corpus helpers are checked by running them.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
build="${1:-build-analyse}"
jobs=2

for tool in clang clang++ clang-tidy cppcheck; do
    command -v "$tool" >/dev/null || { echo "analyse.sh: $tool is missing (scripts/install-deps.sh)" >&2; exit 2; }
done

CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DUSBMGR_BENCH=OFF -DUSBMGR_FUZZ=OFF >/dev/null
db="$build/compile_commands.json"

# Every source of the database once (the test main is listed once per test program).
mapfile -t sources < <(python3 - "$db" "$root" <<'EOF'
import json, os, sys
db, root = sys.argv[1], sys.argv[2]
seen = []
for entry in json.load(open(db)):
    path = os.path.normpath(os.path.join(entry["directory"], entry["file"]))
    rel = os.path.relpath(path, root)
    if rel.startswith(("..", "bench/", "tests/fuzz/")) or rel in seen:
        continue
    seen.append(rel)
print("\n".join(sorted(seen)))
EOF
)

log="$build/analyse"
mkdir -p "$log"
status=0

# clang-tidy: one process a file, $jobs at a time. A file's output is kept
# only when clang-tidy fails on it (a finding, or a file it cannot parse).
start=$SECONDS
: >"$log/clang-tidy.txt"
tidy_one='out=$(clang-tidy -p "$0" --quiet "$1" 2>&1) || { printf "%s\n" "$out"; exit 1; }'
if ! printf '%s\n' "${sources[@]}" | xargs -P "$jobs" -n 1 bash -c "$tidy_one" "$build" >>"$log/clang-tidy.txt"; then
    status=1
fi
tidy_findings=$(grep -cE ': (warning|error): .*\[[A-Za-z0-9.,-]+\]$' "$log/clang-tidy.txt" || true)
if [ "$status" -ne 0 ]; then
    grep -vE '^[0-9]+ warnings? (generated|treated as errors)\.$' "$log/clang-tidy.txt" || true
    echo "clang-tidy: ${#sources[@]} files, $tidy_findings findings ($((SECONDS - start)) s)"
else
    echo "clang-tidy: ${#sources[@]} files, no finding ($((SECONDS - start)) s)"
fi

# cppcheck: the same files with the database's defines and include paths.
# googletest.cfg knows the TEST macros; sd-bus.cfg the one sd-bus macro the
# host bus library uses; suppressions.txt gives each global exception its reason.
start=$SECONDS
if cppcheck --project="$db" -j "$jobs" -q \
        --enable=warning,performance,portability --inline-suppr --error-exitcode=1 \
        --library=googletest --library=posix --library=scripts/cppcheck/sd-bus.cfg \
        --suppressions-list=scripts/cppcheck/suppressions.txt \
        -i bench -i tests/fuzz \
        --template='{file}:{line}:{column}: {severity}: {message} [{id}]' 2>"$log/cppcheck.txt"; then
    echo "cppcheck: ${#sources[@]} files, no finding ($((SECONDS - start)) s)"
else
    cat "$log/cppcheck.txt"
    echo "cppcheck: ${#sources[@]} files, $(grep -cE '\[[A-Za-z0-9_]+\]$' "$log/cppcheck.txt" || true) findings ($((SECONDS - start)) s)"
    status=1
fi

exit "$status"
