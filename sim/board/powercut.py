#!/usr/bin/python3
"""The factory cycle on the emulated board with the power pulled at random instants.

Run inside a simulated unit by sim/board/powercut, like run.py. The cycle is played by touch as
cycle.py plays it; at each of the chosen instants QEMU is killed outright (SIGKILL: no shutdown,
no flush of the guest's caches, whatever the disk had not yet been given is lost). Between the cut
and the next boot the NAND image is read on this machine (nand.py); then the board boots again
from the same image and the cycle goes on from wherever the unit came back, until the hand-over.

    powercut.py --out DIR --kernel FILE --initrd FILE --disk FILE --cuts N --seed S
    powercut.py --out DIR --kernel FILE --initrd FILE --disk FILE --every-flush [--subsets K] --seed S
                [--scenario good|reset-phase2]

With --every-flush no power is pulled: one uncut cycle (the good one, or the reset-phase2 one: the
operator resets the bench during phase 2 and stops at the form it brings back) runs with the NAND
behind QEMU's write log (OUT/nand.log; the image as it began, OUT/nand-start.img), and the log is
then replayed (logreplay.py): the NAND at every flush, and after each flush at most K states drawn
with the seed that lose a part of the writes the NAND had not yet been told to keep. Each state is
read as after a cut (nand.py) and judged as a cut in the stretch its last write fell in, below,
without the boot; the last state of each stretch must be the files the board read at that
stretch's end. Then a sample of the states (samples(): around each change of the three files, by
what they hold) is booted from images of its own and judged with its boot, as a cut is; the last
of them that comes back short of the hand-over plays on through the good cycle to the hand-over.
The run's folder keeps the log, the image it began on and judgement.json, what the judgement needs
besides: with --rejudge DIR the log is judged again, other drawn states with it, and nothing
booted.

    powercut.py --rejudge DIR [--subsets K] --seed S

The good cycle's boots (Plan GOOD below; RESET for the reset's), the stretches of time the
instants are drawn over:
  stretch 0  first boot: the network form (the interfaces file), test phase 1, the phase file
  stretch 1  test phase 2, the phase file
  stretch 2  test phase 3, the hand-over: starter, phase file deleted, factory interfaces file
  stretch 3  handed over: the starter names the production application
Each instant is a stretch and a time since that boot's start (QEMU's start or the reboot before
it). The N instants are spread evenly over the nominal length of the cycle, one drawn at random in
each N-th of it. When a cut brings the unit back one phase later, the cuts drawn in the stretch it
left are drawn again, spread in the same way over what is left of the cycle; a cut whose boot ends
before its time is made at that reboot.

Judgement of a cut in stretch S, against the files at the start of the same boot (START) and at the
end of stretch S as the cycle left them uncut (END: read on the board when it next booted after an
orderly reboot, or, when no pass of S ended that way, read on the board after the bench had written
them all; phase 2's END is known before: START with the phase file one phase on; so is the
hand-over's: START's starter naming the production application, mode 755, no phase file, and the
factory interfaces file as the cycle's end showed it; and a reset's: START without its phase file). A cut whose
START or END was never seen cannot be compared, and fails:
  - the file system needs nothing beyond its journal's replay;
  - the starter, the phase file and the interfaces file each are as at START or as at END, mode
    included (a file the stretch does not change: as at START);
  - together they are as at one instant of the stretch: the stretch changes its files one after
    the other, each on the NAND before the next (the plan's changes), so the files already changed are
    the first ones of that order;
  - the board's next boot sees the same files as this machine read, and starts what they say:
    the form (no phase file), the test with the phase file's phase, or the production application
    (a stand-in in /home/TOV shows that the starter starts it);
  - the unit comes back where the cycle was at that instant: what START or END, or a state between
    them, starts.
In the end the cycle must reach the hand-over: the starter names the production application and
starts it, the phase file is gone, and the interfaces file is the factory one, unless a cut after
the hand-over's switch of the starter and before that file handed the unit over first: then the
unit keeps the interfaces file it had, as that cut left it (the hand-over's order), and the
hand-over's end is judged as far as it went.
"""
import argparse
import base64
import json
import os
import random
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import types

from console import ConsoleError, ConsoleTimeout
from cycle import Cycle
from expect import PANEL
from deadline import Deadline
from logreplay import Log, LogError, Replay, write_states
from machine import Machine, StartError, board_arguments
from nand import NandError, read_after_cut
from run import TAPS, setup_network
from screen import bench_running, wait_for_screen
import starter

STARTER = starter.PATH
PHASE = "/home/TOV/tov_test.cfg"
IFACES = "/etc/network/interfaces"
FILES = (STARTER, PHASE, IFACES)
NAMES = {STARTER: "starter", PHASE: "phase file", IFACES: "interfaces"}
BENCH, PRODUCTION = "tov_test", "tovQT"

# Nominal length of each stretch in seconds, from QEMU's start or the reboot to the next reboot
# (the form taken as the harness's operator takes it): a little over what the board took here
# (71 to 80 s, up to 90 s on a loaded machine). A longer real stretch would leave its last
# seconds, those after the bench writes its files, without cuts; a shorter one gets the surplus
# cuts at its reboot.
NOMINAL = (85, 74, 85)
# The handed-over unit's boot, where cuts land only when the cycle ended before them.
HANDED_OVER = 30
FIRST_TEST_LINE = "Kernel Version"


class Plan:
    """The boots of one logged cycle in order (its stretches): for each, its name, where the unit
    is when it boots (place_of: 0 the form, 1 or 2 the test after that phase, 3 handed over), the
    files it changes in the order the cycle changes them, each on the NAND before the next, how
    its end is known (seen_end and the others below), and whether the operator resets the bench in it."""

    def __init__(self, scenario, stretches):
        self.scenario = scenario
        self.names, self.places, self.changes, self.ends, self.resets = zip(*stretches)

    def __len__(self):
        return len(self.names)

    def boot_stretch(self, stretch, files):
        """The stretch a boot on FILES, left by an instant of STRETCH, is in: that one, or the next
        when they already hold its end; None when the unit cannot go on from them there."""
        place = place_of(files)
        for s in (stretch, stretch + 1):
            if s < len(self) and place == self.places[s]:
                return s
        return None


