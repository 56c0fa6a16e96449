"""Screen: waiting for the bench's window on the board's framebuffer."""
import os
import time

from console import ConsoleError
from deadline import Deadline
from picture import Picture


def bench_running(board):
    status, _ = board.run("ps | grep -q '[t]ov_test'", check=False)
    return status == 0


def wait_for_screen(board, out, name, seconds=240):
    """Waits until the bench's window is on the framebuffer and holds still; keeps it as NAME.png.
    Until the guest sets a mode, QEMU shows its own two-colour placeholder."""
    deadline = Deadline(seconds)
    previous = None
    path = os.path.join(out, f"{name}.ppm")
    while not deadline.expired():
        picture = Picture(board.screendump(path))
        if picture.colours() > 16 and previous is not None and picture.same_as(previous):
            picture.save_png(os.path.join(out, f"{name}.png"))
            os.remove(path)
            return picture
        previous = picture
        if not bench_running(board):
            raise ConsoleError("the bench is not running: " + board.read("/run/board/bench.log"))
        time.sleep(1)
    raise ConsoleError(f"no steady picture of the bench within {deadline.seconds:.0f} s")
