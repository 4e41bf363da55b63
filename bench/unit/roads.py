#!/usr/bin/python3
"""Where the processor's time goes on the roads of a stick and of a phone, in the virtual head unit.

The guest's clock counts its instructions, one a nanosecond, so what else the host does changes nothing, and a
microsecond here is a thousand instructions of the unit's processor. Prints JSON. Needs the image of the head unit
(tools/headunit/make-image.py) and the phones (tools/build.sh native headunit_phone)."""
import json
import pathlib
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools" / "headunit"), str(ROOT / "tools" / "records")]

import trace_of_threads as trace  # noqa: E402
import usbrecords  # noqa: E402
from headunit import HeadUnit, Phone, Stick, sticks  # noqa: E402

PATIENCE = 120      # s; counting instructions takes its time
THREADS = ("frame-event", "frame-usb", "frame-monitor", "kipc-writer", "kipc-sdcm")
NOT_OURS = ("children", "mount")     # of a step: processes that it starts, and the mount call


def threads_of(unit):
    """The service's threads by name."""
    tasks = f"/proc/{unit.service_pid}/task"
    lines = unit.sh(f"for task in {tasks}/*; do echo ${{task##*/}} $(cat $task/comm); done").splitlines()
    return {name: int(number) for number, name in (line.split() for line in lines)}


class Bench:
    def __init__(self, unit):
        self.unit = unit
        self.threads = threads_of(unit)

    def heard(self, receiver, since, **wanted):
        """Waits for a record of the service."""
        def fits(record):
            fields = usbrecords.decode(receiver, record.bytes).fields
            return all(fields.get(name) == value for name, value in wanted.items())
        self.unit.wait_record(receiver, fits, timeout=PATIENCE, since=since, what=f"{wanted} to {receiver}")

    def step(self, deed, receiver, **wanted):
        """Does something, waits for its record and for quiet; what the threads did meanwhile."""
        trace.start(self.unit, [self.threads[name] for name in THREADS])
        since = self.unit.mark()
        result = deed()
        self.heard(receiver, since, **wanted)
        self.unit.settle_records(1.0, timeout=PATIENCE)
        slices, calls = trace.read(trace.stop(self.unit))
        return result, Step(self.threads, slices, calls)


class Step:
    def __init__(self, threads, slices, calls):
        self.threads, self.slices, self.calls = threads, slices, calls

    def spent(self):
        """Events that came, microseconds of each thread and of the processes that they started."""
        ours = {number: name for name, number in self.threads.items()}
        event = self.threads["frame-event"]
        started = {one.thread for one in self.calls if one.thread not in ours}
        found = {"events": sum(one.thread == event and one.name == "recvfrom" for one in self.calls),
                 "threads": {ours[number]: trace.total(self.slices, {number}) for number in ours
                             if ours[number] in THREADS},
                 "started": round(sum(trace.total(self.slices, started).values()), 1)}
        together = {}
        for one in found["threads"].values():
            for what, time in one.items():
                together[what] = round(together.get(what, 0.0) + time, 1)
        found["together"] = together
        return found

    def partition(self):
        """From the partition's event to its volume's record: our share, beside the mount call and the block-id tool."""
        event, writer = self.threads["frame-event"], self.threads["kipc-writer"]

        def moments(thread, *names):
            return [one for one in self.calls if one.thread == thread and one.name in names]
        mount = moments(event, "mount")[0]
        begin = max(one.left for one in moments(event, "recvfrom") if one.left < mount.entered)
        end = min(one.entered for one in moments(event, "pselect6") if one.entered > mount.left)
        first = min(one.left for one in moments(writer, "sendto", "sendmsg") if one.left > mount.left)
        sent = min(one.entered for one in moments(writer, "epoll_pwait") if one.entered > first)

        handled = trace.total(self.slices, {event}, begin, end)
        own = {what: time for what, time in handled.items() if what not in NOT_OURS}
        for what, time in trace.total(self.slices, {writer}, mount.left, sent).items():
            own[what] = round(own.get(what, 0.0) + time, 1)
        tool = {one.thread for one in self.calls if one.thread not in self.threads.values()}
        return {"own_us": round(sum(own.values()), 1), "own": own,
                "fork_and_wait_us": handled.get("children", 0.0), "mount_us": handled.get("mount", 0.0),
                "tool_us": round(sum(trace.total(self.slices, tool, begin, end).values()), 1)}


def stick_road(bench, image):
    unit = bench.unit
    stick, came = bench.step(lambda: unit.plug("1.1", Stick(image)), "media", cmd=3)
    _, left = bench.step(lambda: unit.unplug(stick), "sdcm", id=2)
    return {"stick plugged": came.spent(), "stick pulled": left.spent()}, came.partition()


def phone_road(bench):
    unit = bench.unit
    phone, came = bench.step(lambda: unit.plug("1.2", Phone("android")), "sdcm", id=1)
    told = [usbrecords.decode("sdcm", one.bytes) for one in unit.records("sdcm")][-1]
    request = usbrecords.build("mode_request", id=12, vid=told["vid"], pid=told["pid"], serial=told["serial"],
                               devpath=told["devpath"], devid="BENCH")
    _, changed = bench.step(lambda: unit.send("sdcm", request), "sdcm", id=5, result=0)
    _, left = bench.step(lambda: unit.unplug(phone), "sdcm", id=2)
    return {"phone plugged": came.spent(), "phone to Android Auto": changed.spent(), "phone pulled": left.spent()}


def main():
    with tempfile.TemporaryDirectory(prefix="roads-") as folder, \
            HeadUnit(instruction_clock=True, boot_timeout=PATIENCE) as unit:
        image = sticks.mbr(pathlib.Path(folder) / "stick", [sticks.Vfat()])
        unit.disk_partno(True)
        unit.sh("echo 0 > /sys/module/usb_storage/parameters/delay_use")
        unit.start_service({"KA_LOG_LEVEL": "160"}, timeout=PATIENCE)
        unit.settle_records(2.0, timeout=PATIENCE)
        bench = Bench(unit)
        roads, partition = stick_road(bench, image)
        roads |= phone_road(bench)
    print(json.dumps({"partition": partition, "roads": roads}, indent=1))


main()
