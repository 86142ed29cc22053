#!/usr/bin/env bash
# campaign-soak.sh [REQUESTS]: one long run of requests (1000000 unless given) by clients that come alone, then one of as
# many by four at a time, on the release build: memory, descriptors and threads at the end are those of the first tenth.
# SEED=N begins at that seed.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
show_help "$@"
. scripts/build.sh
. scripts/campaign.sh

run_campaign "${1:-1000000}" hostile-tests 'ASoak.*'
