#!/usr/bin/python3
"""The board's power-cut judgement (sim/board/powercut.py) on states a cut can leave, each with the
verdict it must get: the judgement must let through what a cut at some instant may leave and stop
what no instant of the cycle holds, or what it has nothing to compare with. First the cuts, then the
states a replay of the NAND's write log gives over a whole cycle. Needs no board.

    tests/arm/powercut_judge.py
"""
import contextlib
import io
import os
import subprocess
import sys
import tempfile
import types

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../sim/board"))
import powercut  # noqa: E402
from nand import image_path  # noqa: E402
from log_replay import entry, log_of, runs  # noqa: E402
from logreplay import FLUSH  # noqa: E402
from powercut import GOOD, IFACES, PHASE, RESET, STARTER, FlushJudge, handed_over, judge_files  # noqa: E402

BENCH_STARTER = (b"#!/bin/sh\nTOV_BIN_NAME=tov_test\n. /home/TOV/tov_env\n", 0o755)
PROD_STARTER = (b"#!/bin/sh\nTOV_BIN_NAME=tovQT\n. /home/TOV/tov_env\n", 0o755)
DHCP = (b"auto lo\niface lo inet loopback\n\nauto eth0\nallow-hotplug eth0\niface eth0 inet dhcp\n\n", 0o644)
FORM = (b"auto lo\niface lo inet loopback\n\nauto eth0\nallow-hotplug eth0\niface eth0 inet static\n"
        b" address 192.0.2.50\n netmask 255.255.255.0\n gateway 192.0.2.1\n\n", 0o644)
FACTORY = (b"auto lo\niface lo inet loopback\n\nauto eth0\nallow-hotplug eth0\niface eth0 inet static\n"
           b" address 192.168.1.48\n netmask 255.255.255.0\n gateway 192.168.1.1\n"
           b" dns-nameservers 192.168.1.1\n\n", 0o644)
P1 = (b"1\n0\n192.0.2.10\n", 0o644)
P2 = (b"2\n0\n192.0.2.10\n", 0o644)
P3 = (b"3\n0\n192.0.2.10\n", 0o644)


def files(starter, phase, ifaces):
    return {STARTER: starter, PHASE: phase, IFACES: ifaces}


def short(version, length):
    return (version[0][:length], version[1])


START = files(BENCH_STARTER, P2, DHCP)  # stretch 2: phase 3 and the hand-over
END = files(PROD_STARTER, None, FACTORY)

# A cut in stretch 2: (what, files the cut left, file system, what the next boot started, failures expected)
CUTS = [
    ("as at the boot's start", START, "journal replayed", "test after phase 2", False),
    ("as at the hand-over's end", END, "clean", "production", False),
    ("starter switched, phase file still there", files(PROD_STARTER, P2, DHCP), "clean", "production", False),
    ("starter switched, phase file deleted", files(PROD_STARTER, None, DHCP), "clean", "production", False),
    ("factory interfaces beside the phase file", files(PROD_STARTER, P2, FACTORY), "clean", "production", True),
    ("phase file deleted before the starter switched", files(BENCH_STARTER, None, DHCP), "clean", "form", True),
    ("starter lost its mode", files((PROD_STARTER[0], 0o644), None, FACTORY), "clean", "production", True),
    ("starter missing", files(None, P2, DHCP), "clean", "no starter", True),
    ("a phase file no phase wrote", files(BENCH_STARTER, P3, DHCP), "clean", "test after phase 3", True),
    ("file system damaged beyond its journal", START, "damaged: Inode 12 has illegal blocks", "test after phase 2",
     True),
    ("came back to the form", START, "clean", "form", True),
]

# judge_files on one state: (what, files, (stretch, start, end), words of the failure or None)
MID = files(BENCH_STARTER, P1, FORM)  # stretch 1's start
STATES = [
    ("the end of phase 2 unknown", MID, (1, MID, None), "the end of phase 2 is unknown"),
    ("the start of the hand-over unknown", END, (2, None, END), "the start of phase 3 and hand-over is unknown"),
    ("starter empty", files(short(BENCH_STARTER, 0), P2, DHCP), (2, START, END), "starter empty"),
    ("starter cut after its first line", files(short(PROD_STARTER, 10), P2, DHCP), (2, START, END),
     "starter cut short"),
    ("starter lost its mode", files((BENCH_STARTER[0], 0o644), P2, DHCP), (2, START, END), "starter mode 644"),
    ("phase file empty", files(BENCH_STARTER, short(P2, 0), DHCP), (2, START, END), "phase file empty"),
    ("phase file cut short", files(BENCH_STARTER, short(P2, 4), FORM), (1, MID, files(BENCH_STARTER, P2, FORM)),
     "phase file cut short"),
    ("interfaces empty", files(PROD_STARTER, None, short(FACTORY, 0)), (2, START, END), "interfaces empty"),
    ("interfaces cut short", files(PROD_STARTER, None, short(FACTORY, 60)), (2, START, END), "interfaces cut short"),
    ("phase file pointing back", files(BENCH_STARTER, P1, DHCP), (2, START, END), "phase file goes back to phase 1"),
    ("a later change without an earlier one", files(BENCH_STARTER, P2, FACTORY), (2, START, END), "any one instant"),
    ("the hand-over half done", files(PROD_STARTER, None, DHCP), (2, START, END), None),
]

