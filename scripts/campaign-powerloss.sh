#!/usr/bin/env bash
# campaign-powerloss.sh [IMAGES]: records what the plug-in does to its files, makes some IMAGES (10000 unless given) of
# the disk that a power loss may leave, and starts on each. SEED=N begins at that seed.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
show_help "$@"
. scripts/build.sh
. scripts/campaign.sh

# So many courses of events are tried, each with its share.
courses=14
run_campaign $(((${1:-10000} + courses - 1) / courses)) disk-fault-tests '*APowerLoss*'
