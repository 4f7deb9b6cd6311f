#!/bin/bash
# From an encoder to streaming services: publish_host encodes a moving clock and publishes it over RTMP and over RTMPS
# at once, to nginx with its RTMP module and a TLS front. Both streams are played from there and decoded. Then nginx is
# killed for five seconds, and the recording goes on with a key frame.
#
#   scripts/demo-publish.sh [--serve] [--out DIR]
#
#   --serve    keep everything running until Ctrl-C, for a player of yours
#   --out DIR  where everything lies afterwards (out/publish)
#
# Ends with exit 0 only when both streams played and decode, publish_host was back on both after nginx was, and all
# four recordings, before and after, begin with a key frame and decode. Less than a minute, without building.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out=$root/out/publish
away=5 # seconds that nginx is gone
. "$root/scripts/stage.sh"
read_options "$@"

"$root/scripts/install_deps.sh" publish
rtmp_module=$(rtmp_module)
stream_module=$(dpkg -L libnginx-mod-stream | grep '/ngx_stream_module\.so$') || fail "nginx has no stream module"

mkdir -p "$out"
rm -f "$out"/*.log "$out"/*.flv "$out"/*.mkv "$out"/*.png
build_host publish_host
set_stage
mkdir -m 777 "$work/record"

# ------------------------------------------------------------------------------------------------- the service
rtmp_port=$(free_port)
rtmps_port=$(free_port)
[ "$rtmp_port" != "$rtmps_port" ] || fail "no two free ports found"
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=rtmpcast-demo -addext subjectAltName=IP:127.0.0.1 \
    -keyout "$work/key.pem" -out "$work/cert.pem" 2>"$out/openssl.log" || fail "no certificate: see $out/openssl.log"
sed -e "s|@RTMP_MODULE@|$rtmp_module|" -e "s|@STREAM_MODULE@|$stream_module|" -e "s|@USER@|$(id -un)|" \
    -e "s|@RTMP_PORT@|$rtmp_port|" -e "s|@RTMPS_PORT@|$rtmps_port|" -e "s|@WORK@|$work|" -e "s|@OUT@|$out|" \
    "$root/examples/publish_host/nginx.conf" >"$out/nginx.conf"

# A process of its own, without a master and workers that would outlive it.
start_nginx() {
    nginx -p "$work" -c "$out/nginx.conf" -g 'master_process off;' -e "$out/nginx.log" &
    nginx=$!
    processes+=("$nginx")
    wait_for 10 "nginx did not start" bash -c "exec 3<>/dev/tcp/127.0.0.1/$rtmp_port"
}
start_nginx
plain=rtmp://127.0.0.1:$rtmp_port/live/plain
tls=rtmps://127.0.0.1:$rtmps_port/live/tls
say "nginx takes rtmp://127.0.0.1:$rtmp_port and rtmps://127.0.0.1:$rtmps_port"

# --------------------------------------------------------------------------------------------------- publishing
"$build/examples/publish_host" --encode --size 960x540 --video-bitrate 2000000 --ca "$work/cert.pem" --to "$plain" \
    --to "$tls" >"$out/publish_host.log" 2>&1 &
host=$!
processes+=("$host")

# published TIMES: how often publish_host has begun, on both services together.
published() { [ "$(grep -c '^publishing to ' "$out/publish_host.log")" -ge "$1" ]; }
wait_for 15 "publish_host did not reach both services" published 2
say "publish_host publishes one encoder's stream to both"

if [ "$serve" -eq 1 ]; then
    say "Until Ctrl-C. With a player: ffplay $plain   or, what came over TLS: ffplay ${plain%plain}tls"
    wait
fi

say "ffmpeg plays both from nginx"
# play NAME: four seconds of that stream.
play() {
    timeout 30 ffmpeg -nostdin -v error -y -rtmp_live live -i "rtmp://127.0.0.1:$rtmp_port/live/$1" -t 4 -c copy \
        "$out/$1.mkv" 2>"$out/play-$1.log"
}
play plain &
first=$!
play tls || { cat "$out/play-tls.log" >&2; fail "the stream that came over TLS does not play"; }
wait "$first" || { cat "$out/play-plain.log" >&2; fail "the stream that came in the clear does not play"; }
for name in plain tls; do
    must_decode "$out/$name.mkv" "$out/decode-$name.log"
    # Sound comes at once, pictures from the next key frame on, up to a second later.
    [ "$(pictures "$out/$name.mkv")" -ge 80 ] || fail "$name: only $(pictures "$out/$name.mkv") pictures in 4 s"
done

say "nginx is killed, and comes back after $away seconds"
{
    kill -KILL "$nginx"
    wait "$nginx" || true
} 2>/dev/null # where bash would tell of it
processes=("$host")
sleep "$away"
start_nginx
wait_for 30 "publish_host did not come back" published 4
sleep 4

say "Stopping"
kill -INT "$host"
wait "$host" || fail "publish_host did not stop cleanly: see $out/publish_host.log"
kill "$nginx"
wait "$nginx" 2>/dev/null || true

# ----------------------------------------------------------------------------------------------------- checking
# flags FILE: of its first picture.
flags() { ffprobe -v error -select_streams v:0 -show_entries packet=flags -of csv=p=0 "$1" | head -n 1; }

for name in plain tls; do
    recordings=("$work/record/$name"-*.flv) # named by the time at which they begin
    [ ${#recordings[@]} -eq 2 ] || fail "$name: nginx made ${#recordings[@]} recordings, not 2"
    for i in 0 1; do
        when=$([ $i -eq 0 ] && echo before || echo after)
        recording=$out/$name-$when.flv
        mv "${recordings[$i]}" "$recording"
        must_decode "$recording" "$out/decode-$name-$when.log"
        case $(flags "$recording") in
        K*) ;;
        *) fail "$recording does not begin with a key frame" ;;
        esac
        say "$name, $when the restart: $(pictures "$recording") pictures, a key frame first"
        [ "$(pictures "$recording")" -ge 60 ] || fail "those are too few"
    done
done

# One picture of all four, two seconds into each: the clock tells that the encoder went on meanwhile.
ffmpeg -nostdin -v error -y -ss 2 -i "$out/plain-before.flv" -ss 2 -i "$out/tls-before.flv" \
    -ss 2 -i "$out/plain-after.flv" -ss 2 -i "$out/tls-after.flv" -filter_complex \
    '[0:v][1:v]hstack[a];[2:v][3:v]hstack[b];[a][b]vstack,scale=1280:-2' -frames:v 1 "$out/clocks.png"
[ -s "$out/clocks.png" ] || fail "no picture came out"

grep '^up ' "$out/publish_host.log" | tail -n 1 | tr '|' '\n' | sed 's/^ */   /'
say "All is well: both streams played, and their recordings went on with key frames when nginx was back"
cat <<END
   played from nginx        $out/plain.mkv, $out/tls.mkv
   nginx's recordings       $out/plain-before.flv, plain-after.flv, tls-before.flv, tls-after.flv
   a picture of all four    $out/clocks.png
   the publisher            $out/publish_host.log
   the service              $out/nginx.conf, nginx.log, nginx-rtmp.log
   the host                 $build/examples/publish_host --help
END
