"""Emulated phones are what tests of the service take them for. Runs without the service; about two minutes.

    python3 -m unittest discover -s tools/headunit
"""
import os
import pathlib
import tempfile
import time
import unittest

from headunit import HeadUnit, HeadUnitError, Hub, Phone
from headunit.phones import DESCRIPTIONS

IN, OUT = 0xC0, 0x40
PROTOCOL, TEXT, START = 51, 52, 53
MIRRORLINK = (OUT, 0xF0, 0x0101, 0x1004)
CARPLAY = (IN, 0x53, 0, 0)


def own_programs():
    """Process ids of the phones that this process has started."""
    found = []
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            name, parent = (folder / "comm").read_text().strip(), (folder / "stat").read_text().rsplit(")", 1)[1]
        except OSError:
            continue   # it has ended meanwhile
        if name == "headunit_phone" and int(parent.split()[1]) == os.getpid():
            found.append(int(folder.name))
    return found


class Descriptions(unittest.TestCase):
    """What is wrong with a description is said before anything is plugged."""

    def fails(self, text, expected, **overrides):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = pathlib.Path(folder.name) / "odd.toml"
        path.write_text(text)
        (path.parent / "functions.toml").write_text((DESCRIPTIONS / "functions.toml").read_text())
        phone = Phone(path, **overrides)
        with self.assertRaisesRegex(HeadUnitError, expected):
            phone._start()

    def test_every_description_can_be_used(self):
        names = {path.stem for path in DESCRIPTIONS.glob("*.toml")} - {"functions"}
        self.assertLessEqual({"android", "iphone", "mirrorlink"}, names)
        for name in names:
            phone = Phone(name)
            phone._start()
            phone.end()

    def test_an_unknown_key_is_named_with_file_and_line(self):
        self.fails('vid = 1\nvidd = 2\nconfigurations = [["adb"]]', r"odd\.toml:2: vidd: there is no such key")
        self.fails('[modes.phone]\nconfigurations = [["adb"]]\nspeed = 3', r"odd\.toml:3: speed: there is no such key")
        self.fails('configurations = [["adb"]]\n[answers]\na = { type = 1, request = 1, answer = "ok", data = 1 }',
                   r"odd\.toml:3: data: there is no such key")

    def test_a_wrong_value_is_named_with_file_and_line(self):
        adb = 'configurations = [["adb"]]\n'
        for text, expected in (
                (adb + "vid = 0x10000", r"odd\.toml:2: vid: must be a number from 0 to 65535"),
                (adb + 'serial = "\u00e4"', r"odd\.toml:2: serial: must be a text of ASCII"),
                (adb + f'serial = "{"x" * 127}"', r"odd\.toml:2: serial: is longer than 126"),
                ('configurations = [["zip"]]', r'odd\.toml:1: configurations: there is no function "zip"'),
                (adb + 'returns = ["accessory"]', r'odd\.toml:2: returns: there is no mode "accessory"'),
                (adb + 'returns = ["phone later"]', r"odd\.toml:2: returns: must be like"),
                (adb + 'starts = "away"', r'odd\.toml:2: starts: there is no mode "away"'),
                (adb + '[answers]\na = { type = 1, request = 1 }', r"odd\.toml:3: a: has no answer"),
                (adb + '[answers]\na = { type = 1, request = 1, answer = "no" }', r"odd\.toml:3: answer: must be"),
                (adb + '[functions]\nx = [{ extra = "05 2" }]', r"odd\.toml:3: extra: must be"),
                (adb + '[functions]\nx = [{ endpoints = ["up bulk"] }]', r"odd\.toml:3: endpoints: must be like"),
                ("vid = 1", r"odd\.toml:1: configurations: must name"),
                ("vid = ", r"odd\.toml:1: ")):
            with self.subTest(text=text):
                self.fails(text, expected)

    def test_a_wrong_override_is_named(self):
        self.fails('configurations = [["adb"]]', "overrides:1: serail: there is no such key", serail="X")

    def test_a_description_that_is_not_there_is_named(self):
        with self.assertRaisesRegex(HeadUnitError, "nokia.toml"):
            Phone("nokia")._start()


