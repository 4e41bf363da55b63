"""For the tests of kipcsend: the program as a process, and a service that says what the test wants."""
import atexit
import functools
import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools" / "records"))

import usbrecords  # noqa: E402

PROGRAM = os.environ.get("KIPCSEND", "")
if not os.access(PROGRAM, os.X_OK):
    sys.exit("KIPCSEND is not set: the path of the program to be tested. Nothing was tested.")
DONE, REFUSED, USAGE, NO_ANSWER, UNREACHABLE, UNHEARD = range(6)


class Ended:
    """A run of the program that has ended."""

    def __init__(self, words, status, out, err):
        self.words, self.status, self.out, self.err = words, status, out, err

    @property
    def lines(self):
        return self.out.splitlines()

    @property
    def objects(self):
        return [json.loads(line) for line in self.lines]

    def __str__(self):
        return f"kipcsend {' '.join(self.words)} ended with {self.status}\n{self.out}{self.err}"


@functools.cache
def program_for_everybody():
    """A copy of the program where every user may run it: the tree may be below a folder of root's own."""
    folder = tempfile.mkdtemp()
    atexit.register(shutil.rmtree, folder)
    os.chmod(folder, 0o755)
    return shutil.copy(PROGRAM, folder)


class Run:
    """A run of the program, beside the test."""

    def __init__(self, folder, *words, **how):
        environment = {"KIPC_DIR": str(folder), "PATH": "/usr/bin:/bin", "ASAN_OPTIONS": "exitcode=99",
                       "UBSAN_OPTIONS": "exitcode=99"}
        self.words = [str(word) for word in words]
        program = program_for_everybody() if "user" in how else PROGRAM
        self.process = subprocess.Popen([program, *self.words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, env=environment, **how)

    def end(self, timeout=20):
        try:
            out, err = self.process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.communicate()
            raise
        return Ended(self.words, self.process.returncode, out.decode(), err.decode())

    def signal(self, number):
        self.process.send_signal(number)


def listener(path):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    one = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET | socket.SOCK_CLOEXEC)
    one.bind(path)
    one.listen(16)
    return one


def connect(path):
    one = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET | socket.SOCK_CLOEXEC)
    one.settimeout(10)
    one.connect(path)
    return one


class FakeService:
    """Listens for one peer. `script(fake, data)` is called with what it gets, on a thread of its own; then the
    connection is closed when the program has closed its end."""

    def __init__(self, folder, peer, script=None):
        self.folder, self.peer = str(folder), peer
        self.script = script or (lambda fake, data: None)
        self.received = []
        self.errors = []
        self.listener = listener(f"{self.folder}/usb/{peer}")
        self.connection = None
        self.inbox = None
        self.thread = threading.Thread(target=self.work, daemon=True)
        self.thread.start()

    def work(self):
        try:
            self.connection, _ = self.listener.accept()
            while data := self.connection.recv(1 << 17):
                self.received.append(data)
                self.script(self, data)
            self.connection.close()
        except OSError as error:
            self.errors.append(error)

    def answer(self, *records):
        """To the peer's inbox, as the service does: on one connection that stays."""
        if self.inbox is None:
            self.inbox = connect(f"{self.folder}/{self.peer}/usb")
        for record in records:
            self.inbox.send(record)

    def die(self):
        for one in (self.inbox, self.connection, self.listener):
            if one is not None:
                one.close()

    def close(self):
        try:
            self.listener.shutdown(socket.SHUT_RDWR)        # ends a thread that still waits for the program
        except OSError:
            pass                                            # it died
        self.thread.join(10)
        self.listener.close()
        if self.inbox is not None:
            self.inbox.close()


class SendCase(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kipc-")
        self.addCleanup(shutil.rmtree, self.folder)

    def service(self, peer, script=None):
        fake = FakeService(self.folder, peer, script)
        self.addCleanup(fake.close)
        return fake

    def peer(self, name):
        """The peer itself, which listens."""
        one = listener(f"{self.folder}/{name}/usb")
        one.settimeout(10)
        self.addCleanup(one.close)
        return one

    def start(self, *words, **how):
        run = Run(self.folder, *words, **how)
        self.addCleanup(lambda: run.process.poll() is None and run.process.kill())
        return run

    def send(self, *words, expect=DONE, **how):
        """Runs the program to its end, which must be with that status."""
        ended = self.start(*words, **how).end()
        self.assertEqual(ended.status, expect, ended)
        return ended
