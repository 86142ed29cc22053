#!/bin/bash
# The demonstration of ./run, on the device root that ./run has prepared: demo.sh BUILD_DIRECTORY STATE_DIRECTORY
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh

readonly build=$1 state=$2
readonly log=$state/dpm.log
readonly deadline_s=20
host=

fail() {
  printf 'run: %s\n' "$*" >&2
  if [[ -s $log ]]; then
    printf 'run: the end of the log:\n' >&2
    tail -n 20 "$log" >&2
  fi
  exit 1
}

title() {
  printf '\n--- %s\n' "$*"
}

start_host() {
  coproc HOST {
    exec "$build/host/dpm-host" --library "$build/src/plugin/libzav-pyx-plugin.so" --state-dir "$state/host" \
      --log "$log" --log-level debug
  }
  host=$HOST_PID
  exec {to_host}>&"${HOST[1]}" {from_host}<&"${HOST[0]}"
}

# dpm PATTERN COMMAND: gives the host a command; the answer must match.
dpm() {
  local answer
  printf 'dpm> %s\n' "$2"
  # A host that is gone gives no answer either.
  printf '%s\n' "$2" 2>/dev/null 1>&"$to_host" || true
  IFS= read -r -t "$deadline_s" answer <&"$from_host" || fail "the host gave no answer"
  printf '%s\n' "$answer"
  # shellcheck disable=SC2053 # it is a pattern
  [[ $answer == $1 ]] || fail "that is not the answer to expect"
}

# client STATUS PATTERN ARGUMENTS...: runs pyxctl; its exit status and what it prints must be as said.
client() {
  local expected=$1 pattern=$2 status=0 answer
  shift 2
  printf '$ pyxctl %s\n' "$*"
  answer=$("$build/client/pyxctl" "$@" 2>&1) || status=$?
  printf '%s\n' "$answer"
  ((status == expected)) || fail "pyxctl ended with status $status"
  # shellcheck disable=SC2053 # it is a pattern
  [[ $answer == $pattern ]] || fail "that is not the answer to expect"
}

await_service() {
  local end=$((SECONDS + deadline_s))
  until "$build/client/pyxctl" state >/dev/null 2>&1; do
    ((SECONDS < end)) || fail "the service does not answer"
    sleep 0.05
  done
}

# Records carry whole seconds: the next report is to have a later one.
await_next_second() {
  local now=$EPOCHSECONDS
  while ((EPOCHSECONDS == now)); do sleep 0.05; done
}

stop_host() {
  local status=0
  dpm ok quit
  wait "$host" || status=$?
  host=
  ((status == 0)) || fail "the host ended with status $status"
  [[ ! -e /tmp/zav-pyx-plugin/.socket ]] || fail "the service left its socket behind"
}

trap '[[ -z $host ]] || kill "$host" 2>/dev/null || true' EXIT
trap '' PIPE

printf 'Lines after "$" are for a shell (build/release/client/pyxctl), those after "dpm>" for the prompt of ./run shell.\n'

title 'The host loads the plug-in, and the plug-in starts its service'
start_host
dpm 1 get
await_service
client 0 '*enabled.' state
client 0 '*enabled.' logging

title 'Three visits to threatening addresses are reported'
client 0 '*logged.' report http://bank.example/login --threat phishing
client 0 '*logged.' report http://game.example/setup --threat malware
await_next_second
since=$EPOCHSECONDS
client 0 '*logged.' report http://shop.example/pay --threat phishing

title 'The log: forward, backward, and from a point in time on'
client 0 '*bank.example*game.example*shop.example*' log
client 0 '*shop.example*game.example*bank.example*' log --reverse
client 0 '*shop.example*' log --since "@$since" --until "@$((since + 60))"
client 0 '2 records' count --until "@$((since - 1))"
client 0 '*3*phishing*2*' status
client 0 '*"total":3*' status -o json

title 'Commands of the device policy manager'
dpm '*"phishing":2*"operationStatus":"success"*' 'exec GetStatus'
dpm '*success*' 'exec UpdateConfig {"Storage":{"config":{"max_file_size":20}}}'
dpm '*success*' 'exec DisableLogging'
client 0 '*disabled.' logging
dpm '*success*' 'exec EnableLogging'
client 0 '*enabled.' logging

title 'The plug-in is unloaded and loaded again; the log is still there'
dpm ok reload
await_service
client 0 '*bank.example*game.example*shop.example*' log
client 0 '*empty.' reset --yes
client 0 'no records' log

title 'The service is switched off and on, and the host ends'
dpm 0 'set 0'
dpm 0 get
client 3 'pyxctl: *' state
dpm 0 'set 1'
await_service
client 0 '*enabled.' state
stop_host
printf '\nThe host has ended cleanly. ./run serve keeps a service running, ./run shell gives the prompt.\n'
