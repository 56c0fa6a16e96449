#!/usr/bin/env bash
# Power cuts on the emulated board: the write log's replay and the judgement's tables first
# (tests/arm/log_replay.py, tests/arm/powercut_judge.py), then
# the factory cycle by touch with QEMU killed at three seeded instants (sim/board/powercut), each
# followed by a reading of the NAND image and a boot from it, and the hand-over at the end. The
# seed is fixed: on an unloaded board its second and third cuts fall in the seconds after the
# phase file of phase 2 and the hand-over's files are written. About four minutes.
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
"$TOP/sim/board/powercut" --cuts 3 --seed 1 --out "$OUT"
