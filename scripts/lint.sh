#!/usr/bin/env bash
# Check the format of every C++ file, now and in each recent commit, run clang-tidy on all code except tests, and print
# the ratio of test code to code. A ratio above 35 % fails. clang-tidy leaves tests out: analysing them would double the
# time and find little, and compilers and sanitizers are enough for them.
#
# Usage: scripts/lint.sh [format|tidy|ratio]      all three by default
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

check_format()
{
    local base range commit file status=0
    git ls-files -z '*.cpp' '*.hpp' | xargs -0 -r clang-format-14 --dry-run -Werror || return

    # Check the commits that main does not have yet; on main itself or without an upstream, the last 20.
    base=$(git merge-base HEAD origin/main 2>/dev/null || true)
    range=("$base..HEAD")
    if [[ -z $base || $base == $(git rev-parse HEAD) ]]; then
        range=(--max-count=20 HEAD)
    fi
    while read -r commit; do
        while read -r file; do
            if ! git show "$commit:$file" | clang-format-14 --dry-run -Werror --assume-filename="$root/$file"; then
                echo "not formatted: $file in $(git log -1 --format='%h "%s"' "$commit")"
                status=1
            fi
        done < <(git diff-tree --root --no-commit-id --name-only --diff-filter=d -r "$commit" -- '*.cpp' '*.hpp')
    done < <(git rev-list --no-merges "${range[@]}")
    return "$status"
}

# Count lines that are neither blank nor pure comments. The conformance suite counts as test code, although it is
# installed.
print_ratio()
{
    local max_percent=35 tests shell code
    tests=$(git ls-files -z '*/test/*.[ch]pp' '*/testing/*.[ch]pp' | xargs -0 -r cat | grep -cvE '^\s*(//.*)?$' || true)
    shell=$(git ls-files -z 'tools/*/test/*.sh' | xargs -0 -r cat | grep -cvE '^\s*(#.*)?$' || true)
    code=$(git ls-files -z '*.[ch]pp' ':!:*/test/*' ':!:*/testing/*' ':!:bench/*' ':!:cmake/*' |
        xargs -0 -r cat | grep -cvE '^\s*(//.*)?$' || true)
    tests=$((tests + shell))
    printf '%d lines of test code for %d lines of code: %d.%d %% (at most %d)\n' "$tests" "$code" \
        $((tests * 100 / code)) $((tests * 1000 / code % 10)) "$max_percent"
    ((tests * 100 <= max_percent * code))
}

check_tidy()
{
    # Hide the lines with its count of suppressed warnings.
    git ls-files -z '*.cpp' ':!:*/test/*' ':!:*/testing/*' ':!:bench/*' ':!:cmake/*' |
        xargs -0 -r -n 1 -P "$(nproc)" clang-tidy-14 --quiet -p build/tidy 2>&1 |
        { grep -vE '^[0-9]+ warnings? generated\.$' || true; }
}

what=${1:-all}
case $what in
    all | format | tidy | ratio) ;;
    *)
        echo "usage: scripts/lint.sh [format|tidy|ratio]" >&2
        exit 2
        ;;
esac

if [[ $what == all || $what == ratio ]]; then
    print_ratio
fi
if [[ $what != ratio ]]; then
    scripts/install-deps.sh
fi
if [[ $what == all || $what == format ]]; then
    quietly build/logs/format.log check_format
fi
if [[ $what == all || $what == tidy ]]; then
    # Precompiled headers would have to be built first, and would hide a missing #include.
    quietly build/logs/tidy-configure.log cmake --preset tidy
    quietly build/logs/tidy.log check_tidy
fi
