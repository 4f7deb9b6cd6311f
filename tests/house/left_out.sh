#!/bin/bash
# Every test that a preset leaves out runs in this build, and every line has a reason. left_out.sh SOURCE BUILD CTEST
set -euo pipefail
export LC_ALL=C

names=$("$3" --test-dir "$2" -N | sed -nE 's/^ *Test +#[0-9]+: ([^ ]+).*/\1/p')
[ "$(wc -l <<<"$names")" -gt 1000 ] || { echo "these are not all tests: $names"; exit 1; }

# count PATTERN: how many tests have such a name.
count() {
    local regex=${1//./\\.}
    grep -cE "^${regex//\*/.*}\$" <<<"$names" || true
}

[ "$(count 'wire.NoSuchTest.*')" = 0 ] || { echo "a name that is not there was found"; exit 1; }
bad=0
for list in "$1"/tests/left_out/*.txt; do
    while IFS= read -r line; do
        pattern=${line%%: *}
        [ "$pattern" != "$line" ] || { echo "$list: no reason: $line"; bad=1; continue; }
        found=$(count "$pattern")
        echo "$(basename "$list" .txt): $pattern: $found"
        [ "$found" -gt 0 ] || { echo "$list: no such test: $line"; bad=1; }
    done < <(grep -vE '^(#|$)' "$list")
done
exit "$bad"
