#!/usr/bin/env bash
# Runs the sandbox scenarios with the daemon, the bus library and the client
# built under ThreadSanitizer, and fails when any report was written.
#
#   scripts/tsan-sandbox.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build-tsan}"

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DUSBMGR_SANITIZE=thread \
    -DUSBMGR_BENCH=OFF >/dev/null
cmake --build "$build" -j2 --target usbmgrd usbmgrctl dusbd orbiil dusb orbsm orbcm_util
reports="$(cd "$build" && pwd)/tsan-reports"
rm -rf "$reports"
mkdir -p "$reports"
export TSAN_OPTIONS="log_path=$reports/tsan second_deadlock_stack=1"
# The instrumented daemon is several times slower; time limits stretch with it.
export USBMGR_TIME_SCALE=3
# The sandbox tests only; setarch -R keeps the address layout TSan expects.
(cd "$build" && setarch "$(uname -m)" -R ctest -L sandbox --output-on-failure)
if ls "$reports"/tsan* >/dev/null 2>&1; then
    echo "ThreadSanitizer reports:" >&2
    cat "$reports"/tsan* >&2
    exit 1
fi
echo "ThreadSanitizer: no reports from the sandbox scenarios"
