"""Console: the board's serial console, where the guest's shell takes the harness's commands.

Everything the board prints is kept in a log file. Commands run between two random markers with
their exit status after the second one, so neither the kernel's messages nor earlier output can be
taken for the answer.
"""
import re
import secrets
import socket
import time

from deadline import connect_unix


class ConsoleError(Exception):
    pass


# A board that prints one of these is dead: waiting on is pointless.
FAILURES = [re.compile(rb"Kernel panic - not syncing"), re.compile(rb"Unable to handle kernel")]


class Console:
    def __init__(self, path, log_path, deadline, alive=lambda: True):
        self.sock = connect_unix(path, deadline, alive)
        if self.sock is None:
            raise ConsoleError(f"no console socket at {path}")
        self.log = open(log_path, "ab", buffering=0)
        self.buffer = b""  # everything read, consumed by waits from self.pos
        self.pos = 0
        self.closed = False

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
        self.log.write(data)
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
                    raise ConsoleError(f"the board printed {bad.group(0)!r}")
            if self.closed:
                raise ConsoleError("QEMU closed the console")
            if deadline.expired():
                raise ConsoleError(f"no {success.pattern!r} within {deadline.seconds:.0f} s")
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
        self.sock.sendall(line.encode())
        self.wait(re.escape(begin.encode()) + rb"\r?\n", deadline)
        match = self.wait(rb"(?s)(.*?)" + re.escape(end.encode()) + rb" (\d+)\r?\n", deadline)
        status, output = int(match.group(2)), match.group(1).decode("utf-8", "replace")
        if check and status != 0:
            raise ConsoleError(f"'{command}' ended with status {status}: {output}")
        return status, output
