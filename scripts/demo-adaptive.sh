#!/bin/bash
# The network decides: live_host encodes at 4 Mbit/s, a real player watches over a link that first carries all of
# it, then far less, then all of it again. The adaptive bitrate controller has to lower the encoder's rate and to
# raise it again, while the player goes on. Once on the steady road, where the queue is what the player is behind
# in the session's ring, and once on the exact one, where it is what the sender thread has not sent.
#
#   scripts/demo-adaptive.sh [--steady | --exact] [--relay] [--quick] [--out DIR]
#
#   --steady, --exact  one road alone
#   --relay    no network namespaces: a relay on loopback that reads at a bounded rate stands for the link. This
#              is also what happens where namespaces may not be made.
#   --quick    shorter phases
#   --out DIR  where everything lies afterwards, in a directory for each road (out/adaptive)
#
# With namespaces (as root): host and player each in one of their own, joined by a veth pair whose rate is set
# with tc. Ends with exit 0 only when the rate was lowered, the player went on, and the rate recovered.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out=$root/out/adaptive
bitrate=4000 lowest=300              # kbit/s, of the encoder
wide=20000 narrow=1000               # kbit/s, of the link
before=12 during=18 after=22         # seconds, on each road
slots=91                             # of the video ring: --video-queue and one more
relay=0
roads="steady exact"

. "$root/scripts/stage.sh"

while [ $# -gt 0 ]; do
    case $1 in
    -h | --help) show_help; exit 0 ;;
    --steady | --exact) roads=${1#--} ;;
    --relay) relay=1 ;;
    --quick) before=10 during=14 after=20 ;;
    --out) out=$(out_directory "$@"); shift ;;
    *) fail "unknown option '$1'; --help shows all" ;;
    esac
    shift
done

"$root/scripts/install_deps.sh" adaptive

mkdir -p "$out"
build_host live_host
live_host=$build/examples/live_host
# The library opens "<directory>/debug-<time>.csv" and cuts long paths: the trace is written beside the script's
# own short temporary files and moved afterwards.
set_stage
works=$work

# --------------------------------------------------------------------------------------------- leaving no trace
host_ns=rtmpcast-host-$$
player_ns=rtmpcast-player-$$
namespaces=()
undo() {
    local name
    for name in "${namespaces[@]}"; do
        ip netns del "$name" 2>/dev/null || true # its end of the veth pair goes with it
    done
}

# ------------------------------------------------------------------------------------------------- the link
# For commands in the background: each becomes the program itself, so that its process id is the program's.
in_host() { [ "$relay" -eq 1 ] && exec "$@"; exec ip netns exec "$host_ns" "$@"; }
in_player() { [ "$relay" -eq 1 ] && exec "$@"; exec ip netns exec "$player_ns" "$@"; }

# set_link KBIT/S: what the link carries from now on. A burst of a few packets, and at most 200 ms of them waiting.
set_link() {
    if [ "$relay" -eq 1 ]; then
        echo "$1" >&7
    else
        ip netns exec "$host_ns" tc qdisc replace dev wire root tbf rate "$1kbit" burst 16kb latency 200ms
    fi
}

make_link() {
    ip netns add "$host_ns" || return 1
    namespaces+=("$host_ns")
    ip netns add "$player_ns" || return 1
    namespaces+=("$player_ns")
    ip link add name wire netns "$host_ns" type veth peer name wire netns "$player_ns" || return 1
    ip -n "$host_ns" address add 10.99.0.1/30 dev wire || return 1
    ip -n "$player_ns" address add 10.99.0.2/30 dev wire || return 1
    local name
    for name in "$host_ns" "$player_ns"; do
        ip -n "$name" link set lo up && ip -n "$name" link set wire up || return 1
    done
    set_link "$wide"
}

if [ "$relay" -eq 0 ] && ! make_link 2>"$works/link.log"; then
    say "Network namespaces with a shaped link cannot be made here: $(tail -n 1 "$works/link.log")"
    say "A relay that reads at a bounded rate stands for the link instead"
    undo
    namespaces=()
    relay=1
fi

if [ "$relay" -eq 1 ]; then
    interface=lo port=$(free_port) player_port=$(free_port) address=127.0.0.1
    [ "$port" != "$player_port" ] || fail "no two free ports found"
    say "Link: a relay on 127.0.0.1"
