#!/usr/bin/python3
"""kipcmon as a process, shown what a service would show it, and worse. Needs no root."""
import contextlib
import fcntl
import os
import pathlib
import pty
import random
import signal
import socket
import stat
import subprocess
import time
import unittest

from tap import (AS_ASKED, BROKEN, FAILED, FULL, IN, MONOTONIC_NS, NO_RECEIVER, ROOT, TAKEN, TOO_FEW, USAGE, VOLTAGE,
                 VOLTAGE_LINE, MonitorCase, datagram, head, search, usbrecords, voltage)

SEED = int(os.environ.get("SEED", "7"))


class Shown(MonitorCase):
    def shown(self, *datagrams, words=()):
        """The lines for these datagrams."""
        monitor = self.listening("--count", len(datagrams), *words)
        self.connect().send(*datagrams)
        self.assertEqual(monitor.end(), AS_ASKED)
        return monitor

    def test_a_record_is_one_line(self):
        self.assertEqual(self.shown(voltage()).lines, [VOLTAGE_LINE])

    def test_records_in_and_out_come_in_their_order(self):
        lines = self.shown(search(2), voltage(), search(1)).lines
        self.assertEqual([line.split(maxsplit=1)[1] for line in lines],
                         ["sdcm -> usb      search sender=command port=2 trigger=sdcm",
                          "usb -> voltage  voltage port=1 section=critical",
                          "sdcm -> usb      search sender=command port=1 trigger=sdcm"])

    def test_what_became_of_a_lost_record_and_what_is_wrong_with_one_is_said(self):
        wrong = bytearray(usbrecords.build("mount_check_result", mounted=1))
        wrong[4:36] = b"m" * 32
        lines = self.shown(voltage(outcome=NO_RECEIVER), voltage(outcome=FULL),
                           datagram(bytes(wrong), receiver="test")).lines
        self.assertEqual(lines[:2], [VOLTAGE_LINE + " (no receiver)", VOLTAGE_LINE + " (full)"])
        self.assertTrue(lines[2].endswith(f'mount_path="{"m" * 32}" [mount_path is not terminated]'), lines[2])

    def test_missing_records_are_told_where_they_are_missing(self):
        self.assertEqual(self.shown(voltage(), voltage(lost=12)).lines,
                         [VOLTAGE_LINE, "12 records were lost here", VOLTAGE_LINE])

    def test_json_says_everything(self):
        (shown,) = self.shown(voltage(lost=2, outcome=NO_RECEIVER), words=["--json"]).objects
        self.assertEqual(shown, {
            "time": "2023-11-14T22:13:20.123456789Z", "monotonic_ns": MONOTONIC_NS, "direction": "out", "sender": "usb",
            "receiver": "voltage", "outcome": "no receiver", "record": "voltage",
            "fields": {"kind": 5000, "port": 1, "section": 2}, "words": {"section": "critical"}, "faults": [],
            "hex": VOLTAGE.hex(), "lost": 2})

    def test_json_says_what_the_description_says_for_every_record(self):
        chance = random.Random(SEED)
        records, datagrams = [], []
        for name, description in usbrecords.RECORDS.items():
            for _ in range(5):
                data = bytearray(chance.randbytes(description["size"]))
                for field in description["fields"]:
                    if (always := usbrecords.fixed(field)) is not None:
                        data[field["at"]:field["at"] + len(always)] = always
                for receiver in description["to"]:
                    records.append(usbrecords.decode(receiver, data, description["from"]))
                    datagrams.append(datagram(bytes(data), description["from"], receiver))
        objects = self.shown(*datagrams, words=["--json"]).objects
        self.assertEqual(len(objects), len(records))
        for shown, record in zip(objects, records):
            with self.subTest(record.name, seed=SEED):
                self.assertEqual((shown["record"], shown["hex"]), (record.name, record.data.hex()))
                self.assertEqual(shown["faults"], record.faults)
                self.assertEqual({name: same(value) for name, value in shown["fields"].items()},
                                 {name: same(value) for name, value in record.fields.items()})
                words = {field["name"]: usbrecords.WORDS[field["words"]].get(record[field["name"]])
                         for field in record.description() if "words" in field}
                self.assertEqual(shown["words"], {name: word for name, word in words.items() if word is not None})
        self.assertEqual({record.name for record in records} - {None}, set(usbrecords.RECORDS))

    def test_filters_choose(self):
        monitor = self.listening("--receiver", "voltage", "--receiver", "usb", "--sender", "usb", "--sender", "sdcm",
                                 "--port", 2, "--count", 2)
        self.connect().send(voltage(1), search(3), datagram(b"?"), search(2), voltage(2), voltage(2))
        self.assertEqual(monitor.end(), AS_ASKED)
        self.assertEqual([line.split()[1:4] for line in monitor.lines],
                         [["sdcm", "->", "usb"], ["usb", "->", "voltage"]])

    def test_ids_are_words_or_numbers(self):
        for id in ("search", "18", "0x12"):
            monitor = self.listening("--id", id, "--count", 1)
            self.connect().send(voltage(), search(4))
            self.assertEqual(monitor.end(), AS_ASKED)
            self.assertIn(" search ", monitor.lines[0])


