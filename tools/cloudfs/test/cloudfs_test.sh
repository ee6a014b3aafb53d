#!/usr/bin/env bash
# Drive the program as a user would, on real files in a folder of its own.
#
# Usage: cloudfs_test.sh PROGRAM CASE [gateway]
#
# CASE is a function below whose name begins with test_, without that. The store is a new local one, or a new bucket of
# the gateway that the environment names. Exits 77 when a case needs what this machine does not give.
# shellcheck disable=SC2317 # the cases are called by name
set -uo pipefail

program=$(realpath "$1")
script=$(realpath "${BASH_SOURCE[0]}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit
mkdir buffers
export TMPDIR=$work/buffers XDG_DATA_HOME=$work TZ=UTC LC_ALL=C.UTF-8

store=local:
if [[ ${3-} == gateway ]]; then
    [[ -n ${CLOUDFS_TEST_S3_ENDPOINT-} ]] || { echo "skipped: there is no gateway; scripts/test.sh brings one"; exit 77; }
    bucket=cli-$$-${2//_/-}
    store="s3://$bucket?endpoint=$CLOUDFS_TEST_S3_ENDPOINT&path-style=1"
    curl -sSf -X PUT --aws-sigv4 "aws:amz:$AWS_REGION:s3" -K <(echo "user = $AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY") \
        -H "x-amz-content-sha256: $(sha256sum </dev/null | cut -d ' ' -f 1)" "$CLOUDFS_TEST_S3_ENDPOINT/$bucket" || exit 1
fi

fail()
{
    echo "FAILED: $*" >&2
    : >"$work/.failed" # a file, since much of this runs in subshells
}

fs()
{
    if [[ ${1-} == --store ]]; then
        "$program" "$@"
    else
        "$program" --store "$store" "$@"
    fi
}

# expect STATUS PATTERN ARGUMENT…: run the program. Standard error must be one line that matches all of PATTERN, or
# nothing if that is empty.
expect()
{
    local status=$1 pattern=$2 actual=0
    shift 2
    fs "$@" >"$work/out" 2>"$work/err" || actual=$?
    ((actual == status)) || fail "cloudfs $*: exit $actual instead of $status: $(<err)"
    if [[ -z $pattern ]]; then
        [[ ! -s err ]] || fail "cloudfs $*: unexpected: $(<err)"
    elif [[ ! $(<err) =~ ^cloudfs:\ $pattern$ || $(wc -l <err) != 1 ]]; then
        fail "cloudfs $*: not one line \"cloudfs: $pattern\" but: $(<err)"
    fi
}

# printed TEXT: what the last expect wrote to standard output.
printed() { [[ $(<out) == "$1" ]] || fail "printed \"$(<out)\" instead of \"$1\""; }

same() { cmp "$1" "$2" >&2 || fail "$1 and $2 differ"; }

# nothing_left: no unfinished upload, no buffer, no half file.
nothing_left()
{
    local left
    left=$(find buffers -type f; find . -name '.cloudfs-*')
    [[ $store != local: ]] || left+=$(find cloudfs/incoming cloudfs/contents -type f)
    [[ -z $left ]] || fail "left behind: $left"
    expect 0 '' uploads list
    printed ''
}

# bytes SIZE: the same bytes at every call, without a short period.
bytes() { head -c "$1" < <(seq 100000000); }

test_commands()
{
    bytes 12000000 >big
    echo one >one
    expect 0 '' put one /docs/
    expect 0 '' put big big
    expect 0 '' ls -R --files
    printed $'big\ndocs/one'
    expect 0 '' ls -l --folders
    [[ $(<out) =~ ^\ +-\ +-\ \ docs/$ ]] || fail "ls -l: $(<out)"
    expect 0 '' ls -l docs/one
    [[ $(<out) =~ ^\ +4\ B\ \ [A-Z][a-z]{2}\ [\ 0-9]{2}\ [0-9:]{5}\ \ one$ ]] || fail "ls -l: $(<out)"
    expect 0 '' stat /big
    [[ $(<out) == *"Kind:     file"*"Size:     12000000 bytes (11.4 MiB)"* ]] || fail "stat: $(<out)"
    expect 0 '' stat docs/
    [[ $(<out) == *"Kind:     folder"* ]] || fail "stat: $(<out)"

    expect 0 '' get big copy
    same big copy
    fs cat /big | cmp - big || fail "cat differs"
    fs get docs/one - | cmp - one || fail "get to standard output differs"
    expect 0 '' put - /docs/two <one
    expect 0 '' cat cloudfs://store/docs/t%77o
    printed one

    printf 'XYZ' | expect 0 '' write /big --offset 6000000
    printf 'end' | expect 0 '' append big
    printf 'XYZ' | dd of=big bs=1 seek=6000000 conv=notrunc status=none
    printf 'end' >>big
    fs cat /big | cmp - big || fail "edits differ"
    expect 0 '' write /docs/two --offset 10 <one
    fs cat docs/two | od -An -c | grep -q 'o   n   e  \\n  \\0  \\0  \\0  \\0  \\0  \\0   o   n   e' || fail "gap"

    expect 0 '' cp /big docs/
    expect 0 '' mv docs/big /moved
    fs cat moved | cmp - big || fail "moved differs"
    expect 0 '' mv -f moved moved
    expect 0 '' mv -f moved big
    fs cat /big | cmp - big || fail "a file moved onto itself differs"

    expect 0 '' mkdir /new
    expect 0 '' mkdir -p new/deep/er
    expect 0 '' rmdir new/deep/er
    expect 0 '' rm -r new
    expect 0 '' rm docs/one
    expect 0 '' --folders prefix ls -R
    printed $'big\ndocs/\ndocs/two'
    expect 0 '' --help
}

test_bad_input()
{
    echo one >one
    mkdir folder
    expect 0 '' put one /file
    expect 0 '' mkdir /folder
    head -c 200 /dev/zero | tr '\0' n >long
    local long
    long=$(<long)

    # status | what standard error says | arguments
    local -a rows=(
        $'1|/a\\\\xFF: the name is not valid UTF-8 \\(code 1 .*|cat|/a\xff'
        '1|cloudfs://store/%zz: .*hexadecimal.*code 1 .*|cat|cloudfs://store/%zz'
        '1|/x\.: .*ends in a dot.*code 1 .*|put|one|/x.'
        '1|"": the path is empty .*code 1 .*|ls|'
        $'1|/b\\\\x01: .*not allowed.*code 1 .*|put|one|/b\x01'
        "1|/.*: .*code 1 .*|put|one|$long/$long/$long/$long/$long/$long"
        '1|/missing: no such file \(code 4 NotFound\)|cat|/missing'
        '1|/missing: no such file .*code 4 .*|write|/missing|--offset|1'
        '1|/missing: no such file .*code 4 .*|cp|missing|x'
        '1|/missing: no such file .*code 4 .*|stat|missing'
        '1|/missing: no such file .*code 4 .*|ls|missing'
        '1|/missing: no such folder; use -p .*code 4 .*|mkdir|missing/x'
        '1|missing: No such file .*code 4 .*|put|missing|/x'
        '1|none/x: No such file .*code 4 .*|get|/file|none/x'
        '1|/folder: is a folder .*code 1 .*|cat|/folder'
        '1|/folder: is a folder; use -r .*|rm|folder'
        '1|folder: is a folder; use -r .*|put|folder|/x'
        '1|/folder: is a folder .*code 3 .*|put|-f|one|/folder'
        '1|/folder: is a folder .*code 3 .*|cp|-f|file|folder'
        '1|/file: is a file.*|put|one|/file/x'
        '1|/file: is a file.*|mkdir|-p|/file/x'
        '1|/file: no such folder .*|cat|/file/'
        '1|/file: already exists.*code 3 .*|put|one|/file'
        '1|one: already exists.*code 3 .*|get|/file|one'
        '1|/file: already exists.*code 3 .*|cp|file|file'
        '1|/folder: already exists.*code 3 .*|mkdir|folder'
        '1|/: .*the root .*|rm|-r|/'
        '1|/x: .*code 11 .*|--folders|prefix|mkdir|/x'
        '1|local:/etc: .*code 1 .*|--store|local:/etc|ls'
        '1|s3://x: .*code 1 .*|--store|s3://x|ls'
        '2|.*command is required.*|'
        '2|unknown command: frob.*|frob'
        '2|.*--offset is required.*|write|/file'
        '1|one: .*not a folder.*code 3 .*|get|-r|/|one'
        '2|--folders: .*marker or prefix.*|--folders|x|ls'
        '2|-r: .*standard input.*|put|-r|-|/x'
        '2|-r: .*standard output.*|get|-r|/|-'
        '2|-j: .*|put|-j|0|one|/x'
    )
    local row
    for row in "${rows[@]}"; do
        local -a fields=()
        IFS='|' read -r -a fields <<<"$row"
        [[ $row == *'ls|' ]] && fields+=('')
        expect "${fields[0]}" "${fields[1]}" "${fields[@]:2}" </dev/null
    done
    expect 0 '' ls -R
    printed $'file\nfolder/'
    expect 0 '' cat /file
    printed one
    [[ $(ls) == $'buffers\ncloudfs\nerr\nfolder\nlong\none\nout' ]] || fail "local files appeared: $(ls)"
}

test_trees()
{
    local mode
    mkdir -p 'tree/sp ace/a+b%41' tree/empty
    echo 1 >'tree/100%'
    echo 2 >'tree/sp ace/naïve 日本'
    echo 3 >$'tree/sp ace/a+b%41/new\nline'
    echo 4 >'tree/?#[]*"\\'
    echo 5 >tree/..hidden
    : >tree/nothing
    for mode in 1 5; do
        expect 0 '' put -r -j $mode tree /tree$mode
        expect 0 '' get -r -j $mode /tree$mode back$mode
        diff -r tree back$mode >&2 || fail "-j $mode: the tree came back changed"
    done
    (cd tree && expect 0 '' put -r . /all/) # has no name to keep
    expect 0 '' stat '/all/100%'
    expect 0 '' put -r tree /all/
    fs ls /all/tree | grep -qx 'empty/' || fail "an empty folder was lost"

    # What stands in a folder is asked for once, not for each file.
    mkdir many
    touch many/{1..40}
    fs -v put -r many /many 2>err || fail "$(<err)"
    [[ $(<err) =~ 'getObjectInfo '([0-9]+) ]] && ((BASH_REMATCH[1] < 10)) || fail "$(tail -n 1 err)"

    # A second time every file is a conflict, named and left alone; -f replaces.
    echo new >tree/nothing
    fs put -r -j 3 tree /tree1 2>err && fail "conflicts were ignored"
    [[ $(grep -c 'already exists' err) == 6 ]] || fail "conflicts: $(<err)"
    expect 0 '' cat /tree1/nothing
    printed ''
    expect 0 '' put -rf tree /tree1
    expect 0 '' get -rf /tree1 .
    same tree/nothing tree1/nothing
    fs get -r /tree1 . 2>err && fail "conflicts were ignored"
    [[ $(grep -c 'already exists' err) == 6 ]] || fail "conflicts: $(<err)"
}

test_what_trees_leave_out()
{
    mkdir -p odd/dot. target
    echo 1 >odd/plain
    echo 2 >odd/plain.
    echo 3 >odd/dot./x
    echo 4 >$'odd/bad\xff'
    ln -s . odd/loop
    ln -s nowhere odd/dangling
    ln -s plain odd/link
    mkfifo odd/pipe
    fs put -r odd /odd 2>err && fail "what was left out was no failure"
    local name
    for name in plain. dot. 'bad\\xFF' loop dangling pipe; do
        [[ $(grep -c "^cloudfs: [a-z/]*odd/$name: .*(code " err) == 1 ]] || fail "no line about $name: $(<err)"
    done
    [[ $(wc -l <err) == 6 ]] || fail "more than one line each: $(<err)"
    expect 0 '' ls -R /odd
    printed $'link\nplain'

    # Links that somebody left in the target lead out of it; they are not followed.
    mkdir back
    fs get -r /odd back || fail "get"
    rm back/odd/plain
    ln -s ../../target/file back/odd/plain
    rm -r back/odd/link
    ln -s ../../target back/odd/folder
    expect 0 '' put odd/plain /odd/folder/file
    fs get -rf /odd back 2>err && fail "a link stood for a folder"
    [[ -z $(ls target) ]] || fail "written through a link"
    same odd/plain back/odd/plain
}

# interrupted_put SIGNAL STATUS: send it once most of two parts has been taken.
interrupted_put()
{
    local status=0
    rm -f input
    mkfifo input
    env --default-signal=INT,TERM "$program" --store "$store" put -f - /interrupted <input 2>err &
    exec 3>input
    bytes 12000000 >&3 # returns when all but a pipe's content was read
    kill -s "$1" $!
    wait $! || status=$?
    exec 3>&-
    ((status == $2)) || fail "exit $status instead of $2"
    [[ $(<err) == "cloudfs: interrupted" ]] || fail "said: $(<err)"
    nothing_left
}

test_interrupted_put()
{
    interrupted_put INT 130
    expect 1 '/interrupted: no such file.*' stat /interrupted
    echo old | expect 0 '' put - /interrupted
    interrupted_put TERM 143
    expect 0 '' cat /interrupted
    printed old
}

# A program that nobody lets write its log stands still in the middle of what it does.
test_interrupted_get()
{
    local status=0
    bytes 2000000 | ZV_CLOUD_PART_SIZE_OVERRIDE=16384 fs put - /many || fail "put"
    mkdir target
    mkfifo log
    env --default-signal=INT "$program" --store "$store" -v get /many target/file 2>log &
    local pid=$!
    exec 3<log
    while read -r line <&3 && [[ $line != *doRead* ]]; do :; done
    [[ -n $(find target -name '.cloudfs-*') ]] || fail "nothing was being written"
    kill -s INT $pid
    cat <&3 >err # let it go on
    wait $pid || status=$?
    exec 3<&-
    [[ $status == 130 && $(tail -n 1 err) == "cloudfs: interrupted" ]] || fail "exit $status: $(tail -n 1 err)"
    [[ -z $(find target buffers -type f) ]] || fail "left behind: $(find target buffers -type f)"
}

# A large file is looked for once more, long after its folder was listed.
test_put_beside_others()
{
    local status=0
    mkdir tree
    bytes 12000000 >tree/first
    truncate -s 6M tree/second
    mkfifo log
    ZV_CLOUD_PART_SIZE_OVERRIDE=16384 "$program" --store "$store" -v put -r -j 1 tree /tree 2>log &
    local pid=$!
    exec 3<log
    while read -r line <&3 && [[ $line != *doWrite* ]]; do :; done # of the first file: the folder is listed
    echo theirs | expect 0 '' put - /tree/second
    cat <&3 >log.rest # let it go on
    wait $pid || status=$?
    exec 3<&-
    ((status == 1)) || fail "exit $status instead of 1"
    [[ $(grep -v '^cloudfs: \[' log.rest) == *'/tree/second: already exists'* ]] || fail "said: $(tail -n 2 log.rest)"
    expect 0 '' cat /tree/second
    printed theirs
    expect 0 '' put -rf tree /tree
    expect 0 '' get -r /tree back
    diff -r tree back >&2 || fail "-f did not replace"
}

# A program that is killed cannot end its upload.
test_uploads()
{
    mkfifo source
    ZV_CLOUD_PART_SIZE_OVERRIDE=16384 "$program" --store "$store" put - /killed <source &
    local pid=$! tries
    exec 3>source
    bytes 100000 >&3
    for ((tries = 0; tries < 200; ++tries)); do # parts are sent on threads of their own
        [[ -z $(fs uploads list) ]] || break
        sleep 0.1
    done
    kill -s KILL $pid
    wait $pid
    exec 3>&-
    expect 0 '' uploads list
    [[ $(<out) =~ ^20.*\ \ /killed$ ]] || fail "listed: $(<out)"
    expect 0 '' uploads list --older-than 1h
    printed ''
    expect 2 '.*--older-than.*' uploads abort
    expect 2 '.*--older-than.*' uploads abort --older-than 5
    expect 0 '' uploads abort --older-than 1h
    printed ''
    fs uploads list >/dev/full 2>err && fail "uploads list ignored a full disk"
    expect 0 '' uploads abort --older-than 0s
    [[ $(<out) =~ ^aborted\ .*\ \ /killed$ ]] || fail "printed: $(<out)"
    expect 0 '' uploads list
    printed ''
    rm -f buffers/* # of the killed program
    nothing_left
}

# Standard streams that are closed, full or not readable.
test_failing_streams()
{
    local status pattern command actual
    echo old | expect 0 '' put - /file
    while IFS='|' read -r status pattern command; do
        actual=0
        eval "fs $command" </dev/null 2>err || actual=$?
        ((actual == status)) || fail "$command: exit $actual instead of $status"
        [[ $(<err) =~ ^$pattern$ ]] || fail "$command: $(<err)"
    done <<'END'
1|cloudfs: standard input: Bad file descriptor.*|put -f - /file <&-
1|cloudfs: standard input: Is a directory.*|put -f - /file <buffers
1|cloudfs: standard input: Is a directory.*|append /file <buffers
1|cloudfs: standard output: Bad file descriptor.*|ls >&-
1|cloudfs: standard output: No space left.*|ls >/dev/full
1|cloudfs: standard output: No space left.*|cat /file >/dev/full
1||cat /missing 2>/dev/full
2||frob 2>&-
END
    expect 0 '' cat /file
    printed old
    nothing_left
}

test_reader_that_leaves()
{
    bytes 12000000 | expect 0 '' put - /big
    local command
    for command in 'cat /big' 'get /big -'; do
        fs $command 2>err | head -c 1 >/dev/null
        [[ ${PIPESTATUS[0]} == 141 && ! -s err ]] || fail "$command: ${PIPESTATUS[0]} $(<err)"
    done
    [[ -z $(ls buffers) ]] || fail "buffers left: $(ls buffers)"
}

test_damaged_store()
{
    expect 0 '' mkdir /folder
    printf 'this is no index' | dd of=cloudfs/index.sqlite conv=notrunc status=none
    expect 1 'local:: .*damaged.*code 9 .*' ls
    chmod 000 cloudfs
    ((EUID == 0)) || expect 1 'local:: .*[Pp]ermission denied.*code 2 .*' ls
    chmod 700 cloudfs
}

test_full_disk()
{
    if [[ -z ${CLOUDFS_OWN_MOUNTS-} ]]; then
        unshare --mount true 2>/dev/null || { echo "skipped: only root can make a small file system"; exit 77; }
        CLOUDFS_OWN_MOUNTS=1 unshare --mount "$BASH" "$script" "$program" full_disk
        exit
    fi
    bytes 12000000 >big
    mkdir small
    mount -t tmpfs -o size=8m tmpfs small || exit 77
    trap 'umount small; rm -rf "$work"' EXIT
    expect 0 '' put big /big
    expect 1 'small/big: No space left on device \(code 9 Unknown\)' get /big small/big
    [[ -z $(ls -A small) ]] || fail "left behind: $(ls -A small)"

    echo old >old
    expect 0 '' --store local:small/store put old /file
    expect 1 '/file: .*No space left on device.*code 9 .*' --store local:small/store put -f big /file
    expect 0 '' --store local:small/store cat /file
    printed old
    rm -r small/store

    head -c 6000000 /dev/zero >small/ballast
    TMPDIR=$work/small expect 1 '/new: .*temporary file in .*/small .* free\).*code 9 .*' put big /new
    expect 1 '/new: no such file.*' stat /new
    TMPDIR=$work/small expect 1 '/big: .*temporary file .*code 9 .*' get /big copy
    [[ ! -e copy && $(ls -A small) == ballast ]] || fail "left behind: $(ls -A . small)"
}

"test_$2"
[[ ! -e $work/.failed ]]
