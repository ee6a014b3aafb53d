#!/usr/bin/env bash
# Run programs that others wrote in mounted stores, and tell which of them find fault with the mount.
#
# Usage: scripts/mount-programs.sh [--long] [--only PROGRAM] [STORE]...
#
# A STORE is local, memory or gateway, the default, or for comparison: disk, a local folder without any mount; rclone or
# s3fs, which mount the same gateway. Prints one line for each program and store; the rest goes to build/logs. After
# each program, the store is unmounted and mounted again, with an empty cache: it must have the same files. Exits with 1
# if a program failed in a store mounted by cloudfs, and with 77 if this machine cannot mount.
#
# --long  larger files and more operations; otherwise a store takes at most three minutes
# shellcheck disable=SC2317 # functions are called by names that are put together
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
script=$root/scripts/mount-programs.sh
cloudfs=$root/build/release/tools/cloudfs/cloudfs
programs=(fio sqlite git rsync make tar stress dbench random kill)

expect() { [[ $1 == "$2" ]] || { echo "expected $2, got $1" && return 1; }; }

# Each function program_NAME runs in an empty folder of the mount. The first command that fails ends it.

program_fio()
{
    fio --directory=. --size=$((long ? 256 : 32))m --fallocate=none --verify=crc32c --verify_fatal=1 \
        --verify_state_save=0 --end_fsync=1 --ioengine=psync \
        --name=sequential --rw=write --bs=1m \
        --name=random --stonewall --rw=randwrite --bs=4k \
        --name=mapped --stonewall --rw=randwrite --bs=4k --ioengine=mmap
}

# Two processes write into each database at the same time.
program_sqlite()
{
    local mode writer i count=$((long ? 100 : 6)) writers
    for mode in delete wal truncate; do
        sqlite3 -bail "$mode.db" "PRAGMA journal_mode=$mode;" \
            "CREATE TABLE t (a INTEGER, b BLOB); CREATE INDEX i ON t (b);"
        writers=()
        for writer in 1 2; do
            {
                echo ".timeout 60000"
                for ((i = 0; i < count; i++)); do
                    echo "BEGIN IMMEDIATE; INSERT INTO t SELECT $writer, randomblob(500)" \
                        "FROM generate_series(1, 50);" \
                        "UPDATE t SET b = randomblob(900) WHERE a = $writer AND random() % 9 = 0; COMMIT;" \
                        "BEGIN IMMEDIATE; DELETE FROM t; ROLLBACK;"
                done
            } | sqlite3 -bail "$mode.db" &
            writers+=($!)
        done
        wait "${writers[0]}"
        wait "${writers[1]}"
        expect "$(sqlite3 "$mode.db" 'PRAGMA integrity_check; SELECT count(*) FROM t;')" $'ok\n'$((2 * 50 * count))
        sqlite3 -bail "$mode.db" 'DELETE FROM t WHERE random() % 2; VACUUM; PRAGMA integrity_check;'
    done
}

program_git()
{
    local branch i
    export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_SYSTEM=/dev/null
    export GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@b GIT_COMMITTER_NAME=a GIT_COMMITTER_EMAIL=a@b
    git init -q -b main one
    cd one
    for branch in main side main; do
        git checkout -q "$branch" 2>/dev/null || git checkout -q -b "$branch"
        for ((i = 0; i < (long ? 50 : 5); i++)); do
            mkdir -p "$branch/$i"
            seq "$RANDOM" >"$branch/$i/numbers"
            git add -A
            git commit -q -m "$branch $i"
        done
    done
    git merge -q -m merge side
    git gc -q
    git fsck --full --strict
    expect "$(git status --porcelain)" ''
    cd ..
    git clone -q one two
    git clone -q --bare "file://$PWD/one" three.git
    echo changed >two/main/0/numbers
    git -C two commit -q -a -m changed
    git -C two push -q "$PWD/three.git" main
    git -C one pull -q "$PWD/three.git" main
    git -C three.git fsck --full --strict
    diff -r -x .git one two
}

