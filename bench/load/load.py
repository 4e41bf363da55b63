#!/usr/bin/python3
"""What the service costs as a process, beside the floor below it: runs them in turn in a network, mount and process
namespace of our own with a made-up /sys, tells the kernel of events there, and reads the kernel's accounting.

    load.py --programs build/bench [--rounds 15] [--peers udevd busybox]       (root)

Prints JSON; what it does meanwhile goes to standard error. Times are the kernel's, in nanoseconds, of all threads."""
import argparse
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import statistics
import struct
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests" / "service"), str(ROOT / "tools" / "records")]

import events  # noqa: E402
from harness import board, peers, uevents, volumes, world  # noqa: E402

PROGRAMS = {"usbservice": "usbservice/usbservice", "floor": "bench/load/bench_floor",
            "inject": "bench/load/bench_inject", "enumerate": "bench/load/bench_enumerate",
            "read": "bench/load/bench_read", "stamp": "bench/load/bench_stamp"}
COMMANDS = {"threaded": [world.BENCH + "/bin/floor", "threads"]}
KOBJECT_UEVENT = 15
KERNEL_EVENTS = 1           # multicast group
ENVIRONMENT = {"PATH": "/usr/bin:/usr/sbin:/bin:/sbin", "SYSTEMD_DEVICE_VERIFY_SYSFS": "0"}
LOG = "/var/tmp/log"        # standard error of what runs

# Debian packages that read the same events, as they are. `usual`: where the program is.
PEERS = {
    "udevd": ("udev", ["/usr/lib/systemd/systemd-udevd", "/lib/systemd/systemd-udevd"], []),
    "udevadm": ("udev", ["/usr/bin/udevadm", "/bin/udevadm"], ["monitor", "--kernel", "--property"]),
    "busybox": ("busybox", ["/usr/bin/busybox", "/bin/busybox"], ["mdev", "-df"]),
    "usbguard": ("usbguard", ["/usr/sbin/usbguard-daemon"], ["-k", "-K", "-c", "/var/tmp/usbguard.conf"]),
}


class NotMeasured(Exception):
    pass


# --- what the kernel knows ---

def cpu_ns(pid):
    """Of the process with all its threads, living or not."""
    return time.clock_gettime_ns(~pid << 3 | 2)     # its scheduler clock, see clock_getcpuclockid


def children(pid):
    out = []
    for path in pathlib.Path(f"/proc/{pid}/task").glob("*/children"):
        try:
            out += [int(word) for word in path.read_text().split()]
        except OSError:
            pass
    return out


def cpu_ns_with_children(pid):
    """Those that ended count in ticks of a hundredth of a second."""
    total = 0
    for one in [pid] + children(pid):
        try:
            total += cpu_ns(one)
            fields = pathlib.Path(f"/proc/{one}/stat").read_text().rpartition(")")[2].split()
            total += (int(fields[13]) + int(fields[14])) * 1000000000 // os.sysconf("SC_CLK_TCK")
        except OSError:
            pass
    return total


def readers():
    """(waiting bytes, lost) of each socket in this network namespace that hears the kernel's events."""
    out = []
    with open("/proc/net/netlink") as file:
        head = file.readline().split()
        for line in file:
            row = dict(zip(head, line.split()))
            if int(row["Eth"]) == KOBJECT_UEVENT and int(row["Groups"], 16) & KERNEL_EVENTS:
                out.append((int(row["Rmem"]), int(row["Drops"])))
    return out


def lost():
    return sum(drops for _, drops in readers())


def wait_for(what, condition, timeout=60.0, pause=0.002):
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            raise NotMeasured(f"waited {timeout:.0f} s: {what}")
        time.sleep(pause)


# --- a reader of events ---

