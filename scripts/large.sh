#!/bin/bash
# Bad input that takes gigabytes or minutes (tests/support/large.h): the tests that have such a size, once in it. Prints a
# table and leaves it in build/proof/large.md; the exit code is 0 only when all of them passed.
#
#   scripts/large.sh
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root" || exit 1
logs=build/large
table=build/proof/large.md
failed=0

scripts/begin_proof.sh "$table" scripts/large.sh || exit 1
scripts/install_deps.sh test || exit 1
[ -f build/debug/build.ninja ] || cmake --preset debug >/dev/null || exit 1
cmake --build build/debug --target test_amf test_message test_serve --parallel "$(nproc)" || exit 1
mkdir -p "$logs"

# ask FOLDER FILTER WHAT: runs the tests, and adds their row.
ask() {
    local log=$logs/$1.log begun=$SECONDS status=0 passed
    RTMPCAST_TEST_LARGE=1 timeout 600 "build/debug/tests/test_$1" --gtest_brief=1 --gtest_filter="$2" >"$log" 2>&1 || status=$?
    passed=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests*\.$/\1/p' "$log")
    [ "${passed:-0}" -gt 0 ] || status=1 # a filter that names nothing
    echo "| $3 | \`$1.$2\` | ${passed:-0} | $((SECONDS - begun)) |" \
        "$([ "$status" -eq 0 ] && echo none || echo "**exit code $status, see $log**") |" >>"$table.new"
    [ "$status" -eq 0 ] || { failed=1; tail -n 20 "$log"; }
}

printf '| what | tests | passed | seconds | findings |\n|---|---|---|---|---|\n' >"$table.new"
ask amf '*HostileDepth.*' "values nested in up to 5,000,000 levels"
ask message '*HostileChunkStreams.*' "messages of 4 MiB in chunks of one byte, and the rest of that file"
ask serve '*ManyValues.*' "a command of up to 16,000,000 values"
mv "$table.new" "$table"
cat "$table"
exit "$failed"