def same(value):
    """A field's value as both readers have it: bytes as hex, what is not UTF-8 as one U+FFFD."""
    if isinstance(value, bytes):
        return value.hex()
    if not isinstance(value, str):
        return value
    text = value.encode("utf-8", "surrogateescape").decode("utf-8", "replace")
    while "\ufffd\ufffd" in text:
        text = text.replace("\ufffd\ufffd", "\ufffd")
    return text


class Colour(MonitorCase):
    def on_a_terminal(self, *words, **environment):
        ours, its = pty.openpty()
        self.addCleanup(os.close, ours)
        monitor = self.listening("--count", 1, *words, stdout=its, environment=environment)
        os.close(its)
        self.connect().send(voltage())
        text = b""
        while b"\n" not in text:
            text += os.read(ours, 4096)
        self.assertEqual(monitor.end(), AS_ASKED)
        return b"\033[" in text

    def test_is_used_on_a_terminal_only(self):
        self.assertTrue(self.on_a_terminal())
        self.assertFalse(self.on_a_terminal("--color", "never"))
        self.assertFalse(self.on_a_terminal("--json"))
        self.assertFalse(self.on_a_terminal(NO_COLOR="1"))
        self.assertTrue(self.on_a_terminal(NO_COLOR=""))
        self.assertTrue(self.on_a_terminal("--color=always", NO_COLOR="1"))

    def test_can_be_forced_elsewhere(self):
        for words, coloured in (([], False), (["--color=always"], True)):
            monitor = self.listening("--count", 1, *words)
            self.connect().send(voltage())
            self.assertEqual(monitor.end(), AS_ASKED)
            self.assertEqual(b"\033[" in monitor.out, coloured)


