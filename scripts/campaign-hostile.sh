#!/usr/bin/env bash
# campaign-hostile.sh [LENGTH]: the long form of the tests with hostile clients and of the history check. LENGTH (10000
# unless given) is how many connects the flood has and how often the plug-in is switched off and on; a tenth of it, how
# often it is unloaded and loaded, how many clients of all kinds stay to the end of their time one after another, how
# many stay at once, and how many histories are checked. SEED=N begins at that seed; PRESET=asan or PRESET=tsan takes
# the build with those sanitizers in place of the release build.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
show_help "$@"
. scripts/build.sh
. scripts/campaign.sh

run_campaign "${1:-10000}" hostile-tests '-ASoak.*'
