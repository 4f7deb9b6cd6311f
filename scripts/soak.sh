#!/bin/bash
# A soak: a host of the shared library, and for as many minutes as asked fifty players who come and go as they like.
#
#   scripts/soak.sh [MINUTES] [--seed N] [--preset debug|release|asan|tsan] [--out DIR] [--fault NAME]
#   scripts/soak.sh --self-test [--preset NAME]
#
# MINUTES is 3 by default, at least 1; DIR is build/proof, and gets soak.md (a page), soak.png (the curves) and soak.csv
# (a line a second). --seed repeats what the visitors draw; without it the seed is drawn, and printed. --fault has
# the host go wrong on purpose, so that one sees it noticed: memory, descriptor, steady_descriptor, thread, hole,
# lag, refusal. --self-test is a minute without a fault, which must pass, and one with each, which must fail for that
# very reason; it leaves its pages in build/soak.
#
# The host (tests/soak/host_main.cpp) has three servers: the exact road with the rules by default, the exact road for
# today's players, and the steady road with a listener of TLS; on each a session of each sender mode, and on two of them
# one that is destroyed and made again every few seconds, whoever is in it. Two sessions are published to services that
# die and come back. It is a process of its own, so that memory, descriptors and threads are the host's alone.
#
# The company (tests/soak/players_main.cpp) is another process. There are five scripted players and two rtmpdumps, from the
# first to the last moment, and the two services, between one restart and the next: they record, and each frame must be
# there, in order, its time above the one before. Frames carry numbers. Beside them fifty come and go: viewers, those who
# leave or reset in the midst, slow ones, some who stop reading, half handshakes, garbage, one byte a second, commands
# in any order; an eighth of them over TLS. On the exact road a player that takes nothing holds up everybody
# (docs/manual.md, "Two senders"): who stops reading there does so for four seconds at most, which the kernel's
# buffers take, and a stop that they do not take would show as lag, and not as a hole. A failed write ends the exact
# road's threaded sender: the steady player behind one has company that says deleteStream and stays until the host has
# let go; another such session has company of all kinds, and the host resets its sender, as the manual says.
#
# Every few seconds the tide goes out: all but the steady ones leave. The host is then what it was before anybody came,
# with as many threads and, once it has closed the descriptors that the exact road leaves open, as many descriptors. That
# is waited for, and so does not depend on how fast anything is. Memory at ebb is compared over the run: the medians of
# the first and of the last third of the ebbs behind the warm-up (a fifth of the time, a minute at least, a third at most)
# may differ by 256 KiB of memory in use (as the allocator counts it) and by 4 MiB of resident memory, and those of the
# longest way of a picture by two seconds; with less than six ebbs to compare, ten minutes later, it fails. The host
# does not run ahead of those who record by more than a second, so that a busy machine makes them late and not a hole.
# Viewers of the sessions that stay see a picture, nearly all of them, and few visits are ended by the host. At the end
# everything is destroyed while all are there; no thread and no descriptor may be left, and with --preset asan no memory.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
fail() { printf 'soak.sh: %s\n' "$*" >&2; exit 2; }

minutes=3 seed=$((RANDOM * 32768 + RANDOM)) preset=debug out=$root/build/proof fault='' self_test=''

# What a fault does, and how a soak says so.
faults='memory memory in use at ebb has grown
descriptor waited in vain: descriptors of those who left are closed
steady_descriptor waited in vain: descriptors of those who left are closed
thread waited in vain: threads of those who left end
hole player, steady road: picture
lag the longest way of a picture in a tide has grown
refusal viewers of the steady road saw no picture'

# run_self_test: 0 when a soak passes, and notices each fault for what it is.
run_self_test() {
    local name text status=0 pages=$root/build/soak
    "$0" 1 --preset "$preset" --out "$pages/none" >/dev/null 2>&1 || { echo "none: FAILED, see $pages/none"; status=1; }
    while read -r name text; do
        if "$0" 1 --preset "$preset" --out "$pages/$name" --fault "$name" >/dev/null 2>&1; then
            echo "$name: NOT NOTICED"; status=1
        elif ! grep -qF -- "$text" "$pages/$name/soak.md"; then
            echo "$name: failed, but not because '$text'; see $pages/$name"; status=1
        else
            echo "$name: noticed"
        fi
    done <<<"$faults"
    return $status
}

while [ $# -gt 0 ]; do
    case $1 in
    --self-test) self_test=yes; shift ;;
    -h | --help) sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' "$0"; exit 0 ;;
    --seed | --preset | --out | --fault)
        [ $# -ge 2 ] || fail "$1 needs a value"
        case $1 in
        --seed) seed=$2 ;;
        --preset) preset=$2 ;;
        --out) out=$2 ;;
        --fault) fault=$2 ;;
        esac
        shift 2 ;;
    -*) fail "unknown option '$1'; --help shows all" ;;
    *) minutes=$1; shift ;;
    esac
done
[[ $minutes =~ ^[1-9][0-9]*(\.[0-9]+)?$ ]] || fail "'$minutes' is no number of minutes from 1 on"
[[ $seed =~ ^[0-9]+$ ]] || fail "--seed: '$seed' is not a number"
[ -z "$fault" ] || grep -q "^$fault " <<<"$faults" || fail "--fault: '$fault' is not known"
for program in rtmpdump gnuplot; do
    command -v $program >/dev/null || fail "$program is not installed (scripts/install_deps.sh test)"
done

[ -z "$self_test" ] || { run_self_test; exit; }

build=$root/build/$preset
[ -f "$build/build.ninja" ] || (cd "$root" && cmake --preset "$preset" >/dev/null)
cmake --build "$build" --target soak_host soak_players --parallel "$(nproc)" | tail -n 1
mkdir -p "$out"
out=$(cd "$out" && pwd)
rm -f "$out"/soak.{md,csv,png,log} # what lies there behind a run is this run's
"$root/scripts/begin_proof.sh" "$out/soak.md" scripts/soak.sh "$minutes" --preset "$preset" --seed "$seed"

# Where many go without being swept up for a while.
ulimit -n "$(ulimit -H -n)"
export ASAN_OPTIONS=detect_stack_use_after_return=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/support/tsan.supp

printf '== Soak: %s minutes, seed %s, preset %s\n' "$minutes" "$seed" "$preset"
status=0
# All of it ends with this script, or twenty minutes late: timeout passes a signal on to everything that it has started.
timeout --kill-after=10 $((60 * (${minutes%.*} + 20))) nice "$build/tests/soak/soak_players" "$build/tests/soak/soak_host" \
    "$out" "$minutes" "$seed" "$preset" ${fault:+"$fault"} >"$out/soak.log" &
players=$!
trap 'kill "$players" 2>/dev/null || true' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
wait "$players" || status=$?
trap - EXIT
if [ -s "$out/soak.csv" ]; then
    "$root/tools/plot_soak" "$out/soak.csv" "$out/soak.png"
fi
[ -s "$out/soak.md" ] && cat "$out/soak.md"
[ "$status" -eq 0 ] || { printf 'soak.sh: failed (%s); %s has what was logged\n' "$status" "$out/soak.log" >&2; exit 1; }
