#!/usr/bin/python3
"""The replay of the NAND's write log (sim/board/logreplay.py) on logs built here, in the kernel's
dm-log-writes format, from the writes that turn a small ext4 image into its next versions: each
flush's state byte for byte, the drawn states seeded, bounded and made of nothing but the writes
since the last flush, and the logs the replay must refuse or stop on. Needs e2fsprogs, no board.

    tests/arm/log_replay.py
"""
import hashlib
import os
import struct
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../sim/board"))
from logreplay import (DISCARD, FLUSH, MAGIC, BadMagic, BadVersion, Blank, CountPastEnd, CutShort,  # noqa: E402
                       Log, LogError, PastImageEnd, Replay, UnknownFlags)

SECTOR = 512
SUBSETS = 5


def run(*command):
    subprocess.run(command, check=True, capture_output=True)


def versions(folder):
    """The start image and three versions after it, each one debugfs request further."""
    stage = os.path.join(folder, "stage")
    os.makedirs(os.path.join(stage, "TOV"))
    with open(os.path.join(stage, "TOV", "tov_starter"), "w") as f:
        f.write("#!/bin/sh\nTOV_BIN_NAME=tov_test\n")
    first = os.path.join(folder, "v0.img")
    run("truncate", "-s", "4M", first)
    run("mkfs.ext4", "-q", "-F", "-b", "1024", "-d", stage, first)
    text = os.path.join(folder, "text")
    with open(text, "w") as f:
        f.write("2\n0\n192.0.2.10\n" * 40)
    images = [first]
    for step, request in enumerate(("write %s /TOV/tov_test.cfg" % text, "rm /TOV/tov_starter",
                                    "mkdir /TOV/later")):
        image = os.path.join(folder, f"v{step + 1}.img")
        run("cp", images[-1], image)
        run("debugfs", "-w", "-R", request, image)
        images.append(image)
    return [open(i, "rb").read() for i in images], first


