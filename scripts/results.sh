# The totals of a test run.

# count_results JUNIT_FILE CTEST_STATUS: adds to `passed`, `failed` and `skipped`. A run that failed without a failed
# test (none was there, one could not be started) counts as one failure.
count_results() {
  local text='' tests failures rest
  [[ ! -f $1 ]] || text=$(head -n 12 "$1")
  tests=$(attribute tests "$text")
  failures=$(attribute failures "$text")
  rest=$(($(attribute disabled "$text") + $(attribute skipped "$text")))
  passed=$((passed + tests - failures - rest))
  skipped=$((skipped + rest))
  (($2 == 0 || failures > 0)) || failures=1
  failed=$((failed + failures))
}

# attribute NAME TEXT
attribute() {
  [[ $2 =~ [[:space:]]$1=\"([0-9]+)\" ]] && echo "${BASH_REMATCH[1]}" || echo 0
}
