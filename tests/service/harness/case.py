"""A bench for tests: the service runs in its world, with a board in front of it and its peers around it.

A class of tests starts the service once; each test plugs, expects, and takes away what it plugged."""
import itertools
import os
import signal
import sys
import time
import unittest

import usbrecords

from . import board, peers, service, uevents, volumes, world

_serial = itertools.count(1)


def programs():
    binary = os.environ.get("USBSERVICE")
    if not binary:
        sys.exit("USBSERVICE is not set: the path of the service to be tested.")
    out = {"usbservice": os.path.abspath(binary)}
    for variable in ("STORE_TOOL", "KIPCSEND", "KIPCMON", "USBSERVICE_PORTS"):
        if os.environ.get(variable):
            out[variable.lower()] = os.path.abspath(os.environ[variable])
    return out


class ServiceCase(unittest.TestCase):
    """Subclasses say in `prepare` what is there before the service starts."""
    LEVEL = 0               # of the service's log
    KEEP = None             # which of its lines are kept; all
    RECEIVERS = peers.RECEIVERS
    maxDiff = None

    # --- the class's one run ---

    @classmethod
    def setUpClass(cls):
        fresh_folders()
        world.set_blkid()
        cls.volumes = {}
        cls.board = board.Board()
        cls.peers = peers.Peers()
        cls.peers.start(*cls.RECEIVERS)
        cls.service = None
        cls.addClassCleanup(cls.leave)
        cls.prepare()
        cls.start_service()

    @classmethod
    def prepare(cls):
        pass

    @classmethod
    def start_service(cls, **environment):
        cls.service = service.Service(environment.pop("level", cls.LEVEL), environment, cls.KEEP)
        cls.wait_until_running()

    @classmethod
    def wait_until_running(cls):
        """The scan is over, and the frames take what comes."""
        deadline = time.monotonic() + 30
        while not any(record.data[4] == 4 for record in cls.peers.wait("sdcm", 2, 0, 0.2)):
            if not cls.service.runs() or time.monotonic() > deadline:
                raise AssertionError("the service did not finish its scan\n" +
                                     "\n".join(line.raw for line in cls.service.since(0)))
        if cls.service.level <= service.INFO:
            cls.settle()        # which reads the log

    @classmethod
    def restart_service(cls, **environment):
        cls.service.stop()
        cls.peers.hang_up()
        cls.peers.received.clear()
        cls.start_service(**environment)

    @classmethod
    def leave(cls):
        if cls.service:
            cls.service.stop()
        cls.peers.close()
        cls.board.close()
        for _, directory, _, _ in world.mounts():
            if directory.startswith("/tmp/"):
                world.unmount(directory, 2)
        for volume in cls.volumes.values():
            volume.close()
        for name in os.listdir("/dev"):
            if name.startswith("sd"):
                volumes.disappear(name)

    @classmethod
    def volume(cls, name, made):
        """Keeps a volume for the class. Call it in `prepare`: making one is itself an event for the service."""
        cls.volumes[name] = made
        return made

    # --- each test ---

    def setUp(self):
        self.mark()
        self.addCleanup(self.check_health)

    def mark(self):
        """From here on records and log lines count."""
        self.records_from = self.peers.mark()
        self.log_from = self.service.mark()

    def check_health(self):
        if not self.service.runs():
            status = self.service.stop()
            type(self).start_service()
            self.fail(f"the service ended: {status}")
        reports = self.service.sanitizer_reports()
        if reports:
            with self.service.changed:
                everything = "\n".join(line.raw for line in self.service.lines if line.level is None)
                self.service.lines.clear()
            self.fail(f"a sanitizer complains: {everything}")
        broken = self.service.broken_lines()
        if broken:
            with self.service.changed:
                self.service.lines.clear()
            self.fail(f"these are no whole log lines: {broken}")

    def story(self):
        """What led to a failure."""
        if not self.service:
            return "the service did not start"
        lines = self.service.since(self.log_from)
        if len(lines) > 400:
            lines = lines[:100] + [service.Line(f"... {len(lines) - 400} lines ...")] + lines[-300:]
        log = "\n".join(line.raw for line in lines)
        return f"--- records since the mark ---\n{self.peers.story(self.records_from)}\n" \
               f"--- log since the mark ---\n{log}\n--- mounts ---\n" + \
               "\n".join(" ".join(row) for row in world.mounts() if row[1].startswith("/tmp/")) + \
               "\n--- threads ---\n" + ("\n".join(self.service.waits()) if self.service.runs() else "it ended")

    # --- doing ---

    def send(self, peer, data):
        self.peers.send(peer, data)

    def raw(self, data):
        """A uevent as it is, to the group that the service listens to."""
        self.board.injector.raw(data)

    # --- seeing ---

    @classmethod
    def settle_events(cls, timeout=20):
        """Returns when the event frame has handled all that was told before."""
        token = f"barrier-{next(_serial)}"
        mark = cls.service.mark()
        cls.board.injector.raw(uevents.text(token, "/devices/barrier", SUBSYSTEM="platform"))
        if not cls.service.wait_log(f"unknown action({token})", mark, timeout):
            raise cls.failureException("the event frame is stuck, or lost an event")

    @classmethod
    def settle_commands(cls, timeout=10):
        """Returns when the command frame has handled all that was sent before by the settings store."""
        token = f"barrier-{next(_serial)}"
        mark = cls.service.mark()
        cls.peers.send("settings", token.encode() + b"\0")
        if not cls.service.wait_log(f"unknown str:{token}", mark, timeout):
            raise cls.failureException("the command frame is stuck")

    @classmethod
    def settle_requests(cls, timeout=20):
        """Returns when the command frame has handled all that was sent before by SDCM, and its answers are here. Only
        records of one sender keep their order."""
        id = 1000000 + next(_serial)
        mark = cls.service.mark()
        cls.peers.send("sdcm", usbrecords.message(id))
        if not cls.service.wait_log(f"unknown msgID:{id}", mark, timeout):
            raise cls.failureException("the command frame is stuck, or lost a request")
        cls.peers.quiet()

    @classmethod
    def settle(cls, timeout=20):
        """Returns when nothing of what was told or sent is still under way."""
        cls.settle_events(timeout)
        cls.settle_commands(timeout)
        cls.peers.quiet()

    def got(self, receiver):
        return self.peers.records(receiver, self.records_from)

    def await_records(self, receiver, count, timeout=10):
        records = self.peers.wait(receiver, count, self.records_from, timeout)
        if len(records) < count:
            self.fail(f"{receiver} got {len(records)} records instead of {count}: {records}")
        return records

    def expect(self, receiver, *expected):
        """The receiver got exactly these records since the mark, in this order. Wait until all is settled first."""
        wanted = [usbrecords.decode(receiver, one) if isinstance(one, bytes) else one for one in expected]
        got = self.peers.wait(receiver, len(wanted), self.records_from, 5)
        if got != wanted:
            self.fail(f"{receiver} got\n  " + "\n  ".join(map(str, got)) + "\nbut was to get\n  " +
                      "\n  ".join(map(str, wanted)))

    def expect_nothing(self, *receivers):
        for receiver in receivers:
            self.expect(receiver)

    def expect_log(self, text, timeout=10, level=None):
        line = self.service.wait_log(text, self.log_from, timeout)
        self.assertIsNotNone(line, f"not in the log: {text}")
        if level is not None:
            self.assertEqual(line.level, level, f"level of {line.raw}")
        return line

    def expect_no_log(self, text):
        self.assertNotIn(text, self.service.texts(self.log_from))

    def mounted(self, below="/tmp/"):
        """directory: (source, filesystem)"""
        return {directory: (source, kind) for source, directory, kind, _ in world.mounts()
                if directory.startswith(below)}

    # --- a stick comes and goes: what the service is for ---

    def assert_stick_is_announced(self, name="sda"):
        """After whatever happened before: a stick on port 1 is mounted and announced, and leaves again. The class has
        a volume "stick"."""
        self.settle()
        self.mark()
        self.volumes["stick"].appear_as(name + "1")
        volumes.disappear(name)
        nodes = board.stick("1-1.1", name, [name + "1"])
        self.board.plug(nodes)
        self.settle()
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": (f"/dev/{name}1", "ext4")})
        self.board.unplug(nodes)
        self.settle()
        said = [(record["cmd"], record["sub_cmd"], record["partition"]) for record in self.got("media")]
        self.assertEqual(said, [(2, 0, 1), (3, 0, 1), (5, 0, 1)])
        self.assertEqual(self.mounted(), {})
        self.assertFalse(os.path.exists("/tmp/USB"))
        self.assert_records_are_sound()

    def assert_records_are_sound(self):
        """No text of any record runs over its end, and each is known."""
        with self.peers.changed:
            received = list(self.peers.received)
        for one in received:
            record = one.record
            self.assertIsNotNone(record.name, str(one))
            self.assertEqual(record.faults, [], str(one))


