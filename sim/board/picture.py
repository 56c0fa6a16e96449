"""Picture: one screendump of the board (binary PPM), read for the few facts the harness needs."""
import subprocess


class Picture:
    def __init__(self, path):
        with open(path, "rb") as f:
            data = f.read()
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
            raise ValueError(f"{path} is not a binary PPM")
        self.path = path
        self.width, self.height = int(fields[1]), int(fields[2])
        self.pixels = data[pos + 1:pos + 1 + self.width * self.height * 3]

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
        # The convert first on PATH may be a stand-in: imagemagick's own.
        subprocess.run(["/usr/bin/convert", self.path, path], check=True)
        return path
