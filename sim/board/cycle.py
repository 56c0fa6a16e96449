"""Cycle: the factory cycle on the emulated board, played by the operator's finger.

At the first boot the operator works the network form through the touch panel: ticks and unticks
the restore box, types into the SFTP server's field on the on-screen keyboard (a letter, then an
accented one taken from the long-press popup), erases it again so that the scenario stays the
"good" one of sim/operator, and presses the apply button; during the first relay test the RESERVE
input goes active for ten seconds, as sim/operator/operator does. Then the bench reboots the board
by itself until the starter hands over to the production application.

Each boot leaves in the run's folder: bootN-bench.log (the bench's own output, saved to the NAND
by the board's orderly shutdown), bootN-reboot.txt (the result panel's lines at the reboot, read
from that output), bootN-memory.txt (the board's memory and the bench's peak at the shutdown) and
bootN-reboot.png (the screen just before it), and a line in boots.log in the
format of sim/unit/tovboot, so that tests/e2e/expected applies to the board as it does to the host.
"""
import os
import time

from console import ConsoleError, ConsoleTimeout
from deadline import Deadline
from machine import board_pin
from picture import Picture
import starter
from touch import KEYS, Touch

# Places on the form's 640 x 480 page, read from its picture.
RESTORE_BOX = (22, 71)
APPLY = (530, 71)
# Right of the SFTP server's text: the tap puts the cursor at its end.
SERVER_FIELD = (610, 280)
SERVER_FIELD_BOX = (438, 270, 626, 291)
# The first choice of the accent popup that a long press on E opens ("é").
FIRST_ACCENT = (114, 374)

RESERVE_PIN = board_pin("reserve")
PANEL = "[fResultDisplay] "
CLEARED = PANEL + "cleared"
SAVED_LOG = "/nand/bench.previous.log"
SAVED_MEMORY = "/nand/memory.previous"  # /proc/meminfo's and the bench's figures at the shutdown


def panel_lines(log):
    """The result panel's lines at the end of a boot: what the bench showed since it last cleared
    the panel, from its output."""
    lines = []
    for line in log.splitlines():
        if line == CLEARED:
            lines = []
        elif line.startswith(PANEL):
            lines.append(line[len(PANEL):])
    return lines


