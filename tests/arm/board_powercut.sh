#!/usr/bin/env bash
# Power cuts on the emulated board: the write log's replay and the judgement's tables first
# (tests/arm/log_replay.py, tests/arm/powercut_judge.py), then one factory cycle by touch with the
# NAND behind QEMU's write log (sim/board/powercut --every-flush): every flush of the log, and two
# drawn losses of the unflushed writes after each, judged on this machine; then the states just
# before and just after each change of the starter, the phase file and the interfaces file booted
# on the board, each of them coming back where the cycle was, and one played on to the hand-over.
# The states are chosen by the files they hold, not by time: a slower or busier machine boots the
# same ones. About nine minutes.
#
#   tests/arm/board_powercut.sh OUT
#
# Skips (77) where the board cannot run.
set -uo pipefail
OUT=$1
TOP=$(readlink -f "$(dirname "$0")/../..")
export PYTHONDONTWRITEBYTECODE=1
"$TOP/tests/arm/log_replay.py" || exit 1
"$TOP/tests/arm/powercut_judge.py" || exit 1
"$TOP/sim/board/powercut" --every-flush --seed 1 --out "$OUT"
