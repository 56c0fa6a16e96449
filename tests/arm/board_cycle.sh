#!/usr/bin/env bash
# A scenario on the emulated board (sim/board/board run: Debian's armhf kernel under qemu-system-arm,
# the bundle on its NAND, the operator's finger on the touch panel, the scenario's faults made with
# the board's own devices), held to what the host's end-to-end run of the same scenario must give
# (tests/e2e/expected/SCENARIO): the harness compares each line as it comes (the phase file and
# starter at each boot, the result panel's lines of each run, the outcome, the starter and the files
# of /home/TOV at the end) and stops at the first difference. The unit's journal is the simulated
# unit's and stays out: on the board the commands are real.
#
#   tests/arm/board_cycle.sh ARCH SCENARIO cycle|phase OUT
#
# phase: the first phase only, to the first reboot (or to where the operator stops, if sooner).
# Here the panel's lines at each reboot are also read back from the copy the board's orderly end
# left on the NAND. Skips (77) where the board cannot run.
set -uo pipefail
ARCH=$1 SCENARIO=$2 STEPS=$3 OUT=$4
TOP=$(readlink -f "$(dirname "$0")/../..")
EXPECTED=$TOP/tests/e2e/expected/$SCENARIO
# shellcheck source=tests/e2e/normalize.sh
source "$TOP/tests/e2e/normalize.sh"
started=$(date +%s)

"$TOP/sim/board/board" run --arch "$ARCH" --scenario "$SCENARIO" --steps "$STEPS" --out "$OUT"
status=$?
[[ $status -ne 77 ]] || exit 77
[[ $status -eq 0 ]] || { echo "board_cycle: $SCENARIO's $STEPS on the board ended with status $status (logs in $OUT)" >&2; exit 1; }

for saved in "$OUT"/boot*-reboot.txt; do
    [[ -e $saved ]] || continue
    compare_panel "$(basename "$saved")" "$EXPECTED/$(basename "$saved")" "$OUT"
done
echo "board_cycle: $ARCH $SCENARIO $STEPS on the emulated board, $failures difference(s) from the host's lines, $(( $(date +%s) - started )) s; screenshots in $OUT"
[[ $failures -eq 0 ]]
