#!/usr/bin/python3
"""Devices that are no storage: how each is classified, and who hears of it."""
from road import (Hub, INPUT, Keyboard, NONE, NetworkAdapter, PHONE, Plugged, RoadTest, SerialAdapter, Sound,
                  UNSUPPORTED, came, hub_came, hub_left, left, main, unsupported, unsupported_left, HUB)


class Devices(RoadTest):
    def walk(self, port, what, device, here=(), gone=()):
        """Plugs and pulls: `here` and `gone` are what is told beside the device's state."""
        plugged = self.unit.plug(port, what)
        self.told(*here, came(device))
        self.unit.unplug(plugged)
        self.told(*gone, left(device))

    def test_a_keyboard_is_unsupported_but_stays(self):
        keyboard = Plugged(port=1, vid=0x0627, pid=0x0001, dev_type=INPUT, interface=(3, 1, 1), serial="KEYBOARD",
                           product="QEMU USB Keyboard")
        self.start()
        self.walk("1.1", Keyboard(), keyboard, [unsupported(keyboard)], [unsupported_left(keyboard)])
        self.assert_log("this is input device. class:3 protocol:1", times=1, since=(0, 0))
        self.assert_log("don't remove it because customer_hub is supported", times=1, since=(0, 0))

    def test_a_keyboard_behind_a_hub_is_told_with_the_units_port(self):
        keyboard = Plugged(port=32, vid=0x0627, pid=0x0001, dev_type=INPUT, interface=(3, 1, 1), serial="KEYBOARD",
                           product="QEMU USB Keyboard")
        hub = Plugged(port=2, vid=0x0409, pid=0x55AA, dev_type=HUB, interface=(9, 0, 0), serial="HUB",
                      product="QEMU USB Hub")
        self.start()
        plugged = self.unit.plug("1.2", Hub())
        self.told(hub_came(hub))
        self.walk("1.2.3", Keyboard(), keyboard, [unsupported(keyboard)], [unsupported_left(keyboard)])
        self.unit.unplug(plugged)
        self.told(hub_left(hub))

    def test_a_black_listed_serial_adapter_is_unsupported_and_removed_from_the_kernel(self):
        adapter = Plugged(port=2, vid=0x0403, pid=0x6001, dev_type=UNSUPPORTED, interface=(0xFF, 0xFF, 0xFF),
                          serial="SERIAL", product="QEMU USB SERIAL")
        self.start()
        plugged = self.unit.plug("1.2", SerialAdapter())
        self.told(unsupported(adapter), came(adapter), unsupported_left(adapter), left(adapter))
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.2")))
        self.unit.unplug(plugged)
        self.told()
        self.assert_log("this is blacklist device", times=1, since=(0, 0))
        self.assert_log("remove it. isForce:1 customer_hub_support:1 path:\\S+/1-1.2 port:2$", times=1, since=(0, 0))

    def test_of_a_device_of_an_unknown_class_only_diagnosis_hears(self):
        sound = Plugged(port=1, pid=0x0002, dev_type=NONE, interface=(1, 1, 4), serial="SOUND",
                        product="QEMU USB Audio")
        self.start()
        self.walk("1.1", Sound(), sound)
        self.assert_log("PerformDeviceNone: action:1", times=1, since=(0, 0))

    def test_of_a_white_listed_network_adapter_only_diagnosis_hears(self):
        adapter = Plugged(port=2, vid=0x0BDA, pid=0x8152, dev_type=NONE, interface=(2, 6, 0), serial="NETWORK",
                          product="RNDIS/QEMU USB Network Device")
        self.unit.rewrite("1.2", "0bda:8152")
        self.start()
        self.walk("1.2", NetworkAdapter(), adapter)
        self.assert_log("this is whitelist device", times=1, since=(0, 0))

    def test_a_network_adapter_whose_vendor_makes_phones_is_a_phone(self):
        adapter = Plugged(port=1, vid=0x0525, pid=0xA4A2, dev_type=PHONE, interface=(2, 6, 0), serial="NETWORK",
                          product="RNDIS/QEMU USB Network Device")
        self.start()
        self.walk("1.1", NetworkAdapter(), adapter)
        self.assert_log("Android device PLX, series", times=1, since=(0, 0))
        self.assert_log("this is phone device", times=1, since=(0, 0))
        self.assert_log("NotifyEventToUsb: msgID:20 dev_type:9 port:1 vid:525 pid:a4a2 class:2 speed:1$", times=1,
                        since=(0, 0))

    def test_a_device_without_serial_text_is_told_by_its_numbers(self):
        keyboard = Plugged(port=1, vid=0x0627, pid=0x0001, dev_type=INPUT, interface=(3, 1, 1), serial="627_1",
                           product="QEMU USB Keyboard")
        self.unit.rewrite("1.1", "0627:0001", serial="-")
        self.start()
        self.walk("1.1", Keyboard(), keyboard, [unsupported(keyboard)], [unsupported_left(keyboard)])


if __name__ == "__main__":
    main()
