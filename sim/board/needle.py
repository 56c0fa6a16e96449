#!/usr/bin/python3
"""Needles: what the board's operator presses, found on the screen by reference pictures.

Each reference is a PNG in sim/board/needles/, cut from a screenshot that a good run keeps in its
folder; needles/table says, a line each, which screenshot, the box cut from it and where in it the
tap goes. `sim/board/needles/remake RUN_DIR` cuts them all again from a run's folder, so that a
new reference is a line in the table and a remake, and a changed one shows as a picture in the diff.

A reference is looked for over the whole screen: the few places whose grey levels come nearest to
its own (least squared differences, by FFT) are compared pixel by pixel, and a place matches when at
most LIMIT of its pixels differ from the reference by more than TOLERANCE in a colour channel. Noise,
a colour a little off or an anti-aliased edge stay under the tolerance; a text cursor stays under
the limit; another key's letter, a mirrored accent or another widget do not. It must match at
exactly one place. A search takes about 0.1 s on a 640 x 480 screen.

    needles = Needles(board, out)              # out: the run's folder, where a miss leaves its screen
    spot = needles.find(picture, "apply")      # a Spot: name, x, y (where to tap), box (x0, y0, x1, y1)
    spot = needles.tap("apply")                # a screendump, the search, and a tap on the spot
    picture, spot = needles.wait("accent-first", 15)   # screendumps until it shows

A reference not on the screen, or on it twice, raises NeedleMissing (a ConsoleError) naming the
reference and the PNG of that screen it left in the run's folder. A box watched for a change after
a tap is the spot's box, wherever the widget was found.

    needle.py remake RUN_DIR...       the references cut again from the runs' screenshots
    needle.py find PNG [NAME...]      where each reference (or those named) is on a screenshot
"""
import collections
import os
import sys
import time

import numpy

from console import ConsoleError
from deadline import Deadline
from picture import Picture, png_bytes
from touch import Touch

NEEDLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "needles")
# A pixel differs when a channel is further off than this; a place matches with at most LIMIT of
# its pixels differing. Keys whose letters differ by one stroke (E and F) differ by 3 %.
TOLERANCE = 48
LIMIT = 0.02
# The places nearest in grey levels that are compared pixel by pixel, no two overlapping by half.
CANDIDATES = 5

Spot = collections.namedtuple("Spot", "name x y box")


class NeedleMissing(ConsoleError):
    """A reference picture is not on the screen, or on it at more than one place."""

    def __init__(self, message, name, saved):
        super().__init__(message)
        self.name = name
        self.saved = saved  # the screen it was looked for on, as PNG


class Reference:
    """One line of the table: NAME cut from SHOT's BOX (x0, y0, x1, y1, the far edges excluded), the
    tap at TAP (x, y on that screenshot, inside the box)."""

    def __init__(self, folder, name, shot, box, tap):
        self.name, self.shot, self.box, self.tap = name, shot, box, tap
        self.path = os.path.join(folder, f"{name}.png")
        self._pixels = None

    def pixels(self):
        if self._pixels is None:
            self._pixels = Picture.from_png(self.path).array().astype(numpy.int16)
            x0, y0, x1, y1 = self.box
            if self._pixels.shape[:2] != (y1 - y0, x1 - x0):
                raise ValueError(f"{self.path} is not {x1 - x0} x {y1 - y0} as its table's box says: "
                                 "remake the references")
        return self._pixels


def read_table(folder=NEEDLES):
    references = {}
    with open(os.path.join(folder, "table")) as f:
        for number, line in enumerate(f, 1):
            fields = line.split("#")[0].split()
            if not fields:
                continue
            try:
                name, shot = fields[:2]
                x0, y0, x1, y1, x, y = (int(field) for field in fields[2:])
            except ValueError:
                raise ValueError(f"{folder}/table:{number}: not NAME SCREENSHOT X0 Y0 X1 Y1 TAP_X TAP_Y")
            if not (x0 <= x < x1 and y0 <= y < y1):
                raise ValueError(f"{folder}/table:{number}: the tap {x},{y} is outside the box of '{name}'")
            references[name] = Reference(folder, name, shot, (x0, y0, x1, y1), (x, y))
    return references


