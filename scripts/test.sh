#!/usr/bin/env bash
# Install what is missing, build, and run all tests. Quiet but for failures, ending in the summary of the tests.
#
# Usage: scripts/test.sh [PRESET]       release (default), debug, asan or tsan
#
# The S3 tests run against a gateway that lives as long as this script. Where it does not start they are skipped, which
# one line says; with CLOUDFS_REQUIRE_GATEWAY=1 that is a failure.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
preset=${1:-release}

scripts/install-deps.sh
build "$preset"

# A gateway of our own, for it keeps in memory what the tests write.
export CLOUDFS_GATEWAY_DIR=$root/build/$preset/gateway
trap 'scripts/gateway.sh stop' EXIT
trap 'exit 130' INT TERM
scripts/gateway.sh stop # one that an earlier run could not stop, because it was killed
log=build/logs/$preset-gateway.log
if scripts/gateway.sh start >"$log" 2>&1; then
    settings=$(scripts/gateway.sh env)
    eval "$settings"
else
    trap - EXIT # what it left tells more
    reason=$(tail -n 1 "$log")
    reason=${reason#gateway: }
    if [[ ${CLOUDFS_REQUIRE_GATEWAY:-0} == 1 ]]; then
        cat "$log" >&2
        echo "test: the S3 tests cannot run: $reason" >&2
        exit 1
    fi
    echo "test: the S3 tests are skipped: $reason"
    unset CLOUDFS_TEST_S3_ENDPOINT # it would be somebody else's
fi

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
