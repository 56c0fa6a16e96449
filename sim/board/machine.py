"""Machine: the emulated TOV board, one QEMU process, and what the harness does to it.

The board is an ARMv7 virt machine running Debian's armhf kernel with the board's initramfs as
its root, the NAND as an ext4 virtio disk, the screen as virtio-gpu (/dev/fb0), the touch panel
as a virtio tablet, eth0 and wlan0 as virtio NICs on taps, and the RS-485 port as a 16550 UART
whose host end is a tty. The serial console and QMP are unix sockets in the run's folder.
"""
import argparse
import os
import subprocess
import time

from console import FAILURES, BoardFailure, Console, ConsoleClosed, ConsoleError, ConsoleTimeout
from deadline import Deadline
from qmp import Qmp

STARTED = rb"board: started"
CONSOLE_READY = rb"board: console ready\r?\n"
# The guest's orderly end (rcK, run by busybox's init before it reboots), and the end of the
# starter's program, which on a unit only a reboot brings.
HALTED = rb"board: halted"
BENCH_ENDED = rb"board: the bench ended with status \d+"
# QEMU's own word on a reset the guest asked for (the kernel's reboot, through PSCI).
GUEST_RESET = "guest-reset"
# The guest's halt and QEMU's reset of one reboot come this close: busybox's init signals every
# program and pauses twice between them.
SIGNS_APART = 15
# A bench whose end no reboot follows within this has failed.
ENDED_TO_HALT = 20
# The board's GPIO pins, one a line: number, direction, the harness's name for it.
PINS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "gpio-mockup", "pins")
# The tablet's axes run over 0..32767 whatever the screen's size.
TABLET_MAX = 32767
SCREEN_W, SCREEN_H = 640, 480


def qemu_command(kernel, initrd, append=""):
    """The board's machine, processor, memory and kernel: the command line the board and its
    smoke boot (sim/board/smoke-guest-devices) both start from, their devices after it."""
    return ["qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15", "-smp", "1", "-m", "128",
            "-kernel", kernel, "-initrd", initrd,
            "-append", f"console=ttyAMA0 rdinit=/init {append}".strip()]


def board_pin(name):
    """The number of the board's pin that the pins file calls NAME."""
    with open(PINS) as f:
        for line in f:
            fields = line.split()
            if fields and not fields[0].startswith("#") and name in fields[2:]:
                return int(fields[0])
    raise KeyError(f"no pin called {name} in {PINS}")


def board_arguments():
    """The command line every harness of the board starts from: where its run goes and what the
    board boots (sim/board/board passes them)."""
    parser = argparse.ArgumentParser()
    for name in ("--out", "--kernel", "--initrd", "--disk"):
        parser.add_argument(name, required=True)
    return parser


def nand_drive(disk, log=None):
    """The NAND's drive: the image, or with LOG the image through QEMU's blklogwrites, which
    appends each write the board makes, and each flush, to LOG (sim/board/logreplay.py reads it).
    LOG must be empty: QEMU writes it from its start on and leaves whatever followed."""
    if log is None:
        return f"file={disk},if=none,format=raw,id=nand,cache=writeback"
    return (f"driver=blklogwrites,file.driver=file,file.filename={disk},log.driver=file,"
            f"log.filename={log},if=none,id=nand,cache=writeback")


class StartError(Exception):
    """A program the harness started ended before it was ready: PROGRAM, its exit STATUS (None
    when it was still running) and the last lines it printed."""

    def __init__(self, text, program=None, status=None, output=""):
        super().__init__(text)
        self.program, self.status, self.output = program, status, output


class RebootTimeout(ConsoleTimeout):
    """The board did not reboot in time, or its bench ended and no reboot followed."""


class RebootUnconfirmed(ConsoleError):
    """One sign of a reboot came without the other, or QEMU shut the machine down instead."""


class HaltWithoutReset(RebootUnconfirmed):
    """The guest ended in order and QEMU reset nothing."""


class ResetWithoutHalt(RebootUnconfirmed):
    """QEMU reset the machine at the guest's request without the guest's orderly end."""


def log_tail(path, lines=10):
    with open(path, "rb") as f:
        return b"".join(f.readlines()[-lines:]).decode(errors="replace").strip()


