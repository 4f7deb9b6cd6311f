#!/bin/bash
# The shared library offers exactly what the headers declare with RTMP_API, and both are the checked-in list.
# Sanitizer builds are no exception: their runtimes add nothing to the library's own names.
. "$(dirname "$0")/common.sh"

list=$(dirname "$0")/exported_names.txt
sort "$list" >"$work/list"
declared RTMP_API "$HEADERS"/rtmpcast/*.h >"$work/declared"
defined "$LIBRARY" >"$work/exported"
same "declared in the headers" "$work/list" "$work/declared"
same "exported by the library" "$work/list" "$work/exported"
