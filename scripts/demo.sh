#!/usr/bin/env bash
# Demonstrate the library: store a real tree of files and one large file, read them back and compare.
#
# Usage: scripts/demo.sh [local|gateway|azurite]
#
# The store is a local directory, a bucket of an object gateway, or a container of an emulator of Azure Blob Storage. The
# last two are started on loopback and stopped at the end.
# Installs missing packages and builds first. Removes everything at the end except build/.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

kind=${1:-local}
gateway=() # the server, for scripts/gateway.sh
case $kind in
    local | gateway) ;;
    azurite) gateway=(azurite) ;;
    *)
        echo "usage: scripts/demo.sh [local|gateway|azurite]" >&2
        exit 2
        ;;
esac

scripts/install-deps.sh "${gateway[@]}"
echo "Building; the output goes to build/logs …"
build release cloudfs

work=$(mktemp -d)
clean_up()
{
    [[ $kind == local ]] || scripts/gateway.sh "${gateway[@]}" stop >/dev/null
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM
mkdir "$work/tmp"
export TMPDIR=$work/tmp # the provider's temporary files, so that an interrupted run leaves none
step=0

store=local:$work/store
if [[ $kind != local ]]; then
    export CLOUDFS_GATEWAY_DIR=$work/gateway # does not disturb another running gateway
    scripts/gateway.sh "${gateway[@]}" start >/dev/null
    eval "$(scripts/gateway.sh "${gateway[@]}" env)"
fi
case $kind in
    gateway) store="s3://$CLOUDFS_TEST_S3_BUCKET?endpoint=$CLOUDFS_TEST_S3_ENDPOINT&path-style=1" ;;
    azurite) store="azure://$AZURE_STORAGE_ACCOUNT/$CLOUDFS_TEST_AZURE_CONTAINER?endpoint=$CLOUDFS_TEST_AZURE_ENDPOINT" ;;
esac
cloudfs() { "$root/build/release/tools/cloudfs/cloudfs" --store "$store" "$@"; }

# begin, then report TEXT…: measure a step and print it with its duration.
begin() { began=$(date +%s%N); }
report()
{
    local milliseconds=$((($(date +%s%N) - began) / 1000000))
    step=$((step + 1))
    printf '%2d. %s  (%d.%d s)\n' "$step" "$*" $((milliseconds / 1000)) $((milliseconds % 1000 / 100))
}

die()
{
    echo "demo: $*" >&2
    exit 1
}

# Print the first folder with at least 1,000 files and without symbolic links, since links to folders are not stored.
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
    die "found no folder with 1,000 files"
}

# sums FOLDER: print one checksum per file, sorted by name.
sums() { (cd "$1" && find . -type f -print0 | LC_ALL=C sort -z | xargs -0 sha256sum); }

tree=$(find_tree)
count=$(find "$tree" -type f | wc -l)
large=$work/large.tar
# Real data: libraries and compilers. head ends when the archive is large enough, so tar fails.
tar -cf - -C / usr/lib 2>/dev/null | head -c $((96 * 1024 * 1024)) >"$large" || true
size=$(stat -c %s "$large")
((size >= 64 * 1024 * 1024)) || die "the large file has only $size bytes"
sum() { sha256sum | cut -d ' ' -f 1; }

echo
echo "New store: ${store/"$work"/<temporary folder>}"
begin
cloudfs put -r "$tree" /tree
report "stored $tree: $count files, $(du -sh --apparent-size "$tree" | cut -f 1)"

begin
cloudfs put "$large" /large.tar
report "stored an archive of /usr/lib: $((size / 1024 / 1024)) MiB"

begin
listed=$(cloudfs ls -R --files /tree | wc -l)
((listed == count)) || die "listed $listed files, expected $count"
cloudfs ls -l / | sed 's/^/       /'
report "listed everything: $listed files below /tree"

begin
cloudfs get -r /tree "$work/back"
diff <(sums "$tree") <(sums "$work/back") >"$work/diff" || die "files differ after reading back: $(<"$work/diff")"
[[ $(cloudfs cat /large.tar | sum) == $(sum <"$large") ]] || die "the large file differs after reading back"
report "read everything back: all $((count + 1)) SHA-256 checksums match"

begin
middle=$((size / 2))
printf 'changed' | cloudfs -v write /large.tar --offset $middle 2>"$work/log"
printf 'changed' | dd of="$large" bs=1M seek=$middle oflag=seek_bytes conv=notrunc status=none
[[ $(cloudfs cat /large.tar | sum) == $(sum <"$large") ]] || die "the changed file has wrong contents"
calls=$(sed -n 's/^cloudfs: store calls: //p' "$work/log")
grep -qE 'uploadPart 1 .*copyPart [0-9]+ ' <<<"$calls" || die "expected one part to be uploaded: $calls"
grep -oE '(uploadPart|copyPart) [0-9]+ \([^)]*\)' <<<"$calls" | sed 's/^/       /'
report "changed 7 bytes in the middle of it: uploaded one part, the store kept or copied the others"

begin
printf 'the end' | cloudfs append /large.tar
printf 'the end' >>"$large"
cloudfs cp /large.tar /copy.tar
cloudfs mkdir /archive
cloudfs mv /copy.tar /archive/
[[ $(cloudfs cat /archive/copy.tar | sum) == $(sum <"$large") ]] || die "the copy has wrong contents"
report "appended, copied, moved: the checksum of the moved copy matches"

begin
cloudfs rm /large.tar
cloudfs rm -r /archive
cloudfs rm -r /tree
[[ -z $(cloudfs ls -R /) ]] || die "the store is not empty"
report "removed everything: the store is empty"

[[ -z $(ls -A "$TMPDIR") ]] || die "temporary files are left: $(ls "$TMPDIR")"
echo
echo "Everything worked. The store and all temporary files are removed."
