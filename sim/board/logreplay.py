#!/usr/bin/python3
"""Replays a write log of the board's NAND (QEMU's blklogwrites driver, the format of the kernel's
dm-log-writes) onto the image as it was when the log began, and gives every state a power cut
could have left.

The log: sector 0 holds the superblock (magic, version, number of entries, sector size, little
endian); from sector 1 on, one entry a sector (the sector written, how many, flags, data length),
each write's data in the sectors after its entry. QEMU appends an entry once the write has reached
the image file, and a flush entry once the image's flush has ended: whatever precedes a flush entry
is on the NAND from then on. What follows it until the next flush sits in the NAND's cache, and a
cut may lose any part of it.

The states, in the log's order:
  flush N          every write up to the N-th flush kept: where the NAND stands once that flush
                   has returned (a FUA write counts as a flush, the writes before it kept: fewer
                   states, none that a cut could not leave; QEMU logs none);
  flush N draw j lost k/n
                   between flush N and the next, the j-th seeded draw of the n writes sent since
                   flush N, of which k are lost (a NAND that loses its cache keeps any part of
                   it); at most SUBSETS of them after each flush, none equal to a flush's state;
  end              every write of the log kept, when writes follow the last flush.
One working copy of the image goes from state to state: each write is applied once, and the
writes a drawn state leaves out are put back as they were before the next state.

The superblock's count lags behind the log: QEMU rewrites it at each flush and every
log-super-update-interval writes (4096 by default), so a QEMU that was killed leaves it stale. The
entries past the count are read as long as they are whole, and where the reading stops and why is
reported; an entry within the count that cannot be read is an error, as is a bad magic, version,
sector size or flag, or a write past the image's end. QEMU does not truncate the log file it is
given: start each log from an empty file, or stale entries of an older run past the count would be
read as this run's.

    logreplay.py info LOG
    logreplay.py states LOG START WORK [--subsets K] [--seed S] [--run 'COMMAND {}']
    logreplay.py image LOG START OUT (--flush N | --end)

info prints the superblock, the entries and flushes read, and where the reading stopped. states
builds each state in WORK (a copy of START) and names it, running COMMAND on it when given ({} is
the image; a state whose command fails is named with its status). image writes one state to OUT.
"""
import argparse
import os
import random
import struct
import subprocess
import sys
import time

MAGIC = 0x6a736677736872
VERSION = 1
FLUSH, FUA, DISCARD, MARK, METADATA = 1, 2, 4, 8, 16
KNOWN_FLAGS = FLUSH | FUA | DISCARD | MARK | METADATA
SUPER = struct.Struct("<QQQI")
ENTRY = struct.Struct("<QQQQ")
# A state's writes are applied and taken back by pieces of this size at most.
CHUNK = 1 << 20


class LogError(Exception):
    """The log cannot be replayed: what it holds would give a wrong state."""


class NotALog(LogError):
    """The file is too short for a log's superblock, or its sector size is not one a log has."""


class BadMagic(NotALog):
    pass


class BadVersion(NotALog):
    pass


class CountPastEnd(LogError):
    """The superblock counts more entries than the log holds."""


class PastImageEnd(LogError):
    """An entry writes or discards past the image's end: not the image the log began on."""


class EntryProblem(LogError):
    """Why an entry cannot be read: raised for one the superblock counts, the reason the reading
    stopped (Log.stopped_by) for one past the count."""


class CutShort(EntryProblem):
    pass


class UnknownFlags(EntryProblem):
    pass


class Blank(EntryProblem):
    """A place QEMU had taken for an entry and not yet written when it was killed."""


class Malformed(EntryProblem):
    """A mark that does not fit its sector, or a write carrying its data inline."""


class Entry:
    __slots__ = ("index", "offset", "sector", "sectors", "flags", "data")

    def __init__(self, index, offset, sector, sectors, flags, data):
        self.index, self.offset = index, offset  # the entry's number from 0, its byte in the log
        self.sector, self.sectors, self.flags = sector, sectors, flags
        self.data = data  # the byte in the log where its data starts, or None (no data)

    def barrier(self):
        return bool(self.flags & (FLUSH | FUA))

    def writes(self):
        return not self.flags & MARK and self.sectors > 0


