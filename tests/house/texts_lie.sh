#!/bin/bash
# scripts/texts.sh notices what it is there to notice, in a copy of the sources: a text that nothing produces and that
# has no reason, a reason whose text is produced, one whose text is gone, and one that says nothing.
set -u
root=$1
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT

mkdir "$work/scripts" "$work/tests" "$work/recorded"
cp "$root"/scripts/texts.* "$work/scripts/"
cp "$root/tests/texts_unreached.txt" "$work/tests/"
for room in $(python3 -c "import sys; sys.path.insert(0, '$root/scripts'); sys.dont_write_bytecode = True; import texts
print(*texts.ROOMS)"); do
    cp -r "$root/$room" "$work/"
done
list=$work/tests/texts_unreached.txt
printf 'log\tnet.ATest\tERROR: ReadHttpMessage: Rtmp read bytes failed?\n' >"$work/recorded/1"
printf 'log\tnet.Another\tERROR: SomebodyElse: Failed in ioctl?\n' >>"$work/recorded/1"

# says TEXT ARGUMENT...: the script fails and says so.
says() {
    local text=$1 said
    shift
    if said=$("$work/scripts/texts.sh" "$@" 2>&1); then
        echo "went unnoticed: $text"
        exit 1
    fi
    grep -qF -- "$text" <<<"$said" || { echo "expected: $text"; tail -n 5 <<<"$said"; exit 1; }
}

"$work/scripts/texts.sh" --check || exit 1
said=$("$work/scripts/texts.sh" --recorded "$work/recorded")
grep -qF 'Rtmp read bytes failed\n | log | net.ATest | 1' <<<"$said" || { echo "a text that was seen is not found"; exit 1; }
grep -q 'no test produces: .*Rtmp read bytes failed' <<<"$said" && { echo "a text that was seen is missed"; exit 1; }
says 'no test produces: ERROR: %s: Failed in ioctl\n' --recorded "$work/recorded"
says 'no test sends: createStream' --recorded "$work/recorded"

echo 'rtmpt/http_request.cpp | ERROR: %s: Rtmp read bytes failed\n | it is never written' >>"$list"
says 'is produced by net.ATest: rtmpt/http_request.cpp | ERROR: %s: Rtmp read bytes failed\n' --recorded "$work/recorded"
echo 'net/log.cpp | a text that was there once | it is never written' >>"$list"
says 'no such text in the sources: net/log.cpp | a text that was there once' --check
echo 'net/log.cpp | RTMPWriter:' >>"$list"
says 'not "path | text | reason": net/log.cpp | RTMPWriter:' --check
