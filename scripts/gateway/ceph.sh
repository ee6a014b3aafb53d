# shellcheck shell=bash disable=SC2034,SC2154 # variables of gateway.sh, which sources this file
# The gateway of Ceph, with its monitor and one storage daemon that has everything in memory.

config=$dir/ceph.conf
daemons="rgw osd mon"
owner_key=TESTOWNERKEYID owner_secret=test/secret+of+the+owner
size=${CLOUDFS_GATEWAY_SIZE:-6}

# The tools read only our configuration.
export CEPH_CONF=$config CEPH_ARGS=--no-mon-config

check_needs()
{
    need ceph ceph-mon ceph-osd radosgw radosgw-admin monmaptool
    [[ $size =~ ^[1-9][0-9]{0,3}$ ]] || die "CLOUDFS_GATEWAY_SIZE must be a number of GiB, not \"$size\""
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

start_daemons()
{
    local cluster disk mon_port rgw_port
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
    launch mon ceph-mon -i a -c "$config" -f

    doing="starting the storage daemon"
    {
        bounded ceph osd new "$disk" 0 </dev/null && bounded ceph-osd -i 0 --mkfs --osd-uuid "$disk"
    } &>"$dir/osd-create.out" || return 1
    # Return large blocks to the system when they are freed. By default, the C library raises this threshold over time.
    launch osd env MALLOC_MMAP_THRESHOLD_=262144 ceph-osd -i 0 -c "$config" -f

    await 20 grep -qF 'state: booting -> active' "$dir/osd.out" || return 1

    doing="creating the user"
    create_user owner "$owner_key" "$owner_secret" &>"$dir/user.out" || return 1

    doing="starting the gateway"
    launch rgw radosgw -n client.rgw -c "$config" -f
}
