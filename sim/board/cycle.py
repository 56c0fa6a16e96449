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
import subprocess
import time

from console import ConsoleError, ConsoleTimeout
from deadline import Deadline
from expect import Expectations, Mismatch, boot_outputs, shown, whole_lines
from machine import board_pin
from needle import Needles
from picture import Picture
from screen import wait_for_screen
import starter
from touch import Touch

# The on-screen keyboard, shown with the form only.
KEYBOARD_BOX = (10, 330, 630, 450)

RESERVE_PIN = board_pin("reserve")
BUNDLE_FILES = ("bundle", "tov_env")
SAVED_LOG = "/nand/bench.previous.log"
SAVED_MEMORY = "/nand/memory.previous"  # /proc/meminfo's and the bench's figures at the shutdown


class Cycle:
    def __init__(self, board, out, phases=3, scenario="good"):
        self.board = board
        self.out = out
        self.phases = phases  # how many test phases to play before stopping
        self.scenario = scenario
        self.expected = Expectations(scenario)
        self.touch = Touch(board)
        # What the operator presses is found on the screen by its reference picture (needles/).
        self.needles = Needles(board, out)
        self.boots_log = open(os.path.join(out, "boots.log"), "w")

    def log(self, line, expected=True):
        print(f"board: {line}")
        self.boots_log.write(line + "\n")
        self.boots_log.flush()
        if expected:
            self.expected.log_line(line)

    def shot(self, name):
        path = os.path.join(self.out, f"{name}.ppm")
        picture = Picture(self.board.screendump(path))
        return picture

    def keep(self, picture, name):
        picture.save_png(os.path.join(self.out, f"{name}.png"))
        print(f"board: screenshot {name}.png")

    def bench_output(self, boot):
        """The bench's output of BOOT so far, as it came through the board's bench port."""
        with open(self.board.bench_output, encoding="utf-8", errors="replace") as f:
            outputs = boot_outputs(f.read())
        return whole_lines(outputs[boot - 1]) if len(outputs) >= boot else ""

    def check(self, boot, finished=False):
        """Holds what BOOT's panel showed so far to the scenario's lines; a difference fails at once,
        with the screen of that moment kept. Returns how many runs matched whole."""
        try:
            return self.expected.check_panel(boot, self.bench_output(boot), finished)
        except Mismatch as error:
            self.keep(self.shot("now"), f"boot{boot}-differs")
            raise type(error)(f"{error}\n(the screen then: boot{boot}-differs.png)", error.what) from None

    def wait_line(self, boot, text, seconds):
        """Waits for TEXT among the result panel's lines of this boot."""
        deadline = Deadline(seconds)
        while not deadline.expired():
            self.check(boot)
            if text in shown(self.bench_output(boot)):
                return
            time.sleep(1)
        raise ConsoleTimeout(f"the bench showed no '{text}' within {deadline.seconds:.0f} s")

    def wait_run(self, boot, runs_done, seconds=600):
        """Waits until RUNS_DONE runs of this boot showed their lines whole."""
        deadline = Deadline(seconds)
        while self.check(boot) < runs_done:
            if deadline.expired():
                raise ConsoleTimeout(f"boot {boot}'s run {runs_done} did not end within {deadline.seconds:.0f} s")
            time.sleep(1)

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
        box = self.needles.tap("restore-box", form)
        self.keep(self.wait_change(form, box.box), "touch-box-ticked")
        # The good scenario restores nothing at the end: the box goes back as it was. Ticked, it
        # no longer looks like its reference: the second tap goes where the first one did.
        self.touch.tap(box.x, box.y, box.name)
        self.wait_change(form, box.box, changed=False, columns=0)
        print("board: a tap ticked the restore box, a second one unticked it")

    def type_with_accent(self, form):
        field = self.needles.tap("sftp-field", form)
        focused = self.shot("now")
        key = self.needles.tap("key-E", focused)
        typed_e = self.wait_change(form, field.box)
        # A long press on E opens the accent popup; the release then types nothing.
        self.touch.press(key.x, key.y, key.name)
        self.wait_change(focused, key.box, columns=(key.box[2] - key.box[0]) // 3)
        # The popup opens when the key has been held for a second.
        time.sleep(1.2)
        popup, accent = self.needles.wait("accent-first", 15)
        self.keep(popup, "keyboard-accent-popup")
        self.touch.release(key.x, key.y, key.name)
        self.touch.tap(accent.x, accent.y, accent.name)
        self.keep(self.wait_change(typed_e, field.box), "keyboard-typed")
        # Both letters erased: the form is applied as it came, as in sim/operator's good scenario.
        backspace = self.needles.tap("key-backspace")
        self.touch.tap(backspace.x, backspace.y, backspace.name)
        self.wait_change(form, field.box, changed=False, columns=2)
        print("board: 'eé' typed into the SFTP server's field on the keyboard, then erased")

    def operate_form(self, form):
        self.tick_and_untick(form)
        self.type_with_accent(form)
        self.needles.tap("apply")

    def toggle_reserve(self):
        self.wait_line(1, "Test GPIO des sorties RELAIS et entrées TOR pour 40 secondes", 300)
        time.sleep(10)
        self.board.run(f"board-gpio {RESERVE_PIN}=0")
        time.sleep(10)
        self.board.run(f"board-gpio {RESERVE_PIN}=1")

    # --- boots ------------------------------------------------------------------------------

    def wait_reboot(self, boot, seconds):
        """Waits for the board's reboot (Machine.wait_reboot), holding the panel to the scenario's
        lines meanwhile and keeping the screen as it was just before."""
        last = [None]

        def look():
            self.check(boot)
            last[0] = self.shot("last")
        self.board.wait_reboot(seconds, meanwhile=look, every=1.5)
        self.check(boot, finished=True)
        self.log("  reboot requested")
        if last[0] is not None:
            self.keep(last[0], f"boot{boot}-reboot")

    def keep_previous_log(self, boot):
        """The bench's output of boot BOOT, which the shutdown saved on the NAND."""
        _, text = self.board.run(f"cat {SAVED_LOG}")
        with open(os.path.join(self.out, f"boot{boot}-bench.log"), "w") as f:
            f.write(text)
        with open(os.path.join(self.out, f"boot{boot}-reboot.txt"), "w") as f:
            f.write("".join(line + "\n" for line in shown(text)))
        _, memory = self.board.run(f"cat {SAVED_MEMORY}", check=False)
        with open(os.path.join(self.out, f"boot{boot}-memory.txt"), "w") as f:
            f.write(memory)

    def boot_line(self, boot):
        _, phase = self.board.run("head -n 1 /home/TOV/tov_test.cfg 2>/dev/null || echo none")
        program = starter.program(self.board.read(starter.PATH))
        phase = phase.strip() or "none"
        self.log(f"boot {boot}: phase file {phase}, starter runs '{program}'")
        return phase, program

    def set_cable(self, up):
        """The Ethernet cable plugged or pulled, as the kernel's driver reports it where the bench
        reads it."""
        carrier = "1" if up else "0"
        self.board.set_link("eth0", up)
        _, seen = self.board.run(
            f"for i in $(seq 50); do [ \"$(cat /sys/class/net/eth0/carrier)\" = {carrier} ] && break;"
            " sleep 0.1; done; cat /sys/class/net/eth0/carrier")
        if seen.strip() != carrier:
            raise ConsoleError(f"eth0's carrier is {seen.strip()!r}, not {carrier}, with the cable "
                               f"{'plugged' if up else 'pulled'}")

    def pull_and_plug_cable(self):
        """The cable pulled and plugged again while the form is still open: the phase's lines do not
        change."""
        self.set_cable(False)
        self.set_cable(True)
        print("board: the cable pulled (eth0's carrier 0) and plugged again (1)")

    def wait_for_form(self, boot, form, runs_done):
        """After a run with errors the bench goes back to its form: waits for that run's lines whole
        and the keyboard back as it was (the buttons' focus frames have moved), and keeps the screen."""
        self.wait_run(boot, runs_done)
        self.keep(self.wait_change(form, KEYBOARD_BOX, changed=False, columns=0, seconds=60),
                  f"boot{boot}-form-again")

    # --- the operator of each scenario, at each boot: what sim/operator/operator does on the host

    def operate(self, boot, phase, form):
        """Plays the operator's part in BOOT; True when the operator is done with the unit there."""
        scenario = self.scenario
        if phase == "none":
            if scenario == "good":
                self.pull_and_plug_cable()
                self.operate_form(form)
                self.toggle_reserve()
            elif scenario == "no-network":
                self.needles.tap("apply", form)
                self.wait_for_form(boot, form, 1)
                self.set_cable(True)
                # The operator starts again once the unit has its address from the plugged cable.
                self.board.run("for i in $(seq 60); do ip -4 addr show eth0 | grep -q inet && break; sleep 1; "
                               "done; ip -4 addr show eth0 | grep -q inet", seconds=90)
                print("board: the cable plugged after the failed run, eth0 has its address")
                self.needles.tap("apply")
            elif scenario in ("faulty-module", "server-down"):
                self.needles.tap("apply", form)
                self.wait_for_form(boot, form, 1)
                return True
            elif scenario == "reset-phase2":
                if boot > 1:
                    return True
                self.needles.tap("apply", form)
            elif scenario == "faulty-module-phase2":
                self.needles.tap("apply", form)
            elif scenario == "usb-restore":
                box = self.needles.tap("restore-box", form)
                self.wait_change(form, box.box)
                self.needles.tap("apply")
        elif scenario == "reset-phase2" and phase == "1":
            self.reset_bench(boot)
        elif scenario == "faulty-module-phase2" and phase == "1" and boot == 2:
            self.reboot_after_errors(boot)
        elif scenario == "usb-restore" and phase == "2":
            self.restore_from_stick(boot)
            return True
        return False

    def restore_from_stick(self, boot):
        """After the third run the restore page: its button opens a folder chooser on the stick,
        where the operator picks the full backup; the page then says how many files it restored."""
        self.wait_run(boot, 1)
        page, _ = self.needles.wait("usb-restore", 60)
        self.keep(page, f"boot{boot}-usb-page")
        self.needles.tap("usb-restore", page)
        dialog, folder = self.needles.wait("chooser-backup-full", 60)
        self.keep(dialog, f"boot{boot}-usb-dialog")
        self.needles.tap("chooser-backup-full", dialog)
        self.keep(self.wait_change(dialog, folder.box, columns=20), f"boot{boot}-usb-picked")
        self.needles.tap("chooser-choose")
        restored, _ = self.needles.wait("usb-restored", 60)
        self.keep(restored, f"boot{boot}-usb-restored")

    def reboot_after_errors(self, boot):
        """The module's probes pulled off for the second phase's run, which then ends with errors;
        plugged back, and the board rebooted by the error button: the same phase runs again."""
        subprocess.run(["/run/tovsim/module", "faulty"], check=True)
        self.wait_run(boot, 1)
        page, _ = self.needles.wait("error-reboot", 60)
        self.keep(page, f"boot{boot}-errors")
        subprocess.run(["/run/tovsim/module", "as-started"], check=True)
        self.needles.tap("error-reboot", page)

    def reset_bench(self, boot):
        self.wait_line(boot, "Test GPIO des sorties RELAIS et entrées TOR pour 40 secondes", 300)
        self.needles.tap("reset")
        # The confirmation opens over the panel once the bench takes the tap.
        box, _ = self.needles.wait("reset-yes", 60)
        self.keep(box, f"boot{boot}-reset-box")
        self.needles.tap("reset-yes", box)

    def run(self, boot, form, phase_seconds=600):
        """Plays the scenario from the first boot (already on its form) to the hand-over, to where
        the operator stops, or to the end of the phases asked for."""
        # A phase is played once the phase file has moved on: a reboot after errors runs the same
        # phase again.
        played, previous = 0, None
        while True:
            phase, program = self.boot_line(boot)
            if program != "tov_test":
                self.log(f"outcome: handed over to '{program}'")
                return self.check_end(boot)
            if previous is not None and phase != previous:
                played += 1
            previous = phase
            if played == self.phases:
                self.log("outcome: stopped after the phases asked for", expected=False)
                return
            if phase == "none" and form is None:
                form = wait_for_screen(self.board, self.out, f"boot{boot}-form")
            if self.operate(boot, phase, form):
                self.log("  the operator is done")
                self.log(f"outcome: the operator stopped in boot {boot}")
                self.expected.check_end(boot, self.bench_output(boot))
                return self.check_end(boot)
            self.wait_reboot(boot, phase_seconds)
            boot = self.board.wait_boot()
            self.keep_previous_log(boot - 1)
            form = None

    def check_end(self, boot):
        """The unit's files where the scenario ends, against the host's."""
        line = starter.line_of(starter.program(self.board.read(starter.PATH))) + "\n"
        with open(os.path.join(self.out, "starter"), "w") as f:
            f.write(line)
        _, files = self.board.run("ls -1 /home/TOV")
        # The bundle installs its libraries and their environment beside the bench: not the bench's files.
        files = [name for name in files.splitlines() if name not in BUNDLE_FILES]
        self.expected.check_files(line.splitlines(), files)
