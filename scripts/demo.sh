#!/bin/bash
# Builds the library and its reference host, streams a clip to a real player on the loopback interface, and
# proves that what the player recorded decodes.
#
#   scripts/demo.sh                             play, record, check; everything lies in out/ afterwards
#   scripts/demo.sh --serve [live_host options] keep serving until Ctrl-C instead
#
# More options go to live_host, for instance: scripts/demo.sh --serve --interface any --rtmp-port 1935
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out=$root/out
seconds=6
. "$root/scripts/stage.sh"

serve=0
case ${1:-} in
-h | --help) show_help; exit 0 ;;
--serve) serve=1; shift ;;
esac

"$root/scripts/install_deps.sh" demo
build_host live_host
live_host=$build/examples/live_host

port=$(free_port) || fail "no free port found"
url=rtmp://127.0.0.1:$port/live/stream

# watch URL: what plays it.
watch() {
    printf '   %s %s\n' ffplay "$1" vlc "$1" "mpv --profile=low-latency" "$1"
    printf '   rtmpdump --live -q -r %s -o - | ffplay -\n' "$1"
}

if [ "$serve" -eq 1 ]; then
    # The options of the caller come last and win.
    set -- --interface lo --rtmp-port "$port" "$@"
    session=stream name=lo
    for ((i = 1; i <= $#; i++)); do
        next=$((i + 1))
        case ${!i} in
        --session) session=${!next-} ;;
        --session=*) session=${!i#*=} ;;
        --rtmp-port) port=${!next-} ;;
        --rtmp-port=*) port=${!i#*=} ;;
        --interface) name=${!next-} ;;
        --interface=*) name=${!i#*=} ;;
        esac
    done
    host=127.0.0.1
    [ "$name" = lo ] || host=$(hostname -I 2>/dev/null | awk '{ print $1 }')
    say "Serving until Ctrl-C. On a machine with a screen, any of these plays it:"
    watch "rtmp://${host:-HOST}:$port/live/$session"
    exec "$live_host" "$@"
fi

# ------------------------------------------------------------------------------------------------ streaming
mkdir -p "$out"
rm -f "$out"/recording.flv "$out"/frame.png "$out"/*.log
set_stage

"$live_host" --interface lo --rtmp-port "$port" --duration 120 --log-level info "$@" >"$out/live_host.log" 2>&1 &
server=$!
processes+=("$server")
await_serving "$server" "$out/live_host.log"
say "live_host serves $url"

say "rtmpdump plays and records $seconds seconds"
# A live stream never ends, so the player is interrupted, and its exit code says that the file is not whole.
# The checks below decide.
timeout --signal=INT "$seconds" rtmpdump --live -r "$url" -o "$out/recording.flv" \
    >"$out/rtmpdump.log" 2>&1 || true
[ -s "$out/recording.flv" ] || { tail -n 20 "$out/rtmpdump.log" >&2; fail "rtmpdump recorded nothing"; }

say "Stopping live_host"
kill -TERM "$server"
wait "$server" || fail "live_host did not stop cleanly: see $out/live_host.log"
processes=()

# ------------------------------------------------------------------------------------------------- checking
say "ffprobe reads the recording"
probe() { ffprobe -v error "$@" "$out/recording.flv"; }
probe -show_entries stream=codec_name,width,height,sample_rate,channels -of compact
frames=$(pictures "$out/recording.flv")
key_frames=$(probe -select_streams v:0 -show_entries packet=flags -of csv=p=0 | grep -c K || true)
sounds=$(probe -count_packets -select_streams a:0 -show_entries stream=nb_read_packets -of csv=p=0)
say "$frames pictures ($key_frames of them key frames), ${sounds:-0} sound frames"
[ "${frames:-0}" -ge $((seconds * 10)) ] || fail "that is too few pictures"
[ "$key_frames" -ge 1 ] || fail "there is no key frame"
probe -select_streams v:0 -show_entries packet=flags -of csv=p=0 | awk 'NR == 1 && /K/ { found = 1 } END { exit !found }' ||
    fail "the first picture is no key frame"

say "ffmpeg decodes it"
must_decode "$out/recording.flv" "$out/decode.log"
ffmpeg -nostdin -v error -y -ss 3 -i "$out/recording.flv" -frames:v 1 "$out/frame.png"
[ -s "$out/frame.png" ] || fail "no picture came out"

say "All is well: the recording decodes without errors"
cat <<END
   recording        $out/recording.flv
   one picture      $out/frame.png
   server's log     $out/live_host.log
   player's log     $out/rtmpdump.log
   the host         $live_host --help
To watch by hand: scripts/demo.sh --serve, and then, on a machine with a screen, what it prints, such as
   ffplay rtmp://HOST:PORT/live/stream
END
