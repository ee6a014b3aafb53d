#!/usr/bin/env bash
# Install the packages for building, testing, checking and benchmarks on Debian 12. Does nothing if all are installed.
#
# Usage: scripts/install-deps.sh [compare|programs|azurite]   as root, or a user who may use sudo
#
# With "compare", also install the other tools that bench/compare.sh measures, and the library that draws its chart. With
# "programs", also those that scripts/mount-programs.sh runs in a mounted store. With "azurite", also download that
# emulator of Azure Blob Storage, by npm, into a cache folder of the user.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

packages=(
    # building
    g++ cmake ninja-build
    libboost-dev libboost-date-time-dev libboost-filesystem-dev libboost-iostreams-dev
    libboost-log-dev libboost-system-dev libboost-thread-dev
    libcli11-dev libfmt-dev libsqlite3-dev libxxhash-dev
    # building the client for object gateways: HTTP, hashes and signatures, XML
    libcurl4-openssl-dev libssl-dev libpugixml-dev
    # building the mount, and mounting as a user other than root
    fuse3 libfuse3-dev
    # testing: the second compiler, its sanitizer runtimes, and the consumer of the installed package
    libgtest-dev libgmock-dev
    clang-14 libclang-rt-14-dev
    pkg-config
    # testing that client: a gateway with its monitor and storage daemon, a program that creates a bucket, and one that
    # makes the certificate of a server
    ceph-base ceph-common ceph-mon ceph-osd radosgw
    curl openssl
    # testing it against a second server, which shares no code with the first
    memcached python3-swift
    # the campaigns in bench/campaigns
    python3
    # checking: git lists the files of the project
    clang-format-14 clang-tidy-14 git
    # measuring
    libbenchmark-dev time
)
case ${1:-} in
    '') ;;
    compare) packages+=(libgdal-dev python3-awscrt python3-matplotlib rclone s3fs) ;;
    programs) packages+=(dbench fio git make rsync sqlite3 stress-ng tar) ;;
    azurite) command -v npm >/dev/null || packages+=(nodejs npm) ;; # others than Debian's have npm in the same package
    *)
        echo "usage: scripts/install-deps.sh [compare|programs|azurite]" >&2
        exit 2
        ;;
esac

install_azurite()
{
    local folder new
    folder=$(azurite_folder)
    [[ $1 == azurite && ! -d $folder ]] || return 0
    echo "Installing Azurite $azurite_version in $folder"
    mkdir -p "$(dirname "$folder")"
    new=$(mktemp -d "$folder.XXXXXX")
    if ! quietly build/logs/azurite.log \
        npm install --prefix "$new" --ignore-scripts --no-audit --no-fund "azurite@$azurite_version"; then
        rm -rf "$new"
        return 1
    fi
    mv -T "$new" "$folder" 2>/dev/null || { rm -rf "$new" && [[ -d $folder ]]; } # another run was faster
}

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "install-deps: needs Debian's package tools; elsewhere, install these by hand: ${packages[*]}" >&2
    exit 1
fi

installed=$(dpkg-query -W -f='${db:Status-Status} ${Package}\n' "${packages[@]}" 2>/dev/null || true)
missing=()
for package in "${packages[@]}"; do
    if ! grep -qxF "installed $package" <<<"$installed"; then
        missing+=("$package")
    fi
done
if ((${#missing[@]} == 0)); then
    install_azurite "${1:-}"
    exit 0
fi

as_root=()
if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
        echo "install-deps: needs root to install: ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
    [[ -t 0 ]] || as_root+=(-n) # without a terminal, nobody can type a password
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
apt()
{
    # Wait if another package manager is running, and retry failed downloads.
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -q -y -o DPkg::Lock::Timeout=300 -o Acquire::Retries=3 "$@" </dev/null >>"$log" 2>&1
}

echo "Installing ${#missing[@]} Debian packages: ${missing[*]}"
if ! { apt update && apt install --no-install-recommends "${missing[@]}"; }; then
    tail -n 40 "$log" >&2
    echo "install-deps: could not install: ${missing[*]}" >&2
    exit 1
fi
install_azurite "${1:-}"
