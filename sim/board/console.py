"""Console: the board's serial console, where the guest's shell takes the harness's commands.

Everything the board prints is kept in a log file, each line after the seconds since the console
opened, with the harness's own doings (commands, taps) between them as "[harness] ..." lines.
Commands run between two random markers with their exit status after the second one, so neither
the kernel's messages nor earlier output can be taken for the answer.
"""
import re
import secrets
import socket
import time

from deadline import connect_unix


class ConsoleError(Exception):
    """The board did not do what the harness waited for."""


class ConsoleTimeout(ConsoleError):
    """What the harness waited for did not come before its deadline."""


class ConsoleClosed(ConsoleError):
    """QEMU closed the console: the board is gone."""


class BoardFailure(ConsoleError):
    """The board printed what no waiting can mend: a kernel panic or oops, an out-of-memory kill,
    or a failure the caller named (PATTERN, as given)."""

    def __init__(self, printed, pattern):
        super().__init__(f"the board printed {printed!r}")
        self.printed = printed
        self.pattern = pattern


class CommandFailed(ConsoleError):
    """A command in the guest's shell ended with another status than 0."""


# A board that prints one of these is dead or has lost a program: waiting on is pointless. The
# kernel's messages reach the harness through their own port (kernel.log, see Machine).
FAILURES = [re.compile(p) for p in (rb"Kernel panic - not syncing", rb"Unable to handle kernel",
                                    rb"Internal error: Oops[^\r\n]*", rb"Out of memory: Killed process[^\r\n]*",
                                    rb"board: FAILED: [^\r\n]*\r?\n")]


class Console:
    def __init__(self, path, log_path, deadline, alive=lambda: True):
        self.sock = connect_unix(path, deadline, alive)
        if self.sock is None:
            raise ConsoleError(f"no console socket at {path}")
        self.log = open(log_path, "ab", buffering=0)
        self.opened = time.monotonic()
        self.line_start = True
        self.buffer = b""  # everything read, consumed by waits from self.pos
        self.pos = 0
        self.closed = False
        # Called at every step of a wait: raises BoardFailure when the board failed elsewhere.
        self.watch = lambda: None

    def _stamp(self):
        return f"[{time.monotonic() - self.opened:9.3f}] ".encode()

    def note(self, text):
        """Puts the harness's own doing into the log, on a line of its own."""
        self.log.write((b"" if self.line_start else b"\n") + self._stamp() + f"[harness] {text}\n".encode())
        self.line_start = True

    def _pump(self, timeout):
        self.sock.settimeout(max(0.01, timeout))
        try:
            data = self.sock.recv(65536)
        except socket.timeout:
            return
        if not data:
            self.closed = True
            time.sleep(min(timeout, 0.1))
            return
        stamped = b""
        for line in data.splitlines(keepends=True):
            stamped += (self._stamp() if self.line_start else b"") + line
            self.line_start = line.endswith(b"\n")
        self.log.write(stamped)
        self.buffer += data

    def count(self, pattern):
        """How many times PATTERN (bytes regex) was printed so far, reading what is pending."""
        self._pump(0.01)
        return len(re.findall(pattern, self.buffer))

    def wait(self, success, deadline, failures=()):
        """Waits for SUCCESS (bytes regex) after what earlier waits consumed; returns the match."""
        success = re.compile(success)
        checks = FAILURES + [re.compile(f) for f in failures]
        while True:
            match = success.search(self.buffer, self.pos)
            if match:
                self.pos = match.end()
                return match
            for failure in checks:
                bad = failure.search(self.buffer, self.pos)
                if bad:
                    raise BoardFailure(bad.group(0).decode(errors="replace").strip(), failure.pattern)
            self.watch()
            if self.closed:
                raise ConsoleClosed("QEMU closed the console")
            if deadline.expired():
                raise ConsoleTimeout(f"no {success.pattern!r} within {deadline.seconds:.0f} s")
            self._pump(min(0.5, deadline.remaining()))

    def skip(self):
        """Forgets what was printed so far: later waits look only at what comes next."""
        self._pump(0.01)
        self.pos = len(self.buffer)

    def run(self, command, deadline, check=True):
        """Runs COMMAND in the guest's shell; returns (status, output)."""
        token = secrets.token_hex(6)
        begin, end = f"BEGIN-{token}", f"END-{token}"
        # The markers are printed from pieces, so the command's own text never matches them.
        line = f"echo BEGIN-''{token}; {command}\necho END-''{token} $?\n"
        self.skip()
        self.note(f"run: {command}")
        self.sock.sendall(line.encode())
        self.wait(re.escape(begin.encode()) + rb"\r?\n", deadline)
        match = self.wait(rb"(?s)(.*?)" + re.escape(end.encode()) + rb" (\d+)\r?\n", deadline)
        status, output = int(match.group(2)), match.group(1).decode("utf-8", "replace")
        if check and status != 0:
            raise CommandFailed(f"'{command}' ended with status {status}: {output}")
        return status, output