class Log:
    """A log's entries as read: sectorsize, counted (the superblock's count), entries, stop (why
    the reading ended past the count, or None when it ended at the log's end)."""

    def __init__(self, path):
        self.path = path
        size = os.path.getsize(path)
        with open(path, "rb") as f:
            head = f.read(SUPER.size)
            if len(head) < SUPER.size:
                raise NotALog(f"{path}: {size} bytes, too short for a log's superblock")
            magic, version, counted, sectorsize = SUPER.unpack(head)
            if magic != MAGIC:
                raise BadMagic(f"{path}: bad magic {magic:#x} (a write log starts with {MAGIC:#x})")
            if version != VERSION:
                raise BadVersion(f"{path}: log version {version}, only version {VERSION} is read")
            if sectorsize < ENTRY.size or sectorsize & (sectorsize - 1) or sectorsize >= 1 << 24:
                raise NotALog(f"{path}: sector size {sectorsize} is not a power of two from {ENTRY.size} on")
            self.sectorsize, self.counted = sectorsize, counted
            self.entries, self.stop, self.stopped_by = [], None, None
            offset = sectorsize
            while offset < size:
                index = len(self.entries)
                f.seek(offset)
                raw = f.read(sectorsize)
                problem, entry = self._entry(index, offset, raw, size)
                if problem is not None:
                    if index < counted:
                        raise type(problem)(f"{path}: entry {index} of the {counted} the superblock counts: "
                                            f"{problem}")
                    self.stop, self.stopped_by = f"entry {index} at byte {offset}: {problem}", problem
                    break
                self.entries.append(entry)
                offset = self.after(entry)
            if len(self.entries) < counted:
                raise CountPastEnd(f"{path}: the superblock counts {counted} entries, the log ends "
                               f"after {len(self.entries)}")

    def _entry(self, index, offset, raw, size):
        if len(raw) < self.sectorsize:
            return CutShort(f"cut short ({len(raw)} of its {self.sectorsize} bytes)"), None
        sector, sectors, flags, data_len = ENTRY.unpack_from(raw)
        if flags & ~KNOWN_FLAGS:
            return UnknownFlags(f"unknown flags {flags:#x}"), None
        if not any(raw):
            return Blank("blank"), None
        if flags & MARK:
            if data_len > self.sectorsize - ENTRY.size:
                return Malformed(f"a mark of {data_len} bytes does not fit its sector"), None
            return None, Entry(index, offset, sector, 0, flags, None)
        if data_len:
            return Malformed(f"inline data ({data_len} bytes), which a disk's write log never carries"), None
        if flags & DISCARD or sectors == 0:
            return None, Entry(index, offset, sector, sectors, flags, None)
        data = offset + self.sectorsize
        if data + sectors * self.sectorsize > size:
            return CutShort(f"its {sectors} sectors of data are cut short (the log ends "
                            f"{size - data} bytes into them)"), None
        return None, Entry(index, offset, sector, sectors, flags, data)

    def after(self, entry):
        """The byte in the log just after ENTRY and its data."""
        return entry.offset + self.sectorsize + (entry.sectors * self.sectorsize if entry.data is not None else 0)

    def barriers(self):
        return sum(1 for e in self.entries if e.barrier())

    def describe(self):
        counts = {name: sum(1 for e in self.entries if e.flags & flag)
                  for name, flag in (("flush", FLUSH), ("FUA", FUA), ("discard", DISCARD), ("mark", MARK))}
        writes = sum(1 for e in self.entries if e.writes())
        text = (f"sector size {self.sectorsize}, {len(self.entries)} entries read "
                f"(the superblock counts {self.counted}): {writes} writes, "
                + ", ".join(f"{n} {name}" for name, n in counts.items()))
        if self.stop:
            text += f"; read up to {self.stop}"
        return text


class State:
    """One state as the working copy holds it while it is given out."""

    def __init__(self, name, flush, entry, offset, since, lost=(), changed=True):
        self.name = name
        self.changed = changed  # False: the same bytes as the state given before it
        self.lost = lost  # the entries of the writes since the last flush that it has lost
        self.flush = flush  # the number of the last flush it keeps, 0 before the first
        self.entry = entry  # the last entry it can hold, -1 for the starting image
        self.offset = offset  # the byte in the log just after that entry
        self.since = since  # the byte in the log where the writes it may have lost begin


