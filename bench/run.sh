#!/bin/bash
# Runs the benchmark programs of a build folder (built beforehand, e.g.
# cmake --build BUILD --target benchmarks) and prints their ratios.
#   bench/run.sh BUILD_DIR
# Needs root, or user namespaces, for the private /tmp and /var.
set -euo pipefail

[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
bin="$1/bench"
for prog in bench_arrival bench_notify_delay; do
    [ -x "$bin/$prog" ] || { echo "run.sh: $bin/$prog not built" >&2; exit 2; }
done

echo "== arrival handler against its mount commands"
"$bin/bench_arrival"
echo
echo "== delay from the last event of a burst to its notifications"
"$bin/bench_notify_delay"
