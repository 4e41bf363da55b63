#!/usr/bin/python3
"""usbservice-ports before a service that the tests play: what it shows, and how it ends."""
import fcntl
import json
import os
import pty
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import threading
import time
import unittest

PROGRAM = os.environ.get("USBSERVICE-PORTS", "usbservice-ports")
AS_ASKED, USAGE, NO_ANSWER, NOT_UNDERSTOOD = 0, 2, 4, 5
SECOND = 1000000000
PORT1 = "/devices/soc/usb1/1-1/1-1.1"


def record(kind, data, row=0):
    return struct.pack("<IIQ", kind, len(data), row) + data


def start(magic=0x5453534B, version=1, process=417, started=10 * SECOND, now=100 * SECOND):
    return record(1, struct.pack("<IHHIIQQ", magic, version, 16, process, 0, started, now))


def end(records, refused=0):
    return record(2, struct.pack("<IIQ", records, 0, refused))


def number(name, value):
    return record(3, struct.pack("<24sQ", name.encode(), value))


def queue(name, waiting, high_water, dropped):
    return record(4, struct.pack("<24sQQQ", name.encode(), waiting, high_water, dropped))


def receiver(name, sent, dropped, waiting):
    return record(5, struct.pack("<24sQQQ", name.encode(), sent, dropped, waiting))


def device_bytes(port=1, dev_type=5, vid=0x951, pid=0x1666, serial=b"E0D5", product=b"DataTraveler",
                 manufacturer=b"Kingston", devpath=PORT1.encode()):
    return struct.pack("<IHHB3x64s64s64s128s", dev_type, vid, pid, port, serial, product, manufacturer, devpath)


def port(number=1, state=1, name="STATE_ATTACH", since=87 * SECOND + 700000000, device=None):
    return record(256, struct.pack("<QIB3x24s", since, state, number, name.encode()) +
                  (device_bytes() if device is None else device), 7)


def device(**values):
    return record(257, device_bytes(**values), 8)


def mount(label=b"STICK"):
    return record(258, struct.pack("<BBxx32s64s64s64s256s", 1, 2, b"vfat", b"/tmp/USB/PORT1/PART2/", label,
                                   b"1234-ABCD", (PORT1 + "/block/sda/sda2").encode()), 9)


def settings():
    return record(259, struct.pack("<10I", 3, 0, 1, 2, 9, 1, 1, 0, 0, 1), 1)


NUMBERS = [number("version", 1), number("state", 2), number("uevents", 1234), number("nodes", 6)]


def snapshot(*records, **head):
    """A whole one: start, records, numbers, end."""
    everything = [*records, *NUMBERS]
    return [start(**head), *everything, end(len(everything))]


FULL = (settings(), port(), device(), mount(), queue("usb", 1, 4096, 2), receiver("media", 10, 3, 4))
EMPTY_DEVICE = bytes(332)