class Replay:
    def __init__(self, log, start, work, subsets=0, seed=0):
        self.log, self.start, self.work = log, start, work
        self.subsets, self.seed = subsets, seed

    def _apply(self, image, source, entry, undo=None):
        """Writes ENTRY to IMAGE; with UNDO, first keeps what it overwrites there."""
        size = self.log.sectorsize
        at, length = entry.sector * size, entry.sectors * size
        if at + length > self.image_size:
            raise PastImageEnd(f"entry {entry.index} writes bytes {at}..{at + length} past the image's end "
                           f"({self.image_size} bytes): not the image the log began on?")
        done = 0
        while done < length:
            piece = min(CHUNK, length - done)
            if undo is not None:
                image.seek(at + done)
                undo.append((at + done, image.read(piece)))
            if entry.data is None:
                data = bytes(piece)  # a discard reads back as zeroes from QEMU's file
            else:
                source.seek(entry.data + done)
                data = source.read(piece)
            image.seek(at + done)
            image.write(data)
            done += piece

    def states(self):
        """Yields every State in the log's order, the working copy holding it meanwhile."""
        subprocess.run(["cp", "--sparse=always", self.start, self.work], check=True)
        self.image_size = os.path.getsize(self.work)
        entries = self.log.entries
        with open(self.work, "r+b") as image, open(self.log.path, "rb") as source:
            yield State("start", 0, -1, self.log.sectorsize, self.log.sectorsize)
            flush, pending, since = 0, [], self.log.sectorsize
            for entry in entries:
                if entry.barrier():
                    yield from self._drawn(image, source, flush, pending, since)
                    writes = pending + ([entry] if entry.writes() else [])
                    for write in writes:
                        self._apply(image, source, write)
                    flush += 1
                    pending = []
                    since = self.log.after(entry)
                    image.flush()
                    yield State(f"flush {flush}", flush, entry.index, since, since, changed=bool(writes))
                elif entry.writes():
                    pending.append(entry)
            if pending:
                yield from self._drawn(image, source, flush, pending, since)
                for entry in pending:
                    self._apply(image, source, entry)
                image.flush()
                last = pending[-1]
                yield State("end", flush, last.index, self.log.after(last), since)

    def _drawn(self, image, source, flush, pending, since):
        """The states that keep a drawn part of PENDING (the writes since flush FLUSH)."""
        n = len(pending)
        if not self.subsets or n < 2:
            return  # none kept is flush FLUSH's state, all kept the next one's
        rng = random.Random(f"{self.seed}/{flush}")
        drawn = set()
        tries = 0
        while len(drawn) < min(self.subsets, 2 ** n - 2) and tries < 20 * self.subsets:
            tries += 1
            kept = tuple(rng.random() < 0.5 for _ in pending)
            if all(kept) or not any(kept) or kept in drawn:
                continue
            drawn.add(kept)
            undo = []
            for entry, keep in zip(pending, kept):
                if keep:
                    self._apply(image, source, entry, undo)
            image.flush()
            yield State(f"flush {flush} draw {len(drawn)} lost {n - sum(kept)}/{n}", flush, pending[-1].index,
                        self.log.after(pending[-1]), since,
                        tuple(e.index for e, keep in zip(pending, kept) if not keep))
            for at, data in reversed(undo):
                image.seek(at)
                image.write(data)
            image.flush()


def write_states(log, start, work, wanted, subsets=0, seed=0):
    """Writes each state WANTED names ({name: path}) to its path, in one pass of the log with
    WORK as the working copy (SUBSETS and SEED: the drawn states' as when they were named);
    returns the names the log has no state of."""
    left = dict(wanted)
    if left:
        for state in Replay(log, start, work, subsets, seed).states():
            if state.name in left:
                subprocess.run(["cp", "--sparse=always", work, left.pop(state.name)], check=True)
                if not left:
                    break
    return sorted(left)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    sub = parser.add_subparsers(dest="command", required=True)
    info = sub.add_parser("info")
    info.add_argument("log")
    states = sub.add_parser("states")
    states.add_argument("log")
    states.add_argument("start")
    states.add_argument("work")
    states.add_argument("--subsets", type=int, default=0)
    states.add_argument("--seed", type=int, default=0)
    states.add_argument("--run")
    image = sub.add_parser("image")
    image.add_argument("log")
    image.add_argument("start")
    image.add_argument("out")
    which = image.add_mutually_exclusive_group(required=True)
    which.add_argument("--flush", type=int)
    which.add_argument("--end", action="store_true")
    args = parser.parse_args()
    try:
        log = Log(args.log)
        print(f"logreplay: {log.describe()}", flush=True)
        if args.command == "info":
            return 0
        if args.command == "image":
            want = "end" if args.end else f"flush {args.flush}"
            work = args.out + ".work"
            missing = write_states(log, args.start, work, {want: args.out})
            os.remove(work)
            if not missing:
                return 0
            print(f"logreplay: the log has no state '{want}' ({log.barriers()} flushes)", file=sys.stderr)
            return 1
        started, count, failed = time.monotonic(), 0, 0
        for state in Replay(log, args.start, args.work, args.subsets, args.seed).states():
            count += 1
            status = ""
            if args.run:
                done = subprocess.run(args.run.replace("{}", args.work), shell=True)
                if done.returncode:
                    failed += 1
                    status = f": status {done.returncode}"
            print(f"{state.name} (entry {state.entry}){status}", flush=True)
        print(f"logreplay: {count} states, {failed} failed, {time.monotonic() - started:.1f} s")
        return 1 if failed else 0
    except LogError as error:
        print(f"logreplay: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