class Machine(unittest.TestCase):
    """One boot serves all the classes made of this one."""
    unit = None

    @classmethod
    def setUpClass(cls):
        if Machine.unit is None:
            unit = HeadUnit()
            unittest.addModuleCleanup(unit.close)
            Machine.unit = unit.__enter__()

    def setUp(self):
        self.addCleanup(self.unit.reset)

    def plug(self, port, phone):
        """And waits until the guest has configured it."""
        self.unit.plug(port, phone)
        self.configured(phone, port)
        return phone

    def configured(self, phone, port, since=0):
        phone.wait("configured 1", since=since)
        self.unit.wait_path(f"{self.unit.usb_path(port)}/1-{port}:1.0")

    def shown(self, port, *names):
        return [self.unit.sh(f"cat {self.unit.usb_path(port)}/{name}") for name in names]

    def ids(self, port):
        return ":".join(self.shown(port, "idVendor", "idProduct"))

    def gone(self, port):
        self.unit.wait_path(self.unit.usb_path(port), present=False)

    def request(self, port, request_type, request, value=0, index=0, content="-", milliseconds=1000):
        """What the guest gets: bytes as hexadecimal, or an error's name."""
        return self.unit.run(f"usbcontrol 1-{port} {request_type} {request} {value} {index} {content} {milliseconds}",
                             check=False).text.strip()

    def switch(self, port):
        """What the service does to an Android phone."""
        self.assertEqual(self.request(port, IN, PROTOCOL, content=2), "0200")
        for index in range(6):
            self.assertEqual(self.request(port, OUT, TEXT, index=index, content="4100"), "")
        self.assertEqual(self.request(port, OUT, START), "")


