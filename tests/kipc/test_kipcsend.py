#!/usr/bin/python3
"""kipcsend as a process, before a service that the test plays. Needs no root."""
import os
import signal
import socket
import stat
import struct
import subprocess
import sys
import time
import unittest

from sending import (DONE, NO_ANSWER, REFUSED, UNHEARD, UNREACHABLE, USAGE, SendCase, connect, listener, usbrecords)

DEVPATH = "/devices/platform/17300000.usb/xhci-hcd.4.auto/usb1/1-1/1-1.2"
PHONE = ("--port", 2, "--vid", "04e8", "--pid", "6860", "--serial", "R58M", "--devpath", DEVPATH, "--devid", "phone-1")
FIELDS = {"port": 2, "vid": 0x04E8, "pid": 0x6860, "serial": "R58M", "devpath": DEVPATH, "devid": "phone-1"}
MODES = {"android-auto": (12, 5), "mirrorlink": (13, 6), "carplay": (14, 7), "carlife-android": (15, 8),
         "carlife-iphone": (16, 9), "reset": (17, 10)}
QUICK = 2.5     # seconds: less than any request waits by itself


def result(id, value=0, **changes):
    return usbrecords.build("mode_result", id=id, result=value, **(FIELDS | changes))


def attached(port, **values):
    return usbrecords.build("device_event", id=1, port=port, dev_type=9, **values)


def mount_check(path=""):
    return usbrecords.build("mount_check_result", mounted=1 if path else 0, mount_path=path)


SELF_TEST = bytes.fromhex("01603180aa01")