class Service:
    """Answers each connection with the next of its answers, the last one again and again. An answer that is no list is
    called with the connection."""

    def __init__(self, folder, *answers):
        os.makedirs(f"{folder}/usb", exist_ok=True)
        self.answers = list(answers)
        self.asked = 0
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.path = f"{folder}/usb/status"
        self.listener.bind(self.path)
        self.listener.listen(16)
        self.thread = threading.Thread(target=self.work, daemon=True)
        self.thread.start()

    def work(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            answer = self.answers[min(self.asked, len(self.answers) - 1)]
            self.asked += 1
            with connection:
                if callable(answer):
                    answer(connection)
                    continue
                for datagram in answer:
                    try:
                        connection.send(datagram)
                    except OSError:
                        break

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join(10)
        self.listener.close()
        os.unlink(self.path)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class PortsCase(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kipc-")
        self.addCleanup(shutil.rmtree, self.folder)

    def serve(self, *answers):
        service = Service(self.folder, *answers)
        self.addCleanup(service.close)
        return service

    def environment(self, **more):
        return {"KIPC_DIR": self.folder, "PATH": "/usr/bin:/bin", "TERM": "xterm", "ASAN_OPTIONS": "exitcode=99",
                "UBSAN_OPTIONS": "exitcode=99", "TSAN_OPTIONS": "exitcode=99", **more}

    def run_it(self, *words, expect=AS_ASKED, **environment):
        done = subprocess.run([PROGRAM, *words], stdin=subprocess.DEVNULL, capture_output=True, timeout=60,
                              env=self.environment(**environment))
        self.assertEqual(done.returncode, expect, done)
        return done.stdout.decode(), done.stderr.decode()

    def start_it(self, *words, **how):
        process = subprocess.Popen([PROGRAM, *words], stdin=subprocess.DEVNULL, env=self.environment(),
                                   **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **how})

        def finish():
            if process.poll() is None:
                process.kill()
            process.wait()
            for pipe in (process.stdout, process.stderr):
                if pipe:
                    pipe.close()
        self.addCleanup(finish)
        return process


class Json(PortsCase):
    def test_everything_that_the_service_shows_is_in_one_object_on_one_line(self):
        self.serve(snapshot(*FULL))
        out, err = self.run_it("--json")
        self.assertEqual(err, "")
        self.assertEqual(out.count("\n"), 1)
        known = {"dev_type": "storage", "vid": 0x951, "pid": 0x1666, "serial": "E0D5", "product": "DataTraveler",
                 "manufacturer": "Kingston", "devpath": PORT1}
        self.assertEqual(json.loads(out), {
            "service": {"pid": 417, "started_ns": 10 * SECOND, "now_ns": 100 * SECOND, "state": "running",
                        "uevents": 1234, "nodes": 6, "not_shown": 0},
            "ports": [{"port": 1, "state": "STATE_ATTACH", "since_ns": 87700000000, **known}],
            "devices": [{"port": 1, **known}],
            "mounts": [{"port": 1, "partition": 2, "mount_path": "/tmp/USB/PORT1/PART2/", "fs_type": "vfat",
                        "label": "STICK", "uuid": "1234-ABCD", "devpath": PORT1 + "/block/sda/sda2"}],
            "settings": {"coding": 3, "adaption": {"1": "unknown", "2": "active", "3": "inactive", "4": "9"},
                         "customer_hub_support": 1, "force_enable": [1, 0], "device_mode": [0, 1]},
            "receivers": [{"name": "media", "sent": 10, "dropped": 3, "waiting": 4}],
            "queues": [{"name": "usb", "waiting": 1, "high_water_bytes": 4096, "dropped": 2}]})

    def test_a_service_that_shows_nothing_yet_has_empty_lists(self):
        self.serve(snapshot())
        seen = json.loads(self.run_it("--json")[0])
        self.assertEqual([seen[name] for name in ("ports", "devices", "mounts", "receivers", "queues")], [[]] * 5)
        self.assertIsNone(seen["settings"])

    def test_texts_of_devices_are_escaped_and_what_is_no_utf8_is_replaced(self):
        self.serve(snapshot(device(product=b'\x1b[31m"\n\xff' + "ü".encode(), serial=b"S" * 64)))
        out, _ = self.run_it("--json")
        self.assertNotIn("\x1b", out)
        self.assertEqual(json.loads(out)["devices"][0]["product"], '\x1b[31m"\n�ü')
        self.assertEqual(json.loads(out)["devices"][0]["serial"], "S" * 64)

    def test_a_kind_that_nobody_knows_is_passed_over(self):
        self.serve(snapshot(record(999, b"?"), *FULL))
        self.assertEqual(len(json.loads(self.run_it("--json")[0])["ports"]), 1)

    def test_each_state_of_the_service_has_its_word(self):
        for state, word in enumerate(("starting", "scanning", "running", "3")):
            with self.subTest(word):
                with Service(self.folder, [start(), number("version", 1), number("state", state), end(2)]):
                    self.assertEqual(json.loads(self.run_it("--json")[0])["service"]["state"], word)

    def test_with_watch_each_change_is_a_line_and_time_alone_is_none(self):
        service = self.serve(snapshot(now=1 * SECOND), snapshot(now=2 * SECOND), snapshot(port(), now=3 * SECOND),
                             snapshot(port(), now=4 * SECOND), snapshot(now=5 * SECOND))
        process = self.start_it("--json", "--watch", "--interval", "0.1")
        lines = [json.loads(process.stdout.readline()) for _ in range(3)]
        self.assertEqual([(line["service"]["now_ns"] // SECOND, len(line["ports"])) for line in lines],
                         [(1, 0), (3, 1), (5, 0)])
        asked = service.asked
        while service.asked < asked + 2:        # it looks on
            time.sleep(0.05)
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(20), AS_ASKED)
        self.assertEqual((process.stdout.read(), process.stderr.read()), (b"", b""))

    def test_with_watch_it_stays_while_the_service_is_restarted(self):
        process = self.start_it("--json", "--watch", "--interval", "0.1")
        said = process.stderr.readline().decode()
        self.assertEqual(said, f"usbservice-ports: {self.folder}/usb/status: No such file or directory\n")
        self.serve(snapshot())
        self.assertEqual(json.loads(process.stdout.readline())["service"]["pid"], 417)
        process.terminate()
        self.assertEqual(process.wait(20), AS_ASKED)
        self.assertIn(process.stderr.read(),
                      (b"", f"usbservice-ports: {self.folder}/usb/status: Connection refused\n".encode()))


class Table(PortsCase):
    def test_the_table_of_everything(self):
        self.serve(snapshot(*FULL, port(number=32, state=0, name="STATE_DETACH", since=0, device=EMPTY_DEVICE)))
        out, err = self.run_it("--once")
        self.assertEqual(err, "")
        self.assertEqual(out, """\
usbservice 417, running, up 1 min 30 s, 1234 uevents, 6 nodes

PORT  STATE         SINCE             TYPE     VID:PID    DEVICE
1     STATE_ATTACH  since 12.3 s      storage  0951:1666  Kingston DataTraveler
32    STATE_DETACH  since 1 min 40 s  -        -          -

DEVICE ON PORT  TYPE     VID:PID    NAME                   SERIAL  PATH
1               storage  0951:1666  Kingston DataTraveler  E0D5    /devices/soc/usb1/1-1/1-1.1

VOLUME ON PORT  PART  MOUNTED AT             TYPE  LABEL  UUID
1               2     /tmp/USB/PORT1/PART2/  vfat  STICK  1234-ABCD

SETTING                VALUE
coding                 3
adaption of ports      1 unknown, 2 active, 3 inactive, 4 9
customer hub support   1
force enable of ports  1 1, 2 0
device mode of ports   1 0, 2 1

RECEIVER  SENT  DROPPED  WAITING
media     10    3        4

QUEUE  WAITING  MOST BYTES  DROPPED
usb    1        4096        2
""")

    def test_a_service_that_shows_nothing_yet(self):
        self.serve(snapshot())
        out, _ = self.run_it()      # no terminal: once
        self.assertEqual(out.count("none"), 6)

    def test_what_could_not_be_shown_is_said(self):
        self.serve([start(), *NUMBERS, end(4, refused=12)])
        self.assertIn("12 times something could not be shown", self.run_it("--once")[0])

    def test_texts_of_devices_cannot_reach_the_terminal_as_they_are(self):
        self.serve(snapshot(device(product=b'\x1b]0;owned\x07"\xff', manufacturer="Größe".encode()),
                            mount(b"\x1b[2J")))
        out, _ = self.run_it("--once")
        self.assertNotIn("\x1b", out)
        self.assertNotIn("\x07", out)
        self.assertIn('Größe \\x1b]0;owned\\x07\\"\\xff', out)
        self.assertIn("\\x1b[2J", out)

    def test_columns_stand_below_each_other_whatever_the_letters(self):
        self.serve(snapshot(device(product="Größe".encode(), manufacturer=b"", serial=b"ONE"),
                            device(product=b"1234567", manufacturer=b"", serial=b"TWO")))
        lines = self.run_it("--once")[0].splitlines()
        one = next(line for line in lines if "ONE" in line)
        two = next(line for line in lines if "TWO" in line)
        self.assertEqual(one.index("ONE"), two.index("TWO"))

    def test_durations(self):
        for seconds, said in ((0.04, "0.0 s"), (59.99, "59.9 s"), (60, "1 min 00 s"), (3599, "59 min 59 s"),
                              (3600, "1 h 00 min"), (86399, "23 h 59 min"), (86400, "1 d 00 h"),
                              (90 * 86400 + 3600, "90 d 01 h")):
            with self.subTest(said):
                with Service(self.folder, snapshot(started=SECOND, now=SECOND + int(seconds * SECOND))):
                    self.assertIn(f"up {said}, ", self.run_it("--once")[0])

    def test_colour_only_when_it_is_asked_for_or_on_a_terminal(self):
        self.serve(snapshot(*FULL))
        plain = self.run_it("--once")[0]
        self.assertNotIn("\x1b", plain)
        coloured = self.run_it("--once", "--color", "always", NO_COLOR="1")[0]
        self.assertIn("\x1b[31m3\x1b[0m", coloured, "lost records are red")
        self.assertEqual(re.sub("\x1b\\[[0-9]*m", "", coloured), plain)


class Terminal(PortsCase):
    def on_terminal(self, *words, rows=24, **environment):
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, 80, 0, 0))
        process = subprocess.Popen([PROGRAM, *words], stdin=slave, stdout=slave, stderr=slave,
                                   env=self.environment(**environment), start_new_session=True)
        os.close(slave)
        self.addCleanup(lambda: process.poll() is None and process.kill())
        return process, master

    def read_until(self, master, text, timeout=30):
        """What the terminal got, up to this text and what comes with it."""
        got = b""
        deadline = time.monotonic() + timeout
        while text.encode() not in got:
            left = deadline - time.monotonic()
            self.assertGreater(left, 0, got)
            if select.select([master], [], [], left)[0]:
                try:
                    got += os.read(master, 65536)
                except OSError:     # the other end is closed
                    break
        self.assertIn(text.encode(), got)
        return got.decode()

    def test_the_table_refreshes_on_a_screen_of_its_own_and_the_terminal_is_given_back(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
            with self.subTest(number.name):
                with Service(self.folder, snapshot(), snapshot(port(name="STATE_AA"))):
                    process, master = self.on_terminal("--interval", "0.1", rows=60)
                    got = self.read_until(master, "STATE_AA")
                    self.assertTrue(got.startswith("\x1b[?1049h\x1b[?25l"), got)
                    self.assertIn("\x1b[1m", got)
                    self.assertIn("none", got)
                    process.send_signal(number)
                    rest = self.read_until(master, "\x1b[?1049l")
                    self.assertIn("\x1b[?7h\x1b[?25h", rest)
                    self.assertEqual(process.wait(20), AS_ASKED)

    def test_a_small_terminal_gets_no_more_lines_than_it_has(self):
        self.serve(snapshot(*FULL))
        process, master = self.on_terminal("--interval", "60", rows=5)
        got = self.read_until(master, "\x1b[J")
        self.assertEqual(got.count("\r\n"), 4)
        process.terminate()
        self.assertEqual(process.wait(20), AS_ASKED)

    def test_without_a_service_the_screen_says_so_until_there_is_one(self):
        process, master = self.on_terminal("--interval", "0.1")
        self.read_until(master, "No such file or directory")
        self.serve(snapshot())
        self.read_until(master, "usbservice")
        process.terminate()
        self.assertEqual(process.wait(20), AS_ASKED)

    def test_no_color_is_heard(self):
        self.serve(snapshot(*FULL))
        process, master = self.on_terminal("--once", NO_COLOR="1")
        self.assertNotIn("\x1b", self.read_until(master, "QUEUE"))
        self.assertEqual(process.wait(20), AS_ASKED)

    def test_json_on_a_terminal_is_one_line_without_colour(self):
        self.serve(snapshot())
        process, master = self.on_terminal("--json")
        self.assertNotIn("\x1b", self.read_until(master, "\r\n"))
        self.assertEqual(process.wait(20), AS_ASKED)


class Failures(PortsCase):
    def test_no_service(self):
        out, err = self.run_it("--json", expect=NO_ANSWER)
        self.assertEqual((out, err), ("", f"usbservice-ports: {self.folder}/usb/status: No such file or directory\n"))

    def test_dir_counts_more_than_the_environment(self):
        _, err = self.run_it("--once", "--dir", "/nowhere", expect=NO_ANSWER)
        self.assertEqual(err, "usbservice-ports: /nowhere/usb/status: No such file or directory\n")

    def test_a_path_that_is_too_long(self):
        _, err = self.run_it("--once", "--dir", "/" + "x" * 200, expect=NO_ANSWER)
        self.assertIn("File name too long", err)

    def test_a_service_that_never_answers_is_given_up(self):
        released = threading.Event()
        self.addCleanup(released.set)
        self.serve(lambda connection: released.wait(60))
        began = time.monotonic()
        _, err = self.run_it("--once", expect=NO_ANSWER)
        self.assertEqual(err, f"usbservice-ports: {self.folder}/usb/status: no answer\n")
        self.assertLess(time.monotonic() - began, 30)

    def test_an_answer_without_its_end_or_with_missing_records_is_none(self):
        whole = snapshot(*FULL)
        for name, answer in (("nothing", []), ("no end", whole[:-1]), ("no start", whole[1:]),
                             ("one is missing", whole[:2] + whole[3:]), ("a short head", [b"abc", *whole]),
                             ("a wrong length", [whole[0], record(256, b"short"), *whole[1:]]),
                             ("a length that is not true", [whole[0], struct.pack("<IIQ", 3, 99, 0), *whole[1:]])):
            with self.subTest(name):
                with Service(self.folder, answer):
                    out, err = self.run_it("--json", expect=NOT_UNDERSTOOD)
                    self.assertEqual((out, err), ("", "usbservice-ports: the answer is no whole status\n"))

    def test_other_versions_are_refused(self):
        platform = "usbservice-ports: the answer is no status of this version of the service's platform\n"
        for answer, said in (
                ([start(version=2), b"anything"], platform), ([start(magic=1)], platform),
                ([start(), number("version", 2), record(256, b"of another layout"), end(2)],
                 "usbservice-ports: the service shows its status in version 2, not 1\n"),
                ([start(), end(0)], "usbservice-ports: the service shows its status in version 0, not 1\n")):
            with self.subTest(said):
                with Service(self.folder, answer):
                    self.assertEqual(self.run_it("--json", expect=NOT_UNDERSTOOD), ("", said))

    def test_a_flood_without_end_is_given_up(self):
        def flood(connection):
            try:
                while True:
                    connection.send(NUMBERS[0])
            except OSError:
                pass
        self.serve(flood)
        _, err = self.run_it("--json", expect=NO_ANSWER)
        self.assertIn("the answer has no end", err)

    def test_a_full_disk_is_said_and_a_closed_pipe_is_not(self):
        self.serve(snapshot(*FULL))
        with open("/dev/full", "w") as full:
            process = self.start_it("--json", stdout=full)
            self.assertEqual(process.wait(20), NO_ANSWER)
            self.assertEqual(process.stderr.read(), b"usbservice-ports: cannot write: No space left on device\n")
        read, write = os.pipe()
        os.close(read)
        process = self.start_it("--once", stdout=write)
        os.close(write)
        self.assertEqual(process.wait(20), NO_ANSWER)
        self.assertEqual(process.stderr.read(), b"")

    def test_a_reader_that_stopped_does_not_keep_the_program(self):
        self.serve(*[snapshot(*[device(product=b"%d" % (round * 1000 + i)) for i in range(250)]) for round in range(9)])
        process = self.start_it("--json", "--watch", "--interval", "0.1")
        process.stdout.read(1)
        time.sleep(1)       # the pipe fills up
        process.terminate()
        self.assertEqual(process.wait(20), AS_ASKED)

    def test_wrong_options(self):
        for words in (["--nothing"], ["stray"], ["--interval", "0"], ["--interval", "x"], ["--interval", "1e9"],
                      ["--color", "red"], ["--once", "--watch"]):
            with self.subTest(words):
                out, err = self.run_it(*words, expect=USAGE)
                self.assertEqual(out, "")
                self.assertNotEqual(err, "")

    def test_help_and_version(self):
        out, err = self.run_it("--help")
        self.assertIn("Exit status:", out)
        self.assertEqual(err, "")
        self.assertRegex(self.run_it("--version")[0], r"^\d+\.\d+\n$")


if __name__ == "__main__":
    unittest.main()
