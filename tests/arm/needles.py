#!/usr/bin/python3
"""The board operator's reference pictures (sim/board/needle.py, sim/board/needles/) on screens
built from the committed references themselves, each laid on a plain page at its table's box: every
reference is found where it was moved to, under noise, a slightly shifted anti-aliasing and a text
cursor; one taken away fails naming it and leaves the screen as PNG; its mirror image (a key with
another letter, the accent leaning the other way) or its shapes in another colour are not taken, nor
is one shown twice. The remake cuts the same bytes again. Needs numpy and imagemagick, no board.

    tests/arm/needles.py
"""
import os
import sys
import tempfile
import time

import numpy

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../sim/board"))
from console import ConsoleError  # noqa: E402
from needle import NEEDLES, NeedleMissing, Needles, read_table, remake  # noqa: E402
from picture import Picture, png_bytes  # noqa: E402

WIDTH, HEIGHT = 640, 480
SHIFTS = [(40, 0), (-40, 0), (0, 40), (0, -40)]
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print(f"FAILED: {what}")


references = read_table()
pixels = {name: reference.pixels().astype(numpy.uint8) for name, reference in references.items()}
# The page: the colour most of the references' own pixels have (the form's background).
colours, counts = numpy.unique(numpy.concatenate([p.reshape(-1, 3) for p in pixels.values()]),
                               axis=0, return_counts=True)
PAGE = colours[counts.argmax()]


def screen(placed):
    """A page with each (name, x, y) of PLACED laid on it, corner at (x, y), later ones on top."""
    rows = numpy.empty((HEIGHT, WIDTH, 3), numpy.uint8)
    rows[:] = PAGE
    for name, x, y in placed:
        h, w, _ = pixels[name].shape
        rows[y:y + h, x:x + w] = pixels[name]
    return rows


def at_home(name):
    return name, references[name].box[0], references[name].box[1]


def same_screen(name):
    """The references cut from the same screenshot as NAME: those of other screens overlap it."""
    return [other for other in references if references[other].shot == references[name].shot]


def others(name):
    return [at_home(other) for other in same_screen(name) if other != name]


def fits(name, x, y):
    x0, y0, x1, y1 = references[name].box
    return x >= 0 and y >= 0 and x + x1 - x0 <= WIDTH and y + y1 - y0 <= HEIGHT


def found(needles, rows, name):
    """(x, y) of the tap the search gives, or the NeedleMissing it raised."""
    try:
        spot = needles.find(Picture.from_array(rows), name)
    except NeedleMissing as error:
        return error
    return spot.x, spot.y


def moved_and_disturbed(needles):
    for name, reference in references.items():
        tap_x, tap_y = reference.tap
        for dx, dy in SHIFTS:
            x, y = reference.box[0] + dx, reference.box[1] + dy
            if not fits(name, x, y):
                continue
            where = found(needles, screen(others(name) + [(name, x, y)]), name)
            check(where == (tap_x + dx, tap_y + dy), f"{name} moved by {dx},{dy}: tap at {where}, "
                  f"not {tap_x + dx},{tap_y + dy}")
    rng = numpy.random.default_rng(1)
    for first in {references[name].shot: name for name in references}.values():
        names = same_screen(first)
        home = screen([at_home(name) for name in names]).astype(float)
        noisy = home + rng.normal(0, 8, home.shape)
        noisy[:, :, 0] += 12  # a colour a little off
        # Anti-aliasing an eighth of a pixel off: each pixel takes an eighth of its right neighbour.
        smoothed = home.copy()
        smoothed[:, :-1] = (7 * home[:, :-1] + home[:, 1:]) / 8
        for disturbance, rows in (("noise and a colour off", noisy), ("anti-aliasing", smoothed)):
            rows = numpy.clip(rows, 0, 255).astype(numpy.uint8)
            for name in names:
                where = found(needles, rows, name)
                check(where == references[name].tap,
                      f"{name} under {disturbance}: tap at {where}, not {references[name].tap}")
    # A blinking cursor, on and off: a dark column the height of a line of text in the field.
    rows = screen([at_home(name) for name in same_screen("sftp-field")])
    x, y = references["sftp-field"].tap
    rows[y - 8:y + 8, x] = 0
    where = found(needles, rows, "sftp-field")
    check(where == (x, y), f"sftp-field with a cursor: tap at {where}, not {x},{y}")


