#!/usr/bin/python3
"""A stick is found, mounted and announced, byte for byte, and leaves nothing behind."""
import os
import time

from bench import (DEVICE_LEFT, STORAGE_MODES, ServiceCase, board, device_came, event, main, storage, usbrecords,
                   volumes)

UUID = "11111111-2222-3333-4444-555555555555"
UUID2 = "22222222-2222-3333-4444-555555555555"
PATH1 = "/tmp/USB/PORT1/PART1/"
PATH2 = "/tmp/USB/PORT1/PART2/"


class Stick(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem(label="STICK", uuid=UUID, files={"hello.txt": "hello from the stick"}))
        cls.volume("second", volumes.filesystem("ext2", label="", uuid=UUID2))
        cls.volume("third", volumes.filesystem("ext3", label="THIRD", megabytes=8))
        cls.volume("unknown", volumes.blank(head=b"no filesystem"))
        cls.volume("table", volumes.blank(head=volumes.partition_table()))
        cls.board.present_before_start(board.root_hub() + board.vehicle_hub())

    def plug(self, nodes, **files):
        """Files in /dev, then the events: sda1="stick"."""
        for name, volume in files.items():
            self.volumes[volume].appear_as(name)
            self.addCleanup(volumes.disappear, name)
        self.board.plug(nodes)
        self.addCleanup(self.settle)
        self.addCleanup(self.board.unplug, nodes)
        self.settle()

    def unplug(self, nodes):
        self.mark()
        self.board.unplug(nodes)
        self.settle()

    def said(self, receiver="media"):
        return [(record["cmd"], record["sub_cmd"], record["partition"]) for record in self.got(receiver)]


