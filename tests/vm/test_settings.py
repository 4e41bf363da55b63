#!/usr/bin/python3
"""Settings that another process of the unit writes: the engineering menu's switches, and whether the customer's hub is
supported. They reach the service through the store and /dev/css."""
import re

from phones import IPHONE
from road import (HUB, Hub, INPUT, Keyboard, Plugged, RoadTest, SerialAdapter, UNSUPPORTED, came, hub_came, hub_left,
                  left, main, unsupported, unsupported_left)
from test_iphone_carplay import CarPlay

SWITCHES = ("test_force_enable1", "test_force_enable2", "device_mode1", "device_mode2")
SAVED = "/data/sharedmemory/shm_usb_cert_persist"

KEYBOARD = Plugged(port=1, vid=0x0627, pid=0x0001, dev_type=INPUT, interface=(3, 1, 1), serial="KEYBOARD",
                   product="QEMU USB Keyboard")
HUB_ON_2 = Plugged(port=2, vid=0x0409, pid=0x55AA, dev_type=HUB, interface=(9, 0, 0), serial="HUB",
                   product="QEMU USB Hub")
ADAPTER = Plugged(port=2, vid=0x0403, pid=0x6001, dev_type=UNSUPPORTED, interface=(0xFF, 0xFF, 0xFF),
                  serial="SERIAL", product="QEMU USB SERIAL")


class Menu:
    """What the engineering menu does; for a RoadTest."""

    def setUp(self):
        super().setUp()
        self.switches = (0, 0, 0, 0)
        self.driver_said = len(self.driver_log())

    def write(self, *switches):
        """Writes the four switches, and waits until the service has heard of it. The board's lines that follow."""
        before, done = self.switches, len(self.unit.board_lines())
        self.switches = switches
        since = self.unit.mark()
        self.assertEqual(self.unit.sh(f"settings write shm_usb_cert {' '.join(map(str, switches))}"), "")
        self.unit.wait_log(self.changed(before, switches), since=since)
        self.told()     # nobody else is told of it
        self.assert_log(re.escape(self.changed(before, switches)) + "$", times=1)
        return [text for _, text in self.unit.board_lines()[done:]]

    @staticmethod
    def changed(before, now):
        return " ".join(f"{name}:{old}>{new}" for name, old, new in zip(SWITCHES, before, now))

    def support_customer_hub(self, number):
        since = self.unit.mark()
        self.assertEqual(self.unit.sh(f"settings write shm_usb_cert_persist {number}"), "")
        self.unit.wait_log("succeed to sync shm_usb_cert_persist", since=since)
        self.told()
        self.assert_log("test_force_enable", times=0)     # it is the other record
        self.assert_log("LogUsbCertPersist: customer_hub_support:" + str(number) + "$")
        self.assertEqual(self.saved(), number)

    def saved(self):
        """What the file on the flash holds: four bytes of data behind their length."""
        data = bytes.fromhex(self.unit.sh(f"xxd -p {SAVED}"))
        self.assertEqual((len(data), data[:4]), (8, b"\4\0\0\0"))
        return int.from_bytes(data[4:], "little")

    def driver_log(self):
        """Lines of the driver's own log, without their heads."""
        return [line.split(": ", 1)[1] for line in self.unit.sh("cat /run/css.log").splitlines()]

    def driver_news(self):
        return self.driver_log()[self.driver_said:]


