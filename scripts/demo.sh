#!/usr/bin/env bash
# Show the library at work: a real tree of files and one large file go into a durable store and come back.
#
# Usage: scripts/demo.sh [local|gateway]
#
# The store is a directory, or a bucket of an object gateway that is brought up on loopback and stopped in the end.
# Installs what is missing, builds, runs; leaves nothing behind but build/.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

kind=${1:-local}
if [[ $kind != local && $kind != gateway ]]; then
    echo "usage: scripts/demo.sh [local|gateway]" >&2
    exit 2
fi

scripts/install-deps.sh
echo "Building (quietly; the output goes to build/logs) …"
build release cloudfs

work=$(mktemp -d)
clean_up()
{
    [[ $kind == local ]] || scripts/gateway.sh stop >/dev/null
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM
mkdir "$work/tmp"
export TMPDIR=$work/tmp # the provider's temporary files, so that nothing outlives an interrupted run
step=0

store=local:$work/store
if [[ $kind == gateway ]]; then
    export CLOUDFS_GATEWAY_DIR=$work/gateway # beside one that somebody else has running
    scripts/gateway.sh start >/dev/null
    eval "$(scripts/gateway.sh env)"
    store="s3://$CLOUDFS_TEST_S3_BUCKET?endpoint=$CLOUDFS_TEST_S3_ENDPOINT&path-style=1"
fi
cloudfs() { "$root/build/release/tools/cloudfs/cloudfs" --store "$store" "$@"; }

# begin … say TEXT…: do a step, and report it with its time.
begin() { began=$(date +%s%N); }
say()
{
    step=$((step + 1))
    printf '%2d. %s  (%s s)\n' "$step" "$*" "$(awk -v ns="$(($(date +%s%N) - began))" 'BEGIN { printf "%.1f", ns / 1e9 }')"
}

die()
{
    echo "demo: $*" >&2
    exit 1
}

# The first folder of this machine that has a thousand files, and no links to folders, which would be left out.
find_tree()
{
    local folder count
    for folder in /usr/share/cmake-* /usr/include/boost/spirit /usr/share/perl /usr/include/linux /usr/share/doc; do
        [[ -d $folder && -z $(find "$folder" -type l -print -quit) ]] || continue
        count=$(find "$folder" -type f | wc -l)
        if ((count >= 1000)); then
            echo "$folder"
            return
        fi
    done
    die "found no folder with a thousand files"
}

# sums FOLDER: one checksum per file, by name.
sums() { (cd "$1" && find . -type f -print0 | LC_ALL=C sort -z | xargs -0 sha256sum); }

tree=$(find_tree)
count=$(find "$tree" -type f | wc -l)
large=$work/large.tar
# Real bytes: libraries and compilers. The archive is cut where it is large enough, and tar told so.
tar -cf - -C / usr/lib 2>/dev/null | head -c $((96 * 1024 * 1024)) >"$large" || true
size=$(stat -c %s "$large")
((size >= 64 * 1024 * 1024)) || die "found only $size bytes for the large file"
sum() { sha256sum | cut -d ' ' -f 1; }

echo
echo "Store: a new one, ${store/$work/in a temporary folder}"
begin
cloudfs put -r "$tree" /tree
say "put $tree: $count files, $(du -sh --apparent-size "$tree" | cut -f 1)"

begin
cloudfs put "$large" /large.tar
say "put an archive of /usr/lib: $((size / 1024 / 1024)) MiB"

begin
listed=$(cloudfs ls -R --files /tree | wc -l)
((listed == count)) || die "listed $listed files instead of $count"
cloudfs ls -l / | sed 's/^/       /'
say "listed everything: $listed files below /tree"

begin
cloudfs get -r /tree "$work/back"
diff <(sums "$tree") <(sums "$work/back") >"$work/differences" || die "files came back changed: $(<"$work/differences")"
[[ $(cloudfs cat /large.tar | sum) == $(sum <"$large") ]] || die "the large file came back changed"
say "read everything back: $((count + 1)) SHA-256 checksums agree"

begin
middle=$((size / 2))
printf 'changed' | cloudfs -v write /large.tar --offset $middle 2>"$work/log"
printf 'changed' | dd of="$large" bs=1M seek=$middle oflag=seek_bytes conv=notrunc status=none
[[ $(cloudfs cat /large.tar | sum) == $(sum <"$large") ]] || die "the changed file is not what it should be"
calls=$(sed -n 's/^cloudfs: store calls: //p' "$work/log")
grep -qE 'uploadPart 1 .*copyPart [0-9]+ ' <<<"$calls" || die "expected one part to be uploaded: $calls"
grep -oE '(uploadPart|copyPart) [0-9]+ \([^)]*\)' <<<"$calls" | sed 's/^/       /'
say "changed 7 bytes in its middle: one part was uploaded, the store copied the others itself"

begin
printf 'the end' | cloudfs append /large.tar
printf 'the end' >>"$large"
cloudfs cp /large.tar /copy.tar
cloudfs mkdir /archive
cloudfs mv /copy.tar /archive/
[[ $(cloudfs cat /archive/copy.tar | sum) == $(sum <"$large") ]] || die "the copy is not what it should be"
say "appended, copied, moved: the checksum of the moved copy agrees"

begin
cloudfs rm /large.tar
cloudfs rm -r /archive
cloudfs rm -r /tree
[[ -z $(cloudfs ls -R /) ]] || die "not everything was removed"
say "removed everything: the store is empty"

[[ -z $(ls -A "$TMPDIR") ]] || die "temporary files were left behind: $(ls "$TMPDIR")"
echo
echo "All of it worked. The store and all temporary files are removed."