class Machine:
    def __init__(self, kernel, initrd, disk, folder, uart, taps, append="", window=False, log=None, stick=None):
        self.folder = folder
        self.qmp_path = os.path.join(folder, "qmp.sock")
        self.console_path = os.path.join(folder, "console.sock")
        self.kernel_log = os.path.join(folder, "kernel.log")
        self.kernel_read = 0
        self.bench_output = os.path.join(folder, "bench.out")
        self.command = [
            "nice", "-n", "5", *qemu_command(kernel, initrd, append),
            # window: QEMU's window on the maintainer's display is the screen, its mouse the
            # finger on the tablet (absolute, so the pointer lands where it is seen).
            "-display", "gtk,zoom-to-fit=off" if window else "none", "-monitor", "none", "-nodefaults",
            "-chardev", f"socket,id=console,path={self.console_path},server=on,wait=off",
            "-serial", "chardev:console",
            "-qmp", f"unix:{self.qmp_path},server=on,wait=off",
            "-drive", nand_drive(disk, log),
            # With a log, no write-zeroes requests: QEMU 7.2's blklogwrites logs one's entry and
            # its zeroes in two steps another request may come between, which breaks the log.
            "-device", "virtio-blk-pci,drive=nand" + (",write-zeroes=off" if log else ""),
            "-device", f"virtio-gpu-pci,id=gpu0,xres={SCREEN_W},yres={SCREEN_H}",
            "-device", "virtio-tablet-pci,id=touch",
            # The kernel's messages, every level, on a port of their own (the guest's /dev/hvc0).
            "-device", "virtio-serial-pci,id=ports",
            "-chardev", f"file,id=kmsg,path={self.kernel_log}",
            "-device", "virtconsole,chardev=kmsg,name=kmsg",
            # The bench's output, every boot's one after the other, as it prints it.
            "-chardev", f"file,id=bench,path={self.bench_output}",
            "-device", "virtserialport,chardev=bench,name=bench",
            "-chardev", f"serial,id=rs485,path={uart}",
            "-device", "pci-serial,chardev=rs485",
            "-netdev", f"tap,id=eth0,ifname={taps[0]},script=no,downscript=no",
            "-device", "virtio-net-pci,netdev=eth0,mac=52:54:00:70:00:01,romfile=",
        ]
        # The USB port, and a stick in it from the start (an image of its disk).
        self.command += ["-device", "qemu-xhci,id=usb"]
        if stick is not None:
            self.command += ["-drive", f"file={stick},if=none,format=raw,id=stick",
                             "-device", "usb-storage,bus=usb.0,drive=stick"]
        # The wireless dongle is a second NIC; a board without it has no wlan0 at all.
        if len(taps) > 1:
            self.command += [
                "-netdev", f"tap,id=wlan0,ifname={taps[1]},script=no,downscript=no",
                "-device", "virtio-net-pci,netdev=wlan0,mac=52:54:00:70:00:02,romfile=",
            ]
        self.process = None
        self.qmp = None
        self.console = None
        # Halts, guest resets and bench ends seen before the running boot (see wait_boot).
        self.reboot_signs = (0, 0, 0)

    def start(self):
        with open(os.path.join(self.folder, "qemu.cmdline"), "w") as f:
            f.write(" ".join(self.command) + "\n")
        self.qemu_log = open(os.path.join(self.folder, "qemu.log"), "wb")
        self.started = time.monotonic()
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL,
                                        stdout=self.qemu_log, stderr=subprocess.STDOUT)
        deadline = Deadline(30)
        try:
            self.console = Console(self.console_path, os.path.join(self.folder, "console.log"),
                                   deadline, self.alive)
            self.qmp = Qmp(self.qmp_path, deadline, self.alive)
            self.console.watch = self.check_kernel
        except Exception:
            # A QEMU that fails its start may reset our connection before it is gone: give it
            # the moment to end, so that its own words are what the caller sees.
            try:
                self.process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                pass
            if not self.alive():
                output = log_tail(os.path.join(self.folder, "qemu.log"))
                raise StartError(f"QEMU ended at its start with status {self.process.returncode}: {output}",
                                 "qemu-system-arm", self.process.returncode, output)
            raise

    def check_kernel(self):
        """Raises BoardFailure once the kernel has told of an oops, a panic or an out-of-memory
        kill since the last look."""
        try:
            with open(self.kernel_log, "rb") as f:
                f.seek(self.kernel_read)
                new = f.read()
        except FileNotFoundError:
            return
        # Whole lines only: a message is looked at once it has ended.
        new = new[:new.rfind(b"\n") + 1]
        self.kernel_read += len(new)
        for failure in FAILURES:
            bad = failure.search(new)
            if bad:
                self.console.note(f"kernel.log: {bad.group(0).decode(errors='replace')}")
                raise BoardFailure(bad.group(0).decode(errors="replace") + " (kernel.log)", failure.pattern)

    def alive(self):
        return self.process is not None and self.process.poll() is None

    def wait_closed(self):
        """Follows the boots until QEMU ends (its window closed); returns the number of boots."""
        while self.alive():
            time.sleep(0.5)
            self.console.count(STARTED)  # keeps reading the console into its log
        return self.boots()

    def boots(self):
        """How many boots reached the end of the board's start so far."""
        return self.console.count(STARTED)

    def wait_boot(self, seconds=120):
        """Waits for the next boot's shell; returns the number of boots so far."""
        self.console.wait(STARTED, Deadline(seconds))
        # The signs of a reboot seen before this boot: the next reboot's come after them.
        self.reboot_signs = (self.console.count(HALTED), self.guest_resets(), self.console.count(BENCH_ENDED))
        self.console.wait(CONSOLE_READY, Deadline(30))
        return self.boots()

    def guest_resets(self):
        """How many resets of the machine the guest asked for, by QEMU's own events. A guest
        shutdown raises RebootUnconfirmed: the board reboots, it never powers off (QEMU started
        with -no-reboot would turn each reboot into one)."""
        count = 0
        for event in self.qmp.poll():
            data = event.get("data", {})
            if event["event"] == "RESET" and data.get("reason") == GUEST_RESET:
                count += 1
            elif event["event"] == "SHUTDOWN" and data.get("guest"):
                raise RebootUnconfirmed(f"QEMU shut the machine down ({data.get('reason')}) where the "
                                        "board reboots")
        return count

    def wait_reboot(self, seconds, meanwhile=lambda: None, every=1.0, apart=SIGNS_APART):
        """Waits for the reboot of the running boot, confirmed twice: the guest's orderly end on
        its console and QEMU's reset at the guest's request on QMP. Calls MEANWHILE about every
        EVERY seconds until either comes. Raises RebootUnconfirmed when one comes without the
        other within APART seconds, RebootTimeout when neither comes within SECONDS, or none
        within ENDED_TO_HALT after the bench ended, BoardFailure on a kernel failure."""
        boot = self.boots()
        halts, resets, ends = self.reboot_signs
        console = self.console
        start = console.pos
        deadline = Deadline(seconds)
        alone = ended = None
        due = time.monotonic() + every
        while True:
            # Counted over all the console said: the shell's commands skip what came before them.
            halted = console.count(HALTED) > halts
            reset = self.guest_resets() > resets
            if halted and reset:
                return
            for failure in FAILURES:
                bad = failure.search(console.buffer, start)
                if bad:
                    raise BoardFailure(bad.group(0).decode(errors="replace").strip(), failure.pattern)
            console.watch()
            if console.closed:
                raise ConsoleClosed("QEMU closed the console")
            if halted or reset:
                alone = alone or Deadline(apart)
                if alone.expired() and halted:
                    raise HaltWithoutReset(f"the guest halted and QEMU reset nothing in {alone.seconds:.0f} s")
                if alone.expired():
                    raise ResetWithoutHalt("QEMU reset the machine at the guest's request without the "
                                           f"guest's orderly end in {alone.seconds:.0f} s")
            elif deadline.expired():
                raise RebootTimeout(f"boot {boot} did not reboot within {deadline.seconds:.0f} s")
            if ended is None and console.count(BENCH_ENDED) > ends:
                ended = Deadline(ENDED_TO_HALT)
            if ended is not None and ended.expired() and not halted:
                raise RebootTimeout(f"the bench of boot {boot} ended and the board did not reboot "
                                    f"within {ended.seconds:.0f} s")
            if not (halted or reset) and time.monotonic() >= due:
                meanwhile()
                due = time.monotonic() + every
            else:
                time.sleep(0.1)

    def run(self, command, seconds=60, check=True):
        return self.console.run(command, Deadline(seconds), check)

    def read(self, path, seconds=30):
        return self.run(f"cat {path}", seconds)[1]

    # --- screen and touch --------------------------------------------------------------------

    def screendump(self, path):
        """The screen as QEMU shows it, in PPM."""
        self.qmp.execute("screendump", {"filename": path})
        return path

    def tap_events(self, x, y, down, what=None):
        """Moves the finger to (x, y), then presses (down True) or lifts it (False); WHAT, the
        touched widget's name, goes into the log's note."""
        self.console.note(f"touch {x},{y}" + ("" if down is None else " down" if down else " up")
                          + ("" if what is None else f" ({what})"))
        events = [
            {"type": "abs", "data": {"axis": "x", "value": x * TABLET_MAX // (SCREEN_W - 1)}},
            {"type": "abs", "data": {"axis": "y", "value": y * TABLET_MAX // (SCREEN_H - 1)}},
        ]
        if down is not None:
            events.append({"type": "btn", "data": {"down": down, "button": "left"}})
        self.qmp.execute("input-send-event", {"events": events})

    # --- network -----------------------------------------------------------------------------

    def set_link(self, name, up):
        self.console.note(f"link {name} {'up' if up else 'down'}")
        self.qmp.execute("set_link", {"name": name, "up": up})

    def stop(self):
        if self.qmp is not None:
            try:
                self.qmp.execute("quit", seconds=5)
            except Exception:
                pass
        if self.process is not None:
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


if __name__ == "__main__":
    # For the shell scripts of the board (the smoke boot): the board's command line, each word
    # ended by a NUL.
    parser = argparse.ArgumentParser(description="prints the board's QEMU command line")
    for name in ("--kernel", "--initrd"):
        parser.add_argument(name, required=True)
    parser.add_argument("--append", default="")
    words = parser.parse_args()
    print("".join(word + "\0" for word in qemu_command(words.kernel, words.initrd, words.append)), end="")
