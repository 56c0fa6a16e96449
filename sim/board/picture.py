"""Picture: one screendump of the board (binary PPM), read for the few facts the harness needs."""
import struct
import subprocess
import zlib

import numpy


def parse_ppm(data, name):
    """(width, height, pixels) of a binary PPM's bytes."""
    # P6 header: magic, width, height, maximum, each separated by white space.
    fields, pos = [], 0
    while len(fields) < 4:
        while data[pos:pos + 1].isspace():
            pos += 1
        start = pos
        while not data[pos:pos + 1].isspace():
            pos += 1
        fields.append(data[start:pos])
    if fields[0] != b"P6":
        raise ValueError(f"{name} is not a binary PPM")
    width, height = int(fields[1]), int(fields[2])
    return width, height, data[pos + 1:pos + 1 + width * height * 3]


def png_bytes(rows):
    """A PNG of an RGB array (height x width x 3), the same bytes for the same pixels: no time or
    other chunk that would make a picture kept in git differ without a change."""
    height, width, _ = rows.shape
    rows = rows.astype(numpy.uint8)
    # Each row as its difference from the row above (PNG's "up" filter): flat widgets pack well.
    above = numpy.zeros_like(rows)
    above[1:] = rows[:-1]
    filtered = numpy.empty((height, 1 + width * 3), numpy.uint8)
    filtered[:, 0] = 2
    filtered[:, 1:] = (rows - above).reshape(height, -1)

    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body))

    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(filtered.tobytes(), 9)) + chunk(b"IEND", b""))


class Picture:
    def __init__(self, path):
        with open(path, "rb") as f:
            self.width, self.height, self.pixels = parse_ppm(f.read(), path)
        self.path = path

    @classmethod
    def from_array(cls, rows, path=None):
        """A picture of an RGB array (height x width x 3); PATH, if any, only names it."""
        picture = cls.__new__(cls)
        picture.height, picture.width = rows.shape[:2]
        picture.pixels = rows.astype(numpy.uint8).tobytes()
        picture.path = path
        return picture

    @classmethod
    def from_png(cls, path):
        # The convert first on PATH may be a stand-in: imagemagick's own.
        data = subprocess.run(["/usr/bin/convert", path, "-depth", "8", "ppm:-"], check=True,
                              stdout=subprocess.PIPE).stdout
        width, height, pixels = parse_ppm(data, path)
        return cls.from_array(numpy.frombuffer(pixels, numpy.uint8).reshape(height, width, 3), path)

    def array(self):
        """The pixels as a read-only array, height x width x RGB."""
        return numpy.frombuffer(self.pixels, numpy.uint8).reshape(self.height, self.width, 3)

    def colours(self):
        """How many colours it holds: QEMU's placeholder before the guest's first mode has two."""
        return len({self.pixels[i:i + 3] for i in range(0, len(self.pixels), 3)})

    def pixel(self, x, y):
        at = (y * self.width + x) * 3
        return tuple(self.pixels[at:at + 3])

    def same_as(self, other):
        return self.pixels == other.pixels

    def region_differs(self, other, box):
        x0, y0, x1, y1 = box
        for y in range(y0, y1):
            a = (y * self.width + x0) * 3
            b = (y * self.width + x1) * 3
            if self.pixels[a:b] != other.pixels[a:b]:
                return True
        return False

    def differing_columns(self, other, box):
        """How many columns of BOX differ between the two pictures."""
        x0, y0, x1, y1 = box
        columns = set()
        for y in range(y0, y1):
            a = (y * self.width + x0) * 3
            b = (y * self.width + x1) * 3
            mine, theirs = self.pixels[a:b], other.pixels[a:b]
            if mine != theirs:
                columns.update(x0 + i // 3 for i in range(0, b - a, 3) if mine[i:i + 3] != theirs[i:i + 3])
        return len(columns)

    def save_png(self, path):
        with open(path, "wb") as f:
            f.write(png_bytes(self.array()))
        return path