class Answered(SendCase):
    def answering(self, peer, *records):
        return self.service(peer, lambda fake, data: fake.answer(*records))

    def quickly(self, *words, **how):
        began = time.monotonic()
        ended = self.send(*words, **how)
        self.assertLess(time.monotonic() - began, QUICK, ended)
        return ended

    def test_each_mode_request_is_the_peers_and_ends_with_its_result(self):
        for name, (request, answer) in MODES.items():
            for value, status in ((0, DONE), (1, REFUSED)):
                with self.subTest(name, value=value):
                    fake = self.answering("sdcm", result(answer, value))
                    ended = self.quickly("sdcm", name, *PHONE, expect=status)
                    self.assertEqual(fake.received, [usbrecords.mode_request(request, **FIELDS)])
                    told = usbrecords.parse("mode_result", result(answer, value))
                    self.assertEqual(ended.lines, [f"usb -> sdcm  {told}"])
                    self.assertEqual(ended.err, "")
                    fake.die()
                    os.unlink(f"{self.folder}/usb/sdcm")

    def test_what_else_comes_is_shown_and_is_not_the_answer(self):
        detached = usbrecords.build("device_event", id=2, port=2)
        others = [detached, result(6), result(5, devid="phone-2"), bytes.fromhex("00ff"), bytes(60000)]
        self.answering("sdcm", *others, result(5, 1))
        ended = self.quickly("sdcm", "android-auto", *PHONE, "--json", expect=REFUSED)
        self.assertEqual([one["answer"] for one in ended.objects], [False] * 5 + [True])
        self.assertEqual([one["record"] for one in ended.objects],
                         ["device_event", "mode_result", "mode_result", None, None, "mode_result"])
        self.assertEqual([bytes.fromhex(one["hex"]) for one in ended.objects], others + [result(5, 1)])
        self.assertEqual(ended.objects[-1]["words"]["result"], "failed")

    def test_a_search_of_sdcm_ends_with_the_second_phone(self):
        fake = self.answering("sdcm", attached(1), attached(2))
        ended = self.quickly("sdcm", "search")
        self.assertEqual(fake.received, [usbrecords.message(18)])
        self.assertEqual(len(ended.lines), 2)

    def test_a_search_waits_a_moment_only_behind_the_first_phone(self):
        self.answering("sdcm", attached(1))
        ended = self.quickly("sdcm", "search")
        self.assertIn("id=device attached port=1 dev_type=phone", ended.out)

    def test_a_search_of_media_is_answered_with_what_is_attached(self):
        apple = usbrecords.build("st_usb_pkt", cmd=2, dev_type=6, port=1, product="iPhone")
        fake = self.answering("media", apple)
        ended = self.quickly("media", "search")
        self.assertEqual(fake.received, [usbrecords.search_phone()])
        self.assertEqual(ended.lines, [f"usb -> media  {usbrecords.parse('st_usb_pkt', apple)}"])

    def test_a_mount_check_tells_the_folder(self):
        fake = self.answering("test", mount_check("/tmp/USB/PORT2/PART1/"))
        ended = self.quickly("test", "mount-check", "--port", 2)
        self.assertEqual(fake.received, [usbrecords.mount_check(1)])
        self.assertEqual(ended.out,
                         'usb -> test  mount_check_result mounted=yes mount_path="/tmp/USB/PORT2/PART1/"\n')

    def test_a_mount_check_without_a_stick_fails(self):
        self.answering("test", mount_check())
        self.assertIn("mounted=no", self.quickly("test", "mount-check", "--port", 1, expect=REFUSED).out)

    def test_the_self_test_shows_the_sockets_and_ends_with_the_result(self):
        sockets = [bytes.fromhex(f"01601906{rdid:02x}00") for rdid in range(0x66, 0x6E)]
        fake = self.answering("diag", *sockets, SELF_TEST)
        ended = self.quickly("diag", "self-test")
        self.assertEqual(fake.received, [usbrecords.run_hub_test()])
        self.assertEqual(len(ended.lines), 9)
        self.assertEqual(ended.lines[-1], "usb -> diag  diag_test_result result=good")

    def test_a_self_test_that_could_not_run_fails(self):
        self.answering("diag", bytes.fromhex("01603180aa02"))
        self.quickly("diag", "self-test", expect=REFUSED)

    def test_a_hostile_answer_reaches_no_terminal(self):
        hostile = bytearray(mount_check("x"))
        hostile[4:36] = b"\x1b]0;owned\x07\x1b[2J\r\n\xff\x9b\"".ljust(32, b"A")
        self.answering("test", b"\x1b[31m", bytes(hostile))
        ended = self.quickly("test", "mount-check", "--port", 1)
        self.assertTrue(ended.out.isascii() and ended.out.replace("\n", "").isprintable(), repr(ended.out))
        self.assertEqual(ended.lines[0], "usb -> test  5 bytes that no description fits: 1b 5b 33 31 6d")
        self.assertIn(r'mount_path="\x1b]0;owned\x07\x1b[2J\x0d\x0a\xff\x9b\"AAA', ended.lines[1])
        self.assertIn("[mount_path is not terminated]", ended.lines[1])

    def test_raw_bytes_show_all_that_comes_until_time_is_up(self):
        fake = self.answering("diag", SELF_TEST, b"\1\2")
        ended = self.quickly("raw", "diag", "83603180", "aa 03", "--timeout", 0.5)
        self.assertEqual(fake.received, [usbrecords.run_hub_test()])
        self.assertEqual(len(ended.lines), 2)

    def test_whoever_sends_without_end_does_not_hold_it(self):
        flood = f"""import socket
one = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
one.connect("{self.folder}/test/usb")
while True: one.send(b"x")"""

        def begin(fake, data):
            for _ in range(4):
                one = subprocess.Popen([sys.executable, "-c", flood], stderr=subprocess.DEVNULL)
                self.addCleanup(one.wait)
                self.addCleanup(one.kill)

        self.service("test", begin)
        ended = self.send("test", "mount-check", "--port", 1, "--timeout", 1, expect=NO_ANSWER)
        self.assertIn("no answer within 1 s", ended.err)
        self.assertIn("1 bytes that no description fits: 78", ended.out)

    def test_nothing_is_read_behind_the_answer(self):
        self.answering("sdcm", result(5), result(5, 1))
        self.assertEqual(len(self.quickly("sdcm", "android-auto", *PHONE).lines), 1)

    def test_many_connections_to_the_inbox_do_no_harm(self):
        def crowd(fake, data):
            many = [connect(f"{self.folder}/test/usb") for _ in range(8)]
            many[3].send(b"")
            fake.answer(mount_check("/tmp/"))
            self.addCleanup(lambda: [one.close() for one in many])

        self.service("test", crowd)
        self.quickly("test", "mount-check", "--port", 1)