class Switches(Menu, RoadTest):
    @classmethod
    def prepare(cls):
        """No image is needed."""

    def walk(self, index, on, off, log_on, log_off):
        """One switch through its values. `on` and `off`: what is written to the board, and the log's line of it."""
        def turn(number, written, line):
            switches = tuple(number if at == index else 0 for at in range(4))
            self.assertEqual(self.write(*switches), written, self.heard())
            of_ports = [one.text for one in self.logs("ProcessTestForceEnable: |ProcessHubMode: ")]
            self.assertEqual([text.split(": ", 1)[1] for text in of_ports], line)
        turn(1, on, [log_on])
        turn(0, off, [log_off])
        for number in (2, 0, 1):
            turn(number, on if number == 1 else [], [log_on] if number == 1 else [])
        for number in (2, 1):
            turn(number, [], [])
        turn(0, off, [log_off])

    def test_the_signal_test_of_each_port_follows_its_switch_between_0_and_1_only(self):
        self.start()
        for port in (1, 2):
            with self.subTest(port=port):
                self.walk(port - 1, [f"port_sel <- {port}", "testmode <- 4"], [f"port_sel <- {port}", "testmode <- 0"],
                          f"port{port} STATE_DETACH trigger:1", f"port{port} STATE_DETACH trigger:0")

    def test_device_mode_without_carplay_is_refused_for_each_edge_between_0_and_1_only(self):
        self.start()
        for port in (1, 2):
            with self.subTest(port=port):
                refused = f"port{port} STATE_DETACH, so can't change"
                self.walk(port + 1, [], [], refused, refused)

    def test_switches_that_change_together_act_in_their_order(self):
        self.start()
        for number, mode in ((1, 4), (0, 0)):
            self.assertEqual(self.write(number, number, number, number),
                             ["port_sel <- 1", f"testmode <- {mode}", "port_sel <- 2", f"testmode <- {mode}"])
            acted = [one.text.split(": ", 1)[1] for one in self.logs("ProcessTestForceEnable: |ProcessHubMode: ")]
            self.assertEqual(acted, [f"port1 STATE_DETACH trigger:{number}", f"port2 STATE_DETACH trigger:{number}",
                                     "port1 STATE_DETACH, so can't change", "port2 STATE_DETACH, so can't change"])

    def test_a_record_that_is_written_again_as_it_was_changes_nothing(self):
        self.start()
        self.write(0, 1, 0, 0)
        self.assertEqual(self.write(0, 1, 0, 0), [])
        self.assert_log("ProcessTestForceEnable: |ProcessHubMode: ", times=0)

    def test_the_service_reads_at_its_start_what_was_written_while_it_was_not_there(self):
        self.start()
        self.unit.stop_service()
        self.unit.sh("settings write shm_usb_cert 1 0 0 0")
        self.assertEqual(self.driver_news(), ["usb is not there, packets to it are lost: /run/kipc/usb/settings: "
                                              "Connection refused"])
        self.start()
        self.assert_log("InitUsbCertSSm: succeed to read shm_usb_cert$", times=1)
        self.switches = (1, 0, 0, 0)
        self.assertEqual(self.write(0, 0, 0, 0), ["port_sel <- 1", "testmode <- 0"])
        self.assertEqual(self.driver_news()[1:], ["usb lost 1 packets and takes them again"])


class DeviceMode(Menu, CarPlay):
    def test_during_carplay_the_port_of_the_phone_changes_its_role_and_back(self):
        self.start()
        self.run_carplay()
        self.assertEqual(self.write(0, 0, 0, 1), ["port_sel <- 2", "ka_hub_control <- 2"])
        self.assert_log("ProcessHubMode: port2 STATE_CP mode:2$", times=1)
        self.assertEqual(self.write(0, 0, 1, 0), ["port_sel <- 2", "ka_hub_control <- 1"])
        self.assert_log("ProcessHubMode: port1 STATE_DETACH, so can't change$", times=1)
        self.assert_log("ProcessHubMode: port2 STATE_CP mode:1$", times=1)
        self.assertEqual(self.unit.sh(f"cat {self.unit.usb_path('1.2')}/serial"), IPHONE.serial)


