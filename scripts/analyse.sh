#!/bin/bash
# Has the sources read by every tool that there is for it, and leaves what they said in build/proof/analysis.md. The test
# command asks all of them but clang's analyzer, which takes a minute (tests/house/check_sources).
#
#   scripts/analyse.sh
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root" || exit 1
table=build/proof/analysis.md
scripts/begin_proof.sh "$table" scripts/analyse.sh || exit 1
scripts/install_deps.sh test || exit 1
cmake --preset debug >/dev/null || exit 1
failed=0

# ask MODE TOOL WHAT
ask() {
    local said status=0
    said=$(tests/house/check_sources "$1" build/debug) || status=1
    printf '%s\n' "$said"
    echo "| $2 | $3 | $([ "$status" -eq 0 ] && echo nothing || echo "**$(tail -n 1 <<<"$said")**") |" >>"$table"
    [ "$status" -eq 0 ] || failed=1
}

printf '| tool | asked | finds |\n|---|---|---|\n' >"$table"
ask analyzer "$(clang-tidy --version | grep -o 'LLVM version.*' | sed 's/LLVM version/clang-tidy/')" "the library, by \`.clang-tidy\`, with clang's analyzer"
ask cppcheck "$(cppcheck --version | tr '[:upper:]' '[:lower:]')" "the library and the host's defaults, but for \`tests/house/cppcheck.txt\`"
ask clang "$(clang++ --version | sed -n '1s/.*version \([0-9.]*\).*/clang \1/p')" "the library, with the warnings of its own build"
ask format "clang-format" "all sources, by \`.clang-format\`"
exit "$failed"