def program_of(files):
    found = files.get(STARTER)
    return None if found is None else starter.program(found[0])


def phase_of(files):
    phase = files.get(PHASE)
    if phase is None:
        return 0
    first = phase[0].split(b"\n", 1)[0].strip()
    return int(first) if first.isdigit() else None


def place_of(files):
    """Where a boot on FILES is in the good cycle (the form, the test after phase 1 or 2, handed
    over: 0 to 3), or None when the unit cannot go on from them."""
    program = program_of(files)
    if program == PRODUCTION:
        return 3
    if program != BENCH:
        return None
    phase = phase_of(files)
    return phase if phase in (0, 1, 2) else None


def outcome_of(files):
    """What a boot on FILES starts, as the judgement names it."""
    program = program_of(files)
    if program == PRODUCTION:
        return "production"
    if program != BENCH:
        return f"starter names '{program}'" if program is not None else "no starter"
    phase = phase_of(files)
    if phase == 0:
        return "form"
    return f"test after phase {phase}" if phase is not None else "bench with an unreadable phase file"


def key(files):
    return tuple(files.get(path) for path in FILES)


def show(files):
    parts = []
    for path in FILES:
        f = files.get(path)
        if f is None:
            parts.append(f"{NAMES[path]} missing")
        elif path == PHASE:
            first = f[0].decode("utf-8", "replace").split("\n", 1)[0].strip()
            parts.append(f"phase file {first or '(empty)'}")
        elif path == STARTER:
            parts.append(f"starter {program_of(files) or '(no program)'} {f[1]:o}")
        else:
            parts.append(f"interfaces {len(f[0])} B")
    return ", ".join(parts)


def between(start, end, order):
    """The file sets one instant of a stretch that changes the files ORDER, in that order, can
    leave: the first k as at END and the others as at START."""
    states = []
    for k in range(len(order) + 1):
        files = dict(start)
        for path in order[:k]:
            files[path] = end.get(path)
        states.append(files)
    return states


# The hand-over's network, as the bench's documentation gives it (docs/board.md): the lines a
# whole factory interfaces file holds.
FACTORY_LINES = ("auto eth0", "iface eth0 inet static", " address 192.168.1.48", " netmask 255.255.255.0",
                 " gateway 192.168.1.1")


def phase_passed(start):
    """The files a test phase that passes leaves, known before it: START with the phase file one
    phase on (the bench writes its three lines again, the restore choice and the server address as
    they were), or None when START has no phase to go on from."""
    phase = phase_of(start) if start else None
    if not phase:
        return None
    content, mode = start[PHASE]
    files = dict(start)
    files[PHASE] = (b"%d\n" % (phase + 1) + content.split(b"\n", 1)[1], mode)
    return files


def handed_over(start, interfaces, factory=True):
    """The files the hand-over leaves, known before it: the starter of START (the files at the
    start of its stretch) with its program line naming the production application, mode 755, no
    phase file, and INTERFACES, the factory interfaces file as the cycle showed it at its end (any
    whole file when not FACTORY). Returns (files, None), or (None, why they cannot be known)."""
    found = start.get(STARTER) if start else None
    if found is None or program_of(start) != BENCH:
        return None, f"the hand-over's stretch starts with {show(start) if start else 'files never seen'}"
    if factory:
        why = not_factory(interfaces)
    else:
        why = None if interfaces else "is missing"
    if why:
        return None, f"the interfaces file at the cycle's end {why}"
    return {STARTER: (starter.naming(found[0], PRODUCTION), 0o755), PHASE: None, IFACES: interfaces}, None


def not_factory(interfaces):
    """Why INTERFACES is not a whole factory interfaces file, or None."""
    if interfaces is None:
        return "is missing"
    text = interfaces[0].decode("utf-8", "replace")
    missing = [line.strip() for line in FACTORY_LINES if line not in text.split("\n")]
    if missing:
        return "lacks " + ", ".join(missing)
    return None if text.endswith("\n") else "has no line end at its end"


def hand_over_flaws(files):
    """What keeps FILES, read after the hand-over, from being what it must leave."""
    flaws = []
    if program_of(files) != PRODUCTION or files[STARTER][1] != 0o755:
        flaws.append("the starter is not the production one with mode 755")
    if files[PHASE] is not None:
        flaws.append("a phase file is left")
    why = not_factory(files[IFACES])
    if why:
        flaws.append(f"the interfaces file {why}")
    return flaws


# How each stretch's end is known: (start, what the board read after the stretch's orderly end or
# None, the files at the cycle's last boot) -> (files, None) or (None, why it is not known).

def seen_end(start, seen, final):
    """Only the board shows it: the operator's network settings."""
    return (seen, None) if seen is not None else (None, "never seen on the board")


def passed_end(start, seen, final):
    files = phase_passed(start)
    return (files, None) if files else (None, "its start has no phase to go on from")


def hand_over_end(start, seen, final):
    return handed_over(start, final.get(IFACES) if final else None)


def reset_end(start, seen, final):
    """The reset deletes the phase file and changes nothing else."""
    if not start or start.get(PHASE) is None:
        return None, "its start has no phase file to delete"
    return {**start, PHASE: None}, None


def unchanged_end(start, seen, final):
    return (start, None) if start else (None, "its start never seen")


GOOD = Plan("good", (
    ("first boot: form and phase 1", 0, (IFACES, PHASE), seen_end, False),
    ("phase 2", 1, (PHASE,), passed_end, False),
    ("phase 3 and hand-over", 2, (STARTER, PHASE, IFACES), hand_over_end, False),
    ("handed over", 3, (), unchanged_end, False)))
# The operator resets the bench during phase 2 and stops at the form it brings back, as in the
# reset-phase2 scenario.
RESET = Plan("reset-phase2", (
    ("first boot: form and phase 1", 0, (IFACES, PHASE), seen_end, False),
    ("phase 2 and its reset", 1, (PHASE,), reset_end, True),
    ("the form again", 0, (), unchanged_end, False)))