class Phones(Machine):
    def test_it_shows_its_ids_texts_and_interfaces(self):
        self.plug("1.2", Phone("android"))
        self.assertEqual(self.shown("1.2", "idVendor", "idProduct", "manufacturer", "product", "serial", "speed"),
                         ["18d1", "4ee7", "Google", "Nexus", "0123456789ABCDEF", "12"])
        names = ("bInterfaceClass", "bInterfaceSubClass", "bInterfaceProtocol", "bNumEndpoints", "interface")
        self.assertEqual(self.shown("1.2", *(f"1-1.2:1.0/{name}" for name in names)),
                         ["ff", "42", "01", "02", "ADB Interface"])

    def test_a_test_puts_its_own_values_over_the_description(self):
        self.plug("1.1", Phone("android", serial="ABC", vid=0x04E8, modes={"phone": {"pid": 0x1234}},
                               configurations=[["storage"]], version=0x0203))
        self.assertEqual(self.shown("1.1", "idVendor", "idProduct", "bcdDevice", "serial", "1-1.1:1.0/bInterfaceClass"),
                         ["04e8", "1234", "0203", "ABC", "ff"])
        # The mode's own interfaces stay: what stands outside of the modes is for modes that do not say it.
        self.plug("1.2", Phone("android", modes={"phone": {"configurations": [["mtp", "storage"]]}}))
        self.assertEqual(self.shown("1.2", "1-1.2:1.0/interface", "1-1.2:1.1/bInterfaceClass"), ["MTP", "08"])

    def test_a_phone_without_serial_text_has_none(self):
        self.plug("1.2", Phone("android", serial=""))
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.2") + "/serial"))
        self.assertEqual(self.shown("1.2", "product"), ["Nexus"])

    def test_requests_are_answered_and_told_in_order(self):
        phone = self.plug("1.2", Phone("android", returns=["stays"]))
        begin = self.unit.now()
        self.assertEqual(self.request("1.2", IN, PROTOCOL, content=2), "0200")
        self.assertEqual(self.request("1.2", OUT, TEXT, index=2, content="41626300"), "")
        place = phone.mark()
        self.assertEqual(self.request("1.2", OUT, START), "")
        seen = phone.transfers()
        self.assertEqual([one.setup for one in seen], [(IN, PROTOCOL, 0, 0, b""), (OUT, TEXT, 0, 2, b"Abc\0"),
                                                       (OUT, START, 0, 0, b"")])
        self.assertEqual([one.answer for one in seen], ["0200", "ok", "ok"])
        self.assertEqual([one.request for one in phone.transfers(place)], [START])
        # On the guest's clock, to some ms; now() counts in hundredths.
        self.assertLess(begin - 0.02, seen[0].time)
        self.assertLess(seen[0].time, seen[1].time)
        self.assertLess(seen[2].time, self.unit.now() + 0.02)

    def test_a_longer_answer_is_cut_to_what_was_asked_for(self):
        phone = self.plug("1.2", Phone("iphone"))
        self.assertEqual(self.request("1.2", *CARPLAY, content=2), "0100")
        self.assertEqual(phone.transfers()[0].answer, "0100")

    def test_what_is_not_described_stalls(self):
        phone = self.plug("1.2", Phone("android"))
        self.assertEqual(self.request("1.2", OUT, 99), "request: Broken pipe")
        self.assertEqual(self.request("1.2", IN, 99, content=4), "request: Broken pipe")
        self.assertEqual([one.answer for one in phone.transfers()], ["stall", "stall"])

    def test_each_answer_can_be_another_one(self):
        phone = self.plug("1.2", Phone("android", answers={
            "protocol": b"\1", "description": "stall",
            "mine": {"type": IN, "request": 9, "value": 7, "answer": b"me"}}))
        self.assertEqual(self.request("1.2", IN, PROTOCOL, content=2), "01")
        self.assertEqual(self.request("1.2", OUT, TEXT, index=1, content="00"), "")
        self.assertEqual(self.request("1.2", OUT, TEXT, index=2, content="00"), "request: Broken pipe")
        self.assertEqual(self.request("1.2", IN, 9, value=7, content=8), b"me".hex())
        self.assertEqual(self.request("1.2", IN, 9, value=8, content=8), "request: Broken pipe")
        self.assertEqual([one.answer for one in phone.transfers()], ["01", "ok", "stall", b"me".hex(), "stall"])

    def test_the_more_exact_answer_wins(self):
        self.plug("1.2", Phone("android", answers={
            "a": {"type": IN, "request": 9, "answer": b"\1"},
            "b": {"type": IN, "request": 9, "value": 1, "index": 1, "answer": b"\3"},
            "c": {"type": IN, "request": 9, "index": 1, "answer": b"\2"}}))
        got = [self.request("1.2", IN, 9, value, index, 1) for value, index in ((0, 0), (0, 1), (1, 1), (1, 0))]
        self.assertEqual(got, ["01", "02", "03", "01"])

    def test_answers_are_given_one_after_another_and_the_last_stays(self):
        self.plug("1.2", Phone("iphone", answers={"carplay": [b"\2\0\0\0", b"\1\0\0\0"]}))
        got = [self.request("1.2", *CARPLAY, content=4) for _ in range(3)]
        self.assertEqual(got, ["02000000", "01000000", "01000000"])

    def test_a_request_without_answer_ends_by_its_time_limit_and_the_phone_goes_on(self):
        phone = self.plug("1.2", Phone("android", answers={"protocol": ["never", b"\2\0"]}))
        self.assertEqual(self.request("1.2", IN, PROTOCOL, content=2, milliseconds=300),
                         "request: Connection timed out")
        self.assertEqual(self.request("1.2", IN, PROTOCOL, content=2), "0200")
        self.assertEqual([one.answer for one in phone.transfers()], ["never", "0200"])

    def test_a_phone_that_is_pulled_ends_a_request_without_answer(self):
        for leaves in (False, True):
            phone = self.plug("1.2", Phone("android", answers={"protocol": "never"}))
            self.unit.run(f"usbcontrol 1-1.2 {IN} {PROTOCOL} 0 0 2 0 > /tmp/end 2>&1 &")
            phone.wait_transfer(request=PROTOCOL)
            if leaves:
                phone.leave()
                self.gone("1.2")
            self.unit.unplug(phone)
            self.unit.run("until [ -s /tmp/end ]; do usleep 50000; done")
            self.assertIn(self.unit.sh("cat /tmp/end; rm /tmp/end"),
                          ("request: No such device", "request: Protocol error",
                           "request: Cannot send after transport endpoint shutdown"))
            self.gone("1.2")

    def test_it_can_be_reset_on_the_bus_and_bound_again(self):
        phone = self.plug("1.2", Phone("android"))
        place = phone.mark()
        self.unit.run("echo 1-1.2 > /sys/bus/usb/drivers/usb/unbind")
        phone.wait("configured 0", since=place)
        self.unit.run("echo 1-1.2 > /sys/bus/usb/drivers/usb/bind")
        self.configured(phone, "1.2", since=place)
        self.assertEqual(self.request("1.2", IN, PROTOCOL, content=2), "0200")
        self.assertNotIn("left", [event.what for event in phone.events()])

    def test_behind_a_hub(self):
        hub = self.unit.plug("1.2", Hub())
        self.unit.wait_path(self.unit.usb_path("1.2") + "/1-1.2:1.0")
        phone = self.plug("1.2.3", Phone("android"))
        self.switch("1.2.3")
        phone.wait("came accessory")
        self.configured(phone, "1.2.3", since=phone.mark())
        self.assertEqual(self.ids("1.2.3"), "18d1:2d00")
        self.unit.unplug(hub)
        self.gone("1.2")
        self.assertIsNone(phone.port)
        self.assertEqual(own_programs(), [])
        self.plug("1.1", phone)
        self.assertEqual(self.ids("1.1"), "18d1:4ee7")

    def test_two_equal_phones_are_switched_each_on_its_own_port(self):
        first, second = self.plug("1.1", Phone("android")), self.plug("1.2", Phone("android"))
        self.switch("1.2")
        second.wait("came accessory")
        self.configured(second, "1.2", since=second.mark())
        self.assertEqual((self.ids("1.1"), self.ids("1.2")), ("18d1:4ee7", "18d1:2d00"))
        self.assertEqual(first.transfers(), [])
        self.switch("1.1")
        first.wait("came accessory")
        self.configured(first, "1.1", since=first.mark())
        self.assertEqual((self.ids("1.1"), self.ids("1.2")), ("18d1:2d00", "18d1:2d00"))
        self.assertEqual(len(second.transfers()), 8)

    def test_it_can_be_unplugged_and_plugged_again_and_remembers_nothing(self):
        phone = self.plug("1.1", Phone("android", returns=["never"]))
        self.switch("1.1")
        phone.wait("left")
        self.gone("1.1")
        self.unit.unplug(phone)
        self.unit.plug("1.2", phone)
        self.configured(phone, "1.2", since=phone.mark())
        self.assertEqual(self.ids("1.2"), "18d1:4ee7")

    def test_a_port_that_is_taken_is_told_and_nothing_is_left(self):
        phone = self.plug("1.1", Phone("android"))
        with self.assertRaisesRegex(HeadUnitError, "1.1"):
            self.unit.plug("1.1", Phone("iphone"))
        self.assertEqual(len(own_programs()), 1)
        self.unit.unplug(phone)
        self.assertEqual(own_programs(), [])

    def test_reset_leaves_no_program(self):
        folders = [self.plug("1.1", Phone("android"))._folder, self.plug("1.2", Phone("iphone"))._folder]
        self.assertEqual(([folder.exists() for folder in folders], len(own_programs())), ([True, True], 2))
        self.unit.reset()
        self.assertEqual(([folder.exists() for folder in folders], own_programs()), ([False, False], []))


