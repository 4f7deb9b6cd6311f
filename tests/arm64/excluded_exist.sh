#!/bin/bash
# Every test that the list leaves out exists, and has a reason. excluded_exist.sh TESTS-DIRECTORY
set -euo pipefail
export LC_ALL=C

cd "$1"
count=0
while IFS= read -r line; do
    [[ $line =~ ^([a-z]+)\.([A-Za-z0-9]+)(\.([A-Za-z0-9]+))?:\ ..+ ]] || { echo "no test and reason: $line"; exit 1; }
    folder=${BASH_REMATCH[1]} suite=${BASH_REMATCH[2]} name=${BASH_REMATCH[4]}
    if [ -n "$name" ]; then
        wanted="^TEST(_F|_P)?\($suite, $name\)"
        files=("$folder"/*.cpp)
    else
        wanted="$suite"
        files=("$folder"/CMakeLists.txt)
    fi
    grep -qE "$wanted" "${files[@]}" || { echo "no such test: $line"; exit 1; }
    count=$((count + 1))
done < <(grep -vE '^(#|$)' arm64/excluded.txt)
echo "$count tests are left out"
