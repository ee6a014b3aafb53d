#!/usr/bin/env bash
# Check the format of every C++ file, then look for faults in every source that is compiled into what we ship.
# Tests are left to the compilers and sanitizers: analysing them would double the time and find less.
#
# Usage: scripts/lint.sh [format|tidy]      both by default
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

check_format()
{
    git ls-files -z '*.cpp' '*.hpp' | xargs -0 -r clang-format-14 --dry-run -Werror
}

check_tidy()
{
    # It counts what it found in headers of others, only to say no more about it.
    git ls-files -z '*.cpp' ':!:*/test/*' ':!:bench/*' ':!:cmake/*' |
        xargs -0 -r -n 1 -P "$(nproc)" clang-tidy-14 --quiet -p build/tidy 2>&1 |
        { grep -vE '^[0-9]+ warnings? generated\.$' || true; }
}

what=${1:-all}
case $what in
    all | format | tidy) ;;
    *)
        echo "usage: scripts/lint.sh [format|tidy]" >&2
        exit 2
        ;;
esac

scripts/install-deps.sh
if [[ $what != tidy ]]; then
    quietly build/logs/format.log check_format
fi
if [[ $what != format ]]; then
    # Precompiled headers would have to be built first, and would hide a missing #include.
    quietly build/logs/tidy-configure.log cmake --preset tidy
    quietly build/logs/tidy.log check_tidy
fi
