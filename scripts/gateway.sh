#!/usr/bin/env bash
# Run a real object gateway for tests and demonstrations: one node on loopback, with its objects in memory, as ordinary
# processes of the current user. All its objects are lost when it stops.
#
# Usage: scripts/gateway.sh start      start it and wait until it responds; a running gateway is kept
#        scripts/gateway.sh env        print the settings for the tests: eval "$(scripts/gateway.sh env)"
#        scripts/gateway.sh stop       stop it and remove its folder; not an error if none is running
#
# CLOUDFS_GATEWAY_DIR   its folder, build/gateway by default; each folder has its own gateway
# CLOUDFS_GATEWAY_SIZE  its capacity in GiB, 6 by default; deleted objects count for up to a minute
#
# It has one user, the owner of the bucket.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

dir=$(realpath -m "${CLOUDFS_GATEWAY_DIR:-build/gateway}")
size=${CLOUDFS_GATEWAY_SIZE:-6}
config=$dir/ceph.conf
bucket=bench
owner_key=TESTOWNERKEYID owner_secret=test/secret+of+the+owner

# The tools read only our configuration. Crashes leave no core files.
export CEPH_CONF=$config CEPH_ARGS=--no-mon-config
ulimit -c 0

die()
{
    echo "gateway: $*" >&2
    exit 1
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
    setsid "$@" -c "$config" -f >"$dir/$name.out" 2>&1 </dev/null 9>&- &
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

# Kill the daemons: in an orderly shutdown, the storage daemon would write all its data to the disk.
end_daemons()
{
    local name tries
    for name in rgw osd mon; do
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

# write_config CLUSTER MONITOR_PORT GATEWAY_PORT
write_config()
{
    cat >"$config" <<END
[global]
fsid = $1
mon host = v2:127.0.0.1:$2/0
public addr = 127.0.0.1
cluster addr = 127.0.0.1
ms bind msgr1 = false
auth cluster required = none
auth service required = none
auth client required = none
run dir = $dir
crash dir = $dir
admin socket =
log file =
log to stderr = true
mon cluster log file =
debug rocksdb = 0
debug rgw = 0
# One copy of everything, on the only storage daemon there is.
osd pool default size = 1
osd pool default min size = 1
osd pool default pg num = 1
osd pool default pgp num = 1
osd pool default pg autoscale mode = off
osd crush chooseleaf type = 0
mon allow pool size one = true
# By default, changes of the cluster's state are delayed to combine several of them, and a client that missed one asks
# again after 5 s. A single node does not need these delays.
paxos propose interval = 0.02
paxos min wait = 0.01
objecter tick interval = 0.2

[mon]
mon data = $dir/mon
# It stores very little, so it may run on a nearly full disk.
mon data avail warn = 0
mon data avail crit = 0

[osd]
osd data = $dir/osd
osd objectstore = memstore
memstore device bytes = $((size * 1024 * 1024 * 1024))

[client]
# The gateway encrypts by default, but without authentication there is no key.
ms mon client mode = crc
rgw enable apis = s3
rgw dns name = localhost
# Without tcp_nodelay, each small response waits 40 ms for an acknowledgement.
rgw frontends = beast endpoint=127.0.0.1:$3 tcp_nodelay=1
# Free deleted and overwritten objects after seconds instead of hours, because they use memory.
rgw gc obj min wait = 20
rgw gc processor period = 10
END
}

# bounded COMMAND…: run it for at most 20 s; Ctrl-C reaches it.
bounded() { timeout --foreground 20 "$@"; }

# create_user NAME KEY SECRET
create_user() { bounded radosgw-admin user create --uid="$1" --display-name="$1" --access-key="$2" --secret-key="$3"; }

serves() { curl --silent --fail --max-time 2 --output /dev/null "$1/"; }

create_bucket()
{
    # Debian's curl omits the digest of the empty body, which makes the signature wrong.
    local digest
    digest=$(sha256sum </dev/null | cut -d ' ' -f 1)
    curl --silent --show-error --fail-with-body --max-time 10 --request PUT --header "x-amz-content-sha256: $digest" \
        --aws-sigv4 aws:amz:us-east-1:s3 --user "$owner_key:$owner_secret" "$1/$bucket"
}

write_env()
{
    cat >"$dir/env" <<END
export CLOUDFS_TEST_S3_ENDPOINT=$1
export CLOUDFS_TEST_S3_BUCKET=$bucket
export AWS_ACCESS_KEY_ID=$owner_key
export AWS_SECRET_ACCESS_KEY=$owner_secret
export AWS_REGION=us-east-1
END
}

# Try once to start everything. Sets $doing to the current step. The file "env" is written last.
bring_up()
{
    local cluster disk mon_port rgw_port url
    cluster=$(</proc/sys/kernel/random/uuid)
    disk=$(</proc/sys/kernel/random/uuid)
    mon_port=$(free_port)
    rgw_port=$(free_port)
    url=http://127.0.0.1:$rgw_port
    mkdir -p "$dir/osd"
    write_config "$cluster" "$mon_port" "$rgw_port"

    doing="starting the monitor"
    {
        monmaptool --create --fsid "$cluster" --addv a "v2:127.0.0.1:$mon_port" "$dir/monmap" &&
            bounded ceph-mon -i a --mkfs --monmap "$dir/monmap"
    } &>"$dir/mon-create.out" || return 1
    launch mon ceph-mon -i a

    doing="starting the storage daemon"
    {
        bounded ceph osd new "$disk" 0 </dev/null && bounded ceph-osd -i 0 --mkfs --osd-uuid "$disk"
    } &>"$dir/osd-create.out" || return 1
    # Return large blocks to the system when they are freed. By default, the C library raises this threshold over time.
    launch osd env MALLOC_MMAP_THRESHOLD_=262144 ceph-osd -i 0

    await 20 grep -qF 'state: booting -> active' "$dir/osd.out" || return 1

    doing="creating the user"
    create_user owner "$owner_key" "$owner_secret" &>"$dir/user.out" || return 1

    doing="starting the gateway"
    launch rgw radosgw -n client.rgw
    await 20 serves "$url" || return 1

    doing="creating the bucket"
    create_bucket "$url" &>"$dir/bucket.out" || return 1
    write_env "$url"
}

# Print the endpoint of the gateway; nothing if it was not started.
endpoint() { sed -n 's/.*_ENDPOINT=//p' "$dir/env" 2>/dev/null; }

healthy()
{
    running mon && running osd && running rgw && serves "$(endpoint)"
}

start()
{
    local program attempt doing=
    for program in ceph ceph-mon ceph-osd radosgw radosgw-admin monmaptool curl; do
        command -v "$program" >/dev/null || die "$program is missing; scripts/install-deps.sh installs it"
    done
    [[ $size =~ ^[1-9][0-9]{0,3}$ ]] || die "CLOUDFS_GATEWAY_SIZE must be a number of GiB, not \"$size\""
    if healthy; then
        echo "gateway: already running in $dir"
        return
    fi

    # Sometimes the storage daemon aborts while it starts, or a port is taken. Three attempts are enough.
    for attempt in 1 2 3; do
        clear_folder
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
        echo "usage: scripts/gateway.sh start|env|stop" >&2
        exit 2
        ;;
esac
