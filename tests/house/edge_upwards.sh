#!/bin/bash
# check_floors notices what it is there to notice: an include that runs up, a call that runs up, and a call that
# no header shows. Each is put into a copy of the tree.
set -u
root=$1 objects=$2 nm=$3 cxx=$4
check=$(dirname "$0")/check_floors
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT

fresh_copy() {
    rm -rf "$work"/* && mkdir -p "$work/tree" "$work/objects" || exit 1
    sed 's/#.*//' "$(dirname "$0")/floors.txt" | tr ' ' '\n' | grep '^[a-z]' | while read -r room; do
        mkdir -p "$work/tree/$room" && cp "$root/$room"/* "$work/tree/$room/" 2>/dev/null
    done
    (cd "$objects" && find . -name "*.cpp.o" | tar -cf - -T - | tar -xf - -C "$work/objects") || exit 1
}

# expect TEXT: the copy is refused, and the reason holds TEXT.
expect() {
    local said
    if said=$("$check" "$work/tree" "$work/objects" "$nm"); then
        echo "went unnoticed: $1"
        exit 1
    fi
    grep -qF -- "$1" <<<"$said" || { echo "expected: $1"; echo "$said"; exit 1; }
}

# build NAME: the object of a source that was changed.
build() { "$cxx" -std=gnu++17 -I "$work/tree/include" -I "$work/tree" -c "$work/tree/$1" -o "$work/objects/$1.o" || exit 1; }

fresh_copy
"$check" "$work/tree" "$work/objects" "$nm" || exit 1

fresh_copy
sed -i '1i #include "state/client.h"' "$work/tree/net/log.h"
expect "net/log.h (floor 2) includes state/client.h (floor 6)"

fresh_copy
sed -i '1i #include "amf/object.h"' "$work/tree/instruments/ring.h"
expect "instruments/ring.h (floor 3) includes amf/object.h (floor 3)"

fresh_copy
echo 'extern "C" int ProcessSend(RtmpClient *, RtmpRecvPkt *, unsigned); int Up() { return ProcessSend(nullptr, nullptr, 0); }' \
    >>"$work/tree/net/signal.cpp"
build net/signal.cpp
expect "net/signal.cpp (floor 2) calls delivery/replies/replies.cpp (floor 8): ProcessSend"

fresh_copy
echo 'extern "C" void FreeCodecInfo(CodecInfo *); void Unseen() { FreeCodecInfo(nullptr); }' >>"$work/tree/serve/accept.cpp"
build serve/accept.cpp
expect "serve/accept.cpp calls FreeCodecInfo of media/media_info.cpp, which no header that it includes declares"

fresh_copy
sed -i '1i #include "net/platform.h"' "$work/tree/net/atomic.h"
sed -i '1i #include "net/atomic.h"' "$work/tree/net/platform.h"
expect "a circle of files"
echo "edges upwards are noticed"
