#!/bin/sh
# Makes docs/proof.md out of what the other scripts left in build/ (scripts/proof.py). Those that have not run leave
# their section as it stands there.
exec python3 "$(dirname "$0")/proof.py" "$@"
