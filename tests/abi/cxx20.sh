#!/bin/bash
# Every source of the library is C++20 too.
. "$(dirname "$0")/common.sh"

mapfile -t sources < <(library_files | grep '\.cpp$')
[ "${#sources[@]}" -gt 40 ] || fail "sources not found"
for name in "${sources[@]}"; do
    "$CXX" -std=gnu++20 -Wall -Wextra -Wshadow -Wconversion -Wformat=2 -Werror -fsyntax-only \
        -I "$HEADERS" -I "$SOURCE" "$SOURCE/$name" || fail "$name"
done
echo "${#sources[@]} sources"
