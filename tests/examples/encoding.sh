#!/bin/bash
# live_host encodes, rtmpdump records, ffmpeg decodes: encoding.sh LIVE_HOST CLIP
set -u

live_host=$1 clip=$2
work=$(mktemp -d)
host=
trap 'kill "$host" 2>/dev/null; rm -rf "$work"' EXIT
for tool in rtmpdump ffmpeg ffprobe; do
    command -v "$tool" >/dev/null || { echo "$tool is missing"; exit 1; }
done

free_port() {
    local port
    for _ in $(seq 50); do
        port=$((20000 + RANDOM % 12000))
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return; }
    done
}

# check NAME WIDTH live_host-options...: records three seconds or so, all of which must decode.
check() {
    local name=$1 width=$2 port
    shift 2
    port=$(free_port)
    : >"$work/$name.log" # it is there before anybody follows it
    "$live_host" --interface lo --rtmp-port "$port" --duration 60 --encode "$@" >>"$work/$name.log" 2>&1 &
    host=$!
    timeout 30 grep -qm1 '^serving ' <(tail -n +1 -f --pid="$host" "$work/$name.log")
    timeout --signal=INT 5 rtmpdump -q -r "rtmp://127.0.0.1:$port/live/stream" -w "$(printf '%064d' 0)" -x 1 \
        -o "$work/$name.flv" >"$work/$name.player" 2>&1
    kill -TERM "$host"
    wait "$host" || { echo "$name: live_host did not stop cleanly"; cat "$work/$name.log"; return 1; }

    local frames
    frames=$(ffprobe -v error -count_packets -select_streams v:0 -show_entries stream=width,nb_read_packets \
        -of csv=p=0 "$work/$name.flv")
    [[ $frames =~ ^$width,[0-9]+$ && ${frames#*,} -ge 40 ]] ||
        { echo "$name: '$frames' is not $width pixels and 40 pictures"; cat "$work/$name.log"; return 1; }
    [ -n "$(ffprobe -v error -select_streams a:0 -show_entries stream=codec_name -of csv=p=0 "$work/$name.flv")" ] ||
        { echo "$name: there is no sound"; return 1; }
    # From the first key frame on.
    ffmpeg -nostdin -v error -i "$work/$name.flv" -c copy "$work/$name.mkv" 2>"$work/$name.decode"
    ffmpeg -nostdin -v error -xerror -i "$work/$name.mkv" -f null - 2>>"$work/$name.decode"
    [ ! -s "$work/$name.decode" ] || { echo "$name: decoding failed"; cat "$work/$name.decode"; return 1; }
}

bad=0
check pattern 320 --size 320x180 --preset ultrafast --video-bitrate 800000 --sender threaded \
    --bandwidth-window 30 --trace-dir "$work/trace" --trace-every 5 --adaptive || bad=1
grep -qE '^viewers 1 .* out [0-9]+ target 800 kbit/s  queue [0-9]+% \([0-9]+/121\)  dropped 0 ' "$work/pattern.log" ||
    { echo "the status line does not show queue, rates and drops:"; cat "$work/pattern.log"; bad=1; }
check file 320 --size 320x180 --preset ultrafast --video-bitrate 800000 --input "$clip" || bad=1
exit "$bad"
