#!/usr/bin/python3
"""Peers that are absent, die, stop reading, or send nonsense: nobody else notices."""
import array
import os
import random
import re
import socket
import stat
import time

from bench import ServiceCase, board, main, peers, usbrecords, volumes

EVENTS = 400            # more records than wait for one receiver


class BadReceivers(ServiceCase):
    RECEIVERS = tuple(name for name in peers.RECEIVERS if name not in ("navi", "speech", "media"))

    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def keyboards(self, count, meanwhile=lambda i: None):
        """So many arrivals and departures of a keyboard, as fast as they can be told."""
        keyboard = board.keyboard("1-1.2")
        for node in keyboard:
            self.board.show(node)
        for i in range(count):
            for node in keyboard:
                self.board.tell("add", node)
            for node in reversed(keyboard):
                self.board.tell("remove", node)
            meanwhile(i)
            if i % 50 == 49:
                self.settle_events()        # the peers that do read are no faster than we are
        self.settle()
        for node in keyboard:
            self.board.hide(node)

    def restart(self, name, **how):
        """The receiver `name` comes, and is gone after the test."""
        self.peers.start(name, **how)
        self.addCleanup(self.drop, name)

    def drop(self, name):
        if name in self.peers.listeners:
            self.peers.stop(name)

    def commands(self, receiver):
        return [record["cmd"] for record in self.got(receiver)]

    def test_an_absent_receiver_costs_the_others_nothing(self):
        self.restart("media")
        self.assert_stick_is_announced()
        self.assertEqual(self.commands("0000000000004000"), [2, 3, 5])
        self.assertTrue([text for text in self.service.texts() if text.startswith("navi is not there")])

    def test_a_receiver_that_comes_later_gets_what_comes_later(self):
        self.keyboards(2)
        self.restart("media")
        self.mark()
        self.keyboards(1)
        self.assertEqual(self.commands("media"), [6, 5])
        self.assertIsNotNone(self.service.wait_log(re.compile(r"media lost \d+ packets and takes them again")))

    def test_a_receiver_that_dies_and_returns_gets_what_comes_afterwards(self):
        self.restart("media")
        keyboard = board.keyboard("1-1.2")
        self.board.plug(keyboard)
        self.settle()
        self.assertEqual(self.commands("media"), [6])
        self.peers.stop("media")
        self.board.unplug(keyboard)
        self.settle()
        self.restart("media")
        self.mark()
        self.keyboards(1)
        self.assertEqual(self.commands("media"), [6, 5])

    def test_a_receiver_that_dies_amid_many_records_costs_the_others_none(self):
        self.restart("media")
        self.restart("navi")
        self.mark()

        def come_and_go(i):
            if i % 10 == 5:
                self.peers.stop("media")
            if i % 10 == 9:
                self.restart("media")

        self.keyboards(100, come_and_go)
        self.assertEqual(len(self.got("diag")), 200)

    def test_a_receiver_that_never_reads_costs_the_others_nothing(self):
        self.restart("media", reads=False)
        self.restart("speech")
        self.mark()
        started = time.monotonic()
        self.keyboards(EVENTS)
        self.assertLess(time.monotonic() - started, 30)
        self.assertEqual(self.commands("speech"), [6, 5] * EVENTS)
        self.assertEqual(len(self.got("diag")), 2 * EVENTS)
        full = [text for text in self.service.texts(self.log_from) if text.startswith("media does not read")]
        self.assertEqual(full, ["media does not read: its backlog is full, packets to it are lost"])
        self.peers.stop("media")
        self.restart("media")
        self.keyboards(1)
        self.mark()
        self.assert_stick_is_announced()

    def test_a_receiver_whose_folder_is_a_file_is_absent(self):
        os.makedirs(peers.ROOT, exist_ok=True)
        path = f"{peers.ROOT}/navi"
        if os.path.isdir(path):
            os.rmdir(path)
        with open(path, "w"):
            pass
        self.addCleanup(os.unlink, path)
        self.restart("media")
        self.assert_stick_is_announced()

    def test_descriptors_do_not_add_up(self):
        self.restart("media")
        self.keyboards(1)
        before = self.service.descriptors()
        for _ in range(20):
            self.peers.stop("media")
            self.keyboards(1)
            self.restart("media")
            self.keyboards(1)
        self.assertLessEqual(self.service.descriptors(), before)


