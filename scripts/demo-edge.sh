#!/bin/bash
# Beyond one device, and in a browser: live_host encodes a moving clock, nginx with its RTMP module pulls one copy of
# it and serves the crowd over RTMP and HLS, and a page with hls.js in headless Chromium plays it.
#
#   scripts/demo-edge.sh [--serve] [--out DIR]
#
#   --serve    keep everything running until Ctrl-C, for a browser of yours
#   --out DIR  where everything lies afterwards (out/edge)
#
# Ends with exit 0 only when the page played pictures that move and sound, a player watched the edge over RTMP, and
# the edge's recording decodes; the device saw one viewer all the while.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
modules=$root/build/edge
out=$root/out/edge
. "$root/scripts/stage.sh"
read_options "$@"

"$root/scripts/install_deps.sh" edge
command -v chromium >/dev/null || fail "no chromium"
rtmp_module=$(rtmp_module)

mkdir -p "$out"
rm -f "$out"/*.log "$out"/edge-*.png "$out"/edge.flv "$out"/hop.mkv
build_host live_host

say "hls.js and what drives the browser, from the npm registry"
mkdir -p "$modules"
cp "$root"/examples/edge/package.json "$root"/examples/edge/package-lock.json "$root"/examples/edge/watch.mjs "$modules"
(cd "$modules" && npm ci --no-audit --no-fund --loglevel=error) || fail "npm could not install what package-lock.json names"

set_stage
mkdir "$work/hls" "$work/record" "$work/temp"

# ---------------------------------------------------------------------------------------------------- the device
device_port=$(free_port)
edge_rtmp_port=$(free_port)
edge_http_port=$(free_port)
"$build/examples/live_host" --encode --interface lo --rtmp-port "$device_port" --log-level info \
    >"$out/live_host.log" 2>&1 &
processes+=($!)
await_serving $! "$out/live_host.log"
say "The device serves rtmp://127.0.0.1:$device_port/live/stream"

# ------------------------------------------------------------------------------------------------------ the edge
sed -e "s|@RTMP_MODULE@|$rtmp_module|" -e "s|@USER@|$(id -un)|" -e "s|@WORK@|$work|" -e "s|@OUT@|$out|" \
    -e "s|@DEVICE_PORT@|$device_port|" -e "s|@EDGE_RTMP_PORT@|$edge_rtmp_port|" \
    -e "s|@EDGE_HTTP_PORT@|$edge_http_port|" -e "s|@PAGE@|$root/examples/edge|" \
    -e "s|@HLS_JS@|$modules/node_modules/hls.js/dist/hls.min.js|" \
    "$root/examples/edge/nginx.conf" >"$out/nginx.conf"
sed -i -e "s|@WORK@|$work|g" -e "s|@OUT@|$out|g" "$out/nginx.conf"
nginx -p "$work" -c "$out/nginx.conf" -e "$out/nginx.log" &
processes+=($!)
wait_for 10 "the edge pulls nothing" grep -q 'No. of connected clients : 1' "$out/live_host.log"
wait_for 20 "the edge has no HLS" test -s "$work/hls/stream.m3u8"
edge=rtmp://127.0.0.1:$edge_rtmp_port/live/stream
page=http://127.0.0.1:$edge_http_port/
say "The edge serves $edge and $page"

if [ "$serve" -eq 1 ]; then
    say "Until Ctrl-C. In a browser: $page   With a player: ffplay $edge"
    wait
fi

# ----------------------------------------------------------------------------------------------------- the crowd
say "Chromium plays the page"
(cd "$modules" && node watch.mjs "$page" "$(command -v chromium)" "$out") 2>&1 | tee "$out/browser.log"
[ "${PIPESTATUS[0]}" -eq 0 ] || fail "the page does not play: see $out/browser.log"

say "ffmpeg plays the edge over RTMP, beside it"
timeout 60 ffmpeg -nostdin -v error -y -rtmp_live live -i "$edge" -t 3 -c copy "$out/hop.mkv" 2>"$out/hop.log" ||
    { cat "$out/hop.log" >&2; fail "ffmpeg cannot play the edge"; }
pictures=$(pictures "$out/hop.mkv")
[ "${pictures:-0}" -ge 60 ] || fail "ffmpeg got $pictures pictures from the edge in 3 seconds"

joined=$(grep -c 'Adding client: No. of connected clients' "$out/live_host.log")
[ "$joined" -eq 1 ] || fail "the device was asked $joined times, not once"

say "The edge's recording decodes"
kill "${processes[1]}" # nginx ends its recording
wait "${processes[1]}" || true
mv "$work"/record/*.flv "$out/edge.flv"
must_decode "$out/edge.flv" "$out/decode.log"

say "All is well: a browser and a player watched, and the device served one viewer"
cat <<END
   what the browser showed  $out/edge-1.png, and a second later $out/edge-2.png
   the edge's recording     $out/edge.flv
   the edge                 $out/nginx.conf, nginx.log, nginx-rtmp.log, nginx-http.log
   the device               $out/live_host.log
   more of it               docs/scale-out.md
END