else
    interface=wire port=1935 player_port=1935 address=10.99.0.1
    say "Link: a veth pair between the namespaces $host_ns and $player_ns, shaped with tc"
fi

# ------------------------------------------------------------------------------------------------ streaming
# The send buffer is a small one: by default the kernel takes up to 4 MB off the host's hands for each player, half
# a minute of a slow link that nobody would notice.
start_host() {
    in_host "$live_host" "$@" --encode --size 960x540 --video-bitrate "${bitrate}000" --interface "$interface" \
        --rtmp-port "$port" --send-buffer 16 --log-level info --duration $((before + during + after + 60)) \
        --sender threaded --video-queue $((slots - 1)) --audio-queue 240 --bandwidth-window 60 \
        --trace-dir "$work" --trace-every 3 --abr-min-bitrate "${lowest}000" --abr-start-delay 3000 \
        --abr-increase-fullness 5 --abr-increase-percent 25 --abr-increase-min-step 100000 \
        --abr-increase-interval 1 --abr-decrease-fullness 10 --abr-decrease-percent 100 \
        --abr-decrease-fullness-high 30 --abr-decrease-percent-high 150 --abr-decrease-interval 1 \
        >"$here/live_host.log" 2>&1 &
    server=$!
    processes+=("$server")
    await_serving "$server" "$here/live_host.log"
}

start_relay() {
    mkfifo "$work/rate"
    exec 7<>"$work/rate"
    "$root/tools/bounded_relay" "$player_port" "$port" "$wide" <"$work/rate" >"$here/relay.log" 2>&1 &
    relay_process=$!
    processes+=("$relay_process")
    for _ in $(seq 100); do
        grep -q listening "$here/relay.log" && break
        sleep 0.1
    done
}

# The trace begins with the first frame that the player is sent.
start_player() {
    # A hash (64 hex digits) and a size switch on the signed handshake of rtmpdump; which ones is all the same.
    in_player rtmpdump -r "rtmp://$address:$player_port/live/stream" -w "$(printf '%064d' 0)" -x 1 \
        -o "$here/recording.flv" >"$here/rtmpdump.log" 2>&1 &
    player=$!
    processes+=("$player")
    for _ in $(seq 500); do
        trace=$(find "$work" -name 'debug-*.csv')
        [ -n "$trace" ] && break
        sleep 0.02
    done
    [ -n "$trace" ] || { tail -n 5 "$here/rtmpdump.log" >&2; fail "the player was sent nothing"; }
    started=$EPOCHREALTIME
}

since_start() { awk "BEGIN { printf \"%.2f\", $EPOCHREALTIME - $started }"; }
recorded() { stat -c %s "$here/recording.flv"; }
ratio() { awk "BEGIN { printf \"%.2f\", ($2 > 0) ? $1 / $2 : 0 }"; }

# watch SECONDS: shows the host's status line meanwhile.
watch() {
    local left
    for ((left = $1; left > 0; left--)); do
        sleep 1
        kill -0 "$server" 2>/dev/null || fail "live_host ended: see $here/live_host.log"
        kill -0 "$player" 2>/dev/null || fail "the player gave up: see $here/rtmpdump.log"
        [ $((left % 5)) -ne 1 ] || grep '^viewers' "$here/live_host.log" | tail -n 1 | sed 's/^/   /'
    done
}

# phase KBIT/S SECONDS NAME
phase() {
    local from
    set_link "$1"
    from=$(since_start)
    say "$3: the link carries $(awk "BEGIN { print $1 / 1000 }") Mbit/s for $2 s"
    watch "$2"
    printf '%s %s %s\n' "$from" "$(since_start)" "$1" >>"$here/phases.txt"
}

stop_all() {
    say "Stopping"
    kill -INT "$player" 2>/dev/null || true
    kill -TERM "$server"
    wait "$server" || fail "live_host did not stop cleanly: see $here/live_host.log"
    wait "$player" || true # its exit code only says that a live stream is not whole
    if [ "$relay" -eq 1 ]; then
        kill "$relay_process" 2>/dev/null || true
        wait "$relay_process" || true
        exec 7>&-
    fi
    processes=()
    cp "$trace" "$here/trace.csv"
}