class CustomerHub(Menu, RoadTest):
    @classmethod
    def prepare(cls):
        """No image is needed."""

    def assert_keyboard_is_removed(self):
        plugged = self.unit.plug("1.1", Keyboard())
        self.told(unsupported(KEYBOARD), came(KEYBOARD), unsupported_left(KEYBOARD), left(KEYBOARD))
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.1")))
        self.assert_log("remove it. isForce:0 customer_hub_support:0 path:\\S+/1-1.1 port:1$", times=1)
        self.unit.unplug(plugged)
        self.told()

    def assert_keyboard_stays(self):
        plugged = self.unit.plug("1.1", Keyboard())
        self.told(unsupported(KEYBOARD), came(KEYBOARD))
        self.assertTrue(self.unit.exists(self.unit.usb_path("1.1")))
        self.assert_log("don't remove it because customer_hub is supported", times=1)
        return plugged

    def assert_hub_is_removed(self):
        plugged = self.unit.plug("1.2", Hub())
        self.told(hub_came(HUB_ON_2), hub_left(HUB_ON_2))
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.2")))
        self.assert_log("remove it. isForce:0 customer_hub_support:0 path:\\S+/1-1.2 port:2$", times=1)
        self.unit.unplug(plugged)
        self.told()

    def assert_adapter_is_removed(self, support):
        plugged = self.unit.plug("1.2", SerialAdapter())
        self.told(unsupported(ADAPTER), came(ADAPTER), unsupported_left(ADAPTER), left(ADAPTER))
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.2")))
        self.assert_log(f"remove it. isForce:1 customer_hub_support:{support} path:\\S+/1-1.2 port:2$", times=1)
        self.unit.unplug(plugged)
        self.told()

    def test_without_support_a_keyboard_and_a_hub_are_removed_from_the_bus_and_with_it_they_stay(self):
        self.start()
        self.support_customer_hub(0)
        self.assert_keyboard_is_removed()
        self.assert_hub_is_removed()
        self.support_customer_hub(1)
        keyboard = self.assert_keyboard_stays()
        hub = self.unit.plug("1.2", Hub())
        self.told(hub_came(HUB_ON_2))
        self.assertTrue(self.unit.exists(self.unit.usb_path("1.2")))
        # What hangs there already is left alone when the setting changes.
        self.support_customer_hub(0)
        self.assertTrue(self.unit.exists(self.unit.usb_path("1.1")))
        self.assertTrue(self.unit.exists(self.unit.usb_path("1.2")))
        self.unit.unplug(keyboard)
        self.told(unsupported_left(KEYBOARD), left(KEYBOARD))
        self.unit.unplug(hub)
        self.told(hub_left(HUB_ON_2))

    def test_an_unsupported_device_is_removed_with_and_without_support(self):
        self.start()
        for support in (0, 1):
            self.support_customer_hub(support)
            self.assert_adapter_is_removed(support)

    def test_any_other_number_than_0_is_support(self):
        self.start()
        self.support_customer_hub(0)
        self.support_customer_hub(2)
        self.assert_keyboard_stays()

    def test_the_first_start_ever_saves_that_it_is_supported(self):
        self.start()
        self.assert_log("CreateUsbCertPersist: succeed to write shm_usb_cert_persist$", times=1)
        self.assertEqual(self.saved(), 1)

    def test_it_outlasts_the_service_and_what_is_kept_in_memory(self):
        self.start()
        self.support_customer_hub(0)
        for forget in ("true", "rm /dev/shm/*"):    # the service alone is restarted; the unit was switched off
            self.unit.stop_service()
            self.unit.run(forget)
            self.start()
            self.assert_log("InitUsbCertSSm: succeed to read shm_usb_cert_persist$", times=1)
            self.assert_keyboard_is_removed()
            self.assert_hub_is_removed()
        self.support_customer_hub(1)
        self.unit.stop_service()
        self.unit.run("rm /dev/shm/*")
        self.start()
        self.assert_keyboard_stays()

    def test_what_is_written_again_as_it_was_is_saved_again(self):
        self.start()
        self.unit.run(f"rm {SAVED}")
        self.support_customer_hub(1)