class Unanswered(SendCase):
    REQUESTS = [
        (("diag", "adaption", "--port2", "off", "--port4", "off"), usbrecords.adaption(1, 2, 1, 2)),
        (("diag", "coding", "--value", 2), usbrecords.coding(2)),
        (("power", "states", "--hmi-state", 1, "--hmi-event", 2, "--mmi-state", 3, "--mmi-event", 4),
         usbrecords.power_states(1, 2, 3, 4)),
        (("power", "terminals", "--terminal15", 1, "--terminal50", 2, "--terminal-s", 3, "--terminal-x", 4),
         usbrecords.terminal_states(1, 2, 3, 4)),
        (("settings", "changed", "--record", "/data/sharedmemory/shm_usb_cert"),
         usbrecords.setting_changed("shm_usb_cert")),
        (("raw", "sdcm", "--record", "node", "id=usb add", "port=1"), usbrecords.node_message(20, port=1)),
        (("raw", "power", "ff"), b"\xff"),
    ]

    def test_what_has_no_answer_is_sent_and_says_so(self):
        for words, bytes_ in self.REQUESTS:
            with self.subTest(words):
                fake = self.service(words[0] if words[0] != "raw" else words[1])
                began = time.monotonic()
                ended = self.send(*words)
                self.assertLess(time.monotonic() - began, 1)
                fake.thread.join(5)
                self.assertEqual(fake.received, [bytes_])
                awaited = "no answer is awaited" if words[0] == "raw" else "the service answers nothing to it"
                self.assertEqual(ended.out, f"sent; {awaited}\n")
                os.unlink(f"{self.folder}/usb/{fake.peer}")

    def test_no_inbox_is_made_for_them(self):
        self.service("power")
        self.send("power", "states")
        self.assertEqual(os.listdir(self.folder), ["usb"])

    def test_a_timeout_of_zero_waits_for_nothing(self):
        fake = self.service("sdcm")
        ended = self.send("sdcm", "search", "--timeout", 0)
        self.assertEqual(ended.out, "sent; no answer is awaited\n")
        fake.thread.join(5)
        self.assertEqual(fake.received, [usbrecords.message(18)])
        self.assertEqual(os.listdir(self.folder), ["usb"])

    def test_silence_ends_with_the_timeout(self):
        self.service("diag")
        began = time.monotonic()
        ended = self.send("diag", "self-test", "--timeout", 0.3, expect=NO_ANSWER)
        self.assertGreaterEqual(time.monotonic() - began, 0.3)
        self.assertEqual(ended.err, "kipcsend: no answer within 0.3 s\n")
        self.assertEqual(ended.out, "")

    def test_answers_of_others_do_not_end_the_waiting(self):
        self.service("sdcm", lambda fake, data: fake.answer(result(6), result(7)))
        ended = self.send("sdcm", "android-auto", *PHONE, "--timeout", 0.3, expect=NO_ANSWER)
        self.assertEqual(len(ended.lines), 2)

    def test_the_own_time_of_a_request_counts_without_one(self):
        self.service("sdcm")
        began = time.monotonic()
        ended = self.send("sdcm", "search", expect=NO_ANSWER)
        self.assertGreaterEqual(time.monotonic() - began, 3)
        self.assertEqual(ended.err, "kipcsend: no answer within 3 s\n")


