#!/usr/bin/env bash
# Install what is missing, build, and run all tests. Prints only failures and the summary.
#
# Usage: scripts/test.sh [PRESET] [swift|azurite]       PRESET is release (default), debug, asan or tsan
#
# The tests of distant stores run against a gateway that this script starts and stops. If it does not start, one line
# says that they are skipped; with CLOUDFS_REQUIRE_GATEWAY=1 that is a failure.
#
# With "swift", run only the tests of S3, against the gateway of OpenStack Swift. With "azurite", run only those of Azure
# Blob Storage, against that emulator; otherwise they are skipped.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
preset=${1:-release}
run=$preset
gateway=(scripts/gateway.sh)
tests=()
deps=() # besides the usual ones
if [[ ${2:-} == swift ]]; then
    run+=-swift
    gateway+=(swift)
    tests=(-R '^(s3_test|stores_test|cloudfs\.gateway)\.')
elif [[ ${2:-} == azurite ]]; then
    run+=-azurite
    gateway+=(azurite)
    deps=(azurite)
    # Not check_endpoint, which is for buckets, nor uploads, because such a store lists only those of the same process.
    tests=(-R '^(azure_test|stores_test)\.|^cloudfs\.gateway\.(closed_pipe|commands|in_store|interrupted_put|trees)$')
elif [[ -n ${2:-} ]]; then
    echo "usage: scripts/test.sh [PRESET] [swift|azurite]" >&2
    exit 2
fi

scripts/install-deps.sh "${deps[@]}"
build "$preset"

# Use a separate gateway, because it keeps all objects in memory.
export CLOUDFS_GATEWAY_DIR=$root/build/$preset/gateway
unset CLOUDFS_TEST_S3_ENDPOINT CLOUDFS_TEST_AZURE_ENDPOINT # of another server, whose contents are not ours
trap '"${gateway[@]}" stop' EXIT
trap 'exit 130' INT TERM
"${gateway[@]}" stop # one that a killed run has left
log=build/logs/$run-gateway.log
if "${gateway[@]}" start >"$log" 2>&1; then
    settings=$("${gateway[@]}" env)
    eval "$settings"
else
    trap - EXIT # keep its files for diagnosis
    reason=$(tail -n 1 "$log")
    reason=${reason#gateway: }
    if [[ ${CLOUDFS_REQUIRE_GATEWAY:-0} == 1 ]]; then
        cat "$log" >&2
        echo "test: the tests of distant stores cannot run: $reason" >&2
        exit 1
    fi
    echo "test: the tests of distant stores are skipped: $reason"
fi

# Each test has its own time limit; this one is for all of them together. At the limit and at Ctrl-C, the whole process
# group of the tests is ended.
log=build/logs/$run-test.log
status=0
timeout 25m ctest --preset "$preset" "${tests[@]}" -j "$(nproc)" >"$log" 2>&1 </dev/null &
trap 'kill "$!"' INT TERM
wait "$!" || status=$?
if ((status == 124)); then
    tail -n 20 "$log"
    echo "test: the tests were ended because they took more than 25 minutes"
    exit 1
elif ((status != 0)); then
    # Show neither passed or skipped tests nor the lines that announce a test.
    grep -vE '^ *Start +[0-9]+: |^ *[0-9]+/[0-9]+ Test +#[0-9]+: .*(\*\*\*Skipped| Passed) +[0-9.]+ sec$' "$log" || true
    exit "$status"
fi
if [[ ${2:-} == azurite ]] && grep -F '***Skipped' "$log"; then
    echo "test: no test of this selection may be skipped"
    exit 1
fi
sed -n '/ tests passed, /,$p' "$log"