# One uncut cycle's replayed states: (name, its last byte in the log, files). The log reaches the
# end of stretch 0, 1 and 2 at MARKS.
MARKS = {0: 1000, 1: 2000, 2: 3000}
S0 = files(BENCH_STARTER, None, DHCP)
END0, END1 = files(BENCH_STARTER, P1, FORM), files(BENCH_STARTER, P2, FORM)
CYCLE = [
    ("flush 1", 100, S0),
    ("flush 2", 500, files(BENCH_STARTER, None, FORM)),
    ("flush 3", 900, END0),
    ("flush 3 draw 1 lost 1/2", 1100, END0),
    ("flush 4", 1500, END0),
    ("flush 5", 1900, END1),
    ("flush 6", 2100, END1),
    ("flush 7", 2300, files(PROD_STARTER, P2, FORM)),
    ("flush 8", 2500, files(PROD_STARTER, None, FORM)),
    ("flush 8 draw 1 lost 2/3", 2600, files(PROD_STARTER, P2, FORM)),
    ("flush 9", 2900, END),
    ("flush 10", 3100, END),
]


# The reset cycle's: phase 2's reset deletes the phase file, the form comes back.
RESET_MARKS = {0: 1000, 1: 2000}
RESET1 = files(BENCH_STARTER, None, FORM)
RESET_CYCLE = CYCLE[:5] + [("flush 5", 1900, RESET1), ("flush 6", 2100, RESET1)]

# The good cycle's states to boot, each with a word of why (a drawn state only between two that differ).
SAMPLE = {"flush 1": "before the interfaces file's write", "flush 2": "before the phase file's write (phase 1)",
          "flush 3": "after the phase file's write (phase 1)", "flush 4": "before the phase file's write (phase 2)",
          "flush 5": "after the phase file's write (phase 2)", "flush 6": "before the starter's rewrite",
          "flush 7": "before the phase file's deletion", "flush 8": "after the phase file's deletion",
          "flush 8 draw 1 lost 2/3": "during the interfaces file's write", "flush 9": "after the interfaces file's write"}


def changed(name, version, cycle=CYCLE):
    """CYCLE with the state NAME holding VERSION of one file ({path: version})."""
    return [(n, offset, {**f, **version} if n == name else f) for n, offset, f in cycle]


# (what, states, starts, ends, words each failure must hold, at least one; none expected when empty;
# the reset cycle's: its plan and marks besides)
def variants():
    ends = {0: END0, 1: END1, 2: handed_over(END1, FACTORY)[0], 3: END}
    starts = {0: S0, 1: END0, 2: END1, 3: END}
    reset = (RESET, RESET_MARKS)
    rstarts, rends = {0: S0, 1: END0, 2: RESET1}, {0: END0, 1: RESET1, 2: RESET1}
    return [
        ("the good cycle", CYCLE, starts, ends, []),
        ("the reset cycle", RESET_CYCLE, rstarts, rends, [], *reset),
        ("the reset cycle with phase 2 passed instead", changed("flush 5", {PHASE: P2}, RESET_CYCLE), rstarts, rends,
         ["flush 5", "phase file neither"], *reset),
        ("the factory interfaces file cut short", changed("flush 9", {IFACES: short(FACTORY, 60)}), starts, ends,
         ["flush 9", "interfaces cut short"]),
        ("the starter cut after its first line", changed("flush 7", {STARTER: short(PROD_STARTER, 10)}), starts, ends,
         ["flush 7", "starter cut short"]),
        ("the phase file pointing back", changed("flush 6", {PHASE: P1}), starts, ends,
         ["flush 6", "phase file goes back to phase 1"]),
        ("a drawn state with the interfaces empty", changed("flush 8 draw 1 lost 2/3", {IFACES: short(FORM, 0)}),
         starts, ends, ["flush 8 draw 1 lost 2/3", "interfaces empty"]),
        ("the end of phase 2 never seen", CYCLE, starts, {**ends, 1: None}, ["phase 2 is unknown"]),
        ("the start never seen", CYCLE, {**starts, 0: None}, ends, ["first boot", "is unknown"]),
        ("the hand-over's end not known (no factory file at the end)", CYCLE, starts,
         {**ends, 2: handed_over(END1, short(FACTORY, 60))[0]}, ["hand-over is unknown"]),
        ("a replay that lost phase 2's write", changed("flush 5", {PHASE: P1}), starts, ends,
         ["last state of phase 2"]),
        ("a log that ends before the hand-over", CYCLE[:6], starts, ends, ["no state of"]),
    ]