class OneStick(Stick):
    def test_each_storage_listener_gets_the_same_bytes(self):
        stick = board.stick("1-1.1")
        self.plug(stick, sda1="stick")
        mounted = (b"\x03\0\0\0" b"\x03\0\0\0" b"\0\0\0\0" b"\x05\0\0\0" b"\x01\0\0\0" b"\x01" +
                   b"/tmp/USB/PORT1/PART1/".ljust(32, b"\0") + b"STICK".ljust(32, b"\0") +
                   UUID[:31].encode().ljust(32, b"\0") + b"ext4".ljust(16, b"\0") + b"\x08\x02\0")
        self.assertEqual(len(mounted), 136)
        self.assertEqual(len(usbrecords.STORAGE_LISTENERS), 9)
        for receiver in usbrecords.STORAGE_LISTENERS:
            with self.subTest(receiver):
                self.expect(receiver, storage(2, 1), mounted)
        self.unplug(stick)
        ejected = bytes([3, 0, 0, 0, 5]) + mounted[5:]
        for receiver in usbrecords.STORAGE_LISTENERS:
            with self.subTest(receiver):
                self.expect(receiver, ejected)

    def test_diagnosis_and_sdcm_hear_of_the_device_and_nobody_else_of_anything(self):
        stick = board.stick("1-1.1")
        self.plug(stick, sda1="stick")
        self.expect("diag", device_came(0x0951, 0x1666, board.STORAGE))
        self.expect("sdcm", event(1, 5, stick[0], 1, 8, STORAGE_MODES))
        self.unplug(stick)
        self.expect("diag", DEVICE_LEFT)
        self.expect("sdcm", event(2, 5, stick[0], 1, 8, STORAGE_MODES))
        self.expect_nothing("test", "voltage")

    def test_the_volume_is_readable_while_it_is_there_and_gone_afterwards(self):
        stick = board.stick("1-1.1")
        self.plug(stick, sda1="stick")
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": ("/dev/sda1", "ext4")})
        with open(PATH1 + "hello.txt") as file:
            self.assertEqual(file.read(), "hello from the stick")
        self.unplug(stick)
        self.expect_log("umount success")
        self.assertEqual(self.mounted(), {})
        self.assertFalse(os.path.exists("/tmp/USB"))
        self.assertTrue(os.path.ismount("/tmp"))

    def test_the_log_tells_the_road_of_the_stick(self):
        stick = board.stick("1-1.1")
        self.plug(stick, sda1="stick")
        path = stick[0].devpath
        self.expect_log("vid:951 pid:1666 manufacturer:Kingston product:DataTraveler 3.0 serial:E0D55EA573F5F3A0 "
                        "numInterfaces:1 speed:2", level=128)
        self.expect_log("vid:951 pid:1666 class:8,6 interfaceNum:0 numEndPoints:2 interfaceStr:(null)")
        self.expect_log("this is storage device", level=128)
        self.expect_log("msgID:20 dev_type:5 port:1 vid:951 pid:1666 class:8 speed:2")
        self.expect_log(f"serial:E0D55EA573F5F3A0 product:DataTraveler 3.0 manu:Kingston dev_path:{path}")
        self.expect_log("total partition count is 1")
        self.expect_log(f"vol ret (STICK,{UUID},ext4)")
        self.expect_log(f"create path {PATH1}")
        self.expect_log("ftype:ext4 devpath:/dev/sda1", level=128)
        self.expect_log(f"mnt_path:{PATH1} label:STICK uuid:{UUID} fstype:ext4 class:8 speed:2")
        self.unplug(stick)
        self.expect_log(f"umount processing {PATH1}")
        self.expect_log(f"um pass p[{PATH1}]")
        self.expect_log("not send the ejected because not notice media")

    def test_a_stick_of_two_partitions_gets_both_mounted(self):
        stick = board.stick("1-1.1", partitions=["sda1", "sda2"])
        self.plug(stick, sda1="stick", sda2="second")
        self.expect("media", storage(2, 2), storage(3, 1, path=PATH1, label="STICK", uuid=UUID, fs_type="ext4"),
                    storage(3, 2, path=PATH2, label="", uuid=UUID2, fs_type="ext2"))
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": ("/dev/sda1", "ext4"),
                                          "/tmp/USB/PORT1/PART2": ("/dev/sda2", "ext2")})
        self.unplug(stick)
        self.assertEqual(self.said(), [(5, 0, 2), (5, 0, 1)])
        self.assertEqual(self.mounted(), {})
        self.assertFalse(os.path.exists("/tmp/USB"))

    def test_a_third_volume_is_never_tried(self):
        stick = board.stick("1-1.1", partitions=["sda1", "sda2", "sda3"])
        self.plug(stick, sda1="stick", sda2="second", sda3="third")
        self.assertEqual(self.said(), [(2, 0, 3), (3, 0, 1), (3, 0, 2)])
        self.assertEqual(len(self.mounted()), 2)
        self.expect_no_log("devpath:/dev/sda3")
        self.unplug(stick)
        self.assertEqual(self.said(), [(5, 0, 2), (5, 0, 1)])

    def test_a_partition_that_cannot_be_mounted_does_not_stop_the_next(self):
        stick = board.stick("1-1.1", partitions=["sda1", "sda2"])
        self.plug(stick, sda1="unknown", sda2="stick")
        self.assertEqual(self.said(), [(2, 0, 2), (3, 0, 1)])
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": ("/dev/sda2", "ext4")})
        self.expect_log("even if mount fail, not notify a block to media")
        self.unplug(stick)
        self.assertEqual(self.said(), [(5, 0, 1)])

    def test_a_stick_of_which_nothing_can_be_mounted_is_inserted_and_ejected(self):
        stick = board.stick("1-1.1")
        self.plug(stick, sda1="unknown")
        self.assertEqual(self.said(), [(2, 0, 1)])
        self.assertEqual(self.mounted(), {})
        self.assertFalse(os.path.exists("/tmp/USB"))
        self.expect_log("is_notice is true because of last partition and not mounted")
        self.expect_log("popup isn't shown in the usbapp")
        self.unplug(stick)
        self.assertEqual(self.said(), [(5, 0, 1)])

    def test_a_filesystem_on_the_whole_disk_is_the_first_volume(self):
        stick = board.stick("1-1.1", partitions=[], announced=0)
        self.plug(stick, sda="stick")
        self.assertEqual(self.said(), [(2, 0, 1), (3, 0, 1)])
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": ("/dev/sda", "ext4")})
        self.unplug(stick)
        self.assertEqual(self.said(), [(5, 0, 1)])
        self.assertEqual(self.mounted(), {})

    def test_a_kernel_without_partition_count_gives_the_same_to_media(self):
        stick = board.stick("1-1.1", announced="")
        self.plug(stick, sda="table", sda1="stick")
        self.expect_log("failed to get total partition count", level=192)
        self.assertEqual(self.said(), [(2, 0, 1), (3, 0, 1)])
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": ("/dev/sda1", "ext4")})
        self.unplug(stick)
        self.expect_log("not send the ejected because partition exists")
        self.assertEqual(self.said(), [(5, 0, 1)])

    def test_the_second_port_has_its_own_folder_and_number(self):
        stick = board.stick("1-1.2")
        self.plug(stick, sda1="third")
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT2/PART1": ("/dev/sda1", "ext3")})
        self.assertEqual([record["port"] for record in self.got("media")], [2, 2])
        self.unplug(stick)
        self.assertEqual(self.mounted(), {})

    def test_two_sticks_on_two_ports_do_not_meet(self):
        first, second = board.stick("1-1.1", "sda"), board.stick("1-1.2", "sdb", ["sdb1"])
        self.plug(first, sda1="stick")
        self.plug(second, sdb1="second")
        self.assertEqual(set(self.mounted()), {"/tmp/USB/PORT1/PART1", "/tmp/USB/PORT2/PART1"})
        self.unplug(first)
        self.assertEqual(set(self.mounted()), {"/tmp/USB/PORT2/PART1"})
        self.unplug(second)
        self.assertFalse(os.path.exists("/tmp/USB"))

    def test_a_stick_behind_a_customers_hub_tells_media_its_units_digit_and_the_port_state_all(self):
        hub = board.hub("1-1.2")
        stick = board.stick("1-1.2.3")
        self.plug(hub)
        self.plug(stick, sda1="stick")
        self.assertEqual([record["port"] for record in self.got("navi")], [2, 2])
        self.expect_log("msgID:20 dev_type:5 port:32 vid:951 pid:1666 class:8 speed:2")
        self.assertEqual(set(self.mounted()), {"/tmp/USB/PORT2/PART1"})

    def test_the_external_drive_is_mounted_in_the_cd_folder(self):
        drive = board.stick("1-1.1", vid=0x2166, pid=0x000C)
        self.plug(drive, sda1="stick")
        self.assertEqual(self.mounted(), {"/tmp/CD/CDROM/PART1": ("/dev/sda1", "ext4")})
        self.expect_log("this is cdda device", level=128)
        self.assertEqual(self.got("media")[1]["mount_path"], "/tmp/CD/CDROM/PART1/")
        self.unplug(drive)
        self.assertFalse(os.path.exists("/tmp/CD"))

    def test_a_stick_on_a_port_with_an_apple_shuttle_device_is_not_mounted(self):
        shuttle = board.usb_device("1-1.1", 0x05AC, 0x1300)
        self.plug(shuttle)
        self.plug(board.disk("1-1.1"), sda1="stick")
        self.expect_log("the port is already SHUFFLE_APPLE, so not mount")
        self.expect_nothing("media")
        self.assertEqual(self.mounted(), {})

    def test_a_stick_on_a_port_with_an_mtp_device_is_not_mounted(self):
        camera = board.usb_device("1-1.2", 0x1234, 0x0001, [board.Interface((6, 1, 1), 3)])
        stick = board.stick("1-1.2.1")
        self.plug(camera)
        self.plug(stick, sda1="stick")
        self.expect_log("this is mtp device")
        self.expect_log("the port is already MTP, so not mount")
        self.assertEqual(self.mounted(), {})

    def test_a_volume_that_somebody_uses_is_detached_and_its_folder_is_free_for_the_next(self):
        stick = board.stick("1-1.1")
        self.plug(stick, sda1="stick")
        with open(PATH1 + "hello.txt") as busy:
            self.mark()
            started = time.monotonic()
            self.board.unplug(stick)
            self.expect_log("UnMountForcibly")
            self.assertGreaterEqual(time.monotonic() - started, 2.3)
            self.settle()
            self.assertEqual(self.said(), [(5, 0, 1)])
            self.assertEqual(self.mounted(), {})
            self.assertFalse(os.path.exists("/tmp/USB"))
            self.assertEqual(busy.read(), "hello from the stick")
            self.mark()
            self.plug(stick, sda1="second")
            self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": ("/dev/sda1", "ext2")})

    def test_ten_fast_replugs_give_as_many_ejections_as_insertions_and_leave_nothing(self):
        stick = board.stick("1-1.1")
        self.plug(stick, sda1="stick")
        self.unplug(stick)
        self.mark()
        before = self.service.descriptors()
        for _ in range(10):
            self.board.plug(stick)
            self.board.unplug(stick)
        self.settle()
        said = self.said()
        self.assertEqual(said.count((2, 0, 1)), 10)
        self.assertEqual(said.count((3, 0, 1)), said.count((5, 0, 1)))
        self.assertEqual(self.mounted(), {})
        self.assertFalse(os.path.exists("/tmp/USB"))
        self.assertEqual(self.service.descriptors(), before)
        self.assertEqual(self.service.children(), [])

    def test_an_add_that_comes_twice_announces_twice_and_mounts_once(self):
        stick = board.stick("1-1.1")
        self.plug(stick, sda1="stick")
        for node in stick:
            self.board.tell("add", node)
        self.settle()
        self.expect_log("already exists", level=160)
        self.assertEqual(self.said(), [(2, 0, 1), (3, 0, 1), (2, 0, 1)])
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": ("/dev/sda1", "ext4")})
        self.unplug(stick)
        self.assertEqual(self.mounted(), {})

    def test_a_partition_that_comes_after_a_repeated_add_gets_its_own_folder(self):
        stick = board.stick("1-1.1", partitions=["sda1", "sda2"])
        late = stick.pop()
        self.plug(stick, sda1="stick")
        for node in stick:
            self.board.tell("add", node)
        self.plug([late], sda2="second")
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": ("/dev/sda1", "ext4"),
                                          "/tmp/USB/PORT1/PART2": ("/dev/sda2", "ext2")})

    def test_a_medium_that_changes_is_mounted_when_it_can_be_now(self):
        reader = board.stick("1-1.1", partitions=[], announced=0)
        self.plug(reader, sda="unknown")
        self.assertEqual(self.said(), [(2, 0, 1)])
        self.mark()
        self.volumes["stick"].appear_as("sda")
        self.board.tell("change", reader[-1])
        self.settle()
        self.assertEqual(self.said(), [(3, 0, 1)])
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": ("/dev/sda", "ext4")})