class Broken(SendCase):
    def test_without_a_service_nothing_is_made(self):
        ended = self.send("sdcm", "search", expect=UNREACHABLE)
        self.assertEqual(ended.err, f"kipcsend: there is no socket {self.folder}/usb/sdcm: the service does not run, "
                                    "or has another folder (KIPC_DIR)\n")
        self.assertEqual(os.listdir(self.folder), [])

    def test_a_socket_of_a_former_run_is_no_service(self):
        listener(f"{self.folder}/usb/sdcm").close()
        ended = self.send("sdcm", "search", expect=UNREACHABLE)
        self.assertIn("nobody listens", ended.err)

    def test_a_service_that_ends_while_its_answer_is_awaited(self):
        self.service("diag", lambda fake, data: fake.die())
        ended = self.send("diag", "self-test", expect=NO_ANSWER)
        self.assertEqual(ended.err, "kipcsend: the service ended before it answered\n")

    def test_an_answer_that_was_sent_before_the_end_counts(self):
        def last_words(fake, data):
            fake.answer(SELF_TEST)
            fake.die()

        self.service("diag", last_words)
        self.send("diag", "self-test")

    def test_a_search_whose_first_answer_came_before_the_end(self):
        def one_only(fake, data):
            fake.answer(attached(1))
            fake.die()

        self.service("sdcm", one_only)
        self.send("sdcm", "search")

    def test_a_service_that_does_not_read_while_the_peer_runs(self):
        one = listener(f"{self.folder}/usb/test")
        self.addCleanup(one.close)
        self.peer("test")
        ended = self.send("test", "mount-check", "--port", 1, expect=UNREACHABLE)
        self.assertIn("test itself is running", ended.err)
        self.assertIn("the service does not read what test sends", ended.err)

    def test_a_service_that_ends_without_reading(self):
        one = listener(f"{self.folder}/usb/diag")
        self.addCleanup(one.close)
        run = self.start("diag", "self-test")
        connection, _ = one.accept()
        while not connection.recv(16, socket.MSG_PEEK):
            time.sleep(0.01)
        connection.close()
        ended = run.end()
        self.assertEqual(ended.status, UNREACHABLE, ended)
        self.assertIn("before it read the request", ended.err)

    def test_a_service_that_does_not_read(self):
        one = listener(f"{self.folder}/usb/power")
        self.addCleanup(one.close)
        ended = self.send("power", "states", expect=UNREACHABLE)
        self.assertEqual(ended.err, "kipcsend: the service does not read what power sends\n")

    def test_a_wrong_command_line_sends_nothing(self):
        fake = self.service("test")
        self.send("test", "mount-check", "--port", 3, expect=USAGE)
        self.send("raw", "test", "0", expect=USAGE)
        self.assertEqual(fake.received, [])

    def test_a_record_that_is_too_long_for_the_socket(self):
        self.service("diag")
        run = self.start("raw", "diag", *["00" * 30000] * 20)
        ended = run.end()
        self.assertEqual(ended.status, UNREACHABLE, ended)
        self.assertIn("not sent: Message too long", ended.err)

    @unittest.skipUnless(os.geteuid() == 0, "only root may become somebody else")
    def test_who_may_not_speak_is_told_who_may(self):
        one = listener(f"{self.folder}/usb/media")
        self.addCleanup(one.close)
        os.chmod(f"{self.folder}/usb/media", 0o660)
        os.chmod(self.folder, 0o755)
        ended = self.send("media", "search", expect=UNREACHABLE, user=65534, group=65534, extra_groups=[])
        self.assertIn(f"no permission to connect to {self.folder}/usb/media (srw-rw---- root root)", ended.err)

    @unittest.skipUnless(os.geteuid() == 0, "only root may become somebody else")
    def test_who_may_speak_but_has_no_inbox_sends_all_the_same(self):
        fake = self.service("media")
        os.chmod(f"{self.folder}/usb/media", 0o666)
        os.chmod(self.folder, 0o755)
        ended = self.send("media", "search", expect=UNHEARD, user=65534, group=65534, extra_groups=[])
        self.assertIn(f"no inbox {self.folder}/media: Permission denied (the folder above it: drwxr-xr-x root root); "
                      "the answer will not be heard", ended.err)
        fake.thread.join(5)
        self.assertEqual(fake.received, [usbrecords.search_phone()])


