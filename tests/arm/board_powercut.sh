#!/usr/bin/env bash
# Power cuts on the emulated board: the write log's replay and the judgement's tables first
# (tests/arm/log_replay.py, tests/arm/powercut_judge.py), then two factory cycles by touch with the
# NAND behind QEMU's write log (sim/board/powercut --every-flush), the good one and one whose
# operator resets the bench during phase 2: every flush of each log, and two drawn losses of the
# unflushed writes after each, judged on this machine; then the states just before and just after
# each change of the starter, the phase file and the interfaces file booted on the board, each of
# them coming back where the cycle was, and one of each cycle played on to the hand-over. The
# states are chosen by the files they hold, not by time: a slower or busier machine boots the same
# ones. About sixteen minutes.
#
#   tests/arm/board_powercut.sh OUT        (the runs in OUT/good and OUT/reset-phase2)
#
# Skips (77) where the board cannot run.
set -uo pipefail
OUT=$1
TOP=$(readlink -f "$(dirname "$0")/../..")
export PYTHONDONTWRITEBYTECODE=1
"$TOP/tests/arm/log_replay.py" || exit 1
"$TOP/tests/arm/powercut_judge.py" || exit 1
status=0
for scenario in good reset-phase2; do
    "$TOP/sim/board/powercut" --every-flush --scenario "$scenario" --seed 1 --out "$OUT/$scenario" || {
        code=$?
        # A host that cannot run the board skips both; any other failure fails the test.
        [[ $code -eq 77 ]] && exit 77
        status=1
    }
done
exit $status
