#!/bin/bash
# abi.sh: holds the binary interface of libpyxclient against the one that is checked in.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
. scripts/packages.sh
. scripts/build.sh

readonly dump=client/lib/pyxclient.abi

help() {
  cat <<END
Usage: scripts/abi.sh [update]

Before each release: installs abigail-tools if it is missing, builds the library with its types' descriptions (the preset
dev), and compares its functions and types with those in $dump. What was added is shown, and "update" takes it
in; what was removed or changed breaks programs that are built already, and ends this with 1: that wants another
SOVERSION.
END
}

case ${1-} in
  "" | update) ;;
  -h | --help) help && exit 0 ;;
  *) help >&2 && exit 2 ;;
esac
install_packages abigail-tools
build_preset dev pyxclient
now=$(mktemp)
trap 'rm -f "$now"' EXIT
# Neither this machine's paths nor its lines belong to the interface.
abidw --headers-dir client/include --no-show-locs --no-corpus-path --no-comp-dir-path --drop-private-types --exported-interfaces-only \
  --out-file "$now" build/dev/client/libpyxclient.so
if [[ ${1-} == update ]]; then
  cp "$now" "$dump"
  say "$dump is up to date"
  exit 0
fi
abidiff --no-added-syms "$dump" "$now" || die "the interface is not the one that programs were built against"
abidiff "$dump" "$now" || true
say "the interface is compatible with $dump"
