#!/bin/bash
# Begins what a script leaves for docs/proof.md: begin_proof.sh PAGE COMMAND [ARGUMENT...]
# An older PAGE goes, so that a run that breaks leaves none; beside it, with the ending .note, stands the line for the head
# of its section: the command, the day and the revision.
set -euo pipefail

cd "$(dirname "$0")/.."
page=$1
shift
mkdir -p "$(dirname "$page")"
rm -f "$page"
echo "\`$*\`, $(date +%F), revision $(scripts/revision.sh), $(nproc) cores" >"${page%.*}.note"
