#!/usr/bin/env bash
# Builds everything and runs every test: unit tests, the host platform
# tests, the sandbox tests of the real daemon and the package checks.
# Run as root on Debian.
#
#   scripts/test.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"

scripts/install-deps.sh
# Tests and benchmarks on, whatever an earlier demo build chose.
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DUSBMGR_TESTS=ON -DUSBMGR_BENCH=ON >/dev/null
cmake --build "$build" -j2
cd "$build"
# Unit and platform tests in parallel; sandbox tests run one at a time (RUN_SERIAL).
ctest -j2 --output-on-failure
