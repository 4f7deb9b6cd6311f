#!/bin/bash
# Builds and runs the tests: all of them plain, then again with address and undefined behaviour sanitizers, with the
# thread sanitizer, and for 64-bit ARM under an emulator, but for what tests/left_out names there. Three minutes of the
# soak belong to the preset debug, and run while the next preset is built. The last line says how many passed and failed;
# the exit code is 0 only when every test ran and passed.
#
#   scripts/test.sh [--all] [PRESET...]      default: debug asan tsan arm64; --all: nothing is left out
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root" || exit 1
settings=(-DRTMPCAST_TESTS_JOINED=ON) # all is built, which takes half as long so
all=
[ "${1:-}" = --all ] && { all=1; settings+=(-DRTMPCAST_LEFT_OUT=); shift; }
presets=${*:-debug asan tsan arm64}
passed=0
failed=0
broken=() # what failed, for the last lines

say() { printf '\n== %s\n' "$*"; }

# attribute NAME FILE: a number out of the first <testsuite> element.
attribute() { grep -o "$1=\"[0-9]*\"" "$2" | head -n 1 | tr -dc '0-9'; }

# lists PRESET: those that name what does not run there. A 64-bit ARM machine runs everything of its own preset.
lists() {
    [ "$1" = arm64 ] && [ "$(uname -m)" = aarch64 ] && return
    [ -n "$all" ] || [ ! -s "tests/left_out/$1.txt" ] || echo "tests/left_out/$1.txt"
    [ "$1" != arm64 ] || echo tests/left_out/emulator.txt
}

# left_out PRESET: what does not run there, and why.
left_out() {
    local lists
    lists=$(lists "$1")
    [ -n "$lists" ] || return 0
    say "$1: left out, and why"
    # shellcheck disable=SC2086 # names without blanks
    grep -hvE '^(#|$)' $lists
}

# note PRESET: what the report beside it is of, for scripts/proof.py: the revision, and the lists of what is left out.
note() { { scripts/revision.sh; lists "$1"; } >"build/$1/tests.note"; }

soak_process=
trap '[ -z "$soak_process" ] || kill "$soak_process"' EXIT # it would go on by itself
soak_log=$root/build/soak.log

begin_soak() {
    say "soak: begins; its report follows the building"
    scripts/soak.sh 3 --out build/soak >"$soak_log" 2>&1 &
    soak_process=$!
}

# finish_soak: waits for it, if one has begun; it counts as one test.
finish_soak() {
    [ -n "$soak_process" ] || return 0
    if wait "$soak_process"; then passed=$((passed + 1)); else failed=$((failed + 1)); broken+=("the soak"); fi
    soak_process=
    cat "$soak_log"
}

run_preset() {
    local preset=$1 report=$root/build/$1/tests.xml hosts=()
    case $all$preset in 1asan | 1tsan) hosts=(-DRTMPCAST_BUILD_EXAMPLES=ON) ;; esac # nobody asks for them otherwise
    say "$preset: building"
    mkdir -p build
    cmake --preset "$preset" "${settings[@]}" "${hosts[@]}" >"build/$preset.configure.log" 2>&1 ||
        { cat "build/$preset.configure.log"; return 1; }
    rm -f "$report"
    note "$preset"
    # As nice as the soak, beside which it may run.
    nice cmake --build --preset "$preset" --parallel "$(nproc)" || return 1
    finish_soak
    if [ "$preset" = arm64 ]; then
        say "arm64: size"
        scripts/size.sh || return 1
    fi
    left_out "$preset"
    say "$preset: running"
    # What a process of many tests prints last is how many passed.
    ctest --preset "$preset" --test-output-truncation head --output-junit "$report"
    local status=$?
    [ -s "$report" ] || return 1

    # Whatever did not run did not pass. A folder that ran in one process says how many tests passed in it.
    local count bad
    count=$(($(attribute tests "$report") + $(awk '/^\[  PASSED  \] [0-9]+ tests\.$/ { more += $4 - 1 } END { print more + 0 }' "$report")))
    bad=$(($(attribute failures "$report") + $(attribute disabled "$report") + $(attribute skipped "$report")))
    passed=$((passed + count - bad))
    failed=$((failed + bad))
    mapfile -t -O "${#broken[@]}" broken < <(grep -oE '<testcase name="[^"]*".* status="(fail|notrun|disabled)"' "$report" |
        sed -E "s/^<testcase name=\"([^\"]*)\".*/$preset: \1/")
    say "$preset: $((count - bad)) of $count passed"
    [ "$preset" = debug ] && begin_soak
    [ "$count" -gt 0 ] && { [ "$status" -eq 0 ] || [ "$bad" -gt 0 ]; }
}

scripts/install_deps.sh test || exit 1
for preset in $presets; do
    # A preset without a result counts as one failure.
    run_preset "$preset" || { failed=$((failed + 1)); broken+=("$preset: no result"); }
done
finish_soak

[ "${#broken[@]}" -eq 0 ] || { say "failed"; printf '%s\n' "${broken[@]}"; }
echo
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
