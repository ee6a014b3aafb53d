# shellcheck shell=bash
# Common code of the scripts in this folder; to be sourced, not run.

# Every script works in the root folder of the project.
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit
root=$PWD

# Programs without credentials must not ask the metadata service of the machine that they run on.
export AWS_EC2_METADATA_DISABLED=true AZURE_METADATA_DISABLED=true

# Use ccache if it is installed. Clones share its cache, because paths below the root are ignored.
if command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER-ccache}
    export CCACHE_BASEDIR=${CCACHE_BASEDIR-$root} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR-true}
    # Without these ccache refuses sources with precompiled headers.
    export CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS-pch_defines,time_macros}
fi

# quietly LOG COMMAND…: run a command with its output in LOG; show the end of LOG only if the command fails.
quietly()
{
    local log=$1 status=0
    shift
    mkdir -p "$(dirname "$log")"
    "$@" >"$log" 2>&1 </dev/null || status=$?
    if ((status != 0)); then
        tail -n 100 "$log" >&2
        echo "failed: $* (status $status, whole output in $log)" >&2
    fi
    return "$status"
}

# build PRESET [TARGET…]: configure and build.
build()
{
    local preset=$1 log=build/logs/$1
    shift
    quietly "$log-configure.log" cmake --preset "$preset"
    quietly "$log-build.log" cmake --build --preset "$preset" ${1:+--target "$@"}
}

# Print the folder that Azurite is installed in, with its version. It is outside of the source tree, so that all checkouts
# share it.
azurite_version=3.33.0
azurite_folder() { echo "${XDG_CACHE_HOME:-$HOME/.cache}/cloudfs/azurite-$azurite_version"; }
