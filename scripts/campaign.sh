# The long forms of tests.

# run_campaign LENGTH TARGET FILTER: builds a test program of the release preset and runs the tests that the filter names
# at that length, with the seed of the environment's SEED or a new one. Prints the seed, the tests' lines of figures and
# what failed; the whole output stays in a file beside the build. The exit status is that of the tests.
run_campaign() {
  local length=$1 target=$2 filter=$3 log begin=$EPOCHSECONDS status=0
  [[ $length =~ ^[1-9][0-9]*$ ]] || die "the length is a number above 0, not $length"
  export ZAV_CAMPAIGN_LENGTH=$length ZAV_CAMPAIGN_SEED=${SEED:-$RANDOM}
  build_preset release "$target"
  log=build/release/$(basename "$0" .sh).log
  say "length $length, seed $ZAV_CAMPAIGN_SEED"
  "$(find build/release/tests -type f -name "$target" -perm -u+x)" "--gtest_filter=$filter" >"$log" 2>&1 || status=$?
  grep -aE '^figures: |^failed: ' "$log" || true
  say "$((EPOCHSECONDS - begin)) s; the whole output is in $log"
  return "$status"
}