def runs(old, new):
    """The writes from OLD to NEW: [(first sector, data)], one a run of changed sectors."""
    out = []
    for s in range(len(old) // SECTOR):
        if old[s * SECTOR:(s + 1) * SECTOR] != new[s * SECTOR:(s + 1) * SECTOR]:
            if out and out[-1][0] + len(out[-1][1]) // SECTOR == s:
                out[-1] = (out[-1][0], out[-1][1] + new[s * SECTOR:(s + 1) * SECTOR])
            else:
                out.append((s, new[s * SECTOR:(s + 1) * SECTOR]))
    return out


def entry(sector=0, data=b"", flags=0, sectors=None):
    count = len(data) // SECTOR if sectors is None else sectors
    return struct.pack("<QQQQ", sector, count, flags, 0).ljust(SECTOR, b"\0") + data


def log_of(entries, counted=None, magic=MAGIC, version=1):
    counted = len(entries) if counted is None else counted
    return struct.pack("<QQQI", magic, version, counted, SECTOR).ljust(SECTOR, b"\0") + b"".join(entries)


def digest(path):
    with open(path, "rb") as f:
        return hashlib.sha1(f.read()).hexdigest()


def replay(folder, log_bytes, start, subsets=0, seed=0):
    """[(name, digest of the state's image, the image's bytes when asked)] of a log."""
    path = os.path.join(folder, "log")
    with open(path, "wb") as f:
        f.write(log_bytes)
    log = Log(path)
    work = os.path.join(folder, "work.img")
    states = [(s.name, open(work, "rb").read(), s.lost, s.changed)
              for s in Replay(log, start, work, subsets, seed).states()]
    return log, [(name, image, changed) for name, image, _, changed in states] if not subsets else \
        [(name, image, lost) for name, image, lost, _ in states]


def main():
    bad = []
    with tempfile.TemporaryDirectory() as folder:
        images, start = versions(folder)
        writes = [runs(images[i], images[i + 1]) for i in range(3)]
        # Two flushed steps, then writes no flush followed (the last version as a killed QEMU left it).
        # The first step writes its first run twice, first with other bytes: the state must hold
        # whichever of the two came last of those it kept.
        s, d = writes[0][0]
        interval = [[(s, b"\xaa" * len(d))] + writes[0], writes[1], writes[2]]
        # A second flush with no write since: a state the same as the one before it, said so.
        entries = [entry(s, d) for s, d in interval[0]] + [entry(flags=FLUSH)] * 2 + \
                  [entry(s, d) for s, d in interval[1]] + [entry(flags=FLUSH)] + \
                  [entry(s, d) for s, d in interval[2]]
        full = log_of(entries)
        if min(len(w) for w in writes) < 2:
            bad.append(f"a version changed fewer than two runs of sectors: {[len(w) for w in writes]}")

        log, states = replay(folder, full, start)
        got = {name: image for name, image, _ in states}
        for name, version in (("start", 0), ("flush 1", 1), ("flush 2", 1), ("flush 3", 2), ("end", 3)):
            if got.get(name) != images[version]:
                bad.append(f"{name} is not version {version} byte for byte")
        if [(n, c) for n, _, c in states] != [("start", True), ("flush 1", True), ("flush 2", False),
                                               ("flush 3", True), ("end", True)]:
            bad.append(f"without drawn states the states (and whether changed) are {[(n, c) for n, _, c in states]}")

        # Drawn states: after each flush at most SUBSETS of them, each the flush's state with a
        # part of the writes since, never all nor none, the same for the same seed.
        _, drawn = replay(folder, full, start, SUBSETS, seed=7)
        _, again = replay(folder, full, start, SUBSETS, seed=7)
        _, other = replay(folder, full, start, SUBSETS, seed=8)
        if [d for _, d, _ in drawn] != [d for _, d, _ in again]:
            bad.append("the same seed drew other states")
        if [d for _, d, _ in drawn] == [d for _, d, _ in other]:
            bad.append("seeds 7 and 8 drew the same states")
        first = 0  # the entry of the first write after the flush
        for flush, after in ((0, 0), (1, 2), (2, 3)):
            mine = [(image, lost) for name, image, lost in drawn if name.startswith(f"flush {after} draw")]
            if not 1 <= len(mine) <= SUBSETS:
                bad.append(f"{len(mine)} drawn states after flush {flush}")
            for image, lost in mine:
                expected = images[flush]
                for number, (s, data) in enumerate(interval[flush], first):
                    if number not in lost:
                        expected = expected[:s * SECTOR] + data + expected[s * SECTOR + len(data):]
                if image != expected:
                    bad.append(f"a drawn state after flush {flush} is not that flush's state with the "
                               f"writes since it but entries {lost}")
                if not 0 < len(lost) < len(interval[flush]):
                    bad.append(f"a drawn state after flush {flush} lost {len(lost)} of {len(interval[flush])} writes")
            first += len(interval[flush]) + 1 + (flush == 0)
        # The run written twice only tells whether writes are kept in order and put back in the
        # reverse order when a drawn state keeps both and another state follows it.
        both = [i for i, (name, _, lost) in enumerate(drawn) if name.startswith("flush 0 draw") and
                not {0, 1} & set(lost)]
        if not both or both[0] == len(drawn) - 1:
            bad.append("no drawn state after flush 0 keeps both writes of its first run, before another state")

        # Logs to refuse, or to read up to a point that is reported.
        # (what, log bytes, error expected or None, why the reading stopped or None, entries read)
        # A killed QEMU: the count as at the last flush, the last write cut short.
        stale = log_of(entries, counted=len(entries) - len(writes[2]))
        cut = stale[:-SECTOR // 2]
        cases = [
            ("bad magic", log_of(entries, magic=MAGIC + 1), BadMagic, None, None),
            ("version 2", log_of(entries, version=2), BadVersion, None, None),
            ("last write cut short", cut, None, CutShort, len(entries) - 1),
            ("last write cut short within the count", full[:-SECTOR // 2], CutShort, None, None),
            ("count stale", stale, None, None, len(entries)),
            ("count past the log's end", log_of(entries, counted=len(entries) + 1), CountPastEnd, None, None),
            ("blank entry past the count", stale + bytes(SECTOR), None, Blank, len(entries)),
            ("unknown flag within the count", log_of(entries + [entry(flags=64)]), UnknownFlags, None, None),
            ("unknown flag past the count", log_of(entries + [entry(flags=64)], len(entries)), None,
             UnknownFlags, len(entries)),
        ]
        for what, data, error, stop, count in cases:
            try:
                log, states = replay(folder, data, start)
            except LogError as e:
                if error is None or type(e) is not error:
                    bad.append(f"{what}: refused ({type(e).__name__}: {e})")
                continue
            if error is not None:
                bad.append(f"{what}: read ({log.describe()}), not refused")
            elif type(log.stopped_by) is not (stop or type(None)):
                bad.append(f"{what}: reading stopped at {log.stop!r}")
            elif len(log.entries) != count:
                bad.append(f"{what}: {len(log.entries)} entries read, not {count}")
        # A cut-short write is left out, and only it: the end holds the others (the last write
        # is the last run of sectors, the others all before it).
        if not bad:
            _, states = replay(folder, cut, start)
            s, data = writes[2][-1]
            end = {name: image for name, image, _ in states}["end"]
            if end[:s * SECTOR] + images[3][s * SECTOR:] != images[3] or end[s * SECTOR:] != images[2][s * SECTOR:]:
                bad.append("the end of a log whose last write is cut short is not the others kept")
        for what, extra in (("a write past the image's end", entry(len(images[0]) // SECTOR, bytes(SECTOR))),
                            ("a discard past the image's end", entry(len(images[0]) // SECTOR, flags=DISCARD,
                                                                     sectors=1))):
            try:
                replay(folder, log_of(entries + [extra]), start)
                bad.append(f"{what}: replayed")
            except PastImageEnd:
                pass
            except LogError as e:
                bad.append(f"{what}: {type(e).__name__}: {e}")
    for line in bad:
        print(f"FAIL {line}")
    print(f"log_replay: 5 states byte for byte, the drawn states of 3 flushes, {len(cases) + 2} logs "
          f"refused or read in part: {len(bad)} failures")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
