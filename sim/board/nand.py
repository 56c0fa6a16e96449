"""Nand: the board's NAND image read on this machine, between a power cut and the next boot.

A cut leaves the ext4 journal as the kernel left it. The image itself must go to the next boot
untouched (the board's kernel replays its journal), so the reading works on a sparse copy: e2fsck
replays the journal there as a mounting kernel would, checks the whole file system read-only, and
debugfs reads the unit's files out of it.
"""
import os
import re
import shutil
import subprocess

# Where the board mounts the NAND's folders (sim/board/guest/etc/init.d/rcS): /home and
# /etc/network are bind mounts of the image's /home and /network.
IN_IMAGE = {"/home/": "/home/", "/etc/network/": "/network/"}


def image_path(path):
    for board, image in IN_IMAGE.items():
        if path.startswith(board):
            return image + path[len(board):]
    raise ValueError(f"{path} is not on the NAND")


class NandError(Exception):
    pass


def debugfs(image, request):
    done = subprocess.run(["debugfs", "-R", request, image], capture_output=True)
    return done.stdout, done.stderr.decode("utf-8", "replace")


def read_file(image, path):
    """(content, mode) of PATH as the board sees it, or None when it is not there."""
    where = image_path(path)
    out, err = debugfs(image, f"stat {where}")
    if "File not found" in err:
        return None
    text = out.decode("utf-8", "replace")
    kind = re.search(r"Type: (\S+)", text)
    mode = re.search(r"Mode:\s+0?([0-7]+)", text)
    if not kind or not mode:
        raise NandError(f"debugfs could not stat {where}: {err.strip()}")
    if kind.group(1) != "regular":
        # A folder or a link in place of one of the unit's files: shown as such, never whole.
        return (f"<{kind.group(1)}>".encode(), int(mode.group(1), 8))
    content, err = debugfs(image, f"cat {where}")
    return content, int(mode.group(1), 8)


def read_after_cut(image, paths, scratch):
    """What a cut left of PATHS on IMAGE: ({path: (content, mode) or None}, file system report).

    The report is "clean", "journal replayed" or the problems e2fsck found beyond the journal."""
    copy = os.path.join(scratch, "after-cut.img")
    subprocess.run(["cp", "--sparse=always", image, copy], check=True)
    try:
        replay = subprocess.run(["e2fsck", "-E", "journal_only", "-y", copy], capture_output=True)
        replayed = b"recovering journal" in replay.stdout + replay.stderr
        if replay.returncode not in (0, 1):
            raise NandError(f"e2fsck could not replay the journal: {replay.stdout.decode()}")
        check = subprocess.run(["e2fsck", "-f", "-n", copy], capture_output=True)
        if check.returncode == 0:
            report = "journal replayed" if replayed else "clean"
        else:
            problems = [line for line in check.stdout.decode("utf-8", "replace").splitlines()
                        if line and not line.startswith(("Pass ", "e2fsck ", "NAND:"))
                        and "count wrong" not in line and not line.startswith("Fix? no")]
            report = "damaged: " + "; ".join(problems[:4])
        return {path: read_file(copy, path) for path in paths}, report
    finally:
        os.remove(copy)


def have_tools():
    return all(shutil.which(tool) for tool in ("debugfs", "e2fsck"))