def fresh_folders():
    """/tmp, /dev/shm, /data and /run as after a start of the unit."""
    for folder in ("/tmp", "/dev/shm", "/data", "/run"):
        world.unmount(folder, 2)
        mode = "mode=1777" if folder in ("/tmp", "/dev/shm") else "mode=755"
        world.mount(folder[1:], folder, "tmpfs", 0, mode)


class StoryResult(unittest.TextTestResult):
    """Prints with each failure what led to it, and how long a slow test took."""
    SLOW = 2

    def startTest(self, test):
        self.begun = time.monotonic()
        super().startTest(test)

    def stopTest(self, test):
        super().stopTest(test)
        took = time.monotonic() - self.begun
        if took > self.SLOW:
            self.stream.writeln(f"    {took:.1f} s")

    def tell(self, test, failure):
        if hasattr(test, "story"):
            return f"{failure}\n{test.story()}"
        return failure

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self.failures[-1] = (test, self.tell(test, self.failures[-1][1]))

    def addError(self, test, err):
        super().addError(test, err)
        self.errors[-1] = (test, self.tell(test, self.errors[-1][1]))


def main():
    """Runs the tests of the calling program inside the world."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped"))
    world.enter(programs())
    started = time.monotonic()
    program = unittest.main(module="__main__", verbosity=2, exit=False,
                            testRunner=unittest.TextTestRunner(verbosity=2, resultclass=StoryResult))
    result = program.result
    print(f"{result.testsRun} tests, {len(result.failures)} failed, {len(result.errors)} errors, "
          f"{time.monotonic() - started:.1f} s", flush=True)
    if result.testsRun == 0:
        sys.exit("no test was run")
    sys.exit(0 if result.wasSuccessful() else 1)
