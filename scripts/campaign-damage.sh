#!/usr/bin/env bash
# campaign-damage.sh [STRIDE]: damages the database, its backup, and both: each page in several ways, the length, each
# bit, and the journal; starts on what that leaves. STRIDE (1 unless given) is the step in bytes from one length or byte
# to the next. SEED=N begins at that seed.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. scripts/say.sh
show_help "$@"
. scripts/build.sh
. scripts/campaign.sh

run_campaign "${1:-1}" damage-tests '*'
