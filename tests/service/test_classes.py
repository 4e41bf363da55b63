#!/usr/bin/python3
"""What is plugged is told apart, and each kind is reported to those whom it concerns."""
from bench import (DEVICE_LEFT, HUB_COMMUNICATION_FAULTY, HUB_COMMUNICATION_OK, HUB_NOT_SUPPORTED, HUB_STATUS_FAULTY,
                   HUB_STATUS_OK, HUB_SUPPORTED, ServiceCase, board, device, device_came, main, usbrecords, volumes,
                   world)

VENDOR = board.VENDOR


class Kinds(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def setUp(self):
        super().setUp()
        self.plugged = []
        self.addCleanup(self.settle)

    def plug(self, nodes):
        self.mark()
        self.board.plug(nodes)
        self.addCleanup(self.take_away, nodes)
        self.settle()

    def take_away(self, nodes):
        if nodes[0].devpath in self.board.present:
            self.board.unplug(nodes)

    def unplug(self, nodes):
        self.mark()
        self.board.unplug(nodes)
        self.settle()


class InputAndForbidden(Kinds):
    def test_a_keyboard_is_reported_as_unsupported_and_stays_while_customer_hubs_are_supported(self):
        keyboard = board.keyboard("1-1.2", manufacturer="Logitech", product="USB Keyboard", serial=None)
        self.plug(keyboard)
        report = device(6, 1, 12, keyboard[0], 2, 3, speed=0)
        self.expect("media", report)
        self.expect("speech", report)
        self.expect("diag", device_came(0x046D, 0xC31C, board.KEYBOARD, speed=0))
        self.expect_nothing("navi", "test", "0000000000004000")
        self.expect_log("this is input device. class:3 protocol:1", level=128)
        self.expect_log("don't remove it because customer_hub is supported")
        self.assertEqual(self.got("media")[0]["serial"], "46d_c31c")
        self.unplug(keyboard)
        self.expect("media", device(5, 0, 12, keyboard[0], 2, 3, speed=0))
        self.expect("diag", DEVICE_LEFT)

    def test_a_device_of_the_black_list_is_reported_and_always_removed(self):
        adapter = board.usb_device("1-1.1", 0x0403, 0x6001, [board.Interface(VENDOR, 2)], speed="12")
        self.plug(adapter)
        self.expect("media", device(6, 1, 1, adapter[0], 1, 0xFF, speed=1))
        self.expect_log("this is blacklist device", level=128)
        self.expect_log(f"remove it. isForce:1 customer_hub_support:1 path:{adapter[0].devpath} port:1")
        self.assertEqual(self.board.read(adapter[0].devpath + "/remove"), "1")
        self.unplug(adapter)
        self.expect("media", device(5, 0, 1, adapter[0], 1, 0xFF, speed=1))

    def test_a_device_of_the_black_list_behind_a_hub_is_removed_there(self):
        hub = board.hub("1-1.2")
        adapter = board.usb_device("1-1.2.3", 0x0403, 0x6001, [board.Interface(VENDOR, 2)])
        self.plug(hub)
        self.plug(adapter)
        self.expect_log(f"echo 1 > /sys{adapter[0].devpath}/remove", level=128)
        self.assertEqual(self.board.read(adapter[0].devpath + "/remove"), "1")
        self.assertEqual(self.board.read(hub[0].devpath + "/remove"), "")

    def test_the_removal_of_a_device_that_has_left_is_the_shells_complaint_only(self):
        world.shell_said()
        self.send("sdcm", usbrecords.message(29, port=2))
        self.expect_log("child exited with status 512", level=128)
        self.assertRegex("".join(world.shell_said()), f"cannot create /sys{board.path_of('1-1.2')}/remove: ")
        for port in (0, 100):
            self.send("sdcm", usbrecords.message(29, port=port))
            self.expect_log(f"port:{port} is invalid", level=192)

    def test_a_device_of_an_unsupported_class_is_reported(self):
        camera = board.usb_device("1-1.1", 0x1234, 0x0002, [board.Interface((0x0E, 1, 0), 1)])
        self.plug(camera)
        self.expect_nothing("media")
        bluetooth = board.usb_device("1-1.2", 0x1234, 0x0003, [board.Interface((0xE0, 1, 1), 2)])
        self.plug(bluetooth)
        self.expect("media", device(6, 1, 1, bluetooth[0], 2, 0xE0))
        self.expect_log("this is unsupported device. class:e0 subclass:1", level=128)

    def test_a_device_of_the_white_list_is_known_to_diagnosis_only(self):
        adapter = board.usb_device("1-1.1", 0x0BDA, 0x8153, [board.Interface(VENDOR, 3)], speed="5000")
        net = board.Node(board.interface_path("1-1.1") + "/net/eth0", "net", dict(INTERFACE="eth0", IFINDEX=7))
        self.plug(adapter + [net])
        self.expect_log("this is whitelist device", level=128)
        self.expect("diag", device_came(0x0BDA, 0x8153, VENDOR))
        self.expect_nothing("media", "speech", "navi")
        self.unplug(adapter + [net])
        self.expect("diag", DEVICE_LEFT)
        self.expect_nothing("media")

    def test_a_device_of_unknown_class_is_known_to_diagnosis_only(self):
        thing = board.usb_device("1-1.1", 0x1234, 0x0004, [board.Interface(VENDOR, 2)], power="auto", speed="1.5")
        self.plug(thing)
        self.expect("diag", device_came(0x1234, 4, VENDOR, speed=0, power=0))
        self.expect_nothing("media", "speech", "navi")

    def test_speeds_and_the_lack_of_one_have_their_codes(self):
        for speed, code in {"10000": 2, "480": 2, "12": 1, "1.5": 0, None: 255}.items():
            with self.subTest(speed):
                keyboard = board.keyboard("1-1.2", speed=speed)
                self.plug(keyboard)
                self.assertEqual(self.got("media")[0]["speed"], code)
                self.unplug(keyboard)

    def test_a_device_of_three_interfaces_is_announced_with_the_last(self):
        phone = board.usb_device("1-1.1", 0x1234, 5, [board.Interface(VENDOR, 2), board.Interface(VENDOR, 2),
                                                       board.Interface(board.KEYBOARD, 1)])
        last = phone.pop()
        self.plug(phone)
        self.expect_nothing("media", "diag")
        self.expect_log("total_interface_num:3 cur_interface_num:1")
        self.plug([last])
        self.expect("media", device(6, 1, 12, phone[0], 1, 0xFF))

    def test_a_device_path_that_is_too_long_is_cut_in_the_record(self):
        place = "1-1.2.3.4.1.2.3"
        keyboard = board.keyboard(place)
        self.assertGreater(len(keyboard[0].devpath), 127)
        self.plug(keyboard)
        record = self.got("media")[0]
        self.assertEqual(record["devpath"], keyboard[0].devpath[:127])
        self.assertEqual(record["port"], 2)


class Phones(Kinds):
    """What happens on the ports is test_ports' matter: here only how phones are told apart."""

    def kind_of(self, *arguments, **more):
        nodes = board.usb_device("1-1.2", *arguments, **more)
        self.plug(nodes)
        said = self.got("sdcm")
        self.unplug(nodes)
        said += self.got("sdcm")
        self.assertEqual([record.word("id") for record in said], ["device attached", "device detached"])
        self.assertEqual(said[0]["dev_type"], said[1]["dev_type"])
        return said[0]["dev_type"]

    def test_phones_of_all_makes_are_told_apart(self):
        self.assertEqual(self.kind_of(0x05AC, 0x12A8, [board.Interface((6, 1, 1), 3)]), 6)
        self.assertEqual(self.kind_of(0x05AC, 0x1300), 8)
        self.assertEqual(self.kind_of(0x04E8, 0x6860, [board.Interface()]), 9)
        self.assertEqual(self.kind_of(0x1234, 0x6860, [board.Interface((6, 1, 1), 3)]), 10)
        self.assertEqual(self.kind_of(0x0930, 0x6545, [board.Interface()]), 5)

    def test_hid_and_tty_of_a_phone_are_told_to_the_port_state(self):
        phone, hid, tty = board.iphone("1-1.2"), board.hid("1-1.2"), board.tty("1-1.2")
        self.plug(phone + [hid, tty])
        self.expect_log("msgID:22 port:2", level=128)
        self.expect_log("msgID:24")
        self.mark()
        self.board.tell("change", tty)
        self.settle()
        self.expect_log("msgID:26")
        self.unplug(phone + [hid, tty])
        self.expect_log("msgID:23 port:2")
        self.expect_log("msgID:25")

    def test_a_change_of_a_tty_that_nobody_announced_is_its_arrival(self):
        tty = board.Node(board.interface_path("1-1.1") + "/tty/ttyACM1", "tty",
                         dict(MAJOR=166, MINOR=1, DEVNAME="ttyACM1"))
        self.board.show(tty)
        self.mark()
        self.board.tell("change", tty)
        self.settle()
        self.expect_log("msgID:24")
        self.expect_no_log("msgID:26")
        self.unplug([tty])
        self.expect_log("msgID:25")


class Hubs(Kinds):
    def test_a_customers_hub_is_reported_to_media_when_it_comes_and_goes(self):
        hub = board.hub("1-1.2")
        self.plug(hub)
        self.expect("media", device(6, 7, 1, hub[0], 2, 9))
        self.expect_log("action:1 customer hub")
        self.expect_log("don't remove it because customer_hub is supported")
        self.expect_nothing("diag", "navi")
        self.unplug(hub)
        self.expect("media", device(5, 0, 1, hub[0], 2, 9))
        self.expect_log("action:2 customer hub")
        self.expect_nothing("diag")

    def test_the_vehicles_hub_is_reported_healthy_and_faulty_once_each(self):
        hub = board.vehicle_hub()
        self.plug(hub)
        self.expect("diag", HUB_STATUS_OK, HUB_COMMUNICATION_OK)
        self.expect_log(" Microchip 8E1.319.528.A support", level=128)
        self.mark()
        self.board.tell("add", hub[1])
        self.settle()
        self.expect_nothing("diag", "media")
        self.unplug(hub)
        self.expect("diag", HUB_STATUS_FAULTY, HUB_COMMUNICATION_FAULTY, HUB_NOT_SUPPORTED)
        self.expect_nothing("media", "sdcm")
        self.expect_log("reset hub")
        self.expect_log("hub 5v off and on", level=128)
        self.assertEqual(self.board.written(), [("hub_supply", "1"), ("hub_supply", "0")])
        self.plug(hub)
        self.expect("diag", HUB_STATUS_OK, HUB_COMMUNICATION_OK)
        self.unplug(hub)
        self.expect("diag", HUB_STATUS_FAULTY, HUB_COMMUNICATION_FAULTY, HUB_NOT_SUPPORTED)

    def test_the_hubs_own_function_says_that_the_hub_is_supported(self):
        function = board.usb_device("1-1.3", 0x0424, 0x2530, [board.Interface(VENDOR, 1)], serial="3Q8.217.604.B")
        self.plug(function)
        self.expect("diag", HUB_SUPPORTED)
        self.expect_log("max current is 2.1A because of 604 hub", level=128)
        self.expect_nothing("media")
        self.unplug(function)
        self.expect_nothing("diag")

    def test_a_root_hub_is_nobodys_business(self):
        self.plug(board.root_hub())
        self.expect_nothing("diag", "media", "sdcm")
        self.expect_log(" Linux ROOT HUB 2.0 support", level=128)


class OverCurrent(Kinds):
    def test_an_over_current_event_is_told_to_media(self):
        keyboard = board.keyboard("1-1.2")
        self.plug(keyboard)
        self.mark()
        self.board.injector.emit("change", keyboard[0].devpath, SUBSYSTEM="usb", EVENT="overcurrent", PORT_NUM=2,
                                 **keyboard[0].keys)
        self.settle()
        self.expect("media", device(6, 8, 12, keyboard[0], 2, 3, speed=0))
        self.expect_log(f"isAdd:1 port:2 devpath:{keyboard[0].devpath}", level=128)

    def test_another_event_is_not(self):
        keyboard = board.keyboard("1-1.2")
        self.plug(keyboard)
        self.mark()
        self.board.injector.emit("change", keyboard[0].devpath, SUBSYSTEM="usb", EVENT="OVERCURRENT", PORT_NUM=2,
                                 **keyboard[0].keys)
        self.settle()
        self.expect_nothing("media")
        self.expect_log("unknown event(OVERCURRENT)", level=128)

    def test_a_device_that_comes_to_a_port_with_over_current_is_reported_at_once(self):
        attribute = board.ROOT_HUB + "/1-1/1-1:1.0/1-1-port1/overcurrent"
        self.board.write(attribute, "1")
        self.addCleanup(self.board.write, attribute, "0")
        thing = board.usb_device("1-1.1", 0x1234, 0x0004, [board.Interface(VENDOR, 2)])
        self.plug(thing)
        self.expect("media", device(6, 8, 0, thing[0], 1, 0))
        self.expect_log(f"isAdd:1 port:1 devpath:{thing[0].devpath}")
        self.expect_log(f"{board.CONTROLLER}/usb1/1-1/1-1:1.0/1-1-port1/overcurrent overcurrent:1")


if __name__ == "__main__":
    main()
