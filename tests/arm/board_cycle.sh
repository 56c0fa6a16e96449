#!/usr/bin/env bash
# The factory cycle on the emulated board (sim/board/board run --steps cycle|phase: Debian's armhf
# kernel under qemu-system-arm, the bundle on its NAND, the operator's finger on the touch panel),
# compared with what the host's end-to-end run of the same scenario must give
# (tests/e2e/expected/good): the result panel's lines at each reboot, read from the bench's own
# output, the phase file and starter at each boot, the outcome and the starter at the end. The
# unit's journal is the simulated unit's and stays out: on the board the commands are real.
#
#   tests/arm/board_cycle.sh ARCH cycle|phase OUT
#
# phase: the first phase only, to the first reboot. Skips (77) where the board cannot run.
set -uo pipefail
ARCH=$1 STEPS=$2 OUT=$3
TOP=$(readlink -f "$(dirname "$0")/../..")
EXPECTED=$TOP/tests/e2e/expected/good
# shellcheck source=tests/e2e/normalize.sh
source "$TOP/tests/e2e/normalize.sh"
started=$(date +%s)

"$TOP/sim/board/board" run --arch "$ARCH" --steps "$STEPS" --out "$OUT"
status=$?
[[ $status -ne 77 ]] || exit 77
[[ $status -eq 0 ]] || { echo "board_cycle: the board's $STEPS ended with status $status (logs in $OUT)" >&2; exit 1; }

case $STEPS in
    cycle)
        boots=(1 2 3)
        compare "boots.log" <(sed '/^journal of the unit:/,$d' "$EXPECTED/boots.log") "$(normalize "$OUT/boots.log")"
        compare "starter" "$EXPECTED/starter" "$(cat "$OUT/starter")" ;;
    phase)
        boots=(1)
        compare "boots.log" <(sed -n '1,3p' "$EXPECTED/boots.log"; echo "outcome: stopped after the phases asked for") \
            "$(normalize "$OUT/boots.log")" ;;
    *) echo "usage: board_cycle.sh ARCH cycle|phase OUT" >&2; exit 2 ;;
esac
for boot in "${boots[@]}"; do
    name=boot$boot-reboot.txt
    if [[ -f $OUT/$name ]]; then
        compare "$name" "$EXPECTED/$name" "$(normalize "$OUT/$name")"
    else
        printf 'FAIL %s: no panel lines from the bench at that reboot\n' "$name"
        failures=$((failures + 1))
    fi
done
echo "board_cycle: $ARCH $STEPS on the emulated board, $failures difference(s) from the host's lines, $(( $(date +%s) - started )) s; screenshots in $OUT"
[[ $failures -eq 0 ]]
