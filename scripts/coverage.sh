#!/bin/bash
# Measures which lines and branches of the library the tests run: prints a table, and holds every line that no test
# runs against tests/uncovered.txt. Leaves build/coverage/index.html (a page a file) and build/proof/coverage.md.
# tests/left_out/coverage.txt says which tests are not asked.
#
#   scripts/coverage.sh [--again]      --again: the counts of the last run are read once more, nothing runs
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root" || exit 1
build=build/coverage
failed=0

run_tests() {
    scripts/install_deps.sh coverage || exit 1
    cmake --preset coverage >/dev/null || exit 1
    cmake --build --preset coverage --parallel "$(nproc)" || exit 1
    find "$build" -name '*.gcda' -delete
    ctest --preset coverage --quiet --output-log "$build/tests.log" || failed=1
    tail -n 40 "$build/tests.log" | sed -n '/tests passed/,$p'
}

# The objects of the library and of the host's defaults alone: tests compile some sources once more.
read_counts() {
    rm -f "$build"/index*.html "$build"/index.css
    gcovr --root . --exclude-throw-branches --exclude-unreachable-branches --json "$build/coverage.json" \
        "$build/CMakeFiles/rtmpcast_objects.dir" "$build/CMakeFiles/rtmpcast_host_defaults.dir" &&
        gcovr --root . --add-tracefile "$build/coverage.json" --html-title rtmpcast --html-details "$build/index.html"
}

scripts/begin_proof.sh build/proof/coverage.md scripts/coverage.sh "$@" || exit 1
[ "${1:-}" = --again ] || run_tests
read_counts || exit 1
python3 scripts/coverage.py "$build/coverage.json" tests/uncovered.txt build/proof/coverage.md || failed=1
[ "$failed" -eq 0 ]
