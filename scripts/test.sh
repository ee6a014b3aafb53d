#!/usr/bin/env bash
# Install what is missing, build, and run all tests. Quiet but for failures, ending in the summary of the tests.
#
# Usage: scripts/test.sh [PRESET]       release (default), debug, asan or tsan
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
preset=${1:-release}

scripts/install-deps.sh
build "$preset"

# Each test has a time limit of its own; this one bounds them all together. It ends the tests' whole process group, and
# so does a Ctrl-C, which would otherwise reach this script alone.
log=build/logs/$preset-test.log
status=0
timeout 25m ctest --preset "$preset" -j "$(nproc)" >"$log" 2>&1 </dev/null &
trap 'kill "$!"' INT TERM
wait "$!" || status=$?
if ((status == 124)); then
    tail -n 20 "$log"
    echo "test: the tests were ended because they took more than 25 minutes"
    exit 1
elif ((status != 0)); then
    # What passed or was skipped is of no interest; neither are the lines that only announce a test.
    grep -vE '^ *Start +[0-9]+: |^ *[0-9]+/[0-9]+ Test +#[0-9]+: .*(\*\*\*Skipped| Passed) +[0-9.]+ sec$' "$log" || true
    exit "$status"
fi
sed -n '/ tests passed, /,$p' "$log"