class Returns(Machine):
    """What an Android phone does after request 53."""

    def started(self, **description):
        """A phone that has just been told to start."""
        phone = self.plug("1.2", Phone("android", **description))
        self.switch("1.2")
        phone.wait("left")
        return phone

    @staticmethod
    def away(phone):
        """Seconds between each leaving and the coming after it."""
        times = [event for event in phone.events() if event.what == "left" or event.what.startswith("came ")]
        return [after.time - event.time for event, after in zip(times, times[1:]) if event.what == "left"]

    def test_it_leaves_and_comes_back_as_an_accessory_with_the_same_serial(self):
        phone = self.started()
        phone.wait("came accessory")
        self.configured(phone, "1.2", since=phone.mark())
        self.assertEqual((self.ids("1.2"), *self.shown("1.2", "serial", "1-1.2:1.0/bInterfaceSubClass")),
                         ("18d1:2d00", "0123456789ABCDEF", "ff"))
        self.assertEqual([event.what for event in phone.events() if "transfer" not in event.what and
                          event.what != "reset"],
                         ["listening", "came phone", "configured 1", "left", "came accessory", "configured 1"])

    def test_it_comes_back_when_it_shall(self):
        for after, limits in ((0, (0, 0.1)), (900, (0.9, 1.1))):
            phone = self.started(returns=[f"accessory after {after}"])
            phone.wait("came accessory")
            self.configured(phone, "1.2", since=phone.mark())
            self.assertTrue(limits[0] <= self.away(phone)[0] <= limits[1], self.away(phone))
            self.unit.unplug(phone)
            self.gone("1.2")

    def test_a_start_that_stalls_changes_nothing(self):
        phone = self.plug("1.2", Phone("android", answers={"start": "stall"}))
        self.assertEqual(self.request("1.2", OUT, START), "request: Broken pipe")
        time.sleep(0.5)
        self.assertNotIn("left", [event.what for event in phone.events()])

    def test_it_takes_the_start_and_stays(self):
        phone = self.plug("1.2", Phone("android", returns=["stays"]))
        self.switch("1.2")
        time.sleep(0.5)
        self.assertNotIn("left", [event.what for event in phone.events()])
        self.assertEqual(self.ids("1.2"), "18d1:4ee7")

    def test_it_leaves_and_never_returns(self):
        phone = self.started(returns=["never"])
        self.gone("1.2")
        time.sleep(0.5)
        self.assertEqual(phone.events()[-1].what, "left")

    def test_it_returns_unswitched_as_often_as_described(self):
        phone = self.started(returns=["phone after 200"] * 2 + ["accessory"])
        for _ in range(2):
            self.configured(phone, "1.2", since=phone.mark())
            self.assertEqual(self.ids("1.2"), "18d1:4ee7")
            self.switch("1.2")
        phone.wait("came accessory")
        self.assertEqual([event.what for event in phone.events() if event.what.startswith("came ")],
                         ["came phone"] * 3 + ["came accessory"])

    def test_it_moves_by_command(self):
        phone = self.plug("1.2", Phone("android", starts="accessory"))
        self.assertEqual(self.ids("1.2"), "18d1:2d00")
        phone.leave()
        phone.wait("left")
        self.gone("1.2")
        for mode, pid in (("phone", "4ee7"), ("accessory", "2d00")):
            place = phone.mark()
            phone.come(mode)
            self.configured(phone, "1.2", since=place)
            self.assertEqual(self.ids("1.2"), f"18d1:{pid}")

    def test_a_command_ends_what_a_request_has_started(self):
        phone = self.started(returns=["accessory after 700"])
        phone.come("phone")
        self.configured(phone, "1.2", since=phone.mark())
        time.sleep(0.8)
        self.assertNotIn("came accessory", [event.what for event in phone.events()])

    def test_a_mode_that_there_is_not_is_told(self):
        phone = self.plug("1.2", Phone("android"))
        phone.come("tablet")
        with self.assertRaisesRegex(HeadUnitError, "no mode: come tablet"):
            phone.wait("came tablet", timeout=5)


