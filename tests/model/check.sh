#!/usr/bin/env bash
# check.sh: checks the model of the hand-over with spin, and that it can fail: without any one of its guards it must, in
# the way that stands beside the guard. The last line says how many runs there were.
set -eu
model=$(cd "$(dirname "$0")" && pwd)/hand-over.pml
source=$(cd "$(dirname "$0")/../../src/plugin" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
runs=0 failures=0 tried=' '

# pan [--cycles] DEFINITION...: makes the checker of the model with these definitions and runs it; its report is `report`.
pan() {
  local compile=(-DSAFETY) check=() definitions
  if [[ $1 == --cycles ]]; then
    compile=(-DNP) check=(-l)
    shift
  fi
  definitions=("${@/#/-D}")
  spin -a "${definitions[@]}" "$model"
  gcc -w -O0 -DNOFAIR "${compile[@]}" -o pan pan.c
  ./pan "${check[@]}" -m100000 -w21 >report
  runs=$((runs + 1)) tried+="$* "
}

# fail LINE: one more failure, and what it was.
fail() {
  failures=$((failures + 1))
  echo "$1"
}

# expect NAME RESULT: what the report must say: sound, or a pattern of pan's own words for the failure.
expect() {
  local errors
  errors=$(sed -n 's/.*errors: //p' report)
  if [[ $2 == sound ]]; then
    [[ $errors == 0 ]] && ! grep -qE 'max search depth|out of memory|^pan:1' report && return
  else
    [[ $errors == 1 ]] && grep -qE "^pan:1: $2" report && return
  fi
  fail "$1: expected $2, but:"
  grep -E '^pan:1|errors:|max search depth|out of memory' report || cat report
}

readonly hangs='invalid end state'
readonly forsaken='assertion violated \(answered\|\|excused\)'
readonly shuts_closed='assertion violated (client\[.*\]\.open|\(listener!=)'
readonly held_twice='assertion violated  !\(\(owner!='
readonly not_joined='assertion violated .*!\((connection|thread)Joinable\)'
readonly circles='non-progress cycle'

# The model's steps bear the code's names (a class may stand before one), but for these.
own_steps=(take shutBoth closeClient shutListener closeListener connect forget excuse cutNow lookByStop
           lookAtTime Host HonestClient HostileClient)
for step in $(sed -nE 's/^(inline|active proctype) (\w+).*/\2/p' "$model"); do
  [[ " ${own_steps[*]} " == *" $step "* ]] && continue
  grep -qrE "(^|\W)$(sed -E 's/^(Service|ServedConnection)_//' <<<"$step")\(" "$source" || fail "the code knows no $step"
done

# One round of on and off is enough, unless `twice` says otherwise.
without() {
  pan "$1" "ROUNDS=${rounds:-1}"
  expect "without its guard: $1" "$2"
}
without_twice() { rounds=2 without "$@"; }

pan ROUNDS=2
expect 'the hand-over' sound
states=$(sed -nE 's/^ *([^ ]+) states, stored.*/\1/p' report)
pan --cycles ROUNDS=1
expect 'the hand-over, for circles' sound

# PYXManager
without NO_LOOK_BY_START "$not_joined"
without NO_RUNNING_CLEARED_AFTER_FAILED_START "$hangs"
without NO_LOOK_BEFORE_RESTART "$hangs"
# Service::prepare
without_twice NO_PREPARED_RUN "$hangs"
without_twice NO_RESUME "$forsaken"
# Service::stop
without STOP_OUTSIDE_INNER "$hangs"
without NO_NOTIFY_BY_STOP "$hangs"
without NO_STOP_OF_CONNECTION "$hangs"
without STOP_WITHOUT_TOKEN "$hangs"
without NO_LOOK_BY_STOP "$hangs"
without NO_SHUTDOWN_BY_STOP "$hangs"
# Service::open
without_twice OPEN_WITHOUT_TOKEN "$shuts_closed"
without NO_LOOK_BY_OPEN "$hangs"
without_twice NO_BUSY_CLEARED_BY_OPEN "$hangs"
# SocketService::retire
without_twice NO_RETIRE "$hangs"
without_twice NO_UNLINK "$hangs"
without_twice NO_LOOK_AT_FILE_LEFT "$hangs"
# Service::onePass, takeToken, handOver
without NO_SLEEP "$forsaken"
without NO_LOOK_BY_SLEEP "$hangs"
without NO_LOOK_BY_PAUSE "$hangs"
without NO_SECOND_LOOK "$hangs"
without NO_BUSY_BY_HAND_OVER "$forsaken"
without NO_JOIN_BEFORE_START "$not_joined"
without NO_RELEASE_AFTER_FAILED_START "$hangs"
without NO_CLOSE_AFTER_FAILED_START "$hangs"
# Service::close
without NO_JOIN_BY_CLOSE "$not_joined"
without NO_SHUTDOWN_BY_CLOSE "$hangs"
without NO_REFUSAL_BY_CLOSE "$hangs"
without NO_RETIRE_BY_CLOSE "$hangs"
without RETIRE_WITHOUT_TOKEN "$shuts_closed"
# Service::serve
without LEAVE_AFTER_CLOSE "$shuts_closed"
# ServiceToken
without NO_LOOK_WHETHER_HELD "$held_twice"
without RELEASE_OUTSIDE_INNER "$hangs"
without NO_BUSY_CLEARED_BY_RELEASE "$hangs"
without NO_ANNOUNCE_BY_RELEASE "$hangs"
without NO_NOTIFY_BY_RELEASE "$hangs"
without NO_ANNOUNCE_BY_UNLOCK "$hangs"
# ServedConnection
without NO_CUT_BY_ENTER "$hangs"
without NO_CUT_BY_STOP "$hangs"
without NO_WORKING_ONCE_RECEIVED "$hangs"
without NO_SHORT_REPLY "$hangs"
without NO_SHORTER_REPLY "$hangs"
without NO_CUT_FOR_ANOTHER "$forsaken"
without NO_LOOK_AT_DEADLINE "$forsaken"
without CUT_WITHOUT_MUTEX "$shuts_closed"
without CUT_BOTH_WAYS "$forsaken"
# Each of these looks is made once more by the next one (the token is busy with the flag, the second look repeats the
# first), and whoever looks whether the service is busy also looks whether it runs: without them nothing fails.
pan NO_FIRST_LOOK NO_BUSY_LOOK NO_BUSY_BY_STOP ROUNDS=1
expect 'without what is spare' sound

for guard in $(sed -nE 's/^#(ifdef|ifndef|elif defined)\W*(\w+).*/\2/p' "$model" | sort -u); do
  [[ $guard == ROUNDS || $tried == *" $guard "* ]] || fail "nobody takes out the guard $guard"
done

echo "$states states of two times on and off; $runs runs, $failures failed"
((failures == 0))
