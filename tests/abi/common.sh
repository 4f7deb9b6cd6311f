# What the checks of this folder share. The caller passes its settings in the environment: see CMakeLists.txt.
set -euo pipefail
export LC_ALL=C

fail() { echo "FAILED: $*" >&2; exit 1; }

# same WHAT WANTED HAVE: two sorted lists in files; on a difference, says which names stand on one side only.
same() {
    [ -s "$2" ] || fail "$1: nothing to compare with"
    diff -u --label wanted --label found "$2" "$3" || fail "$1: the lists differ"
    echo "$1: $(wc -l <"$2") names, as wanted"
}

# declared MACRO HEADER...: the functions that these headers declare with MACRO, sorted.
declared() {
    local macro=$1
    shift
    sed -E 's@^#.*@@' "$@" | tr '\n' ' ' | sed -E 's@/\*([^*]|\*+[^*/])*\*+/@@g' | tr ';' '\n' |
        sed -nE "s/.*\b$macro\b//p" |
        awk 'match($0, /[A-Za-z_][A-Za-z_0-9]*\(/) { print substr($0, RSTART, RLENGTH - 1) }' |
        sort
}

# needed LIBRARY: the names of the shared libraries it asks for.
needed() { "$READELF" -d "$1" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' | sort; }

# defined LIBRARY: the dynamic symbols it defines, without versions.
defined() { "$NM" -D --defined-only "$1" | awk '{ sub(/@.*/, "", $3); print $3 }' | sort -u; }

# located NAME: where the linker finds a needed library.
located() {
    local file
    file=$("$CC" -print-file-name="$1")
    [ -e "$file" ] || fail "$1 is needed and not found"
    echo "$file"
}

# run PROGRAM: on this machine, or on the one that is emulated here.
run() { ${EMULATOR:-} "$@"; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Sources and headers of every room of the library, as paths below $SOURCE. The rooms stand in the table of floors.
library_files() {
    (cd "$SOURCE" && sed 's/#.*//' tests/house/floors.txt | tr ' ' '\n' | grep '^[a-z]' | grep -v '^include' |
        xargs -I{} find {} -maxdepth 1 -name "*.cpp" -o -maxdepth 1 -name "*.h" | sort)
}
