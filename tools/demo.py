#!/usr/bin/python3
"""The virtual head unit's show: the service starts, two sticks are plugged in and pulled, and everything that it tells
the other services is printed as a timeline, field by field. Exits non-zero when something expected did not come."""
import pathlib
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(ROOT / "tools" / "headunit"), str(ROOT / "tools" / "records")]

import usbrecords  # noqa: E402
from headunit import HeadUnit, HeadUnitError, Stick, sticks  # noqa: E402

WAIT = 30          # seconds, for a record that must come; a stick's partition takes about two
ALIVE = 2          # seconds without a line, after which one says that we still wait
NAMED = ("media", "navi", "speech", "diag", "test", "voltage", "sdcm")


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
            self._print(text)

    def happens(self, text):
        with self.lock:
            self._print(f"\n{time.monotonic() - self.begin:8.2f} s  {text}")

    def wait_for(self, what):
        with self.lock:
            self.waiting, self.last = what, time.monotonic()


class Show:
    def __init__(self, unit, timeline):
        self.unit = unit
        self.timeline = timeline
        self.mark = unit.mark()
        self.missing = []

    def expect(self, what, receiver, **fields):
        """Waits for a record to that receiver, sent since the last step, whose fields say that."""
        def fits(record):
            decoded = usbrecords.decode(receiver, record.bytes)
            return all(name in decoded.fields and decoded.fields[name] == value for name, value in fields.items()
                       if name != "name") and fields.get("name", decoded.name) == decoded.name
        self.timeline.wait_for(f"waiting for {what}")
        try:
            self.unit.wait_record(receiver, fits, WAIT, self.mark, what)
        except HeadUnitError:
            self.missing.append(what)
            self.timeline.say(f"             MISSING: {what} to {receiver}")
        self.timeline.wait_for("")

    def device(self):
        """Says what the service read of the device that came, from its log."""
        line = next((one.text for one in self.unit.logs(self.mark) if "manufacturer:" in one.text), None)
        if line:
            self.timeline.say("             the device: " + line.partition("vid:")[1] + line.partition("vid:")[2])

    def tell(self):
        """Prints what the service has sent since the last step: equal records to several receivers are one line."""
        self.unit.settle(0.7)
        begin, groups = None, []
        for record in self.unit.records(since=self.mark):
            begin = record.time if begin is None else begin
            # A packet to several processes leaves at once: find its group by its bytes, near in time.
            for group in reversed(groups):
                if group[0].bytes == record.bytes and record.time - group[0].time < 0.2 and \
                        record.receiver not in [one.receiver for one in group]:
                    group.append(record)
                    break
            else:
                groups.append([record])
        for group in groups:
            self._tell(group, begin)
        self.mark = self.unit.mark()

    def _tell(self, group, begin):
        named = [one.receiver for one in group if one.receiver in NAMED]
        others = len(group) - len(named)
        to = ", ".join(named) + (f" + {others} other listeners" if others else "")
        record = usbrecords.decode(group[0].receiver, group[0].bytes)
        self.timeline.say(f"             +{group[0].time - begin:.3f} s  to {to}  ({len(record.data)} bytes)")
        words = record.describe().split(" ", 1)
        self.timeline.say(f"                 {words[0]}" + (f"  {words[1]}" if len(words) > 1 else ""))
        for fault in record.faults:
            self.missing.append(f"a sound {record.name}: {fault}")

    def mounts(self, when):
        self.timeline.say(f"\n             mount table {when}:")
        for line in self.unit.mounts() or ["(nothing below /tmp)"]:
            self.timeline.say(f"                 {line}")


def stick_comes(show, port, name, image, label, uuid, fs_type):
    show.timeline.happens(f"{name} is plugged into port {port}")
    stick = show.unit.plug(f"1.{port}", Stick(image, serial=f"STICK{port}"))
    show.expect("the device's state", "diag", name="diag_device_state", connected=1)
    show.device()
    show.expect("its insertion", "media", name="st_storage_pkt", cmd=2, port=port)
    show.expect("its mount", "media", name="st_storage_pkt", cmd=3, port=port, partition=1, label=label, uuid=uuid,
                fs_type=fs_type, mount_path=f"/tmp/USB/PORT{port}/PART1/")
    show.tell()
    return stick


def stick_goes(show, port, stick):
    show.timeline.happens(f"the stick is pulled from port {port}")
    show.unit.unplug(stick)
    show.expect("its ejection", "media", name="st_storage_pkt", cmd=5, port=port, partition=1)
    show.expect("the device's state", "diag", name="diag_device_state", connected=0)
    show.tell()


def run(timeline, folder):
    first = sticks.mbr(folder / "first", [sticks.Vfat(label="STICK", uuid=0x1234ABCD, files={"song.mp3": b"la"})])
    # exfat carries another name on the unit's kernel, so ext4 it is for the second one.
    second = sticks.mbr(folder / "second", [sticks.Ext4(label="MUSIC", uuid="0f0f0f0f-1111-2222-3333-444444444444")])

    timeline.wait_for("the virtual head unit boots")
    with HeadUnit() as unit:
        timeline.wait_for("")
        timeline.happens(f"the head unit has booted: {unit.sh('uname -srm')}, in {unit.boot_seconds:.1f} s")
        timeline.say(f"             the vehicle's hub: {unit.usb_path('1')}")
        show = Show(unit, timeline)
        show.mounts("before")

        timeline.happens("usbservice starts")
        # Attributes that a stock kernel lacks are on the unit's: the number of a disk's partitions is one.
        unit.disk_partno(True)
        unit.start_service()
        show.expect("the start-up report of the optical status", "diag", name="diag_external_optical_status")
        show.expect("the beginning of the scan", "sdcm", id=3)
        show.expect("the end of the scan", "sdcm", id=4)
        show.expect("healthy communication with the hub", "diag", name="diag_faulty_communication", result=0)
        show.tell()

        one = stick_comes(show, 1, "a vfat stick", first, "STICK", "1234-ABCD", "vfat")
        two = stick_comes(show, 2, "an ext4 stick", second, "MUSIC", "0f0f0f0f-1111-2222-3333-4444444"[:31], "ext4")
        show.mounts("with both sticks")
        timeline.say("\n             the first stick's files: " + unit.sh("ls /tmp/USB/PORT1/PART1"))
        if len(unit.mounts()) != 2 or not unit.exists("/tmp/USB/PORT1/PART1/song.mp3"):
            show.missing.append("two mounts and a readable file")

        stick_goes(show, 1, one)
        stick_goes(show, 2, two)
        show.mounts("after")
        if unit.mounts() or unit.exists("/tmp/USB"):
            show.missing.append("an empty mount table and no directory left over")
        if unit.service_pid is None:
            show.missing.append("a service that still runs")
        return show.missing


def main():
    timeline = Timeline()
    try:
        with tempfile.TemporaryDirectory(prefix="demo-") as folder:
            missing = run(timeline, pathlib.Path(folder))
    except HeadUnitError as error:
        timeline.say(f"\nFAILED: {error}")
        return 1
    finally:
        timeline.over.set()
    if missing:
        timeline.say("\nFAILED, this did not come: " + "; ".join(missing))
        return 1
    timeline.say("\nEverything expected came.")
    return 0


sys.exit(main())
