"""Deadline: a time limit in this machine's seconds, scaled for slow machines.

Every wait of the board's harness is one of these; TOV_BOARD_TIME_SCALE (default 1) multiplies
them all, so that a loaded machine gets more time without any wait being edited.
"""
import os
import socket
import time

SCALE = float(os.environ.get("TOV_BOARD_TIME_SCALE", "1"))


class Deadline:
    def __init__(self, seconds):
        self.seconds = seconds * SCALE
        self.end = time.monotonic() + self.seconds

    def remaining(self):
        return max(0.0, self.end - time.monotonic())

    def expired(self):
        return time.monotonic() >= self.end


def connect_unix(path, deadline, alive=lambda: True):
    """A stream socket connected to PATH, which QEMU creates some time after it starts; None when
    the deadline passes first or ALIVE says the one who would create it has ended."""
    while alive():
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            sock.connect(path)
            return sock
        except OSError:
            sock.close()
            if deadline.expired():
                return None
            time.sleep(0.05)
    return None
