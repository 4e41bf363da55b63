#!/usr/bin/python3
"""The console's parts, each alone."""
import re
import struct
import tempfile
import threading
import unittest

from paths import ROOT

import usbrecords
from console import devices, forms, layouts, model, requests, states, status, words
from console.feed import Feed
from headunit import Hub, Phone


class TheFeed(unittest.TestCase):
    def setUp(self):
        self.feed = Feed({"record": 3, "log": 2})

    def told(self, version=0, timeout=0):
        return [(entry.kind, entry.data) for entry in self.feed.after(version, timeout)]

    def test_tells_what_happened_in_order_over_all_kinds(self):
        self.feed.put("record", "a")
        self.feed.put("log", "b")
        self.feed.put("record", "c")
        self.assertEqual(self.told(), [("record", "a"), ("log", "b"), ("record", "c")])

    def test_keeps_the_last_entries_of_each_kind(self):
        for number in range(5):
            self.feed.put("record", number)
        self.feed.put("log", "b")
        self.assertEqual(self.told(), [("record", 2), ("record", 3), ("record", 4), ("log", "b")])

    def test_tells_only_what_is_newer_than_a_version(self):
        self.feed.put("record", "a")
        version = self.feed.after(0, 0)[-1].version
        self.assertEqual(self.told(version), [])
        self.feed.put("log", "b")
        self.assertEqual(self.told(version), [("log", "b")])

    def test_an_amended_entry_is_told_again_with_its_number(self):
        number = self.feed.put("record", "a")
        self.feed.put("record", "b")
        version = self.feed.after(0, 0)[-1].version
        self.feed.amend("record", number, "A")
        entry, = self.feed.after(version, 0)
        self.assertEqual((entry.number, entry.data), (number, "A"))
        self.assertEqual(self.told(), [("record", "b"), ("record", "A")])

    def test_an_entry_that_is_no_longer_kept_is_not_amended(self):
        number = self.feed.put("log", "a")
        self.feed.put("log", "b")
        self.feed.put("log", "c")
        self.feed.amend("log", number, "A")
        self.assertEqual(self.told(), [("log", "b"), ("log", "c")])

    def test_of_what_stands_only_the_last_is_told_and_only_when_it_differs(self):
        self.feed.show("unit", {"state": "booting"})
        self.feed.show("unit", {"state": "running"})
        self.assertEqual(self.told(), [("unit", {"state": "running"})])
        version = self.feed.after(0, 0)[-1].version
        self.feed.show("unit", {"state": "running"})
        self.assertEqual(self.told(version), [])

    def test_who_waits_is_woken_by_news(self):
        found = []
        waiter = threading.Thread(target=lambda: found.extend(self.told(timeout=30)))
        waiter.start()
        self.feed.put("log", "a")
        waiter.join(30)
        self.assertEqual(found, [("log", "a")])

    def test_who_waits_is_woken_by_the_end(self):
        waiter = threading.Thread(target=lambda: self.feed.after(0, 30))
        waiter.start()
        self.feed.close()
        waiter.join(10)
        self.assertFalse(waiter.is_alive())
        self.assertFalse(self.feed.is_open)


class Fields(unittest.TestCase):
    def refused(self, field, value, text):
        with self.assertRaisesRegex(forms.WrongInput, text):
            field.parse(value)

    def test_a_number_is_decimal_or_hexadecimal_and_within_its_range(self):
        field = forms.Field("vid", "Vendor", "number", low=1, high=0xFFFF)
        self.assertEqual([field.parse(text) for text in ("10", " 0x10 ", 16)], [10, 16, 16])
        self.refused(field, "ten", "Vendor: 'ten' is no number")
        self.refused(field, "0", "Vendor: 0 is not between 1 and 65535")
        self.refused(field, "0x10000", "Vendor: 65536 is not between")
        self.refused(field, None, "is no number")

    def test_a_choice_is_one_of_those_offered(self):
        field = forms.Field("id", "Request", "choice", choices=((12, "Android Auto"),))
        self.assertEqual((field.parse("12"), field.parse(12)), (12, 12))
        self.refused(field, "13", "Request: there is no choice '13'")

    def test_bytes_are_hexadecimal_digits(self):
        field = forms.Field("bytes", "Bytes", "hex", most=3)
        self.assertEqual((field.parse("02 00"), field.parse("")), (b"\2\0", b""))
        self.refused(field, "2", "is no bytes")
        self.refused(field, "01020304", "4 bytes are more than 3")
        self.refused(field, 12, "a text is needed")

    def test_a_text_fits_and_has_its_form(self):
        field = forms.Field("serial", "Serial", most=4)
        self.assertEqual(field.parse("ääx"[:2]), "ää")
        self.refused(field, "äää", "6 bytes are more than 4")
        self.refused(field, "a\0", "zero byte")
        self.refused(devices.IDS, "0bda", "is not like that")
        self.assertEqual((devices.IDS.parse(""), devices.IDS.parse("0BDA:8152")), ("", "0BDA:8152"))

    def test_a_form_takes_its_defaults_and_refuses_what_it_does_not_have(self):
        fields = [forms.Field("a", "A", "number", 7), forms.Field("b", "B", default="x")]
        self.assertEqual(forms.parse(fields, {"b": "y"}), {"a": 7, "b": "y"})
        with self.assertRaisesRegex(forms.WrongInput, "there is no field c, d"):
            forms.parse(fields, {"d": "", "c": ""})
        with self.assertRaisesRegex(forms.WrongInput, "fields are missing"):
            forms.parse(fields, None)


