#!/usr/bin/env bash
# campaign-kill.sh [KILLS]: kills the plug-in's process before each system call of a report, a start and a restore, and
# KILLS times (10000 unless given) at random instants; starts it again after each, and looks for what it had answered.
# SEED=N begins at that seed.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
show_help "$@"
. scripts/build.sh
. scripts/campaign.sh

run_campaign "${1:-10000}" disk-fault-tests '*AKill*'