class Driver(Menu, RoadTest):
    """/dev/css itself."""

    @classmethod
    def prepare(cls):
        """No image is needed."""

    def ask(self, command=0, receivers=4096, length=4, size=512, text="abc"):
        return self.unit.sh(f"settings request {command} {receivers} {length} {size} {text}")

    def test_a_well_formed_request_is_answered_0_and_delivered_whoever_else_is_absent(self):
        self.start()
        for receivers in (4096, 4096 | 0x4000, 4096 | 0x4000):
            self.assertEqual(self.ask(receivers=receivers), "0")
            self.told()
            self.assert_log("unknown str:abc$", times=1)
        self.assertEqual(self.driver_news(), [
            "0000000000004000 is not there, packets to it are lost: /run/kipc/0000000000004000/settings: "
            "No such file or directory"])

    def test_only_as_much_as_the_length_says_is_delivered(self):
        self.start()
        self.ask(length=2)
        self.told()
        self.assert_log("unknown str:ab$", times=1)

    def test_what_is_malformed_is_refused_and_reaches_nobody(self):
        self.start()
        wrong = [dict(length=0), dict(length=513), dict(length=0xFFFFFFFF), dict(length=27137, size=27137),
                 dict(size=0), dict(size=3), dict(receivers=0)]
        for request in wrong:
            self.assertEqual(self.ask(**request), "EINVAL", request)
        self.assertEqual(self.ask(text="nowhere"), "EFAULT")
        for command in (1, 0x5401, 0x7FFFFFFF):
            self.assertEqual(self.ask(command=command), "ENOTTY")
        self.told()
        self.assert_log("unknown str", times=0)
        self.assertEqual([re.sub(r"\d+", "N", line) for line in self.driver_news()],
                         ["a request of pid N: Invalid argument"] * len(wrong))
        self.assertEqual(self.ask(), "0")
        self.told()
        self.assert_log("unknown str:abc$", times=1)

    def test_the_longest_text_passes_and_is_the_receivers_to_refuse(self):
        self.start()
        self.assertEqual(self.ask(length=27136, size=27136), "0")
        self.told()
        self.assert_log("settings: a record of 27136 bytes from pid \\d+ of uid 0 is too long$", times=1)
        self.write(1, 0, 0, 0)

    def test_every_write_of_several_writers_at_once_is_heard(self):
        self.start()
        writer = "for i in 1 2 3 4 5 6 7 8; do settings write shm_usb_cert 0 0 0 2 || echo failed; done"
        self.assertEqual(self.unit.sh(f"for writer in 1 2 3 4; do ( {writer} ) & done; wait"), "")
        self.told()
        self.assert_log("UpdateSwitches: test_force_enable1:0>0 ", times=32)
        self.assertEqual(self.unit.sh("settings read shm_usb_cert"), "0 0 0 2")

    def test_a_service_that_stands_still_holds_no_writer_up(self):
        pid = self.start()
        self.unit.run(f"kill -STOP {pid}")
        for number in (1, 0, 1):
            self.unit.run(f"settings write shm_usb_cert {number} 0 0 0", timeout=5)
        self.unit.run(f"kill -CONT {pid}")
        self.told()
        # It reads the record when it hears of it: what was written before is written over.
        self.assert_log(re.escape(self.changed((0, 0, 0, 0), (1, 0, 0, 0))), times=1)
        self.assert_log(re.escape(self.changed((1, 0, 0, 0), (1, 0, 0, 0))), times=2)

    def test_a_driver_that_is_stopped_takes_its_device_with_it_and_a_new_one_is_heard(self):
        self.start()
        self.addCleanup(self.start_driver)
        self.unit.run("kill $(pidof css)")
        self.unit.wait_path("/dev/css", present=False)
        self.assertEqual(self.driver_news(), ["stopped"])
        lost = self.unit.sh("settings write shm_usb_cert 1 0 0 0 2>&1")
        self.assertEqual(lost, "[SHM-IF][low_send]open failed")
        self.told()
        self.assert_log("test_force_enable", times=0)
        self.start_driver()
        self.write(1, 0, 0, 0)

    def test_it_ends_with_0_by_each_signal_that_asks_for_it(self):
        self.addCleanup(self.start_driver)
        self.unit.run("kill $(pidof css)")
        for sign in ("TERM", "INT", "HUP"):
            self.unit.wait_path("/dev/css", present=False)
            self.assertEqual(self.unit.sh("css 2> /dev/null & until [ -e /dev/css ]; do usleep 10000; done; "
                                          f"kill -{sign} $!; wait $!; echo $?"), "0")

    def test_a_second_driver_gives_up_and_the_first_goes_on(self):
        self.start()
        second = self.unit.run("css 2>&1", check=False)
        self.assertEqual(second.status, 1)
        self.assertIn("the kernel has taken /dev/css away", second.text)
        self.write(1, 0, 0, 0)

    def test_without_cuse_it_says_why_and_ends(self):
        self.addCleanup(self.start_driver)
        self.addCleanup(self.unit.run, "modprobe cuse")
        self.unit.run("kill $(pidof css)")
        self.unit.wait_path("/dev/css", present=False)
        self.unit.run("rmmod cuse")
        alone = self.unit.run("css 2>&1", check=False)
        self.assertEqual(alone.status, 1)
        self.assertIn("cuse: device not found", alone.text)
        self.assertIn("no /dev/css", alone.text)

    def start_driver(self):
        if not self.unit.exists("/dev/css"):
            self.unit.run("css 2>> /run/css.log > /dev/null &")
            self.unit.wait_path("/dev/css")


if __name__ == "__main__":
    main()