program_rsync()
{
    rsync -rt "$root/foundation" "$root/docs" .
    expect "$(rsync -rti "$root/foundation" "$root/docs" .)" ''
    rsync -rtc --delete --inplace "$root/docs/" foundation
    expect "$(rsync -rtci --delete "$root/docs/" foundation)" ''
}

program_make()
{
    local name output
    for name in one two three; do echo "int $name() { return 1; }" >"$name.cpp"; done
    echo 'int one(), two(), three(); int main() { return one() + two() + three() - 3; }' >main.cpp
    printf '%s\n' 'program: main.o libnumbers.a' $'\tg++ -o $@ $^' \
        'libnumbers.a: one.o two.o three.o' $'\tar rcs $@ $^' '%.o: %.cpp' $'\tg++ -g -c -o $@ $<' >Makefile
    make -j2
    ./program
    expect "$(make)" "make: 'program' is up to date."
    sleep 1.1 # some stores tell times in seconds
    touch two.cpp
    output=$(make)
    expect "$(grep -e -c <<<"$output")" 'g++ -g -c -o two.o two.cpp'
    ./program
}

program_tar()
{
    local name
    tar -C "$root" -c docs foundation scripts | tar -x --no-same-owner
    mkdir tree
    mv docs foundation scripts tree/
    mv tree moved
    for name in docs foundation scripts; do diff -r "$root/$name" "moved/$name"; done
    tar -c moved | tar -x -C "$(mkdir again && echo again)" --no-same-owner
    diff -r moved again/moved
    rm -r moved
    expect "$(ls)" again
}

program_stress()
{
    local stressor
    for stressor in dir filename rename seek "mmap-file --mmap" hdd; do
        # shellcheck disable=SC2086 # options
        stress-ng --temp-path . --verify --timeout $((long ? 60 : 3)) --mmap-bytes 8m --seek-size 8m --hdd-bytes 8m \
            --$stressor 1
    done
}

program_dbench()
{
    local output
    output=$(dbench -D . -t $((long ? 120 : 10)) 2)
    echo "$output"
    expect "$(grep -i failed <<<"$output")" ''
}

program_random() # each fsync and close is a request
{
    local operations=$((long ? 1000000 : 20000))
    [[ $store == disk || $store == local || $store == memory ]] || operations=$((operations / 5))
    python3 "$root/scripts/random_operations.py" . "$operations" "$RANDOM"
}

# bounded SECONDS COMMAND…: run it, with its output in $log. If the time ends, kill it, and also the mount, because a
# process that waits for a mount cannot be killed.
bounded()
{
    local end=$((SECONDS + $1)) pid status=0
    shift
    setsid "$@" >>"$log" 2>&1 </dev/null &
    pid=$!
    while kill -0 $pid 2>/dev/null; do
        if ((SECONDS > end)); then
            echo "timeout: $*" >>"$log"
            kill -KILL -- -$pid
            [[ -z $mount_pid ]] || kill -KILL "$mount_pid"
            status=124
            break
        fi
        sleep 0.05
    done 2>/dev/null
    wait $pid 2>/dev/null || return $((status ? status : $?))
}

mount_store()
{
    local command=() i
    mkdir -p mnt cache
    case $store in
        disk) return ;;
        rclone)
            # This version of it cannot be told the certificates by the environment.
            command=(env -u AWS_CA_BUNDLE rclone mount ":s3:$CLOUDFS_TEST_S3_BUCKET/rclone" mnt --cache-dir cache
                --vfs-cache-mode full --vfs-write-back 0s --file-perms 0755 --config ''
                --s3-provider Ceph --s3-env-auth --s3-endpoint "$CLOUDFS_TEST_S3_ENDPOINT")
            ;;
        s3fs)
            command=(s3fs "$CLOUDFS_TEST_S3_BUCKET" mnt -f -o "use_path_request_style,use_cache=$work/cache"
                -o "endpoint=us-east-1,url=$CLOUDFS_TEST_S3_ENDPOINT")
            ;;
        *) command=("$cloudfs" --store "$url" mount mnt --cache-dir cache) ;;
    esac
    "${command[@]}" >>"$log" 2>&1 &
    mount_pid=$!
    for ((i = 0; i < 300; i++)); do
        ! timeout 10 mountpoint -q mnt || return 0
        kill -0 $mount_pid 2>/dev/null || break
        sleep 0.1
    done
    reason="does not mount"
    return 1
}

