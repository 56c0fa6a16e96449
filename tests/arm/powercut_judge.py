#!/usr/bin/python3
"""The board's power-cut judgement (sim/board/powercut.py) on states a cut can leave, each with the
verdict it must get: the judgement must let through what a cut at some instant may leave and stop
what no instant of the cycle holds. Needs no board.

    tests/arm/powercut_judge.py
"""
import os
import sys
import tempfile
import types

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../sim/board"))
import powercut  # noqa: E402
from powercut import IFACES, PHASE, STARTER  # noqa: E402

BENCH_STARTER = (b"#!/bin/sh\nTOV_BIN_NAME=tov_test\n. /home/TOV/tov_env\n", 0o755)
PROD_STARTER = (b"#!/bin/sh\nTOV_BIN_NAME=tovQT\n. /home/TOV/tov_env\n", 0o755)
DHCP = (b"auto lo\niface lo inet loopback\n\nauto eth0\niface eth0 inet dhcp\n", 0o644)
FACTORY = (b"auto lo\niface lo inet loopback\n\nauto eth0\niface eth0 inet static\n"
           b" address 192.168.1.48\n netmask 255.255.255.0\n", 0o644)
P2 = (b"2\n0\n192.0.2.10\n", 0o644)
P3 = (b"3\n0\n192.0.2.10\n", 0o644)


def files(starter, phase, ifaces):
    return {STARTER: starter, PHASE: phase, IFACES: ifaces}


START = files(BENCH_STARTER, P2, DHCP)  # stretch 2: phase 3 and the hand-over
END = files(PROD_STARTER, None, FACTORY)

# (what, files the cut left, file system, what the next boot started, failures expected)
CASES = [
    ("as at the boot's start", START, "journal replayed", "test after phase 2", False),
    ("as at the hand-over's end", END, "clean", "production", False),
    ("starter switched, phase file still there", files(PROD_STARTER, P2, DHCP), "clean", "production", False),
    ("starter switched, phase file deleted", files(PROD_STARTER, None, DHCP), "clean", "production", False),
    ("factory interfaces beside the phase file", files(PROD_STARTER, P2, FACTORY), "clean", "production", True),
    ("phase file deleted before the starter switched", files(BENCH_STARTER, None, DHCP), "clean", "form", True),
    ("interfaces file cut short", files(PROD_STARTER, None, (FACTORY[0][:40], 0o644)), "clean", "production", True),
    ("interfaces file empty", files(BENCH_STARTER, P2, (b"", 0o644)), "clean", "test after phase 2", True),
    ("starter lost its mode", files((PROD_STARTER[0], 0o644), None, FACTORY), "clean", "production", True),
    ("starter missing", files(None, P2, DHCP), "clean", "no starter", True),
    ("a phase file no phase wrote", files(BENCH_STARTER, P3, DHCP), "clean", "test after phase 3", True),
    ("file system damaged beyond its journal", START, "damaged: Inode 12 has illegal blocks", "test after phase 2", True),
    ("came back to the form", START, "clean", "form", True),
]


def main():
    bad = 0
    with tempfile.TemporaryDirectory() as out:
        harness = powercut.Harness(types.SimpleNamespace(out=out))
        harness.end[2] = END
        for what, left, fs, came_back, fails in CASES:
            cut = powercut.Cut(1, 2, 10.0)
            cut.made_in, cut.start, cut.left, cut.fs = 2, START, left, fs
            cut.seen, cut.came_back = left, came_back
            problems, _ = harness.judge(cut)
            if bool(problems) != fails:
                bad += 1
                print(f"FAIL {what}: judged {'; '.join(problems) or 'ok'}")
        # A phase's files with the board seeing other ones than the image held.
        cut = powercut.Cut(1, 1, 10.0)
        mid = files(BENCH_STARTER, (b"1\n", 0o644), DHCP)
        harness.end[1] = START
        cut.made_in, cut.start, cut.left, cut.fs = 1, mid, mid, "clean"
        cut.seen, cut.came_back = START, "test after phase 2"
        if not harness.judge(cut)[0]:
            bad += 1
            print("FAIL the board saw other files than the image held, judged ok")
        # Phase 2 writes only the phase file: an interfaces file that changed in it is wrong even
        # when the end of the phase, as read, shows it so.
        harness.end[1] = files(BENCH_STARTER, P2, FACTORY)
        cut.left = cut.seen = files(BENCH_STARTER, P2, FACTORY)
        if not harness.judge(cut)[0]:
            bad += 1
            print("FAIL an interfaces file that phase 2 rewrote, judged ok")
    print(f"powercut_judge: {len(CASES) + 2} states, {bad} judged wrong")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
