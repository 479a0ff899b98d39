#!/usr/bin/env bash
# The long fuzz runs: every target for an hour (or SECONDS), several at
# once at a lower priority so the machine stays usable, then the inputs
# that reached new code merged into the checked-in corpora. Not part of CI.
#
#   scripts/fuzz-long.sh [SECONDS] [TARGET...]
#
# FUZZ_JOBS (default 3) targets run at once; one input may take 60 s, since
# a target can wait for the processor while others build.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=3600
if [[ $# -gt 0 && $1 =~ ^[0-9]+$ ]]; then
    seconds=$1
    shift
fi
exec nice -n 10 scripts/fuzz.sh -j "${FUZZ_JOBS:-3}" -t 60 --merge "$seconds" "$@"
