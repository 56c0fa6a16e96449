"""Touch: the operator's finger on the board's panel, through the virtio tablet and QMP.

A tap is a move to the point, a press and a release; a long press is a press released later. The tablet's
driver in the guest drops what comes before it is ready, so the first tap waits for the bench's
picture. Keys of the on-screen keyboard are found by their place on the 640 x 480 form, read from
its picture (the framebuffer is the only view of the board).
"""
import time

# Centres of the letter page's keys and of the form's controls, in screen pixels.
LETTER_ROWS = [
    (344, "AZERTYUIOP"),
    (374, "QSDFGHJKLM"),
]
LETTER_XS = [42, 103, 165, 227, 289, 350, 412, 474, 536, 598]
KEYS = {
    "shift": (83, 404), "W": (149, 404), "X": (216, 404), "C": (284, 404), "V": (352, 404),
    "B": (421, 404), "N": (490, 404), "backspace": (560, 404), "numbers": (70, 434),
    "space": (385, 434),
}
for y, letters in LETTER_ROWS:
    for x, letter in zip(LETTER_XS, letters):
        KEYS[letter] = (x, y)


class Touch:
    def __init__(self, machine):
        self.machine = machine

    def press(self, x, y):
        self.machine.tap_events(x, y, None)
        self.machine.tap_events(x, y, True)

    def release(self, x, y):
        self.machine.tap_events(x, y, False)

    def tap(self, x, y):
        self.press(x, y)
        time.sleep(0.15)
        self.release(x, y)
        time.sleep(0.3)

    def key(self, name):
        self.tap(*KEYS[name])
