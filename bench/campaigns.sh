#!/usr/bin/env bash
# Try to make cloudfs lose, mix or invent bytes: kill it, cut its power, damage its store, disturb its network, and take
# its disk, memory, descriptors and processes away. Prints one row of counts per campaign; docs/reliability.md has the
# results.
#
# Usage: bench/campaigns.sh [short|full]      full (default) takes about an hour, short a few minutes
#
# Builds the release preset. The campaigns on distant stores use servers of their own on loopback. Exits with 1 if a
# campaign found anything that must not happen; it then prints the seed that repeats it.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"
case ${1:-full} in
    full) kills=1000 losses=500 damages=500 faults=1000 flips=500 shortages=1000 ;;
    short) seed=1 kills=60 losses=30 damages=60 faults=40 flips=40 shortages=80 ;;
    *)
        echo "usage: bench/campaigns.sh [short|full]" >&2
        exit 2
        ;;
esac
build release
program=build/release/tools/cloudfs/cloudfs

export CLOUDFS_GATEWAY_DIR=$root/build/campaigns-gateway PYTHONDONTWRITEBYTECODE=1
stop_gateways() { scripts/gateway.sh stop && scripts/gateway.sh azurite stop; }
trap stop_gateways EXIT
stop_gateways # those that a killed run has left
scripts/gateway.sh start >/dev/null
settings=$(scripts/gateway.sh env)
eval "$settings"

status=0
# campaign SCRIPT ROUNDS OPTION…
campaign()
{
    /usr/bin/python3 "bench/campaigns/$1.py" "$program" --rounds "$2" ${seed+--seed $seed} "${@:3}" || status=1
}
echo "| campaign | rounds | counts |"
echo "|---|---|---|"
campaign kills "$kills"
campaign power "$losses"
campaign damage "$damages"
campaign network "$faults"
campaign network "$flips" --flips
scripts/gateway.sh azurite start >/dev/null
settings=$(scripts/gateway.sh azurite env)
eval "$settings"
campaign network "$faults"
campaign network "$flips" --flips
if unshare --mount true 2>/dev/null; then
    campaign shortage "$shortages"
else
    echo "campaigns: no shortages, because only root can mount a small disk" >&2
fi
if [[ ${1:-full} == full ]]; then # the tests of the project run it, too
    /usr/bin/python3 bench/campaigns/sweep.py build/release || status=1
fi
exit "$status"
