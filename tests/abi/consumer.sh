#!/bin/bash
# Builds a host against the installed copy, runs it, and compares what it prints.
# consumer.sh c|cpp|static|pkg-config|pkg-config-static
. "$(dirname "$0")/common.sh"

here=$(cd "$(dirname "$0")" && pwd)
kind=$1
# A copy of the host's source: nothing of this tree is near it.
case $kind in
cpp) cp -r "$here/consumer_cpp" "$work/source" ;;
*) cp -r "$here/consumer_c" "$work/source" ;;
esac
[ -z "$SANITIZE" ] || sanitize=-fsanitize=$SANITIZE
libraries=$(dirname "$(ls "$INSTALLED"/lib*/librtmpcast.a "$INSTALLED"/lib*/*/librtmpcast.a 2>/dev/null | head -n 1)")
program=$work/build/consumer
mkdir "$work/build"

case $kind in
c | cpp | static)
    "$CMAKE" -G "$GENERATOR" -S "$work/source" -B "$work/build" -DCMAKE_PREFIX_PATH="$INSTALLED" \
        -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_C_FLAGS="${sanitize:-}" \
        -DCMAKE_CXX_FLAGS="${sanitize:-}" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
        ${TOOLCHAIN:+"-DCMAKE_TOOLCHAIN_FILE=$TOOLCHAIN"} \
        -DCONSUMER_STATIC="$([ "$kind" = static ] && echo ON || echo OFF)" >"$work/log" 2>&1 &&
        "$CMAKE" --build "$work/build" >>"$work/log" 2>&1 || { cat "$work/log"; fail "building"; }
    ;;
pkg-config)
    export PKG_CONFIG_PATH=$libraries/pkgconfig LD_LIBRARY_PATH=$libraries
    # shellcheck disable=SC2046 # a list of flags
    "$CC" ${sanitize:-} "$work/source/consumer.c" $("$PKG_CONFIG" --cflags --libs rtmpcast) -o "$program"
    ;;
pkg-config-static)
    # Static where the library is concerned, and only there.
    export PKG_CONFIG_PATH=$libraries/pkgconfig
    # shellcheck disable=SC2046 # a list of flags
    "$CC" ${sanitize:-} "$work/source/consumer.c" \
        $("$PKG_CONFIG" --static --cflags --libs rtmpcast | sed 's/-lrtmpcast\b/-l:librtmpcast.a/') -o "$program"
    ;;
*) fail "unknown kind of host: $kind" ;;
esac

needed "$program" >"$work/needed"
case $kind in
*static)
    if grep librtmpcast "$work/needed"; then fail "the shared library is needed"; fi ;;
*)
    grep -qx "librtmpcast.so.$SOVERSION" "$work/needed" || fail "the shared library is not needed" ;;
esac

run "$program" >"$work/printed" || fail "the host ended with $?: $(cat "$work/printed")"
# Behind "RTMPWriter: " stand lines of the library, once its server is going away.
grep -v '^RTMPWriter: ' "$work/printed" >"$work/output" || fail "the host printed nothing"
if [ "$kind" = cpp ]; then
    printf '%s\n' 'settings 0' 'valid 0' 'string 1, length byte 8' 'session 0' 'server 0' \
        'syslog 1 RTMP, closed 1 77' >"$work/wanted"
else
    printf '%s\n' 'lines 1, second -88, exists 0, answers 1, frame -97' 'session 0' 'server 0' >"$work/wanted"
fi
diff -u --label wanted --label printed "$work/wanted" "$work/output" || fail "the host printed something else"
cat "$work/output"
