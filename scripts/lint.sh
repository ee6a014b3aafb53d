#!/usr/bin/env bash
# Check the format of every C++ file, now and in each recent commit, run clang-tidy on all code except tests, print the
# ratio of test code to code, and check that each sentence of docs/semantics.md names a test. A ratio above 35 % fails.
# clang-tidy leaves tests out: analysing them would double the time and find little, and compilers and sanitizers are
# enough for them.
#
# Usage: scripts/lint.sh [format|tidy|ratio|semantics]      all by default
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

# Each sentence of docs/semantics.md has a number and ends with the tests that execute it. The introduction and the list
# "Not promised" are exempt.
check_semantics()
{
    {
        # The tests: Suite.Case, "cloudfs_test.sh CASE", campaigns/NAME.py.
        git ls-files -z '*/test/*.cpp' '*/testing/*.cpp' | xargs -0 sed 's,//.*,,' | tr '\n' ' ' |
            grep -oP '\bTEST(_[FP])?\(\s*\K\w+,\s*\w+' | sed 's/,\s*/./'
        sed -n '/foreach(case/,/)/p' tools/cloudfs/CMakeLists.txt | grep -ow '\w*' | sed 's/^/cloudfs_test.sh /'
        git ls-files 'bench/campaigns/*.py' | sed 's,^bench/,,'
    } | awk '
        function fail(reason) { print "docs/semantics.md: " reason ": " text; failed = 1 }
        function check(    rest, name, names)
        {
            rest = text
            while (match(rest, / `[^`]+`,?$/)) {
                name = substr(rest, RSTART + 2, RLENGTH - 2)
                rest = substr(rest, 1, RSTART - 1)
                sub(/`,?$/, "", name)
                ++names
                if (!(name in tests)) fail("there is no test \"" name "\"")
            }
            if (text == "" || exempt) return
            ++sentences
            if (!sub(/^[0-9]+[.] /, "", rest)) { fail("no number"); return }
            if (text + 0 != ++number) { fail("should have number " number); number = text + 0 }
            if (!names) fail("names no test")
            if (rest ~ /[.!?] +[A-Z`]/) fail("two sentences with one number")
        }
        BEGIN { exempt = 1 }
        FILENAME != "docs/semantics.md" { tests[$0]; next }
        /^$|^#|^-|^[0-9]+[.] / { check(); text = "" }
        /^#/ { exempt = $0 ~ /^# / || $0 == "## Not promised"; number = 0; next }
        { sub(/^ +/, ""); text = text (text == "" ? "" : " ") $0 }
        END { check(); print sentences + 0 " sentences"; exit failed || !sentences }' - docs/semantics.md
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
    all | format | tidy | ratio | semantics) ;;
    *)
        echo "usage: scripts/lint.sh [format|tidy|ratio|semantics]" >&2
        exit 2
        ;;
esac

if [[ $what == all || $what == ratio ]]; then
    print_ratio
fi
if [[ $what == all || $what == semantics ]]; then
    check_semantics
fi
if [[ $what != ratio && $what != semantics ]]; then
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