# The same cycle on a small NAND image, one version a step: (file, version or None to delete,
# whether the step ends its stretch; or None, (byte, bytes written there), whether). Its log is replayed, each state read as after a cut.
STEPS = [(IFACES, FORM, False), (PHASE, P1, True), (PHASE, P2, True), (STARTER, PROD_STARTER, False),
         (PHASE, None, False), (IFACES, FACTORY, True), ("/home/TOV/tovQT", (b"#!/bin/sh\n", 0o755), False)]


def replayed_cycle(folder, steps, subsets=0):
    """The failures of the judgement of the replayed cycle of STEPS."""
    stage = os.path.join(folder, "stage")
    for path, (content, mode) in ((STARTER, BENCH_STARTER), (IFACES, DHCP)):
        where = os.path.join(stage, image_path(path).lstrip("/"))
        os.makedirs(os.path.dirname(where), exist_ok=True)
        with open(where, "wb") as f:
            f.write(content)
        os.chmod(where, mode)
    image = os.path.join(folder, "nand.img")
    subprocess.run(["truncate", "-s", "4M", image], check=True)
    subprocess.run(["mkfs.ext4", "-q", "-F", "-b", "1024", "-d", stage, image], check=True)
    first = os.path.join(folder, powercut.FIRST_IMAGE)
    subprocess.run(["cp", image, first], check=True)
    entries, marks, length = [], {}, 512
    for number, (path, version, ends) in enumerate(steps):
        before = open(image, "rb").read()
        if path is None:  # bytes written as they stand: (byte, bytes)
            with open(image, "r+b") as f:
                f.seek(version[0])
                f.write(version[1])
            version, path = None, None
        else:
            where = image_path(path)
            requests = [f"rm {where}"]
            if version is not None:
                with open(os.path.join(folder, "text"), "wb") as f:
                    f.write(version[0])
                requests += [f"write {os.path.join(folder, 'text')} {where}",
                             f"sif {where} mode 0100{version[1]:o}"]
            with open(os.path.join(folder, "requests"), "w") as f:
                f.write("\n".join(requests) + "\n")
            subprocess.run(["debugfs", "-w", "-f", os.path.join(folder, "requests"), image], check=True,
                           capture_output=True)
        step = [entry(s, d) for s, d in runs(before, open(image, "rb").read())] + [entry(flags=FLUSH)]
        entries += step
        length += sum(len(e) for e in step)
        if ends:
            marks[len(marks)] = length
    with open(os.path.join(folder, powercut.LOG_FILE), "wb") as f:
        f.write(log_of(entries))
    s0 = files(BENCH_STARTER, None, DHCP)
    end0, end1 = files(BENCH_STARTER, P1, FORM), files(BENCH_STARTER, P2, FORM)
    end2 = handed_over(end1, FACTORY)[0]
    # Judged as a board run's folder is judged again: through what the run keeps.
    powercut.keep_judgement(folder, GOOD, {0: s0, 1: end0, 2: end1, 3: end2}, {0: end0, 1: end1, 2: end2, 3: end2},
                            marks)
    judge, _ = powercut.judge_run(folder, folder, subsets, 5)
    return judge.failures