# stream_on ROAD: everything between the first frame and the last.
stream_on() {
    local options=()
    [ "$1" = steady ] || options=(--exact)
    here=$out/$1 work=$works/$1
    mkdir -p "$here" "$work"
    rm -f "$here"/{trace.csv,phases.txt,trace.png,trace.svg,recording.flv} "$here"/*.log
    say "The $1 road"
    start_host "${options[@]}"
    if [ "$relay" -eq 1 ]; then start_relay; else set_link "$wide"; fi
    start_player
    phase "$wide" "$before" before
    size_before=$(recorded)
    phase "$narrow" "$during" during
    size_during=$(recorded)
    phase "$wide" "$after" after
    stop_all
}

# ------------------------------------------------------------------------------------------------- results
# show_results ROAD
show_results() {
    local boundaries figures size_end frames
    "$root/tools/plot_trace" --slots "$slots" --frame-rate 30 --phases "$here/phases.txt" \
        --title "Adaptive bitrate, $1 road: $((bitrate / 1000)) Mbit/s over a link of $((wide / 1000)), $((narrow / 1000)) and $((wide / 1000)) Mbit/s" \
        "$here/trace.csv" "$here/trace"

    boundaries=$(awk '{ print $2 }' "$here/phases.txt" | head -n 2 | tr '\n' ' ')
    # "before", "low" and "reached": target rates in kbit/s; "queue": the fullest; "drops": all.
    figures=$(awk -F, -v ends="$boundaries" -v slots="$slots" '
        BEGIN { split(ends, end, " "); low = 1e9 }
        { t = $1 / 1000 + $5 / 30; if (t < last) t = last; last = t } # when the frame left
        t < end[1] { first = $3 }
        t >= end[1] && t < end[2] { if ($3 < low) low = $3 }
        t >= end[2] && $3 > high { high = $3 }
        t >= end[2] && !recovered && $3 >= 0.9 * first { recovered = t - end[2] }
        t >= end[1] && !lowered && $3 < 0.95 * first { lowered = t - end[1] }
        t >= end[1] + (end[2] - end[1]) / 2 && t < end[2] { sum += $3; count++ }
        $5 > queue { queue = $5 }
        { drops = $6 }
        END {
            printf "first=%d low=%d reached=%d queue=%d drops=%d ", first, low, high, queue * 100 / slots, drops
            printf "lowered=%.1f recovered=%.1f settled=%d\n", lowered, recovered, count ? sum / count : 0
        }' "$here/trace.csv")
    eval "$figures"
    size_end=$(recorded)
    frames=$(ffprobe -v error -count_packets -select_streams v:0 -show_entries stream=nb_read_packets -of csv=p=0 \
        "$here/recording.flv" 2>/dev/null || echo 0)

    cat <<END
== What happened on the $1 road
   target before                $first kbit/s
   lowest target                $low kbit/s, $(ratio "$low" "$first") of that; first lowered ${lowered} s after the link narrowed
   second half of that phase    target $settled kbit/s on average, $(ratio "$settled" "$narrow") of the link
   target after                 $reached kbit/s, $(ratio "$reached" "$first") of the start; 0.90 of it ${recovered} s after the link widened
   fullest queue                $queue %, $drops frames dropped
   the player recorded          ${frames:-0} pictures; while the link was narrow $(((size_during - size_before) * 8 / 1000 / during)) kbit/s, then $(((size_end - size_during) * 8 / 1000 / after)) kbit/s
   everything                   $here/ (trace.png, trace.svg, trace.csv, recording.flv, *.log)
END

    [ "$first" -gt 0 ] || fail "the controller never started"
    [ $((low * 100)) -lt $((first * 60)) ] || fail "the controller did not lower the rate far enough"
    [ $((reached * 100)) -ge $((first * 90)) ] || fail "the rate did not recover"
    [ $(((size_end - size_during) * 8 / 1000)) -gt $((after * first / 4)) ] || fail "the player did not go on"
    say "The $1 road: the rate followed the link down and up again, and the player went on"
}

for road in $roads; do
    stream_on "$road"
    show_results "$road"
done
