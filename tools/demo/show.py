"""What the demo prints: a timeline of what happens, and after each step all that was told, seen and entered."""
import re
import threading
import time
from typing import NamedTuple

import usbrecords
from headunit import HeadUnitError

WAIT = 30          # seconds, for something that must come; a stick's partition takes about two
ALIVE = 2          # seconds without a line, after which one says that we still wait
TOGETHER = 0.2     # seconds within which equal records to several receivers have left as one
NAMED = ("media", "navi", "speech", "diag", "test", "voltage", "sdcm")

STATE = re.compile(r"SetState: (port\d+) (STATE_\w+)->(STATE_\w+)$")
NAMES = ("manufacturer", "model", "description", "version", "address", "serial number")
REQUESTS = {(0xC0, 51): "asked which accessory protocol it speaks", (0x40, 53): "told to become an accessory",
            (0xC0, 0x53): "asked whether it can do CarPlay"}


class Timeline:
    """Prints lines with the time since the show began; says that it is alive when nothing else is said."""

    def __init__(self):
        self.begin = time.monotonic()
        self.lock = threading.Lock()
        self.last = self.begin
        self.waiting = ""
        self.over = threading.Event()
        threading.Thread(target=self._beat, daemon=True).start()

    def _beat(self):
        while not self.over.wait(0.2):
            with self.lock:
                if self.waiting and time.monotonic() - self.last >= ALIVE:
                    self._print(f"             ... {self.waiting}")

    def _print(self, text):
        print(text, flush=True)
        self.last = time.monotonic()

    def say(self, text):
        with self.lock:
            self._print(f"             {text}")

    def happens(self, text):
        with self.lock:
            self._print(f"\n{time.monotonic() - self.begin:8.2f} s  {text}")

    def ends(self, text):
        with self.lock:
            self._print(f"\n{text}")

    def wait_for(self, what):
        with self.lock:
            self.waiting, self.last = what, time.monotonic()


class Entry(NamedTuple):
    time: float     # seconds on the guest's clock
    lines: list     # the first one is printed beside the time


