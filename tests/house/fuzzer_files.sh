#!/bin/bash
# What the fuzzer has to do with the tree: fuzzer_files.sh seeds|findings SOURCE_DIR
#   seeds      every target has the empty input among its seeds
#   findings   nothing that libFuzzer has left is in the tree as it left it: a finding is kept in tests/fuzz/found by a name
set -u
cd "$2" || exit 1

seeds() {
    local file seed targets=0 bad=0
    for file in tests/fuzz/targets/*.cpp; do
        seed=tests/fuzz/corpus/$(basename "$file" .cpp)/empty
        targets=$((targets + 1))
        [ -f "$seed" ] && [ ! -s "$seed" ] || { echo "not there, or not empty: $seed"; bad=1; }
    done
    [ "$targets" -gt 5 ] || { echo "the targets are not here"; bad=1; }
    return "$bad"
}

# The tree's files: those of the repository, or all where it is none.
files() { git ls-files 2>/dev/null | grep . || find . -path ./build -prune -o -type f -print; }

unnamed() { grep -E '(^|/)(crash|leak|oom|timeout|slow-unit)-[0-9a-f]{40}$'; }

findings() {
    local left sample=tests/leak-da39a3ee5e6b4b0d3255bfef95601890afd80709
    [ "$(printf 'net/log.h\n%s\n' "$sample" | unnamed)" = "$sample" ] || { echo "a finding went unnoticed"; return 1; }
    [ "$(files | grep -c .)" -gt 500 ] || { echo "the tree is not here"; return 1; }
    left=$(files | unnamed)
    [ -z "$left" ] || { printf 'left by the fuzzer:\n%s\n' "$left"; return 1; }
}

case $1 in
seeds | findings) "$1" ;;
*) exit 1 ;;
esac