class Reader:
    """A program that runs; wait until its socket is bound. Ends with `with`."""

    def __init__(self, name, command, **environment):
        self.name = name
        self.is_peer = name in PEERS
        self.log = open(LOG, "wb")
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=self.log,
                                        env=ENVIRONMENT | environment, cwd="/")
        self.pid = self.process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        for pid in children(os.getpid()):       # what a peer left behind
            try:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
            except (ProcessLookupError, ChildProcessError):
                pass
        self.log.close()
        wait_for(f"{self.name}'s socket stays", lambda: not readers(), 10)

    def said(self):
        return pathlib.Path(LOG).read_text(errors="replace")

    def check(self):
        if self.process.poll() is not None:
            raise NotMeasured(f"{self.name} ended with {self.process.returncode}: {self.said()[-300:].strip()}")

    def is_bound(self):
        self.check()
        return bool(readers())

    def cpu(self):
        return cpu_ns_with_children(self.pid) if self.is_peer else cpu_ns(self.pid)

    def drain(self):
        def is_drained():
            self.check()
            return not any(waiting for waiting, _ in readers())
        wait_for(f"{self.name} has not read all events", is_drained, 120)
        # The last one is being handled; a peer may have handed many to its children.
        quiet = time.monotonic() + (0.3 if self.is_peer else 0.005)
        before = self.cpu()
        while time.monotonic() < quiet:
            time.sleep(0.005)
            if self.is_peer and self.cpu() != before:
                before, quiet = self.cpu(), time.monotonic() + 0.3


def start(name, command=None, level=160):
    reader = Reader(name, command or [f"{world.BENCH}/bin/{name}"], KA_LOG_LEVEL=str(level))
    try:
        wait_for(f"{name} opens no socket for events", reader.is_bound, 20)
        if name == "usbservice":
            time.sleep(0.1)         # its scan
        elif reader.is_peer:
            time.sleep(0.5)
    except BaseException:
        reader.__exit__()
        raise
    return reader


# --- measurements ---

class Load:
    def __init__(self, counts, made):
        self.counts = counts
        self.stream = b"".join(struct.pack("=I", len(one)) + one for one in made)

    def inject(self, count):
        """Nanoseconds that telling the kernel took."""
        told = subprocess.run([f"{world.BENCH}/bin/inject", str(count)], input=self.stream, capture_output=True)
        if told.returncode != 0:
            raise NotMeasured(f"no events could be injected: {told.stderr.decode().strip()}")
        return int(told.stdout)

    def batch(self, reader):
        """CPU ns per event, when all wait for the reader before it reads the first."""
        os.kill(reader.pid, signal.SIGSTOP)
        try:
            wait_for(f"{reader.name} does not stop", lambda: self.is_stopped(reader))
            self.inject(self.counts.events)
            before = reader.cpu()
        finally:
            os.kill(reader.pid, signal.SIGCONT)
        reader.drain()
        return (reader.cpu() - before) / self.counts.events

    @staticmethod
    def is_stopped(reader):
        tasks = pathlib.Path(f"/proc/{reader.pid}/task")
        return all("(stopped)" in path.read_text() for path in tasks.glob("*/status"))

    def full_speed(self, reader):
        """CPU ns per event, events lost, ns between two events told."""
        lost_before, before = lost(), reader.cpu()
        took = self.inject(self.counts.full)
        reader.drain()
        return {"full_ns": (reader.cpu() - before) / self.counts.full, "lost": lost() - lost_before,
                "pace_ns": took / self.counts.full}

    def round(self, name, command=None, batches=1):
        with start(name, command) as reader:
            self.inject(self.counts.warm)
            reader.drain()
            # The cheapest of some: what else runs on the machine only adds.
            batch = min(self.batch(reader) for _ in range(batches))
            return {"batch_ns": batch} | self.full_speed(reader)


def memory(pid):
    """Kilobytes by name."""
    with open(f"/proc/{pid}/smaps_rollup") as file:
        rows = {line.split()[0].rstrip(":"): int(line.split()[1]) for line in list(file)[1:]}
    return {"pss": rows["Pss"], "private": rows["Private_Clean"] + rows["Private_Dirty"],
            "anonymous": rows["Anonymous"], "rss": rows["Rss"]}