class MountCheck(Stick):
    def check(self, selector):
        self.mark()
        self.send("test", usbrecords.mount_check(selector))
        return self.await_records("test", 1)[0]

    def test_without_a_volume_both_ports_answer_no(self):
        for selector in (0, 1):
            with self.subTest(selector):
                self.assertEqual(self.check(selector).data, bytes.fromhex("82310100") + bytes(32))
                self.expect_log(f"usb{selector + 1} mount check node:(nil)")

    def test_a_mounted_volume_on_the_first_root_port_answers_with_its_path(self):
        self.plug(board.stick("1-1.1"), sda1="stick")
        self.assertEqual(self.check(0).data, bytes.fromhex("82310101") + PATH1.encode().ljust(32, b"\0"))
        self.expect_log(f"result:1 mnt_path:{PATH1}")
        self.assertEqual(self.check(1)["mounted"], 0)

    def test_a_volume_on_the_second_port_of_the_hub_answers_to_the_first_selector_too(self):
        self.plug(board.stick("1-1.2"), sda1="stick")
        self.assertEqual(self.check(0)["mount_path"], "/tmp/USB/PORT2/PART1/")

    def test_a_volume_on_the_third_bus_answers_to_the_second_selector(self):
        nodes = board.stick("1-1.1")
        for node in nodes:
            node.devpath = node.devpath.replace("/usb1/", "/usb3/").replace("1-1", "3-1")
        self.plug(nodes, sda1="stick")
        self.assertEqual(self.check(1)["mount_path"], PATH1)
        self.assertEqual(self.check(0)["mounted"], 0)

    def test_checks_amid_comings_and_goings_are_all_answered(self):
        stick = board.stick("1-1.1")
        self.volumes["stick"].appear_as("sda1")
        for node in stick:
            self.board.show(node)
        self.mark()
        for asked in range(2 * len(stick), 50 * 2 * len(stick) + 1, 2 * len(stick)):
            for node in stick:
                self.board.tell("add", node)
                self.send("test", usbrecords.mount_check(0))
            for node in reversed(stick):
                self.send("test", usbrecords.mount_check(0))
                self.board.tell("remove", node)
            if asked % 80 == 0:    # whoever falls 256 answers behind loses some
                answers = self.await_records("test", asked, 30)
        for node in stick:
            self.board.hide(node)
        self.settle()
        self.assertEqual({record["mount_path"] for record in answers if record["mounted"]} - {PATH1}, set())
        self.assertEqual({record["mount_path"] for record in answers if not record["mounted"]} - {""}, set())
        self.assertEqual(self.mounted(), {})

    def test_another_command_or_selector_gets_no_answer(self):
        self.mark()
        self.send("test", bytes.fromhex("0231020802"))
        self.expect_log("unknown extra_cmd:8 port:2", level=160)
        self.send("test", bytes.fromhex("0231020900"))
        self.expect_log("unknown extra_cmd:9 port:0", level=160)
        self.send("test", bytes.fromhex("0332020800"))
        self.expect_log("unknown cmd", level=160)
        self.settle()
        self.expect_nothing("test")


if __name__ == "__main__":
    main()
