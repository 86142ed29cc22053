#!/bin/bash
# campaign-faults.sh [SECONDS | all]: makes the plug-in's calls to the system fail, one after the other, and looks what
# becomes of it. All of them unless SECONDS are given: then that long, at random, by the seed in SEED or a new
# one. The last lines have the figures.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
show_help "$@"
. scripts/build.sh

readonly length=${1-all}
readonly program=build/release/tests/faults/shim/faults-tests tests='Faulty/*'

[[ $length == all || $length =~ ^[1-9][0-9]*$ ]] || die "usage: campaign-faults.sh [SECONDS | all]"
build_preset release faults-tests zav-pyx-plugin

each=$length
if [[ $length != all ]]; then
  count=$("$program" --gtest_list_tests --gtest_filter="$tests" | grep -c '^  ')
  each=$(((length + count - 1) / count))
  export ZAV_FAULTS_SEED=${SEED:-$RANDOM}
  say "seed $ZAV_FAULTS_SEED"
fi
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
ZAV_FAULTS=$each "$program" --gtest_filter="$tests" >"$log" 2>&1 || status=$?
grep -aE '^faults: |ZAV_FAULTS=|^failed: ' "$log" || true
awk '/^faults: .* attempts, / {
       sub(/^faults: [^:]*: /, "")
       attempts += $1; met += $3; ended += $7; thrown += $11; back += $16; failed += $21; ms += $23
     }
     END {
       printf "%d attempts, %d met the fault, %d ended for good, %d threw at the host, %d fell back to defaults, %d failed, %d s\n",
              attempts, met, ended, thrown, back, failed, ms / 1000
     }' "$log"
exit "$status"
