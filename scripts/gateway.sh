#!/usr/bin/env bash
# Run a real object gateway for tests and demonstrations: one node on loopback, as ordinary processes of the current
# user. All its objects are lost when it stops.
#
# Usage: scripts/gateway.sh [SERVER] start      start it and wait until it responds; a running gateway is kept
#        scripts/gateway.sh [SERVER] env        print the settings for the tests: eval "$(scripts/gateway.sh env)"
#        scripts/gateway.sh [SERVER] stop       stop it and remove its folder; not an error if none is running
#
# It is the gateway of Ceph, with its objects in memory, or with "swift" that of OpenStack Swift, with its objects in its
# folder. The two share no code. With "azurite", it is an emulator of Azure Blob Storage.
#
# CLOUDFS_GATEWAY_DIR   its folder, build/gateway by default, with "-SERVER" appended for the others; each folder has
#                       its own gateway
# CLOUDFS_GATEWAY_SIZE  the capacity of Ceph in GiB, 6 by default; deleted objects count for up to a minute
#
# It has one user, the owner of the bucket.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

die()
{
    echo "gateway: $*" >&2
    exit 1
}

server=ceph
if [[ ${1:-} == swift || ${1:-} == azurite ]]; then
    server=$1
    shift
fi
dir=${CLOUDFS_GATEWAY_DIR:-build/gateway}
[[ $server == ceph ]] || dir+=-$server
dir=$(realpath -m "$dir")
bucket=bench
protocol=s3
ulimit -c 0 # crashes leave no core files

# The server's file defines:
#   config         a file in $dir that is an argument of each of its daemons
#   daemons        their names, in the order in which they are ended
#   owner_key, owner_secret
#   check_needs    fail with a message if the machine lacks something
#   protocol       azure, if it is not s3; then also create_container_azure and write_env_azure, see those of s3 below
#   start_daemons  configure and launch them; set $doing to the current step, and $url to the endpoint
# shellcheck source=scripts/gateway/ceph.sh
source "scripts/gateway/$server.sh"

# need PROGRAM…
need()
{
    local program
    for program in "$@"; do
        command -v "$program" >/dev/null || die "$program is missing; scripts/install-deps.sh installs it"
    done
}

# running DAEMON: test whether the process that we started is running. Its command line contains our configuration file;
# a later process with the same pid does not.
running()
{
    local pid
    pid=$(cat "$dir/$1.pid" 2>/dev/null) && tr '\0' '\n' 2>/dev/null <"/proc/$pid/cmdline" | grep -qxF "$config"
}

# launch DAEMON COMMAND…: start it in its own session, so that Ctrl-C does not reach it, and without our lock.
launch()
{
    local name=$1
    shift
    setsid "$@" >"$dir/$name.out" 2>&1 </dev/null 9>&- &
    echo $! >"$dir/$name.pid"
    # running() does not recognise it before it has replaced the forked shell.
    until running "$name" || ! kill -0 $!; do sleep 0.01; done 2>/dev/null
    disown
}

# await SECONDS COMMAND…: retry until it succeeds. Fail after this time, or if a launched daemon has ended.
await()
{
    local end=$((SECONDS + $1)) pid_file
    shift
    until "$@" &>/dev/null; do
        ((SECONDS <= end)) || return 1
        for pid_file in "$dir"/*.pid; do
            running "$(basename "$pid_file" .pid)" || return 1
        done
        sleep 0.02
    done
}

# Kill the daemons: in an orderly shutdown, Ceph would write all its data to the disk.
end_daemons()
{
    local name tries
    for name in $daemons; do
        for ((tries = 0; tries < 500; tries++)); do
            running "$name" || continue 2
            kill -KILL "$(<"$dir/$name.pid")" 2>/dev/null || true
            sleep 0.02
        done
        die "cannot stop $name, pid $(<"$dir/$name.pid")"
    done
}

clear_folder()
{
    end_daemons
    [[ -f $config || -z $(ls -A "$dir" 2>/dev/null) ]] || die "$dir contains other files than those of a gateway"
    rm -rf "$dir"
}

# Print a free port below the range of ephemeral ports. If another process takes it first, the attempt fails, and the
# next attempt chooses another port.
free_port()
{
    local port
    while port=$((20000 + RANDOM % 12000)); (: <>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do :; done
    echo "$port"
}

serves() { curl --silent --max-time 2 --output /dev/null "$1/"; }

# create_container_s3 URL: also succeeds if an earlier attempt has created it, although that one reported a failure.
create_container_s3()
{
    # Debian's curl omits the digest of the empty body, which makes the signature wrong.
    local digest status
    digest=$(sha256sum </dev/null | cut -d ' ' -f 1)
    # The URL quotes what a key or secret may contain: a colon, a slash.
    status=$(curl --silent --max-time 10 --request PUT --header "x-amz-content-sha256: $digest" \
        --aws-sigv4 aws:amz:us-east-1:s3 --output "$dir/bucket.out" --write-out '%{http_code}' \
        "${1/:\/\//://${owner_key/:/%3A}:${owner_secret//\//%2F}@}/$bucket") || return
    [[ $status == 200 || $status == 409 ]]
}

write_env_s3()
{
    cat >"$dir/env" <<END
export CLOUDFS_TEST_S3_ENDPOINT=$1
export CLOUDFS_TEST_S3_BUCKET=$bucket
export CLOUDFS_TEST_S3_SERVER=$server
export AWS_ACCESS_KEY_ID=$owner_key
export AWS_SECRET_ACCESS_KEY=$owner_secret
export AWS_REGION=us-east-1
END
}

# Try once to start everything. Sets $doing to the current step. The file "env" is written last.
bring_up()
{
    local url
    start_daemons || return 1
    doing="waiting for the gateway"
    await 60 serves "$url" || return 1

    doing="creating the bucket"
    await 60 "create_container_$protocol" "$url" || return 1
    "write_env_$protocol" "$url"
}

# Print the endpoint of the gateway; nothing if it was not started.
endpoint() { sed -n 's/.*_ENDPOINT=//p' "$dir/env" 2>/dev/null; }

healthy()
{
    local name
    for name in $daemons; do running "$name" || return; done
    serves "$(endpoint)"
}

start()
{
    local attempt doing=
    need curl
    check_needs
    if healthy; then
        echo "gateway: already running in $dir"
        return
    fi

    # Sometimes the storage daemon of Ceph aborts while it starts, or a port is taken. Three attempts are enough.
    for attempt in 1 2 3; do
        clear_folder
        mkdir -p "$dir"
        trap end_daemons EXIT
        trap 'exit 130' INT TERM HUP
        if bring_up; then
            trap - EXIT
            echo "gateway: running at $(endpoint)"
            return
        fi
        echo "gateway: attempt $attempt of 3 failed while $doing" >&2
    done
    end_daemons
    tail -n 6 "$dir"/*.out >&2
    die "failed while $doing; the whole output is in $dir/*.out"
}

command=${1:-}
case $command in
    start | stop)
        # One start or stop at a time per parent folder, which is never removed and therefore serves as the lock.
        mkdir -p "$(dirname "$dir")"
        exec 9<"$(dirname "$dir")"
        flock -w 120 9 || die "timeout: another start or stop is running in $(dirname "$dir")"
        if [[ $command == start ]]; then start; else clear_folder; fi
        ;;
    env)
        healthy || die "no gateway is running in $dir"
        cat "$dir/env"
        ;;
    *)
        echo "usage: scripts/gateway.sh [swift|azurite] start|env|stop" >&2
        exit 2
        ;;
esac
