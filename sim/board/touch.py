"""Touch: the operator's finger on the board's panel, through the virtio tablet and QMP.

A tap is a move to the point, a press and a release; a long press is a press released later. The
tablet's driver in the guest drops what comes before it is ready, so the first tap waits for the
bench's picture. Where to touch is found on the screen by reference pictures (needle.py); WHAT,
the reference's name, goes into the console's log beside each touch.
"""
import time


class Touch:
    def __init__(self, machine):
        self.machine = machine

    def press(self, x, y, what=None):
        self.machine.tap_events(x, y, None, what)
        self.machine.tap_events(x, y, True, what)

    def release(self, x, y, what=None):
        self.machine.tap_events(x, y, False, what)

    def tap(self, x, y, what=None):
        self.press(x, y, what)
        time.sleep(0.15)
        self.release(x, y, what)
        time.sleep(0.3)
