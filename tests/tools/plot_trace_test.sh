#!/bin/bash
# tools/plot_trace draws a trace and refuses what is none: plot_trace_test.sh PLOT_TRACE DATA-DIRECTORY
set -u

plot=$1 data=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
bad=0
cd "$work" || exit 1

# drawn OUT: both pictures are there, and are what their names say.
drawn() {
    [ "$(head -c 8 "$1.png" | od -An -tx1 | tr -d ' ')" = 89504e470d0a1a0a ] &&
        grep -q '<svg' "$1.svg" && grep -q '</svg>' "$1.svg" &&
        [ "$(stat -c %s "$1.png")" -gt 10000 ] && return
    echo "$1: no pictures"
    bad=1
}

refused() { # refused TEXT arguments...
    local text=$1
    shift
    if "$plot" "$@" >out 2>&1 || ! grep -qF -- "$text" out; then
        echo "plot_trace $*: accepted, or no '$text' in: $(cat out)"
        bad=1
    fi
}

"$plot" "$data/trace.csv" plain || bad=1
drawn plain
"$plot" --slots 91 --frame-rate 30 --phases "$data/phases.txt" --title "It's all here" "$data/trace.csv" full || bad=1
drawn full
grep -q "It's all here" full.svg || { echo "the title is missing"; bad=1; }
grep -q 'link 1 Mbit/s' full.svg || { echo "the phases are missing"; bad=1; }
grep -q 'target rate' full.svg || { echo "the target rate is missing"; bad=1; }

# Without a controller, a monitor or drops; its last line is being written.
printf '0,0,0,0,0,0,1\n100,0,0,0,2,0,1\n200,0,0,0,3,0,1\n300,0,0,0' >bare.csv
"$plot" bare.csv bare || bad=1
drawn bare
! grep -q 'target rate' bare.svg || { echo "there is a target rate without a controller"; bad=1; }

printf 'a,b,c\n' >text.csv
: >empty.csv
refused 'no line of seven numbers' text.csv x
refused 'no line of seven numbers' empty.csv x
refused 'cannot be read' none.csv x
refused 'takes a trace and a name' bare.csv
refused "unknown option '--size'" --size 3 bare.csv x
refused "'many' is not a number" --slots many bare.csv x
# Nothing but the pictures was made.
[ "$(ls | grep -vcE '^(plain|full|bare)\.(png|svg)$|\.csv$|^out$')" -eq 0 ] || { ls; bad=1; }
exit "$bad"
