#!/usr/bin/python3
"""Requests of SDCM that are cut, endless, wild or hostile: each ends in a log line or a sound answer, and the next
phone works.

What costs time is sent seldom, for the command frame takes its time by design:
- "reset hub" (30): half a second each;
- "remove usb" (29), and devices that come as deferred (sender 4): a shell each;
- the removal of an attached device: a message to the monitor frame, which takes ten a second;
- the phones' types (6 and 8 to 10) in "usb add": libusb looks for a phone.
No iPhone is plugged here: CarLife would hold the command frame for a second and the port for good."""
import os
import random
import re

from bench import (PHONE_MODES, ServiceCase, board, device, event, main, request, result, usbrecords, volumes)

MEMORY = int(os.environ.get("REQUESTS_MEMORY_KIB", 1024)) << 10     # more than before: 528 KiB were seen
SLOW = {29: (5, 400), 30: (5, 400)}     # of these ids only few lengths
MODES = {12: 5, 13: 6, 14: 7, 15: 8, 16: 9, 17: 10}     # request: result
PATH = board.path_of("1-1.1")

TEXTS = {
    "empty": b"",
    "without an end": b"A" * 128,
    "formats": b"%n%s%n%s%x%99999d",
    "control bytes": bytes(range(1, 32)) + b"\x7f\x9b",
    "lines": b"first\n[    1.000000] 192 2816.0 1/frame-usb A.cpp:1 A: false\r\nsecond\n",
    "broken UTF-8": b"\xff\xfe\xc3(\xe2\x82\xf0\x9f\x98\xed\xa0\x80" * 10,
    "something behind the end": b"ab\0cd\0ef",
}
NUMBERS = (0, 7, 11, 16, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)


def cut(text, size):
    """What of a text of other processes is read from a field of that size."""
    return text[:size].partition(b"\0")[0][:size - 1]


def with_field(name, data, field, content):
    """The record with these bytes in that field, terminated or not."""
    for one in usbrecords.RECORDS[name]["fields"]:
        if one["name"] == field:
            size = usbrecords.width(one)
            return data[:one["at"]] + content[:size].ljust(size, b"\0") + data[one["at"] + size:]
    raise KeyError(field)


def node(id=20, port=1, sender=3, dev_type=5, **other):
    values = dict(vid=0x1234, pid=0x5678, usb_class=8, speed=2, serial="S", product="P", manufacturer="M", devpath=PATH)
    values.update(other)
    return usbrecords.node_message(id, port=port, sender=sender, dev_type=dev_type, **values)


