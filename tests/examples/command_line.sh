#!/bin/bash
# live_host's exit codes and messages: command_line.sh LIVE_HOST
set -u

live_host=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
bad=0

# expect CODE TEXT arguments...: the exit code, and a text that its output holds.
expect() {
    local code=$1 text=$2 got
    shift 2
    timeout 30 "$live_host" "$@" >"$work/out" 2>&1
    got=$?
    if [ "$got" -ne "$code" ] || ! grep -qF -- "$text" "$work/out"; then
        echo "live_host $*: exit code $got, not $code, or no '$text' in:"
        cat "$work/out"
        bad=1
    fi
}

printf 'no media\n' >"$work/text.txt"

expect 0 '--zero-copy' --help
expect 2 "unknown option '--bogus'" --bogus
expect 2 'needs a value' --session
expect 2 'is not a number from 0 to 65535' --rtmp-port x
expect 2 'live_host --help shows all options' --sender fast
expect 1 'No such file or directory' --input "$work/none.mp4"
expect 1 'Invalid data found' --input "$work/text.txt"
expect 1 'Is a directory' --input "$work"
expect 2 'needs --encode' --size 640x360
expect 2 'is not WxH with even numbers' --encode --size 641x360
expect 2 "is not one of x264's presets" --encode --preset quick
expect 2 'needs --trace-dir' --sender threaded --burn-in
expect 2 'need --sender threaded' --abr-min-bitrate 1
expect 2 'exclude each other' --exact --players all
expect 2 "is not a rule" --players handshakes
expect 1 'No such file or directory' --encode --input "$work/none.mp4"
expect 1 'Invalid data found' --encode --input "$work/text.txt"
expect 2 'not for --exact' --exact --token x
expect 1 "--tls-cert: '$work/none.pem': No such file or directory" --rtmps-port 4433 --tls-cert "$work/none.pem" \
    --tls-key "$work/none.pem"
expect 1 "--tls-cert: '$work/text.txt': there is none in it" --rtmps-port 4433 --tls-cert "$work/text.txt" \
    --tls-key "$work/text.txt"
expect 1 "--stats-json: '$work/none/stats.json': No such file or directory" --stats-json "$work/none/stats.json"
expect 1 "no network interface 'nosuch0' with an IPv4 address" --interface nosuch0 --log-level quiet
expect 0 'there is no RTMP listener' --rtmp-port 0 --duration 1
expect 0 'while nobody watched' --rtmp-port 0 --session a --session b --zero-copy --duration 1

# A signal ends it cleanly.
for signal in INT TERM; do
    : >"$work/out" # it is there before anybody follows it
    "$live_host" --rtmp-port 0 >>"$work/out" 2>&1 &
    host=$!
    timeout 20 grep -qm1 '^viewers' <(tail -n +1 -f --pid="$host" "$work/out")
    kill -"$signal" "$host"
    wait "$host"
    code=$?
    if [ "$code" -ne 0 ] || ! grep -q '^stopping:' "$work/out"; then
        echo "SIG$signal: exit code $code"
        cat "$work/out"
        bad=1
    fi
done
exit "$bad"
