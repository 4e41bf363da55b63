"""Emulated phones: USB devices that answer vendor requests, leave the bus and come back as another device.

    phone = unit.plug("1.2", Phone("android"))
    phone.wait_transfer(request=53)
    phone.wait("left")
    phone.wait("came accessory")
    self.assertEqual([(one.request, one.index) for one in phone.transfers()], [(51, 0), (52, 0), ..., (53, 0)])

The first argument names a description in tools/headunit/phones/, whose README.md explains the keys. Other arguments
are put over the description, dictionaries key by key:

    Phone("android", serial="ABC", vid=0x04E8)                   for all modes that do not say it themselves
    Phone("android", serial="")                                  no serial text
    Phone("android", starts="accessory")                         the mode it is plugged in with
    Phone("android", modes={"accessory": {"pid": 0x2D01}})
    Phone("android", answers={"protocol": b"\\x00\\x00", "description": "stall", "start": "never"})
    Phone("iphone", answers={"carplay": [b"\\2\\0\\0\\0", b"\\1\\0\\0\\0"]})        one after another; the last stays
    Phone("android", answers={"mine": {"type": 0x40, "request": 99, "answer": "ok"}})
    Phone("android", returns=["never"])                          after 53; or "stays", or modes, one after another:
    Phone("android", returns=["phone"] * 5 + ["accessory after 200"])    (milliseconds; 300 when it is not said)

A phone begins anew, in its first mode and with the first of its answers and returns, when it is plugged in and when
its port's power comes back. Times are seconds on the guest's clock, as those of records and log lines.
"""
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import threading
from typing import NamedTuple

from .devices import Device
from .qmp import QmpError
from .unit import ROOT, HeadUnitError

DESCRIPTIONS = pathlib.Path(__file__).resolve().parents[1] / "phones"
PROGRAM = ROOT / "build/native/phone/headunit_phone"


class Transfer(NamedTuple):
    """A control request that is no standard one, as the phone saw it."""
    time: float
    request_type: int   # 0x40 vendor, to the phone; 0xC0 vendor, from the phone
    request: int
    value: int
    index: int
    data: bytes         # what the request brought
    answer: str         # "ok", "stall", "never", or the bytes given as hexadecimal digits: "0200"

    @property
    def is_vendor(self):
        return self.request_type & 0x60 == 0x40

    @property
    def setup(self):
        """For comparing: (request_type, request, value, index, data)."""
        return self[1:6]


class Event(NamedTuple):
    time: float
    what: str           # "came accessory", "left", "reset", "configured 1", "cut", "restored", "transfer ..."


