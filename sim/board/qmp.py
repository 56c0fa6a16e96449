"""Qmp: QEMU's machine protocol on a unix socket, one command at a time."""
import json

from deadline import Deadline, connect_unix


class QmpError(Exception):
    pass


class Qmp:
    def __init__(self, path, deadline, alive=lambda: True):
        self.sock = connect_unix(path, deadline, alive)
        if self.sock is None:
            raise QmpError(f"no QMP socket at {path}")
        self.file = self.sock.makefile("rwb")
        self._read_reply(Deadline(30))  # the greeting
        self.execute("qmp_capabilities")

    def _read_reply(self, deadline):
        self.sock.settimeout(max(0.1, deadline.remaining()))
        while True:
            line = self.file.readline()
            if not line:
                raise QmpError("QEMU closed its QMP socket")
            message = json.loads(line)
            if "event" not in message:  # events are not what the harness waits on
                return message

    def execute(self, command, arguments=None, seconds=30):
        request = {"execute": command}
        if arguments:
            request["arguments"] = arguments
        self.file.write(json.dumps(request).encode() + b"\n")
        self.file.flush()
        reply = self._read_reply(Deadline(seconds))
        if "error" in reply:
            raise QmpError(f"{command}: {reply['error'].get('desc')}")
        return reply.get("return")

    def close(self):
        if self.sock is not None:
            self.sock.close()
