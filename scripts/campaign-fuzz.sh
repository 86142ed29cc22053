#!/bin/bash
# campaign-fuzz.sh: the long form of the fuzzers.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
. scripts/build.sh

help() {
  cat <<END
Usage: scripts/campaign-fuzz.sh [EXECUTIONS [TARGET...]]

Builds the fuzzers with libFuzzer and the address and undefined behaviour sanitizers (Debian packages clang and
libclang-rt-14-dev) and runs each target, one after the other, for so many executions (10000000 unless given):
fuzz-policy, fuzz-storage, fuzz-connection, fuzz-command and fuzz-database unless named. SEED=N begins at that seed.

What a run learns stays in build/fuzz/campaign/TARGET and is where the next run starts from; a finding is left in
build/fuzz/campaign/findings, for the program build/fuzz/fuzz/TARGET to repeat. The exit status is 1 with a finding.
END
}

# run_target TARGET: prints one line of figures, and what was found.
run_target() {
  local target=$1 start=$EPOCHSECONDS status=0 log=$campaign/$1.log executed found=0
  mkdir -p "$campaign/$target"
  "${launcher[@]}" "build/fuzz/fuzz/$target" -runs="$executions" -seed="$seed" -dict="fuzz/dictionaries/$target.dict" \
    -artifact_prefix="$campaign/findings/$target-" -max_len=4096 -rss_limit_mb=4096 -timeout=30 -print_final_stats=1 \
    "$campaign/$target" "fuzz/corpus/$target" >"$log" 2>&1 || status=$?
  executed=$(awk '/^stat::number_of_executed_units/ { print $2 }' "$log")
  ((status == 0)) || found=1
  say "$target: ${executed:-0} executions, $found findings, $((EPOCHSECONDS - start)) s, seed $seed"
  ((status == 0)) && return
  grep -aE -A 4 '^finding:|runtime error:|^SUMMARY: ' "$log" | head -n 12 || tail -n 3 "$log"
  say "exit status $status; the whole output is in $log"
  findings=$((findings + 1))
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

seed=${SEED:-$((EPOCHSECONDS % 4294967296))}
campaign=$PWD/build/fuzz/campaign
findings=0
# Most of the time would go into the stacks of allocations and the filling of memory.
export ASAN_OPTIONS=${ASAN_OPTIONS:-malloc_context_size=2:max_malloc_fill_size=0:quarantine_size_mb=8}
mkdir -p "$campaign/findings"
build_preset fuzz
for target in "${targets[@]}"; do run_target "$target"; done
((findings == 0))