def missing(needles, out):
    for name in references:
        rows = screen(others(name))
        started = time.monotonic()
        error = found(needles, rows, name)
        seconds = time.monotonic() - started
        check(isinstance(error, NeedleMissing) and isinstance(error, ConsoleError),
              f"{name} taken away: found at {error}")
        if not isinstance(error, NeedleMissing):
            continue
        message = str(error)
        check(f"'{name}'" in message and error.saved in message and error.name == name,
              f"{name} taken away: the message does not name the reference and the screen: {message}")
        saved = os.path.join(out, error.saved)
        check(os.path.exists(saved) and numpy.array_equal(Picture.from_png(saved).array(), rows),
              f"{name} taken away: {saved} is not the screen it was looked for on")
        check(seconds < 1, f"{name}: a search over the whole screen took {seconds:.2f} s")


def elsewhere(name):
    """A place for a second copy of NAME, clear of the first."""
    x0, y0, x1, y1 = references[name].box
    w, h = x1 - x0, y1 - y0
    places = ((x0, y0 + h + 10), (x0, y0 - h - 10), (x0 + w + 10, y0), (x0 - w - 10, y0))
    return next((x, y) for x, y in places if fits(name, x, y))


def look_alikes(needles):
    for name, reference in references.items():
        mirrored = screen(others(name))
        x0, y0, x1, y1 = reference.box
        mirrored[y0:y1, x0:x1] = pixels[name][:, ::-1]
        where = found(needles, mirrored, name)
        check(isinstance(where, NeedleMissing), f"{name}: its mirror image taken for it, tap at {where}")
        # The same shapes in another colour (a pressed key, a highlighted choice): one channel off.
        recoloured = screen(others(name))
        recoloured[y0:y1, x0:x1] = pixels[name]
        recoloured[y0:y1, x0:x1, 2] = 255 - pixels[name][:, :, 2]
        where = found(needles, recoloured, name)
        check(isinstance(where, NeedleMissing), f"{name}: taken in another colour, tap at {where}")
        dx, dy = next((dx, dy) for dx, dy in SHIFTS if fits(name, x0 + dx, y0 + dy))
        mirrored[y0 + dy:y1 + dy, x0 + dx:x1 + dx] = pixels[name]
        where = found(needles, mirrored, name)
        check(where == (reference.tap[0] + dx, reference.tap[1] + dy),
              f"{name} moved by {dx},{dy} beside its mirror image at home: tap at {where}")
        twice = screen(others(name) + [at_home(name), (name, *elsewhere(name))])
        where = found(needles, twice, name)
        check(isinstance(where, NeedleMissing) and "several places" in str(where),
              f"{name} shown twice: tap at {where}")


def remade(out):
    """The remake cuts the committed bytes again from screenshots that hold the references at their
    boxes, each screenshot in a run folder of its own, and refuses a reference that its own
    screenshot shows twice."""
    folder = os.path.join(out, "needles")
    os.makedirs(folder)
    with open(os.path.join(NEEDLES, "table")) as f:
        table = f.read()
    with open(os.path.join(folder, "table"), "w") as f:
        f.write(table)
    runs = {}
    for shot in {reference.shot for reference in references.values()}:
        runs[shot] = os.path.join(out, f"run-{shot}")
        os.makedirs(runs[shot])
        names = [name for name, reference in references.items() if reference.shot == shot]
        with open(os.path.join(runs[shot], f"{shot}.png"), "wb") as f:
            f.write(png_bytes(screen([at_home(name) for name in names])))
    check(remake(sorted(runs.values()), folder) == 0,
          "the remake failed on screenshots holding every reference")
    for name, reference in references.items():
        cut = os.path.join(folder, f"{name}.png")
        with open(reference.path, "rb") as committed:
            check(os.path.exists(cut) and committed.read() == open(cut, "rb").read(),
                  f"the remake cut {name}.png otherwise than committed")
    name, reference = next(iter(references.items()))
    names = [other for other, each in references.items() if each.shot == reference.shot]
    with open(os.path.join(runs[reference.shot], f"{reference.shot}.png"), "wb") as f:
        f.write(png_bytes(screen([at_home(other) for other in names] + [(name, *elsewhere(name))])))
    check(remake([runs[reference.shot]], folder) == 1,
          f"the remake took {name} from a screenshot that shows it twice")


def main():
    with tempfile.TemporaryDirectory() as out:
        needles = Needles(None, out)
        moved_and_disturbed(needles)
        missing(needles, out)
        look_alikes(needles)
        remade(out)
    if failures:
        print(f"needles: {len(failures)} failure(s)")
        return 1
    print(f"needles: {len(references)} references found moved, disturbed and not taken for look-alikes")
    return 0


if __name__ == "__main__":
    sys.exit(main())