class Power(Machine):
    """3 written to ka_hub_control cuts the power of the selected port, 4 restores it."""

    def test_a_power_cut_brings_the_phone_back_as_it_was_first(self):
        phone = self.plug("1.2", Phone("android", answers={"protocol": [b"\2\0", b"\1"]},
                                       returns=["accessory", "never"]))
        self.switch("1.2")
        phone.wait("came accessory")
        self.configured(phone, "1.2", since=phone.mark())
        self.assertEqual(self.ids("1.2"), "18d1:2d00")
        self.unit.hub_control(2, 3)
        place = phone.mark()
        phone.wait("cut")
        self.gone("1.2")
        phone.come("accessory")      # it cannot
        time.sleep(0.5)
        self.assertNotIn("came accessory", [event.what for event in phone.events(place)])
        self.unit.hub_control(2, 4)
        self.configured(phone, "1.2", since=place)
        self.assertEqual(self.ids("1.2"), "18d1:4ee7")
        self.switch("1.2")           # its first answer again, and its first return
        phone.wait("came accessory", since=place)

    def test_a_cut_ends_the_phones_way_back(self):
        phone = self.plug("1.2", Phone("android", returns=["accessory after 800"]))
        self.switch("1.2")
        phone.wait("left")
        self.unit.hub_control(2, 3)
        phone.wait("cut")
        time.sleep(1)
        self.assertNotIn("came accessory", [event.what for event in phone.events()])
        place = phone.mark()
        self.unit.hub_control(2, 4)
        phone.wait("came phone", since=place)

    def test_a_phone_that_is_plugged_into_a_dark_port_comes_with_the_power(self):
        self.unit.hub_control(1, 3)
        self.unit.wait_board("port 1 off")
        phone = self.unit.plug("1.1", Phone("android"))
        time.sleep(0.5)
        self.assertEqual([event.what for event in phone.events()], ["listening", "cut"])
        self.unit.hub_control(1, 4)
        self.configured(phone, "1.1")

    def test_only_the_selected_port_is_cut(self):
        first, second = self.plug("1.1", Phone("android")), self.plug("1.2", Phone("android"))
        self.unit.hub_control(1, 3)
        first.wait("left")
        self.gone("1.1")
        time.sleep(0.3)
        self.assertNotIn("left", [event.what for event in second.events()])
        self.assertEqual(self.request("1.2", IN, PROTOCOL, content=2), "0200")

    def test_a_phone_behind_a_hub_is_cut_with_the_hubs_port(self):
        self.unit.plug("1.2", Hub())
        self.unit.wait_path(self.unit.usb_path("1.2") + "/1-1.2:1.0")
        phone = self.plug("1.2.1", Phone("android", starts="accessory"))
        place = phone.mark()
        self.unit.hub_control(2, 3)
        phone.wait("left", since=place)
        self.gone("1.2")
        self.unit.hub_control(2, 4)
        self.configured(phone, "1.2.1", since=place)

    def test_a_phone_that_the_kernel_has_removed_comes_back_by_a_power_cycle(self):
        phone = self.plug("1.2", Phone("android"))
        self.unit.run(f"echo 1 > {self.unit.usb_path('1.2')}/remove")
        self.gone("1.2")
        place = phone.mark()
        self.unit.hub_control(2, 3)
        self.unit.hub_control(2, 4)
        self.configured(phone, "1.2", since=place)

    def test_the_supply_of_the_hub_cuts_all_its_ports(self):
        phones = [self.plug(port, Phone("android")) for port in ("1.1", "1.2")]
        places = [phone.mark() for phone in phones]
        self.unit.run("echo 1 > /sys/class/gpio/gpio70/value")
        for phone, port in zip(phones, ("1.1", "1.2")):
            phone.wait("cut")
            self.gone(port)
        self.assertEqual(self.unit.sh("cat /sys/class/gpio/gpio70/value"), "1")
        self.unit.run("echo 0 > /sys/class/gpio/gpio70/value")
        for phone, port, place in zip(phones, ("1.1", "1.2"), places):
            self.configured(phone, port, since=place)

    def test_reset_gives_the_power_back(self):
        self.unit.hub_control(2, 3)
        self.unit.run("echo 1 > /sys/class/gpio/gpio70/value")
        self.unit.reset()
        self.plug("1.1", Phone("android"))
        self.plug("1.2", Phone("android"))


