#!/bin/bash
# campaign-fuzz.sh: the long form of the fuzzers.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
. scripts/build.sh

help() {
  cat <<END
Usage: scripts/campaign-fuzz.sh [EXECUTIONS [TARGET...]]

Builds the fuzzers (Debian packages clang and libclang-rt-14-dev) and runs each target, one after the other, for so many
executions (10000000 unless given): fuzz-policy, fuzz-storage, fuzz-connection, fuzz-command and fuzz-database unless
named. Guided by libFuzzer alone, which is three to six times as fast; then what was learnt, and a fortieth as many
executions more, with the address and undefined behaviour sanitizers. SEED=N begins at that seed.

What a run learns stays in build/fuzz/campaign/TARGET and is where the next run starts from; what was run, half a
million executions a line, in build/fuzz/campaign/figures; a finding in build/fuzz/campaign/findings, for the program
build/fuzz/fuzz/TARGET to repeat. The exit status is 1 with a finding.
END
}

readonly round=500000

# run_round PRESET TARGET EXECUTIONS SEED: adds to `executed`; fails with a finding, and shows it.
run_round() {
  local preset=$1 target=$2 log=$campaign/$1-$2.log start=$EPOCHSECONDS status=0 count
  # The rare features are worth less than the time that it takes to weigh them.
  choose_launcher "$preset"
  "${launcher[@]}" "build/$preset/fuzz/$target" -runs="$3" -seed="$4" -dict="fuzz/dictionaries/$target.dict" -entropic=0 \
    -artifact_prefix="$campaign/findings/$target-" -max_len="${longest[$target]:-1024}" -rss_limit_mb=4096 -timeout=30 \
    -print_final_stats=1 "$campaign/$target" "fuzz/corpus/$target" >"$log" 2>&1 || status=$?
  count=$(awk '/^stat::number_of_executed_units/ { print $2 }' "$log")
  executed=$((executed + ${count:-0}))
  echo "$preset $target: ${count:-0} executions, exit status $status, $((EPOCHSECONDS - start)) s, seed $4" \
    >>"$campaign/figures"
  ((status != 0)) || return 0
  grep -aE -A 4 '^finding:|runtime error:|^SUMMARY: ' "$log" | head -n 12 || tail -n 3 "$log"
  say "exit status $status; the whole output is in $log"
  return 1
}

# run_target PRESET TARGET EXECUTIONS: prints one line of figures; a finding ends it.
run_target() {
  local left=$3 executed=0 found=0 start=$EPOCHSECONDS
  mkdir -p "$campaign/$2"
  for ((number = 0; left > 0 && found == 0; number++, left -= round)); do
    run_round "$1" "$2" $((left < round ? left : round)) $((seed + number)) || found=1
  done
  findings=$((findings + found))
  say "$1 $2: $executed executions, $found findings, $((EPOCHSECONDS - start)) s, from seed $seed on"
}

case ${1-} in
  -h | --help) help && exit 0 ;;
  *[!0-9]*) help >&2 && exit 2 ;;
esac
executions=${1:-10000000}
targets=("${@:2}")
((${#targets[@]} > 0)) || targets=(fuzz-policy fuzz-storage fuzz-connection fuzz-command fuzz-database)
for target in "${targets[@]}"; do
  [[ -d fuzz/corpus/$target ]] || die "there is no target $target"
done
# A database of three pages, and what lies beside it.
declare -A longest=([fuzz-database]=2560)

seed=${SEED:-$((EPOCHSECONDS % 1000000000))}
campaign=$PWD/build/fuzz/campaign
findings=0
# Most of the time would go into the stacks of allocations and the filling of memory.
export ASAN_OPTIONS=${ASAN_OPTIONS:-malloc_context_size=2:max_malloc_fill_size=0:quarantine_size_mb=8}
mkdir -p "$campaign/findings"
for preset in fuzz-plain fuzz; do build_preset "$preset"; done
for target in "${targets[@]}"; do
  run_target fuzz-plain "$target" "$executions"
  run_target fuzz "$target" $(((executions + 39) / 40))
done
((findings == 0))