PLANS = {plan.scenario: plan for plan in (GOOD, RESET)}


def flaw(path, left, allowed):
    """What is wrong with LEFT, the version of PATH a state holds, where ALLOWED are those the
    cycle has at that point."""
    if left is None:
        return "missing"
    if not left[0]:
        return "empty"
    versions = [a for a in allowed if a is not None]
    if any(left[0] == a[0] for a in versions):
        return f"mode {left[1]:o} where the cycle gives " + " or ".join(sorted({f"{a[1]:o}" for a in versions}))
    if any(a[0].startswith(left[0]) for a in versions):
        return "cut short"
    if path == PHASE:
        # Against the phases the cycle had written, not a deleted phase file's 0.
        phase, phases = phase_of({PHASE: left}), [phase_of({PHASE: a}) for a in versions]
        if phase is not None and phases and all(p is not None and phase < p for p in phases):
            was = " or ".join(map(str, sorted(set(phases))))
            return f"goes back to phase {phase} where the cycle was at phase {was}"
    return "neither as before nor as after"


def judge_files(left, fs, stretch, start, end, seen=None, came_back=None, plan=GOOD):
    """The failures of LEFT, the files a state holds ({path: (content, mode) or None}), FS the
    reading of its file system, at an instant of STRETCH of PLAN, whose files were START at its
    start and END at its end. SEEN: the files the next boot saw; CAME_BACK: what it started (what
    the files start when not booted). A state whose START or END is unknown cannot be compared: it
    fails."""
    problems = []
    if fs not in ("clean", "journal replayed"):
        problems.append(f"file system {fs}")
    for files, what in ((start, "start"), (end, "end")):
        if files is None:
            problems.append(f"not compared: the {what} of {plan.names[stretch]} is unknown")
    if start is None or end is None:
        return problems
    instants = between(start, end, plan.changes[stretch])
    wrong = False
    for path in FILES:
        allowed = [files[path] for files in instants]
        if left[path] not in allowed:
            wrong = True
            problems.append(f"{NAMES[path]} {flaw(path, left[path], allowed)}")
    if not wrong and key(left) not in {key(f) for f in instants}:
        problems.append("the files are not as at any one instant (a later change without an earlier one)")
    if seen is not None and key(seen) != key(left):
        problems.append(f"the board saw other files than the image held: {show(seen)}")
    outcomes = {outcome_of(f) for f in instants}
    came_back = came_back or outcome_of(left)
    if came_back not in outcomes:
        problems.append(f"came back to '{came_back}' where the cycle was at {' or '.join(sorted(outcomes))}")
    return problems


class FlushJudge:
    """The judgement of the states a replay of the NAND's write log gives for one uncut cycle.

    PLAN: the cycle's stretches. STARTS and ENDS: {stretch: files at its start / end} as the cycle
    showed them (None or absent when not seen); MARKS: {stretch: the log's length when its orderly
    end was seen}. A state is judged in the stretch its last entry is in. (One that may have lost
    writes from before a mark holds the files of that stretch's end, since the orderly end flushes
    the NAND before the mark: the next stretch's start.) The last state of each stretch must be
    that stretch's end."""

    def __init__(self, starts, ends, marks, plan=GOOD):
        self.starts, self.ends, self.marks, self.plan = starts, ends, marks, plan
        self.last = {}  # stretch -> (state's name, files) of its last state
        self.judged = 0
        self.counts = {}  # stretch -> states judged in it
        self.failures = []
        # (name, stretch, files, file system, whether it kept every write logged before it) of each
        # state read, in the log's order: what the boots' sample is chosen from.
        self.path = []

    def stretch_at(self, offset):
        stretch = 0
        while stretch in self.marks and self.marks[stretch] < offset:
            stretch += 1
        return stretch

    def judge(self, name, offset, files, fs, whole=True):
        """Judges the state NAME, whose last entry ends at byte OFFSET of the log; WHOLE: it has
        lost none of the writes before it. (The replay gives the states that lose writes before
        the flush that keeps them all.)"""
        stretch = self.stretch_at(offset)
        self.judged += 1
        self.counts[stretch] = self.counts.get(stretch, 0) + 1
        self.last[stretch] = (name, files)
        self.path.append((name, stretch, files, fs, whole))
        problems = judge_files(files, fs, stretch, self.starts.get(stretch), self.ends.get(stretch),
                               plan=self.plan)
        for problem in problems:
            self.failures.append(f"{name} ({self.plan.names[stretch]}): {problem}")
        return problems

    def unreadable(self, name, offset, why):
        """A state whose files could not be read: it fails."""
        stretch = self.stretch_at(offset)
        self.judged += 1
        self.counts[stretch] = self.counts.get(stretch, 0) + 1
        self.last[stretch] = (name, {})
        problem = f"the NAND could not be read: {why}"
        self.failures.append(f"{name} ({self.plan.names[stretch]}): {problem}")
        return [problem]

    def finish(self):
        """Each stretch's last state must be its end: a replay that lost writes, or a stretch the
        log never reached, fails here."""
        names = self.plan.names
        for stretch in range(len(names)):
            end = self.ends.get(stretch)
            if stretch not in self.last:
                self.failures.append(f"no state of {names[stretch]} in the log")
            elif end is not None and key(self.last[stretch][1]) != key(end):
                name, files = self.last[stretch]
                self.failures.append(f"{name}, the last state of {names[stretch]}, holds {show(files)}, "
                                     f"not its end {show(end)}")
        return self.failures


