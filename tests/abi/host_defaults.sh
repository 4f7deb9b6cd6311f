#!/bin/bash
# The host defaults: one function in each object, all of host.h, and a host may define any one of them itself,
# or all, or none, with the shared library and with the static one, also when it hides its names.
. "$(dirname "$0")/common.sh"

sort "$(dirname "$0")/host_names.txt" >"$work/host"
"$NM" -A --defined-only "$DEFAULTS" | awk '$2 ~ /^[A-TV-Z]$/ { print $3, $1 }' | sort >"$work/defined"
cut -d' ' -f1 "$work/defined" >"$work/names"
same "defined by the defaults" "$work/host" "$work/names"
# Behind the name of the archive stands that of the object.
[ "$(cut -d' ' -f2 "$work/defined" | sort -u | wc -l)" -eq "$(wc -l <"$work/host")" ] ||
    fail "two defaults share an object"

[ -z "$SANITIZE" ] || sanitize=-fsanitize=$SANITIZE
compile() { "$CC" -std=c11 -Wall -Wextra -Werror -fvisibility=hidden ${sanitize:-} -I "$HEADERS" -c "$1" -o "$2"; }
# Does not start anything: the program only has to be linked, with everything the library refers to.
cat >"$work/main.c" <<'PROGRAM'
#include <rtmpcast/rtmpcast.h>
int main(void)
{
    return RtmpServerCreate(0, "no interface of this name", 0, 0, 0, 0, 0) == 0 ? 0 : 1;
}
PROGRAM
compile "$work/main.c" "$work/main.o"

# linked OUTPUT LIBRARY OBJECT...
linked() {
    local output=$1 libraries=()
    case $2 in
    shared) libraries=("$LIBRARY" "$DEFAULTS") ;;
    static) libraries=(-Wl,--whole-archive "$ARCHIVE" -Wl,--no-whole-archive "$DEFAULTS" -lcrypto -lstdc++) ;;
    esac
    shift 2
    "$CC" ${sanitize:-} -pthread "$work/main.o" "$@" "${libraries[@]}" -o "$output"
}

: >"$work/all.c"
while read -r name; do
    # Declared by nothing, so that one definition fits every name.
    echo "__attribute__((visibility(\"default\"))) int $name(void); int $name(void) { return 0; }" >"$work/one.c"
    cat "$work/one.c" >>"$work/all.c"
    "$CC" ${sanitize:-} -c "$work/one.c" -fno-builtin -o "$work/one.o"
    linked "$work/program" shared "$work/one.o" || fail "a host cannot define $name"
done <"$work/host"

"$CC" ${sanitize:-} -c "$work/all.c" -fno-builtin -o "$work/all.o"
for kind in shared static; do
    linked "$work/program" $kind || fail "no host function at all, $kind library"
    linked "$work/program" $kind "$work/all.o" || fail "all host functions, $kind library"
done

# A definition that includes host.h is found by the shared library although the host hides its names.
cat >"$work/hidden.c" <<'PROGRAM'
#include <rtmpcast/host.h>
uint64_t cc_gen_init(void)
{
    return 1;
}
PROGRAM
compile "$work/hidden.c" "$work/hidden.o"
linked "$work/program" shared "$work/hidden.o" || fail "a hidden host function"
defined "$work/program" | grep -qx cc_gen_init || fail "the library would not find the host's cc_gen_init"

# The library's inside is its own: a host function of an exported name does not get between.
echo 'int IsSessionNameExists(void); int IsSessionNameExists(void) { return 0; }' >"$work/one.c"
"$CC" ${sanitize:-} -c "$work/one.c" -o "$work/one.o"
cat >"$work/twin.c" <<'PROGRAM'
#include <rtmpcast/server.h>
int main(void)
{
    RtmpServer *server = RtmpServerCreate(0, "any", 0, 0, 0, 0, 0);
    int created = RtmpSessionCreate(server, "new", 0) != 0;
    return RtmpServerDestroy(server) == 0 && created ? 0 : 1;
}
PROGRAM
"$CC" ${sanitize:-} -I "$HEADERS" -c "$work/twin.c" -o "$work/main.o"
linked "$work/program" shared "$work/one.o" "-Wl,-rpath,$(dirname "$LIBRARY")"
run "$work/program" || fail "the host's IsSessionNameExists was called from inside the library"

# libssl in front of the defaults: OpenSSL's functions are taken, and the failing defaults left alone.
if echo 'int SSL_read(void); int main(void) { return SSL_read != 0 ? 0 : 1; }' >"$work/tls.c" &&
    "$CC" -fno-builtin "$work/tls.c" -lssl -lcrypto -o "$work/tls" 2>/dev/null; then
    "$CC" ${sanitize:-} -pthread "$work/main.o" "$LIBRARY" -lssl "$DEFAULTS" -o "$work/program"
    defined "$work/program" >"$work/found"
    grep -qx cc_gen_init "$work/found" || fail "the defaults are not there"
    if grep -xE 'SSL_(read|write)' "$work/found"; then
        fail "the defaults stand before libssl"
    fi
else
    fail "libssl is not installed (Debian: libssl-dev)"
fi
