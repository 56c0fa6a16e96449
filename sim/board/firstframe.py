"""First frame: when the starter's program first shows its whole first screen, in seconds since
QEMU started.

The screen is read through QMP's screendump every PERIOD seconds from QEMU's start, each picture
kept as its digest and the time it was asked for. Once the program runs and the screen has held
still for STILL seconds with more colours than QEMU's placeholder or the kernel's console have,
that picture is the steady one; the first full frame is the first screendump equal to it. (Qt's
linuxfb tells nobody when it has painted: the screen is the only witness, and a frame between two
screendumps is seen at the second one, at most PERIOD late.)
"""
import hashlib
import os
import threading
import time

from console import ConsoleTimeout
from deadline import Deadline
from picture import Picture

PERIOD = 0.1
STILL = 3.0
# More colours than a text console or QEMU's placeholder show.
COLOURS = 16


class FramePoller:
    """Screendumps of BOARD every PERIOD seconds, in a thread of their own, into FRAMES:
    [(seconds since STARTED, digest)], and the digests of the many-coloured pictures."""

    def __init__(self, board, path, started):
        self.board, self.path, self.started = board, path, started
        self.frames = []
        self.coloured = set()
        self.plain = set()
        self.stopping = threading.Event()
        self.error = None
        self.thread = threading.Thread(target=self._poll, daemon=True)
        self.thread.start()

    def _poll(self):
        try:
            while not self.stopping.is_set():
                asked = time.monotonic()
                self.board.screendump(self.path)
                with open(self.path, "rb") as f:
                    digest = hashlib.sha1(f.read()).hexdigest()
                if digest not in self.coloured and digest not in self.plain:
                    many = Picture(self.path).colours() > COLOURS
                    (self.coloured if many else self.plain).add(digest)
                self.frames.append((asked - self.started, digest))
                self.stopping.wait(max(0.0, asked + PERIOD - time.monotonic()))
        except Exception as error:  # told by the waiting side
            self.error = error

    def steady(self):
        """The digest the screen has shown for the last STILL seconds, many-coloured, or None."""
        if not self.frames:
            return None
        last_time, last = self.frames[-1]
        if last not in self.coloured:
            return None
        for seconds, digest in reversed(self.frames):
            if digest != last:
                return None
            if last_time - seconds >= STILL:
                return last
        return None

    def first(self, digests):
        return next(seconds for seconds, d in self.frames if d in digests)

    def stop(self):
        self.stopping.set()
        self.thread.join()


def first_frame(board, out, program, started, seconds=300):
    """Waits for PROGRAM (the name of its binary in the bundle) to show a steady screen; returns
    the seconds from STARTED, QEMU's start, to its first full frame and to the first
    many-coloured frame (the program's first drawing, or the kernel's logo), and how many
    screendumps were taken."""
    poller = FramePoller(board, os.path.join(out, "frame.ppm"), started)
    try:
        board.wait_boot()
        deadline = Deadline(seconds)
        while True:
            if poller.error is not None:
                raise poller.error
            digest = poller.steady()
            # The program up is what tells its picture from the kernel's boot logo.
            if digest is not None:
                status, _ = board.run(f"ps | grep -q 'bundle/[{program[0]}]{program[1:]}'", check=False)
                if status == 0 and poller.steady() == digest:
                    return poller.first({digest}), poller.first(poller.coloured), len(poller.frames)
            if deadline.expired():
                raise ConsoleTimeout(f"{program} showed no steady screen within {deadline.seconds:.0f} s")
            time.sleep(0.5)
    finally:
        poller.stop()
        if os.path.exists(poller.path):
            Picture(poller.path).save_png(os.path.join(out, f"{program}-steady.png"))
