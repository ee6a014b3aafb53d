#!/usr/bin/env bash
# Check the installed package from the outside: compile each public header alone, compare the names that the shared
# libraries export with the lists in cmake/exported-symbols, install the release build to a temporary folder, check that
# no weak symbol names a private class, and from there build and run the examples of the documentation.
#
# Usage: scripts/check-package.sh [--update-symbols]      with the option, write the lists instead of comparing them
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1:-} in
    '' | --update-symbols) ;;
    *)
        echo "usage: scripts/check-package.sh [--update-symbols]" >&2
        exit 2
        ;;
esac

scripts/install-deps.sh
build release
build release all_verify_interface_header_sets

# Functions and data that the library itself defines. Weak symbols are left out: they are inline functions, instances of
# templates, and tables of classes that every user of the class has too; which of them a compiler emits changes with its
# optimiser.
exported_symbols() { nm -DC --defined-only "$1" | sed -nE 's/^[0-9a-f]+ [A-TX-Z] //p' | LC_ALL=C sort -u; }

for library in foundation/libfoundation storage/cloudprovider/libcloudprovider; do
    list=cmake/exported-symbols/${library##*/lib}.txt
    if [[ ${1:-} == --update-symbols ]]; then
        exported_symbols "build/release/$library.so" >"$list"
    elif ! diff -u "$list" <(exported_symbols "build/release/$library.so"); then
        echo "check-package: $library.so exports other names than $list lists; see --update-symbols" >&2
        exit 1
    fi
done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
quietly build/logs/install.log cmake --install build/release --prefix "$scratch/built"
# Move the tree to show that it does not depend on its own path.
mv "$scratch/built" "$scratch/installed"
prefix=$scratch/installed

# Private classes have hidden symbols, except one that is nested in an exported class and not marked as hidden. Then it
# shows in the names of weak symbols, mostly of templates. Our classes begin with a capital letter, so every such name
# in a weak symbol must be defined, not only declared, in an installed header.
public_classes()
{
    grep -rhE '^ *(class|struct|union|enum) ' "$prefix/include" | grep -v ';$' |
        sed -E 's/^ *(enum class|class|struct|union|enum) ([A-Z_]+_EXPORT )?([A-Za-z0-9_]+).*/\3/' | LC_ALL=C sort -u
}
classes_in_weak_symbols()
{
    nm -DC --defined-only "$1" | sed -nE 's/^[0-9a-f]+ [WV] //p' |
        grep -oE '\b(foundation|storage)(::[A-Za-z0-9_]+)+' | grep -oE '\b[A-Z][A-Za-z0-9_]*' | LC_ALL=C sort -u
}
for library in libfoundation libcloudprovider; do
    private=$(LC_ALL=C comm -13 <(public_classes) <(classes_in_weak_symbols "$prefix/lib/$library.so"))
    if [[ -n $private ]]; then
        echo "check-package: weak symbols of $library.so name private classes: ${private//$'\n'/, }" >&2
        exit 1
    fi
done

examples=$prefix/share/doc/cloudprovider/examples
export CMAKE_PREFIX_PATH=$prefix PKG_CONFIG_PATH=$prefix/lib/pkgconfig

# by_cmake SOURCES [OPTION…]: build a project outside the tree.
by_cmake()
{
    local source=$1 name
    name=$(basename "$1")
    shift
    cmake -S "$source" -B "$scratch/$name" -G Ninja "$@" && cmake --build "$scratch/$name"
}

consumer()
{
    by_cmake cmake/consumer -DEXAMPLES="$examples/embedding" &&
        timeout 60 "$scratch/consumer/consumer" memory: &&
        timeout 60 "$scratch/consumer/consumer" "local:$scratch/store"
}
quietly build/logs/package-consumer.log consumer

# The installed command line reads what the consumer wrote.
quietly build/logs/package-cloudfs.log \
    timeout 60 "$prefix/bin/cloudfs" --store "local:$scratch/store" stat /folder/greeting.txt

# As docs/embedding.md says, with CMake and with pkg-config.
documented_host()
{
    local expected=cloud://example/greetings/hello.txt
    by_cmake "$examples/embedding" &&
        [[ $(timeout 60 "$scratch/embedding/host") == "$expected" ]] &&
        (cd "$examples/embedding" && sh -eu build.sh) &&
        [[ $(LD_LIBRARY_PATH=$prefix/lib timeout 60 "$examples/embedding/host") == "$expected" ]]
}
quietly build/logs/package-documented-host.log documented_host

documented_conformance_test()
{
    by_cmake "$examples/writing-a-client" && timeout 60 "$scratch/writing-a-client/my_client_test"
}
quietly build/logs/package-documented-test.log documented_conformance_test
