#!/bin/bash
# Every source that uses OpenSSL compiles where all deprecated calls are hidden.
. "$(dirname "$0")/common.sh"

compile() {
    "$CXX" -x c++ -std=c++17 -Wall -Wextra -Werror -fsyntax-only -DOPENSSL_API_COMPAT=0x30000000L \
        -DOPENSSL_NO_DEPRECATED -I "$HEADERS" -I "$SOURCE" "$1"
}
mapfile -t sources < <(library_files | (cd "$SOURCE" && xargs grep -l 'openssl/'))
for name in net/handshake.cpp net/tls_io.cpp; do
    printf '%s\n' "${sources[@]}" | grep -qx "$name" || fail "$name does not use OpenSSL: look where it went"
done
for name in "${sources[@]}"; do
    compile "$SOURCE/$name" || fail "$name uses a call that is deprecated"
    echo "$name"
done
# The check sees what it is there to see: these calls went with 1.1 and with 3.0.
printf '#include <%s>\n' openssl/err.h openssl/opensslv.h >"$work/old.cpp"
echo 'void f(void) { ERR_remove_state(0); }' >>"$work/old.cpp"
if compile "$work/old.cpp" 2>/dev/null; then
    fail "ERR_remove_state went unnoticed"
fi
if echo '#include <openssl/opensslv.h>
#if OPENSSL_VERSION_NUMBER < 0x30000000L
#error
#endif' | "$CXX" -x c++ -fsyntax-only - 2>/dev/null; then
    printf '#include <openssl/hmac.h>\nHMAC_CTX *f(void) { return HMAC_CTX_new(); }\n' >"$work/old.cpp"
    if compile "$work/old.cpp" 2>/dev/null; then
        fail "HMAC_CTX_new went unnoticed"
    fi
fi
