#!/usr/bin/python3
"""Uevents that no kernel sends: each costs at most itself, and the next stick is announced as ever."""
import random
import re

from bench import ServiceCase, board, main, uevents, volumes

SEED = 20260101
RAW_LIMIT = 2560        # what the service takes of one message


class BadUevents(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())
        cls.volume("second", volumes.filesystem("ext2", label="SECOND"))

    def setUp(self):
        super().setUp()
        self.addCleanup(self.assert_as_before)

    def assert_as_before(self):
        """The list is empty again, and the service does its job."""
        self.assert_stick_is_announced()
        sizes = [text for text in self.service.texts(self.log_from) if re.fullmatch(r"size\[\d+\]", text)]
        self.assertEqual(sizes[-1], "size[0]")

    def remove(self, *paths):
        for path in paths:
            self.raw(uevents.text("remove", path, "remove@", SUBSYSTEM="usb"))

    def add(self, path, **keys):
        keys.setdefault("SUBSYSTEM", "usb")
        return uevents.text("add", path, "add@", **keys)    # a long path does not fit twice

    def test_a_message_may_end_at_any_byte(self):
        stick = board.stick("1-1.1")
        for node in (stick[0], stick[1], stick[-1]):
            self.board.show(node)
            whole = uevents.text("add", node.devpath, SUBSYSTEM=node.subsystem, **node.keys)
            for end in range(1, len(whole)):
                self.raw(whole[:end])
            self.settle_events()
            self.remove(node.devpath)
            self.board.hide(node)
        self.settle()
        self.expect_log("there is no subsystem", level=128)

    def test_a_message_to_the_process_id_is_heard_as_well(self):
        self.board.injector.raw(uevents.text("by-port-id", "/devices/x", SUBSYSTEM="usb"), self.service.pid)
        self.expect_log("unknown action(by-port-id)", level=128)

    def test_a_message_without_a_terminator_is_bounded_by_its_length(self):
        path = board.path_of("1-1.1")
        for size in (RAW_LIMIT - 1, RAW_LIMIT, RAW_LIMIT + 1, 4000):
            with self.subTest(size):
                head = self.add(path, DEVTYPE="usb_device")
                self.raw(head + b"PRODUCT=" + b"1" * (size - len(head) - 8))
                self.settle_events()
                self.remove(path)
        self.raw(b"ACTION=" + b"x" * (RAW_LIMIT - 7))
        self.expect_log(f"unknown action({'x' * (RAW_LIMIT - 7)})")

    def test_the_last_place_of_a_key_counts_also_inside_a_value(self):
        path, other = board.path_of("1-1.1"), board.path_of("1-1.2")
        self.raw(self.add(path, DEVTYPE="usb_device", PRODUCT=f"1/2/3DEVPATH={other}"))
        self.expect_log(re.compile(r"seq\(null\)-add-usb DEVPATH=/usb1/1-1/1-1.2"))
        self.remove(path)
        self.settle()
        self.assertFalse([text for text in self.service.texts(self.log_from) if text.startswith("size[")])
        self.remove(other)
        self.expect_log("size[0]")

    def test_of_doubled_keys_the_last_counts(self):
        path, other = board.path_of("1-1.1"), board.path_of("1-1.2")
        self.raw(self.add(path) + f"DEVPATH={other}\0ACTION=remove\0ACTION=add\0SUBSYSTEM=tty\0".encode())
        self.expect_log("msgID:24")
        self.remove(other)
        self.expect_log("msgID:25")

    def test_empty_values_are_no_devices(self):
        self.raw(b"add@\0ACTION=\0DEVPATH=\0SUBSYSTEM=\0DEVNAME=\0DEVTYPE=\0SEQNUM=\0BUSNUM=\0PRODUCT=\0EVENT=\0"
                 b"PORT_NUM=\0ENUMERATE=\0")
        self.expect_log("unknown action()")
        path = board.interface_path("1-1.1") + "/block/sdx"
        self.raw(self.add(path, SUBSYSTEM="block", DEVNAME="", DEVTYPE="", PRODUCT=""))
        self.expect_log("unknown block devtype()")
        self.expect_log("unknown type:0")
        self.remove(path)

    def test_keys_that_are_missing_are_no_devices_either(self):
        path = board.path_of("1-1.1")
        for keys in (b"ACTION=add\0", b"ACTION=add\0DEVPATH=" + path.encode() + b"\0", b"ACTION=add\0SUBSYSTEM=usb\0",
                     b"DEVPATH=" + path.encode() + b"\0SUBSYSTEM=usb\0", b"ACTION=remove\0", b"ACTION=change\0"):
            self.raw(b"add@x\0" + keys)
        self.raw(b"add@x\0ACTION=add\0DEVPATH=" + path.encode() + b"\0SUBSYSTEM=usb\0")
        self.expect_log("there is no usb devtype")
        self.expect_log("unknown type:0", level=160)
        self.remove(path)

    def test_a_path_of_two_kibibytes_is_a_node_like_any_other(self):
        for end in ("1-1.1", "x", "1-1.1:1.0"):
            path = board.CONTROLLER + "/usb1/1-1/" + "d" * (2048 - len(board.CONTROLLER) - 11 - len(end)) + "/" + end
            with self.subTest(end):
                for subsystem, devtype in (("usb", "usb_device"), ("block", "disk"), ("tty", ""), ("hid", ""),
                                           ("net", "")):
                    self.raw(self.add(path, SUBSYSTEM=subsystem, DEVTYPE=devtype, DEVNAME="sdz", PRODUCT="1/2/3"))
                    self.settle_events()
                    self.raw(uevents.text("change", path, "change@", SUBSYSTEM=subsystem))
                    self.remove(path)
                    self.settle_events()
        # The path is the longest that the port numbers are read of.
        path = (board.CONTROLLER + "/usb1/1-1.2/").ljust(2049, "e")
        for longest, port in ((path[:2048], 2), (path, 0)):
            self.raw(self.add(longest, SUBSYSTEM="hid"))
            self.expect_log(f"msgID:22 port:{port}")
            self.remove(longest)
            self.expect_log(f"msgID:23 port:{port}")

    def test_a_device_file_of_two_kibibytes_cannot_be_mounted(self):
        disk = board.disk_path("1-1.1", "sda")
        for _ in range(2):
            self.raw(self.add(disk, SUBSYSTEM="block", DEVTYPE="disk", DEVNAME="n" * 2000))
        self.settle(60)
        self.assertEqual(self.mounted(), {})
        self.remove(disk)

    def test_the_removal_of_a_node_that_nobody_knows_does_nothing(self):
        for path in ("/devices/nowhere", board.path_of("1-1.1"), "", "/"):
            self.remove(path)
        self.settle()
        self.assertFalse([text for text in self.service.texts(self.log_from) if text.startswith("size[")])
        self.expect_nothing("media", "diag", "navi", "sdcm")

    def test_changes_of_nodes_that_nobody_knows_do_nothing(self):
        for subsystem in ("usb", "block", "net", "hid", "scsi", ""):
            self.raw(uevents.text("change", board.path_of("1-1.1"), SUBSYSTEM=subsystem, EVENT="overcurrent"))
        self.settle()
        self.expect_nothing("media", "diag", "navi", "sdcm")

    def test_other_actions_change_nothing(self):
        stick = board.stick("1-1.1")
        self.volumes["stick"].appear_as("sda1")
        self.board.plug(stick)
        self.settle()
        before = self.mounted()
        self.mark()
        for action in ("online", "offline", "move", "bind", "unbind"):
            for node in stick:
                self.board.tell(action, node)
        self.settle()
        self.expect_nothing("media", "diag", "navi", "sdcm")
        self.expect_log("unknown action(bind)", level=128)
        self.expect_no_log("unknown action(online)")
        self.assertEqual(self.mounted(), before)
        self.board.unplug(stick)

    def test_children_may_come_before_their_parents(self):
        stick = board.stick("1-1.1")
        self.volumes["stick"].appear_as("sda1")
        for node in stick:
            self.board.show(node)
        for node in reversed(stick):
            self.board.tell("add", node)
        self.settle()
        self.expect_log("parent is null", level=192)
        self.expect_log("parent doesn't exist", level=160)
        self.assertEqual(self.mounted(), {})
        self.board.unplug(stick)
        self.settle()
        self.assertEqual(self.got("diag")[-1]["connected"], 0)

    def test_a_partition_without_its_disk_is_left_alone(self):
        stick = board.stick("1-1.1")
        del stick[-2]
        self.volumes["stick"].appear_as("sda1")
        self.board.plug(stick)
        self.settle()
        self.expect_log("parent is null", level=192)
        self.assertEqual(self.mounted(), {})
        self.board.unplug(stick)

    def test_parents_may_go_before_their_grandchildren(self):
        stick = board.stick("1-1.1", partitions=["sda1", "sda2"])
        for name, volume in (("sda1", "stick"), ("sda2", "second")):
            self.volumes[volume].appear_as(name)
        self.board.plug(stick)
        self.settle()
        self.assertEqual(len(self.mounted()), 2)
        for node in stick:
            self.board.tell("remove", node)
        self.settle()
        for node in stick:
            self.board.hide(node)
        self.assertEqual(self.mounted(), {})
        volumes.disappear("sda2")

    def test_a_grandchild_of_a_parent_that_left_is_found_by_a_new_one(self):
        stick = board.stick("1-1.1")
        self.volumes["stick"].appear_as("sda1")
        self.board.plug(stick)
        self.board.tell("remove", stick[0])     # and its interface with it; disk and partition stay
        self.settle()
        self.mark()
        self.board.tell("add", stick[0])
        self.board.tell("add", stick[1])
        self.board.tell("change", stick[-2])
        self.board.tell("change", stick[-1])
        self.settle()
        self.assertEqual(list(self.mounted()), ["/tmp/USB/PORT1/PART1"])
        self.board.unplug(stick)
        self.settle()
        self.assertEqual(self.mounted(), {})

    def test_removals_may_come_twice(self):
        stick = board.stick("1-1.1")
        self.volumes["stick"].appear_as("sda1")
        self.board.plug(stick)
        for _ in range(2):
            for node in reversed(stick):
                self.board.tell("remove", node)
        self.settle()
        for node in stick:
            self.board.hide(node)
        self.assertEqual([record["cmd"] for record in self.got("navi")], [2, 3, 5])

    def test_a_name_that_begins_like_another_is_its_child(self):
        # Deliberate in the service: a plain prefix is a parent, so the first disk takes the second with it.
        interface = board.interface_path("1-1.1")
        disk, longer = f"{interface}/block/sda", f"{interface}/block/sdaa"
        self.raw(self.add(disk, SUBSYSTEM="block", DEVTYPE="disk", DEVNAME="none1"))
        self.raw(self.add(longer, SUBSYSTEM="block", DEVTYPE="disk", DEVNAME="none2"))
        self.settle()
        self.mark()
        self.remove(disk)
        self.expect_log("size[0]")

    def test_random_bytes_are_no_events(self):
        print(f"seed {SEED} ", end="", flush=True)
        chance = random.Random(SEED)
        for i in range(2000):
            self.raw(chance.randbytes(chance.randrange(1, 3000)))
            if i % 200 == 199:
                self.settle_events()

    def test_shuffled_pieces_of_events_do_no_harm(self):
        chance = random.Random(SEED)
        keys = ["ACTION=", "DEVPATH=", "SUBSYSTEM=", "DEVNAME=", "DEVTYPE=", "SEQNUM=", "BUSNUM=", "PRODUCT=",
                "EVENT=", "PORT_NUM=", "ENUMERATE="]
        paths = [node.devpath for node in board.stick("1-1.1") + board.keyboard("1-1.2")]
        words = paths + ["add", "remove", "change", "online", "usb", "block", "tty", "hid", "net", "usb_device",
                         "usb_interface", "disk", "partition", "sdq", "951/1666/1", "//", "overcurrent", "300", "FAIL",
                         "", "%n%s", "\xff\xfe"]
        for i in range(3000):
            lines = [chance.choice(keys) + chance.choice(words) for _ in range(chance.randrange(1, 14))]
            # Nodes without a path cannot be removed again by anybody.
            lines.append("DEVPATH=" + chance.choice(paths))
            self.raw("\0".join(lines).encode("latin-1") + b"\0" * chance.randrange(2))
            if i % 100 == 99:
                self.settle_events(120)
        self.remove(*paths)
        self.settle(120)

    def test_a_storm_of_events_is_worked_off(self):
        path = board.path_of("1-1.1")
        for _ in range(1000):
            self.raw(self.add(path, DEVTYPE="usb_device", PRODUCT="1/2/3"))
            self.remove(path)
        self.settle(60)


if __name__ == "__main__":
    main()
