#!/usr/bin/env bash
# lint.sh: layout and static analysis of every source, on the compile commands of the release preset. Needs clang-format
# and clang-tidy (Debian packages of these names), which nothing else of the project needs.
set -eu
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
show_help "$@"
mapfile -t sources < <(git ls-files '*.cpp')
mapfile -t all < <(git ls-files '*.cpp' '*.h')
clang-format --dry-run --Werror "${all[@]}"
# clang knows neither these flags of g++ nor its precompiled headers.
mkdir -p build/lint
sed -E 's/ (-fno-gnu-unique|-Wno-restrict|-Wno-stringop-overflow|-Wformat=2|-Winvalid-pch|-include [^ ]*cmake_pch\.hxx)//g' \
  build/release/compile_commands.json >build/lint/compile_commands.json
printf '%s\0' "${sources[@]}" | xargs -0 -n 4 -P "$(nproc)" clang-tidy --quiet --warnings-as-errors='*' -p build/lint