class BadSenders(ServiceCase):
    SENDERS = ("media", "diag", "sdcm", "settings", "power", "test")

    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def setUp(self):
        super().setUp()
        self.addCleanup(self.assert_stick_is_announced)

    def test_a_record_of_one_byte_is_refused_from_each(self):
        for name in self.SENDERS:
            with self.subTest(name):
                self.mark()
                self.send(name, b"\x83")
                text = {"settings": r"unknown str:\\x83", "sdcm": r"unknown msgID:0"}.get(
                    name, r"wrong size\(1\) or no str\(0x[0-9a-f]+\)")
                self.expect_log(re.compile(text))

    def test_records_of_sizes_around_every_limit_do_no_harm(self):
        for name in self.SENDERS:
            for size in (2, 3, 4, 5, 8, 9, 12, 19, 20, 21, 243, 244, 348, 4095, 4096):
                for fill in (b"\0", b"\xff", b"\x83"):
                    self.send(name, fill * size)
        self.settle()

    def test_a_record_of_64_kibibytes_is_refused_and_the_next_is_taken(self):
        for name in self.SENDERS:
            with self.subTest(name):
                self.mark()
                self.send(name, b"x" * 65536)
                self.expect_log(re.compile(rf"{name}: a record of 65536 bytes from pid \d+ of uid 0 is too long"),
                                level=160)
        self.send("power", usbrecords.terminal_states(1, 2, 3, 4))
        self.expect_log("clamp 15:1 50:2 S:3 X:4")

    def test_an_empty_record_is_refused_and_the_next_is_taken(self):
        self.send("power", b"")
        self.expect_log(re.compile(r"power: a record of 0 bytes from pid \d+ of uid 0 is empty"), level=160)
        self.send("power", usbrecords.terminal_states(4, 3, 2, 1))
        self.expect_log("clamp 15:4 50:3 S:2 X:1")

    def test_a_row_of_refused_records_is_counted(self):
        for _ in range(500):
            self.send("test", b"x" * 5000)
        self.send("test", usbrecords.mount_check(0))
        self.await_records("test", 1)
        self.expect_log(re.compile(r"test: 500 records in a row from pid \d+ of uid 0 were refused"), level=160)

    def test_each_socket_is_closed_to_strangers(self):
        for name in self.SENDERS:
            path = f"{peers.ROOT}/usb/{name}"
            self.assertEqual(stat.S_IMODE(os.stat(path).st_mode) & 0o007, 0, path)
            child = os.fork()
            if child == 0:
                try:
                    os.setgroups([])
                    os.setgid(65534)
                    os.setuid(65534)
                    self.peers.connect(name, 0).send(b"I am media")
                    os._exit(1)
                except PermissionError:
                    os._exit(0)
                except BaseException:
                    os._exit(2)
            _, status = os.waitpid(child, 0)
            self.assertEqual(os.waitstatus_to_exitcode(status), 0, name)

    def test_a_sender_that_leaves_at_once_is_heard(self):
        one = self.peers.connect("power")
        one.send(usbrecords.power_states(7, 7, 7, 7))
        one.close()
        self.expect_log("hmi_power_state:7 hmi_power_event:7 mmi_power_state:7 mmi_power_event:7")

    def test_a_hundred_connections_of_one_sender_leave_the_others_alone(self):
        many = [self.peers.connect("diag") for _ in range(100)]
        self.expect_log(re.compile(r"diag: no more than \d+ connections, pid \d+ of uid 0 is turned away"), level=160)
        self.send("test", usbrecords.mount_check(0))
        self.await_records("test", 1)
        for one in many:
            one.close()
        deadline = time.monotonic() + 5
        while True:
            self.mark()
            try:
                self.send("diag", usbrecords.coding(3))
            except OSError:
                pass
            if self.service.wait_log("usb_coding is 3", self.log_from, 0.5):
                break
            self.peers.hang_up()
            self.assertLess(time.monotonic(), deadline)

    def test_descriptors_that_a_sender_attaches_are_not_kept(self):
        self.send("power", usbrecords.power_states(1, 1, 1, 1))
        self.settle()
        before = self.service.descriptors()
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [0, 1, 2]))]
        for _ in range(50):
            self.peers.senders["power"].sendmsg([usbrecords.power_states(2, 2, 2, 2)], rights)
        self.settle()
        self.assertEqual(self.service.descriptors(), before)

    def test_a_flood_is_worked_off_in_order_and_kept_in_bounds(self):
        before = self.service.memory()
        for i in range(20000):
            self.send("power", usbrecords.power_states(i & 255, i >> 8, 0, 0))
        self.expect_log("hmi_power_state:31 hmi_power_event:78 mmi_power_state:0 mmi_power_event:0", 30)
        self.settle()
        self.assertLess(self.service.memory() - before, 64 << 20)

    def test_random_records_of_all_senders_do_no_harm(self):
        chance = random.Random(7)
        heads = [bytes.fromhex(head) for head in ("8360220981", "8360220557", "83603180aa", "839101", "023102", "")]
        for _ in range(3000):
            data = chance.choice(heads) + chance.randbytes(chance.randrange(1, 400))
            self.send(chance.choice(self.SENDERS), data)
        self.settle(60)
        # Back to what the next stick is announced under.
        self.send("diag", usbrecords.coding(3))
        self.send("diag", usbrecords.adaption(1, 1, 1, 1))
        self.expect_log("usb_adaption of port4 is 1")


if __name__ == "__main__":
    main()