def judge_log(log, first, scratch, judge, subsets, seed, keep=None):
    """Replays LOG (a logreplay.Log) onto FIRST, the image as the log began, and judges each of
    its states with JUDGE (a FlushJudge), each read as after a cut. Returns how many images were
    read (a flush with no write since the state before it is that state again). KEEP: a folder
    for the images of the first failing states."""
    work = os.path.join(scratch, "state.img")
    started = time.monotonic()
    read = kept = 0
    previous = None
    for state in Replay(log, first, work, subsets, seed).states():
        if state.changed or previous is None:
            read += 1
            try:
                previous = read_after_cut(work, FILES, scratch)
            except NandError as error:
                previous, why = None, " ".join(str(error).split())
        if previous is None:
            problems = judge.unreadable(state.name, state.offset, why)
        else:
            problems = judge.judge(state.name, state.offset, *previous, whole=not state.lost)
        if problems and keep and kept < 3:
            # For a look with debugfs.
            kept += 1
            name = state.name.replace(" ", "-").replace("/", "of")
            subprocess.run(["cp", "--sparse=always", work, os.path.join(keep, f"failed-{name}.img")])
        for problem in problems:
            # The first ones tell; the count says the rest.
            if len(judge.failures) <= 100:
                print(f"powercut: FAIL {state.name}: {problem}", flush=True)
        if judge.judged % 200 == 0:
            print(f"powercut:   {judge.judged} states judged, {time.monotonic() - started:.0f} s", flush=True)
    return read


def change(before, after):
    """What the cycle changed from the files BEFORE to AFTER, in words."""
    words = []
    for path in FILES:
        old, new = before.get(path), after.get(path)
        if key({path: old}) == key({path: new}):
            continue
        if path == PHASE:
            words.append("the phase file's deletion" if new is None else
                         f"the phase file's write (phase {phase_of(after)})")
        elif path == STARTER:
            words.append(f"the starter's rewrite (it names {program_of(after)})" if new is not None else
                         "the starter's deletion")
        else:
            words.append("the interfaces file's write" if new is not None else "the interfaces file's deletion")
    return " and ".join(words)


def played_on(chosen):
    """Which of CHOSEN (samples()) plays on to the hand-over: the last that keeps every write
    before it and comes back short of the hand-over, or None."""
    to_end = [i for i, ((_, _, files, _, whole), _) in enumerate(chosen) if whole and place_of(files) in (0, 1, 2)]
    return to_end[-1] if to_end else None


def samples(path):
    """The states to boot out of PATH (FlushJudge.path): around each change of the unit's files,
    the last state that keeps every write before it and the first after it, and the first of the
    drawn states between them (the change's writes, some lost). Chosen by what they hold, so that
    the same log gives the same sample on a slower or faster machine. Returns [(state, why)] in
    the log's order, each state (name, stretch, files, file system, whole)."""
    chosen = {}
    whole = [i for i, state in enumerate(path) if state[4]]
    for i, j in zip(whole, whole[1:]):
        before, after = path[i], path[j]
        if key(before[2]) == key(after[2]):
            continue
        what = change(before[2], after[2])
        chosen.setdefault(i, []).append(f"before {what}")
        if j > i + 1:
            chosen.setdefault(i + 1, []).append(f"during {what}")
        chosen.setdefault(j, []).append(f"after {what}")
    return [(path[i], ", ".join(chosen[i])) for i in sorted(chosen)]


# --- the board and its files ------------------------------------------------------------------

READ = "; ".join(f"if [ -f {p} ]; then echo \"{p} $(stat -c %a {p}) $(base64 -w0 <{p})\"; "
                 f"else echo \"{p} -\"; fi" for p in FILES)


class FilesUnlisted(ConsoleError):
    """The board's listing of its files came without them all (the shutdown unmounting the NAND
    while they were read)."""


def guest_files(board, seconds=30):
    """The three files as the running board sees them: {path: (content, mode) or None}."""
    _, text = board.run(READ, seconds=seconds)
    files = {}
    for line in text.splitlines():
        fields = line.split(" ")
        if len(fields) >= 2 and fields[0] in FILES:
            if fields[1] == "-":
                files[fields[0]] = None
            elif fields[1].isdigit():
                content = base64.b64decode(fields[2]) if len(fields) > 2 else b""
                files[fields[0]] = (content, int(fields[1], 8))
    if set(files) != set(FILES):
        # As when the shutdown unmounts the NAND while they are read.
        raise FilesUnlisted(f"the board did not list its files: {text!r}")
    return files


STAND_IN = ("printf '#!/bin/sh\\necho started >/run/board/production\\n' >/home/TOV/tovQT && "
            "chmod 0755 /home/TOV/tovQT && rm -f /run/board/production && "
            "(cd /home/TOV && timeout 20 ./tov_starter >/dev/null 2>&1); cat /run/board/production")


def observe(board, cycle, files, folder, boot):
    """What the boot started, seen on the board: (outcome, the form's picture or None)."""
    program = program_of(files)
    if program == PRODUCTION:
        _, said = board.run(STAND_IN, seconds=40, check=False)
        return ("production" if "started" in said else "production application not started"), None
    if program != BENCH:
        return outcome_of(files), None
    deadline = Deadline(30)
    while not bench_running(board):
        if deadline.expired():
            return "the bench does not start", None
        time.sleep(1)
    phase = phase_of(files)
    if phase == 0:
        return "form", wait_for_screen(board, folder, f"boot{boot}-form")
    deadline = Deadline(120)
    while not deadline.expired():
        log = board.run("cat /run/board/bench.log", check=False)[1]
        if any(line.startswith(PANEL + FIRST_TEST_LINE) for line in log.splitlines()):
            return f"test after phase {phase}", None
        if not bench_running(board):
            return "the bench stopped", None
        time.sleep(2)
    return "the bench started no test", None


# --- the cuts ---------------------------------------------------------------------------------

class Cut:
    def __init__(self, number, stretch, seconds):
        self.number, self.stretch, self.seconds = number, stretch, seconds
        self.made_in = None  # the stretch the unit was in
        self.at = None  # seconds after that boot's start
        self.note = ""
        self.start = None  # the files at the start of that boot
        self.left = None  # what the cut left, read from the image
        self.fs = None
        self.seen = None  # the files the next boot saw
        self.came_back = None  # what that boot started

    def where(self):
        return f"{GOOD.names[self.made_in]} +{self.at:.1f} s{self.note}"