def main():
    bad = 0
    count = 0
    with tempfile.TemporaryDirectory() as out:
        harness = powercut.Harness(types.SimpleNamespace(out=out))
        harness.end[2] = END
        for what, left, fs, came_back, fails in CUTS:
            cut = powercut.Cut(1, 2, 10.0)
            cut.made_in, cut.start, cut.left, cut.fs = 2, START, left, fs
            cut.seen, cut.came_back = left, came_back
            problems = harness.judge(cut)
            if bool(problems) != fails:
                bad += 1
                print(f"FAIL {what}: judged {'; '.join(problems) or 'ok'}")
        # A phase's files with the board seeing other ones than the image held.
        cut = powercut.Cut(1, 1, 10.0)
        harness.end[1] = START
        cut.made_in, cut.start, cut.left, cut.fs = 1, MID, MID, "clean"
        cut.seen, cut.came_back = START, "test after phase 2"
        # Phase 2 writes only the phase file: an interfaces file that changed in it is wrong even
        # when the end of the phase, as read, shows it so.
        rewrote = powercut.Cut(1, 1, 10.0)
        rewrote.made_in, rewrote.start, rewrote.fs = 1, MID, "clean"
        rewrote.left = rewrote.seen = files(BENCH_STARTER, P2, FACTORY)
        # The boot's start (and the stretch's end) never seen: the cut cannot be compared.
        unseen = powercut.Cut(1, 1, 10.0)
        unseen.made_in, unseen.left, unseen.fs = 1, MID, "clean"
        # The form's phase: its end is known only once seen (the operator's network settings).
        endless = powercut.Cut(1, 0, 10.0)
        endless.made_in, endless.start, endless.left, endless.fs = 0, S0, S0, "clean"
        for what, c, end in (("the board saw other files than the image held", cut, START),
                             ("an interfaces file that phase 2 rewrote", rewrote, files(BENCH_STARTER, P2, FACTORY)),
                             ("a cut whose start was never seen", unseen, START),
                             ("a cut whose end was never seen", endless, None),
                             ("a cut whose start and end were never seen", unseen, None)):
            harness.end.pop(1, None)
            if end is not None:
                harness.end[1] = end
            if not harness.judge(c):
                bad += 1
                print(f"FAIL {what}, judged ok")
        count += len(CUTS) + 5
        # A cut between the hand-over's switch of the starter and its factory interfaces file: the
        # unit comes back handed over and the run never sees that file. (what, the cut left, the
        # files the cycle ended on, words of the failure or None)
        harness.end.pop(2, None)
        for what, left, final, words in [
            ("after the starter's switch", files(PROD_STARTER, P2, DHCP), None, None),
            ("after the phase file's deletion", files(PROD_STARTER, None, DHCP), None, None),
            ("the interfaces cut short there", files(PROD_STARTER, None, short(DHCP, 30)), None,
             "interfaces cut short"),
            ("the cycle ended on other files", files(PROD_STARTER, None, DHCP), files(PROD_STARTER, None, FORM),
             "end of phase 3 and hand-over is unknown"),
        ]:
            cut = powercut.Cut(1, 2, 10.0)
            cut.made_in, cut.start, cut.left, cut.fs = 2, START, left, "clean"
            cut.seen, cut.came_back = left, "production"
            harness.made, harness.final = [cut], (final or left, "production")
            problems = harness.judge(cut)
            if (words is None) != (not problems) or words and not any(words in p for p in problems):
                bad += 1
                print(f"FAIL a cut in the hand-over {what}: judged {'; '.join(problems) or 'ok'}")
        harness.made, harness.final = [], None
        count += 4
        # Phase 2's end unseen (the cut came between the phase file's write and its reading): the
        # phase that passes is known before.
        harness.end.pop(1, None)
        for what, phase, words in (("phase 2 passed, its end unseen", P2, None),
                                   ("phase 2's phase file cut short, its end unseen", short(P2, 2), "cut short")):
            cut = powercut.Cut(1, 1, 10.0)
            cut.made_in, cut.start, cut.fs = 1, MID, "clean"
            cut.left = files(BENCH_STARTER, phase, FORM)
            problems = harness.judge(cut)
            if (words is None) != (not problems) or words and not any(words in p for p in problems):
                bad += 1
                print(f"FAIL {what}: judged {'; '.join(problems) or 'ok'}")
        count += 2

        # Each stretch's end as known before a logged cycle, held to what the board read:
        # (what, plan, ends the board read, the last boot's files and what they started, words).
        for what, plan, seen, final, words in [
            ("the good cycle", GOOD, {0: END0, 1: END1, 2: END}, (END, "production"), []),
            ("phase 2 wrote another server", GOOD, {0: END0, 1: files(BENCH_STARTER, (b"2\n0\n192.0.2.99\n", 0o644),
                                                                        FORM), 2: END}, (END, "production"),
             ["after phase 2 the board read"]),
            ("the reset cycle", RESET, {0: END0, 1: RESET1}, (RESET1, "form"), []),
            ("a reset that rewrote the interfaces", RESET, {0: END0, 1: files(BENCH_STARTER, None, DHCP)},
             (files(BENCH_STARTER, None, DHCP), "form"), ["after phase 2 and its reset the board read"]),
            ("a reset cycle that ends in a test", RESET, {0: END0, 1: RESET1}, (RESET1, "test after phase 1"),
             ["started 'test after phase 1'"]),
            ("the form's end never seen", RESET, {1: RESET1}, (RESET1, "form"), ["first boot", "not known"]),
        ]:
            harness.failures, harness.end, harness.final = [], dict(seen), final
            with contextlib.redirect_stdout(io.StringIO()):
                starts, ends = harness.known_ends(plan, S0)
            failures = harness.failures
            if bool(failures) != bool(words) or words and not any(all(w in f for w in words) for f in failures) or \
                    not words and (ends[len(plan) - 1] != final[0] or starts[1] != END0):
                bad += 1
                print(f"FAIL the ends of {what}: {failures}")
        # The stretch a state's boot is in: (plan, the state's stretch, files, the stretch or None).
        for plan, stretch, left, wanted in [(RESET, 1, END0, 1), (RESET, 1, RESET1, 2), (GOOD, 1, RESET1, None),
                                            (GOOD, 2, END, 3), (GOOD, 0, END1, None)]:
            if plan.boot_stretch(stretch, left) != wanted:
                bad += 1
                print(f"FAIL {plan.scenario} stretch {stretch}: {powercut.show(left)} boots in "
                      f"{plan.boot_stretch(stretch, left)}, not {wanted}")
        count += 11

        for what, left, (stretch, start, end), words in STATES:
            problems = judge_files(left, "clean", stretch, start, end)
            if (words is None) != (not problems) or words and not any(words in p for p in problems):
                bad += 1
                print(f"FAIL {what}: judged {'; '.join(problems) or 'ok'}")
        count += len(STATES)

    for what, states, starts, ends, words, *plan in variants():
        plan, marks = plan or (GOOD, MARKS)
        judge = FlushJudge(starts, ends, marks, plan)
        for name, offset, left in states:
            judge.judge(name, offset, left, "clean", whole="draw" not in name)
        failures = judge.finish()
        if bool(failures) != bool(words) or words and not any(all(w in f for w in words) for f in failures):
            bad += 1
            print(f"FAIL replayed cycle, {what}: judged {'; '.join(failures) or 'ok'}")
        if what in ("the good cycle", "the reset cycle"):
            # The states booted: the last before, the first during and the first after each change;
            # the last short of the hand-over plays on to it.
            sample = powercut.samples(judge.path)
            chosen = {state[0]: why for state, why in sample}
            wanted = SAMPLE if plan is GOOD else {n: SAMPLE[n] for n in ("flush 1", "flush 2", "flush 3")}
            wanted.update({} if plan is GOOD else {"flush 4": "before the phase file's deletion",
                                                     "flush 5": "after the phase file's deletion"})
            on = sample[powercut.played_on(sample)][0][0]
            if set(chosen) != set(wanted) or any(w not in chosen[n] for n, w in wanted.items()) or \
                    on != ("flush 6" if plan is GOOD else "flush 5"):
                bad += 1
                print(f"FAIL the sample of {what}: {chosen}, {on} played on")
        count += 1
    # (what, the step changed and its version, words a failure must hold; none expected when empty,
    # drawn states after each flush)
    for what, change, words, *subsets in [
        ("the good cycle", None, []),
        # debugfs writes with no journal: a state that lost some of a step's writes is torn.
        ("the good cycle judged again with states drawn between its flushes", None, ["draw", "lost"], 3),
        ("the factory interfaces file cut short", (5, (IFACES, short(FACTORY, 60), True)),
         ["flush 6", "interfaces cut short"]),
        ("the starter cut after its first line", (3, (STARTER, short(PROD_STARTER, 10), False)),
         ["flush 4", "starter cut short"]),
        ("a NAND that cannot be read (its superblock overwritten)", (3, (None, (1024, b"\xff" * 1024), False)),
         ["flush 4", "could not be read"]),
    ]:
        steps = list(STEPS)
        if change:
            steps[change[0]] = change[1]
        with tempfile.TemporaryDirectory() as folder, contextlib.redirect_stdout(io.StringIO()):
            failures = replayed_cycle(folder, steps, *subsets)
        if bool(failures) != bool(words) or words and not any(all(w in f for w in words) for f in failures):
            bad += 1
            print(f"FAIL replayed image, {what}: judged {'; '.join(failures) or 'ok'}")
        count += 1
    print(f"powercut_judge: {count} states and cycles, {bad} judged wrong")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
