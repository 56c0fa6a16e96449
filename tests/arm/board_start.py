#!/usr/bin/python3
"""The board's harness stops at once when a program it starts ends at its start, and says why with
the program's own words and status: QEMU given a kernel that is not there, the DHCP server given an
interface that is not there. Real QEMU and busybox; the DHCP server needs the server side of a
simulated unit, so the test runs itself in one. Then one boot of the board whose NAND is an empty
disk, and whose kernel is made to kill a program for want of memory: each fails the wait that
sees it, by its type, naming what the board said. On that board, a reboot must be confirmed by the
guest's orderly end and by QEMU's reset event: an emergency reboot (no orderly end), a halt line
with no reset and a guest that powers off each fail the wait for it. Before all that, a run (or
power-cut run) given a folder that another run holds stops at once and says so.

    tests/arm/board_start.py
"""
import fcntl
import os
import subprocess
import sys
import tempfile
import time

TOP = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
sys.path.insert(0, os.path.join(TOP, "sim/board"))
from console import FAILURES, BoardFailure  # noqa: E402
from deadline import Deadline  # noqa: E402
from machine import (HALTED, HaltWithoutReset, Machine, RebootUnconfirmed, ResetWithoutHalt,  # noqa: E402
                     StartError)
import run  # noqa: E402

failures = 0
OOM_KILL = next(f for f in FAILURES if f.pattern.startswith(rb"Out of memory"))
NAND_FAILED = next(f for f in FAILURES if f.pattern.startswith(rb"board: FAILED"))


def expect_error(what, kind, start, check=lambda error: None):
    """START must raise KIND, of which CHECK says what is wrong (None: nothing)."""
    global failures
    try:
        start()
        problem = "no error"
    except kind as error:
        problem = check(error)
    except Exception as error:  # a time-out or any other failure is not the start's own error
        problem = f"{type(error).__name__}: {error}"
    print(f"{'FAIL' if problem else 'ok  '} {what}" + (f": {problem}" if problem else ""))
    failures += problem is not None


def ended(program, status, word):
    """A StartError check: PROGRAM ended with STATUS and the error carries its words, WORD among them."""
    def check(error):
        if (error.program, error.status) != (program, status) or word not in error.output:
            return f"{error.program} {error.status}, {error.output!r} (wanted {program} {status}, '{word}')"
        return None
    return check


def printed(pattern, word):
    """A BoardFailure check: the board printed what PATTERN, one of FAILURES, matches, WORD in it."""
    def check(error):
        if error.pattern != pattern.pattern or word not in error.printed:
            return f"{error.pattern!r}: {error.printed!r} (wanted {pattern.pattern!r}, '{word}')"
        return None
    return check


def main():
    if not os.path.exists("/run/tovsim/server.pid"):
        held_folder()
        # The board's kernel and initramfs are made out here: the unit has no network.
        kernel, initrd = (subprocess.run([os.path.join(TOP, "sim/board", name)], check=True, text=True,
                                         stdout=subprocess.PIPE).stdout.strip() for name in ("kernel", "initramfs"))
        tovsim = os.path.join(TOP, "sim/tovsim")
        env = dict(os.environ, TOVSIM_BIN_DIR=os.path.join(TOP, "build/host/sim"),
                   PYTHONDONTWRITEBYTECODE="1", BOARD_KERNEL=os.path.join(kernel, "vmlinuz"),
                   BOARD_INITRD=initrd)
        return subprocess.run([tovsim, "exec", "--", sys.executable, os.path.abspath(__file__)],
                              env=env).returncode
    run.make_tun()
    with tempfile.TemporaryDirectory() as folder:
        board = Machine("/no/such/vmlinuz", "/no/such/initrd", "/dev/null", folder, "/dev/null",
                        ("tap-none0", "tap-none1"))
        try:
            expect_error("QEMU without its kernel", StartError, board.start,
                         ended("qemu-system-arm", 1, "/no/such/vmlinuz"))
        finally:
            board.stop()
        config = os.path.join(folder, "udhcpd.conf")
        with open(config, "w") as f:
            f.write(f"interface nosuch0\nlease_file {folder}/leases\npidfile {folder}/pid\n")
        expect_error("the DHCP server on an interface that is not there", StartError,
                     lambda: run.start_dhcp_server(config, os.path.join(folder, "udhcpd.log")),
                     ended("udhcpd", 1, "nosuch0"))
        failing_board(folder)
    return 1 if failures else 0


