#!/bin/bash
# The storms of both roads under the thread sanitizer, each for so many minutes (default 5): twenty players that join,
# pause, ask for nonsense and leave rudely, while a host destroys and makes sessions in both sender modes. The exact
# road's runs for half of its time before the default's players and for half before all of RtmpPlayerSettings. Prints a
# table and leaves it in build/proof/stress.md; the exit code is 0 only when nothing was found.
#
#   scripts/stress.sh [MINUTES]
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root" || exit 1
minutes=${1:-5}
[[ $minutes =~ ^[0-9]+$ && $minutes -gt 0 ]] || { echo "Usage: stress.sh [MINUTES]" >&2; exit 2; }
seconds=$((60 * minutes))
logs=build/proof/stress
table=build/proof/stress.md
mkdir -p "$logs"
scripts/begin_proof.sh "$table" scripts/stress.sh "$minutes" || exit 1
scripts/install_deps.sh test || exit 1

cmake --preset tsan -DRTMPCAST_LEFT_OUT= >"$logs/configure.log" 2>&1 || { cat "$logs/configure.log"; exit 1; }
cmake --build --preset tsan --parallel "$(nproc)" --target test_wire test_steady || exit 1

# counted LOG WORD: the number in front of a word of the storm's own line, "-" when it never came to that.
counted() {
    local number
    number=$(grep '^storm: ' "$1" | grep -o "[0-9]* $2" | cut -d ' ' -f 1)
    echo "${number:--}"
}

# storm NAME SECONDS PROGRAM FILTER PLAYERS: runs one, and adds its row.
storm() {
    local name=$1 log=$logs/${1// /-}.log begun status races
    begun=$(date +%s)
    RTMPCAST_STORM_SECONDS=$2 RTMPCAST_TEST_PLAYERS=$5 \
        TSAN_OPTIONS="second_deadlock_stack=1:suppressions=$root/tests/support/tsan.supp" \
        timeout $(($2 + 300)) "build/tsan/tests/$3" --gtest_filter="$4" >"$log" 2>&1
    status=$?
    races=$(grep -c 'WARNING: ThreadSanitizer' "$log")
    grep -q '\[  PASSED  \] 1 test' "$log" || [ "$status" -ne 0 ] || status=1 # a filter that names nothing
    echo "| $name | $(($(date +%s) - begun)) s | $(counted "$log" rounds) | $(counted "$log" visits)" \
        "| $(counted "$log" undisturbed) | $(counted "$log" sessions) | $races |" \
        "$([ "$status" -eq 0 ] && echo none || echo "**exit code $status, see $log**") |" >>"$table"
    [ "$status" -eq 0 ] && [ "$races" -eq 0 ]
}

{
    echo "# Stress under the thread sanitizer"
    echo
    echo "| road | time | servers | visits of 20 players | of them undisturbed | sessions made and destroyed | reports of the sanitizer | findings |"
    echo "|---|---|---|---|---|---|---|---|"
} >"$table"

failed=0
storm "exact" $((seconds / 2)) test_wire 'ExactStorm.*' default || failed=1
storm "exact, all players" $((seconds / 2)) test_wire 'ExactStorm.*' all || failed=1
storm "steady" "$seconds" test_steady 'Storm.*' default || failed=1
cat "$table"
exit "$failed"