class Inboxes(SendCase):
    def test_a_peer_that_runs_is_left_alone_and_gets_the_answer(self):
        fake = self.service("sdcm", lambda fake, data: fake.answer(result(7)))
        peer = self.peer("sdcm")
        ended = self.send("sdcm", "carplay", *PHONE, expect=UNHEARD)
        self.assertEqual(ended.err, "kipcsend: sdcm itself is running: the answer goes there. See it with: "
                                    "kipcmon --receiver sdcm\n")
        fake.thread.join(5)
        self.assertEqual(fake.received, [usbrecords.mode_request(14, **FIELDS)])
        heard = []
        while not heard:        # the first connection is kipcsend's question whether anybody is there
            connection, _ = peer.accept()
            connection.settimeout(10)
            data = connection.recv(4096)
            heard += [data] if data else []
            connection.close()
        self.assertEqual(heard, [result(7)])

    def test_the_inbox_of_a_peer_that_is_gone_is_replaced(self):
        listener(f"{self.folder}/test/usb").close()
        self.service("test", lambda fake, data: fake.answer(mount_check("/tmp/")))
        self.send("test", "mount-check", "--port", 1)
        self.assertEqual(os.listdir(f"{self.folder}/test"), [])

    def test_the_folder_is_as_it_was_afterwards(self):
        self.service("test", lambda fake, data: fake.answer(mount_check("/tmp/")))
        self.send("test", "mount-check", "--port", 1)
        self.assertEqual(os.listdir(self.folder), ["usb"])

    def test_a_second_one_at_once_sends_but_does_not_hear(self):
        taken = []
        one = listener(f"{self.folder}/usb/test")
        self.addCleanup(one.close)
        first = self.start("test", "mount-check", "--port", 1)
        taken.append(one.accept()[0])
        self.assertEqual(taken[0].recv(16), usbrecords.mount_check(0))
        second = self.start("test", "mount-check", "--port", 2)
        taken.append(one.accept()[0])
        self.assertEqual(taken[1].recv(16), usbrecords.mount_check(1))
        taken[1].close()
        self.assertEqual(second.end().status, UNHEARD)
        with connect(f"{self.folder}/test/usb") as inbox:
            inbox.send(mount_check("/tmp/"))
        self.assertEqual(first.end().status, DONE)
        taken[0].close()

    def test_a_signal_takes_the_inbox_away_and_ends_it_as_signals_do(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                fake = self.service("test")
                run = self.start("test", "mount-check", "--port", 1)
                while not fake.received:
                    time.sleep(0.01)
                self.assertTrue(stat.S_ISSOCK(os.stat(f"{self.folder}/test/usb").st_mode))
                run.signal(number)
                self.assertEqual(run.end().status, -number)
                self.assertEqual(os.listdir(self.folder), ["usb"])
                os.unlink(f"{self.folder}/usb/test")


    def test_a_signal_that_is_to_be_ignored_is_ignored(self):
        runs = []

        def hang_up_then_answer(fake, data):
            while not runs:
                time.sleep(0.01)
            runs[0].signal(signal.SIGHUP)
            time.sleep(0.2)     # it must not end meanwhile
            fake.answer(mount_check("/tmp/"))

        self.service("test", hang_up_then_answer)
        runs.append(self.start("test", "mount-check", "--port", 1,
                               preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN)))
        self.assertEqual(runs[0].end().status, DONE)


class Shown(SendCase):
    def test_a_dry_run_shows_the_request_and_sends_nothing(self):
        fake = self.service("diag")
        ended = self.send("-n", "diag", "adaption", "--port1", "off")
        self.assertEqual(ended.lines, ["diag -> usb  " + str(usbrecords.parse("diag_adaption",
                                                                              usbrecords.adaption(2, 1, 1, 1))),
                                       "    0000  83 60 22 09 81 00 80 80 80"])
        self.assertEqual(fake.received, [])

    def test_it_needs_no_service(self):
        ended = self.send("-n", "--json", "test", "mount-check", "--port", 2)
        self.assertEqual(ended.objects[0]["hex"], "0231020801")
        self.assertEqual(ended.objects[0]["direction"], "in")

    def test_verbose_shows_the_request_before_the_answer(self):
        self.service("test", lambda fake, data: fake.answer(mount_check("/tmp/")))
        ended = self.send("test", "mount-check", "--port", 1, "-v")
        self.assertEqual([line.split()[0] for line in ended.lines], ["test", "0000", "usb"])

    def test_a_phone_that_is_named_by_its_port_needs_the_service(self):
        ended = self.send("-n", "sdcm", "carplay", "--port", 1, expect=UNREACHABLE)
        self.assertEqual(ended.err, "kipcsend: the service does not tell which phone is at port 1: "
                                    f"{self.folder}/usb/status: No such file or directory\n")


