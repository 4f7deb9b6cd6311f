#!/bin/bash
# The shared library's name, and what it needs: libcrypto, the C library, the C++ and gcc runtime. A sanitizer
# build needs its runtimes too, and what these pull in; no other build may.
. "$(dirname "$0")/common.sh"

soname=$("$READELF" -d "$LIBRARY" | sed -nE 's/.*\(SONAME\).*\[(.*)\]/\1/p')
[ "$soname" = "librtmpcast.so.$SOVERSION" ] || fail "soname is '$soname'"
[ "$(readlink -f "$LIBRARY")" = "$(readlink -f "$(dirname "$LIBRARY")/$soname")" ] || fail "no link $soname"

wanted='libcrypto libstdc++ libgcc_s libc'
allowed='libcrypto|libstdc\+\+|libgcc_s|libc|libpthread|ld-linux[-a-z0-9_]*'
[ -z "$SANITIZE" ] || allowed="$allowed|libasan|libubsan|libtsan|liblsan|libm|libdl|librt"
needed "$LIBRARY" >"$work/needed"
cat "$work/needed"
for name in $wanted; do
    grep -q "^$name\.so" "$work/needed" || fail "$name is not among them"
done
if grep -vxE "($allowed)\.so[.0-9]*" "$work/needed"; then
    fail "the names above should not be needed"
fi
# An installed copy must not look for libraries in the tree it was built in.
if "$READELF" -d "$LIBRARY" | grep -E 'RPATH|RUNPATH' | grep -F "$BUILD"; then
    fail "the library searches the build tree"
fi
