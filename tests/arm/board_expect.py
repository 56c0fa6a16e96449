#!/usr/bin/python3
"""The board's hold on a scenario's lines (sim/board/expect.py), on the bench's output as it grows: a
run still on its way passes while it is the start of its expected lines, and the first line that
differs fails, naming the expected file. Built on tests/e2e/expected, as the board runs use it. Needs
no board.

    tests/arm/board_expect.py
"""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../sim/board"))
from expect import Expectations, ExtraRun, Mismatch, boot_outputs  # noqa: E402

PANEL = "[fResultDisplay] "


def output(*runs, before=()):
    """A boot's output: lines shown before any clearing, then each run after its clearing."""
    lines = ["QStandardPaths: XDG_RUNTIME_DIR not set"] + [PANEL + line for line in before]
    for run in runs:
        lines += [PANEL + "cleared", "[MesV2Modul] Started"] + [PANEL + line for line in run]
    return "".join(line + "\n" for line in lines)


def machine_lines(lines):
    """The expected lines as a board shows them: its own kernel, date and free space."""
    return [line.replace("<kernel>", "6.1.0-50-armmp").replace("<date>", "25/11/2026 15:06:48")
            .replace("<free>", "47") for line in lines]


def main():
    nn = Expectations("no-network")
    first = machine_lines(nn.text("boot1-first-run.txt"))
    second = machine_lines(nn.text("boot1-reboot.txt"))
    wrong = second[:5] + ["ERREUR Aucunne Connection vers WATCHTOWER, plus de tests réseaux"]
    # (what the board printed, finished, whole runs it must report, the file it must name or the
    # type of its failure)
    cases = [
        ("nothing yet", "", False, 0),
        ("only the bench's start line", output(before=["Démarrage des Tests du TOV..."]), False, 0),
        ("first run on its way", output(first[:6]), False, 0),
        ("first run whole", output(first), False, 1),
        ("a line cut short is not read", output(first[:6])[:-10], False, 0),
        ("second run on its way", output(first, second[:3]), False, 1),
        ("both whole", output(first, second), True, 2),
        ("a changed line", output(first[:4] + ["Kernel Version: x"]), False, "boot1-first-run.txt"),
        ("a line left out", output(first[:4] + first[5:7]), False, "boot1-first-run.txt"),
        ("a run ended early", output(first[:-1], second[:2]), False, "boot1-first-run.txt"),
        ("the reboot before the run's end", output(first, second[:-1]), True, "boot1-reboot.txt"),
        ("the second run's own difference", output(first, wrong), False, "boot1-reboot.txt"),
        ("a third run", output(first, second, ["Kernel Version: 6.1"]), False, ExtraRun),
    ]
    failures = 0
    for name, text, finished, want in cases:
        try:
            got = nn.check_panel(1, text, finished)
        except Mismatch as error:
            got = f"{type(error).__name__} naming {error.what}: {error}"
            ok = error.what == want if isinstance(want, str) else isinstance(want, type) and type(error) is want
        else:
            ok = got == want
        if not ok:
            failures += 1
            print(f"FAIL {name}: wanted {want!r}, got {got!r}")

    # boots.log line by line, and the end.
    fm = Expectations("faulty-module")
    log_cases = [
        (["boot 1: phase file none, starter runs 'tov_test'", "  the operator is done",
          "outcome: the operator stopped in boot 1"], None),
        (["boot 1: phase file 1, starter runs 'tov_test'"], "boots.log"),
        (["boot 1: phase file none, starter runs 'tov_test'", "  reboot requested"], "boots.log"),
    ]
    def differs(lines, starter, files):
        """What the board's end differs in after LINES of boots.log, or None."""
        fm.logged = []
        try:
            for line in lines:
                fm.log_line(line)
            fm.check_files(starter, files)
        except Mismatch as error:
            return error.what
        return None

    whole = log_cases[0][0]
    end_cases = [(lines, ["TOV_BIN_NAME=tov_test"], ["tov_starter", "tov_test"], want) for lines, want in log_cases]
    end_cases += [(whole, ["TOV_BIN_NAME=tovQT"], ["tov_starter", "tov_test"], "starter"),
                  (whole, ["TOV_BIN_NAME=tov_test"], ["tov_starter"], "home-files")]
    for lines, starter, files, want in end_cases:
        got = differs(lines, starter, files)
        if got != want:
            failures += 1
            print(f"FAIL {lines} {starter} {files}: wanted {want!r}, got {got!r}")

    outputs = boot_outputs("board: bench output of this boot\nA\nboard: bench output of this boot\nB\n")
    if outputs != ["A\n", "B\n"]:
        failures += 1
        print(f"FAIL the boots' outputs: {outputs!r}")
    print(f"board_expect: {len(cases) + len(end_cases) + 1} cases, {failures} failure(s)")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
