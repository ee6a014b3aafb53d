# shellcheck shell=bash disable=SC2034,SC2154 # variables of gateway.sh, which sources this file
# The gateway of OpenStack Swift: its proxy server, which speaks S3, the three servers behind it, and the cache that the
# proxy needs to check signatures. It stores one copy of everything on one device, a folder.

config=$dir/swift.conf
daemons="proxy object container account memcached"
owner_key=test:owner owner_secret=test/secret+of+the+owner
# The interpreter of Debian, which has the package, without what the user has installed.
python=(/usr/bin/python3 -I -W ignore "$root/scripts/gateway/swift.py")

check_needs()
{
    need memcached
    /usr/bin/python3 -I -W ignore -c 'import swift' 2>/dev/null ||
        die "python3-swift is missing; scripts/install-deps.sh installs it"
}

# write_config SERVER PORT PIPELINE: what all servers have in common. The timeouts are long, because a busy machine is
# not a failure.
write_config()
{
    cat >"$dir/$1.conf" <<END
[DEFAULT]
bind_ip = 127.0.0.1
bind_port = $2
# In the foreground, in one process.
workers = 0
user = $(id -un)
swift_dir = $dir
devices = $dir/devices
mount_check = false
disable_fallocate = true
log_level = WARNING
client_timeout = 120
conn_timeout = 20
node_timeout = 120
container_update_timeout = 120

[pipeline:main]
pipeline = $3 $1-server

[app:$1-server]
use = egg:swift#$1
account_autocreate = true
conn_timeout = 20
node_timeout = 120
recoverable_node_timeout = 120
# There is no other node to use instead.
error_suppression_limit = 1000000
END
}

# write_proxy_config PORT MEMCACHED_PORT
write_proxy_config()
{
    local filter
    write_config proxy "$1" \
        "catch_errors gatekeeper healthcheck cache listing_formats bulk s3api tempauth copy dlo slo versioned_writes"
    for filter in catch_errors gatekeeper healthcheck listing_formats bulk copy dlo versioned_writes; do
        printf '\n[filter:%s]\nuse = egg:swift#%s\n' "$filter" "$filter"
    done >>"$dir/proxy.conf"
    cat >>"$dir/proxy.conf" <<END

[filter:cache]
use = egg:swift#memcache
memcache_servers = 127.0.0.1:$2

[filter:s3api]
use = egg:swift#s3api
location = us-east-1
storage_domain = localhost

[filter:slo]
use = egg:swift#slo
rate_limit_after_segment = 1000000

[filter:tempauth]
use = egg:swift#tempauth
user_${owner_key/:/_} = $owner_secret .admin
END
}

start_daemons()
{
    local name proxy_port memcached_port
    local -A ports
    proxy_port=$(free_port)
    memcached_port=$(free_port)
    url=http://127.0.0.1:$proxy_port
    mkdir -p "$dir/devices/only"
    cat >"$config" <<END
[swift-hash]
swift_hash_path_suffix = test

[storage-policy:0]
name = only
default = yes
END
    write_proxy_config "$proxy_port" "$memcached_port"
    for name in account container object; do
        ports[$name]=$(free_port)
        write_config "$name" "${ports[$name]}" ""
    done

    doing="describing where its objects are"
    "${python[@]}" rings "$config" "${ports[account]}" "${ports[container]}" "${ports[object]}" &>"$dir/rings.out" ||
        return 1

    doing="starting its servers"
    # The first argument is its name, which says whose it is, because it has no configuration file.
    # shellcheck disable=SC2016 # for the inner shell
    launch memcached bash -c 'exec -a "$0" memcached "$@"' "$config" -u "$(id -un)" -l 127.0.0.1 -p "$memcached_port" \
        -U 0
    for name in account container object proxy; do
        launch "$name" "${python[@]}" "$name" "$config"
    done
}