class Functions(Machine):
    def test_the_hid_of_an_iphone_gives_a_hidraw_node_and_never_a_report(self):
        phone = self.plug("1.1", Phone("iphone"))
        self.unit.wait_path("/dev/hidraw0")
        path = self.unit.sh("readlink -f /sys/class/hidraw/hidraw0")
        self.assertTrue(path.startswith(self.unit.usb_path("1.1") + "/1-1.1:1.0/"), path)
        self.assertEqual(self.unit.sh("(timeout 0.5 head -c 1 /dev/hidraw0 | wc -c) 2> /dev/null"), "0")
        self.assertEqual(self.unit.sh("ls /dev/ttyACM* 2>/dev/null || true"), "")
        # The kernel's own set-up of the HID is not among the vendor requests.
        self.assertEqual(phone.transfers(), [])
        self.assertEqual([one.request for one in phone.transfers(kinds="all")], [0x0A])

    def test_the_second_configuration_of_an_iphone_brings_its_modem(self):
        phone = self.plug("1.1", Phone("iphone"))
        self.unit.wait_path("/dev/hidraw0")
        self.unit.configure("1.1", 2)
        self.unit.wait_path("/dev/ttyACM0")
        self.unit.run("echo hello > /dev/ttyACM0")
        self.assertEqual(self.unit.sh("(timeout 0.5 head -c 1 /dev/ttyACM0 | wc -c) 2> /dev/null"), "0")
        self.unit.configure("1.1", 1)
        self.unit.wait_path("/dev/ttyACM0", present=False)
        self.assertNotIn("left", [event.what for event in phone.events()])

    def test_a_modem_can_come_with_the_phone(self):
        phone = self.plug("1.2", Phone("iphone", starts="carplay"))
        self.unit.wait_path("/dev/ttyACM0")
        self.unit.wait_path("/dev/hidraw0")
        phone.leave()
        self.unit.wait_path("/dev/ttyACM0", present=False)

    def test_a_mirrorlink_phone_returns_with_its_network_card(self):
        phone = self.plug("1.2", Phone("mirrorlink"))
        self.assertEqual(self.request("1.2", *MIRRORLINK), "")
        phone.wait("came network")
        self.unit.wait_path(self.unit.usb_path("1.2") + "/1-1.2:1.0/net")
        self.assertEqual(self.unit.sh(f"cat {self.unit.usb_path('1.2')}/1-1.2:1.0/net/*/address"), "02:05:a4:a0:00:01")
        self.unit.run(f"ip link set $(ls {self.unit.usb_path('1.2')}/1-1.2:1.0/net) up")

    def test_a_mirrorlink_phone_refuses(self):
        self.plug("1.2", Phone("mirrorlink", answers={"mirrorlink": "stall"}))
        self.assertEqual(self.request("1.2", *MIRRORLINK), "request: Broken pipe")

    def test_the_network_device_that_is_asked_twice(self):
        phone = self.plug("1.2", Phone("mirrorlink", vid=0x0525, pid=0xA4A0, returns=["stays"]))
        self.assertEqual(self.ids("1.2"), "0525:a4a0")
        self.assertEqual([self.request("1.2", *MIRRORLINK) for _ in range(2)], ["", ""])
        self.assertEqual([one.setup for one in phone.transfers()], [(*MIRRORLINK, b"")] * 2)


class End(unittest.TestCase):
    def test_no_program_outlives_the_machine(self):
        before = own_programs()
        for kill in (False, True):
            with HeadUnit() as unit:
                unit.plug("1.1", Phone("android")).wait("configured 1")
                self.assertEqual(len(own_programs()), len(before) + 1)
                if kill:
                    unit._qemu.kill()
            self.assertEqual(own_programs(), before)

    def test_a_program_that_fails_is_told_when_the_phone_is_pulled(self):
        with HeadUnit() as unit:
            phone = unit.plug("1.1", Phone("android"))
            phone._program.kill()
            with self.assertRaisesRegex(HeadUnitError, "its program has ended with -9"):
                unit.unplug(phone)

    def test_a_program_ends_when_nobody_can_command_it_any_more(self):
        phone = Phone("android")
        phone._start()
        self.addCleanup(phone.end)
        phone._program.stdin.close()
        self.assertEqual(phone._program.wait(5), 0)


if __name__ == "__main__":
    unittest.main()