class Machine(unittest.TestCase):
    HEADER = (ROOT / "usbservice/src/port/UPortState.h").read_text(encoding="utf-8")

    def test_all_states_of_a_port_are_drawn_and_no_other(self):
        self.assertEqual(set(re.findall(r"(STATE_\w+) = \d+", self.HEADER)), set(states.STATES))

    def test_each_state_has_a_place_of_its_own(self):
        self.assertEqual(len(set(states.STATES.values())), len(states.STATES))

    def test_each_state_that_is_entered_can_be_reached_and_left(self):
        entered = set(states.STATES) - set(states.NEVER_ENTERED)
        self.assertEqual({here for here, _, _ in states.WAYS}, entered)
        self.assertEqual({there for _, there, _ in states.WAYS}, entered)

    def test_no_way_is_drawn_twice(self):
        ways = [(here, there) for here, there, _ in states.WAYS]
        self.assertEqual(len(set(ways)), len(ways))


class HeaderLayouts(unittest.TestCase):
    HEADER = """
        inline constexpr std::size_t kPorts = 2;  // = 9
        enum E : std::uint32_t { };
        struct [[gnu::packed]] Inner {
            std::uint16_t id;   // a comment; with one
        };
        struct [[gnu::packed]] Outer {
            std::uint8_t port;
            char name[4];
            std::uint32_t values[kPorts];
            Inner inner;
        };
        static_assert(sizeof(Outer) == 15);
        """.replace("\n        ", "\n")

    def test_a_struct_is_unpacked_by_its_names(self):
        outer = self.read(self.HEADER)["Outer"]
        data = struct.pack("<B4sIIH", 7, b"ab\0z", 1, 2, 3)
        self.assertEqual(outer.unpack(b"--" + data, 2), {"port": 7, "name": "ab", "values": [1, 2], "inner": {"id": 3}})

    def test_a_size_that_the_header_asserts_otherwise_is_an_error(self):
        with self.assertRaisesRegex(ValueError, "Outer has 15 bytes"):
            self.read(self.HEADER.replace("== 15", "== 16"))

    def test_bytes_that_end_too_early_are_an_error(self):
        with self.assertRaisesRegex(ValueError, "Inner takes 2 bytes, not 1"):
            self.read(self.HEADER)["Inner"].unpack(b"-")

    @staticmethod
    def read(text):
        found = layouts.Layouts()
        found.add(text)
        return found


STATUS = layouts.read("platform/include/platform/status.h", "usbservice/src/record/StatusRecord.h")
TAP = layouts.read("platform/include/platform/tap.h")


def text(value, width):
    return value.encode().ljust(width, b"\0")


def row(kind, record):
    return struct.pack("<IIQ", STATUS.numbers[kind], len(record), 1) + record


def start(magic=0x5453534B):
    return row("KIND_START", struct.pack("<IHHIIQQ", magic, 1, 16, 42, 0, 1, 2))


def number(name, value):
    return row("KIND_NUMBER", text(name, 24) + struct.pack("<Q", value))


def device(product=""):
    return struct.pack("<IHHB3x", 9, 0x18D1, 0x4EE7, 2) + text("SERIAL", 64) + text(product, 64) + bytes(64) + \
        text("/devices/x/1-1.2", 128)


def port(state, name, since, product="Nexus"):
    return row("STATUS_PORT", struct.pack("<QIB3x", int(since * 1e9), state, 2) + text(name, 24) + device(product))


MOUNT = row("STATUS_MOUNT", struct.pack("<BB2x", 1, 1) + text("vfat", 32) + text("/tmp/USB/PORT1/PART1/", 64) +
            text("STICK", 64) + text("1234-ABCD", 64) + bytes(256))