class Place(MonitorCase):
    """The socket that the service connects to."""

    def test_it_is_removed_at_the_end_whichever_way(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            monitor = self.listening()
            path = f"{self.folder}/tap"
            self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o660)
            self.assertEqual(monitor.end(number), AS_ASKED)
            self.assertFalse(os.path.exists(path))
        self.assertEqual(self.run_to_end("--timeout", 0.05).status, AS_ASKED)
        self.assertEqual(os.listdir(self.folder), [])

    def test_one_that_was_left_behind_is_taken_over(self):
        self.listening().end(signal.SIGKILL)
        self.assertTrue(os.path.exists(f"{self.folder}/tap"))
        monitor = self.listening("--count", 1)
        self.assertEqual(monitor.said, [f"took over {self.folder}/tap from a monitor that is gone",
                                        f"listening at {self.folder}/tap"])
        self.connect().send(voltage())
        self.assertEqual(monitor.end(), AS_ASKED)

    def test_one_at_which_another_monitor_listens_is_left_alone(self):
        first = self.listening("--count", 1)
        second = self.run_to_end()
        self.assertEqual((second.status, second.said), (TAKEN, [f"another monitor listens at {self.folder}/tap"]))
        self.connect().send(voltage())
        self.assertEqual(first.end(), AS_ASKED)
        self.assertEqual(first.lines, [VOLTAGE_LINE])

    def test_one_at_which_a_monitor_listens_that_accepts_nobody_is_left_alone(self):
        self.listening().process.send_signal(signal.SIGSTOP)
        waiting = []
        with self.assertRaises(BlockingIOError):
            for _ in range(100):
                waiting.append(socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET | socket.SOCK_NONBLOCK))
                self.addCleanup(waiting[-1].close)
                waiting[-1].connect(f"{self.folder}/tap")
        self.assertEqual(self.run_to_end().status, TAKEN)
        self.assertTrue(os.path.exists(f"{self.folder}/tap"))

    def test_it_is_taken_by_one_at_a_time(self):
        folder = os.open(self.folder, os.O_RDONLY)
        fcntl.flock(folder, fcntl.LOCK_EX)      # as one does that is about to
        monitor = self.start()
        time.sleep(0.2)
        self.assertEqual(os.listdir(self.folder), [])
        os.close(folder)
        monitor.wait_said("listening at")

    def test_of_many_that_start_at_once_one_gets_it(self):
        self.listening().end(signal.SIGKILL)
        monitors = [self.start("--count", 1) for _ in range(8)]
        deadline = time.monotonic() + 20
        while sum(one.process.poll() is None for one in monitors) > 1 and time.monotonic() < deadline:
            time.sleep(0.01)
        alive = [one for one in monitors if one.process.poll() is None]
        self.assertEqual(len(alive), 1)
        alive[0].wait_said("listening at")
        self.connect().send(voltage())
        self.assertEqual(alive[0].end(), AS_ASKED)
        self.assertEqual(sorted(one.end() for one in monitors), [AS_ASKED] + [TAKEN] * 7)

    def test_what_is_no_socket_is_not_removed(self):
        path = pathlib.Path(self.folder, "tap")
        path.write_text("mine")
        monitor = self.run_to_end()
        self.assertEqual((monitor.status, monitor.said), (FAILED, [f"{path} is no socket"]))
        self.assertEqual(path.read_text(), "mine")

    def test_one_that_somebody_replaced_is_left_to_him(self):
        monitor = self.listening()
        path = f"{self.folder}/tap"
        os.unlink(path)
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as other:
            other.bind(path)
            self.assertEqual(monitor.end(signal.SIGTERM), AS_ASKED)
            self.assertTrue(os.path.exists(path))

    def test_a_folder_that_is_not_there_is_said(self):
        monitor = self.run_to_end("--dir", f"{self.folder}/none")
        self.assertEqual((monitor.status, monitor.said), (FAILED, [f"{self.folder}/none: No such file or directory"]))
        long = self.folder + "/" + "x" * 100
        os.mkdir(long)
        monitor = self.run_to_end("--dir", long)
        self.assertEqual((monitor.status, monitor.said), (FAILED, [f"{long}/tap: File name too long"]))


class Service(MonitorCase):
    """Who shows his records."""

    def test_it_may_leave_and_come_back(self):
        monitor = self.listening()
        for times in (1, 2, 3):
            tap = self.connect()
            tap.send(voltage())
            monitor.wait_lines(times)
            tap.close()
            monitor.wait_said(f"process {os.getpid()} has left", times)
        self.assertEqual(monitor.end(signal.SIGTERM), AS_ASKED)
        self.assertEqual(monitor.lines, [VOLTAGE_LINE] * 3)

    def test_what_it_sent_before_it_died_is_shown(self):
        monitor = self.listening("--count", 100)
        monitor.process.send_signal(signal.SIGSTOP)
        tap = self.connect()
        tap.send(*[voltage()] * 100)
        tap.close()
        monitor.process.send_signal(signal.SIGCONT)
        self.assertEqual(monitor.end(), AS_ASKED)
        self.assertEqual(monitor.lines, [VOLTAGE_LINE] * 100)

    def test_several_are_shown_at_once(self):
        monitor = self.listening("--count", 30)
        taps = [self.connect() for _ in range(10)]
        for _ in range(3):
            for port, tap in enumerate(taps):
                tap.send(voltage(port))
        self.assertEqual(monitor.end(), AS_ASKED)
        for port in range(10):
            self.assertEqual(sum(f"port={port} " in line for line in monitor.lines), 3)

    def test_more_than_it_takes_wait_until_one_leaves(self):
        monitor = self.listening()
        taps = []
        for port in range(66):
            taps.append(self.connect())
            taps[-1].send(voltage(port))
        monitor.wait_lines(64)
        time.sleep(0.1)
        self.assertEqual(len(monitor.lines), 64)
        taps[0].close()
        monitor.wait_lines(65)
        taps[10].send(voltage(100))
        monitor.wait_lines(66)
        taps[64].close()
        monitor.wait_lines(67)
        self.assertEqual(monitor.end(signal.SIGTERM), AS_ASKED)
        self.assertEqual([int(line.split("port=")[1].split()[0]) for line in monitor.lines][-3:], [64, 100, 65])

    def test_a_busy_one_loses_nothing(self):
        monitor = self.listening("--count", 20000, "--json")
        tap = self.connect()
        tap.send(*[voltage(port) for port in range(20000)])
        self.assertEqual(monitor.end(), AS_ASKED)
        self.assertEqual([one["fields"]["port"] for one in monitor.objects], list(range(20000)))