def spread(rng, count, first=0):
    """COUNT instants, one drawn in each COUNT-th of the cycle from stretch FIRST on (the handed
    over unit alone when FIRST is its stretch): [(stretch, seconds)]."""
    lengths = list(NOMINAL[first:]) if first < len(NOMINAL) else [HANDED_OVER]
    total = sum(lengths)
    instants = []
    for i in range(count):
        instant = (i + rng.random()) * total / count
        stretch = 0
        while instant >= lengths[stretch]:
            instant -= lengths[stretch]
            stretch += 1
        instants.append((first + stretch, instant))
    return instants


def plan_cuts(rng, count):
    return [Cut(i + 1, stretch, seconds) for i, (stretch, seconds) in enumerate(spread(rng, count))]


class Cutter:
    """Pulls the board's power at a set time: QEMU killed, nothing of the guest flushed."""

    def __init__(self, board):
        self.board = board
        self.timer = None
        self.fired = None
        self.lock = threading.Lock()

    def arm(self, when):
        self.timer = threading.Timer(max(0.0, when - time.monotonic()), self.fire)
        self.timer.daemon = True
        self.timer.start()

    def armed(self):
        return self.timer is not None and self.fired is None

    def fire(self):
        with self.lock:
            if self.fired is None and self.board.alive():
                self.board.process.kill()
                self.fired = time.monotonic()

    def cancel(self):
        if self.timer is not None:
            self.timer.cancel()


