#!/bin/bash
# Lists every fixed text of the library's sources with the test that was seen to produce it: the test whose log line,
# call of a host function, bytes on a connection, file or standard output held the text. Builds and runs the tests of the
# preset debug. tests/texts_unreached.txt gives the reasons of the others, one by one; a text that
# neither is produced nor has a reason fails the run, and so does a reason whose text is produced.
#
#   scripts/texts.sh                      runs the tests and prints the table; build/proof/texts.md has the counts,
#                                         build/proof/texts what the tests have seen
#   scripts/texts.sh --recorded FOLDER    the same from what an earlier run has left in FOLDER
#   scripts/texts.sh --check              no run: each text with a reason stands in the sources, and only once in the list
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
folders='core|serve|rtmpt|state|delivery|instruments|amf|net|command|message|media|wire|steady|failing|sender|publish|publisher|tls|steady_tls'

case ${1:-} in
--check) exec python3 "$root/scripts/texts.py" check ;;
--recorded) exec python3 "$root/scripts/texts.py" table "${2:?a folder}" ;;
esac

# A test that was too slow beside all the others gets another try: what is asked here is what they see.
cd "$root" || exit 1
scripts/begin_proof.sh build/proof/texts.md scripts/texts.sh || exit 1
[ -f build/debug/build.ninja ] || cmake --preset debug >/dev/null || exit 1
cmake --build --preset debug --parallel "$(nproc)" || exit 1
recorded=$root/build/proof/texts
rm -rf "$recorded"
mkdir -p "$recorded"
RTMPCAST_TEXTS=$recorded ctest --preset debug -L "^($folders)\$" --repeat until-pass:3 >"$recorded.log"
status=$?
python3 scripts/texts.py table "$recorded" || status=1
sed -n '/^The following tests FAILED/,$p' "$recorded.log"
exit "$status"
