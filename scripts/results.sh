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

# note_failures PRESET JUNIT_FILE: adds the name of each failed test and the end of what it printed to `what_failed`.
note_failures() {
  [[ -f $2 ]] || return 0
  what_failed+=$(awk -v preset="$1" -v kept=40 '
    /^\t<testcase .* status="fail">/ {
      split($0, name, "\""); printf "%s: %s\n", preset, name[2]; inside = 1; lines = 0; next
    }
    inside && /^\t<\/testcase>/ {
      for (line = lines > kept ? lines - kept : 0; line < lines; line++) print "    " text[line]
      inside = 0
    }
    inside { text[lines++] = $0 }
    ' "$2" | sed 's/&lt;/</g; s/&gt;/>/g; s/&quot;/"/g; s/&apos;/'"'"'/g; s/&amp;/\&/g' && echo .)
  what_failed=${what_failed%.}
}
