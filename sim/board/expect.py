"""Expect: what a scenario must show on the board, from the host's end-to-end expectations.

tests/e2e/expected/SCENARIO holds what the simulated unit went through: boots.log (the phase file and
starter at each boot, the reboots, the outcome), the result panel's lines of each run (bootN-KIND.txt:
first-run and end-of-run when the run sent the bench back to its form, reboot when it rebooted the
unit, end when the operator stopped), the starter and the files of /home/TOV at the end. The board is
held to the same files, as it goes: each line of boots.log when the harness writes it, and the
panel's lines each time they are read, so that the first line that differs fails the run there and
then rather than at a time-out. Lines that change from one machine or minute to the next are
normalised by tests/e2e/normalize.sh, the host's own.
"""
import difflib
import os
import subprocess

from console import ConsoleError

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
EXPECTED = os.path.join(TOP, "tests", "e2e", "expected")
NORMALIZE = os.path.join(TOP, "tests", "e2e", "normalize.sh")
PANEL = "[fResultDisplay] "
CLEARED = PANEL + "cleared"
BENCH_STARTED = "board: bench output of this boot"
# The order of a boot's runs: a run that ended at the form may be followed by another.
RUN_KINDS = ("first-run", "end-of-run", "reboot")
# The unit's journal lists the simulated unit's fake commands: on the board they are real.
JOURNAL = "journal of the unit:"


class Mismatch(ConsoleError):
    """The board showed another line than the host's run of the scenario did: WHAT names the
    expected file it differs from."""

    def __init__(self, text, what):
        super().__init__(text)
        self.what = what


class ExtraRun(Mismatch):
    """A boot ran the tests more times than the host's run did."""


def normalize(lines):
    """LINES as tests/e2e/normalize.sh writes them for the comparison."""
    if not lines:
        return []
    text = "".join(line + "\n" for line in lines)
    done = subprocess.run(["bash", "-c", f'source "{NORMALIZE}"; normalize /dev/stdin'], input=text.encode(),
                          stdout=subprocess.PIPE, check=True)
    return done.stdout.decode().splitlines()


def runs(output):
    """The result panel's lines of each run of one boot's output: a run starts where the panel is
    cleared; what the panel showed before (the bench's own start line) is no run's."""
    found = []
    for line in output.splitlines():
        if line == CLEARED:
            found.append([])
        elif line.startswith(PANEL) and found:
            found[-1].append(line[len(PANEL):])
    return found


def shown(output):
    """The result panel's lines at the end of OUTPUT: what it showed since it was last cleared."""
    lines = []
    for line in output.splitlines():
        if line == CLEARED:
            lines = []
        elif line.startswith(PANEL):
            lines.append(line[len(PANEL):])
    return lines


def boot_outputs(text):
    """The bench's output of each boot, from the board's bench port (one after the other)."""
    return [part.split("\n", 1)[1] if "\n" in part else "" for part in text.split(BENCH_STARTED)[1:]]


def whole_lines(text):
    """What ends with a line's end: the last line may still be on its way."""
    return text[:text.rfind("\n") + 1]


def difference(expected, actual, what):
    return "\n".join(difflib.unified_diff(expected, actual, f"expected {what}", f"board {what}", lineterm=""))


class Expectations:
    def __init__(self, scenario, folder=None):
        self.scenario = scenario
        self.folder = folder or os.path.join(EXPECTED, scenario)
        if not os.path.isdir(self.folder):
            raise ValueError(f"no expectations for scenario '{scenario}' in {EXPECTED}")
        with open(os.path.join(self.folder, "boots.log")) as f:
            lines = f.read().splitlines()
        self.boots_log = lines[:lines.index(JOURNAL)] if JOURNAL in lines else lines
        self.logged = []

    def text(self, name):
        path = os.path.join(self.folder, name)
        if not os.path.exists(path):
            return None
        with open(path) as f:
            return f.read().splitlines()

    def expected_runs(self, boot):
        """The panel's lines of each run of BOOT, in order, with the file they come from."""
        found = []
        for kind in RUN_KINDS:
            lines = self.text(f"boot{boot}-{kind}.txt")
            if lines is not None:
                found.append((f"boot{boot}-{kind}.txt", lines))
        # Where the operator stopped after a run that passed, its lines are those at the end.
        end = self.text(f"boot{boot}-end.txt")
        if end and self.text(f"boot{boot}-end-of-run.txt") is None:
            found.append((f"boot{boot}-end.txt", end))
        return found

    def log_line(self, line):
        """Holds the next line of the board's boots.log to the expected one."""
        index = len(self.logged)
        self.logged.append(line)
        if index >= len(self.boots_log) or self.boots_log[index] != line:
            raise Mismatch("boots.log differs from the host's:\n"
                           + difference(self.boots_log[:index + 1], self.logged, "boots.log"), "boots.log")

    def check_panel(self, boot, output, finished=False):
        """Holds the runs of BOOT so far (its bench OUTPUT) to the expected ones: each must be the
        start of its expected lines, the last whole with FINISHED. Returns how many runs matched
        whole."""
        expected = self.expected_runs(boot)
        actual = [normalize(run) for run in runs(whole_lines(output))]
        if len(actual) > len(expected):
            raise ExtraRun(f"boot {boot} ran {len(actual)} run(s) of the tests, the host's run "
                           f"{len(expected)}: its lines:\n" + "\n".join(actual[len(expected)]), f"boot {boot}")
        whole = 0
        for index, (name, lines) in enumerate(expected[:len(actual)]):
            seen = actual[index]
            last = index == len(actual) - 1
            if seen == lines:
                whole += 1
            elif seen != lines[:len(seen)] or not last or finished:
                raise Mismatch(f"{name} differs:\n" + difference(lines, seen, name), name)
        return whole

    def check_end(self, boot, output):
        """The panel's lines where the operator stopped, against bootN-end.txt when there is one."""
        lines = self.text(f"boot{boot}-end.txt")
        if lines is None:
            return
        seen = normalize(shown(whole_lines(output)))
        if seen != lines:
            raise Mismatch(f"boot{boot}-end.txt differs:\n" + difference(lines, seen, f"boot{boot}-end.txt"),
                           f"boot{boot}-end.txt")

    def check_files(self, starter, home_files):
        """The starter's line and the files of /home/TOV at the end."""
        for name, seen in (("starter", starter), ("home-files", home_files)):
            lines = self.text(name)
            if lines is not None and seen != lines:
                raise Mismatch(f"{name} differs:\n" + difference(lines, seen, name), name)
        if len(self.logged) != len(self.boots_log):
            raise Mismatch("boots.log ends early:\n" + difference(self.boots_log, self.logged, "boots.log"),
                           "boots.log")