class Show:
    def __init__(self, unit, timeline):
        self.unit = unit
        self.timeline = timeline
        self.mark = unit.mark()
        self.last = None            # guest's time of the last entry that was told
        self.phones = {}            # plugged phones, and how far their events were told
        self.missing = []

    # --- what must come ---

    def expect(self, what, receiver, **fields):
        """Waits for a record to that receiver, sent since the last step, whose fields say that."""
        def fits(record):
            decoded = usbrecords.decode(receiver, record.bytes)
            return all(name in decoded.fields and decoded.fields[name] == value for name, value in fields.items()
                       if name != "name") and fields.get("name", decoded.name) == decoded.name
        self._await(f"{what}, to {receiver}",
                    lambda: self.unit.wait_record(receiver, fits, WAIT, self.mark, what))

    def told(self, receiver, **fields):
        """Port, ids and path of the device that such a record of this step is about; what a request needs."""
        for record in self.unit.records(receiver, self.mark):
            decoded = usbrecords.decode(receiver, record.bytes)
            if decoded.name == fields["name"] and decoded["id"] == fields["id"]:
                return {name: decoded[name] for name in ("port", "vid", "pid", "serial", "devpath")}
        raise HeadUnitError(f"no record {fields} to {receiver}")

    def expect_state(self, state):
        """Waits until a port has entered that state since the last step."""
        self._await(f"the port's state {state}", lambda: self.unit.wait_log(
            lambda text: STATE.search(text) and text.endswith(f">{state}"), WAIT, self.mark))

    def expect_phone(self, phone, what):
        """Waits for an event of the phone since the last step: "left", "came accessory", "cut"."""
        self._await(f"the phone's \"{what}\"", lambda: phone.wait(what, WAIT, self.phones[phone]))

    def require(self, holds, what):
        if not holds:
            self._miss(what)

    def _await(self, what, wait):
        self.timeline.wait_for(f"waiting for {what}")
        try:
            wait()
        except HeadUnitError:
            self._miss(what)
        self.timeline.wait_for("")

    def _miss(self, what):
        self.missing.append(what)
        self.timeline.say(f"MISSING: {what}")

    # --- what is done ---

    def plug_phone(self, port, phone):
        self.phones[phone] = 0
        return self.unit.plug(port, phone)

    def ask(self, sender, data):
        """Another service speaks to ours, over its own socket."""
        record = usbrecords.decode("usb", data, sender)
        self.timeline.say(f"{sender} asks  ({len(data)} bytes)")
        self.timeline.say(f"    {_words(record)}")
        self.unit.send(sender, data)

    # --- what is told ---

    def device(self):
        """Says what the service read of the device that came, from its log."""
        line = next((one.text for one in self.unit.logs(self.mark) if "manufacturer:" in one.text), None)
        if line:
            self.timeline.say("the device: " + line.partition("vid:")[1] + line.partition("vid:")[2])

    def tell(self):
        """Prints in order what was sent, seen by the phones and entered since the last step, each with the seconds
        since the one before."""
        self.unit.settle(0.7)
        here = self.unit.mark()
        entries = self._records() + self._states() + self._phone_events()
        for entry in sorted(entries, key=lambda one: one.time):
            since = 0.0 if self.last is None else max(0.0, entry.time - self.last)
            self.last = entry.time
            self.timeline.say(f"+{since:.3f} s  {entry.lines[0]}")
            for line in entry.lines[1:]:
                self.timeline.say(f"    {line}")
        self.mark = here

    def _records(self):
        groups = []
        for record in self.unit.records(since=self.mark):
            # A packet to several processes leaves at once: find its group by its bytes, near in time.
            for group in reversed(groups):
                if group[0].bytes == record.bytes and record.time - group[0].time < TOGETHER and \
                        record.receiver not in [one.receiver for one in group]:
                    group.append(record)
                    break
            else:
                groups.append([record])
        return [self._record_entry(group) for group in groups]

    def _record_entry(self, group):
        named = [one.receiver for one in group if one.receiver in NAMED]
        others = len(group) - len(named)
        to = ", ".join(named) + (f" + {others} other listeners" if others else "")
        record = usbrecords.decode(group[0].receiver, group[0].bytes)
        for fault in record.faults:
            self._miss(f"a sound {record.name}: {fault}")
        return Entry(group[0].time, [f"to {to}  ({len(record.data)} bytes)", _words(record)])

    def _states(self):
        changes = [(line.time, STATE.search(line.text)) for line in self.unit.logs(self.mark)]
        return [Entry(when, [f"{found[1]}: {found[2]} -> {found[3]}"]) for when, found in changes if found]

    def _phone_events(self):
        entries = []
        for phone, since in self.phones.items():
            events = phone.events(since)
            self.phones[phone] = since + len(events)
            for event in events:
                text = _phone_words(event.what)
                if text:
                    entries.append(Entry(event.time, [f"the phone {text}"]))
        return entries

    def mounts(self, when):
        self.timeline.say(f"mount table {when}:")
        for line in self.unit.mounts() or ["(nothing below /tmp)"]:
            self.timeline.say(f"    {line}")


def _words(record):
    name, _, fields = record.describe().partition(" ")
    return f"{name}  {fields}".rstrip()


def _phone_words(event):
    """None for what only follows from something else."""
    what, _, rest = event.partition(" ")
    if what == "transfer":
        request_type, request, _, index, data, answer = rest.split(" ")
        key = int(request_type, 16), int(request, 16)
        if key == (0x40, 52):
            text = bytes.fromhex(data).rstrip(b"\0").decode()
            return f"is told the {NAMES[int(index, 16)]} \"{text}\""
        if key not in REQUESTS:
            return None    # a driver of the guest's kernel
        return f"is {REQUESTS[key]}: answers {answer}"
    return {"left": "leaves the bus", "came": f"is on the bus, as {rest}", "cut": "has lost its power",
            "restored": "has power again"}.get(what)