# unmount COMMAND…: end the mount by the command. It must store everything and exit with 0.
unmount()
{
    local i status=0 left
    [[ -n $mount_pid ]] || return 0
    "$@" >>"$log" 2>&1 || true
    for ((i = 0; i < 600; i++)); do
        kill -0 "$mount_pid" 2>/dev/null || break
        sleep 0.1
    done
    ((i < 600)) || { reason="does not end" && return 1; }
    wait "$mount_pid" || status=$?
    mount_pid=
    ((status == 0)) || { reason="exit status $status of the mount" && return 1; }
    left=$(find cache -regex '.*/\(conflicts/.*\|[0-9]+\)' -printf '%P ') # see docs/mount.md
    [[ -z $left ]] || ! is_ours || { reason="unsent or in conflict: $left" && return 1; }
    ! is_ours || rm -rf cache # the others go on storing after the next mount
}

kill_mount()
{
    [[ -z $mount_pid ]] || kill -KILL "$mount_pid" 2>/dev/null || true
    [[ -z $mount_pid ]] || wait "$mount_pid" 2>/dev/null || true
    mount_pid=
    ! grep -q " $work/mnt " /proc/self/mountinfo || "${lazy[@]}" mnt
}

is_ours() { [[ $store == local || $store == memory || $store == gateway ]]; }

fingerprint() { find mnt -printf '%P %y\n' -type f -exec sha256sum {} + | sort; }

# Kill the mount at random instants under load, and check each time that what was confirmed comes back.
kill_rounds()
{
    local round writer writers mode=confirmed
    ! is_ours || mode=latest # what was written comes back, too
    mkdir mnt/kill/1 mnt/kill/2 # so that a late writer fails instead of writing below the mount point
    for ((round = 0; round < (long ? 50 : 6); round++)); do
        writers=()
        for writer in 1 2; do
            setsid python3 "$root/scripts/confirmed_writes.py" write mnt/kill/$writer state$writer "$RANDOM" \
                >>"$log" 2>&1 &
            writers+=($!)
        done
        sleep "$((1 + RANDOM % 3)).$((RANDOM % 10))3"
        kill_mount
        for writer in "${writers[@]}"; do bounded 60 tail --pid "$writer" -s 0.1 -f /dev/null; done
        mount_store || return
        if ((round % 2)); then # while it sends what comes back
            sleep "0.0$((RANDOM % 10))"
            kill_mount
            mount_store || return
        fi
        for writer in 1 2; do
            bounded 60 python3 "$root/scripts/confirmed_writes.py" $mode mnt/kill/$writer state$writer ||
                { reason="round $round: $(tail -n 1 "$log")" && return 1; }
        done
    done
}

# Run a program in the store; sets $reason if it fails.
run_program()
{
    local status=0
    mount_store || return
    mkdir -p "mnt/$program" || { reason="mkdir" && return 1; }
    if [[ $program == kill ]]; then
        kill_rounds || return
    else
        bounded $((long ? 1800 : 60)) "$BASH" "$script" --inside "$work/mnt/$program" "$program" || status=$?
        ((status != 124)) || { reason="timeout" && return 1; }
        ((status == 0)) || { reason="status $status: $(grep -v '^$' "$log" | tail -n 1)" && return 1; }
    fi
    [[ $store == disk ]] || again || return
    bounded 60 rm -rf "mnt/$program" || { reason="rm: $(tail -n 1 "$log")" && return 1; }
    [[ ! -e mnt/$program ]] || { reason="rm leaves the folder" && return 1; }
    # The others exit with the status of the signal.
    if is_ours; then unmount kill "$mount_pid"; else unmount "${unmounter[@]}" mnt; fi
}

