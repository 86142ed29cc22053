#!/bin/bash
# compare-symbols.sh LIBRARY LIST: fails unless the library offers the symbols of the list and no other. A program that was
# linked with one of them needs it for as long as the soname stays.
set -euo pipefail
diff -u "$2" <(nm -D --defined-only "$1" | awk '$2 != "A" { print $3 }' | LC_ALL=C sort)
