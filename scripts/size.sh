#!/bin/bash
# Prints how large librtmpcast.so is on 64-bit ARM, stripped, at -O2 and at -Os. Builds what it needs of both. Leaves the
# table in build/proof/size.md.
#
#   scripts/size.sh
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
aim=160 # KiB stripped at -O2
page=build/proof/size.md
log=$(mktemp)
stripped=$(mktemp)
trap 'rm -f "$log" "$stripped"' EXIT

# tool NAME: a program of the tool chain that the preset chose.
tool() { sed -n "s/^CMAKE_$1:[A-Z]*=//p" build/arm64/CMakeCache.txt; }

# The compiler; one that a toolchain file names is not in the cache.
compiler() { sed -n 's/^set(CMAKE_CXX_COMPILER "\(.*\)")$/\1/p' build/arm64/CMakeFiles/*/CMakeCXXCompiler.cmake; }

# build DIRECTORY CMAKE-ARGUMENT...
build() {
    local directory=$1
    shift
    { cmake --preset arm64 -B "$directory" "$@" &&
        cmake --build "$directory" --target rtmpcast_shared --parallel "$(nproc)"; } >"$log" 2>&1 ||
        { cat "$log" >&2; exit 1; }
}

# row LEVEL DIRECTORY: fills `bytes` too.
row() {
    "$(tool STRIP)" -o "$stripped" "$2/librtmpcast.so"
    bytes=$(stat -c %s "$stripped")
    "$(dirname "$(tool STRIP)")/$(basename "$(tool STRIP)" strip)size" "$stripped" |
        awk -v level="$1" -v bytes="$bytes" \
            'NR == 2 { printf "| `%s` | %.1f KiB | %d | %d | %d |\n", level, bytes / 1024, $1, $2, $3 }'
}

scripts/begin_proof.sh "$page" scripts/size.sh
build build/arm64
build build/arm64-Os -DCMAKE_CXX_FLAGS_RELEASE='-Os -DNDEBUG' -DRTMPCAST_BUILD_TESTS=OFF
{
    echo "\`librtmpcast.so\`, $("$(compiler)" -dumpmachine), gcc $("$(compiler)" -dumpfullversion)."
    echo
    echo "| | stripped | text | data | bss |"
    echo "|---|---|---|---|---|"
    row -Os build/arm64-Os
    row -O2 build/arm64
    if [ "$bytes" -gt $((aim * 1024)) ]; then
        echo
        echo "\`-O2\` is above the aim of $aim KiB."
    fi
} >"$page.new"
mv "$page.new" "$page"
cat "$page"
