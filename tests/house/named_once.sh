#!/bin/bash
# No two sources of the tests share a name: named_once.sh SOURCE_DIR
set -u
cd "$1/tests" || exit 1
files=$(find . -name '*.cpp' -o -name '*.h' -o -name '*.c' -o -name '*.sh')
[ "$(wc -l <<<"$files")" -gt 100 ] || { echo "the tests are not here"; exit 1; }
twice=$(sed 's|.*/||' <<<"$files" | sort | uniq -d)
[ -z "$twice" ] || { printf 'named more than once:\n%s\n' "$twice"; exit 1; }
