#!/usr/bin/python3
"""Attributes and descriptors that lie: no record overflows, no log line breaks, no device stops the next."""
import os

from bench import ServiceCase, board, main, volumes

BAD = {
    "missing": None,
    "empty": b"",
    "a newline": b"\n",
    "words": b"no number\n",
    "negative": b"-1\n",
    "huge": b"99999999999999999999\n",
    "4 KiB of digits": b"9" * 4096,
    "4 KiB of letters": b"A" * 4096 + b"\n",
    "control bytes": bytes(range(1, 32)) + b"\x7f\n",
    "formats": b"%n%n%s%s%x%99999d\n",
    "lines": b"first\nsecond\n\nthird",
    "zeros": b"ab\0cd\0\n",
    "broken UTF-8": b"\xff\xfe\xc3(\xe2\x82\xf0\x9f\x98\n",
    "quotes": b"\"'`$(reboot);&|\n",
}
DEVICE = ("bNumInterfaces", "manufacturer", "serial", "product", "speed", "power/level")
INTERFACE = ("bInterfaceClass", "bInterfaceSubClass", "bInterfaceProtocol", "bInterfaceNumber", "bNumEndpoints",
             "interface")


class BadAttributes(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def setUp(self):
        super().setUp()
        self.addCleanup(self.assert_stick_is_announced)

    def plug_each(self, make, position, names):
        """A device for every bad content of every attribute; "a b" are two that are bad at once."""
        for name in names:
            for what, content in BAD.items():
                nodes = make()
                nodes[position].attributes.update(dict.fromkeys(name.split(), content))
                with self.subTest(f"{name}: {what}"):
                    self.mark()
                    self.board.plug(nodes)
                    self.settle_events()
                    self.board.unplug(nodes)
                    self.settle_events()
                    self.assertTrue(self.service.runs())
        self.settle()
        self.assert_records_are_sound()

    def test_a_keyboard_may_say_anything_about_itself(self):
        self.plug_each(lambda: board.keyboard("1-1.2"), 0, DEVICE)

    def test_an_interface_may_say_anything_about_itself(self):
        self.plug_each(lambda: board.keyboard("1-1.2"), 1, INTERFACE)

    def test_a_hub_may_say_anything_about_itself(self):
        self.plug_each(lambda: board.hub("1-1.2"), 0, DEVICE)

    def test_the_vehicles_hub_may_say_anything_about_itself(self):
        self.plug_each(board.vehicle_hub, 0, ("serial product",))       # each removal is half a second without power

    def test_a_disk_may_say_anything_about_its_partitions(self):
        for what, content in BAD.items():
            with self.subTest(what):
                self.volumes["stick"].appear_as("sda1")
                stick = board.stick("1-1.1")
                stick[-2].attributes["disk_partno"] = content
                self.mark()
                self.board.plug(stick)
                self.settle_events()
                self.assertEqual(list(self.mounted()), ["/tmp/USB/PORT1/PART1"])
                self.board.unplug(stick)
                self.settle()
                self.assertEqual([record["cmd"] for record in self.got("navi")], [2, 3, 5])
                self.assertEqual(self.mounted(), {})

    def test_a_controller_may_say_anything_about_over_current(self):
        path = board.ROOT_HUB + "/1-1/1-1:1.0/1-1-port2/overcurrent"
        for what, content in BAD.items():
            with self.subTest(what):
                if content is None:
                    os.unlink(board.SYS + path)
                else:
                    self.board.write(path, content)
                self.mark()
                keyboard = board.keyboard("1-1.2")
                self.board.plug(keyboard)
                self.settle()
                self.assertEqual([record["sub_cmd"] for record in self.got("media")], [1])
                self.board.unplug(keyboard)
                self.settle()
        self.board.write(path, "0")

    def test_texts_are_cut_to_their_fields_and_always_end(self):
        keyboard = board.keyboard("1-1.2", serial="S" * 4096, product="P" * 64, manufacturer="M" * 63)
        self.board.plug(keyboard)
        self.settle()
        record = self.got("media")[0]
        self.assertEqual((record["serial"], record["product"], record["manufacturer"]), ("S" * 63, "P" * 63, "M" * 63))
        self.board.unplug(keyboard)

    def test_bytes_of_a_text_reach_the_record_as_they_are_and_the_log_escaped(self):
        keyboard = board.keyboard("1-1.2", attributes={"product": b"a\x1b[31m%n\xff\xe2\x82\xactail\nnext"})
        self.board.plug(keyboard)
        self.settle()
        self.assertTrue(self.got("media")[0].data[100:].startswith(b"a\x1b[31m%n\xff\xe2\x82\xactail\0"))
        self.expect_log(r"serial:0123456789 product:a\x1b[31m%n\xff€tail manu:Maker dev_path:" + keyboard[0].devpath)
        self.board.unplug(keyboard)

    def test_an_attribute_that_is_a_folder_is_no_text(self):
        keyboard = board.keyboard("1-1.2", serial=None, product=None)
        os.makedirs(f"{board.SYS}{keyboard[0].devpath}/serial/x")
        os.makedirs(f"{board.SYS}{keyboard[0].devpath}/product")
        self.board.plug(keyboard)
        self.settle()
        self.assertEqual(self.got("media")[0]["serial"], "46d_c31c")
        self.board.unplug(keyboard)

    def test_a_device_without_any_attribute_is_no_device_yet(self):
        keyboard = board.keyboard("1-1.2")
        for node in keyboard:
            node.attributes = {}
        self.board.plug(keyboard)
        self.settle()
        self.expect_nothing("media", "diag")
        self.expect_log("cant' get the num of interface", level=192)
        self.board.unplug(keyboard)

    def test_more_interfaces_than_announced_announce_once(self):
        device = board.usb_device("1-1.2", 0x1234, 1, [board.Interface(board.KEYBOARD, 1, number=number)
                                                       for number in (0, 0, 5, 255)],
                                  attributes={"bNumInterfaces": "1"})
        device[2].devpath += "1"        # two that both say that they are number 0
        self.board.plug(device)
        self.settle()
        self.assertEqual([record["cmd"] for record in self.got("media")], [6, 6])
        self.board.unplug(device)

    def test_strange_device_names_are_no_paths_out_of_dev(self):
        interface = board.usb_device("1-1.1", 0x0951, 0x1666)
        self.board.plug(interface)
        for name in ("../etc/passwd", "../dev/null", "..", "", "/", "%s%n", "sd a", "\x01\x02", "$(touch /tmp/owned)",
                     "`touch /tmp/owned`"):
            with self.subTest(name):
                disk = board.disk("1-1.1", "sda", [])[-1]
                disk.keys["DEVNAME"] = name
                disk.attributes["disk_partno"] = "0"
                self.board.add(disk)
                self.settle_events()
                self.board.remove(disk)
                self.settle_events()
        self.board.unplug(interface)
        self.assertEqual(self.mounted(), {})
        self.assertEqual(os.listdir("/tmp"), [])


class BadScan(ServiceCase):
    """The same before the service starts: its scan reads what the kernel's library shows it."""

    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())
        bad = board.keyboard("1-1.2") + board.hub("1-1.3")
        cls.board.present_before_start(bad)
        for number, (what, content) in enumerate(BAD.items(), 1):
            nodes = board.keyboard(f"1-1.3.{number}")
            cls.board.present_before_start(nodes)
            path = board.SYS + nodes[0].devpath + "/uevent"
            os.unlink(path)
            if content is not None:
                with open(path, "wb") as file:
                    file.write(content)
            for name in DEVICE:
                nodes[0].attributes[name] = content
            cls.board.present_before_start(nodes[1:])
        long = board.keyboard("1-1.4")
        cls.board.present_before_start(long)
        with open(board.SYS + long[0].devpath + "/uevent", "w") as file:
            file.write("X" * 2040 + "\nDEVTYPE=usb_device\nPRODUCT=46d/c31c/100\n")
        last = board.keyboard("1-1.5")
        cls.board.present_before_start(last)
        with open(board.SYS + last[0].devpath + "/uevent", "w") as file:
            file.write("DEVTYPE=usb_device\nPRODUCT=")
        os.symlink("/sys/devices/nowhere", f"{board.SYS}/bus/usb/devices/9-9")
        os.symlink("9-8", f"{board.SYS}/bus/usb/devices/9-8")
        with open(f"{board.SYS}/bus/usb/devices/9-7", "w") as file:
            file.write("a file")

    def test_the_scan_ends_and_finds_what_can_be_found(self):
        self.records_from = self.log_from = 0
        self.settle()
        self.assertEqual([record["id"] for record in self.got("sdcm")], [3, 4])
        found = [record["devpath"] for record in self.got("media")]
        self.assertIn(board.path_of("1-1.2"), found)
        self.expect_log("there is no product", level=128)
        self.assert_records_are_sound()
        self.assert_stick_is_announced()


class BadBoard(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def test_a_board_of_unknown_or_impossible_name_serves_the_later_controller(self):
        for what, content in BAD.items():
            if content is None:
                continue
            with self.subTest(what):
                self.board.write("/devices/soc/soc:common_gpio_default/board_id", content)
                self.restart_service()
                self.records_from = self.log_from = 0
                self.assert_stick_is_announced()
                self.assertEqual(self.service.broken_lines(), [])


if __name__ == "__main__":
    main()
