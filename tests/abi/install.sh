#!/bin/bash
# Installs a copy, moves it, and looks whether it still points at where it came from.
. "$(dirname "$0")/common.sh"

rm -rf "$INSTALLED" "$INSTALLED.first"
"$CMAKE" --install "$BUILD" --prefix "$INSTALLED.first" >"$work/log" || { cat "$work/log"; fail "cmake --install"; }
mv "$INSTALLED.first" "$INSTALLED"

cd "$INSTALLED"
for file in include/rtmpcast/rtmpcast.h lib*/cmake/rtmpcast/rtmpcastConfig.cmake lib*/pkgconfig/rtmpcast.pc \
    lib*/librtmpcast.so lib*/librtmpcast.a lib*/librtmpcast_host_defaults.a; do
    [ -s "$file" ] || fail "$file is not installed"
done
for header in "$HEADERS"/rtmpcast/*.h; do
    cmp "$header" "include/rtmpcast/$(basename "$header")" || fail "$header"
done
# Texts that name the source tree, the build tree or the place of installation would break a copy.
if grep -rIlF -e "$SOURCE" -e "$BUILD" -e "$INSTALLED" .; then
    fail "the files above point out of the installed copy"
fi
for library in lib*/librtmpcast.so; do
    if "$READELF" -d "$library" | grep -E 'RPATH|RUNPATH'; then
        fail "the installed library searches places of its own"
    fi
done
find . -type f -o -type l | sort