def switches(pid):
    """How often each thread slept, by its name."""
    out = {}
    for path in pathlib.Path(f"/proc/{pid}/task").iterdir():
        fields = dict(line.split(":\t", 1) for line in (path / "status").read_text().splitlines() if ":\t" in line)
        name = fields["Name"] if path.name != str(pid) else "main"
        out[name] = out.get(name, 0) + int(fields["voluntary_ctxt_switches"])
    return out


def heard(ear):
    """How many events the machine told of by itself: those of its devices are heard in every network namespace."""
    count = 0
    while True:
        try:
            ear.recv(1 << 16)
            count += 1
        except BlockingIOError:
            return count


def idle(counts):
    """Memory once the start is over, and how often each thread wakes up in so many seconds; not for events."""
    with start("usbservice") as service, \
            socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM, KOBJECT_UEVENT) as ear:
        ear.bind((0, KERNEL_EVENTS))
        ear.setblocking(False)
        time.sleep(1)
        used = memory(service.pid)
        heard(ear)
        before, since, cpu = switches(service.pid), time.monotonic(), cpu_ns(service.pid)
        time.sleep(counts.idle)
        seconds = time.monotonic() - since
        after = switches(service.pid)
        told = heard(ear)
        wakeups = {name: after[name] - before.get(name, 0) for name in sorted(after)}
        wakeups["frame-event"] = max(0, wakeups["frame-event"] - told)
        return {"memory_kb": used, "seconds": seconds, "events": told, "wakeups": wakeups,
                "cpu_ns_per_second": (cpu_ns(service.pid) - cpu) / seconds}


LINE = re.compile(r"\[ *(\d+)\.(\d{6})\] (?:128 \S+ \S+ \S+ \S+ )?(.*)")
MOMENTS = {"exec": "exec", "usbservice start": "start", "usbservice ready": "ready", "msgID:27": "scan_begin",
           "msgID:28": "scan_end"}


def moments(said):
    """When the service said what, in microseconds since it was started."""
    out = {}
    for line in said.splitlines():
        found = LINE.fullmatch(line)
        if found and found[3] in MOMENTS:
            out.setdefault(MOMENTS[found[3]], int(found[1]) * 1000000 + int(found[2]))
    return {name: at - out["exec"] for name, at in out.items()} if "exec" in out else {}


def start_up():
    """Microseconds from its start until the service says so."""
    command = [f"{world.BENCH}/bin/stamp", f"{world.BENCH}/bin/usbservice"]
    with Reader("usbservice", command, KA_LOG_LEVEL="128") as service:
        wait_for("the service's scan does not end", lambda: len(moments(service.said())) == len(MOMENTS), 20)
        return moments(service.said())


def enumerate_alone():
    """Microseconds, devices."""
    ran = subprocess.run([f"{world.BENCH}/bin/enumerate"], env=ENVIRONMENT, capture_output=True, text=True)
    if ran.returncode != 0:
        raise NotMeasured(f"the bare enumeration failed: {ran.stderr}")
    took, devices = ran.stdout.split()
    return int(took) / 1000, int(devices)


# --- the roads of a stick and of phones ---

def threads(pid):
    """Number of each thread that lives as long as the process, by its name."""
    names = {}
    for path in pathlib.Path(f"/proc/{pid}/task").iterdir():
        names[(path / "comm").read_text().strip() if path.name != str(pid) else "main"] = path.name
    return names


def thread_cpu_ns(pid, thread):
    return int(pathlib.Path(f"/proc/{pid}/task/{thread}/schedstat").read_text().split()[0])


def thread_reads(pid, thread):
    """Calls of read, without those of children."""
    rows = pathlib.Path(f"/proc/{pid}/task/{thread}/io").read_text().splitlines()
    return int(next(row for row in rows if row.startswith("syscr")).split()[1])