class BadRequests(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def setUp(self):
        super().setUp()
        self.addCleanup(self.assert_next_phone_works)

    def assert_next_phone_works(self):
        """What was made up leaves; then a phone comes, is asked for, and leaves."""
        for port in (1, 2):
            self.send("sdcm", node(21, port))
        self.settle_requests(60)
        self.assert_records_are_sound()
        self.mark()
        phone = board.phone("1-1.1")
        self.board.plug(phone)
        self.settle()
        self.expect("sdcm", event(1, 9, phone[0], 1, 8, PHONE_MODES))
        self.expect("media", device(2, 0, 9, phone[0], 1, 8))
        self.ask(request(14, phone[0], devid="next"))
        self.expect("sdcm", result(7, request(14, phone[0], devid="next"), 1))
        self.mark()
        self.board.unplug(phone)
        self.settle()
        self.expect("sdcm", event(2, 9, phone[0], 1, 8, PHONE_MODES))

    def ask(self, *requests):
        self.mark()
        for one in requests:
            self.send("sdcm", one)
        self.settle_requests(60)

    def attach(self, **values):
        """A made-up stick on port 1, which is there for requests."""
        self.ask(node(**values))
        self.assertEqual([record["id"] for record in self.await_records("sdcm", 1)], [1])


class Lengths(BadRequests):
    def every_length(self, lengths):
        """Each id in each of the lengths, cut from a long record."""
        for id in range(61):
            whole = self.request() if id in MODES else self.device()
            whole[4:8] = id.to_bytes(4, "little")
            if id == 29:
                whole[8] = 0        # of no port: refused
            for length in SLOW.get(id, lengths):
                self.send("sdcm", bytes(whole[:length]))
            self.settle_requests(60)    # the queue holds them all, but so that a loss is known at its place

    def request(self):
        """Texts without an end."""
        texts = (b"serial" * 12)[:64] + (PATH.encode() + b"/" * 128)[:128] + b"d" * 32
        return bytearray(usbrecords.mode_request(12, port=1, vid=0x1234, pid=0x5678)[:14] + texts + b"x" * 162)

    def device(self):
        texts = b"s" * 64 + b"p" * 64 + b"m" * 64 + (PATH.encode() + b"/" * 128)[:128]
        return bytearray(node()[:28] + texts + b"x" * 52)

    def test_every_length_of_every_id_is_taken_refused_or_answered(self):
        self.assertEqual((len(self.request()), len(self.device())), (400, 400))
        self.every_length(range(0, 401, 10))        # each way was gone once
        before = (self.service.descriptors(), self.service.threads())
        memory = self.service.memory()
        self.every_length(range(401))
        self.assertEqual((self.service.descriptors(), self.service.threads()), before)
        grown = self.service.memory() - memory
        print(f"{grown >> 10} KiB more ", end="", flush=True)
        self.assertLess(grown, MEMORY)
        self.assertTrue(any(re.fullmatch(r"sdcm: a record of 0 bytes from pid \d+ of uid 0 is empty", text)
                            for text in self.service.texts()))
        for id in [*range(12), 19, *range(31, 45), *range(48, 61)]:
            self.assertIn(f"unknown msgID:{id}", self.service.texts(self.log_from))

    def test_a_device_that_is_cut_anywhere_is_announced_as_far_as_it_was_told(self):
        whole = node(serial="S" * 63, product="P" * 63, manufacturer="M" * 63, devpath=PATH)
        for length in (9, 12, 15, 16, 18, 20, 21, 24, 28, 29, 91, 92, 93, 156, 157, 220, 221, 300, 347, 348, 349, 400):
            with self.subTest(length):
                told = (whole + b"\xff" * 52)[:length].ljust(348, b"\0")
                expected = usbrecords.parse("node", told)
                self.ask((whole + b"\xff" * 52)[:length])
                record = self.await_records("sdcm", 1)[0]
                self.assertEqual(record["id"], 1)
                for field in ("port", "dev_type", "vid", "pid", "usb_class", "speed", "serial", "product",
                              "manufacturer", "devpath"):
                    self.assertEqual(record[field], expected[field], field)
                self.ask(node(21))

    def test_a_request_that_is_cut_anywhere_is_answered_when_its_path_names_a_port(self):
        self.attach()
        whole = request(14, board.phone("1-1.1")[0], devid="D" * 31, result=9)
        for length in (78 + len(PATH) - 1, 78 + len(PATH), 78 + len(PATH) + 1, 206, 207, 237, 238, 239, 240, 244, 400):
            with self.subTest(length):
                self.ask((whole + b"\xff" * 156)[:length])
                told = (whole + b"\xff" * 156)[:length].ljust(244, b"\0")[:244]
                answer = result(7, told, 1)
                self.expect("sdcm", *([answer] if length >= 78 + len(PATH) else []))


class Texts(BadRequests):
    def test_texts_of_requests_return_cut_to_their_fields(self):
        self.attach()
        for id, answer in MODES.items():
            for field, size in (("serial", 64), ("devid", 32), ("devpath", 128)):
                for what, text in TEXTS.items():
                    with self.subTest(f"{id} {field}: {what}"):
                        content = PATH.encode() + b"/" + text if field == "devpath" else text
                        asked = with_field("mode_request", request(id, board.phone("1-1.1")[0]), field, content)
                        self.mark()
                        self.send("sdcm", asked)
                        records = self.await_records("sdcm", 1)
                        self.assertEqual(records[0].faults, [])
                        got = records[0][field].encode("utf-8", "surrogateescape")
                        self.assertEqual(got, cut(content, size))
                        self.assertEqual((records[0]["id"], records[0]["result"], records[0]["port"]), (answer, 1, 1))

    def test_paths_that_name_no_known_port_are_not_answered(self):
        phone = board.phone("1-1.1")[0]
        paths = [text for what, text in TEXTS.items()] + [
            PATH.encode()[:-1], PATH.encode()[:-1] + b"99999999999999999999", PATH.encode()[:-1] + b"-1",
            (board.CONTROLLER + "/usb1/1-1.300").encode(), b"/usb1/" * 30, b"1-1." * 40]
        for path in paths:
            with self.subTest(path):
                self.ask(with_field("mode_request", request(12, phone), "devpath", path))
                self.expect_nothing("sdcm", "media")

    def test_texts_of_devices_reach_sdcm_cut_to_their_fields(self):
        fields = {"serial": 64, "product": 64, "manufacturer": 64, "devpath": 128}
        for what, text in TEXTS.items():
            with self.subTest(what):
                came, left = node(), node(21)
                for field in fields:
                    came = with_field("node", came, field, text)
                    left = with_field("node", left, field, text)
                self.ask(came, usbrecords.message(18), left)
                records = self.await_records("sdcm", 3)
                self.assertEqual([record["id"] for record in records], [1, 1, 2])
                for record in records:
                    self.assertEqual(record.faults, [])
                    for field, size in fields.items():
                        self.assertEqual(record[field].encode("utf-8", "surrogateescape"), cut(text, size), field)

    def test_texts_of_phones_reach_media_cut_to_their_fields(self):
        for what, text in TEXTS.items():
            with self.subTest(what):
                came, left = node(dev_type=9), node(21)
                for field in ("serial", "product", "manufacturer"):
                    came = with_field("node", came, field, text)
                came = with_field("node", came, "devpath", board.CONTROLLER.encode() + text)     # not a stranger's
                self.ask(came, left)
                records = self.await_records("media", 2)
                self.assertEqual([record["cmd"] for record in records], [2, 5])
                for record in records:
                    self.assertEqual(record.faults, [])
                    self.assertEqual(record["serial"].encode("utf-8", "surrogateescape"), cut(text, 64))

    def test_control_bytes_are_escaped_in_the_log(self):
        self.attach()
        self.ask(with_field("mode_request", request(12, board.phone("1-1.1")[0]), "devpath",
                            PATH.encode()[:-1] + b"4\n[31m%n\x1b"))
        self.expect_log("port_state is null")
        self.ask(with_field("node", node(21), "serial", b"a\nb\x1b%n\xff"), with_field("node", node(), "serial",
                                                                                       b"a\nb\x1b%n\xff"))
        self.expect_log(r"devtype:5 vid:1234 pid:5678 class:8 speed:2 manu:M serial:a\x0ab\x1b%n\xff product:P "
                        f"path:{PATH}")


class Numbers(BadRequests):
    def test_ports_of_any_number_are_taken_but_zero(self):
        for port in (9, 10, 99, 100, 255):
            with self.subTest(port):
                self.ask(node(port=port), node(21, port))
                records = self.await_records("sdcm", 2)
                self.assertEqual([(record["id"], record["port"]) for record in records], [(1, port), (2, port)])
                self.ask(node(21, port, sender=4), *(usbrecords.message(id, port=port) for id in (22, 23, 45, 46, 47)))
                self.expect_log(f"port{port} {port % 10} STATE_DETACH")
                self.expect_log(f"port{port} STATE_DETACH, so not send", level=160)
                self.expect_nothing("sdcm", "media")

    def test_port_0_is_refused_with_every_id(self):
        for id in (20, 21, 22, 23, 45, 46, 47):
            with self.subTest(id):
                self.ask(node(id, 0))
                self.expect_log("port0 is invalid", level=192)
                self.expect_nothing("sdcm", "media")
        self.ask(usbrecords.message(29, port=0))
        self.expect_log("port:0 is invalid", level=192)

    def test_a_port_in_the_header_of_a_request_does_not_matter(self):
        self.attach()
        for port in (0, 9, 10, 99, 100, 255):
            asked = request(14, board.phone("1-1.1")[0], port)
            self.ask(asked)
            self.expect("sdcm", result(7, asked, 1, port=1))

    def test_numbers_of_devices_are_passed_on_as_they_are(self):
        for number in NUMBERS:
            with self.subTest(number):
                self.ask(node(dev_type=number, speed=number, vid=number & 0xFFFF, usb_class=number & 0xFF),
                         node(21, dev_type=number, speed=number))
                records = self.await_records("sdcm", 2)
                self.assertEqual([(record["id"], record["dev_type"], record["speed"]) for record in records],
                                 [(1, number, number), (2, number, number)])

    def test_results_and_senders_in_a_request_do_not_matter(self):
        self.attach()
        for number in (-1, 2, 0x7FFFFFFF, -0x80000000):
            asked = request(14, board.phone("1-1.1")[0], result=number, sender=number & 0xFF)
            self.ask(asked)
            self.expect("sdcm", result(7, asked, 1))

    def test_a_device_of_an_unknown_sender_is_no_deferred_one(self):
        for sender in (0, 1, 2, 3, 5, 255):
            self.ask(node(sender=sender), node(21, sender=sender))
            self.assertEqual([record["id"] for record in self.await_records("sdcm", 2)], [1, 2])


class Lots(BadRequests):
    def test_random_requests_do_no_harm(self):
        seed = int(os.environ.get("REQUESTS_SEED", 0)) or random.SystemRandom().randrange(1, 1 << 30)
        print(f"seed {seed} ", end="", flush=True)
        chance = random.Random(seed)
        ids = [id for id in range(61) if id not in SLOW and id not in (20, 21)]
        for i in range(3000):
            data = bytearray(chance.randbytes(chance.randrange(9, 400)))
            data[4:8] = chance.choice(ids).to_bytes(4, "little")
            data[8] = chance.choice((0, 1, 2, 11, 32, 255))
            if len(data) > 206 and chance.random() < 0.7:
                data[78:206] = PATH.encode().ljust(128, b"\0")
            self.send("sdcm", bytes(data))
            if i % 100 == 0:            # devices come and go, wild but few
                data = bytearray(node(chance.choice((20, 21)), chance.choice((1, 2))))
                data[28:] = chance.randbytes(len(data) - 28)
                self.send("sdcm", bytes(data))
        self.settle_requests(60)
        self.assert_records_are_sound()

    def test_requests_in_a_row_are_all_answered(self):
        self.attach()
        asked = request(14, board.phone("1-1.1")[0])
        for _ in range(20):
            self.mark()
            for _ in range(100):
                self.send("sdcm", asked)
            self.await_records("sdcm", 100)
            self.settle_requests()
            self.expect("sdcm", *[result(7, asked, 1)] * 100)

    def test_ten_thousand_requests_at_once_are_all_worked_off(self):
        self.attach()
        self.mark()
        asked = request(14, board.phone("1-1.1")[0])
        for _ in range(10000):
            self.send("sdcm", asked)
        self.settle_flood()
        lines = self.service.since(self.log_from)
        lost = sum(line.lost for line in lines)
        refused = sum(line.text == "port1 STATE_ATTACH, so can't change" for line in lines)
        self.assertLessEqual(10000 - refused, lost)
        # SDCM's own backlog has an end: answers that it does not fetch in time are lost, and that is said.
        records = self.got("sdcm")
        self.assertEqual({record.data for record in records}, {result(7, asked, 1)})
        if len(records) < 10000 and not lost:
            self.expect_log("sdcm does not read: its backlog is full, packets to it are lost")

    def settle_flood(self):
        """The log may lose lines, that of the last request too: it is repeated."""
        for _ in range(20):
            try:
                return self.settle_requests(3)
            except self.failureException:
                pass
        return self.settle_requests()


if __name__ == "__main__":
    main()
