#!/usr/bin/env bash
# Run a real object gateway for tests and demonstrations: one node, on loopback, its objects in memory, as plain
# processes of whoever starts it. Everything it ever stored is gone when it stops.
#
# Usage: scripts/gateway.sh start      return once it serves; one that serves already is kept
#        scripts/gateway.sh env        print the shell lines that point tests at it: eval "$(scripts/gateway.sh env)"
#        scripts/gateway.sh stop       end it and remove its folder; fine if there is none
#
# CLOUDFS_GATEWAY_DIR   its folder, build/gateway by default; another folder is another gateway
# CLOUDFS_GATEWAY_SIZE  how much it holds, in GiB, 6 by default; what was deleted counts for up to a minute
#
# It knows one user, the owner of the bucket.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

dir=$(realpath -m "${CLOUDFS_GATEWAY_DIR:-build/gateway}")
size=${CLOUDFS_GATEWAY_SIZE:-6}
config=$dir/ceph.conf
bucket=bench
owner_key=TESTOWNERKEYID owner_secret=test/secret+of+the+owner

# The tools read our configuration and no other. A crash of something this short-lived leaves no core behind.
export CEPH_CONF=$config CEPH_ARGS=--no-mon-config
ulimit -c 0

die()
{
    echo "gateway: $*" >&2
    exit 1
}

# running DAEMON: the process that we started lives. Its command line names our configuration; that of a process which
# got the number later does not.
running()
{
    local pid
    pid=$(cat "$dir/$1.pid" 2>/dev/null) && tr '\0' '\n' 2>/dev/null <"/proc/$pid/cmdline" | grep -qxF "$config"
}

# launch DAEMON COMMAND…: in a session of its own, out of reach of a Ctrl-C, and without the lock that we hold.
launch()
{
    local name=$1
    shift
    setsid "$@" -c "$config" -f >"$dir/$name.out" 2>&1 </dev/null 9>&- &
    echo $! >"$dir/$name.pid"
    # Until it has replaced this shell's own image, running() does not know it.
    until running "$name" || ! kill -0 $!; do sleep 0.01; done 2>/dev/null
    disown
}

# await SECONDS COMMAND…: try until it succeeds. In vain once the time is over or a daemon that was launched has ended.
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

# Nothing is worth an orderly end, in which the storage daemon would write all that it holds to the disk.
end_daemons()
{
    local name tries
    for name in rgw osd mon; do
        for ((tries = 0; tries < 500; tries++)); do
            running "$name" || continue 2
            kill -KILL "$(<"$dir/$name.pid")" 2>/dev/null || true
            sleep 0.02
        done
        die "$name does not end, pid $(<"$dir/$name.pid")"
    done
}

clear_folder()
{
    end_daemons
    [[ -f $config || -z $(ls -A "$dir" 2>/dev/null) ]] || die "$dir holds something else than a gateway"
    rm -rf "$dir"
}

# A port that nobody listens on, below those that the kernel hands out by itself. Should somebody else take it before we
# do, the whole attempt fails and the next one chooses anew.
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
# A change of the cluster's state waits for others to join it, and a client that missed one asks again after 5 s. Here
# both would wait for nothing.
paxos propose interval = 0.02
paxos min wait = 0.01
objecter tick interval = 0.2

[mon]
mon data = $dir/mon
# It stores next to nothing, so it may run however full the disk is.
mon data avail warn = 0
mon data avail crit = 0

[osd]
osd data = $dir/osd
osd objectstore = memstore
memstore device bytes = $((size * 1024 * 1024 * 1024))

[client]
# Without authentication there is no key for the encryption that the gateway asks for by default.
ms mon client mode = crc
rgw enable apis = s3
rgw dns name = localhost
# Without tcp_nodelay, each small answer waits 40 ms for an acknowledgement.
rgw frontends = beast endpoint=127.0.0.1:$3 tcp_nodelay=1
# Free what was deleted or overwritten after seconds instead of hours: it is memory.
rgw gc obj min wait = 20
rgw gc processor period = 10
END
}

# bounded COMMAND…: for 20 s at most; a Ctrl-C reaches it.
bounded() { timeout --foreground 20 "$@"; }

# create_user NAME KEY SECRET
create_user() { bounded radosgw-admin user create --uid="$1" --display-name="$1" --access-key="$2" --secret-key="$3"; }

serves() { curl --silent --fail --max-time 2 --output /dev/null "$1/"; }

create_bucket()
{
    # Debian's curl leaves the digest of the empty body out, and with it the signature would be wrong.
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

# Try once to bring everything up, saying in $doing what is being done. The file "env" is written last.
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
    # Large blocks go back to the system when they are freed, which the C library would stop doing by and by.
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

# The endpoint of the gateway that was brought up; empty if it was not.
endpoint() { sed -n 's/.*_ENDPOINT=//p' "$dir/env" 2>/dev/null; }

healthy()
{
    running mon && running osd && running rgw && serves "$(endpoint)"
}

start()
{
    local program attempt doing=
    for program in ceph ceph-mon ceph-osd radosgw radosgw-admin monmaptool curl; do
        command -v "$program" >/dev/null || die "needs $program, which scripts/install-deps.sh installs"
    done
    [[ $size =~ ^[1-9][0-9]{0,3}$ ]] || die "CLOUDFS_GATEWAY_SIZE is a number of GiB, not \"$size\""
    if healthy; then
        echo "gateway: runs already in $dir"
        return
    fi

    # Now and then the storage daemon aborts while it starts, and a port may be gone. That does not happen three times.
    for attempt in 1 2 3; do
        clear_folder
        trap end_daemons EXIT
        trap 'exit 130' INT TERM HUP
        if bring_up; then
            trap - EXIT
            echo "gateway: serves $(endpoint)"
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
        # One at a time in each place. The lock is the parent folder itself, which stays.
        mkdir -p "$(dirname "$dir")"
        exec 9<"$(dirname "$dir")"
        flock -w 120 9 || die "another start or stop in $(dirname "$dir") takes too long"
        if [[ $command == start ]]; then start; else clear_folder; fi
        ;;
    env)
        healthy || die "none serves in $dir"
        cat "$dir/env"
        ;;
    *)
        echo "usage: scripts/gateway.sh start|env|stop" >&2
        exit 2
        ;;
esac
