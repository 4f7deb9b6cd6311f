#!/bin/bash
# Runs the fuzzer's targets for so many seconds each, as many at once as there are cores, with the address, undefined
# behaviour and leak sanitizers, and prints a table of one page, which is also left in build/proof/fuzz.md. Inputs that
# break something are named, and the exit code is 1: mend the cause, then keep the input in tests/fuzz/found/TARGET.
#
#   scripts/fuzz.sh [--no-install] SECONDS [TARGET...]   default: all of tests/fuzz/targets
#   scripts/fuzz.sh --seeds                              writes the made seeds of tests/fuzz/corpus anew
#   scripts/fuzz.sh --minimise [TARGET...]               adds to tests/fuzz/corpus what a campaign found and no seed covers
#
# What a campaign finds on its way stays in build/fuzz/corpus, and the next one goes on from there.
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root" || exit 2
work=build/fuzz
programs=$work/tests/fuzz
most_kept=$((24 * 1024)) # bytes that --minimise adds to a target's seeds
longest_kept=2048        # and no input longer than this

say() { printf '\n== %s\n' "$*"; }
usage() { sed -n '6,8s/^# *//p' "$0" >&2; exit 2; }
all_targets() { basename -s .cpp -a tests/fuzz/targets/*.cpp; }

build() {
    say "building"
    mkdir -p "$work"
    { cmake --preset fuzz && cmake --build "$work" --target "$@" --parallel "$(nproc)"; } >"$work/build.log" 2>&1 ||
        { cat "$work/build.log"; return 1; }
}

make_seeds() {
    cmake --preset debug >/dev/null && cmake --build build/debug --target make_seeds --parallel "$(nproc)" || exit 2
    build/debug/tests/fuzz/make_seeds tests/fuzz/corpus || exit 2
    du -s --apparent-size -k tests/fuzz/corpus/*
}

# says TARGET WHAT: the word behind "// WHAT: " in the target's source.
says() { sed -n "s|^// $2: \([0-9a-z_]*\)\$|\1|p" "tests/fuzz/targets/$1.cpp"; }

# run TARGET SECONDS: exit code and last words are in build/fuzz/TARGET.log.
run() {
    local target=$1 seconds=$2 folders=() words longest dictionary=()
    mkdir -p "$work/corpus/$target" "$work/found/$target"
    find "$work/found/$target" -type f -exec mv -t "$work/corpus/$target" {} + # breaks again, unless it is mended
    for folder in "tests/fuzz/corpus/$target" "tests/fuzz/found/$target"; do
        [ -d "$folder" ] && folders+=("$folder")
    done
    words=tests/fuzz/dictionaries/$(says "$target" dictionary).dict
    [ -f "$words" ] || words=tests/fuzz/dictionaries/$target.dict
    [ -f "$words" ] && dictionary=("-dict=$words")
    longest=$(says "$target" max_len)
    echo "revision $revision" >"$work/$target.log"
    ASAN_OPTIONS=detect_stack_use_after_return=1 UBSAN_OPTIONS=print_stacktrace=1 \
        "$programs/fuzz_$target" -max_total_time="$seconds" -max_len="${longest:-8192}" -timeout=25 \
        -rss_limit_mb=2048 -malloc_limit_mb=512 -print_final_stats=1 -artifact_prefix="$work/found/$target/" \
        "${dictionary[@]}" "$work/corpus/$target" "${folders[@]}" >>"$work/$target.log" 2>&1
    echo "exit code $?" >>"$work/$target.log"
}

# number PATTERN FILE: the last number behind the pattern; 0 without.
number() { grep -oE "$1 *[0-9]+" "$2" | tail -n 1 | grep -oE '[0-9]+$' || echo 0; }

# row TARGET: a line of the table; findings are files, and whatever else ended a run.
row() {
    local log=$work/$1.log findings revision
    revision=$(sed -n '1s/^revision //p' "$log")
    mkdir -p "$work/found/$1"
    findings=$(find "$work/found/$1" -type f ! -name 'slow-unit-*' | wc -l)
    [ "$findings" -eq 0 ] && ! grep -q '^exit code 0$' "$log" && findings=1
    echo "| $1 | $(date -r "$log" +%F) | ${revision:-not noted} | $(number 'Done [0-9]+ runs in' "$log") | $(number 'stat::number_of_executed_units:' "$log")" \
        "| $(number 'stat::average_exec_per_sec:' "$log") | $(number 'cov:' "$log") | $(number 'ft:' "$log")" \
        "| $(number 'stat::new_units_added:' "$log") | $findings |"
    [ "$findings" -eq 0 ]
}

# campaign SECONDS TARGET...: the table has the last campaign of every target, also of those that had theirs before.
campaign() {
    local seconds=$1 bad=0 table
    shift
    for target in "$@"; do
        while [ "$(jobs -rp | wc -l)" -ge "$(nproc)" ]; do wait -n; done
        run "$target" "$seconds" &
    done
    wait
    mkdir -p build/proof
    table=build/proof/fuzz.md
    {
        echo "The last campaign of each target, with the address, undefined-behaviour and leak sanitizers; $(clang --version | head -n 1)."
        echo
        echo "| target | on | revision | seconds | executions | a second | edges covered | features | new inputs | findings |"
        echo "|---|---|---|---|---|---|---|---|---|---|"
        for target in $(all_targets); do
            [ ! -f "$work/$target.log" ] || row "$target" || bad=1
        done
    } >"$table.new"
    # `bad` was set in this shell: a group in braces is no other.
    mv "$table.new" "$table"
    cat "$table"
    for target in $(all_targets); do
        [ -f "$work/$target.log" ] || continue
        find "$work/found/$target" -type f ! -name 'slow-unit-*' | sed 's/^/found: /'
        grep -q '^exit code 0$' "$work/$target.log" || { echo "$target ended with:"; tail -n 30 "$work/$target.log"; }
    done
    return "$bad"
}

# minimise TARGET: whatever of the working corpus reaches places that no seed does, as far as it is small.
minimise() {
    local target=$1 seeds=tests/fuzz/corpus/$1 room=$most_kept size
    [ -d "$work/corpus/$target" ] || return 0
    mkdir -p "$seeds" && rm -rf "$work/merged" && mkdir -p "$work/merged"
    cp "$seeds"/* "$work/merged" 2>/dev/null
    "$programs/fuzz_$target" -merge=1 -use_counters=0 -max_len="$longest_kept" "$work/merged" "$work/corpus/$target" >"$work/$target.merge" 2>&1 ||
        { tail -n 20 "$work/$target.merge"; return 1; }
    while read -r size file; do
        [ -e "$seeds/$(basename "$file")" ] && continue
        room=$((room - size))
        [ "$room" -ge 0 ] || break
        cp "$file" "$seeds"
    done < <(find "$work/merged" -type f -printf '%s %p\n' | sort -n)
    rm -rf "$work/merged"
    echo "$target: $(find "$seeds" -type f | wc -l) seeds, $(du -s --apparent-size -k "$seeds" | cut -f 1) KiB"
}

install=1
[ "${1:-}" = --no-install ] && { install=0; shift; }
case ${1:-} in
--seeds) make_seeds; exit ;;
--minimise) shift; mode=minimise ;;
'' | *[!0-9]*) usage ;;
*) seconds=$1; mode=campaign; shift ;;
esac
[ "$install" -eq 0 ] || scripts/install_deps.sh fuzz || exit 2
# shellcheck disable=SC2046 # names without blanks
[ $# -gt 0 ] || set -- $(all_targets)
revision=$(scripts/revision.sh) # of what is built now
build "${@/#/fuzz_}" || exit 2
if [ "$mode" = minimise ]; then
    for target in "$@"; do minimise "$target" || exit 1; done
    exit 0
fi
say "running, $seconds seconds for each of: $*"
campaign "$seconds" "$@"