class Harness:
    def __init__(self, args):
        self.args = args
        self.out = args.out
        self.scratch = tempfile.mkdtemp(prefix="powercut-", dir=args.out)
        self.end = {}  # stretch -> the files at its end, uncut
        self.polled = {}  # stretch -> files read twice in a row after its writes
        self.lengths = {}  # stretch -> seconds of an uncut pass
        self.failures = []
        self.final = None
        self.last_cut = None
        self.made = []  # the cuts made, in order
        self.log = None  # the NAND's write log, when the cycle runs with one
        self.marks = {}  # stretch -> the log's length when its orderly end was seen

    def fail(self, text):
        print(f"powercut: FAIL {text}", flush=True)
        self.failures.append(text)

    def wait_reboot(self, board, plan, stretch, seconds=600):
        """Waits for the orderly reboot (Machine.wait_reboot); meanwhile reads the files about once
        a second, to know the stretch's end should a cut keep it from booting after an orderly
        reboot."""
        def look():
            try:
                # Briefly: a shell that the shutdown ends never answers.
                files = guest_files(board, seconds=3)
            except (ConsoleTimeout, FilesUnlisted):
                return
            # Once the files say the next stretch, the last reading before the reboot: the state
            # the board reboots on (the bench replaces its files whole, and all within moments).
            if place_of(files) == plan.places[stretch + 1]:
                self.polled[stretch] = files
        board.wait_reboot(seconds, meanwhile=look)

    def play(self, folder, plan, stretch, start_files, cut, disk=None, first_only=False):
        """One life of the board, from QEMU's start in STRETCH of PLAN to a cut or PLAN's last
        boot, on DISK (default the run's NAND image). Returns True at the last boot with no cut
        left, False after a cut. FIRST_ONLY: ends once the first boot has shown what it started,
        returning True."""
        os.makedirs(folder, exist_ok=True)
        board = Machine(self.args.kernel, self.args.initrd, disk or self.args.disk, folder, "/dev/ttySAC1",
                        TAPS, log=self.log)
        cycle = Cycle(board, folder, scenario=plan.scenario)
        cutter = Cutter(board)
        first_boot = True
        try:
            board.start()
            began = time.monotonic()
            while True:
                if cut is not None and not cutter.armed() and cutter.fired is None and cut.stretch <= stretch:
                    if cut.stretch < stretch:
                        cut.note = f" (drawn in {GOOD.names[cut.stretch]}, which the unit had left)"
                    # After a cut the image's files are this boot's start; after an orderly
                    # reboot, what the board reads once up (or the stretch's end before it).
                    cut.made_in, cut.start = stretch, start_files if first_boot else None
                    cutter.arm(began + cut.seconds)
                boot = board.wait_boot()
                files = guest_files(board)
                if cut is not None and cut.made_in == stretch and cut.start is None:
                    cut.start = files
                came_back, form = observe(board, cycle, files, folder, boot)
                if first_boot and self.last_cut is not None:
                    self.last_cut.seen, self.last_cut.came_back = files, came_back
                    if place_of(files) != plan.places[stretch]:
                        # Played on, the cycle would wait for what this boot never does.
                        raise ConsoleError(f"the board came back with {show(files)}, in another stretch than "
                                           f"the image's {show(start_files)}")
                elif not first_boot:
                    # After an orderly reboot: the stretch's end, uncut.
                    self.end.setdefault(stretch - 1, files)
                    if place_of(files) != plan.places[stretch]:
                        raise ConsoleError(f"after the orderly end of {plan.names[stretch - 1]} the unit "
                                           f"came back with {show(files)}")
                first_boot = False
                start_files = files
                print(f"powercut:   boot {boot} in {plan.names[stretch]}: {show(files)}; {came_back}",
                      flush=True)
                if first_only:
                    return True
                if stretch == len(plan) - 1:
                    self.final = (files, came_back)
                    if cutter.armed():
                        # A cut still to make after the hand-over: the unit idles until then.
                        while True:
                            board.run("true")
                            time.sleep(1)
                    return True
                if form is not None:
                    cycle.operate_form(form)
                if plan.resets[stretch]:
                    cycle.reset_bench(boot)
                self.wait_reboot(board, plan, stretch)
                if self.log is not None:
                    # The board says it halted once the NAND is unmounted: the stretch's writes
                    # are all in the log by then, the next boot's not yet.
                    self.marks.setdefault(stretch, os.path.getsize(self.log))
                self.lengths.setdefault(stretch, time.monotonic() - began)
                if cutter.armed():
                    cut.note = f" (at the reboot: the boot ended after {time.monotonic() - began:.0f} s)"
                    cutter.cancel()
                    cutter.fire()
                    raise ConsoleError("cut at the reboot")
                began = time.monotonic()
                stretch += 1
        except Exception:
            cutter.cancel()
            if cutter.fired is None:
                raise
            cut.at = cutter.fired - began
            return False
        finally:
            cutter.cancel()
            board.stop()
            for end in (board.console, board.qmp):
                try:
                    end.sock.close()
                except Exception:
                    pass

    def end_of(self, stretch, start):
        """The files at the end of STRETCH, whose start was START, or None when not known."""
        if stretch == 3:
            return start
        if stretch == 2:
            # Known before the cycle but for the factory interfaces file's text, seen at its end.
            seen = self.end.get(2) or self.polled.get(2) or (self.final[0] if self.final else None)
            end, _ = handed_over(start, seen.get(IFACES) if seen else None)
            if end is None and self.cut_over(seen):
                # The run never wrote the factory file (a cut after the starter's switch kept it
                # from it): the hand-over's end as far as it went, a state holding another
                # interfaces file than the start's then fails.
                end, _ = handed_over(start, start.get(IFACES) if start else None, factory=False)
            return end
        if stretch == 1:
            # Known before: a cut just after the phase file's write may come before any reading.
            return self.end.get(1) or self.polled.get(1) or phase_passed(start)
        return self.end.get(stretch) or self.polled.get(stretch)

    def cut_over(self, final):
        """The cut that left the unit handed over in the middle of the hand-over, when the unit
        then ended the cycle on FINAL, the files it left, without the factory interfaces file:
        the hand-over switches the starter first and writes that file last, so that a cut between
        hands the unit over with the interfaces file it had. None when not so."""
        for cut in reversed(self.made):
            if cut.made_in == 2 and place_of(cut.left) == 3 and final is not None and key(final) == key(cut.left):
                return cut if not_factory(final.get(IFACES)) else None
        return None

    def judge(self, cut):
        """The failures of one cut."""
        s = cut.made_in
        start = cut.start or self.end.get(s - 1) or self.polled.get(s - 1)
        return judge_files(cut.left, cut.fs, s, start, self.end_of(s, start), cut.seen, cut.came_back)

    def fresh_start(self):
        """The network around the board and the fresh NAND's files, or None (failed) when either
        is not there to start a cycle from."""
        try:
            setup_network(self.out)
        except StartError as error:
            self.fail(str(error))
            return None
        start, _ = read_after_cut(self.args.disk, FILES, self.scratch)
        if place_of(start) != 0:
            self.fail(f"the fresh NAND is not at the cycle's start: {show(start)}")
            return None
        return start

    def run(self):
        args = self.args
        seed = args.seed
        rng = random.Random(seed)
        cuts = plan_cuts(rng, args.cuts)
        print(f"powercut: {len(cuts)} cuts, seed {seed}, over a cycle of about {sum(NOMINAL)} s "
              f"({', '.join(f'{GOOD.names[i]} {n} s' for i, n in enumerate(NOMINAL))})", flush=True)
        start = self.fresh_start()
        if start is None:
            return 1
        stretch = 0
        self.last_cut = None
        pending = list(cuts)
        life = 0
        started = time.monotonic()
        finished = False
        while True:
            life += 1
            cut = pending[0] if pending else None
            folder = os.path.join(self.out, f"life{life:02d}")
            try:
                done = self.play(folder, GOOD, stretch, start, cut)
            except Exception as error:
                self.fail(f"{error} (logs in {folder})")
                break
            if done:
                finished = True
                break
            pending.pop(0)
            self.last_cut = cut
            self.made.append(cut)
            cut.left, cut.fs = read_after_cut(args.disk, FILES, self.scratch)
            print(f"powercut: cut {cut.number}/{len(cuts)} in {cut.where()}: {show(cut.left)}; "
                  f"file system {cut.fs}", flush=True)
            start = cut.left
            stretch = place_of(start)
            if stretch is None:
                self.fail(f"cut {cut.number}: the unit cannot boot into the cycle again: {show(start)}")
                break
            # The cut brought the unit past stretches whose cuts are still to make: they are
            # drawn again over what is left of the cycle, so that they stay spread over it.
            behind = [c for c in pending if c.stretch < stretch]
            if behind:
                for c, (s2, seconds) in zip(behind, spread(rng, len(behind), stretch)):
                    c.note = f" (drawn again: the unit had left {GOOD.names[c.stretch]})"
                    c.stretch, c.seconds = s2, seconds
                pending.sort(key=lambda c: (c.stretch, c.seconds))
        minutes = (time.monotonic() - started) / 60
        print(f"\npowercut: cuts (seed {seed}):")
        failed = unjudged = 0
        for cut in cuts:
            if cut.left is None:
                print(f"  cut {cut.number:2}: not made")
                unjudged += 1
                continue
            problems = self.judge(cut)
            if problems:
                verdict = "FAIL " + "; ".join(problems)
                failed += 1
            else:
                verdict = "ok"
            print(f"  cut {cut.number:2} {cut.where()}: {show(cut.left)} -> "
                  f"{cut.came_back or 'cut again before what it started was seen'}: {verdict}")
        if self.lengths:
            print("powercut: uncut stretches took " + ", ".join(
                f"{GOOD.names[s]} {n:.0f} s" for s, n in sorted(self.lengths.items())))
        if finished:
            files, came_back = self.final
            print(f"powercut: the cycle finished: {show(files)}; {came_back}")
            over = self.cut_over(files)
            if over is not None:
                print(f"powercut: cut {over.number} came after the hand-over's switch of the starter and before "
                      f"its factory interfaces file: the unit is handed over with the interfaces file it had")
            flaws = [f for f in hand_over_flaws(files) if over is None or "interfaces" not in f]
            for flaw_ in flaws + ([] if came_back == "production" else [f"the unit started '{came_back}'"]):
                self.fail(f"after the hand-over {flaw_}")
        else:
            self.fail("the cycle did not reach the hand-over")
        good = finished and not failed and not self.failures and unjudged == 0
        print(f"powercut: {'PASS' if good else 'FAIL'}: {len(cuts)} cuts, {failed} failed, "
              f"{unjudged} not made, cycle {'finished' if finished else 'not finished'}, "
              f"{minutes:.1f} min (seed {seed})")
        return 0 if good else 1

    def every_flush(self):
        """One uncut cycle of the scenario asked for with the NAND's writes logged, then every
        state the log gives (each flush, and drawn losses of the writes between flushes) read as
        after a cut and judged, then a sample of them booted."""
        args = self.args
        plan = PLANS[args.scenario]
        print(f"powercut: one {plan.scenario} cycle with the NAND's write log, then every flush replayed "
              f"({args.subsets} drawn states at most after each, seed {args.seed}), then a sample booted",
              flush=True)
        start = self.fresh_start()
        if start is None:
            return 1
        # The log replays onto the image as it was when the log began.
        first = os.path.join(self.out, FIRST_IMAGE)
        subprocess.run(["cp", "--sparse=always", args.disk, first], check=True)
        self.log = os.path.join(self.out, LOG_FILE)
        open(self.log, "wb").close()
        started = time.monotonic()
        folder = os.path.join(self.out, "life01")
        try:
            self.play(folder, plan, 0, start, None)
        except Exception as error:
            self.fail(f"{error} (logs in {folder})")
            return 1
        # The boots of the sample write to their own images, unlogged.
        self.log = None
        cycle = time.monotonic() - started
        files, came_back = self.final
        print(f"powercut: the cycle finished in {cycle / 60:.1f} min: {show(files)}; {came_back}", flush=True)
        starts, ends = self.known_ends(plan, start)
        keep_judgement(self.out, plan, starts, ends, self.marks)
        replayed = time.monotonic()
        try:
            judge, log = judge_run(self.out, self.scratch, args.subsets, args.seed, keep=self.out)
        except LogError as error:
            self.fail(str(error))
            return 1
        judged = time.monotonic() - replayed
        booted = time.monotonic()
        boots = self.boot_sample(judge, log, ends[len(plan) - 1] if plan.places[-1] == 3 else None)
        failures = len(judge.failures) + len(self.failures)
        print(f"powercut: {log.barriers()} flushes in the cycle, {judge.judged} states judged, {boots} booted, "
              f"{failures} failures; cycle {cycle / 60:.1f} min, replay and judgement {judged / 60:.1f} min, "
              f"boots {(time.monotonic() - booted) / 60:.1f} min, in all {(time.monotonic() - started) / 60:.1f} min")
        good = not failures
        print(f"powercut: {'PASS' if good else 'FAIL'}: every flush of one {plan.scenario} cycle (seed {args.seed})")
        return 0 if good else 1

    def known_ends(self, plan, start):
        """The files at the start and end of each stretch of the logged cycle of PLAN, that began
        on START: each end as known before the cycle where it can be, and then held to what the
        board read after that stretch; the last boot's files must be the last end. Returns
        (starts, ends), each {stretch: files or None}."""
        final, came_back = self.final
        starts, ends = {0: start}, {}
        for stretch in range(len(plan)):
            seen = final if stretch == len(plan) - 1 else self.end.get(stretch)
            ends[stretch], why = plan.ends[stretch](starts[stretch], seen, final)
            if why:
                self.fail(f"the end of {plan.names[stretch]} is not known: {why}")
            elif seen is not None and key(seen) != key(ends[stretch]):
                self.fail(f"after {plan.names[stretch]} the board read {show(seen)}, not the known end "
                          f"{show(ends[stretch])}")
            starts[stretch + 1] = ends[stretch]
        del starts[len(plan)]
        flaws = hand_over_flaws(final) if plan.places[-1] == 3 else []
        wanted = outcome_of(ends[len(plan) - 1]) if ends[len(plan) - 1] else None
        for flaw_ in flaws + ([] if came_back == wanted else [f"the unit started '{came_back}'"]):
            self.fail(f"at the cycle's end {flaw_}")
        return starts, ends

    def boot_sample(self, judge, log, end):
        """Boots each state of the sample (samples()) from an image of its own: the board must
        see the files read here and come back where the cycle was at that state. The last of
        them that comes back short of the hand-over plays on through the good cycle to the
        hand-over, which must leave END (what the uncut cycle left; when None, that state's
        starter naming the production application beside a factory interfaces file). Returns
        how many states were booted."""
        plan = judge.plan
        chosen = samples(judge.path)
        to_end = played_on(chosen)
        if to_end is None:
            self.fail("no sampled state comes back short of the hand-over, to play on to it from")
        print(f"powercut: {len(chosen)} states to boot, chosen around each change of the files: "
              + ", ".join(state[0] for state, _ in chosen), flush=True)
        images = {}
        for state, _ in chosen:
            folder = os.path.join(self.out, "boot-" + state[0].replace(" ", "-").replace("/", "of"))
            os.makedirs(folder, exist_ok=True)
            images[state[0]] = os.path.join(folder, "nand.img")
        missing = write_states(log, os.path.join(self.out, FIRST_IMAGE), os.path.join(self.scratch, "sample.img"),
                               images, self.args.subsets, self.args.seed)
        for name in missing:
            self.fail(f"the replay gave no image of {name}")
        booted = 0
        for number, ((name, stretch, files, fs, _), why) in enumerate(chosen):
            if name in missing:
                continue
            image = images[name]
            folder = os.path.dirname(image)
            boot_stretch = plan.boot_stretch(stretch, files)
            if boot_stretch is None:
                self.fail(f"{name}: the unit cannot boot into the cycle from {show(files)}")
                continue
            whole = number == to_end
            print(f"powercut: booting {name} ({plan.names[stretch]}, {why}): {show(files)}"
                  + (", then on to the hand-over" if whole else ""), flush=True)
            self.final = None
            self.last_cut = seen = types.SimpleNamespace(seen=None, came_back=None)
            booted += 1
            try:
                if whole:
                    self.play(folder, GOOD, place_of(files), files, None, disk=image)
                else:
                    self.play(folder, plan, boot_stretch, files, None, disk=image, first_only=True)
            except Exception as error:
                self.fail(f"{name}: {error} (logs in {folder})")
                continue
            finally:
                self.last_cut = None
            problems = judge_files(files, fs, stretch, judge.starts.get(stretch), judge.ends.get(stretch),
                                   seen.seen, seen.came_back, plan)
            if whole:
                left, came_back = self.final
                problems += [f"after the hand-over {f}" for f in hand_over_flaws(left)]
                if came_back != "production":
                    problems.append(f"after the hand-over the unit started '{came_back}'")
                expected = end or handed_over(files, left.get(IFACES))[0]
                if expected is not None and key(left) != key(expected):
                    problems.append(f"the hand-over left {show(left)}, not {show(expected)}")
            for problem in problems:
                self.fail(f"{name} booted: {problem} (logs in {folder})")
            if not problems:
                os.remove(image)
            print(f"powercut: {name} came back: {seen.came_back}"
                  + (f"; the hand-over: {show(self.final[0])}" if whole and self.final else "")
                  + f": {'FAIL' if problems else 'ok'}", flush=True)
        return booted


