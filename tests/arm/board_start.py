#!/usr/bin/python3
"""The board's harness stops at once when a program it starts ends at its start, and says why with
the program's own words and status: QEMU given a kernel that is not there, the DHCP server given an
interface that is not there. Real QEMU and busybox; the DHCP server needs the server side of a
simulated unit, so the test runs itself in one. Needs no board.

    tests/arm/board_start.py
"""
import os
import subprocess
import sys
import tempfile

TOP = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
sys.path.insert(0, os.path.join(TOP, "sim/board"))
from machine import Machine, StartError  # noqa: E402
import run  # noqa: E402

failures = 0


def expect_start_error(what, start, words):
    global failures
    try:
        start()
        problem = "it started"
    except StartError as error:
        missing = [w for w in words if w not in str(error)]
        problem = f"'{error}' lacks {missing}" if missing else None
    except Exception as error:  # a time-out or any other failure is not the start's own error
        problem = f"{type(error).__name__}: {error}"
    print(f"{'FAIL' if problem else 'ok  '} {what}" + (f": {problem}" if problem else ""))
    failures += problem is not None


def main():
    if not os.path.exists("/run/tovsim/server.pid"):
        tovsim = os.path.join(TOP, "sim/tovsim")
        env = dict(os.environ, TOVSIM_BIN_DIR=os.path.join(TOP, "build/host/sim"),
                   PYTHONDONTWRITEBYTECODE="1")
        return subprocess.run([tovsim, "exec", "--", sys.executable, os.path.abspath(__file__)],
                              env=env).returncode
    run.make_tun()
    with tempfile.TemporaryDirectory() as folder:
        board = Machine("/no/such/vmlinuz", "/no/such/initrd", "/dev/null", folder, "/dev/null",
                        ("tap-none0", "tap-none1"))
        try:
            expect_start_error("QEMU without its kernel", board.start,
                               ["QEMU ended at its start with status 1", "/no/such/vmlinuz"])
        finally:
            board.stop()
        config = os.path.join(folder, "udhcpd.conf")
        with open(config, "w") as f:
            f.write(f"interface nosuch0\nlease_file {folder}/leases\npidfile {folder}/pid\n")
        expect_start_error("the DHCP server on an interface that is not there",
                           lambda: run.start_dhcp_server(config, os.path.join(folder, "udhcpd.log")),
                           ["the DHCP server ended at its start with status 1", "nosuch0"])
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