END = row("KIND_END", bytes(16))


def snapshot(*rows):
    return start() + number("version", 1) + number("state", 2) + b"".join(rows) + END


class Status(unittest.TestCase):
    def test_a_snapshot_is_decoded_by_the_headers(self):
        found = status.decode(snapshot(port(8, "STATE_AA", 12.5), row("STATUS_DEVICE", device("P")), MOUNT))
        self.assertEqual(found["start"]["process"], 42)
        self.assertEqual(found["numbers"], {"version": 1, "state": 2})
        self.assertEqual([(one["port"], one["state_name"], one["since_ns"]) for one in found["ports"]],
                         [(2, "STATE_AA", 12_500_000_000)])
        self.assertEqual([one["product"] for one in found["devices"]], ["P"])
        self.assertEqual([(one["mount_path"], one["label"]) for one in found["mounts"]],
                         [("/tmp/USB/PORT1/PART1/", "STICK")])

    def test_an_answer_that_was_cut_off_is_none(self):
        self.assertIsNone(status.decode(b""))
        self.assertIsNone(status.decode(snapshot()[:-len(END)]))

    def test_rows_of_a_kind_that_is_not_known_are_passed_over(self):
        unknown = struct.pack("<IIQ", 9999, 3, 1) + b"???"
        self.assertEqual(len(status.decode(snapshot(unknown, MOUNT))["mounts"]), 1)

    def test_another_version_is_refused(self):
        with self.assertRaises(status.NotUnderstood):
            status.decode(start(magic=1) + END)
        with self.assertRaisesRegex(status.NotUnderstood, "version 2"):
            status.decode(start() + number("version", 2) + END)

    def test_the_tables_say_in_words_what_is_there(self):
        tables = {one["title"]: one["rows"] for one in
                  status.tables(status.decode(snapshot(row("STATUS_DEVICE", device("P")))))}
        self.assertIn(["state", "running"], tables["Service"])
        self.assertEqual(tables["Devices"], [["2", "phone", "18d1:4ee7", "P", "", "SERIAL", "/devices/x/1-1.2"]])


def tap(direction, sender, receiver, data, outcome=0, lost=0):
    return struct.pack("<IHHQQQIIBB6x", TAP.numbers["kTapMagic"], 1, 96, 1_500_000_000, 0, 0, lost, len(data),
                       direction, outcome) + text(sender, 24) + text(receiver, 24) + data


class Tap(unittest.TestCase):
    def entry(self, *arguments, **options):
        head, data = status.decode_tap(tap(*arguments, **options))
        return words.record_entry(head, usbrecords.decode(head["receiver"], data, head["sender"]))

    def test_what_goes_out_is_told_with_its_fields_in_words(self):
        entry = self.entry(2, "usb", "sdcm", usbrecords.build("mode_result", id=5, port=2, result=1))
        self.assertEqual((entry["time"], entry["direction"], entry["sender"], entry["receivers"], entry["name"]),
                         (1.5, "out", "usb", ["sdcm"], "mode_result"))
        said = {field["name"]: field["said"] for field in entry["fields"]}
        self.assertEqual((said["id"], said["result"]), ("result of Android Auto", "failed"))
        self.assertEqual((entry["port"], entry["outcome"], entry["faults"]), (2, "delivered", []))

    def test_what_comes_in_is_told_as_well(self):
        entry = self.entry(1, "diag", "usb", usbrecords.run_hub_test())
        self.assertEqual((entry["direction"], entry["sender"], entry["name"]), ("in", "diag", "diag_run_test"))

    def test_what_nobody_got_and_what_was_lost_is_said(self):
        entry = self.entry(2, "usb", "media", b"?", outcome=1, lost=3)
        self.assertEqual((entry["name"], entry["outcome"]), (None, "no receiver"))
        self.assertEqual(entry["faults"], ["3 records before this one were lost on the way here"])

    def test_another_version_is_refused(self):
        with self.assertRaises(status.NotUnderstood):
            status.decode_tap(b"\0" * 96)


class LogLines(unittest.TestCase):
    def test_a_line_of_the_service_is_taken_apart(self):
        line = "[    2.531054] 160 2816.0 154/frame-usb UPortState.cpp:61 SetState: port2 STATE_DETACH->STATE_ATTACH"
        self.assertEqual(words.log_entry(9.0, line), {
            "time": 2.531054, "source": "service", "level": 160, "from": "frame-usb UPortState.cpp:61",
            "text": "SetState: port2 STATE_DETACH->STATE_ATTACH"})

    def test_any_other_line_is_told_as_it_is(self):
        self.assertEqual(words.log_entry(9.0, "oops")["text"], "oops")
        self.assertEqual(words.log_entry(9.0, "oops")["time"], 9.0)