# --- the judgement kept in an every-flush run's folder, to judge its log again ----------------

LOG_FILE, FIRST_IMAGE = "nand.log", "nand-start.img"
KEPT = "judgement.json"


def files_json(files):
    if files is None:
        return None
    return {path: None if f is None else {"mode": f[1], "content": base64.b64encode(f[0]).decode()}
            for path, f in files.items()}


def json_files(data):
    if data is None:
        return None
    return {path: None if f is None else (base64.b64decode(f["content"]), f["mode"]) for path, f in data.items()}


def keep_judgement(out, plan, starts, ends, marks):
    """Keeps in OUT what the judgement of its log needs besides the log and the image it began
    on: the cycle's scenario, the files at each stretch's start and end, and where in the log each
    stretch ended."""
    data = {"scenario": plan.scenario,
            "starts": {str(s): files_json(f) for s, f in starts.items()},
            "ends": {str(s): files_json(f) for s, f in ends.items()},
            "marks": {str(s): n for s, n in marks.items()}}
    with open(os.path.join(out, KEPT + ".new"), "w") as f:
        json.dump(data, f, indent=1)
    os.replace(os.path.join(out, KEPT + ".new"), os.path.join(out, KEPT))


def judge_run(out, scratch, subsets, seed, keep=None):
    """Replays the log an every-flush run kept in OUT and judges its states (judge_log), with at
    most SUBSETS drawn states after each flush, drawn with SEED. Returns (FlushJudge, Log), the
    failures in the judge; raises LogError when the log cannot be replayed."""
    try:
        with open(os.path.join(out, KEPT)) as f:
            data = json.load(f)
        plan = PLANS[data["scenario"]]
    except (OSError, ValueError, KeyError) as error:
        raise LogError(f"no judgement kept in {out}: {error!r}") from None
    starts, ends = ({int(s): json_files(f) for s, f in data[part].items()} for part in ("starts", "ends"))
    marks = {int(s): n for s, n in data["marks"].items()}
    log = Log(os.path.join(out, LOG_FILE))
    print(f"powercut: the log: {log.describe()}; stretches end at bytes "
          + ", ".join(f"{marks[s]}" for s in sorted(marks)), flush=True)
    judge = FlushJudge(starts, ends, marks, plan)
    if log.stop:
        # QEMU ended in order: its log must be whole.
        judge.failures.append(f"the log of a cycle QEMU ended in order stops early: {log.stop}")
        print(f"powercut: FAIL {judge.failures[-1]}", flush=True)
    started = time.monotonic()
    read = judge_log(log, os.path.join(out, FIRST_IMAGE), scratch, judge, subsets, seed, keep=keep)
    during = len(judge.failures)
    for failure in judge.finish()[during:]:
        print(f"powercut: FAIL {failure}")
    print(f"powercut: {len(log.entries)} log entries, {log.barriers()} flushes, {judge.judged} states judged "
          f"({read} images read), {len(judge.failures)} failures, replay and judgement "
          f"{(time.monotonic() - started) / 60:.1f} min")
    print("powercut: states by stretch: "
          + ", ".join(f"{plan.names[s]} {n}" for s, n in sorted(judge.counts.items())), flush=True)
    return judge, log


