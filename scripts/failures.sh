#!/bin/bash
# Makes each call on the way of every exported function fail once (tests/failing, EveryFailingCall) and
# leaves a table of how many failures that were, by function and kind of call, in build/proof/failures.md.
#
#     scripts/failures.sh [PRESET]      debug, or asan
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-debug}
page=build/proof/failures.md
counts=build/proof/failures.tsv
scripts/begin_proof.sh "$page" scripts/failures.sh "$@"
[ -f "build/$preset/build.ninja" ] || cmake --preset "$preset" >/dev/null
cmake --build "build/$preset" --target test_failing --parallel "$(nproc)" | tail -n 1
rm -f "$counts"
RTMPCAST_FAILURES=$counts "build/$preset/tests/test_failing" --gtest_brief=1 --gtest_filter='EveryFailingCall.*'
python3 - "$counts" "$preset" >"$page" <<'PYTHON'
import collections
import sys

ways, failures, kinds = {}, collections.Counter(), collections.Counter()
for line in open(sys.argv[1]):
    function, what, count = line.rstrip("\n").split("\t")
    if what == "ways":
        ways[function] = int(count)
    else:
        failures[function] += int(count)
        kinds[what] += int(count)
total = sum(failures.values())
print(f"# Every failure once\n\nPreset {sys.argv[2]}: {total} failures on {sum(ways.values())} ways of {len(ways)} functions.\n")
print("| call that failed | times |\n|---|---|")
for kind, count in kinds.most_common():
    print(f"| {kind} | {count} |")
print("\n| function | ways | failures |\n|---|---|---|")
for function in sorted(ways):
    print(f"| {function} | {ways[function]} | {failures[function] or 'no call that can fail'} |")
PYTHON
cat "$page"