class Cycle:
    def __init__(self, board, out, phases=3):
        self.board = board
        self.out = out
        self.phases = phases  # how many test phases to play before stopping
        self.touch = Touch(board)
        self.boots_log = open(os.path.join(out, "boots.log"), "w")

    def log(self, line):
        print(f"board: {line}")
        self.boots_log.write(line + "\n")
        self.boots_log.flush()

    def shot(self, name):
        path = os.path.join(self.out, f"{name}.ppm")
        picture = Picture(self.board.screendump(path))
        return picture

    def keep(self, picture, name):
        picture.save_png(os.path.join(self.out, f"{name}.png"))
        print(f"board: screenshot {name}.png")

    def bench_log(self):
        return self.board.run("cat /run/board/bench.log", check=False)[1]

    def wait_line(self, text, seconds):
        """Waits for TEXT among the result panel's lines of this boot, from the bench's output."""
        deadline = Deadline(seconds)
        while not deadline.expired():
            if text in panel_lines(self.bench_log()):
                return
            time.sleep(2)
        raise ConsoleTimeout(f"the bench showed no '{text}' within {deadline.seconds:.0f} s")

    def wait_change(self, before, box, changed=True, seconds=15, columns=4):
        """Waits until the screen inside BOX differs from BEFORE (or, with changed=False, is back
        to it) by more than COLUMNS columns: a line edit's blinking cursor is one column."""
        deadline = Deadline(seconds)
        while True:
            after = self.shot("now")
            if (after.differing_columns(before, box) > columns) == changed:
                return after
            if deadline.expired():
                self.keep(after, "unexpected")
                state = "changed" if changed else "came back"
                raise ConsoleTimeout(f"the screen in {box} never {state} (see unexpected.png)")
            time.sleep(0.3)

    # --- the operator at the first boot -----------------------------------------------------

    def tick_and_untick(self, form):
        x, y = RESTORE_BOX
        box = (x - 12, y - 12, x + 12, y + 12)
        self.touch.tap(x, y)
        self.keep(self.wait_change(form, box), "touch-box-ticked")
        # The good scenario restores nothing at the end: the box goes back as it was.
        self.touch.tap(x, y)
        self.wait_change(form, box, changed=False, columns=0)
        print("board: a tap ticked the restore box, a second one unticked it")

    def type_with_accent(self, form):
        self.touch.tap(*SERVER_FIELD)
        focused = self.shot("now")
        self.touch.key("E")
        self.wait_change(form, SERVER_FIELD_BOX)
        # A long press on E opens the accent popup; the release then types nothing.
        x, y = KEYS["E"]
        self.touch.press(x, y)
        pressed = self.wait_change(focused, (0, 300, 640, 480), columns=20)
        # The popup opens when the key has been held for a second.
        time.sleep(1.2)
        popup = self.wait_change(pressed, (0, 0, 640, 480), columns=40)
        self.keep(popup, "keyboard-accent-popup")
        self.touch.release(x, y)
        self.touch.tap(*FIRST_ACCENT)
        typed = self.wait_change(popup, (0, 330, 640, 480), columns=40)
        self.keep(typed, "keyboard-typed")
        # Both letters erased: the form is applied as it came, as in sim/operator's good scenario.
        self.touch.key("backspace")
        self.touch.key("backspace")
        self.wait_change(form, SERVER_FIELD_BOX, changed=False, columns=2)
        print("board: 'eé' typed into the SFTP server's field on the keyboard, then erased")

    def operate_form(self, form):
        self.tick_and_untick(form)
        self.type_with_accent(form)
        self.touch.tap(*APPLY)

    def toggle_reserve(self):
        self.wait_line("Test GPIO des sorties RELAIS et entrées TOR pour 40 secondes", 300)
        time.sleep(10)
        self.board.run(f"board-gpio {RESERVE_PIN}=0")
        time.sleep(10)
        self.board.run(f"board-gpio {RESERVE_PIN}=1")

    # --- boots ------------------------------------------------------------------------------

    def wait_reboot(self, boot, seconds):
        """Waits for the board's reboot (Machine.wait_reboot), keeping the screen as it was just
        before."""
        last = [None]

        def look():
            last[0] = self.shot("last")
        self.board.wait_reboot(seconds, meanwhile=look, every=1.5)
        self.log("  reboot requested")
        if last[0] is not None:
            self.keep(last[0], f"boot{boot}-reboot")

    def keep_previous_log(self, boot):
        """The bench's output of boot BOOT, which the shutdown saved on the NAND."""
        _, text = self.board.run(f"cat {SAVED_LOG}")
        with open(os.path.join(self.out, f"boot{boot}-bench.log"), "w") as f:
            f.write(text)
        with open(os.path.join(self.out, f"boot{boot}-reboot.txt"), "w") as f:
            f.write("".join(line + "\n" for line in panel_lines(text)))
        _, memory = self.board.run(f"cat {SAVED_MEMORY}", check=False)
        with open(os.path.join(self.out, f"boot{boot}-memory.txt"), "w") as f:
            f.write(memory)

    def boot_line(self, boot):
        _, phase = self.board.run("head -n 1 /home/TOV/tov_test.cfg 2>/dev/null || echo none")
        program = starter.program(self.board.read(starter.PATH))
        phase = phase.strip() or "none"
        self.log(f"boot {boot}: phase file {phase}, starter runs '{program}'")
        return phase, program

    def pull_and_plug_cable(self):
        """The Ethernet cable pulled and plugged again, as the kernel's driver reports it where the
        bench reads it; the form is still open, so the phase's lines do not change."""
        for up, carrier in ((False, "0"), (True, "1")):
            self.board.set_link("eth0", up)
            _, seen = self.board.run(
                f"for i in $(seq 50); do [ \"$(cat /sys/class/net/eth0/carrier)\" = {carrier} ] && break;"
                " sleep 0.1; done; cat /sys/class/net/eth0/carrier")
            if seen.strip() != carrier:
                raise ConsoleError(f"eth0's carrier is {seen.strip()!r}, not {carrier}, with the cable "
                                   f"{'plugged' if up else 'pulled'}")
        print("board: the cable pulled (eth0's carrier 0) and plugged again (1)")

    def run(self, boot, form, phase_seconds=600):
        """Plays the cycle from the first boot (already on its form)."""
        self.boot_line(boot)
        self.pull_and_plug_cable()
        self.operate_form(form)
        self.toggle_reserve()
        for phase in range(1, self.phases + 1):
            self.wait_reboot(boot, phase_seconds)
            boot = self.board.wait_boot()
            self.keep_previous_log(boot - 1)
            _, program = self.boot_line(boot)
            if program != "tov_test":
                self.log(f"outcome: handed over to '{program}'")
                with open(os.path.join(self.out, "starter"), "w") as f:
                    f.write(starter.line_of(program) + "\n")
                return
        self.log("outcome: stopped after the phases asked for")
