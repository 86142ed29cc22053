#!/bin/bash
# Holds a manual page against what whatis, man and mandoc take: check-manual.sh PAGE
set -euo pipefail
warnings=$(mandoc -T lint -W warning "$1") || { printf '%s\n' "$warnings" && exit 1; }
# The line that whatis and apropos read.
name=$(basename "${1%.*}")
lexgrog "$1" | grep -F "$name - " || { echo "no name and summary" && exit 1; }
# Nothing of the source is left over. Tables have lines of their own in Unicode.
export LC_ALL=C.UTF-8
if MANWIDTH=100 man -l "$1" | grep -nE '\*\*|\]\(|^ *\|'; then exit 1; fi