class PhonesEvents(unittest.TestCase):
    def test_a_request_of_the_service_is_said_in_words(self):
        event = words.phone_event("transfer 40 34 0 0 416e64726f696400 ok")
        self.assertEqual((event["kind"], event["said"], event["answer"]),
                         ("vendor", 'the manufacturer is "Android"', "ok"))
        self.assertEqual(words.phone_event("transfer c0 33 0 0 - 0200")["said"],
                         "which accessory protocol do you speak?")

    def test_a_request_of_a_driver_is_told_apart(self):
        self.assertEqual(words.phone_event("transfer 21 a 0 0 - ok")["kind"], "class")

    def test_what_happens_on_the_bus(self):
        self.assertEqual(words.phone_event("came accessory")["said"], "is on the bus, as accessory")
        self.assertEqual(words.phone_event("left")["said"], "leaves the bus")
        self.assertIsNone(words.phone_event("listening"))


class TheModel(unittest.TestCase):
    def setUp(self):
        self.model = model.Model()

    def line(self, time, before, after):
        return self.model.log_line(time, f"SetState: port2 {before}->{after}")

    def look(self, *rows):
        self.model.status(status.decode(snapshot(*rows)))

    def trail(self):
        return [state for _, state in self.model.ports[2]["trail"]]

    def test_states_are_followed_by_the_log(self):
        self.assertTrue(self.line(1.0, "STATE_DETACH", "STATE_ATTACH"))
        self.assertTrue(self.line(2.0, "STATE_ATTACH", "STATE_AA_CHANGING"))
        self.assertFalse(self.model.log_line(3.0, "SetState: nothing of the kind"))
        self.assertEqual(self.trail(), ["STATE_DETACH", "STATE_ATTACH", "STATE_AA_CHANGING"])
        self.assertEqual(self.model.ports[2]["since"], 2.0)

    def test_states_are_known_by_the_status_alone(self):
        self.look(port(1, "STATE_ATTACH", 1.0))
        self.look(port(8, "STATE_AA", 2.0))
        self.assertEqual(self.trail(), ["STATE_DETACH", "STATE_ATTACH", "STATE_AA"])
        self.assertEqual(self.model.ports[2]["device"],
                         {"product": "Nexus", "serial": "SERIAL", "type": "phone", "ids": "18d1:4ee7"})

    def test_a_status_that_is_older_than_the_log_changes_nothing(self):
        self.look(port(1, "STATE_ATTACH", 1.0))
        self.line(2.0, "STATE_ATTACH", "STATE_AA_CHANGING")
        self.look(port(1, "STATE_ATTACH", 1.0))
        self.assertEqual(self.trail(), ["STATE_DETACH", "STATE_ATTACH", "STATE_AA_CHANGING"])

    def test_a_status_that_says_the_same_as_the_log_adds_nothing(self):
        self.line(1.0, "STATE_DETACH", "STATE_ATTACH")
        self.look(port(1, "STATE_ATTACH", 1.001))
        self.assertEqual(self.trail(), ["STATE_DETACH", "STATE_ATTACH"])

    def test_a_state_that_was_entered_again_is_newer_but_no_step(self):
        self.line(1.0, "STATE_DETACH", "STATE_ATTACH")
        self.line(2.0, "STATE_ATTACH", "STATE_ATTACH")
        self.assertEqual((self.trail(), self.model.ports[2]["since"]), (["STATE_DETACH", "STATE_ATTACH"], 2.0))

    def test_mounts_are_those_of_the_last_status(self):
        self.look(MOUNT)
        self.assertEqual(self.model.describe()["mounts"], [
            {"path": "/tmp/USB/PORT1/PART1/", "port": 1, "partition": 1, "fs_type": "vfat", "label": "STICK",
             "uuid": "1234-ABCD"}])
        self.look()
        self.assertEqual(self.model.describe()["mounts"], [])

    def tell(self, name, **fields):
        record = usbrecords.parse(name, usbrecords.build(name, **fields))
        return self.model.record(record)

    def test_what_sdcm_was_told_of_a_device_is_what_a_request_about_it_needs(self):
        self.tell("device_event", id=1, port=2, vid=1, pid=2, serial="S", product="P", devpath="/x")
        self.assertEqual(self.model.describe()["known"],
                         [{"port": 2, "vid": 1, "pid": 2, "serial": "S", "devpath": "/x", "product": "P"}])
        self.tell("mode_result", id=5, port=2, vid=1, pid=3, serial="S", devpath="/x", result=0)
        self.assertEqual([(one["pid"], one["product"]) for one in self.model.describe()["known"]], [(3, "P")])
        self.tell("mode_result", id=5, port=2, vid=1, pid=9, serial="S", devpath="/x", result=1)
        self.assertEqual([one["pid"] for one in self.model.describe()["known"]], [3])
        self.tell("device_event", id=2, port=2, vid=1, pid=3)
        self.assertEqual(self.model.describe()["known"], [])
        self.assertFalse(self.tell("scan", id=3))

    def test_with_the_service_everything_is_gone(self):
        self.line(1.0, "STATE_DETACH", "STATE_ATTACH")
        self.look(MOUNT)
        self.model.clear()
        self.assertEqual(self.model.describe(), {"ports": {}, "mounts": [], "known": [], "status": []})


