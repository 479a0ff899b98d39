#!/bin/bash
# Runs the benchmark programs of a build folder (built beforehand, e.g.
# cmake --build BUILD --target benchmarks) and prints their ratios.
#   bench/run.sh BUILD_DIR
# Needs root, or user namespaces, for the private /tmp and /var; the bus
# benchmark starts its own dbus-daemon (package dbus-daemon).
set -euo pipefail

[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
bin="$1/bench"
for prog in bench_arrival bench_notify_delay bench_bus_reads bench_model_build; do
    [ -x "$bin/$prog" ] || { echo "run.sh: $bin/$prog not built" >&2; exit 2; }
done

echo "== arrival handler against its mount commands"
"$bin/bench_arrival"
echo
echo "== model rebuild (25 volumes of 100 folders) against the commands it runs"
"$bin/bench_model_build"
echo
echo "== read commands 15, 20, 21 over the bus against a bare echo of the same size"
"$bin/bench_bus_reads"
echo
echo "== delay from the last event of a burst to its notifications, and the reloads"
"$bin/bench_notify_delay"