class Phone(Device):
    """description: name of a file in tools/headunit/phones/, without .toml, or its path."""

    def __init__(self, description="android", **overrides):
        super().__init__("usb-redir", chardev="")
        path = pathlib.Path(description)
        self.description = path if path.suffix else DESCRIPTIONS / f"{description}.toml"
        self._overrides = [f"{key}={_toml(value)}" for key, value in _spelled_out(overrides).items()]
        self._program = None
        self._folder = None
        self._reader = None
        self._powered = True
        self._clock_offset = 0.0
        self._changed = threading.Condition()
        self._events = []       # under _changed, as what follows
        self._errors = []
        self._ended = True

    def __repr__(self):
        return super().__repr__().replace(">", f" {self.description.stem}>")

    # ---- what a test says ----

    def leave(self):
        """Leaves the bus by itself; it stays plugged in."""
        self._tell("leave")

    def come(self, mode="phone"):
        """Comes in that mode; when it is there, it leaves before. Without power it does not come."""
        self._tell(f"come {mode}")

    switch = come

    # ---- what a test asks ----

    def mark(self):
        """A place in the stream of events, for the parameter since."""
        with self._changed:
            return len(self._events)

    def events(self, since=0):
        """All that has happened, in order."""
        with self._changed:
            return self._events[since:]

    def transfers(self, since=0, kinds="vendor"):
        """The vendor requests in order; kinds="all": also the class requests of the guest's own drivers."""
        found = [_transfer(event) for event in self.events(since) if event.what.startswith("transfer ")]
        return [one for one in found if kinds == "all" or one.is_vendor]

    def wait(self, what, timeout=20, since=0):
        """The first such event: "left", "came accessory", "configured 1", "cut", ..."""
        return self._until(lambda: _first(event for event in self._events[since:] if event.what == what), timeout, what)

    def wait_transfer(self, timeout=20, since=0, **wanted):
        """The first request whose fields are as wanted: wait_transfer(request=52, index=5)."""
        def matching():
            found = (_transfer(event) for event in self._events[since:] if event.what.startswith("transfer "))
            return _first(one for one in found if all(getattr(one, name) == value for name, value in wanted.items()))
        return self._until(matching, timeout, f"a transfer with {wanted}")

    # ---- for HeadUnit ----

    def meets(self, unit, powered):
        self._clock_offset = unit.clock_offset
        self._powered = powered

    def power(self, on):
        self._powered = on
        if self._program:
            self._tell("restore" if on else "cut")

    def _before(self, qmp):
        self.properties["chardev"] = f"{self.id}-bus"
        self._start()
        try:
            qmp.call("chardev-add", id=self.properties["chardev"], backend={"type": "socket", "data": {
                "addr": {"type": "unix", "data": {"path": str(self._folder / "bus")}}, "server": False}})
        except QmpError:
            self.end()
            raise

    def _after(self, qmp):
        # The device takes the connection along, unless it was never made.
        if any(one["label"] == self.properties["chardev"] for one in qmp.call("query-chardev")):
            qmp.call("chardev-remove", id=self.properties["chardev"])
        status = self.end()
        if status:
            raise HeadUnitError(f"{self}: its program has ended with {status}" + self._heard())

    def _start(self):
        program = os.environ.get("HEADUNIT_PHONE") or PROGRAM
        if not pathlib.Path(program).exists():
            raise HeadUnitError(f"no {program}: run tools/build.sh native headunit_phone")
        self._folder = pathlib.Path(tempfile.mkdtemp(prefix="phone-"))
        with self._changed:
            self._errors, self._ended = [], False
        begin = self.mark()
        self._program = subprocess.Popen([program, self._folder / "bus", self.description, *self._overrides],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self._reader = threading.Thread(target=self._read, args=(self._program.stdout,), name=self.id, daemon=True)
        self._reader.start()
        try:
            self.wait("listening", since=begin)
            if not self._powered:
                self._tell("cut")
        except HeadUnitError:
            self.end()
            raise

    def end(self):
        """Ends the program, be it that the machine is gone. How it ended: 0 unless something was wrong."""
        status = None
        if self._program:
            self._program.stdin.close()
            try:
                status = self._program.wait(5)
            except subprocess.TimeoutExpired:
                self._program.kill()
                status = self._program.wait(5)
            self._reader.join(5)
            self._program.stdout.close()
            self._program = None
        if self._folder:
            shutil.rmtree(self._folder, ignore_errors=True)
            self._folder = None
        return status

    # ---- the program's lines ----

    def _read(self, lines):
        for line in lines:
            text = line.decode(errors="backslashreplace").rstrip("\n")
            stamp, _, what = text.partition(" ")
            with self._changed:
                if stamp.isdigit():
                    self._events.append(Event(int(stamp) / 1e9 + self._clock_offset, what))
                else:
                    self._errors.append(text)
                self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def _tell(self, command):
        if not self._program:
            raise HeadUnitError(f"{self} is not plugged in: {command}")
        try:
            self._program.stdin.write(command.encode() + b"\n")
            self._program.stdin.flush()
        except OSError as error:
            raise HeadUnitError(f"{self}: {command}: {error}" + self._heard()) from error

    def _until(self, check, timeout, what):
        result = None

        def settled():
            nonlocal result
            result = check()
            return result or self._ended or self._errors
        with self._changed:
            self._changed.wait_for(settled, timeout)
            if result:
                return result
            reason = "the phone has ended" if self._ended or self._errors else f"not within {timeout} s"
        raise HeadUnitError(f"{self}: {reason}: {what}" + self._heard())

    def _heard(self):
        with self._changed:
            lines = [f"{event.time:10.3f} {event.what}" for event in self._events[-40:]] + self._errors[-20:]
        return "\n".join(["\n--- last of the phone ---"] + lines)


def _first(found):
    return next(iter(found), None)


def _transfer(event):
    _, request_type, request, value, index, data, answer = event.what.split(" ")
    return Transfer(event.time, int(request_type, 16), int(request, 16), int(value, 16), int(index, 16),
                    b"" if data == "-" else bytes.fromhex(data), answer)


def _spelled_out(overrides):
    """Answers may be given without their table: "protocol": "stall"."""
    answers = overrides.get("answers", {})
    return overrides | ({"answers": {name: answer if isinstance(answer, dict) else {"answer": answer}
                                     for name, answer in answers.items()}} if answers else {})


def _toml(value):
    """A value in one line of TOML."""
    if isinstance(value, dict):
        return "{" + ", ".join(f"{key} = {_toml(one)}" for key, one in value.items()) + "}"
    if isinstance(value, (list, tuple)):
        return "[" + ", ".join(_toml(one) for one in value) + "]"
    if isinstance(value, bytes):
        return json.dumps(value.hex(" "))
    if isinstance(value, (bool, int, str)):
        return json.dumps(value)
    raise TypeError(f"a description holds no {type(value).__name__}")