# Mount the store again, cloudfs with an empty cache. It must have the same files.
again()
{
    fingerprint >before 2>>"$log" || { reason="cannot be read" && return 1; }
    unmount "${unmounter[@]}" mnt || return
    mount_store || return
    [[ $store != memory ]] || return 0 # it was lost
    fingerprint >after 2>>"$log" || { reason="cannot be read after the next mount" && return 1; }
    diff before after >>"$log" || { reason="others after the next mount: $(tail -n 1 "$log")" && return 1; }
}

if [[ ${1:-} == --inside ]]; then
    cd "$2"
    "program_$3"
    exit
fi

export long=0 store
arguments=("$@") stores=()
while (($# > 0)); do
    case $1 in
        --long) long=1 ;;
        --only) programs=("${2-}") && shift ;;
        local | memory | gateway | disk | rclone | s3fs) stores+=("$1") ;;
        *)
            echo "usage: scripts/mount-programs.sh [--long] [--only PROGRAM] [STORE]..., see its beginning" >&2
            exit 2
            ;;
    esac
    shift
done
((${#stores[@]})) || stores=(memory local gateway)

unmounter=(umount) lazy=(umount -l)
if ((EUID != 0)) && command -v fusermount3 >/dev/null && test -w /dev/fuse; then
    unmounter=(fusermount3 -u) lazy=(fusermount3 -uz)
elif [[ -z ${CLOUDFS_OWN_MOUNTS-} ]]; then # nothing stays mounted after the end
    unshare --mount test -w /dev/fuse 2>/dev/null || { echo "mount-programs: skipped: cannot mount here"; exit 77; }
    CLOUDFS_OWN_MOUNTS=1 exec unshare --mount "$BASH" "$script" "${arguments[@]}"
fi
scripts/install-deps.sh programs
[[ " ${stores[*]} " != *" rclone "* && " ${stores[*]} " != *" s3fs "* ]] || scripts/install-deps.sh compare
build release cloudfs

export CLOUDFS_GATEWAY_DIR=$root/build/programs-gateway CLOUDFS_GATEWAY_SIZE=4
mount_pid=
work=$(mktemp -d)
clean_up()
{
    set +e
    kill_mount
    cd "$root"
    rm -rf "$work"
    [[ -z ${CLOUDFS_TEST_S3_BUCKET-} ]] || scripts/gateway.sh stop
}
trap clean_up EXIT
trap 'exit 130' INT TERM
if [[ " ${stores[*]} " == *" gateway "* || " ${stores[*]} " == *" rclone "* || " ${stores[*]} " == *" s3fs "* ]]; then
    scripts/gateway.sh start >build/logs/programs-gateway.log
    eval "$(scripts/gateway.sh env)"
fi
cd "$work"
exit_status=0
for store in "${stores[@]}"; do
    url="$store:"
    if [[ $store == local ]]; then
        url+=$work/store
        "$cloudfs" --store "$url" mkdir /new # the folder becomes a store
        "$cloudfs" --store "$url" rmdir /new
    fi
    [[ $store != gateway ]] ||
        url="s3://$CLOUDFS_TEST_S3_BUCKET/programs?endpoint=$CLOUDFS_TEST_S3_ENDPOINT&path-style=1"
    for program in "${programs[@]}"; do
        [[ $program != kill || ($store != memory && $store != disk) ]] || continue # nothing would come back
        log=$root/build/logs/programs-$store-$program.log
        : >"$log"
        reason='' result=ok began=$SECONDS
        run_program || result="FAILED(${reason:0:90})"
        [[ $result == ok ]] || ! is_ours || exit_status=1
        printf '%-8s %-8s %4d s  %s\n' "$program" "$store" $((SECONDS - began)) "$result"
        kill_mount
        rm -rf mnt cache state? before after
    done
done
exit $exit_status
