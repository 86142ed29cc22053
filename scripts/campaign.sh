# The long forms of tests.

# run_campaign LENGTH TARGET FILTER: builds a test program of the release preset, or of that in PRESET, and runs the
# tests that the filter names at that length, with the seed of the environment's SEED or a new one. Prints the seed, the
# tests' lines of figures and what failed; the whole output stays in a file beside the build. The exit status is that of
# the tests, or what a sanitizer makes of it.
run_campaign() {
  local length=$1 target=$2 filter=$3 preset=${PRESET:-release} log begin=$EPOCHSECONDS status=0
  [[ $length =~ ^[1-9][0-9]*$ ]] || die "the length is a number above 0, not $length"
  export ZAV_CAMPAIGN_LENGTH=$length ZAV_CAMPAIGN_SEED=${SEED:-$RANDOM}
  build_preset "$preset" "$target"
  log=build/$preset/$(basename "$0" .sh).log
  say "length $length, seed $ZAV_CAMPAIGN_SEED, preset $preset"
  "${launcher[@]}" "$(find "build/$preset/tests" -type f -name "$target" -perm -u+x)" "--gtest_filter=$filter" \
    >"$log" 2>&1 || status=$?
  grep -aE '^figures: |^failed: |^WARNING: ThreadSanitizer|ERROR: AddressSanitizer|runtime error:' "$log" || true
  say "$((EPOCHSECONDS - begin)) s; the whole output is in $log"
  return "$status"
}