def rejudge(out, subsets, seed):
    """Judges the log kept in the every-flush run's folder OUT again, with no board."""
    print(f"powercut: the log kept in {out} judged again ({subsets} drawn states at most after each "
          f"flush, seed {seed})", flush=True)
    scratch = tempfile.mkdtemp(prefix="rejudge-", dir=out)
    try:
        judge, _ = judge_run(out, scratch, subsets, seed)
    except LogError as error:
        print(f"powercut: FAIL {error}")
        return 1
    finally:
        shutil.rmtree(scratch)
    print("powercut: a board run would boot " + ", ".join(
        f"{state[0]} ({why})" for state, why in samples(judge.path)))
    good = not judge.failures
    print(f"powercut: {'PASS' if good else 'FAIL'}: the kept log judged again (seed {seed})")
    return 0 if good else 1


def main():
    if "--rejudge" in sys.argv[1:]:
        parser = argparse.ArgumentParser()
        parser.add_argument("--rejudge", required=True)
        parser.add_argument("--subsets", type=int, default=2)
        parser.add_argument("--seed", type=int, required=True)
        args = parser.parse_args()
        return rejudge(args.rejudge, args.subsets, args.seed)
    parser = board_arguments()
    parser.add_argument("--cuts", type=int, default=20)
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--every-flush", action="store_true")
    parser.add_argument("--subsets", type=int, default=2)
    parser.add_argument("--scenario", choices=sorted(PLANS), default=GOOD.scenario)
    args = parser.parse_args()
    if args.scenario != GOOD.scenario and not args.every_flush:
        parser.error("the random cuts play the good cycle only")
    harness = Harness(args)
    try:
        return harness.every_flush() if args.every_flush else harness.run()
    finally:
        # The images worth a look (failing states, failing boots) are kept in the run's folder.
        shutil.rmtree(harness.scratch, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