class Status(SendCase):
    """What is plugged in, as the service tells it. Records: head of kind, length and row; then the record."""
    START = struct.pack("<IIQ", 1, 32, 0) + struct.pack("<IHHIIQQ", 0x5453534B, 1, 16, 7, 0, 0, 0)
    VERSION = struct.pack("<IIQ", 3, 32, 0) + struct.pack("<24sQ", b"version", 1)
    PHONE, KEYBOARD = 9, 12

    @staticmethod
    def end(count):
        """So many records came before, without the start."""
        return struct.pack("<IIQ", 2, 16, 0) + struct.pack("<IIQ", count, 0, 0)

    @staticmethod
    def device(port, dev_type, devpath=b"/d", serial=b"S"):
        return struct.pack("<IIQ", 257, 332, 3) + struct.pack("<IHHB3x64s64s64s128s", dev_type, 0x4E8, 0x6860, port,
                                                               serial, b"", b"", devpath)

    def ask(self, *records, expect=DONE, words=("sdcm", "mirrorlink", "--port", 2)):
        one = listener(f"{self.folder}/usb/status")
        run = self.start("-n", "--json", *words)
        connection, _ = one.accept()
        for record in records:
            try:
                connection.send(record)
            except BrokenPipeError:
                break       # it has what it wants
        connection.close()
        one.close()
        os.unlink(f"{self.folder}/usb/status")
        ended = run.end()
        self.assertEqual(ended.status, expect, ended)
        return ended

    def test_the_phone_at_the_port_is_asked_for(self):
        ended = self.ask(self.START, self.VERSION, self.device(1, self.PHONE), self.device(2, self.KEYBOARD),
                         self.device(2, self.PHONE, DEVPATH.encode(), b"R58M"), self.end(4))
        self.assertEqual(bytes.fromhex(ended.objects[0]["hex"]),
                         usbrecords.mode_request(13, **FIELDS | {"devid": ""}))

    def test_what_was_given_is_not_replaced(self):
        ended = self.ask(self.START, self.VERSION, self.device(2, self.PHONE), self.end(2),
                         words=("sdcm", "reset", "--port", 2, "--vid", "18d1", "--pid", "2d00", "--serial", "given"))
        self.assertEqual(bytes.fromhex(ended.objects[0]["hex"]),
                         usbrecords.mode_request(17, port=2, vid=0x18D1, pid=0x2D00, serial="given", devpath="/d"))

    def test_without_a_phone_there_nothing_is_sent(self):
        ended = self.ask(self.START, self.VERSION, self.device(1, self.PHONE), self.device(2, self.KEYBOARD),
                         self.end(3), expect=USAGE)
        self.assertEqual(ended.err, "kipcsend: no phone is plugged at port 2 (usbservice-ports shows what is)\n")

    def test_what_is_no_whole_status_of_this_version_is_refused(self):
        other = struct.pack("<IIQ", 3, 32, 0) + struct.pack("<24sQ", b"version", 2)
        for records in ((self.START, other, self.end(1)), (self.START, self.VERSION), (b"x" * 48,), ()):
            ended = self.ask(*records, expect=UNREACHABLE)
            self.assertIn("kipcsend: the service does not tell which phone is at port 2: ", ended.err)

    def test_a_text_without_an_end_is_refused(self):
        ended = self.ask(self.START, self.VERSION, self.device(2, self.PHONE, serial=b"x" * 64), self.end(2),
                         expect=UNREACHABLE)
        self.assertIn("fits no request: serial cannot be", ended.err)


if __name__ == "__main__":
    unittest.main(verbosity=2)
