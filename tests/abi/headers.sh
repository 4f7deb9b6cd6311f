#!/bin/bash
# Each public header alone, and all of them together in either order, as C11 and as C++17 and C++20: pedantic,
# no warning. headers.sh c|c++
. "$(dirname "$0")/common.sh"

if [ "$1" = c ]; then
    compile() { "$CC" -x c "-std=$standard" -Wstrict-prototypes "${flags[@]}"; }
    standards="c11 gnu11 c17"
else
    compile() { "$CXX" -x c++ "-std=$standard" "${flags[@]}"; }
    standards="c++17 c++20"
fi
flags=(-pedantic -Wall -Wextra -Werror -fsyntax-only -I "$HEADERS" -)

mapfile -t headers < <(cd "$HEADERS" && ls rtmpcast/*.h)
[ "${#headers[@]}" -ge 7 ] || fail "headers not found"
include() { printf '#include <%s>\n' "$@"; }
for standard in $standards; do
    for header in "${headers[@]}"; do
        { include "$header"; include "$header"; echo 'extern int something;'; } | compile || fail "$header as $standard"
    done
    { include "${headers[@]}"; echo 'extern int something;'; } | compile || fail "all headers as $standard"
    { for header in "${headers[@]}"; do include "$header"; done | tac; echo 'extern int something;'; } | compile ||
        fail "all headers backwards as $standard"
    # The check sees what it is there to see.
    if { include rtmpcast/rtmpcast.h; echo 'int f(void) { return RtmpNoSuchFunction; }'; } | compile 2>/dev/null; then
        fail "an error went unnoticed as $standard"
    fi
    echo "$standard: ${#headers[@]} headers"
done
