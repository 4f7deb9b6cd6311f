# Sourced by the demos: what they say, what they start and end, and where there is room for it. Bash.
# A demo that sources it has $root, the repository, and $out, and fails on errors and unset variables.

say() { printf '== %s\n' "$*"; }
fail() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

# The lines of comment at the beginning of a script are its help.
show_help() { sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' "$0"; }

# read_options OPTION...: those of a demo that can keep running, into $serve and $out.
read_options() {
    serve=0
    while [ $# -gt 0 ]; do
        case $1 in
        -h | --help) show_help; exit 0 ;;
        --serve) serve=1 ;;
        --out) out=$(out_directory "$@"); shift ;;
        *) fail "unknown option '$1'; --help shows all" ;;
        esac
        shift
    done
}

# out_directory --out DIR: its absolute path. It is there afterwards.
out_directory() {
    [ $# -ge 2 ] || fail "--out needs a directory"
    mkdir -p "$2" && cd "$2" && pwd
}

# build_host TARGET: a host of examples/, built for speed, into $build.
build_host() {
    build=$root/build/demo
    mkdir -p "$root/build"
    say "Building (first time: about a minute)"
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DRTMPCAST_BUILD_TESTS=OFF \
        -DRTMPCAST_BUILD_BENCH=OFF >"$build.log" 2>&1 || { cat "$build.log" >&2; exit 1; }
    cmake --build "$build" --target "$1"
}

# --------------------------------------------------------------------------------------------- leaving no trace
# set_stage: a scratch directory $work, and an end at which it and all that is in `processes` are gone. What else has
# to be undone, a procedure of the demo named `undo` does.
processes=()
set_stage() {
    stage=$(mktemp -d)
    work=$stage # a demo may go on in a part of it
    trap clear_stage EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
}

clear_stage() {
    local process
    trap '' INT TERM
    for process in "${processes[@]}"; do
        kill "$process" 2>/dev/null || true
    done
    for process in "${processes[@]}"; do
        wait "$process" 2>/dev/null || true
    done
    if declare -F undo >/dev/null; then
        undo
    fi
    rm -rf "$stage"
}

# free_port: one of the loopback range that nobody answers on.
free_port() {
    local port
    for _ in $(seq 50); do
        port=$((20000 + RANDOM % 12000))
        if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
            echo "$port"
            return
        fi
    done
    return 1
}

# wait_for SECONDS WHAT COMMAND...: until the command succeeds.
wait_for() {
    local seconds=$1 what=$2
    shift 2
    for _ in $(seq $((seconds * 10))); do
        if "$@" >/dev/null 2>&1; then
            return
        fi
        sleep 0.1
    done
    fail "$what: not within $seconds seconds; see $out"
}

# await_serving PROCESS LOG: until that live_host serves.
await_serving() {
    for _ in $(seq 100); do
        grep -q '^serving ' "$2" && return
        kill -0 "$1" 2>/dev/null || { cat "$2" >&2; fail "live_host ended"; }
        sleep 0.1
    done
    fail "live_host did not start within 10 seconds: see $2"
}

# rtmp_module: where nginx has its RTMP module.
rtmp_module() {
    dpkg -L libnginx-mod-rtmp 2>/dev/null | grep '/ngx_rtmp_module\.so$' || fail "nginx has no RTMP module"
}

# pictures FILE: how many it has.
pictures() {
    ffprobe -v error -count_packets -select_streams v:0 -show_entries stream=nb_read_packets -of csv=p=0 "$1"
}

# must_decode FILE LOG: all of it, without a complaint.
must_decode() {
    ffmpeg -nostdin -v error -xerror -i "$1" -f null - >"$2" 2>&1 || { cat "$2" >&2; fail "decoding $1 failed"; }
    [ ! -s "$2" ] || { cat "$2" >&2; fail "decoding $1 reported errors"; }
}
