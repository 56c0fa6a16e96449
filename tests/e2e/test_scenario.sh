#!/usr/bin/env bash
# One factory cycle end to end: sim/operator/scenario runs the unchanged bench through its boots with the
# scenario's operator, then what the unit went through is compared with tests/e2e/expected/NAME/:
# boots.log (phase file at each boot, reboots, outcome, the unit's journal), the panel's lines at
# each reboot or stop (*.txt), the starter and the files of /home/TOV at the end.
#
#   test_scenario.sh BENCH OUTDIR NAME
#
# Lines that differ from one machine or one minute to the next are written as placeholders
# (tests/e2e/normalize.sh).
set -uo pipefail

BENCH=$1 OUT=$2 NAME=$3
HERE=$(dirname "$(readlink -f "$0")")
EXPECTED=$HERE/expected/$NAME
SIM=$HERE/../../sim
# shellcheck source=tests/e2e/normalize.sh
source "$HERE/normalize.sh"

"$SIM/operator/scenario" --bench "$BENCH" --out "$OUT" "$NAME"
echo "scenario $NAME ended with status $?"

compare "boots.log" "$EXPECTED/boots.log" "$(normalize "$OUT/boots.log")"
for expected in "$EXPECTED"/*.txt; do
    name=$(basename "$expected")
    if [[ -f $OUT/$name ]]; then
        compare "$name" "$expected" "$(normalize "$OUT/$name")"
    else
        printf 'FAIL %s: no such panel reading\n' "$name"
        failures=$((failures + 1))
    fi
done
compare "starter" "$EXPECTED/starter" "$(grep '^TOV_BIN_NAME=' "$OUT/home/TOV/tov_starter")"
compare "files of /home/TOV" "$EXPECTED/home-files" "$(cd "$OUT/home/TOV" && ls)"
[[ $failures -eq 0 ]]
