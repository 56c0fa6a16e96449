#!/usr/bin/python3
"""The board's harness stops at once when a program it starts ends at its start, and says why with
the program's own words and status: QEMU given a kernel that is not there, the DHCP server given an
interface that is not there. Real QEMU and busybox; the DHCP server needs the server side of a
simulated unit, so the test runs itself in one. Then one boot of the board whose NAND is an empty
disk, and whose kernel is made to kill a program for want of memory: each fails the wait that
sees it, by its type, naming what the board said.

    tests/arm/board_start.py
"""
import os
import subprocess
import sys
import tempfile
import time

TOP = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
sys.path.insert(0, os.path.join(TOP, "sim/board"))
from console import BoardFailure  # noqa: E402
from machine import Machine, StartError  # noqa: E402
import run  # noqa: E402

failures = 0


def expect_error(what, kind, start, words):
    global failures
    try:
        start()
        problem = "no error"
    except kind as error:
        missing = [w for w in words if w not in str(error)]
        problem = f"'{error}' lacks {missing}" if missing else None
    except Exception as error:  # a time-out or any other failure is not the start's own error
        problem = f"{type(error).__name__}: {error}"
    print(f"{'FAIL' if problem else 'ok  '} {what}" + (f": {problem}" if problem else ""))
    failures += problem is not None


def main():
    if not os.path.exists("/run/tovsim/server.pid"):
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
                               ["QEMU ended at its start with status 1", "/no/such/vmlinuz"])
        finally:
            board.stop()
        config = os.path.join(folder, "udhcpd.conf")
        with open(config, "w") as f:
            f.write(f"interface nosuch0\nlease_file {folder}/leases\npidfile {folder}/pid\n")
        expect_error("the DHCP server on an interface that is not there", StartError,
                     lambda: run.start_dhcp_server(config, os.path.join(folder, "udhcpd.log")),
                     ["the DHCP server ended at its start with status 1", "nosuch0"])
        failing_board(folder)
    return 1 if failures else 0


def failing_board(folder):
    empty = os.path.join(folder, "empty.img")
    with open(empty, "wb") as f:
        f.truncate(1 << 20)
    board = Machine(os.environ["BOARD_KERNEL"], os.environ["BOARD_INITRD"], empty, folder, "/dev/null",
                    ("tap-nand0", "tap-nand1"))
    try:
        board.start()
        expect_error("a NAND that does not mount", BoardFailure, board.wait_boot,
                     ["board: FAILED: the NAND (/dev/vda) did not mount"])
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
                     ["Out of memory: Killed process", "(kernel.log)"])
    finally:
        board.stop()


if __name__ == "__main__":
    sys.exit(main())
