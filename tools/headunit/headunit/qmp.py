"""A small client of QEMU's machine protocol. Any thread may call; one command is on its way at a time."""
import json
import socket
import threading
import time


class QmpError(Exception):
    pass


class Qmp:
    def __init__(self, path, timeout):
        """Connects, waiting for the socket to appear."""
        deadline = time.monotonic() + timeout
        while True:
            self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                self._socket.connect(str(path))
                break
            except OSError as error:
                self._socket.close()
                if time.monotonic() > deadline:
                    raise QmpError(f"no connection to {path} within {timeout} s") from error
                time.sleep(0.02)
        self._lock = threading.Lock()
        self._changed = threading.Condition()
        self._answers = []
        self._events = []
        self._closed = False
        self._greeted = False
        self._reader = threading.Thread(target=self._read, name="qmp", daemon=True)
        self._reader.start()
        self._until(lambda: self._greeted, timeout, "greeting")
        self.call("qmp_capabilities")

    def _read(self):
        try:
            with self._socket.makefile("rb") as lines:
                for line in lines:
                    self._take(json.loads(line))
        except (OSError, ValueError):
            pass   # the connection is gone: told below
        with self._changed:
            self._closed = True
            self._changed.notify_all()

    def _take(self, message):
        with self._changed:
            if "event" in message:
                self._events.append(message)
            elif "QMP" in message:
                self._greeted = True
            else:
                self._answers.append(message)
            self._changed.notify_all()

    def _until(self, check, timeout, what):
        with self._changed:
            if not self._changed.wait_for(lambda: check() or self._closed, timeout):
                raise QmpError(f"QEMU did not answer within {timeout} s: {what}")
            if not check():
                raise QmpError(f"QEMU has closed the connection: {what}")

    def call(self, command, timeout=20, **arguments):
        """The command's result; raises QmpError with QEMU's own words."""
        message = {"execute": command}
        if arguments:
            message["arguments"] = {name.replace("_", "-"): value for name, value in arguments.items()}
        with self._lock:
            try:
                self._socket.sendall(json.dumps(message).encode() + b"\n")
            except OSError as error:
                raise QmpError(f"{command}: {error}") from error
            self._until(lambda: self._answers, timeout, command)
            answer = self._answers.pop(0)
        if "error" in answer:
            raise QmpError(f"{command} {arguments}: {answer['error']['desc']}")
        return answer["return"]

    def monitor(self, line):
        """A line for QEMU's own monitor, for what the protocol does not offer."""
        text = self.call("human-monitor-command", command_line=line).strip()
        if text and text != "OK":
            raise QmpError(f"{line}: {text}")

    def wait_deleted(self, device, timeout=20):
        def check():
            return any(event["event"] == "DEVICE_DELETED" and event["data"].get("device") == device
                       for event in self._events)
        self._until(check, timeout, f"removal of {device}")
        with self._changed:
            self._events = [event for event in self._events if event.get("data", {}).get("device") != device]

    def close(self):
        try:
            self._socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass   # already closed by QEMU
        self._reader.join(5)
        self._socket.close()