class RecordingUnit:
    """Remembers what is asked of it."""

    def __init__(self):
        self.sent = []
        self.called = []

    def send(self, sender, data):
        self.sent.append((sender, data))

    def __getattr__(self, name):
        return lambda *arguments: self.called.append((name, *arguments))


class Catalogues(unittest.TestCase):
    def test_every_request_of_a_process_is_a_record_that_the_service_knows(self):
        asked = 0
        for key, request in requests.catalogue().items():
            if request.group in ("Engineering menu", "Board", "Raw"):
                continue
            with self.subTest(key):
                unit = RecordingUnit()
                request.act(unit, forms.parse(request.fields, {}))
                (sender, data), = unit.sent
                self.assertIsNotNone(usbrecords.decode("usb", data, sender).name)
                asked += 1
        self.assertGreaterEqual(asked, 9)

    def test_a_mode_request_says_what_was_typed(self):
        unit = RecordingUnit()
        request = requests.catalogue()["mode"]
        request.act(unit, forms.parse(request.fields, {"id": "17", "vid": "0x18d1", "pid": "0x2d00", "serial": "S",
                                                       "devpath": "/x", "devid": "D"}))
        self.assertEqual(unit.sent, [("sdcm", usbrecords.mode_request(17, vid=0x18D1, pid=0x2D00, serial="S",
                                                                      devpath="/x", devid="D"))])

    def test_the_engineering_menu_writes_the_records_of_the_store(self):
        unit = RecordingUnit()
        request = requests.catalogue()["switches"]
        request.act(unit, forms.parse(request.fields, {"force2": "1", "mode1": "1"}))
        request = requests.catalogue()["hub_support"]
        request.act(unit, forms.parse(request.fields, {"supported": "0"}))
        self.assertEqual(unit.called, [("sh", "settings write shm_usb_cert 0 1 1 0"),
                                       ("sh", "settings write shm_usb_cert_persist 0")])

    def test_a_place_that_is_none_reaches_no_shell(self):
        fields = requests.catalogue()["configuration"].fields
        with self.assertRaisesRegex(forms.WrongInput, "Place"):
            forms.parse(fields, {"place": "1.1; reboot"})

    def test_every_description_of_a_phone_is_offered_with_its_keys(self):
        kinds = devices.catalogue()
        self.assertLessEqual({"phone android", "phone iphone", "phone mirrorlink"}, set(kinds))
        self.assertFalse(any("functions" in key for key in kinds))
        android = {field.name: field.default for field in kinds["phone android"].fields}
        self.assertEqual((android["starts"], android["vid"], android["returns"], android["answer protocol"]),
                         ("phone", "0x18d1", "accessory", "02 00"))

    def test_a_phone_gets_only_what_differs_from_its_description(self):
        kind = devices.catalogue()["phone android"]
        with tempfile.TemporaryDirectory() as folder:
            plain = kind.make(forms.parse(kind.fields, {}), folder)
            changed = kind.make(forms.parse(kind.fields, {
                "starts": "accessory", "product": "<b>", "returns": "phone, accessory after 200",
                "answer protocol": "stall"}), folder)
        self.assertIsInstance(plain, Phone)
        self.assertEqual(plain._overrides, [])
        self.assertEqual(changed._overrides, ['starts="accessory"', 'product="<b>"',
                                              'returns=["phone", "accessory after 200"]',
                                              'answers={protocol = {answer = "stall"}}'])

    def test_only_the_hub_has_places_for_others(self):
        hubs = []
        with tempfile.TemporaryDirectory() as folder:
            for key, kind in devices.catalogue().items():
                if kind.group == "Other devices" and isinstance(kind.make(forms.parse(kind.fields, {}), folder), Hub):
                    hubs.append(key)
        self.assertEqual(hubs, ["hub"])


if __name__ == "__main__":
    unittest.main()
