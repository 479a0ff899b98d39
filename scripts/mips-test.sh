#!/usr/bin/env bash
# Builds the daemon and the unit tests for the gateway's processor,
# big-endian 32-bit MIPS, with Debian's cross toolchain, and runs the unit
# tests under qemu-user with the cross C library as their root; then checks
# the gateway's install from that build (DESTDIR, cmake --install).
#
#   scripts/mips-test.sh [BUILD_DIR]      (default build-mips; run as root)
#
# The tests that collect the daemon's orphaned process as child subreaper
# are skipped there: qemu-user does not emulate PR_SET_CHILD_SUBREAPER.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-mips}

scripts/install-deps.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mips-qemu.cmake \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2
file "$build/usbmgrd"
(cd "$build" && ctest -j2 -L unit --output-on-failure)
# The same gateway build (no host platform) installs what the gateway's
# image takes, and nothing of the host's.
bash tests/package/test_gateway_install.sh "$build" MIPS
