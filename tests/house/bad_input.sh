#!/bin/bash
# Every row of the table of bad inputs names tests that this build has, or seeds that are there; a row that names nothing,
# or what is not there, is noticed. bad_input.sh SOURCE BUILD CTEST
set -euo pipefail -f
export LC_ALL=C

names=$(mktemp)
sample=$(mktemp)
trap 'rm -f "$names" "$sample"' EXIT
"$3" --test-dir "$2" -N | sed -nE 's/^ *Test +#[0-9]+: ([^ ]+).*/\1/p' >"$names"
[ "$(wc -l <"$names")" -gt 1000 ] || { echo "these are not all tests: $(head -3 "$names")"; exit 1; }

# is_there NAME: a test (* stands for anything), or a file of tests/.
is_there() {
    [ -e "$root/tests/$1" ] && return 0
    local regex=${1//./\\.}
    grep -qE "^${regex//\*/.*}\$" "$names"
}

# rows TABLE: a row is "| input | `name` `name` ... |".
rows() {
    grep -E '^\|' "$1" | grep -vE '^\|(-| input )'
}

# faults TABLE: what is wrong with its rows.
faults() {
    rows "$1" | while IFS='|' read -r _ input asked _; do
        found=0
        for name in $(grep -oE '`[^`]+`' <<<"$asked" | tr -d '`'); do
            found=1
            is_there "$name" || echo "not there: $name (${input# })"
        done
        [ "$found" = 1 ] || echo "asked nowhere: ${input# }"
    done
}

root=$1
printf '%s\n' '| input | asked in |' '|---|---|' '| a | `wire.NoSuchTest.IsThere` |' '| b | somewhere |' \
    '| c | `fuzz/corpus/no_such_seed.bin` |' >"$sample"
[ "$(faults "$sample" | wc -l)" = 3 ] || { echo "a row that lies went unnoticed"; faults "$sample"; exit 1; }

found=$(faults "$root/tests/bad_input.md")
echo "$(rows "$root/tests/bad_input.md" | wc -l) rows"
[ -z "$found" ] || { echo "$found"; exit 1; }
