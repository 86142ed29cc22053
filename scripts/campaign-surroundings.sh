#!/usr/bin/env bash
# campaign-surroundings.sh [TIMES]: the long form of the tests of what stands around the plug-in: odd directories and
# files, odd stored text, the clock, and a disk, sizes and descriptors that come to an end. All cases are tried each
# time; TIMES (10 unless given) is how often.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
show_help "$@"
. scripts/build.sh
. scripts/campaign.sh

readonly times=${1:-10}
[[ $times =~ ^[1-9][0-9]*$ ]] || die "the number of times is one above 0, not $times"
for ((time = 1; time <= times; time++)); do
  run_campaign "$time" surroundings-tests '*'
  run_campaign "$time" disk-fault-tests '*APlugin*'
done