def children_ns(pid):
    """Of those that ended, in ticks of a hundredth of a second."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[13]) + int(fields[14])) * 1000000000 // os.sysconf("SC_CLK_TCK")


class Road:
    """What comes and goes on a port, and what that costs the service: all its threads but the monitor's, which runs
    anyway, and without the programs that it starts."""

    def __init__(self, unit, service):
        self.unit = unit
        self.pid = service.pid
        self.service = service
        self.threads = threads(service.pid)

    def state(self):
        own = cpu_ns(self.pid) - thread_cpu_ns(self.pid, self.threads["frame-monitor"])
        return {"cpu_ns": own, "event_ns": thread_cpu_ns(self.pid, self.threads["frame-event"]),
                "command_ns": thread_cpu_ns(self.pid, self.threads["frame-usb"]),
                "reads": sum(thread_reads(self.pid, self.threads[name]) for name in ("frame-event", "frame-usb")),
                "children_ns": children_ns(self.pid)}

    def settle(self):
        """Returns when nothing is left to do: neither for the service nor for what it started."""
        self.service.drain()
        deadline, quiet, before = time.monotonic() + 60, 0, None
        while quiet < 10:
            if time.monotonic() > deadline:
                raise NotMeasured("the service does not come to rest")
            time.sleep(0.005)
            now = cpu_ns(self.pid) - thread_cpu_ns(self.pid, self.threads["frame-monitor"])
            quiet = quiet + 1 if now == before and not children(self.pid) else 0
            before = now

    def travel(self, nodes, times):
        self.unit.plug(nodes)       # once to warm up
        self.settle()
        self.unit.unplug(nodes)
        self.settle()
        before = self.state()
        for _ in range(times):
            self.unit.plug(nodes)
            self.settle()
            self.unit.unplug(nodes)
            self.settle()
        after = self.state()
        return {key: (after[key] - before[key]) / times for key in before} | {"events": 2 * len(nodes)}


def roads(unit, counts):
    """By name: each with its own run of the service, per coming and going. Port 1 is free meanwhile."""
    keyboard = board.keyboard("1-1.1")
    for node in reversed(keyboard):
        unit.hide(node)
    read_ns = float(subprocess.run([f"{world.BENCH}/bin/read", "/sys" + board.ROOT_HUB + "/product"],
                                   capture_output=True, text=True, check=True).stdout)
    world.set_blkid()
    stick = volumes.filesystem()
    stick.appear_as("sda1")
    made = {"stick": board.stick("1-1.1"), "android": board.phone("1-1.1"), "iphone": board.iphone("1-1.1")}
    made["android"].append(board.network("1-1.1"))
    unit.injector = uevents.Injector()
    out = {}
    try:
        for name, nodes in made.items():
            with start("usbservice") as service:
                out[name] = Road(unit, service).travel(nodes, counts.roads) | {"read_ns": read_ns}
    finally:
        unit.injector.close()
        volumes.disappear("sda1")
        stick.close()
        unit.present_before_start(keyboard)
    return out


# --- the unit that they run on ---

def furnish(unit):
    """What an ordinary unit has when the service starts: its hub and something plugged into both ports, and the volumes
    of its own. No stick: identifying and mounting one is the work of others."""
    unit.present_before_start(board.root_hub() + board.vehicle_hub() + board.keyboard("1-1.1") +
                              board.keyboard("1-1.2"))
    card = "/devices/platform/soc/8804000.sdhci/mmc_host/mmc0/mmc0:0001/block/mmcblk0"
    unit.show(board.Node(card, "block", dict(MAJOR=179, MINOR=0, DEVNAME="mmcblk0", DEVTYPE="disk", DISKSEQ=1)))
    for number in range(1, 25):
        unit.show(board.Node(f"{card}/mmcblk0p{number}", "block",
                             dict(MAJOR=179, MINOR=number, DEVNAME=f"mmcblk0p{number}", DEVTYPE="partition", DISKSEQ=1,
                                  PARTN=number, PARTNAME=f"part{number}")))
    for number in range(8):
        unit.show(board.Node(f"/devices/virtual/block/loop{number}", "block",
                             dict(MAJOR=7, MINOR=number, DEVNAME=f"loop{number}", DEVTYPE="disk", DISKSEQ=10 + number)))


def find_peers(names):
    """(command by name, why not by name)"""
    commands, missing = {}, {}
    for name in names:
        if name not in PEERS:
            missing[name] = f"is no peer that is known here; there are {', '.join(PEERS)}"
            continue
        package, places, arguments = PEERS[name]
        program = next((path for path in places if os.access(path, os.X_OK)), None) or \
            shutil.which(os.path.basename(places[0]))
        if program:
            commands[name] = [program] + arguments
        else:
            missing[name] = f"is not installed (Debian package {package})"
    return commands, missing


def tell(text):
    print(text, file=sys.stderr, flush=True)


def measure(counts, made):
    for folder in ("run", "tmp", "data", "dev/shm"):
        os.makedirs(f"/{folder}", exist_ok=True)
    unit = board.Board()
    unit.injector.close()
    receivers = peers.Peers()
    receivers.start(*peers.RECEIVERS)
    furnish(unit)
    commands, missing = find_peers(counts.peers)
    if "usbguard" in commands:
        pathlib.Path("/var/tmp/usbguard.conf").write_text("RuleFile=/var/tmp/usbguard.rules\nIPCAllowedUsers=root\n")
        pathlib.Path("/var/tmp/usbguard.rules").touch()
        for path in ("/var/tmp/usbguard.conf", "/var/tmp/usbguard.rules"):
            os.chmod(path, 0o600)
    load = Load(counts, made)
    result = {"events": {"kinds": len(events.templates()), "mean_bytes": events.mean_bytes(made),
                         "batch": counts.events, "full_speed": counts.full},
              "rounds": [], "starts": [], "enumerations": [], "peers": {}, "missing_peers": missing}
    for number in range(counts.rounds):
        order = ["floor", "usbservice", "threaded"] if number % 2 == 0 else ["threaded", "usbservice", "floor"]
        one = {name: load.round(name, COMMANDS.get(name), counts.batches) for name in order}
        result["rounds"].append(one)
        tell(f"round {number + 1}: " + ", ".join(
            f"{name} {one[name]['batch_ns'] / 1000:.2f} µs an event, {one[name]['lost']} lost" for name in one))
    for _ in range(counts.starts):
        took, devices = enumerate_alone()
        result["enumerations"].append(took)
        result["devices"] = devices
        result["starts"].append(start_up())
    tell("a stick and phones come and go")
    result["roads"] = roads(unit, counts)
    tell(f"idle for {counts.idle} s")
    result["idle"] = idle(counts)
    for name, command in commands.items():
        try:
            rounds = [load.round(name, command) for _ in range(min(counts.rounds, 2))]
            with start(name, command) as reader:
                time.sleep(1)
                used = memory(reader.pid)
            result["peers"][name] = {key: statistics.median(one[key] for one in rounds) for key in rounds[0]} | \
                {"memory_kb": used}
            tell(f"{name}: {result['peers'][name]['batch_ns'] / 1000:.2f} µs an event")
        except NotMeasured as reason:
            missing[name] = f"was not measured: {reason}"
    receivers.close()
    unit.controls.close()
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--programs", required=True, type=pathlib.Path, help="build tree with bench_programs")
    parser.add_argument("--rounds", type=int, default=15)
    parser.add_argument("--events", type=int, default=10000, help="of a batch")
    parser.add_argument("--batches", type=int, default=3, help="of a round; the cheapest counts")
    parser.add_argument("--full", type=int, default=100000, help="at full speed")
    parser.add_argument("--warm", type=int, default=2000, help="before a measurement")
    parser.add_argument("--starts", type=int, default=41)
    parser.add_argument("--roads", type=int, default=20, help="how often a stick and phones come and go")
    parser.add_argument("--idle", type=int, default=20, help="seconds")
    parser.add_argument("--peers", nargs="*", default=[])
    counts = parser.parse_args()
    made = events.messages(events.templates())
    world.enter({name: str((counts.programs / path).resolve()) for name, path in PROGRAMS.items()})
    try:
        print(json.dumps(measure(counts, made), indent=1))
    except NotMeasured as reason:
        sys.exit(f"not measured: {reason}")


if __name__ == "__main__":
    main()
