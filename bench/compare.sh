#!/usr/bin/env bash
# Compare the command line and the provider with rclone, s3fs, GDAL, awscrt and curl on one object gateway, which is
# started on loopback: wall time, CPU time, memory, requests and bytes, each without and with a delay of 20 ms. Every
# byte is checked.
#
# Usage: bench/compare.sh [RUNS [WORK…]] [--tools A,B] [--delays MS,MS] [--parameters P=V&P=V]
#
# Prints medians of RUNS runs (default 5) of W1 to W9, of W1s and W2s, which are W1 and W2 through standard input and
# output, of W1h and W2h, which are W1 and W2 through a stream, as a host reads and writes, and of what only mounts do:
# M1 to M6, M1r, which removes what M1 has made, and M5w and M6w, which do M5 and M6 a second time (default: all). The
# parameters are added to cloudfs's store URL.
#
# `scripts/install-deps.sh compare` installs the other tools; a missing tool is skipped. Local files, up to 4 GiB, are
# kept in /dev/shm unless TMPDIR is set. Figures, tables and chart go to build/bench/compare.{jsonl,md,svg}.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"

programs=build/compare
results=build/bench/compare
configure()
{
    cmake -S . -B "$programs" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DCLOUDPROVIDER_COMPARE=ON
}
quietly build/logs/compare-configure.log configure
quietly build/logs/compare-build.log cmake --build "$programs"

export TMPDIR=${TMPDIR:-/dev/shm} PYTHONDONTWRITEBYTECODE=1
export CLOUDFS_GATEWAY_DIR=$root/$programs/gateway
# GiB: deleted objects use space for another minute, and writes to a full gateway wait. 2 are too few for all tools.
export CLOUDFS_GATEWAY_SIZE=${CLOUDFS_GATEWAY_SIZE:-8}
/usr/bin/python3 bench/compare/compare.py "$@" --programs "$programs" --figures "$results.jsonl"

chart=(--chart "$results.svg")
if ! /usr/bin/python3 -c 'import matplotlib' 2>/dev/null; then
    echo "compare: no chart without python3-matplotlib" >&2
    chart=()
fi
/usr/bin/python3 bench/compare/report.py "${chart[@]}" "$results.jsonl" | tee "$results.md"
