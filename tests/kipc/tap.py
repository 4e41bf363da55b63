"""For the tests of kipcmon: the program as a process, and the service's side of its tap."""
import contextlib
import json
import os
import pathlib
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools" / "records"))

import usbrecords  # noqa: E402

PROGRAM = os.environ.get("KIPCMON", str(ROOT / "build" / "native" / "tools" / "kipc" / "monitor" / "kipcmon"))
AS_ASKED, TOO_FEW, USAGE, TAKEN, FAILED, BROKEN = range(6)
IN, OUT = 1, 2
DELIVERED, NO_RECEIVER, FULL = range(3)
MAGIC, VERSION, HEAD_BYTES = 0x5041544B, 1, 96
MONOTONIC_NS, WALL_NS = 5_000_000_123, 1_700_000_000_123_456_789        # 2023-11-14T22:13:20 UTC


def head(length, sender="usb", receiver="media", *, magic=MAGIC, version=VERSION, head_bytes=HEAD_BYTES, mask=0, lost=0,
         direction=OUT, outcome=DELIVERED):
    return struct.pack("<IHHQQQIIBB6x24s24s", magic, version, head_bytes, MONOTONIC_NS, WALL_NS, mask, lost, length,
                       direction, outcome, sender.encode(), receiver.encode())


def datagram(record, sender="usb", receiver="media", length=None, **how):
    return head(len(record) if length is None else length, sender, receiver, **how) + record


VOLTAGE = usbrecords.build("voltage", port=1, section=2)
VOLTAGE_LINE = "22:13:20.123456      usb -> voltage  voltage port=1 section=critical"


def voltage(port=1, **how):
    return datagram(usbrecords.build("voltage", port=port, section=2), receiver="voltage", **how)


def search(port=1, **how):
    return datagram(usbrecords.build("search", port=port), "sdcm", "usb", direction=IN, **how)


class Monitor:
    """A run of kipcmon beside the test. Both its outputs are read all the time."""

    def __init__(self, folder, *words, stdout=subprocess.PIPE, environment=None, **how):
        own = {"KIPC_DIR": str(folder), "PATH": "/usr/bin:/bin", "TZ": "UTC", "ASAN_OPTIONS": "exitcode=99",
               "UBSAN_OPTIONS": "exitcode=99", "TSAN_OPTIONS": "exitcode=99"}
        self.process = subprocess.Popen([PROGRAM, *map(str, words)], stdin=subprocess.DEVNULL, stdout=stdout,
                                        stderr=subprocess.PIPE, env={**own, **(environment or {})}, **how)
        self.changed = threading.Condition()
        self.out, self.err = b"", b""
        self.readers = [threading.Thread(target=self.read, args=(name, pipe), daemon=True)
                        for name, pipe in (("out", self.process.stdout), ("err", self.process.stderr)) if pipe]
        for reader in self.readers:
            reader.start()

    def read(self, name, pipe):
        with pipe:
            while data := pipe.read1(1 << 16):
                with self.changed:
                    setattr(self, name, getattr(self, name) + data)
                    self.changed.notify_all()

    def wait_for(self, holds, what):
        """Until `holds`, which looks at self.out and self.err."""
        with self.changed:
            if not self.changed.wait_for(holds, 20):
                raise AssertionError(f"{what} did not come\n{self.out.decode()}\n{self.err.decode()}")

    def wait_lines(self, count):
        self.wait_for(lambda: self.out.count(b"\n") >= count, f"{count} lines")

    def wait_said(self, text, times=1):
        self.wait_for(lambda: self.err.decode().count(text) >= times, repr(text))

    @property
    def lines(self):
        with self.changed:
            return self.out.decode().splitlines()

    @property
    def objects(self):
        return [json.loads(line) for line in self.lines]

    @property
    def said(self):
        """Its messages, without the name of the program."""
        with self.changed:
            return [line.removeprefix("kipcmon: ") for line in self.err.decode().splitlines()]

    def end(self, number=None):
        """Its exit status; with a signal, after that was sent."""
        if number is not None:
            self.process.send_signal(number)
        try:
            status = self.process.wait(20)
        finally:
            self.process.kill()
            self.process.wait()
        for reader in self.readers:
            reader.join(20)
        return status


class Tap:
    """The service's connection to the monitor."""

    def __init__(self, folder):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 20)
        self.socket.connect(f"{folder}/tap")
        self.socket.settimeout(20)

    def send(self, *datagrams):
        for one in datagrams:
            self.socket.send(one)

    def was_hung_up(self):
        with contextlib.suppress(ConnectionResetError):
            return self.socket.recv(1) == b""
        return True

    def close(self):
        self.socket.close()


class MonitorCase(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kipcmon-")
        self.addCleanup(shutil.rmtree, self.folder)

    def start(self, *words, **how):
        """A run that does not end by itself, or not at once."""
        monitor = Monitor(self.folder, *words, **how)
        self.addCleanup(monitor.end, 9)
        return monitor

    def listening(self, *words, **how):
        monitor = self.start(*words, **how)
        monitor.wait_said("listening at")
        return monitor

    def connect(self):
        tap = Tap(self.folder)
        self.addCleanup(tap.close)
        return tap

    def run_to_end(self, *words, **how):
        monitor = self.start(*words, **how)
        monitor.status = monitor.end()
        return monitor

    def wait_gone(self, path):
        deadline = time.monotonic() + 20
        while os.path.exists(path):
            self.assertLess(time.monotonic(), deadline, f"{path} is still there")
            time.sleep(0.01)
