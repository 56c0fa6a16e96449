#!/usr/bin/env bash
# One factory cycle end to end: sim/operator/scenario runs the unchanged bench through its boots with the
# scenario's operator, then what the unit went through is compared with tests/e2e/expected/NAME/:
# boots.log (phase file at each boot, reboots, outcome, the unit's journal), the panel's lines at
# each reboot or stop (*.txt), the starter and the files of /home/TOV at the end.
#
#   test_scenario.sh BENCH OUTDIR NAME
#
# Lines that differ from one machine or one minute to the next are written as placeholders: the
# kernel release, the date and time, the free megabytes of /home (they follow the bench's size).
set -uo pipefail

BENCH=$1 OUT=$2 NAME=$3
HERE=$(dirname "$(readlink -f "$0")")
EXPECTED=$HERE/expected/$NAME
SIM=$HERE/../../sim
failures=0

normalize() {
    sed -E -e 's/^Kernel Version: .*/Kernel Version: <kernel>/' \
        -e 's#^Date/Heure du TOV: [0-9]{2}/[0-9]{2}/[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}$#Date/Heure du TOV: <date>#' \
        -e 's#^(Espace de Stockage \(libre/total\): )[0-9]+Mo/#\1<free>Mo/#' \
        -e '/^  screenshot /d' -e '/^  panel lines /d' "$1"
}

compare() { # compare WHAT EXPECTED_FILE ACTUAL_TEXT
    local diff
    if ! diff=$(diff -u --label expected --label actual "$2" <([[ -z $3 ]] || printf '%s\n' "$3")); then
        printf 'FAIL %s\n%s\n' "$1" "$diff"
        failures=$((failures + 1))
    fi
}

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
