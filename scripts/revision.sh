#!/bin/bash
# Prints the revision of the sources, with a + where they differ from it, but for what scripts/proof.sh makes.
cd "$(dirname "$0")/.." || exit 1
revision=$(git rev-parse --short HEAD 2>/dev/null) || { echo unknown; exit; }
git diff --quiet HEAD -- . ':!docs/proof.md' ':!docs/soak.png' || revision=$revision+
echo "$revision"
