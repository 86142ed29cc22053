# Line and branch coverage of the plug-in, counted while the tests of the coverage preset run.

# shellcheck disable=SC2034 # the commands read it
# What this preset needs beside the packages of every preset.
readonly coverage_packages=(gcovr)

# Takes back what earlier runs counted.
forget_coverage() {
  find build/coverage/src/plugin -name '*.gcda' -delete
}

# Prints the coverage, and where it is lost (build/coverage/pages shows it line by line). Fails when it is below its
# goal, or other than it is explained to be.
check_coverage() {
  local report=build/coverage/coverage.json pages=build/coverage/pages
  mkdir -p "$pages"
  gcovr --root . --filter src/plugin/ --json "$report" --html-details "$pages/index.html" \
    build/coverage/src/plugin || return 1
  scripts/coverage.py "$report" tests/coverage-exceptions.txt
}