class Foreign(MonitorCase):
    """What no service of ours sends."""

    def refused(self, data, reason):
        monitor = self.listening()
        tap = self.connect()
        tap.send(data)
        self.assertTrue(tap.was_hung_up())
        monitor.wait_said(f"hung up on process {os.getpid()}: {reason}")
        self.connect().send(voltage())
        monitor.wait_lines(1)
        self.assertEqual(monitor.end(signal.SIGTERM), AS_ASKED)
        self.assertEqual(monitor.lines, [VOLTAGE_LINE])

    def test_less_than_a_head_is_refused(self):
        for length in (1, 4, 40, 95):
            self.refused(head(0)[:length], f"{length} byte")

    def test_other_magic_numbers_and_versions_are_refused(self):
        self.refused(head(0, magic=0x4B544150), "it is not the tap's: another magic number")
        self.refused(head(0, version=2), "the tap speaks version 2, this program version 1")
        self.refused(b"\xff" * 65536, "it is not the tap's: another magic number")

    def test_a_head_without_end_is_refused(self):
        self.refused(head(0, head_bytes=97), "a head of 97 bytes in a datagram of 96 bytes")
        self.refused(head(0, head_bytes=0), "a head of 0 bytes in a datagram of 96 bytes")

    def test_who_connects_again_and_again_is_complained_of_once(self):
        monitor = self.listening("--count", 1)
        for _ in range(20):
            tap = self.connect()
            tap.send(head(0, version=2))
            self.assertTrue(tap.was_hung_up())
        self.connect().send(voltage())
        self.assertEqual(monitor.end(), AS_ASKED)
        self.assertEqual(len(monitor.said), 2, monitor.said)

    def test_lies_are_marked(self):
        monitor = self.listening("--count", 4, "--json")
        self.connect().send(datagram(VOLTAGE, receiver="voltage", length=5),
                            datagram(VOLTAGE, receiver="voltage", length=0xffffffff),
                            datagram(VOLTAGE, "s" * 24, "r" * 24), datagram(VOLTAGE, direction=7, outcome=200))
        self.assertEqual(monitor.end(), AS_ASKED)
        self.assertEqual([one["faults"] for one in monitor.objects],
                         [["the head says 5 bytes, 12 bytes came"], ["the head says 4294967295 bytes, 12 bytes came"],
                          ["sender's name is not terminated", "receiver's name is not terminated"],
                          ["direction 7", "outcome 200"]])
        self.assertEqual([one["record"] for one in monitor.objects], ["voltage", "voltage", None, None])
        self.assertEqual(monitor.objects[3]["outcome"], "unknown")

    def test_the_largest_record_is_shown(self):
        large = random.Random(SEED).randbytes(65536)
        monitor = self.listening("--count", 2, "--json")
        self.connect().send(datagram(large), datagram(b""))
        self.assertEqual(monitor.end(), AS_ASKED)
        self.assertEqual([one["hex"] for one in monitor.objects], [large.hex(), ""])

    def test_one_larger_than_any_is_cut_and_marked(self):
        monitor = self.listening("--count", 1, "--json")
        self.connect().send(datagram(bytes(300000)))
        self.assertEqual(monitor.end(), AS_ASKED)
        (shown,) = monitor.objects
        self.assertEqual(len(shown["hex"]) // 2, 262144 - 96)
        self.assertEqual(shown["faults"], ["the head says 300000 bytes, 262048 bytes came"])

    def test_nothing_of_it_reaches_the_terminal_as_it_is(self):
        evil = b"\x1b]0;title\x07\x1b[2J\r\x9b\xff"
        monitor = self.listening("--count", 3, "--color=never")
        self.connect().send(datagram(usbrecords.build("st_usb_pkt", product=evil)), datagram(evil),
                            datagram(b"", "\x1b[2J", "\r\n"))
        self.assertEqual(monitor.end(), AS_ASKED)
        self.assertEqual(monitor.out.count(b"\n"), 3)
        self.assertEqual({byte for byte in monitor.out if byte < 0x20 or byte >= 0x7f}, {0x0a})
        self.assertIn(r'product="\x1b]0;title\x07\x1b[2J\x0d\x9b\xff"', monitor.lines[0])
        self.assertIn(r"\x1b[2J -> \x0d\x0a", monitor.lines[2])

    def test_random_datagrams_never_end_it(self):
        chance = random.Random(SEED)
        monitor = self.listening("--json", "--write", f"{self.folder}/kept")
        for _ in range(300):
            description = chance.choice(list(usbrecords.RECORDS.values()))
            data = bytearray(datagram(chance.randbytes(chance.choice((0, 3, 12, 136, 360, description["size"]))),
                                      description["from"], chance.choice(description["to"])))
            for _ in range(chance.randrange(4)):
                data[chance.randrange(len(data))] = chance.randrange(256)
            tap = self.connect()
            with contextlib.suppress(BrokenPipeError):    # one that it refuses makes it hang up
                tap.send(bytes(data), voltage())
            tap.close()
        tap = self.connect()
        tap.send(voltage(4242))
        monitor.wait_for(lambda: b'"port":4242' in monitor.out, f"the last record, seed {SEED}")
        self.assertEqual(monitor.end(signal.SIGTERM), AS_ASKED)
        again = self.run_to_end("--json", "--read", f"{self.folder}/kept")
        self.assertEqual((again.status, again.out), (AS_ASKED, monitor.out))


class Ending(MonitorCase):
    def test_the_timeout_ends_it(self):
        begin = time.monotonic()
        self.assertEqual(self.run_to_end("--timeout", "0.3").status, AS_ASKED)
        self.assertGreaterEqual(time.monotonic() - begin, 0.3)

    def test_the_timeout_with_too_few_records_is_a_failure(self):
        monitor = self.listening("--count", 2, "--timeout", "0.5")
        self.connect().send(voltage())
        self.assertEqual(monitor.end(), TOO_FEW)
        self.assertEqual(monitor.lines, [VOLTAGE_LINE])

    def test_a_signal_with_too_few_records_is_one_too(self):
        self.assertEqual(self.listening("--count", 2).end(signal.SIGINT), TOO_FEW)

    def test_a_reader_that_left_ends_it(self):
        read, write = os.pipe()
        monitor = self.listening(stdout=write)
        os.close(write)
        os.close(read)
        self.connect().send(voltage())
        self.assertEqual(monitor.end(), FAILED)
        self.assertEqual(len(monitor.said), 1, monitor.said)
        self.assertFalse(os.path.exists(f"{self.folder}/tap"))

    def test_a_full_disk_ends_it(self):
        with open("/dev/full", "wb") as full:
            monitor = self.listening(stdout=full)
        self.connect().send(voltage())
        self.assertEqual(monitor.end(), FAILED)
        self.assertEqual(monitor.said[-1], "cannot write: No space left on device")

    def test_a_reader_that_does_not_read_holds_up_no_signal(self):
        read, write = os.pipe()
        self.addCleanup(os.close, read)
        monitor = self.listening(stdout=write)
        os.set_blocking(write, False)
        tap = self.connect()
        tap.socket.setblocking(False)
        try:
            for _ in range(100000):
                tap.send(voltage())
            self.fail("the tap never became full")
        except BlockingIOError:
            pass
        os.close(write)
        self.assertEqual(monitor.end(signal.SIGTERM), AS_ASKED)
        self.assertFalse(os.path.exists(f"{self.folder}/tap"))

    def test_wrong_options_are_refused_and_say_why(self):
        for words, complaint in ((["--count", "0"], "'0' is no number of records"),
                                 (["--count", "x"], "'x' is no number of records"),
                                 (["--timeout", "nan"], "'nan' is no number of seconds"),
                                 (["--timeout", "-1"], "'-1' is no number of seconds"),
                                 (["--port", "1a"], "'1a' is no port"), (["--id", "seek"], "there is no id 'seek'"),
                                 (["--color", "blue"], "'blue' is none of auto, always, never"),
                                 (["--receiver", "medja"], "there is no process 'medja', only usb, monitor, "),
                                 (["--read", "x", "--dir", "y"], "--read"),
                                 (["--read", "x", "--timeout", "1"], "--read"),
                                 (["more"], "more"), (["--what"], "--what"), (["--count"], "--count")):
            with self.subTest(words):
                monitor = self.run_to_end(*words)
                self.assertEqual((monitor.status, monitor.out), (USAGE, b""))
                self.assertIn(complaint, monitor.err.decode())
        self.assertEqual(os.listdir(self.folder), [])

    def test_help_and_version_are_printed(self):
        self.assertIn("--receiver NAME", self.run_to_end("--help").out.decode())
        version = self.run_to_end("--version")
        self.assertEqual((version.status, version.out), (AS_ASKED, b"0.1\n"))


class Kept(MonitorCase):
    """Files of records."""

    def setUp(self):
        super().setUp()
        self.file = f"{self.folder}/kept.pcapng"

    def keep(self, *datagrams):
        monitor = self.listening("--count", len(datagrams), "--json", "--write", self.file)
        self.connect().send(*datagrams)
        self.assertEqual(monitor.end(), AS_ASKED)
        return monitor

    def test_they_are_shown_again_as_they_were(self):
        live = self.keep(voltage(lost=3), search(2), datagram(b"\0\xff", outcome=FULL), datagram(b""))
        again = self.run_to_end("--read", self.file, "--json")
        self.assertEqual((again.status, again.out, again.err), (AS_ASKED, live.out, b""))

    def test_filters_and_counts_choose_from_them(self):
        self.keep(voltage(1), search(2), voltage(2))
        self.assertEqual(self.run_to_end("--read", self.file, "--receiver", "voltage", "--port", "2").lines,
                         [VOLTAGE_LINE.replace("port=1", "port=2")])
        self.assertEqual(len(self.run_to_end("--read", self.file, "--count", "2").lines), 2)
        self.assertEqual(self.run_to_end("--read", self.file, "--count", "4").status, TOO_FEW)

    def test_what_was_lost_before_a_record_left_out_is_not_forgotten(self):
        self.keep(voltage(1, lost=2), voltage(2, lost=3))
        part = f"{self.folder}/part"
        self.assertEqual(self.run_to_end("--read", self.file, "--port", "2", "--write", part).status, AS_ASKED)
        (shown,) = self.run_to_end("--read", part, "--json").objects
        self.assertEqual(shown["lost"], 5)
        self.assertEqual(self.run_to_end("--read", self.file, "--port", "9").said, ["lost at the end: 5"])

    def test_they_pass_through_standard_output_and_input(self):
        self.keep(voltage(1), search(2))
        with open(self.file, "rb") as file:
            kept = file.read()
        copy = self.run_to_end("--read", self.file, "--write", "-")
        self.assertEqual((copy.status, copy.out), (AS_ASKED, kept))
        done = subprocess.run([os.environ["KIPCMON"], "--read", "-"], input=kept, stdout=subprocess.PIPE, check=True)
        self.assertEqual(done.stdout.count(b"\n"), 2)

    def test_a_monitor_that_is_killed_leaves_what_it_showed(self):
        monitor = self.listening("--write", self.file)
        self.connect().send(voltage(), search())
        monitor.wait_lines(2)
        monitor.end(signal.SIGKILL)
        again = self.run_to_end("--read", self.file)
        self.assertEqual((again.status, again.lines), (AS_ASKED, monitor.lines))

    def test_one_that_is_cut_is_shown_up_to_there(self):
        self.keep(voltage(), voltage(), voltage())
        os.truncate(self.file, os.path.getsize(self.file) - 3)
        monitor = self.run_to_end("--read", self.file)
        self.assertEqual((monitor.status, monitor.lines), (BROKEN, [VOLTAGE_LINE] * 2))
        self.assertEqual(monitor.said, [f"{self.file}: it ends within a block"])

    def test_what_is_no_capture_is_refused(self):
        for content, complaint in ((b"", "it is empty"), (b"hello world\n", "it is no pcapng file"),
                                   (b"\0" * 100000, "it is no pcapng file")):
            pathlib.Path(self.file).write_bytes(content)
            monitor = self.run_to_end("--read", self.file)
            self.assertEqual((monitor.status, monitor.said, monitor.out), (BROKEN, [f"{self.file}: {complaint}"], b""))

    def test_any_damage_ends_politely(self):
        self.keep(voltage(lost=3), search(2), datagram(b"xyz"))
        whole = pathlib.Path(self.file).read_bytes()
        chance = random.Random(SEED)
        ends = set()
        for _ in range(150):
            broken = bytearray(whole)
            for _ in range(chance.randrange(1, 4)):
                broken[chance.randrange(len(broken))] = chance.choice((0, 0xff, chance.randrange(256)))
            pathlib.Path(self.file).write_bytes(broken)
            monitor = self.run_to_end("--read", self.file)
            self.assertIn(monitor.status, (AS_ASKED, BROKEN), f"seed {SEED}: {broken.hex()}")
            self.assertEqual(bool(monitor.said), monitor.status == BROKEN, monitor.said)
            ends.add(monitor.status)
        self.assertEqual(ends, {AS_ASKED, BROKEN})

    def test_a_file_is_not_read_and_written_at_once(self):
        self.keep(voltage())
        before = pathlib.Path(self.file).read_bytes()
        monitor = self.run_to_end("--read", self.file, "--write", self.file)
        self.assertEqual((monitor.status, monitor.said), (FAILED, [f"{self.file}: cannot be read and written"]))
        self.assertEqual(pathlib.Path(self.file).read_bytes(), before)

    def test_the_file_of_a_monitor_that_listens_is_not_touched_by_a_second_one(self):
        first = self.listening("--count", 2, "--write", self.file)
        tap = self.connect()
        tap.send(voltage(1))
        first.wait_lines(1)
        self.assertEqual(self.run_to_end("--write", self.file).status, TAKEN)
        tap.send(voltage(2))
        self.assertEqual(first.end(), AS_ASKED)
        self.assertEqual(self.run_to_end("--read", self.file).lines, first.lines)

    def test_files_that_are_not_there_or_cannot_be_made_are_said(self):
        for words in (["--read", "/none/x"], ["--write", "/none/x"]):
            monitor = self.run_to_end(*words)
            self.assertEqual((monitor.status, monitor.said), (FAILED, ["/none/x: No such file or directory"]))
        self.assertEqual(self.run_to_end("--read", self.folder).status, BROKEN)

    def test_an_older_longer_file_is_replaced(self):
        pathlib.Path(self.file).write_bytes(b"x" * 100000)
        self.keep(voltage())
        again = self.run_to_end("--read", self.file)
        self.assertEqual((again.status, again.lines), (AS_ASKED, [VOLTAGE_LINE]))


class Completion(unittest.TestCase):
    def test_it_offers_the_processes_of_the_description(self):
        text = (ROOT / "packaging" / "completion" / "kipcmon").read_text()
        offered = text.split("_kipcmon_processes='")[1].split("'")[0].split()
        named = [name for name in usbrecords.PROCESSES if len(name) < 16]
        self.assertEqual(sorted(offered), sorted([*named, "usb", "monitor"]))


if __name__ == "__main__":
    unittest.main(verbosity=2)