def nearest_places(screen, reference, count=CANDIDATES):
    """The top-left corners (x, y) of the COUNT places whose grey levels are nearest the
    reference's, best first, each at least half the reference's size away from those before."""
    grey = screen.mean(axis=2)
    template = reference.mean(axis=2)
    height, width = grey.shape
    h, w = template.shape
    if h > height or w > width:
        return []
    # Squared differences at every place = the screen's own squares under the window, less twice
    # the correlation, plus the reference's squares; the correlation by FFT (circular: the places
    # where the reference lies whole on the screen do not wrap).
    correlation = numpy.fft.irfft2(numpy.fft.rfft2(grey) * numpy.conj(numpy.fft.rfft2(template, grey.shape)),
                                   grey.shape)[:height - h + 1, :width - w + 1]
    squares = numpy.zeros((height + 1, width + 1))
    squares[1:, 1:] = (grey * grey).cumsum(0).cumsum(1)
    windows = squares[h:, w:] - squares[:-h, w:] - squares[h:, :-w] + squares[:-h, :-w]
    distance = windows - 2 * correlation + (template * template).sum()
    places = []
    for _ in range(count):
        y, x = numpy.unravel_index(numpy.argmin(distance), distance.shape)
        if not numpy.isfinite(distance[y, x]):
            break
        places.append((int(x), int(y)))
        distance[max(0, y - h // 2):y + h // 2 + 1, max(0, x - w // 2):x + w // 2 + 1] = numpy.inf
    return places


def differing_share(screen, reference, x, y):
    """The share of the reference's pixels that differ by more than TOLERANCE at (x, y)."""
    h, w, _ = reference.shape
    off = numpy.abs(screen[y:y + h, x:x + w] - reference).max(axis=2)
    return float((off > TOLERANCE).mean())


def locate(screen, reference):
    """(matches, nearest): the places (x, y) where REFERENCE (pixels, int16) matches on SCREEN
    (int16), and the nearest place compared with its differing share."""
    matches, nearest = [], None
    for x, y in nearest_places(screen, reference):
        share = differing_share(screen, reference, x, y)
        if share <= LIMIT:
            matches.append((x, y))
        if nearest is None or share < nearest[2]:
            nearest = (x, y, share)
    return matches, nearest


class Needles:
    def __init__(self, board, out, folder=NEEDLES):
        self.board = board
        self.out = out
        self.references = read_table(folder)
        self.touch = Touch(board)

    def screen(self):
        return Picture(self.board.screendump(os.path.join(self.out, "needle.ppm")))

    def _search(self, picture, name):
        """(spot, None) where NAME's reference is found on PICTURE, or (None, why not)."""
        if name not in self.references:
            raise KeyError(f"no reference '{name}' in {NEEDLES}/table")
        reference = self.references[name]
        pixels = reference.pixels()
        matches, nearest = locate(picture.array().astype(numpy.int16), pixels)
        if len(matches) == 1:
            (x, y), (x0, y0, x1, y1) = matches[0], reference.box
            tap_x, tap_y = reference.tap
            return Spot(name, x + tap_x - x0, y + tap_y - y0, (x, y, x + x1 - x0, y + y1 - y0)), None
        if matches:
            return None, "at several places: " + ", ".join(f"{x},{y}" for x, y in matches)
        if nearest is None:
            return None, "larger than the screen"
        x, y, share = nearest
        return None, f"not on the screen (nearest at {x},{y}, {share:.0%} of its pixels off)"

    def _missing(self, picture, name, why):
        saved = f"needle-missing-{name}.png"
        picture.save_png(os.path.join(self.out, saved))
        return NeedleMissing(f"the reference '{name}' ({os.path.relpath(self.references[name].path)}) is "
                             f"{why}; the screen it was looked for on: {saved}", name, saved)

    def find(self, picture, name):
        """The Spot of NAME's reference on PICTURE; NeedleMissing when it is not there once."""
        spot, why = self._search(picture, name)
        if spot is None:
            raise self._missing(picture, name, why)
        return spot

    def tap(self, name, picture=None):
        """Finds NAME on PICTURE (a screendump taken now if none) and taps it; returns its Spot."""
        spot = self.find(self.screen() if picture is None else picture, name)
        self.touch.tap(spot.x, spot.y, name)
        return spot

    def wait(self, name, seconds):
        """Takes screendumps until NAME's reference is on one; returns (picture, spot)."""
        deadline = Deadline(seconds)
        while True:
            picture = self.screen()
            spot, why = self._search(picture, name)
            if spot is not None:
                return picture, spot
            if deadline.expired():
                raise self._missing(picture, name, why + f" after {deadline.seconds:.0f} s")
            time.sleep(0.3)


def remake(run_dirs, folder=NEEDLES):
    """Cuts the references again from the screenshots in RUN_DIRS (the first folder holding a
    reference's screenshot gives it: the runs of several scenarios may be needed for all). One
    whose screenshot is in none of them is left as it was, and so is one that its screenshot does
    not show once, where it was cut: returns how many of those."""
    failed = 0
    for reference in read_table(folder).values():
        shots = [os.path.join(run_dir, f"{reference.shot}.png") for run_dir in run_dirs]
        shot = next((shot for shot in shots if os.path.exists(shot)), None)
        if shot is None:
            print(f"{reference.name}: left as it was, no {reference.shot}.png in {' '.join(run_dirs)}")
            continue
        screen = Picture.from_png(shot).array()
        x0, y0, x1, y1 = reference.box
        cut = screen[y0:y1, x0:x1]
        if cut.shape[:2] != (y1 - y0, x1 - x0):
            print(f"{reference.name}: the box {reference.box} does not fit {shot}")
            failed += 1
            continue
        matches, _ = locate(screen.astype(numpy.int16), cut.astype(numpy.int16))
        if matches != [(x0, y0)]:
            print(f"{reference.name}: found at {matches or 'no place'} on {shot}, not only at {x0},{y0}: "
                  "it needs a box that tells it from the rest of the screen")
            failed += 1
            continue
        data = png_bytes(cut)
        old = open(reference.path, "rb").read() if os.path.exists(reference.path) else None
        with open(reference.path, "wb") as f:
            f.write(data)
        print(f"{reference.name}: {'unchanged' if old == data else 'cut'} from {reference.shot}.png "
              f"{x0},{y0} {x1 - x0}x{y1 - y0}, tap at {reference.tap[0]},{reference.tap[1]}")
    return failed


def main(argv):
    if len(argv) >= 2 and argv[0] == "remake":
        return 1 if remake(argv[1:]) else 0
    if len(argv) >= 2 and argv[0] == "find":
        screen = Picture.from_png(argv[1]).array().astype(numpy.int16)
        references = read_table()
        for name in argv[2:] or references:
            started = time.monotonic()
            matches, (x, y, share) = locate(screen, references[name].pixels())
            reference = references[name]
            places = [f"{x + reference.tap[0] - reference.box[0]},{y + reference.tap[1] - reference.box[1]}"
                      for x, y in matches]
            print(f"{name}: tap at {' and '.join(places) or 'no place'} (nearest {x},{y}, {share:.1%} off, "
                  f"{time.monotonic() - started:.2f} s)")
        return 0
    print(__doc__[__doc__.index("    needle.py remake"):], file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
