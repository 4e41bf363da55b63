"""The virtual head unit is what the tests of the service take it for. Runs without the service; about a minute.

    python3 -m unittest discover -s tools/headunit
"""
import pathlib
import re
import subprocess
import tempfile
import time
import unittest

from headunit import (CardReader, CommandFailed, Device, HeadUnit, HeadUnitError, Hub, Keyboard, Mtp, NetworkAdapter,
                      SerialAdapter, Sound, Stick, sticks)
from headunit.unit import CONTROLLER


class Images(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def probe(self, path, offset=0):
        return subprocess.run(["/sbin/blkid", "-p", "-O", str(offset), path], capture_output=True, text=True,
                              check=True).stdout

    def test_a_stick_without_table_has_the_given_label_and_number(self):
        image = sticks.whole(self.folder / "a", sticks.Vfat(label="PLAIN", uuid=0x00C0FFEE))
        self.assertRegex(self.probe(image), 'LABEL="PLAIN" UUID="00C0-FFEE".*TYPE="vfat"')

    def test_each_partition_has_the_given_content_and_number(self):
        image = sticks.mbr(self.folder / "a", [sticks.Exfat(label="E", uuid=0x12345678), sticks.Unknown(),
                                               sticks.Vfat(label="V"), sticks.Ext4(label="X")], disk_id=0xAB)
        table = subprocess.run(["/sbin/sfdisk", "-d", image], capture_output=True, text=True, check=True).stdout
        self.assertIn("label-id: 0x000000ab", table)
        starts = [int(start) * 512 for start in re.findall(r"start= *(\d+)", table)]
        self.assertEqual(re.findall(r"type=(\w+)", table), ["7", "da", "e", "83"])
        self.assertRegex(self.probe(image, starts[0]), 'LABEL="E" UUID="1234-5678".*TYPE="exfat"')
        self.assertRegex(self.probe(image, starts[2]), 'LABEL="V" UUID="1234-ABCD".*TYPE="vfat"')
        self.assertRegex(self.probe(image, starts[3]),
                         'LABEL="X" UUID="00000000-1111-2222-3333-444444444444".*TYPE="ext4"')

    def test_the_same_stick_is_the_same_bytes(self):
        one, two = (sticks.mbr(self.folder / name, [sticks.Vfat(), sticks.Unknown()]).read_bytes() for name in "ab")
        self.assertEqual(one, two)


class Unit(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.one = sticks.mbr(cls.folder / "one", [sticks.Vfat(label="STICK", files={"hello.txt": b"hello\n"})])
        cls.four = sticks.mbr(cls.folder / "four", [sticks.Exfat(), sticks.Unknown(), sticks.Vfat(label="V"),
                                                    sticks.Ext4(files={"e.txt": b"ext"})])
        cls.plain = sticks.whole(cls.folder / "plain", sticks.Vfat(label="PLAIN"))
        cls.unit = HeadUnit()
        cls.unit.__enter__()
        cls.addClassCleanup(cls.unit.close)

    def setUp(self):
        self.addCleanup(self.unit.reset)

    def attribute(self, port, name):
        return self.unit.sh(f"cat {self.unit.usb_path(port)}/{name}")

    def test_the_board_is_where_the_service_looks_for_it(self):
        self.assertEqual(self.unit.sh("cat /sys/devices/soc/soc:common_gpio_default/board_id"), "X53")
        self.assertEqual(self.unit.sh(f"cat {CONTROLLER}/ka_hub_temperature"), "1")

    def test_the_selected_port_tells_whether_something_is_plugged_there(self):
        self.unit.plug("1.2", Keyboard())
        self.unit.wait_path(self.unit.usb_path("1.2"))
        states = [self.unit.sh(f"echo {port} > {CONTROLLER}/port_sel; cat {CONTROLLER}/ka_hub_port_status")
                  for port in (1, 2)]
        self.assertEqual(states, ["0", "1"])

    def test_roles_and_the_test_mode_are_remembered_and_told_and_change_nothing(self):
        self.unit.plug("1.1", Keyboard())
        self.unit.wait_path(self.unit.usb_path("1.1") + "/1-1.1:1.0")
        address = self.attribute("1.1", "devnum")
        for name, value in (("port_sel", 1), ("ka_hub_control", 2), ("ka_hub_control", 1), ("testmode", 4)):
            self.unit.run(f"echo {value} > {CONTROLLER}/{name}")
            self.assertEqual(self.unit.sh(f"cat {CONTROLLER}/{name}"), str(value))
            self.unit.wait_board(f"{name} <- {value}")
        self.assertEqual([text for _, text in self.unit.board_lines()],
                         ["port_sel <- 1", "ka_hub_control <- 2", "ka_hub_control <- 1", "testmode <- 4"])
        self.assertEqual(self.attribute("1.1", "devnum"), address)

    def test_the_power_of_the_selected_port_is_really_cut_and_restored(self):
        first, second = self.unit.plug("1.1", Keyboard()), self.unit.plug("1.2", Stick(self.one))
        for port in ("1.1", "1.2"):
            self.unit.wait_path(f"{self.unit.usb_path(port)}/1-{port}:1.0")
        address = self.attribute("1.1", "devnum")
        self.unit.hub_control(2, 3)
        self.unit.wait_path(self.unit.usb_path("1.2"), present=False)
        self.assertEqual(self.unit.sh(f"cat {CONTROLLER}/ka_hub_port_status"), "0")
        time.sleep(0.5)
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.2")))
        self.unit.hub_control(2, 4)
        self.unit.wait_path("/dev/sda1")
        self.assertEqual(self.unit.sh(f"cat {CONTROLLER}/ka_hub_port_status"), "1")
        self.assertEqual(self.attribute("1.1", "devnum"), address)
        self.assertEqual([text for _, text in self.unit.board_lines()],
                         ["port_sel <- 2", "ka_hub_control <- 3", "port 2 off",
                          "port_sel <- 2", "ka_hub_control <- 4", "port 2 on"])
        self.assertEqual((first.port, second.port), ("1.1", "1.2"))

    def test_a_port_that_there_is_not_cannot_be_switched(self):
        with self.assertRaisesRegex(CommandFailed, "write error: No such device"):
            self.unit.hub_control(9, 3)

    def test_a_device_that_was_removed_comes_back_by_a_power_cycle(self):
        self.unit.plug("1.1", Keyboard())
        self.unit.wait_path(self.unit.usb_path("1.1") + "/1-1.1:1.0")
        self.unit.run(f"echo 1 > {self.unit.usb_path('1.1')}/remove")
        self.unit.wait_path(self.unit.usb_path("1.1"), present=False)
        time.sleep(1)
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.1")))
        self.unit.hub_control(1, 3)
        self.unit.hub_control(1, 4)
        self.unit.wait_path(self.unit.usb_path("1.1") + "/1-1.1:1.0")

    def test_the_supply_of_the_hub_cuts_all_its_ports_and_leaves_a_dark_one_dark(self):
        for port in ("1.1", "1.2"):
            self.unit.plug(port, Keyboard())
            self.unit.wait_path(f"{self.unit.usb_path(port)}/1-{port}:1.0")
        self.assertEqual(self.unit.sh("cd /sys/class/gpio/gpio70; cat direction value"), "out\n0")
        self.unit.run("echo 1 > /sys/class/gpio/gpio70/value")
        for port in ("1.1", "1.2"):
            self.unit.wait_path(self.unit.usb_path(port), present=False)
        self.unit.hub_control(2, 3)
        self.unit.run("echo 0 > /sys/class/gpio/gpio70/value")
        self.unit.wait_path(self.unit.usb_path("1.1") + "/1-1.1:1.0")
        time.sleep(0.5)
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.2")))
        self.unit.restore_power()
        self.unit.wait_path(self.unit.usb_path("1.2") + "/1-1.2:1.0")

    def test_the_ports_of_a_hub_that_comes_again_have_power(self):
        self.unit.hub_control(1, 3)
        self.unit.unplug(self.unit.vehicle_hub)
        self.unit.wait_path(self.unit.usb_path("1"), present=False)
        self.unit.plug("1", self.unit.vehicle_hub)
        self.unit.wait_path(self.unit.usb_path("1") + "/1-1:1.0")
        self.unit.plug("1.1", Keyboard())
        self.unit.wait_path(self.unit.usb_path("1.1"))

    def test_a_self_test_of_the_hub_gives_the_result_that_was_set(self):
        self.unit.board("diag_result", 0xF1)
        self.unit.run(f"echo 1 > {CONTROLLER}/ka_hub_diag")
        self.assertEqual(self.unit.sh(f"cat {CONTROLLER}/ka_hub_diag"), "241")
        self.unit.run(f"echo 0 > {CONTROLLER}/ka_hub_diag")

    def sensor(self, port):
        return f"{CONTROLLER}/usb1/1-1/1-1:1.0/1-1-port{port}/overcurrent"

    def sensors(self):
        return [self.unit.sh(f"cat {self.sensor(port)}") for port in (1, 2)]

    def test_the_sensors_read_an_over_current_until_as_many_writes_as_were_set(self):
        self.assertEqual(self.sensors(), ["0", "0"])
        self.unit.overcurrent(2)
        self.assertEqual(self.sensors(), ["0", "1"])
        self.unit.overcurrent(1, 2, clears={2: 2})
        seen = []
        for _ in range(3):
            for port in (1, 2):
                self.unit.run(f"echo 1 > {self.sensor(port)}")
            seen.append(self.sensors())
        self.assertEqual(seen, [["1", "1"], ["1", "0"], ["1", "0"]])
        self.assertEqual([text for _, text in self.unit.board_lines() if "over" in text],
                         ["1-1-port1/overcurrent <- 1", "1-1-port2/overcurrent <- 1"] * 3)

    def test_a_write_to_its_sensor_gives_a_port_its_power_again(self):
        self.unit.plug("1.1", Keyboard())
        self.unit.wait_path(self.unit.usb_path("1.1") + "/1-1.1:1.0")
        address = self.attribute("1.1", "devnum")
        self.unit.run(f"echo 1 > {self.sensor(1)}")   # it had it
        time.sleep(0.5)
        self.assertEqual(self.attribute("1.1", "devnum"), address)
        self.unit.hub_control(1, 3)
        self.unit.wait_path(self.unit.usb_path("1.1"), present=False)
        self.unit.run(f"echo 0 > {self.sensor(1)}")
        time.sleep(0.5)
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.1")))
        self.unit.run(f"echo 1 > {self.sensor(1)}")
        self.unit.wait_path(self.unit.usb_path("1.1") + "/1-1.1:1.0")

    def test_an_over_current_is_reported_as_often_as_it_is_asked_for(self):
        count = "cat /sys/kernel/uevent_seqnum"
        before = int(self.unit.sh(count))
        self.unit.report_overcurrent(2)
        self.unit.report_overcurrent(1, 1000)
        self.assertEqual(int(self.unit.sh(count)) - before, 1001)
        self.unit.unplug(self.unit.vehicle_hub)
        self.unit.wait_path(self.unit.usb_path("1"), present=False)
        with self.assertRaisesRegex(CommandFailed, "No such device"):
            self.unit.report_overcurrent(1)

    def test_the_supply_reads_what_was_set_one_after_another_and_stays_at_the_last(self):
        reading = f"cat {CONTROLLER}/ka_hub_temperature"
        self.unit.supply(0, 0, 1, 0)
        self.assertEqual([self.unit.sh(reading) for _ in range(6)], ["0", "0", "1", "0", "0", "0"])
        with self.assertRaisesRegex(CommandFailed, "Invalid argument"):
            self.unit.board("temperature", "1,low")

    def test_the_vehicles_hub_has_its_ids_also_when_it_comes_again(self):
        self.assertIn("PRODUCT=424/4504/", self.attribute("1", "uevent"))
        self.unit.unplug(self.unit.vehicle_hub)
        self.unit.wait_path(self.unit.usb_path("1"), present=False)
        self.unit.plug("1", self.unit.vehicle_hub)
        self.unit.wait_path(self.unit.usb_path("1"))
        self.assertEqual((self.attribute("1", "idVendor"), self.attribute("1", "idProduct")), ("0424", "4504"))

    def test_sticks_in_both_ports_are_below_the_boards_paths_and_can_be_mounted(self):
        first = self.unit.plug("1.1", Stick(self.one))
        self.unit.wait_path("/dev/sda1")
        second = self.unit.plug("1.2", Stick(self.four))
        self.unit.wait_path("/dev/sdb4")
        for disk, port in (("sda1", "1.1"), ("sdb4", "1.2")):
            path = self.unit.sh(f"readlink -f /sys/class/block/{disk}")
            self.assertTrue(path.startswith(self.unit.usb_path(port) + "/"), path)
        self.unit.run("mkdir /tmp/m; mount -t vfat -o umask=000,shortname=winnt,utf8 /dev/sda1 /tmp/m")
        self.assertEqual(self.unit.sh("cat /tmp/m/hello.txt"), "hello")
        self.unit.run("umount /tmp/m; mount -t ext4 /dev/sdb4 /tmp/m")
        self.assertEqual(self.unit.sh("cat /tmp/m/e.txt"), "ext")
        self.unit.run("umount /tmp/m")
        self.assertIn(' LABEL="STICK" UUID="1234-ABCD" ', self.unit.sh("blkid2 -d /dev/sda1"))
        self.unit.unplug(first)
        self.unit.unplug(second)
        self.unit.wait_no("/dev/sd*")

    def test_the_platforms_own_filesystem_types_are_unknown(self):
        self.unit.plug("1.2", Stick(self.four))
        self.unit.wait_path("/dev/sda1")
        for name in ("texfat", "tntfs", "thfsplus", "tfat"):
            with self.assertRaisesRegex(CommandFailed, "No such device"):
                self.unit.run(f"mkdir -p /tmp/m; mount -t {name} /dev/sda1 /tmp/m")

    def test_a_disk_tells_the_number_of_its_partitions_only_when_it_shall(self):
        stick = self.unit.plug("1.1", Stick(self.four))
        self.unit.wait_path("/dev/sda4")
        self.assertFalse(self.unit.exists("/sys/block/sda/disk_partno"))
        self.unit.unplug(stick)
        self.unit.wait_no("/dev/sd*")
        self.unit.disk_partno(True)
        for image, count in ((self.four, "4"), (self.plain, "0")):
            stick = self.unit.plug("1.1", Stick(image))
            self.unit.wait_path("/sys/block/sda/disk_partno")
            self.unit.wait_path("/dev/sda" + count.strip("0"))
            self.assertEqual(self.unit.sh("cat /sys/block/sda/disk_partno"), count)
            self.unit.unplug(stick)
            self.unit.wait_no("/dev/sd*")

    def test_a_device_shows_other_ids_classes_and_serial_by_a_rule(self):
        self.unit.rewrite("1.2", "2166:000c")
        self.unit.plug("1.2", Stick(self.one))
        self.unit.wait_path("/dev/sda1")   # still a disk
        self.assertIn("PRODUCT=2166/c/", self.attribute("1.2", "uevent"))
        self.unit.rewrite("1.1", "05ac:1300", device_class="ff", interface="0e/01/02", serial="604-X")
        stick = self.unit.plug("1.1", Stick(self.one))
        self.unit.wait_path(self.unit.usb_path("1.1") + "/1-1.1:1.0")
        names = "idVendor idProduct bDeviceClass serial 1-1.1:1.0/bInterfaceClass 1-1.1:1.0/bInterfaceSubClass".split()
        self.assertEqual([self.attribute("1.1", name) for name in names],
                         ["05ac", "1300", "ff", "604-X", "0e", "01"])
        raw = self.unit.sh(f"xxd -p {self.unit.usb_path('1.1')}/descriptors").replace("\n", "")
        self.assertEqual((raw[16:24], raw[64:70]), ("ac050013", "0e0102"))
        self.unit.unplug(stick)
        self.unit.forget_rewrites()
        self.assertEqual(self.unit.board("rewrite"), "1-1=0424:4504")

    def test_a_rule_takes_the_serial_away(self):
        self.unit.rewrite("1.1", "46f4:0001", serial="-")
        self.unit.plug("1.1", Stick(self.one))
        self.unit.wait_path(self.unit.usb_path("1.1"))
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.1") + "/serial"))

    def test_a_rule_that_makes_no_sense_is_refused(self):
        with self.assertRaises(CommandFailed):
            self.unit.board("rewrite", "1-1.1=apple")

    def test_ten_replugs_leave_nothing(self):
        for _ in range(10):
            stick = self.unit.plug("1.1", Stick(self.plain))
            self.unit.wait_path("/dev/sda")
            self.unit.unplug(stick)
            self.unit.wait_no("/dev/sd*")
        self.assertEqual(self.unit.sh("cat /proc/mounts | grep -c /dev/sd || true"), "0")

    def test_a_hub_takes_with_it_what_hangs_on_it(self):
        hub = self.unit.plug("1.2", Hub())
        self.unit.wait_path(self.unit.usb_path("1.2") + "/1-1.2:1.0")
        sticks_there = [self.unit.plug("1.2.1", Stick(self.one)), self.unit.plug("1.2.3", Stick(self.plain))]
        self.unit.wait_path(self.unit.usb_path("1.2.1"))
        self.unit.wait_path(self.unit.usb_path("1.2.3"))
        self.unit.unplug(hub)
        self.unit.wait_no(self.unit.usb_path("1.2"))
        self.assertEqual([stick.port for stick in sticks_there], [None, None])
        self.unit.plug("1.2", sticks_there[0])
        self.unit.wait_path("/dev/sda1")

    def test_a_card_can_be_exchanged(self):
        self.unit.poll_media(200)
        reader = self.unit.plug("1.1", CardReader())
        self.unit.wait_path("/dev/sda")
        sizes = [self.unit.sh("cat /sys/block/sda/size")]
        for image, last in ((self.one, "/dev/sda1"), (self.four, "/dev/sda4")):
            reader.insert(image)
            # As the service does: it opens the disk when the kernel has told the change.
            self.unit.run(f"until [ -e {last} ]; do head -c 1 /dev/sda > /dev/null 2>&1; usleep 100000; done")
            reader.eject()
            self.unit.run(f"while [ -e {last} ]; do head -c 1 /dev/sda > /dev/null 2>&1; usleep 100000; done")
            sizes.append(self.unit.sh("cat /sys/block/sda/size"))
        self.assertEqual(sizes, ["0", "0", "0"])

    def test_the_other_devices_have_their_ids_and_classes(self):
        folder = self.folder / "music"
        folder.mkdir()
        expected = ((Keyboard(), "0627", "0001", "03"), (Sound(), "46f4", "0002", "01"),
                    (SerialAdapter(), "0403", "6001", "ff"), (Mtp(folder), "46f4", "0004", "06"),
                    (NetworkAdapter(), "0525", "a4a2", "02"), (Device("usb-mouse"), "0627", "0001", "03"))
        for device, *facts in expected:
            with self.subTest(device=device.driver):
                self.unit.plug("1.2", device)
                self.unit.wait_path(self.unit.usb_path("1.2") + "/1-1.2:1.0")
                names = ("idVendor", "idProduct", "1-1.2:1.0/bInterfaceClass")
                self.assertEqual([self.attribute("1.2", name) for name in names], facts)
                self.unit.unplug(device)
                self.unit.wait_no(self.unit.usb_path("1.2"))

    def test_a_command_gives_its_output_and_its_status(self):
        self.assertEqual(self.unit.run("echo a; echo b >&2; exit 3", check=False), (3, "a\nb\n"))
        self.assertEqual(self.unit.sh("for i in 1 2\ndo echo $i '\"'\ndone"), '1 "\n2 "')
        self.assertEqual(len(self.unit.sh("head -c 3000000 /dev/zero | tr '\\0' x")), 3000000)

    def test_without_a_service_there_is_no_status_and_the_tap_can_be_listened_to(self):
        self.assertEqual(self.unit.status(), b"")
        self.unit.listen_to_tap()
        self.assertTrue(self.unit.exists("/run/kipc/tap"))

    def test_a_command_that_hangs_is_ended(self):
        with self.assertRaisesRegex(HeadUnitError, "not within 0.5 s: command: sleep 77"):
            self.unit.run("sleep 77", timeout=0.5)
        self.assertEqual(self.unit.sh("ps | grep -c '[s]leep 77' || true"), "0")

    def test_a_record_that_nobody_takes_is_an_error(self):
        with self.assertRaisesRegex(HeadUnitError, "send media: No such file"):
            self.unit.send("media", b"record")


class Death(unittest.TestCase):
    def test_a_guest_that_is_gone_is_told_at_once(self):
        with HeadUnit(board_id=None, cpus=2) as unit:
            self.assertFalse(unit.exists("/sys/devices/soc/soc:common_gpio_default/board_id"))
            begin = time.monotonic()
            with self.assertRaisesRegex(HeadUnitError, "the guest is gone(.|\n)*the agent has ended"):
                unit.run("kill -9 $(pidof agent)")
            self.assertLess(time.monotonic() - begin, 10)

    def test_a_qemu_that_is_gone_is_told_at_once(self):
        with HeadUnit() as unit:
            unit.run("true")
            unit._qemu.kill()
            with self.assertRaises(HeadUnitError):
                unit.run("true")


if __name__ == "__main__":
    unittest.main()
