#!/usr/bin/env bash
# Run the program as a user would, on real files in a folder of its own.
#
# Usage: cloudfs_test.sh PROGRAM CASE [gateway]
#
# CASE is the name of a function below, without its prefix test_. The store is a new local one, or with "gateway" a new
# bucket, or a folder of a container, of the server that the environment names. Exits with 77 if this machine lacks something that the case needs.
# shellcheck disable=SC2317 # the cases are called by name
set -uo pipefail

program=$(realpath "$1")
script=$(realpath "${BASH_SOURCE[0]}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit
mkdir buffers
export TMPDIR=$work/buffers XDG_DATA_HOME=$work TZ=UTC LC_ALL=C.UTF-8 AWS_EC2_METADATA_DISABLED=true AZURE_METADATA_DISABLED=true

store=local:
if [[ ${3-} == gateway && -n ${CLOUDFS_TEST_AZURE_ENDPOINT-} ]]; then
    store="azure://$AZURE_STORAGE_ACCOUNT/$CLOUDFS_TEST_AZURE_CONTAINER/cli-$$-$2?endpoint=$CLOUDFS_TEST_AZURE_ENDPOINT"
elif [[ ${3-} == gateway ]]; then
    [[ -n ${CLOUDFS_TEST_S3_ENDPOINT-} ]] || { echo "skipped: no gateway; scripts/test.sh starts one"; exit 77; }
    bucket=cli-$$-${2//_/-}
    store="s3://$bucket?endpoint=$CLOUDFS_TEST_S3_ENDPOINT&path-style=1"
    # A key may contain a colon, so both are in the URL, percent-encoded.
    percent() { printf %s "$1" | od -An -v -tx1 | tr -d '\n' | tr ' ' %; }
    user=$(percent "$AWS_ACCESS_KEY_ID"):$(percent "$AWS_SECRET_ACCESS_KEY")
    curl -sSf -X PUT -K <(echo "url=${CLOUDFS_TEST_S3_ENDPOINT/:\/\//://$user@}/$bucket") \
        --aws-sigv4 "aws:amz:$AWS_REGION:s3" -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" || exit 1
fi

fail()
{
    echo "FAILED: $*" >&2
    : >"$work/.failed" # a file, because many checks run in subshells
}

fs() { "$program" --store "$store" "$@"; }

# expect STATUS PATTERN COMMAND…: run the program and check its exit status and standard error. Standard error must be
# one line that matches PATTERN completely; if PATTERN is empty, it must be empty. COMMAND is evaluated by the shell and
# may redirect its streams.
expect()
{
    local status=$1 pattern=${2:+cloudfs: $2} actual=0
    shift 2
    eval "fs $*" >out 2>err || actual=$?
    ((actual == status)) || fail "$*: exit $actual instead of $status: $(<err)"
    [[ $(<err) =~ ^$pattern$ && $(wc -l <err) -le 1 ]] || fail "$*: not one line \"$pattern\" but: $(<err)"
}

# expect_rows: do the same for each line STATUS|PATTERN|COMMAND of standard input.
expect_rows()
{
    local status pattern command
    while IFS='|' read -r status pattern command; do
        expect "$status" "$pattern" "$command" </dev/null
    done
}

# prints TEXT ARGUMENT…: run the program, which must succeed, and check its standard output.
prints()
{
    local text=$1
    shift
    expect 0 '' "$@"
    [[ $(<out) =~ ^$text$ ]] || fail "cloudfs $*: printed \"$(<out)\" instead of \"$text\""
}

# same FILE PATH: check that the store has the local file under this path.
same() { fs cat "$2" | cmp - "$1" >&2 || fail "$2 differs from $1"; }

# nothing_left: check that no upload is open and no temporary file exists.
nothing_left()
{
    local left
    left=$(find buffers -type f; find . -name '.cloudfs-*')
    [[ $store != local: ]] || left+=$(find cloudfs/incoming cloudfs/contents -type f)
    [[ -z $left ]] || fail "left behind: $left"
    prints '' uploads list
}

# bytes SIZE: print SIZE bytes, the same at every call, without a short period.
bytes() { head -c "$1" < <(seq 100000000); }

# start_until PATTERN ARGUMENT…: start the program with -v and return when its log has PATTERN. It then stops at a full
# pipe, because nothing reads its log, until resume.
start_until()
{
    local pattern=$1 line
    shift
    [[ -p log ]] || mkfifo log
    env --default-signal=INT "$program" --store "$store" -v "$@" 2>log &
    pid=$!
    exec 3<log
    while read -r line <&3 && [[ $line != *"$pattern"* ]]; do :; done
}

# resume STATUS PATTERN: let the program end, and check its exit status and its lines on standard error but for the log.
resume()
{
    local actual=0
    grep -v '^cloudfs: \[\|: store calls: ' <&3 >err
    wait "$pid" || actual=$?
    exec 3<&-
    [[ $actual == "$1" && $(<err) =~ ^$2$ ]] || fail "resumed program: exit $actual, $(<err)"
}

test_commands()
{
    bytes 12000000 >big
    echo one >one
    expect 0 '' put one /docs/
    expect 0 '' put big big
    prints $'big\ndocs/one' ls -R --files
    prints ' +-  +-  docs/' ls -l --folders
    prints ' +4 B  [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{5}  one' ls -l docs/one
    prints $'Path: +/big\nKind: +file\nSize: +12000000 bytes \\(11\\.4 MiB\\)\nModified: .*' stat /big
    prints $'Path: +/docs\nKind: +folder\nModified: .*' stat docs/

    expect 0 '' get big copy
    same copy big
    truncate -s 30M sparse && cat big >>sparse && truncate -s 60M sparse
    expect 0 '' put sparse sparse
    expect 0 '' get sparse back
    cmp sparse back && (($(stat -c %b back) < 40000)) || fail "a sparse file came back with $(stat -c %b back) blocks"
    expect 0 '' rm sparse
    expect 0 '' put - /docs/two <one
    same one cloudfs://store/docs/t%77o

    printf 'XYZ' | expect 0 '' write /big --offset 6000000
    printf 'end' | expect 0 '' append big
    printf 'XYZ' | dd of=big bs=1 seek=6000000 conv=notrunc status=none
    printf 'end' >>big
    same big /big
    expect 0 '' write /docs/two --offset 10 <one
    same <(printf 'one\n\0\0\0\0\0\0one\n') docs/two

    expect 0 '' cp /big docs/
    expect 0 '' mv docs/big /moved
    same big moved
    expect 0 '' mv -f moved big
    same big /big

    expect 0 '' mkdir /new
    expect 0 '' mkdir -p new/deep/er
    expect 0 '' rmdir new/deep/er
    expect 0 '' rm -r new
    expect 0 '' rm docs/one
    prints $'big\ndocs/\ndocs/two' --folders prefix ls -R
    expect 0 '' --help
}

test_errors()
{
    echo one >one
    mkdir folder
    expect 0 '' put one /file
    expect 0 '' mkdir /folder
    store=local:none expect 1 '"local:none": .*no store in this directory.*code 4 .*' cat /file
    store=local:/etc expect 1 '"local:/etc": .*code 1 .*' ls
    store=foo: expect 1 '"foo:": unknown kind of store; .*code 1 .*' ls
    store=local:new expect 2 '-r: .*standard input.*' put -r - /x
    store=local:new expect 2 '-r: .*standard output.*' get -r / -
    expect_rows <<'END'
1|cloudfs://store/%zz: .*code 1 .*|cat cloudfs://store/%zz
1|"": .*code 1 .*|ls ''
1|/missing: no such file \(code 4 NotFound\)|cat /missing
1|/missing: no such folder; .*-p .*code 4 .*|mkdir missing/x
1|missing: No such file .*code 4 .*|put missing /x
1|"": No such file .*code 4 .*|put '' /x
1|none/x: No such file .*code 4 .*|get /missing none/x
1|/folder: is a folder .*code 1 .*|cat /folder
1|/folder: is a folder; .*-r .*|rm folder
1|folder: is a folder; .*-r .*|put folder /x
1|/folder: is a folder .*code 3 .*|put -f one /folder
1|/folder: is a folder .*code 3 .*|cp -f file folder
1|/file: is a file.*|put one /file/x
1|/file: is a file.*|put -r folder /file/x
1|/file: is a file.*|mkdir -p /file/x
1|/file: no such folder .*|cat /file/
1|/file: already exists.*code 3 .*|put one /file
1|one: already exists.*code 3 .*|get /file one
1|one: .*not a folder.*code 3 .*|get -r / one
1|/: .*root.*|rm -r /
1|/x: .*code 11 .*|--folders prefix mkdir /x
1|"local:": .*nothing to check.*code 11 .*|check-endpoint
2|.*command is required.*|
2|unknown command: frob; .*|frob
2|--offset is required; see cloudfs write --help|write /file
2|--folders: must be marker or prefix; see cloudfs --help|--folders x ls
2|-j: must be between 1 and 64; .*|put -j 0 one /x
2|--offset: must be between 0 and 5497558138880; .*|write /file --offset -5
2|unexpected argument: b; see cloudfs ls --help|ls / b
2|--folders takes no value; see cloudfs ls --help|ls --folders=prefix
2|-l takes no value; see cloudfs ls --help|ls -Rl=3
2|--older-than: unknown unit "y"; use s, m, h or d; .*|uploads list --older-than 1y
2|--older-than: must be between 0d and 36500d; .*|uploads list --older-than 36501d
END
    prints $'file\nfolder/' ls -R
    [[ $(ls) == $'buffers\ncloudfs\nerr\nfolder\none\nout' ]] || fail "local files appeared: $(ls)"
}

# Standard streams that are closed, full or not readable.
test_failing_streams()
{
    echo old | expect 0 '' put - /file
    ln -s /proc/self/fd/1 link # as /dev/stdout
    expect_rows <<'END'
1|standard input: Bad file descriptor.*|put -f - /file <&-
1|standard input: Is a directory.*|put -f - /file <buffers
1|standard output: Bad file descriptor.*|ls >&-
1|standard output: No space left.*|ls >/dev/full
1|standard output: No space left.*|put --help >/dev/full
1|standard output: No space left.*|--version >/dev/full
0||get -f /file link | grep -x old
1||cat /missing 2>/dev/full
2||frob 2>&-
END
    same <(echo old) /file
    export ZV_CLOUD_PART_SIZE_OVERRIDE=16384 # the limit counts for temporary files, too
    bytes 200000 | expect 0 '' put - /large
    (ulimit -f 100; expect 1 'target: File too large.*' get /large target)
    nothing_left
}

test_trees()
{
    local name mode
    mkdir -p 'tree/sp ace/a+b%41' tree/empty
    local unusual='?#[]*"\'
    [[ $store != azure:* ]] || unusual='?#[]*"' # it takes a backslash for a slash
    for name in '100%' 'sp ace/naïve 日本' $'sp ace/a+b%41/new\nline' "$unusual" ..hidden nothing; do
        echo "$name" >"tree/$name"
    done
    : >tree/nothing
    for mode in 1 5; do
        expect 0 '' put -r -j $mode tree /tree$mode
        expect 0 '' get -r -j $mode /tree$mode back$mode
        diff -r tree back$mode >&2 || fail "-j $mode: the tree came back changed"
    done
    (cd tree && fs put -r . /all/) || fail "put -r ." # "." has no name to keep
    expect 0 '' stat '/all/100%'
    expect 0 '' put -r tree /all/
    expect 0 '' stat /all/tree/empty

    # A folder of the store is listed once, instead of a request for each file.
    mkdir many
    touch many/{1..40}
    fs -v put -r many /many 2>err || fail "$(<err)"
    [[ $(tail -n 1 err) =~ 'getObjectInfo '.,.*'listObjects '., ]] || fail "not less than 10 each: $(tail -n 1 err)"

    # Without -f, existing files are reported one by one and not replaced.
    echo new >tree/nothing
    fs put -r -j 3 tree /tree1 2>err && fail "put ignored existing files"
    [[ $(grep -c 'already exists' err) == 6 ]] || fail "put: $(<err)"
    same /dev/null /tree1/nothing
    expect 0 '' put -rf tree /tree1
    expect 0 '' get -rf /tree1 .
    diff -r tree tree1 || fail "-f did not replace"
    rmdir tree/empty && touch tree/empty
    expect 1 '/tree1/empty: is a folder.*' put -rf tree /tree1
    fs get -r /tree1 . 2>err && fail "get ignored existing files"
    [[ $(grep -c 'already exists' err) == 6 ]] || fail "get: $(<err)"
}

test_skipped_entries()
{
    local name
    mkdir -p odd/dot. target
    echo 1 | tee odd/plain odd/plain. odd/dot./x $'odd/bad\xff' >/dev/null
    ln -s . odd/loop
    ln -s nowhere odd/dangling
    ln -s plain odd/link
    mkfifo odd/pipe
    fs put -r odd /odd 2>err && fail "skipped entries were not a failure"
    for name in plain. dot. 'bad\\xFF' loop dangling pipe; do
        [[ $(grep -c "^cloudfs: [a-z/]*odd/$name: .*(code " err) == 1 ]] || fail "no line about $name: $(<err)"
    done
    [[ $(wc -l <err) == 6 ]] || fail "more than one line each: $(<err)"
    prints $'link\nplain' ls -R /odd

    # A folder that contains the store itself.
    mkdir home
    store=local:home/store expect 0 '' put odd/plain /plain
    store=local:home/store expect 1 'home/store: skipped: .*' put -r home /home

    # Symbolic links in the target that lead out of it are not followed, and pipes are not opened.
    mkdir -p back/odd
    touch target/file
    ln -s ../../target/file back/odd/plain
    ln -s ../../target back/odd/folder
    mkfifo back/odd/link
    expect 0 '' put odd/plain /odd/folder/file
    expect 0 '' put odd/plain /odd/folder/sub/file
    fs get -rf /odd back 2>err && fail "a link was used as a folder"
    [[ $(ls target) == file && ! -s target/file ]] || fail "written through a link"
    cmp odd/plain back/odd/plain || fail "the link was not replaced"
}

test_interrupted_put()
{
    local status actual
    echo old | expect 0 '' put - /file
    mkfifo input
    for status in 129 130 143; do
        env --default-signal=HUP,INT,TERM "$program" --store "$store" put -f - /file <input 2>err &
        exec 3>input
        bytes 12000000 >&3 # returns when all but the content of the pipe was read
        kill -s $((status - 128)) $!
        actual=0
        wait $! || actual=$?
        exec 3>&-
        [[ $actual == "$status" && $(<err) == 'cloudfs: interrupted' ]] || fail "exit $actual, $(<err)"
        nothing_left
    done
    truncate -s 2G regular # takes seconds to send, so the signal comes in time
    start_until doFolderExists put -f regular /file
    kill -s INT "$pid"
    resume 130 'cloudfs: interrupted'
    nothing_left
    same <(echo old) /file
}

# A download is killed, one is interrupted, and one finds at its end that another program has created the local file.
test_interrupted_get()
{
    bytes 2000000 | ZV_CLOUD_PART_SIZE_OVERRIDE=16384 fs put - /many || fail "put"
    mkdir target
    start_until doRead get /many target/file
    kill -s KILL "$pid"
    resume 137 ''
    [[ -z $(find target -type f) ]] || fail "left behind by a kill: $(find target -type f)"
    start_until doRead get /many target/file
    kill -s INT "$pid"
    resume 130 'cloudfs: interrupted'
    [[ -z $(find target -type f) ]] || fail "left behind: $(find target -type f)"
    nothing_left
    start_until doRead get /many target/file
    echo theirs >target/file
    resume 1 'cloudfs: target/file: File exists .*code 3 .*'

    # A bucket stops in the middle of a range.
    perl -MIO::Socket::INET -e '$| = 1; $s = IO::Socket::INET->new(Listen => 9, LocalAddr => "127.0.0.1") or die;
        print $s->sockport, "\n"; while ($c = $s->accept) { next if fork; $to = 8999999; while (<$c>) {
            ($get, $from, $to) = (1, $1, $2) if /^range: bytes=(\d+)-(\d+)/i; next unless $_ eq "\r\n";
            print $c "HTTP/1.1 ", $get ? "206 x\r\nContent-Range: bytes $from-$to/9000000" : "200 x", "\r\nETag: \"x\"\r\n",
                "Last-Modified: Mon, 05 Jan 2026 10:00:00 GMT\r\nContent-Length: ", $to + 1 - $from, "\r\n\r\n",
                $get ? "x" x ($from ? 9 : $to + 1) : ""; print "stopped\n" if $from } exit }' >port &
    local server=$!
    until [[ -s port ]]; do kill -0 $server || exit; done
    AWS_ACCESS_KEY_ID=x AWS_SECRET_ACCESS_KEY=y env --default-signal=INT "$program" \
        --store "s3://bucket?endpoint=http://127.0.0.1:$(<port)&region=r&path-style=1" get /x target/x 2>err &
    until grep -q stopped port || ! kill -0 $!; do :; done
    kill -s INT $!; wait $!
    [[ $? == 130 && $(<err) == 'cloudfs: interrupted' && $(ls -A target) == file ]] || fail "$(<err), $(ls -A target)"
    kill $server
}

# A bucket copies files itself, and removes many with one request. A file that changes is not stored there.
test_in_store()
{
    local row removal='listObjects 3, deleteObject 2'
    [[ $store == s3:* ]] || removal='listObjects 2, deleteObject 1501' # one by one
    bytes 20000000 >big
    mkdir tree
    touch tree/{1..1498} 'tree/ <&%>' 'tree/x '
    expect 0 '' put big /big
    expect 0 '' put -r -j 8 tree /tree
    expect 0 '' put big '/a%b'
    for row in 'cp /big /copy|copyPart 1 (19.1 MiB)' 'mv /copy /moved|deleteObject 1, copyPart 1 (19.1 MiB)' \
        "rm -r /tree|$removal"; do
        # shellcheck disable=SC2086 # several words
        fs -v ${row%|*} 2>err || fail "$row: $(<err)"
        [[ $(tail -n 1 err) =~ 'calls: getObjectInfo '.', '('listObjects '.', ')?"${row#*|}"$ ]] || fail "$row: $(<err)"
    done
    same big /moved
    for row in 1 2; do
        "$program" --store "$store&cache=$PWD/cache" -v cat /moved 2>err | cmp - big >&2 || fail "$(<err)"
    done
    [[ $(tail -n 1 err) != *getObjectRange* ]] || fail "not read from the cache: $(<err)"
    expect 0 '' mv "'/a%b'" "'/c%d'" # whose bytes are sent, because not every bucket understands such a name
    same big '/c%d'
    expect 1 '/moved: already exists.*code 3 .*' cp /big /moved
    while echo >>big; do :; done &
    expect 1 'big: was changed while being read .*' put big /new
    kill $!
    expect 1 '/proc/self/mem: Input/output error .*' put /proc/self/mem /new
    prints $'big\nc%d\nmoved' ls -R
    nothing_left
}

# Another program truncates a file that is being uploaded, and stores another one after its folder was listed.
test_concurrent_changes()
{
    mkdir tree
    bytes 4000000 >tree/first
    truncate -s 1M tree/second # small enough that it is not looked up before it is sent
    ZV_CLOUD_PART_SIZE_OVERRIDE=16384 start_until doWrite put -r -j 1 tree /tree
    truncate -s 2M tree/first
    echo theirs | expect 0 '' put - /tree/second
    resume 1 $'cloudfs: tree/first: was truncated.*\ncloudfs: /tree/second: already exists.*'
    same <(echo theirs) /tree/second
    prints second ls /tree
    expect 0 '' put -rf tree /tree
    same tree/second /tree/second

    # Stored during an upload of the same path, and during a move.
    ZV_CLOUD_PART_SIZE_OVERRIDE=16384 start_until doWrite put tree/first /new
    echo theirs | expect 0 '' put - /new
    resume 1 'cloudfs: /new: already exists .*code 3 .*'
    same <(echo theirs) /new
    expect 0 '' put tree/first /from # one part, so all of it is read before the first part of the copy is sent
    ZV_CLOUD_PART_SIZE_OVERRIDE=16384 start_until uploadPart mv /from /to
    echo theirs | expect 0 '' put -f - /from
    resume 1 'cloudfs: /from: was copied to /to, but not removed: .*'
    same <(echo theirs) /from
    same tree/first /to
}

test_check()
{
    bytes 200000 >file
    fs put file /file
    prints '1 objects, 200000 bytes: 0 damaged, 0 repaired' check
    printf x | dd of="$(echo cloudfs/contents/*)" bs=1 seek=100000 conv=notrunc status=none
    fs check >out && fail "check did not report damage"
    grep -q 'damaged  /file: ' out || fail "check did not name the damaged file"
    fs check --repair >out || fail "check --repair failed"
    prints '' ls /
    rm cloudfs/index.sqlite && mkfifo cloudfs/index.sqlite
    fs check >out && fail "check did not report an index that cannot be opened"
    grep -q 'damaged  the index: ' out || fail "check did not name the index"
}

test_check_endpoint()
{
    local -A known=([ceph]='yes yes yes no no yes yes no no no no yes no no yes yes yes yes yes'
        [swift]='yes yes yes no no yes yes no yes no yes no no no yes yes no yes yes')
    local -A parameters=([ceph]='' [swift]='&copies-any-key=1')
    store=${store/"$bucket"/"$bucket/a%26b"}
    local url=$store
    store+='&copies-any-key=1&equal-parts=1'
    expect 0 '' check-endpoint
    head -n -2 out | cut -c36- | sed 's/[:,].*//' | paste -sd ' ' >results
    [[ $(<results) == "${known[$CLOUDFS_TEST_S3_SERVER]}" ]] || fail "it has found: $(<out)"
    [[ $(tail -n 1 out) == "--store '$url${parameters[$CLOUDFS_TEST_S3_SERVER]}'" ]] || fail "$(tail -n 1 out)"
    prints '' ls -R

    mkfifo lines
    env --default-signal=INT "$program" --store "$store" check-endpoint >lines 2>err &
    exec 3<lines
    read -r <&3
    kill -s INT $!
    wait $!
    [[ $? == 130 && $(<err) == 'cloudfs: interrupted' ]] || fail "interrupted: $(<err)"
    exec 3<&-
    prints '' ls -R
    nothing_left

    store=${store/"$bucket"/"$bucket-missing"} expect 1 '' check-endpoint
    [[ $(wc -l <out) == 2 && $(tail -n 1 out) == 'usable '*' no' ]] || fail "without a bucket: $(<out)"
}

# A killed program leaves its temporary files and, in a bucket, its upload. The next one removes the files.
test_uploads()
{
    mkfifo source
    "$program" --store "$store" put - /killed <source &
    pid=$!
    exec 3>source
    bytes 12000000 >&3 # more than a bucket takes as its smallest part
    while [[ -z $(fs uploads list) ]] && kill -0 "$pid"; do :; done # another thread opens the upload
    prints '' uploads list --older-than 1h
    prints '' uploads abort --older-than 1h
    expect 2 '.*--older-than.*' uploads abort
    fs uploads list >/dev/full 2>err && fail "uploads list ignored a full disk"
    prints '20.*  /killed' uploads list
    kill -s KILL "$pid"
    wait "$pid"
    exec 3>&-
    local left=(buffers/cloudprovider-*)
    mv "${left[0]}" ".cloudfs-${left[0]#*-}" # as a killed get leaves it on a file system without unnamed files
    if [[ $store == local: ]]; then
        prints '' uploads list
    else
        prints 'aborted .*  /killed' uploads abort --older-than 0s
    fi
    echo new | expect 0 '' put - /new
    expect 0 '' get /new .
    nothing_left
}

# A terminal shows that the store does not respond. Then it is closed.
test_unresponsive_store()
{
    local server shown=''
    perl -MIO::Socket::INET -e '$| = 1; $s = IO::Socket::INET->new(Listen => 9, LocalAddr => "127.0.0.1") or die;
        print $s->sockport, "\n"; close $s->accept while 1' >port &
    server=$!
    until [[ -s port ]]; do kill -0 $server || exit; done
    store="s3://bucket?endpoint=http://127.0.0.1:$(<port)&region=r&path-style=1"
    mkfifo screen
    AWS_ACCESS_KEY_ID=x AWS_SECRET_ACCESS_KEY=y \
        script -qfec "exec '$program' --store '$store' put port /x" screen >/dev/null &
    exec 3<screen
    while [[ $shown != *'the store does not respond, attempt '[1-9]* ]] && read -r -d $'\r' shown; do :; done <&3
    [[ $shown == *attempt* ]] || fail "not shown on the terminal"
    kill -s KILL $! # its terminal closes
    wait $! 2>/dev/null
    kill $server
}

# A user who may start no thread, or few.
test_few_threads()
{
    local limited threads
    ((UID == 0)) || { echo "skipped: only root can become a user without processes"; exit 77; }
    export ASAN_OPTIONS=${ASAN_OPTIONS-}:detect_leaks=0 # it would need a process
    limited="setpriv --reuid=65533 --inh-caps=+dac_override --ambient-caps=+dac_override prlimit --nproc="
    mkdir tree
    touch tree/{1..9}
    for threads in 1 3; do
        # shellcheck disable=SC2086 # several words
        $limited$threads "$program" --store "$store" put -rf tree / 2>err || fail "put: $?"
        # Fewer than the limit allows, if a sanitizer has a thread of its own.
        [[ $(<err) =~ ^"cloudfs: continuing with "[0-2]" of 4 threads: " ]] || fail "$(<err)"
    done
    diff <(ls tree) <(fs ls tree) || fail "not all stored"
}

test_closed_pipe()
{
    bytes 12000000 | expect 0 '' put - /big
    fs get /big - 2>err | head -c 1 >/dev/null
    local status=${PIPESTATUS[0]}
    [[ $status == 141 && ! -s err ]] || fail "exit $status: $(<err)"
    [[ -z $(ls buffers) ]] || fail "buffers left: $(ls buffers)"
}

# start_mount: mount the store on the folder mnt; sets mount_pid.
start_mount()
{
    env --default-signal=INT "$program" --store "$store" mount mnt --cache-dir cache "$@" 2>>log &
    mount_pid=$!
    for ((i = 0; i < 300; i++)); do
        ! mountpoint -q mnt || return 0
        kill -0 $mount_pid 2>/dev/null || break
        sleep 0.1
    done
    fail "no mount: $(<log)"
}

test_mount()
{
    unshare --mount test -w /dev/fuse 2>/dev/null || { echo "skipped: only root can mount here"; exit 77; }
    trap 'umount -l mnt 2>/dev/null; rm -rf "$work"' EXIT
    mkdir mnt tree tree/deep
    expect 0 '' mkdir /folder
    expect 1 'none: .*' mount none --cache-dir cache
    bytes 12000000 >tree/big
    echo small >tree/deep/small
    start_mount
    ! fs mount mnt --cache-dir cache 2>err && [[ $(<err) == *'another mount uses the cache folder'* ]] || fail "$(<err)"
    cp -r tree mnt/copy && mv mnt/copy mnt/moved && diff -r tree mnt/moved || fail "the tree differs"
    for path in tree mnt/moved; do
        printf patch | dd of=$path/big bs=1 seek=6000000 conv=notrunc status=none
        truncate -s 7000000 $path/big
    done
    same tree/big /moved/big
    diff -r tree mnt/moved || fail "the changed tree differs"
    [[ $(stat -c %s mnt/moved/big) == 7000000 && $(ls mnt) == $'folder\nmoved' ]] || fail "$(ls -lR mnt)"
    exec 4<mnt/moved/deep/small
    rm -r mnt/moved/deep
    [[ $(cat <&4) == small ]] || fail "removed while it was open"
    exec 4<&-
    { echo unsent; exec sleep 100; } >mnt/unsent & # never closes it, which would store it
    local writer=$!
    for ((i = 0; i < 50; i++)); do
        kill -s USR1 $mount_pid
        sleep 0.1
        ! grep -qs 'unsent (7 bytes)' cache/*/status || break
    done
    [[ $(cat cache/*/status) == '1 files are not stored yet'*'unsent (7 bytes)'*'store calls: '* ]] || fail "$(<log)"
    kill -s KILL $mount_pid
    wait $mount_pid
    kill $writer
    umount -l mnt
    start_mount --read-only
    [[ $(<mnt/unsent) == unsent ]] || fail "lost"
    ! echo x 2>/dev/null >mnt/unsent || fail "written"
    kill -s INT $mount_pid
    wait $mount_pid || fail "exit $?: $(<log)"
    ! mountpoint -q mnt || fail "still mounted"
    expect 1 'none: .*' mount none --cache-dir cache --background
    expect 0 '' mount mnt --cache-dir cache --background
    [[ $(<mnt/unsent) == unsent ]] && umount mnt || fail "not in the background"
    ln -s "$program" mount.cloudfs # as mount(8) calls it for an entry of /etc/fstab
    ./mount.cloudfs "$store" mnt -v -o "ro,_netdev,cache_dir=cache,file_mode=640" || fail "not mounted"
    [[ $(<mnt/unsent) == unsent && $(stat -c %a mnt/unsent) == 640 ]] && umount mnt || fail "$(stat mnt/unsent)"
    ! ./mount.cloudfs "$store" mnt -o strange 2>err && [[ $(<err) == *'unknown option: --strange'* ]] || fail "$(<err)"
    [[ $(fs cat /unsent) == unsent && $(ls cache/*) != *[0-9]* ]] || fail "not stored: $(ls cache/*)"
}

test_full_disk()
{
    if [[ -z ${CLOUDFS_OWN_MOUNTS-} ]]; then
        unshare --mount true 2>/dev/null || { echo "skipped: only root can mount a small file system"; exit 77; }
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

    echo old | store=local:small/store expect 0 '' put - /file
    store=local:small/store expect 1 '/file: .*No space left on device.*code 9 .*' put -f big /file
    store=local:small/store same <(echo old) /file
    rm -r small/store

    head -c 6000000 /dev/zero >small/ballast
    TMPDIR=$work/small expect 1 '/new: .*temporary file in .*/small: No space left .*TMPDIR.*code 9 .*' put big /new
    TMPDIR=$work/small expect 1 '/big: .*temporary file .*code 9 .*' get /big copy
    [[ ! -e copy && $(ls -A small) == ballast ]] || fail "left behind: $(ls -A . small)"
}

"test_$2" || [[ $? != 127 ]] || fail "there is no case $2"
[[ ! -e $work/.failed ]]
