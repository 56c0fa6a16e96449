"""Qmp: QEMU's machine protocol on a unix socket, one command at a time.

QEMU also sends events of its own between the replies (RESET, SHUTDOWN, ...): each is kept in
`events`, in the order they came, for the harness to check what the machine itself did.
"""
import json
import select
import socket
import threading

from deadline import Deadline, connect_unix


class QmpError(Exception):
    pass


class QmpTimeout(QmpError):
    """QEMU did not answer before the deadline."""


class QmpClosed(QmpError):
    """QEMU closed its QMP socket: it has ended."""


class Qmp:
    def __init__(self, path, deadline, alive=lambda: True):
        self.sock = connect_unix(path, deadline, alive)
        if self.sock is None:
            raise QmpError(f"no QMP socket at {path}")
        self.pending = b""
        # One exchange at a time: a harness may take screendumps in a thread of its own.
        self.lock = threading.RLock()
        self.events = []  # {"event": NAME, "data": {...}, "timestamp": {...}}, as QEMU sent them
        self._read_reply(Deadline(30))  # the greeting
        self.execute("qmp_capabilities")

    def _take_line(self):
        end = self.pending.find(b"\n")
        if end < 0:
            return None
        line, self.pending = self.pending[:end], self.pending[end + 1:]
        return line

    def _receive(self, timeout):
        """Reads what QEMU sent within TIMEOUT seconds into the pending bytes; False when nothing
        came."""
        ready, _, _ = select.select([self.sock], [], [], max(0.0, timeout))
        if not ready:
            return False
        data = self.sock.recv(65536)
        if not data:
            raise QmpClosed("QEMU closed its QMP socket")
        self.pending += data
        return True

    def _message(self, line):
        message = json.loads(line)
        if "event" in message:
            self.events.append(message)
            return None
        return message

    def _read_reply(self, deadline):
        while True:
            line = self._take_line()
            if line is not None:
                message = self._message(line)
                if message is not None:
                    return message
                continue
            if not self._receive(deadline.remaining()) and deadline.expired():
                raise QmpTimeout(f"no answer from QEMU within {deadline.seconds:.0f} s")

    def poll(self):
        """Takes in the events QEMU sent since the last look, without waiting; returns them all."""
        with self.lock:
            return self._poll()

    def _poll(self):
        try:
            while self._receive(0):
                pass
        except (QmpClosed, OSError):
            pass  # the events already sent are still read below
        while True:
            line = self._take_line()
            if line is None:
                return self.events
            if self._message(line) is not None:
                raise QmpError(f"a reply with no command asked: {line!r}")

    def execute(self, command, arguments=None, seconds=30):
        with self.lock:
            return self._execute(command, arguments, seconds)

    def _execute(self, command, arguments, seconds):
        request = {"execute": command}
        if arguments:
            request["arguments"] = arguments
        self.sock.sendall(json.dumps(request).encode() + b"\n")
        reply = self._read_reply(Deadline(seconds))
        if "error" in reply:
            raise QmpError(f"{command}: {reply['error'].get('desc')}")
        return reply.get("return")

    def close(self):
        if self.sock is not None:
            try:
                self.sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            self.sock.close()
