#!/usr/bin/env bash
# Use the library as a stranger would: compile each public header alone, install the release build to a temporary
# folder, and from there build and run a small program, found once by CMake and once by pkg-config.
#
# Usage: scripts/check-package.sh
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

scripts/install-deps.sh
build release
build release all_verify_interface_header_sets

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
quietly build/logs/install.log cmake --install build/release --prefix "$scratch/built"
# Somewhere else than it was installed to: nothing in an installed tree may name its own place.
mv "$scratch/built" "$scratch/installed"
prefix=$scratch/installed

consume()
{
    timeout 60 "$1" memory: && timeout 60 "$1" "local:$scratch/store"
}

by_cmake()
{
    cmake -S cmake/consumer -B "$scratch/by-cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" &&
        cmake --build "$scratch/by-cmake" &&
        consume "$scratch/by-cmake/consumer"
}
quietly build/logs/package-by-cmake.log by_cmake

export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
by_pkg_config()
{
    # shellcheck disable=SC2046 # flags are words
    g++ -std=c++20 $(pkg-config --cflags cloudprovider-stores) cmake/consumer/main.cpp -o "$scratch/by-pkg-config" \
        $(pkg-config --libs cloudprovider-stores) -Wl,-rpath,"$prefix/lib" &&
        consume "$scratch/by-pkg-config"
}
quietly build/logs/package-by-pkg-config.log by_pkg_config

# The host that the documentation shows.
documented_host()
{
    sed -n '/^```cpp$/,/^```$/{/^```/d;p}' docs/embedding.md | sed "s#/var/tmp/example-store#$scratch/example#" >"$scratch/host.cpp"
    # shellcheck disable=SC2046 # flags are words
    g++ -std=c++20 $(pkg-config --cflags cloudprovider-stores) "$scratch/host.cpp" -o "$scratch/host" \
        $(pkg-config --libs cloudprovider-stores) -Wl,-rpath,"$prefix/lib" &&
        [[ $(timeout 60 "$scratch/host") == cloud://example/greetings/hello.txt ]]
}
quietly build/logs/package-documented-host.log documented_host

# The installed command line reads what the consumer wrote.
quietly build/logs/package-cloudfs.log timeout 60 "$prefix/bin/cloudfs" --store "local:$scratch/store" stat /folder/greeting.txt
