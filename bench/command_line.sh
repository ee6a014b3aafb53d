#!/usr/bin/env bash
# Compare `cloudfs put` and `cloudfs get` with `cp -r` for one file of 256 MiB and for 1,000 files of 4 KiB. Every byte
# is checked.
#
# Usage: bench/command_line.sh [RUNS]     medians of RUNS runs (default 5) in $TMPDIR; needs the release build
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export AWS_EC2_METADATA_DISABLED=true # never ask the machine for credentials
runs=${1:-5}
cloudfs=$PWD/build/release/tools/cloudfs/cloudfs

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
mkdir large small
head -c 256M /dev/urandom >large/file
for ((i = 0; i < 1000; ++i)); do
    head -c 4096 /dev/urandom >"small/$i"
done

# measure NAME RESET COMMAND…: run RESET and COMMAND several times; print the median time and the highest peak memory.
measure()
{
    local name=$1 reset=$2
    shift 2
    : >times
    for ((run = 0; run < runs; ++run)); do
        eval "$reset"
        /usr/bin/time -a -o times -f '%e %M' "$@"
    done
    printf '| %s | %s | %s |\n' "$name" \
        "$(sort -n times | awk -v middle=$(((runs + 1) / 2)) 'NR == middle { printf "%.2f", $1 }')" \
        "$(awk '$2 > peak { peak = $2 } END { printf "%.0f", peak / 1024 }' times)"
}

echo '| job | seconds | peak MiB |'
echo '|---|---|---|'
for tree in large small; do
    measure "cp -r, $tree" 'rm -rf copy' cp -r "$tree" copy
    measure "cp -r and sync, $tree" 'rm -rf copy' sh -c "cp -r $tree copy && sync -f copy"
    measure "cloudfs put -r, $tree" 'rm -rf store' "$cloudfs" --store local:store put -r "$tree" /
    measure "cloudfs put -r -j 1, $tree" 'rm -rf store' "$cloudfs" --store local:store put -r -j 1 "$tree" /
    measure "cloudfs get -r, $tree" 'rm -rf back' "$cloudfs" --store local:store get -r "/$tree" back
    diff -r "$tree" back
    rm -rf copy store back
done