def held_folder():
    global failures
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "run")
        with open(out + ".lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            for command in (["board", "run"], ["powercut", "--every-flush", "--seed", "1"]):
                done = subprocess.run([os.path.join(TOP, "sim/board", command[0])] + command[1:] + ["--out", out],
                                      capture_output=True, text=True, timeout=120)
                if done.returncode != 2 or f"another run is using {out}" not in done.stderr:
                    failures += 1
                    print(f"FAIL sim/board/{command[0]} in a held folder: status {done.returncode}, "
                          f"{done.stderr.strip()!r}")
                else:
                    print(f"ok   sim/board/{command[0]} in a folder another run holds")


def failing_board(folder):
    empty = os.path.join(folder, "empty.img")
    with open(empty, "wb") as f:
        f.truncate(1 << 20)
    board = Machine(os.environ["BOARD_KERNEL"], os.environ["BOARD_INITRD"], empty, folder, "/dev/null",
                    ("tap-nand0", "tap-nand1"))
    try:
        board.start()
        expect_error("a NAND that does not mount", BoardFailure, board.wait_boot,
                     printed(NAND_FAILED, "the NAND (/dev/vda) did not mount"))
        # The boot goes on without its NAND: past the failure line, to the shell.
        board.console.pos = board.console.buffer.find(b"board: FAILED") + 1
        board.wait_boot()

        # The kernel's own out-of-memory killer, asked for by hand: a program dies, the board lives
        # on, and the commands that follow must not pass for answers.
        def oom():
            board.run("echo f >/proc/sysrq-trigger", check=False)
            for _ in range(50):
                board.run("true", seconds=5, check=False)
                time.sleep(0.1)
        expect_error("a program killed for want of memory", BoardFailure, oom,
                     printed(OOM_KILL, "(kernel.log)"))
        reboots(board)
    finally:
        board.stop()


def boot_without_nand(board):
    """The next boot of the board whose NAND does not mount: past the failure line, to the shell."""
    board.console.wait(NAND_FAILED.pattern, Deadline(240))
    board.wait_boot()


def reboots(board):
    """A reboot is taken only when the guest ended in order and QEMU reset the machine at its
    request; each sign alone fails the wait, by its type."""
    global failures
    board.run("reboot", check=False)
    try:
        board.wait_reboot(120)
        print("ok   an orderly reboot: the guest's halt and QEMU's reset")
    except Exception as error:
        print(f"FAIL an orderly reboot: {type(error).__name__}: {error}")
        failures += 1
    boot_without_nand(board)
    # The kernel's emergency reboot: no orderly end, QEMU resets the machine all the same.
    board.run("(sleep 1; echo b >/proc/sysrq-trigger) &", check=False)
    expect_error("a reset without the guest's orderly end", ResetWithoutHalt,
                 lambda: board.wait_reboot(120, apart=5))
    boot_without_nand(board)
    board.run(f"echo '{HALTED.decode()}'", check=False)
    expect_error("the guest's halt without a reset", HaltWithoutReset,
                 lambda: board.wait_reboot(120, apart=5))
    # A board powered off by its guest: QEMU says SHUTDOWN, as each reboot would under -no-reboot.
    # (The lone halt line above is still this boot's: the wait is long enough for the shutdown.)
    board.run("poweroff", check=False)
    expect_error("a guest shutdown where the board reboots", RebootUnconfirmed,
                 lambda: board.wait_reboot(120, apart=60),
                 lambda error: None if type(error) is RebootUnconfirmed else f"{type(error).__name__}: {error}")


if __name__ == "__main__":
    sys.exit(main())
