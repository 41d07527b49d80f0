#!/bin/bash
# The gates beside scripts/test: all of them, or those named.
#   scripts/check.sh            every gate
#   scripts/check.sh tidy abi   just these
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

build() { # preset [target...]
    local preset=$1
    shift
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" ${1:+--target} "$@" >"build/$preset/build.out" || {
        cat "build/$preset/build.out"
        return 1
    }
}

own_sources() {
    git ls-files -- '*.c' '*.cpp' '*.h'
}

# Layout of the code as .clang-format has it.
gate_format() {
    own_sources | xargs clang-format-14 --dry-run -Werror
}

# clang-tidy over everything that is compiled. It wants Clang's own command lines: GCC's leave
# out the language standard, of which the two think differently.
gate_tidy() {
    cmake --preset clang >/dev/null
    if ! run-clang-tidy-14 -quiet -p build/clang -j "$jobs" >build/tidy.out 2>&1; then
        grep -E '(warning|error):' build/tidy.out | sort -u || tail -n 50 build/tidy.out
        return 1
    fi
}

# Each public header alone, as C99 and as C++17.
gate_headers() {
    local header
    for header in include/nvrhttpcurl/*.h; do
        gcc -std=c99 -Wall -Wextra -pedantic -Werror -Iinclude -fsyntax-only -x c "$header"
        g++ -std=c++17 -Wall -Wextra -pedantic -Werror -Iinclude -fsyntax-only -x c++ "$header"
    done
}

# What the shared library exports and needs, and the layout of the public records.
gate_abi() {
    build release nvrhttpcurl
    local library=build/release/libnvrhttpcurl.so
    diff <(sed -n 's/^ *\([A-Za-z_]*\);$/\1/p' abi/exports.map | sort) \
        <(nm -D --defined-only "$library" | awk '{ print $3 }' | sort)
    diff <(sort abi/needed.txt) <(readelf -d "$library" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | sort)
    gcc -std=c99 -Wall -Wextra -pedantic -Werror -Iinclude abi/records.c -o build/abi_records
    diff abi/records.txt <(build/abi_records)
}

# Clean under the other compiler, too.
gate_clang() {
    build clang
}

gate_asan() {
    build asan
    ctest --preset asan --parallel "$jobs"
}

gate_tsan() {
    build tsan
    ctest --preset tsan --parallel "$jobs"
}

# The README's minimal program is the example that the build compiles.
gate_readme() {
    diff <(awk '/^```c$/ { on = 1; next } /^```$/ { on = 0 } on' README.md) examples/post_json.c
}

# As a subproject: builds, and installs nothing of the host platform.
gate_subproject() {
    local root=$PWD work
    work=$(mktemp -d)
    cat >"$work/CMakeLists.txt" <<EOF
cmake_minimum_required(VERSION 3.25)
project(consumer LANGUAGES C CXX)
add_subdirectory($root nvrhttpcurl)
add_executable(consumer $root/examples/post_json.c)
target_link_libraries(consumer PRIVATE nvrhttpcurl)
EOF
    cmake -S "$work" -B "$work/build" -G Ninja >/dev/null
    cmake --build "$work/build" >"$work/out" || { cat "$work/out"; return 1; }
    test ! -e "$work/build/nvrhttpcurl/tests" || { echo "a subproject builds tests"; return 1; }
    cmake --install "$work/build" --prefix "$work/prefix" >/dev/null
    test -n "$(find "$work/prefix" -name 'libnvrhttpcurl.so.1')"
    test -f "$work/prefix/include/nvrhttpcurl/sendbycurl.h"
    if find "$work/prefix" | grep -E 'libosp|libappbase'; then
        echo "the host platform was installed"
        return 1
    fi
    rm -rf "$work"
}

# A libcurl that is too old is refused at configure time, with the reason.
gate_oldcurl() {
    local work
    work=$(mktemp -d)
    printf 'set(CURL_FOUND TRUE)\nset(CURL_VERSION_STRING 7.65.3)\n' >"$work/FindCURL.cmake"
    if cmake -S . -B "$work/build" -G Ninja "-DCMAKE_MODULE_PATH=$work" >"$work/out" 2>&1; then
        echo "libcurl 7.65.3 was accepted"
        return 1
    fi
    tr -s ' \n' ' ' <"$work/out" | grep -q 'needs libcurl 7.66.0 or later, found 7.65.3'
    rm -rf "$work"
}

# The main job, as a person runs it: with a server of its own, then with one beside it.
gate_demo() {
    scripts/demo </dev/null
    local url
    coproc serve { exec build/release/tools/nvrhttp serve; }
    trap "kill $!" EXIT
    read -r url <&"${serve[0]}"
    scripts/demo "$url" '{"a":1}' </dev/null
    if scripts/demo "${url}status/404" '{"a":1}' </dev/null; then
        echo "the demo takes a 404 for an answer"
        return 1
    fi
}

all=(format headers readme oldcurl abi clang subproject demo tidy asan tsan)
[ $# -gt 0 ] || set -- "${all[@]}"
for gate in "$@"; do
    declare -F "gate_$gate" >/dev/null || {
        echo "check: no gate '$gate'; there are: ${all[*]}" >&2
        exit 2
    }
done
scripts/bootstrap
mkdir -p build

# A single gate runs right here: "set -e" would not hold inside a condition.
if [ $# -eq 1 ]; then
    "gate_$1"
    exit 0
fi
failed=()
for gate in "$@"; do
    echo "== $gate"
    scripts/check.sh "$gate" || failed+=("$gate")
done
if [ ${#failed[@]} -gt 0 ]; then
    echo "failed: ${failed[*]}"
    exit 1
fi
echo "all gates passed: $*"
