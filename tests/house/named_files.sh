#!/bin/bash
# The documents name files that are there: every `folder/file.ending` in them exists, and a wrong one is noticed.
set -u
root=$1
shift

# missing DOCUMENT: what it names in vain.
missing() {
    grep -oE '`[A-Za-z_]+(/[A-Za-z_0-9.]+)*\.(cpp|h|c|sh|txt|md)`' "$1" | tr -d '`' | sort -u | while read -r name; do
        [ -e "$root/$name" ] || echo "$name"
    done
}

sample=$(mktemp) || exit 1
trap 'rm -f "$sample"' EXIT
echo 'See `net/log.h` and `net/no_such_file.h`.' >"$sample"
[ "$(missing "$sample")" = net/no_such_file.h ] || { echo "a wrong name went unnoticed"; exit 1; }

failed=0
for document; do
    names=$(missing "$root/$document")
    [ -z "$names" ] || { echo "$document names what is not there: $names"; failed=1; }
done
exit $failed
